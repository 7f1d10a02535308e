#pragma once

namespace CLI {
class App;
}

namespace pelorus::ctl {

/// Adds "translate": what the daemon would make of series names or Graphite lines. Needs no daemon.
void add_translate(CLI::App& app);

}  // namespace pelorus::ctl

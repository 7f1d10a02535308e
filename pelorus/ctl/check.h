#pragma once

namespace CLI {
class App;
}

namespace pelorus::ctl {

/// Adds "check": whether the daemon could live with its settings. Needs no daemon.
void add_check(CLI::App& app);

}  // namespace pelorus::ctl

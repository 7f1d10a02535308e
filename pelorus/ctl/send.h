#pragma once

namespace CLI {
class App;
}

namespace pelorus::ctl {

struct ServerOptions;

/// Adds "send": Graphite lines from standard input go to a daemon, local or remote, as collectd's
/// would. Borrows `server` for as long as `app` parses.
void add_send(CLI::App& app, ServerOptions& server);

}  // namespace pelorus::ctl

#pragma once

namespace CLI {
class App;
}

namespace pelorus::ctl {

struct ServerOptions;

/// Adds "send": lines from a file or standard input go to a daemon, local or remote, as collectd's,
/// as line protocol or as points of the legacy API. Borrows `server` for as long as `app` parses.
void add_send(CLI::App& app, ServerOptions& server);

}  // namespace pelorus::ctl

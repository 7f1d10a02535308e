#pragma once

namespace CLI {
class App;
}

namespace pelorus::ctl {

struct ServerOptions;

// Each function adds one subcommand to `app`, which runs it once the command line has been read.
// Those that talk to a daemon borrow `server` while `app` parses.

/// "status": what the local daemon has done since its start, and for which connections.
void add_status(CLI::App& app, ServerOptions& server);
/// "stats": the queues and writes of the local daemon, for people, Prometheus and monitoring.
void add_stats(CLI::App& app, ServerOptions& server);
/// "translate": what the daemon makes of series names or Graphite lines. Needs no daemon.
void add_translate(CLI::App& app);
/// "check": whether the daemon can work with its settings. Needs no daemon.
void add_check(CLI::App& app);
/// "send": sends lines to a local or remote daemon.
void add_send(CLI::App& app, ServerOptions& server);

}  // namespace pelorus::ctl

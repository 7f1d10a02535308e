#pragma once

#include <string>

#include "pelorus/ctl/terminal.h"
#include "skein/value.h"

namespace CLI {
class App;
}

namespace pelorus::ctl {

struct ServerOptions;

/// Adds "status": what the local daemon has done since its start, and for whom. Borrows `server`
/// for as long as `app` parses.
void add_status(CLI::App& app, ServerOptions& server);

/// The reply to "status" for people: what is in trouble stands out. `now`: seconds since the epoch.
std::string status_table(skein::Value status, double now, const Palette& palette);

}  // namespace pelorus::ctl

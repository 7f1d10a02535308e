#pragma once

#include <string>

#include "pelorus/ctl/terminal.h"
#include "skein/value.h"

namespace CLI {
class App;
}

namespace pelorus::ctl {

struct ServerOptions;

/// Adds "stats": asks the local daemon about its buffers, for people, programs and monitoring.
/// Borrows `server` for as long as `app` parses.
void add_stats(CLI::App& app, ServerOptions& server);

/// The reply to "stats" as a table, one line per database in the order of the reply. A value that
/// is missing or of a foreign type shows as "?".
std::string stats_table(skein::Value databases, const Palette& palette);

}  // namespace pelorus::ctl

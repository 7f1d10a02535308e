#pragma once

#include <string>
#include <vector>

#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"

namespace pelorus {

/// The daemon from its settings to its last log line: builds the objects, wires them, runs the
/// loop and releases them in order.
class Service {
 public:
  /// Reads the values that are fixed at load. Throws SettingsError. Borrows the loop.
  Service(Settings settings, skein::Loop& loop);

  /// Runs until the loop is stopped (SIGTERM). Throws whatever keeps it from starting, and
  /// skein::KeyboardInterrupt, which stops nothing in order.
  void main();

  /// main() under the call profiler.
  void profile();

 private:
  std::vector<std::string> database_names() const;

  Settings settings_;
  BufferSettings buffer_settings_;
  InfluxConnection influx_connection_;
  skein::Loop& loop_;
};

/// The whole process, from its command line on. Returns its exit status: 1 if it could not load,
/// else 0, also after a failure, which has been logged then.
int run_process(int argument_count, char** arguments);

}  // namespace pelorus

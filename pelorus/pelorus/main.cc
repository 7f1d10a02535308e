// The process of the daemon: reads its command line and settings, then builds the objects of the
// daemon, runs the event loop and releases the objects in order.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/influx/http_exchange.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/listen/local_server.h"
#include "pelorus/pelorus/listen/node_server.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/process.h"
#include "pelorus/pelorus/profile.h"
#include "pelorus/pelorus/settings.h"
#include "pelorus/pelorus/systemd_notify.h"
#include "skein/resources.h"

namespace pelorus {
namespace {

/// The daemon from its settings to its last log line.
class Service {
 public:
  /// Reads the values that are fixed at load. Throws SettingsError. Borrows the loop.
  Service(Settings settings, skein::Loop& loop);

  /// Runs until the loop is stopped (SIGTERM), then shuts down. Throws if it cannot start, and
  /// skein::KeyboardInterrupt, without a shutdown.
  void main();

  /// main() under the call profiler.
  void profile();

 private:
  Settings settings_;
  BufferSettings buffer_settings_;
  InfluxConnection influx_connection_;
  skein::Loop& loop_;
};

/// The status line for the service manager.
std::string description(const InfluxHandler& handler) {
  std::size_t queued = 0;
  for (const auto& database : handler.databases()) queued += database->pending_data_len();
  return fmt::format("{} databases, {} messages queued", handler.databases().size(), queued);
}

/// "12 of bonding, 3 of tidewell (2 of them in a write that was not answered)"; empty if none.
std::string unwritten(const InfluxHandler& handler) {
  std::string text;
  for (const auto& database : handler.databases()) {
    const std::uint64_t queued = database->counters().queued.messages;
    const std::uint64_t in_flight = database->counters().in_flight.messages;
    if (queued + in_flight == 0) continue;
    text +=
        fmt::format("{}{} of {}", text.empty() ? "" : ", ", queued + in_flight, database->name());
    if (in_flight != 0) {
      text += fmt::format(" ({} of them in a write that was not answered)", in_flight);
    }
  }
  return text;
}

Service::Service(Settings settings, skein::Loop& loop)
    : settings_(std::move(settings)),
      buffer_settings_(BufferSettings::read(settings_)),
      influx_connection_(InfluxConnection::read(settings_)),
      loop_(loop) {}

void Service::main() {
  log::info("Starting.");
  if (log::enabled(log::Level::DEBUG)) {
    log::warning("The log level is debug: whole keys of nodes are logged.");
  }
  InfluxHandler handler(
      settings_.get<std::vector<std::string>>("INFLUX_DATABASES"),
      [this](const std::string& name) {
        return std::make_unique<InfluxDatabase>(name, buffer_settings_, influx_connection_, loop_);
      },
      loop_, GRAPHITE_BUFFER_BYTES, buffer_settings_.max_queued_bytes);
  skein::Resources resources(loop_);
  NodeServer node_server(handler, settings_, loop_, resources);
  LocalServer local_server(handler, settings_, loop_, resources, &node_server);
  loop_.call_in(STATS_INTERVAL, [&handler] { handler.send_stats(); });
  loop_.call_in(0, [] { systemd_notify("READY=1"); });
  const auto describe = [&handler] { return description(handler); };
  log::attach(loop_);
  {
    const ServiceStatus status(describe, loop_);
    loop_.run();
  }
  log::detach();
  systemd_notify("STOPPING=1");
  handler.stop();
  local_server.close();
  node_server.close();
  if (const std::string left = unwritten(handler); !left.empty()) {
    log::warning("Messages left unwritten: {}.", left);
  }
  log::info("Quitting.");
}

void Service::profile() {
  profile::run([this] { main(); });
}

constexpr int LOADED = 0;
constexpr int NOT_LOADED = 1;

/// Loads the service and runs it. Returns the exit status of the process: 1 if the service could
/// not load, else 0, also after a failure, which has been logged then.
int load_and_run(bool profiled) {
  skein::Loop& loop = skein::loops::loop();
  loop.set_failure_handler([](const std::exception& failure) {
    log::exception(fmt::format("Exception in event loop: {}", failure.what()), failure);
  });
  loop.watch_signals();
  std::unique_ptr<Service> service;
  try {
    service = std::make_unique<Service>(Settings::load(), loop);
  } catch (const std::exception& failure) {
    log::print_trace(failure);
    return NOT_LOADED;
  }
  try {
    profiled ? service->profile() : service->main();
  } catch (const skein::KeyboardInterrupt&) {
    // The user at the terminal has ended it: nothing to report.
  } catch (const std::exception& failure) {
    log::exception(fmt::format("Unhandled exception: {}", failure.what()), failure);
  }
  return LOADED;
}

/// Returns the exit status.
int run_process(std::span<char* const> arguments) {
  open_standard_descriptors();
  keep_memory_private();
  bool profiled = false;
  try {
    const auto texts = decode_arguments(arguments);
    if (const char* asked_for = information(texts)) {
      std::fputs(asked_for, stdout);
      return LOADED;
    }
    profiled = wants_profile(texts);
  } catch (const std::bad_alloc&) {
    std::fputs("out of memory\n", stderr);
    return NOT_LOADED;
  } catch (const std::exception& failure) {
    fmt::print(stderr, "{}\n", failure.what());
    return NOT_LOADED;
  }
  ignore_signals();
  raise_descriptor_limit();
  keep_freed_memory();
  log::start();
  const int status = load_and_run(profiled);
  log::finish();
  return status;
}

}  // namespace
}  // namespace pelorus

int main(int argument_count, char** arguments) {
  const int status = pelorus::run_process({arguments, static_cast<std::size_t>(argument_count)});
  if (pelorus::HTTPExchange::lookups_pending() != 0) {
    // An ordinary exit would wait for the thread of a name lookup that hangs.
    std::fflush(nullptr);
    ::_exit(status);
  }
  return status;
}

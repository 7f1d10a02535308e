#include "pelorus/pelorus/service.h"

#include <fmt/format.h>

#include <cstdio>
#include <new>
#include <optional>
#include <span>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/listen/local_server.h"
#include "pelorus/pelorus/listen/node_server.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/process.h"
#include "pelorus/pelorus/profile.h"
#include "pelorus/pelorus/systemd_notify.h"
#include "skein/resources.h"

namespace pelorus {
namespace {

constexpr int LOADED = 0;
constexpr int NOT_LOADED = 1;

void log_loop_failures(skein::Loop& loop) {
  loop.set_failure_handler([](const std::exception& failure) {
    log::exception(fmt::format("Exception in event loop: {}", failure.what()), failure);
  });
}

/// Whatever ends the process, what waits in the log is written as far as it is read.
struct FinishLog {
  FinishLog() = default;
  FinishLog(const FinishLog&) = delete;
  FinishLog& operator=(const FinishLog&) = delete;
  ~FinishLog() { log::finish(); }
};

std::optional<Service> load_service(skein::Loop& loop) {
  try {
    return Service(Settings::load(), loop);
  } catch (const std::exception& failure) {
    log::print_trace(failure);
    return std::nullopt;
  }
}

/// What the service manager shows.
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

void run_service(Service& service, bool profiled) {
  try {
    profiled ? service.profile() : service.main();
  } catch (const skein::KeyboardInterrupt&) {
    // Somebody at the terminal has ended it, and sees that it has ended.
  } catch (const std::exception& failure) {
    log::exception(fmt::format("Unhandled exception: {}", failure.what()), failure);
  }
}

}  // namespace

Service::Service(Settings settings, skein::Loop& loop)
    : settings_(std::move(settings)),
      buffer_settings_(BufferSettings::read(settings_)),
      influx_connection_(InfluxConnection::read(settings_)),
      loop_(loop) {}

std::vector<std::string> Service::database_names() const {
  std::vector<std::string> names;
  for (const auto& record : settings_.get<std::vector<DatabaseRecord>>("INFLUX_DATABASES")) {
    names.push_back(record.name);
  }
  return names;
}

void Service::main() {
  log::info("Starting.");
  if (log::enabled(log::Level::DEBUG)) {
    log::warning("The log level is debug: whole keys of nodes are logged.");
  }
  InfluxHandler handler(
      database_names(),
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

int run_process(int argument_count, char** arguments) {
  open_standard_descriptors();
  keep_memory_private();
  bool profiled = false;
  try {
    const std::span<char* const> given(arguments, static_cast<std::size_t>(argument_count));
    const auto texts = decode_arguments(given);
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
  const FinishLog finish_log;
  skein::Loop& loop = skein::loops::loop();
  log_loop_failures(loop);
  loop.watch_signals();
  auto service = load_service(loop);
  if (!service) return NOT_LOADED;
  run_service(*service, profiled);
  return LOADED;
}

}  // namespace pelorus

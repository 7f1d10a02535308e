#include "pelorus/pelorus/ingest/influx_handler.h"

#include <fmt/format.h>

#include <algorithm>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/submit_message.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/profile.h"
#include "pelorus/translate/display.h"

namespace pelorus {
namespace {

/// As much of a database's name as an error shows.
constexpr std::size_t SHOWN_NAME_BYTES = 64;

class LogBadLines : public BadLineReporter {
 public:
  void improperly_formatted(std::string_view line) override {
    if (log::enabled(spdlog::level::warn)) {
      log::warning("Improperly formatted metric: \"{}\"", translate::display(line));
    }
  }

  void not_translated(std::string_view series, translate::Outcome outcome) override {
    if (!is_unexpected(outcome)) {
      log::warning("{}", failure_text(outcome, series));
      return;
    }
    const translate::UnexpectedSeriesError failure(failure_text(outcome, series));
    log::warning("Unexpected error occurred when translating series");
    log::exception(failure.what(), failure);
  }
};

}  // namespace

InfluxHandler::InfluxHandler(std::span<const std::string> database_names,
                             const MakeDatabase& make_database, skein::Loop& loop,
                             std::size_t graphite_buffer_bytes)
    : loop_(loop), graphite_message_(graphite_buffer_bytes) {
  for (const std::string& name : database_names) {
    auto database = make_database(name);
    const auto same = std::ranges::find(databases_, name, [](const auto& d) { return d->name(); });
    if (same == databases_.end()) {
      databases_.push_back(std::move(database));
    } else {
      *same = std::move(database);
    }
  }
}

InfluxDatabase& InfluxHandler::database(std::string_view name) {
  for (const auto& database : databases_) {
    if (database->name() == name) return *database;
  }
  throw UnknownDatabaseError(
      fmt::format("no database '{}' is configured", name.substr(0, SHOWN_NAME_BYTES)));
}

void InfluxHandler::add(std::string_view database_name, std::string data,
                        std::int64_t num_metrics) {
  PROFILE_SCOPE();
  statistics_.messages += 1;
  statistics_.records += num_metrics;
  database(database_name).add(std::move(data));
}

void InfluxHandler::add_graphite(std::string_view database_name, std::string_view metrics) {
  PROFILE_SCOPE();
  LogBadLines reporter;
  const auto built = graphite_message_.build(metrics, reporter);
  add(database_name, std::string(built.message), built.num_metrics);
}

void InfluxHandler::add_submit(std::string_view database_name, std::string_view name,
                               skein::Value points) {
  PROFILE_SCOPE();
  const bool read = submit_messages(
      name, points, [&](std::string line) { add(database_name, std::move(line), 1); });
  if (!read) {
    log::warning("Could not translate \"{}\": No match for series", translate::display(name));
  }
}

void InfluxHandler::send_stats() {
  PROFILE_SCOPE();
  const Nanoseconds now = timestamp_to_influx(loop_.clocks().wall());
  add(TIDEWELL_DATABASE, statistics_message(statistics_, now), STATISTICS_RECORDS);
  statistics_ = {};
  loop_.call_in(STATS_INTERVAL, [this] { send_stats(); });
}

void InfluxHandler::stop() {
  for (const auto& database : databases_) database->stop_process_data_timer();
}

}  // namespace pelorus

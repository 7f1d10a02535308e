#include "pelorus/pelorus/ingest/influx_handler.h"

#include <fmt/format.h>

#include <algorithm>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/bad_lines.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/profile.h"
#include "skein/text.h"

namespace pelorus {
namespace {

/// As much of a database's name as an error shows.
constexpr std::size_t SHOWN_NAME_BYTES = 64;

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

Ingested InfluxHandler::add_graphite(std::string_view database_name, std::string_view metrics) {
  PROFILE_SCOPE();
  Ingested ingested;
  BadLines bad_lines(ingested);
  const auto built = graphite_message_.build(metrics, bad_lines);
  ingested.records = built.num_metrics;
  add(database_name, std::string(built.message), built.num_metrics);
  return ingested;
}

Ingested InfluxHandler::add_submit(std::string_view database_name, std::string_view name,
                                   skein::Value points) {
  SubmitMessages messages(name, points);
  return add_submit(database_name, messages, points.size());
}

Ingested InfluxHandler::add_submit(std::string_view database_name, SubmitMessages& messages,
                                   std::size_t most_points) {
  PROFILE_SCOPE();
  Ingested ingested;
  const bool read = messages.make(most_points, [&](std::string line) {
    add(database_name, std::move(line), 1);
    ++ingested.records;
  });
  if (!read) {
    const std::string_view name = messages.name();
    const auto text = fmt::format("Could not translate \"{}\": No match for series",
                                  skein::display(name.substr(0, SHOWN_BYTES)));
    log::warning("{}", with_left_out(text, name));
    ingested.bad_lines = 1;
    ingested.last_warning.assign(text, 0, KEPT_WARNING_BYTES);
  }
  return ingested;
}

Statistics InfluxHandler::totals() const noexcept {
  return {reported_.messages + statistics_.messages, reported_.records + statistics_.records,
          reported_.successful_auths + statistics_.successful_auths,
          reported_.failed_auths + statistics_.failed_auths};
}

void InfluxHandler::send_stats() {
  PROFILE_SCOPE();
  for (const auto& database : databases_) database->sample_queue();
  const Nanoseconds now = timestamp_to_influx(loop_.clocks().wall());
  const Statistics totals = this->totals();
  add(TIDEWELL_DATABASE, statistics_message(statistics_, now), STATISTICS_RECORDS);
  reported_ = totals;
  statistics_ = {};
  loop_.call_in(STATS_INTERVAL, [this] { send_stats(); });
}

void InfluxHandler::stop() {
  for (const auto& database : databases_) database->stop_process_data_timer();
}

}  // namespace pelorus

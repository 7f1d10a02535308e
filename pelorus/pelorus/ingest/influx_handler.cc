#include "pelorus/pelorus/ingest/influx_handler.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/ingest/bad_lines.h"
#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/pelorus/ingest/submit_message.h"
#include "pelorus/pelorus/log.h"
#include "skein/profile_scope.h"
#include "skein/text.h"

namespace pelorus {
namespace {

/// As much of a database's name as an error shows.
constexpr std::size_t SHOWN_NAME_BYTES = 64;
/// In a statistics message.
constexpr std::int64_t STATISTICS_RECORDS = 4;
constexpr std::int64_t NANOSECONDS_PER_SECOND = 1'000'000'000;
constexpr double BEYOND_NANOSECONDS = 0x1p127;

}  // namespace

Nanoseconds timestamp_to_influx(std::int64_t timestamp) {
  return Nanoseconds{timestamp} * NANOSECONDS_PER_SECOND;
}

Nanoseconds timestamp_to_influx(double timestamp) {
  const double product = timestamp * static_cast<double>(NANOSECONDS_PER_SECOND);
  if (!(std::fabs(product) < BEYOND_NANOSECONDS)) {
    throw std::domain_error("a time that is no moment has no nanoseconds");
  }
  return static_cast<Nanoseconds>(product);
}

std::string statistics_message(const Statistics& statistics, Nanoseconds now) {
  return fmt::format(
      "proxy_messages value={messages} {now}\nproxy_records value={records} {now}\n"
      "proxy_successful_auths value={successful_auths} {now}\n"
      "proxy_failed_auths value={failed_auths} {now}\n",
      fmt::arg("messages", statistics.messages), fmt::arg("records", statistics.records),
      fmt::arg("successful_auths", statistics.successful_auths),
      fmt::arg("failed_auths", statistics.failed_auths), fmt::arg("now", now));
}

InfluxHandler::InfluxHandler(std::span<const std::string> database_names,
                             const MakeDatabase& make_database, skein::Loop& loop,
                             std::size_t graphite_buffer_bytes, std::uint64_t max_queued_bytes)
    : loop_(loop),
      max_queued_bytes_(max_queued_bytes),
      graphite_message_(std::make_unique<GraphiteMessage>(graphite_buffer_bytes)),
      stats_again_(loop, [this] { call_send_stats(); }) {
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

InfluxHandler::~InfluxHandler() = default;

InfluxDatabase* InfluxHandler::find(std::string_view name) const noexcept {
  for (const auto& database : databases_) {
    if (database->name() == name) return database.get();
  }
  return nullptr;
}

std::size_t InfluxHandler::room(std::string_view name) const noexcept {
  const InfluxDatabase* const database = find(name);
  if (database == nullptr) return SIZE_MAX;
  const std::size_t half = database->max_pending_messages() / 2;
  return half - std::min(half, database->pending_data_len());
}

void InfluxHandler::add(std::string_view name, std::string data, std::int64_t num_metrics) {
  PROFILE_SCOPE();
  statistics_.messages += 1;
  statistics_.records += num_metrics;
  InfluxDatabase* const database = find(name);
  if (database == nullptr) {
    throw UnknownDatabaseError(
        fmt::format("no database '{}' is configured", name.substr(0, SHOWN_NAME_BYTES)));
  }
  database->add(std::move(data));
  limit_queues();
}

std::uint64_t InfluxHandler::queued_memory() const noexcept {
  std::uint64_t sum = 0;
  for (const auto& database : databases_) sum += database->memory();
  return sum;
}

std::optional<double> InfluxHandler::seconds_until_full(const InfluxDatabase& database) const {
  double growth = 0;
  for (const auto& each : databases_) growth += each->memory_growth();
  if (growth == 0) return database.seconds_until_full(std::numeric_limits<double>::infinity());
  const auto room = max_queued_bytes_ - std::min(max_queued_bytes_, queued_memory());
  return database.seconds_until_full(static_cast<double>(room) / growth);
}

/// Discards a sixteenth more than necessary, to avoid a warning for each message of a long outage.
void InfluxHandler::limit_queues() {
  std::uint64_t most = 0;  // as if a write kept what it has sent
  for (const auto& database : databases_) {
    most += database->counters().queued.memory() + database->counters().in_flight.memory();
  }
  if (most <= max_queued_bytes_) return;
  const std::uint64_t sum = queued_memory();
  if (sum <= max_queued_bytes_) return;
  const auto queued = [](const auto& database) { return database->counters().queued.memory(); };
  const auto largest = std::ranges::max_element(databases_, {}, queued);
  (*largest)->discard_bytes(sum - max_queued_bytes_ + max_queued_bytes_ / 16);
}

IngestResult InfluxHandler::add_graphite(std::string_view database_name, std::string_view metrics) {
  GraphiteBlock block(metrics, bad_lines_);
  return add_graphite(database_name, block, metrics.size());
}

IngestResult InfluxHandler::add_graphite(std::string_view database_name, GraphiteBlock& block,
                                         std::size_t most_bytes) {
  PROFILE_SCOPE();
  const std::size_t before = block.rest.size();
  const auto built =
      graphite_message_->build_part(block.rest, most_bytes, block.message.size(), block.bad_lines);
  block.records += built.num_metrics;
  if (block.rest.empty() && block.message.empty()) {  // in one step, as nearly always
    block.message = std::string(built.message);
  } else {
    if (block.message.empty()) {  // room for all, if all lines are alike
      block.message.reserve(built.message.size() * (before / most_bytes + 2));
    }
    block.message += built.message;
    if (!block.rest.empty()) return {};
  }
  add(database_name, std::move(block.message), block.records);
  return {block.records, block.bad_lines.count(), block.bad_lines.last_warning()};
}

std::unique_ptr<GraphiteBlock> InfluxHandler::graphite_block(std::string_view metrics) {
  return std::make_unique<GraphiteBlock>(metrics, bad_lines_);
}

IngestResult InfluxHandler::add_submit(std::string_view database_name, SubmitMessages& messages,
                                       std::size_t most_points) {
  PROFILE_SCOPE();
  IngestResult result;
  const bool read = messages.make(most_points, [&](std::string line) {
    add(database_name, std::move(line), 1);
    ++result.records;
  });
  if (!read) {
    const std::string_view name = messages.name();
    const auto text = fmt::format("Could not translate \"{}\": No match for series",
                                  skein::display(name.substr(0, SHOWN_BYTES)));
    log::warning("{}", with_left_out(text, name));
    result.bad_lines = 1;
    ++bad_lines_.at(static_cast<std::size_t>(BadLineKind::SUBMIT));
    result.last_warning.assign(text, 0, KEPT_WARNING_BYTES);
  }
  return result;
}

Statistics InfluxHandler::totals() const noexcept {
  return {reported_.messages + statistics_.messages, reported_.records + statistics_.records,
          reported_.successful_auths + statistics_.successful_auths,
          reported_.failed_auths + statistics_.failed_auths};
}

void InfluxHandler::send_stats() {
  PROFILE_SCOPE();
  for (const auto& database : databases_) database->sample_queue();
  if (find(TIDEWELL_DATABASE) != nullptr) call_send_stats();
  const Nanoseconds now = timestamp_to_influx(loop_.clocks().wall());
  const Statistics totals = this->totals();
  add(TIDEWELL_DATABASE, statistics_message(statistics_, now), STATISTICS_RECORDS);
  reported_ = totals;
  statistics_ = {};
}

void InfluxHandler::call_send_stats() noexcept {
  try {
    loop_.call_in(STATS_INTERVAL, [this] { send_stats(); });
  } catch (const std::exception&) {
    stats_again_.arm();
  }
}

void InfluxHandler::stop() {
  for (const auto& database : databases_) database->stop_process_data_timer();
}

}  // namespace pelorus

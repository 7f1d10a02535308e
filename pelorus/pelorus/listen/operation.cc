#include "pelorus/pelorus/listen/operation.h"

#include <algorithm>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/ingest/bad_lines.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/ingest/submit_message.h"

namespace pelorus {
namespace {

/// To write a point of a "submit" takes as long as so many bytes of Graphite, about a microsecond.
constexpr std::size_t COST_OF_A_POINT = 512;

/// So much Graphite takes a few milliseconds to translate. A block of collectd's plugin has 64 KiB.
constexpr std::size_t GRAPHITE_BYTES_PER_STEP = 512U << 10;

/// A "submit" of so many points, or fewer, does not wait for room.
constexpr std::size_t FEW_POINTS = 64;

}  // namespace

Operation Operation::add(std::string_view database, std::string_view data,
                         std::int64_t num_metrics) {
  return {Kind::ADD, {.database = database, .text = data, .num_metrics = num_metrics}};
}

Operation Operation::add_submit(std::string_view database, std::string_view name,
                                skein::Value points) {
  return {Kind::ADD_SUBMIT, {.database = database, .text = name, .points = points}};
}

Operation Operation::add_graphite(std::string_view database, std::string_view lines) {
  return {Kind::ADD_GRAPHITE, {.database = database, .text = lines}};
}

Operation::Operation(Kind kind, const Arguments& arguments) : kind_(kind), arguments_(arguments) {}
Operation::Operation(Operation&&) noexcept = default;
Operation::~Operation() = default;

Operation Operation::owned() const {
  Operation copy(kind_, arguments_);
  copy.own_text_ = std::make_unique<std::string>(arguments_.database);
  *copy.own_text_ += arguments_.text;
  const std::string_view text = *copy.own_text_;
  copy.arguments_.database = text.substr(0, arguments_.database.size());
  copy.arguments_.text = text.substr(arguments_.database.size());
  if (arguments_.points) {
    copy.own_points_ = std::make_unique<skein::OwnedValue>(*arguments_.points);
    copy.arguments_.points = copy.own_points_->value();
  }
  return copy;
}

std::size_t Operation::bytes() const noexcept {
  return (own_text_ ? own_text_->size() : 0) + (own_points_ ? own_points_->bytes() : 0) +
         (block_ ? block_->message.size() : 0);
}

std::size_t Operation::points() const noexcept {
  const auto& points = arguments_.points;
  return points && points->is(skein::Value::Type::LIST) ? points->size() : 0;
}

bool Operation::is_short(const InfluxHandler& handler) const noexcept {
  if (kind_ == Kind::ADD_GRAPHITE) return arguments_.text.size() <= GRAPHITE_BYTES_PER_STEP;
  return points() <= FEW_POINTS ||
         (points() <= POINTS_PER_STEP && points() <= handler.room(arguments_.database));
}

/// A step takes what fits, but not so little that most of the time goes into steps.
bool Operation::has_room(const InfluxHandler& handler) const noexcept {
  return points() <= FEW_POINTS || handler.room(arguments_.database) >= FEW_POINTS;
}

std::size_t Operation::cost() const noexcept {
  if (kind_ == Kind::ADD_GRAPHITE) {
    return std::min(block_ ? block_->rest.size() : arguments_.text.size(), GRAPHITE_BYTES_PER_STEP);
  }
  if (!arguments_.points) return arguments_.text.size();
  return std::min(arguments_.points->size(), POINTS_PER_STEP) * COST_OF_A_POINT;
}

IngestResult Operation::run(InfluxHandler& handler) {
  done_ = true;
  const auto& [database, text, num_metrics, points] = arguments_;
  switch (kind_) {
    case Kind::ADD:
      handler.add(database, std::string(text), num_metrics);
      return {.records = num_metrics};
    case Kind::ADD_GRAPHITE:
      if (text.size() > GRAPHITE_BYTES_PER_STEP) return run_graphite(handler);
      return handler.add_graphite(database, text);
    case Kind::ADD_SUBMIT:
      return run_submit(handler);
  }
  return {};
}

IngestResult Operation::run_graphite(InfluxHandler& handler) {
  const auto& [database, text, num_metrics, points] = arguments_;
  if (!block_) block_ = handler.graphite_block(text);
  IngestResult ingested = handler.add_graphite(database, *block_, GRAPHITE_BYTES_PER_STEP);
  done_ = block_->rest.empty();
  return ingested;
}

IngestResult Operation::run_submit(InfluxHandler& handler) {
  const auto& [database, text, num_metrics, points] = arguments_;
  if (!submit_) submit_ = std::make_unique<SubmitMessages>(text, *points);
  const std::size_t room = handler.room(database);
  IngestResult ingested = handler.add_submit(
      database, *submit_, room < FEW_POINTS ? POINTS_PER_STEP : std::min(POINTS_PER_STEP, room));
  done_ = !submit_->has_more();
  return ingested;
}

}  // namespace pelorus

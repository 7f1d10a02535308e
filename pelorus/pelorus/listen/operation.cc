#include "pelorus/pelorus/listen/operation.h"

#include <algorithm>
#include <utility>

#include "pelorus/pelorus/constants.h"

namespace pelorus {
namespace {

/// To write a point of a "submit" takes as long as so many bytes of Graphite, about a microsecond.
constexpr std::size_t COST_OF_A_POINT = 512;

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

Operation::Copies::Copies(const Arguments& arguments)
    : text(std::string(arguments.database).append(arguments.text)) {
  if (arguments.points) points = std::make_unique<skein::OwnedValue>(*arguments.points);
}

Operation::Operation(Kind kind, std::unique_ptr<Copies> copies, const Arguments& arguments)
    : kind_(kind), copies_(std::move(copies)), arguments_(arguments) {
  const std::string_view text = copies_->text;
  arguments_.database = text.substr(0, arguments.database.size());
  arguments_.text = text.substr(arguments.database.size());
  if (copies_->points) arguments_.points = copies_->points->value();
}

Operation Operation::owned() const {
  return {kind_, std::make_unique<Copies>(arguments_), arguments_};
}

std::size_t Operation::bytes() const noexcept {
  if (!copies_) return 0;
  return copies_->text.size() + (copies_->points ? copies_->points->bytes() : 0);
}

bool Operation::is_long() const noexcept {
  return arguments_.points && arguments_.points->is(skein::Value::Type::LIST) &&
         arguments_.points->size() > POINTS_PER_TURN;
}

std::size_t Operation::cost() const noexcept {
  if (!arguments_.points) return arguments_.text.size();
  return std::min(arguments_.points->size(), POINTS_PER_TURN) * COST_OF_A_POINT;
}

Ingested Operation::run(InfluxHandler& handler) {
  done_ = true;
  const auto& [database, text, num_metrics, points] = arguments_;
  switch (kind_) {
    case Kind::ADD:
      handler.add(database, std::string(text), num_metrics);
      return {.records = num_metrics};
    case Kind::ADD_GRAPHITE:
      return handler.add_graphite(database, text);
    case Kind::ADD_SUBMIT:
      break;
  }
  if (!submit_) submit_.emplace(text, *points);
  Ingested ingested = handler.add_submit(database, *submit_, POINTS_PER_TURN);
  done_ = !submit_->has_more();
  return ingested;
}

}  // namespace pelorus

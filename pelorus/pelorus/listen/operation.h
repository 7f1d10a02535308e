#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "pelorus/pelorus/ingest/ingest_result.h"
#include "skein/value.h"

namespace pelorus {

class InfluxHandler;
class SubmitMessages;
struct GraphiteBlock;

/// What a request of a node asks of the InfluxHandler: one of its operations with all arguments.
/// The arguments are views of the request, or of copies that owned() has made for a request that
/// has to wait; it runs in the same way on both. One that takes long runs in several steps.
class Operation {
 public:
  /// `num_metrics`: records of `data`.
  static Operation add(std::string_view database, std::string_view data, std::int64_t num_metrics);
  static Operation add_submit(std::string_view database, std::string_view name,
                              skein::Value points);
  static Operation add_graphite(std::string_view database, std::string_view lines);
  Operation(Operation&&) noexcept;  ///< the views stay good
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  ~Operation();

  /// The same on copies of the arguments. To be called before the first step.
  Operation owned() const;
  /// Memory that the copies take up, and what the steps so far have made.
  std::size_t bytes() const noexcept;

  /// One step completes it, and the queue of its database has room for what it adds.
  bool is_short(const InfluxHandler& handler) const noexcept;
  /// Whether the next step leaves half the queue of its database to others. One that adds few
  /// messages always has room.
  bool has_room(const InfluxHandler& handler) const noexcept;
  /// What the next step costs, in bytes of content that take as long.
  std::size_t cost() const noexcept;
  /// Runs the next step. Throws what the operation throws, which ends it.
  IngestResult run(InfluxHandler& handler);
  bool is_done() const noexcept { return done_; }

 private:
  enum class Kind : std::uint8_t { ADD, ADD_SUBMIT, ADD_GRAPHITE };
  struct Arguments {
    std::string_view database;
    std::string_view text;                 ///< the lines; of "submit" the name
    std::int64_t num_metrics = 0;          ///< of "add"
    std::optional<skein::Value> points{};  ///< of "submit"
  };

  Operation(Kind kind, const Arguments& arguments);
  std::size_t points() const noexcept;
  IngestResult run_graphite(InfluxHandler& handler);
  IngestResult run_submit(InfluxHandler& handler);

  const Kind kind_;
  bool done_ = false;
  Arguments arguments_;
  // What the arguments are views of, unless that is the request.
  std::unique_ptr<std::string> own_text_;
  std::unique_ptr<skein::OwnedValue> own_points_;
  // How far it is, if it takes several steps.
  std::unique_ptr<SubmitMessages> submit_;
  std::unique_ptr<GraphiteBlock> block_;
};

}  // namespace pelorus

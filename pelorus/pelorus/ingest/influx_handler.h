#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/ingest/ingest_result.h"
#include "skein/loops.h"
#include "skein/value.h"

namespace pelorus {

struct GraphiteBlock;
class GraphiteMessage;
class InfluxDatabase;
class SubmitMessages;

/// Wide enough for the nanoseconds of every moment that fits 64 bits of seconds.
using Nanoseconds = __int128;

/// A Unix time in seconds as nanoseconds since the epoch: exact for an integer; for a double the
/// product in double precision, truncated toward zero (a quarter of a microsecond off at most,
/// these decades). Throws std::domain_error for a double that is not finite or beyond 128 bits.
Nanoseconds timestamp_to_influx(std::int64_t timestamp);
Nanoseconds timestamp_to_influx(double timestamp);

/// What the daemon counts from one statistics record to the next.
struct Statistics {
  std::int64_t messages = 0;
  std::int64_t records = 0;
  std::int64_t successful_auths = 0;
  std::int64_t failed_auths = 0;
};

/// The daemon's four records about itself, each ended by "\n".
std::string statistics_message(const Statistics& statistics, Nanoseconds now);

/// Address space of the Graphite path's output buffer: takes memory only as it is written.
constexpr std::size_t GRAPHITE_BUFFER_BYTES = 500'000'000;

/// All data pass through here on their way to InfluxDB: turns updates into messages, counts them,
/// and hands each to the write buffer of its database. Owns the buffers and the translator. Built
/// before the listeners, which borrow it; lives as long as the process. Loop thread only.
class InfluxHandler {
 public:
  /// Makes the write buffer of one database.
  using MakeDatabase = std::function<std::unique_ptr<InfluxDatabase>(const std::string& name)>;

  /// One buffer per name, in order; a repeated name replaces the earlier buffer.
  /// `max_queued_bytes`: what the queues may take up together; beyond, the oldest messages of the
  /// largest go.
  InfluxHandler(std::span<const std::string> database_names, const MakeDatabase& make_database,
                skein::Loop& loop, std::size_t graphite_buffer_bytes = GRAPHITE_BUFFER_BYTES,
                std::uint64_t max_queued_bytes = UINT64_MAX);
  InfluxHandler(const InfluxHandler&) = delete;
  InfluxHandler& operator=(const InfluxHandler&) = delete;
  ~InfluxHandler();

  /// Counts one message of `num_metrics` records and queues it, which may start a write.
  /// Throws UnknownDatabaseError, after counting, for a database that is not configured.
  void add(std::string_view database, std::string data, std::int64_t num_metrics);

  /// Adds a block of Graphite lines as one message, even when no line yields a record. Bad lines
  /// are logged and left out. Throws what add() throws, and OutputBufferFullError.
  IngestResult add_graphite(std::string_view database, std::string_view metrics);
  /// The same in steps of `most_bytes` of lines, or one line. The last step adds the message; its
  /// result is that of the block, and `block.rest` is empty then.
  IngestResult add_graphite(std::string_view database, GraphiteBlock& block,
                            std::size_t most_bytes);
  std::unique_ptr<GraphiteBlock> graphite_block(std::string_view metrics);

  /// Adds data of the legacy submit method (event database): one message per point, for the next
  /// `most_points` points, because many take long. A name or point that cannot be read ends the
  /// call with a warning; ArgumentTypeError is thrown for points and times of another kind.
  /// `columns` and `time_precision` are not used.
  IngestResult add_submit(std::string_view database, SubmitMessages& messages,
                          std::size_t most_points);

  /// Messages that fit before the queue of the database is half full; SIZE_MAX for a database that
  /// is not configured.
  std::size_t room(std::string_view database) const noexcept;

  void handle_successful_auth() noexcept { ++statistics_.successful_auths; }
  void increment_failed_auths() noexcept { ++statistics_.failed_auths; }

  /// Writes the four counters to the database "tidewell", resets them, and runs again in
  /// STATS_INTERVAL seconds. If the database is missing: throws, keeps the counters, does not run
  /// again.
  void send_stats();

  /// Stops the timers of the buffers. What is queued stays queued.
  void stop();

  /// Of all queues and of what writes have not sent yet, and its limit: the `max_queued_bytes` of
  /// construction.
  std::uint64_t queued_memory() const noexcept;
  std::uint64_t max_queued_bytes() const noexcept { return max_queued_bytes_; }
  /// Time until the database's queue, or all together, are full if they continue to grow as in the
  /// last minute. None as for InfluxDatabase::seconds_until_full().
  std::optional<double> seconds_until_full(const InfluxDatabase& database) const;

  /// In the order of construction.
  std::span<const std::unique_ptr<InfluxDatabase>> databases() const noexcept { return databases_; }
  const Statistics& statistics() const noexcept { return statistics_; }
  /// Counts since the start, without the daemon's records about itself.
  Statistics totals() const noexcept;
  /// Bad lines since the start, also of requests that failed after them.
  const BadLineCounts& bad_lines() const noexcept { return bad_lines_; }

 private:
  InfluxDatabase* find(std::string_view name) const noexcept;

  void limit_queues();
  void call_send_stats() noexcept;

  skein::Loop& loop_;
  const std::uint64_t max_queued_bytes_;
  Statistics statistics_;  ///< since the last statistics record
  Statistics reported_;    ///< sum of all statistics records
  BadLineCounts bad_lines_{};
  std::vector<std::unique_ptr<InfluxDatabase>> databases_;
  const std::unique_ptr<GraphiteMessage> graphite_message_;
  skein::EndOfIterationTask stats_again_;  ///< for want of memory for a timer
};

}  // namespace pelorus

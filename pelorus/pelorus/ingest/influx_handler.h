#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/pelorus/ingest/ingested.h"
#include "pelorus/pelorus/ingest/line_protocol.h"
#include "pelorus/pelorus/ingest/submit_message.h"
#include "skein/loops.h"
#include "skein/value.h"

namespace pelorus {

/// The one way of all data to InfluxDB: turns updates into messages, counts them, and hands each to
/// the write buffer of its database. Owns the buffers and the translator. Built before the
/// listeners, which borrow it; lives as long as the process. Loop thread only.
class InfluxHandler {
 public:
  /// Makes the write buffer of one database.
  using MakeDatabase = std::function<std::unique_ptr<InfluxDatabase>(const std::string& name)>;

  /// One buffer per name, in order; a repeated name replaces the earlier buffer.
  InfluxHandler(std::span<const std::string> database_names, const MakeDatabase& make_database,
                skein::Loop& loop, std::size_t graphite_buffer_bytes = GRAPHITE_BUFFER_BYTES);

  /// Counts one message of `num_metrics` records and queues it, which may start a write.
  /// Throws UnknownDatabaseError, after counting, for a database that is not configured.
  void add(std::string_view database, std::string data, std::int64_t num_metrics);

  /// Adds a block of Graphite lines as one message, even when no line yields a record. Bad lines
  /// are logged and left out. Throws what add() throws, and OutputBufferFullError.
  Ingested add_graphite(std::string_view database, std::string_view metrics);

  /// Adds data of the legacy submit method (event database): one message per point. A name or
  /// point that cannot be read ends the call with a warning; ArgumentTypeError is thrown for
  /// points and times of another kind. `columns` and `time_precision` are not used.
  Ingested add_submit(std::string_view database, std::string_view name, skein::Value points);
  /// The same for the next `most_points` points alone: a request of many takes long.
  Ingested add_submit(std::string_view database, SubmitMessages& messages, std::size_t most_points);

  void handle_successful_auth() noexcept { ++statistics_.successful_auths; }
  void increment_failed_auths() noexcept { ++statistics_.failed_auths; }

  /// Writes the four counters to the database "tidewell", begins to count afresh, and comes back in
  /// STATS_INTERVAL seconds. When the database is missing: throws, keeps counting, does not return.
  void send_stats();

  /// The buffers look after themselves no more. What is queued stays queued.
  void stop();

  /// In the order of construction.
  std::span<const std::unique_ptr<InfluxDatabase>> databases() const noexcept { return databases_; }
  const Statistics& statistics() const noexcept { return statistics_; }
  /// All that was counted since the start, without the daemon's records about itself.
  Statistics totals() const noexcept;

 private:
  InfluxDatabase& database(std::string_view name);

  skein::Loop& loop_;
  Statistics statistics_;  ///< since the last statistics record
  Statistics reported_;    ///< all that statistics records have told
  std::vector<std::unique_ptr<InfluxDatabase>> databases_;
  GraphiteMessage graphite_message_;
};

}  // namespace pelorus

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "pelorus/pelorus/influx/queue_growth.h"
#include "pelorus/pelorus/influx/write_counters.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"

namespace pelorus {

/// Per-database write buffer: queues messages and keeps at most one write in flight.
/// Owned by InfluxHandler for the life of the process. Borrows the settings, which all buffers
/// share, and the loop. Loop thread only. Adding a message takes constant time, however many wait.
class InfluxDatabase {
 public:
  /// Starts one write for the database; it is the loop's (Loop::keep) and reports back by the
  /// handle_ operations below, on a later turn. The result is a view of it, never null.
  using MakeRequest = std::function<const skein::LoopOwned*(InfluxDatabase& database)>;

  InfluxDatabase(std::string name, const BufferSettings& settings,
                 const InfluxConnection& connection, skein::Loop& loop);
  /// With another way to write, for tests.
  InfluxDatabase(std::string name, const BufferSettings& settings, skein::Loop& loop,
                 MakeRequest make_request);
  InfluxDatabase(const InfluxDatabase&) = delete;
  InfluxDatabase& operator=(const InfluxDatabase&) = delete;
  ~InfluxDatabase();

  /// Queues one message and decides at once.
  void add(std::string message);
  /// The one decision point: writes, or looks again later; then drops what is too much.
  void process_data();
  /// Body of the next write: up to max_batch_size messages, oldest first, joined by one '\n'
  /// (none after the last); empty when nothing waits. The messages leave the queue for good:
  /// a failed write does not bring them back.
  std::string get_data();
  /// The messages of get_data(), not joined: they may be hundreds of megabytes.
  std::deque<std::string> take_batch();
  /// Drops the oldest discard_size messages, with a warning.
  void discard_old_data();
  /// Harmless when no timer is armed.
  void stop_process_data_timer();

  /// The request in flight was acknowledged.
  void handle_success();
  /// The request in flight failed; its batch is lost.
  void handle_failure();
  /// The connection of the request in flight is over. Comes with the request's outcome, in the
  /// same callback: when a newer request stands there, the close of the older one is past.
  void handle_close();
  /// Why the last request failed, for the status. `answer`: what InfluxDB said, if it did.
  void note_failure(std::string text, std::optional<std::string_view> answer);
  /// Looks how long the queue is. Every ten seconds, so that seconds_until_full() can be told.
  void sample_queue();

  const std::string& name() const noexcept { return name_; }
  bool has_current_request() const noexcept { return current_request_ != nullptr; }
  std::size_t pending_data_len() const noexcept { return pending_data_.size(); }
  std::int64_t failure_count() const noexcept { return failure_count_; }
  double last_sent_time() const noexcept { return last_sent_time_; }
  std::size_t max_pending_messages() const noexcept { return settings_.max_pending_messages; }
  const WriteCounters& counters() const noexcept { return counters_; }
  /// If the queue goes on as in the last minute. None while it does not grow, or is not known to.
  std::optional<double> seconds_until_full() const;

 private:
  using Moment = std::chrono::steady_clock::time_point;

  bool should_send() const;
  bool should_drop_data() const;
  void send_request();
  void reset_process_data_timer();
  void arm_process_data_timer(Moment now);
  /// Of the messages from the front on.
  Amount amount_of(std::size_t messages) const;
  double monotonic_seconds() const;
  /// Those that wait and all that were discarded: grows as long as more comes than is written.
  std::int64_t backlog() const noexcept;

  const std::string name_;
  const BufferSettings& settings_;
  skein::Loop& loop_;
  const MakeRequest make_request_;
  const skein::LoopOwned* current_request_ = nullptr;  ///< view of the write in flight, if any
  std::int64_t failure_count_ = 0;                     ///< failed requests since the last success
  std::deque<std::string> pending_data_;  ///< messages not yet handed to a request, oldest first
  double last_sent_time_;  ///< seconds since the epoch: of construction, then of the last success
  skein::Timer process_data_timer_;
  Moment look_again_{};  ///< when the timer is to look, if it is armed
  bool timer_armed_ = false;
  WriteCounters counters_;
  QueueGrowth growth_;
};

}  // namespace pelorus

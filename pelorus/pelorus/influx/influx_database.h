#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"
#include "skein/throttle.h"

namespace pelorus {

/// A number of messages and their bytes.
struct Amount {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;

  Amount& operator+=(const Amount& more) noexcept {
    messages += more.messages;
    bytes += more.bytes;
    return *this;
  }
  /// Their approximate memory.
  std::uint64_t memory() const noexcept { return bytes + messages * MESSAGE_OVERHEAD_BYTES; }
  static constexpr std::uint64_t MESSAGE_OVERHEAD_BYTES = 48;

  Amount& operator-=(const Amount& less) noexcept {
    messages -= less.messages;
    bytes -= less.bytes;
    return *this;
  }
};

/// What has become of a database's messages since the start. Each added message is in exactly one
/// of the six amounts.
struct WriteCounters {
  struct Failure {
    double time = 0;   ///< seconds since the epoch
    std::string text;  ///< "status 400: b'…'", "could not connect to …"; no secret in it
  };

  Amount queued;                     ///< in the queue now
  Amount in_flight;                  ///< of the write in flight
  Amount sent;                       ///< acknowledged
  Amount partial;                    ///< of writes that InfluxDB has stored in part
  Amount failed;                     ///< of failed writes that it has not stored
  Amount discarded;                  ///< dropped because the queue was full
  std::uint64_t largest_body = 0;    ///< bytes of the largest body so far
  std::uint64_t partial_writes = 0;  ///< writes that InfluxDB has stored in part
  std::uint64_t dropped_points = 0;  ///< points of those that it dropped, if its answer told
  std::uint64_t unknown_drops = 0;   ///< partial writes whose answer names no number
  std::optional<Failure> last_failure;
};

/// The messages of one write. They form the body of the request, oldest first, with one '\n'
/// between each two and none after the last. The body may take hundreds of megabytes, so it is
/// joined in slices while it is sent, and each message is freed as soon as it has been joined.
class Batch {
 public:
  using Messages = std::deque<std::string>;

  Batch() = default;
  /// Moves the messages from `begin` to `end` out of their queue. `amount`: theirs. Moves all or,
  /// when memory runs out, none.
  Batch(Messages::iterator begin, Messages::iterator end, const Amount& amount);

  /// Appends the next whole messages to `buffer` until it holds `size` bytes or the batch is empty.
  void append_slice(std::string& buffer, std::size_t size);
  /// Frees what has not been joined.
  void clear() noexcept {
    messages_.clear();
    unjoined_ = {};
  }
  /// Roughly the memory of what has not been joined.
  std::uint64_t memory() const noexcept { return unjoined_.memory(); }

  std::size_t messages() const noexcept { return amount_.messages; }  ///< of the whole batch
  std::size_t data_length() const noexcept;                           ///< bytes of the whole body

 private:
  Messages messages_;  ///< not yet joined
  Amount unjoined_;    ///< theirs
  Amount amount_;      ///< of the whole batch
};

/// Per-database write buffer: queues messages and keeps at most one write in flight.
/// Owned by InfluxHandler for the life of the process. Borrows the settings, which all buffers
/// share, and the loop. Loop thread only. Adding a message takes constant time, however many wait.
class InfluxDatabase {
 public:
  /// One write. It starts on a later iteration, takes its batch with get_data() and reports with
  /// the handle_ operations below.
  class Request {
   public:
    virtual ~Request() = default;
    /// Roughly the memory of the messages that it has not sent.
    virtual std::uint64_t memory() const noexcept { return 0; }
  };
  /// Makes a write for the database. Never null.
  using MakeRequest = std::function<std::unique_ptr<Request>(InfluxDatabase& database)>;

  /// Writes by InfluxHTTPRequest.
  InfluxDatabase(std::string name, const BufferSettings& settings,
                 const InfluxConnection& connection, skein::Loop& loop);
  InfluxDatabase(std::string name, const BufferSettings& settings, skein::Loop& loop,
                 MakeRequest make_request);
  InfluxDatabase(const InfluxDatabase&) = delete;
  InfluxDatabase& operator=(const InfluxDatabase&) = delete;
  ~InfluxDatabase();

  /// Queues one message and calls process_data().
  void add(std::string message);
  /// The one decision point: starts a write or sets the timer; then drops messages from a full
  /// queue.
  void process_data();
  /// Takes the batch of the next write: up to max_batch_size messages, oldest first. They leave the
  /// queue for good: a failed write does not bring them back.
  Batch get_data();
  /// Drops the oldest discard_size messages, with a warning.
  void discard_old_data();
  /// Roughly the memory that queued and unsent messages take up.
  std::uint64_t memory() const noexcept {
    return counters_.queued.memory() + (request_ ? request_->memory() : 0);
  }
  /// Drops the oldest messages until `bytes` of memory are freed, or all, with the same warning.
  void discard_bytes(std::uint64_t bytes);
  /// Harmless when no timer is armed.
  void stop_process_data_timer();

  /// The request in flight was acknowledged.
  void handle_success();
  /// The request in flight failed; its batch is lost.
  void handle_failure() noexcept;
  /// The request in flight failed, but InfluxDB has stored a part of its batch. `dropped_points`:
  /// how many points it dropped; none if the answer does not tell.
  void handle_partial_write(std::optional<std::uint64_t> dropped_points) noexcept;
  /// The connection of the request in flight is over. Called in the same callback as the request's
  /// outcome, so it never meets a newer request.
  void handle_close() noexcept;
  /// Why the last request failed, for the status.
  void note_failure(std::string text);
  /// A request has failed before it took any message. Returns how many of these failures were not
  /// logged before it, or none if it is not to be logged either: the first one is logged, then one
  /// every ten seconds until a success.
  std::optional<std::uint64_t> pass_idle_failure() noexcept;
  /// Records the length of the queue for seconds_until_full(). Call it every ten seconds.
  void sample_queue() noexcept;

  const std::string& name() const noexcept { return name_; }
  bool has_current_request() const noexcept { return current_request_ != nullptr; }
  std::size_t pending_data_len() const noexcept { return pending_data_.size(); }
  std::int64_t failure_count() const noexcept { return failure_count_; }
  double last_sent_time() const noexcept { return last_sent_time_; }
  std::size_t max_pending_messages() const noexcept { return settings_.max_pending_messages; }
  const WriteCounters& counters() const noexcept { return counters_; }
  /// Messages a second by which the queue has grown in the last minute. 0 if it does not grow, and
  /// in the first minute.
  double growth() const;
  /// The same in bytes of memory.
  double memory_growth() const;
  /// Time until the queue is full if it continues to grow so, but no more than `seconds`, after
  /// which all queues together are. None if it does not grow, or if that takes a day or more.
  std::optional<double> seconds_until_full(double seconds) const;

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  static constexpr std::size_t HALF = 3;  // a minute in two halves
  static constexpr std::size_t SAMPLES = 2 * HALF;
  static constexpr double SAMPLE_INTERVAL = 10;      // seconds: sample_queue()
  static constexpr double LONGEST_FORECAST = 86400;  // seconds

  void discard(std::size_t count);
  bool should_send() const;
  bool should_drop_data() const;
  void send_request();
  void reset_process_data_timer();
  void arm_process_data_timer(TimePoint now);
  /// Of the first `messages` in the queue.
  Amount amount_of(std::size_t messages) const;
  std::uint64_t length_with_discarded() const;

  const std::string name_;
  const BufferSettings& settings_;
  skein::Loop& loop_;
  const MakeRequest make_request_;
  const Request* current_request_ = nullptr;  ///< the write in flight; none when it has ended
  std::int64_t failure_count_ = 0;            ///< failed requests since the last success
  skein::Throttle idle_failures_;             ///< log lines of those that lost nothing
  std::deque<std::string> pending_data_;      ///< messages not yet taken by a request, oldest first
  double last_sent_time_;  ///< seconds since the epoch: of construction, then of the last success
  TimePoint last_sent_;    ///< the same moment, for decisions
  skein::Timer process_data_timer_;
  TimePoint process_data_due_{};  ///< when process_data() is to run; the timer may fire earlier
  bool timer_armed_ = false;
  WriteCounters counters_;
  std::array<std::uint64_t, SAMPLES> shortest_lengths_{};  ///< a ring: of every ten seconds
  std::uint64_t shortest_ = 0;                             ///< length since the last of them
  std::size_t samples_taken_ = 0;
  /// The last write. It is kept until the next one is made, because it reports its end from inside
  /// its own callback.
  std::unique_ptr<Request> request_;
};

}  // namespace pelorus

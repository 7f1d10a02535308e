#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>

#include "collectd/block_queue.h"
#include "collectd/node_settings.h"
#include "skein/client.h"

namespace write_skein {

/// Writes a line to the log. `priority`: LOG_WARNING or LOG_NOTICE of syslog(3).
using Log = std::function<void(int priority, const std::string& line)>;

/// Reports the errors of one node without flooding the log. An outage gets one line when it begins
/// and one when it ends. Values that the server refuses, or that a full queue drops while the
/// server answers, are summed up and reported at most once per REPEAT; no lost value stays
/// unreported. Every line begins with the node's name.
class ErrorReporter {
 public:
  using Clock = BlockQueue::Clock;
  static constexpr std::chrono::minutes REPEAT{5};

  ErrorReporter(const std::string& node, Log log);

  /// An attempt to send failed; the block stays in the queue.
  void failed(const std::string& reason, Clock::time_point now);
  /// The server answered. `loss`: what the queue dropped since the last answer.
  void answered(Loss loss, Clock::time_point now);
  /// The server answered with an error; the block of `values` values is dropped.
  void refused(const std::string& reason, std::size_t values, Clock::time_point now);
  /// When report() has a line to log; far in the future without lost values.
  Clock::time_point due() const;
  /// Reports the lost values that are due.
  void report(Clock::time_point now);
  /// collectd ends. `unsent` was not sent because of `reason`; `dropped` is what the queue dropped
  /// since the last answer.
  void stopped(Loss unsent, Loss dropped, const std::string& reason);

 private:
  /// Lost values that the log does not mention yet.
  struct Unreported {
    std::size_t values = 0;
    Clock::time_point next_line = Clock::time_point::min();

    Clock::time_point due() const { return values == 0 ? Clock::time_point::max() : next_line; }
    /// The values, which count as reported at `now`.
    std::size_t take(Clock::time_point now);
  };

  void say_refused(Clock::time_point now);
  void say_dropped(Clock::time_point now);

  std::string prefix_;
  Log log_;
  std::optional<Clock::time_point> outage_;  ///< its first failure
  Unreported refused_;
  std::string refusal_;  ///< the last one's reason
  Unreported dropped_;
};

/// Exponential backoff with full jitter: each wait is random, between zero and a bound that doubles
/// with every failure, so that many senders do not retry at the same moment.
class Backoff {
 public:
  using Duration = std::chrono::milliseconds;
  static constexpr Duration FIRST_BOUND{1000};
  static constexpr Duration LAST_BOUND{60'000};

  explicit Backoff(unsigned seed) : random_(seed) {}

  Duration next() {
    std::uniform_int_distribution<Duration::rep> wait(0, bound_.count());
    bound_ = std::min(bound_ * 2, LAST_BOUND);
    return Duration(wait(random_));
  }
  void reset() noexcept { bound_ = FIRST_BOUND; }

 private:
  std::minstd_rand random_;
  Duration bound_ = FIRST_BOUND;
};

/// Sends the lines of one node from a thread of its own, one block at a time. A block is kept until
/// the server has answered it. collectd's threads only add to the queue. The plugin owns the sender
/// from its start to its shutdown.
class NodeSender {
 public:
  using Clock = BlockQueue::Clock;

  /// `max_age`: longest time that a line waits for its block to fill. `log` is called from the
  /// sender's thread and from stop(). Throws skein::Failure if no descriptor is left.
  NodeSender(NodeSettings settings, Clock::duration max_age, Log log);
  /// Stops without grace unless stop() was called.
  ~NodeSender();

  const NodeSettings& settings() const noexcept { return settings_; }

  /// Starts the thread. It takes no signals: they are collectd's.
  void start();

  /// Queues complete lines; never waits for the network. Any thread.
  void add(std::string_view lines);
  /// Sends the lines that have waited for at least `age`. Any thread.
  void flush(Clock::duration age);

  /// Tells the thread to send everything and then to end; does not wait for it.
  void begin_stop();
  /// The same, and waits for the end. After `grace` a request that still runs is cancelled.
  /// Reports what was not sent.
  void stop(Clock::duration grace);

 private:
  void run();
  /// Waits until a block is due. None when the thread is to end.
  std::optional<Block> next_block();
  void deliver(Block block);
  /// Throws if the block must be sent again.
  void send(const Block& block);
  /// Puts the block back and waits until the next attempt.
  void retry_later(Block block);

  const NodeSettings settings_;
  // Used by the sender's thread only, except for client_.cancel():
  skein::Client client_;
  ErrorReporter errors_;
  Backoff backoff_;
  std::string last_failure_;
  Clock::time_point opened_at_{};  ///< when client_ connected last

  std::mutex mutex_;
  std::condition_variable changed_;   // queue_.due() or stopping_
  std::condition_variable finished_;  // ended_
  // Guarded by mutex_:
  BlockQueue queue_;
  bool stopping_ = false;
  bool last_attempt_failed_ = false;  ///< while stopping there is only one
  bool ended_ = false;                ///< the thread uses this object no more
  std::thread thread_;
};

}  // namespace write_skein

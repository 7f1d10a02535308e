#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "collectd/block_queue.h"

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
  /// When report() has something to say; far in the future without lost values.
  Clock::time_point due() const;
  /// Reports the lost values whose time has come.
  void report(Clock::time_point now);
  /// The end of collectd. `unsent` was not sent because of `reason`, `dropped` is what the queue
  /// dropped since the last answer.
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

}  // namespace write_skein

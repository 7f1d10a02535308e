#include "collectd/error_reporter.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

namespace write_skein {

ErrorReporter::ErrorReporter(const std::string& node, Log log)
    : prefix_("node \"" + node + "\": "), log_(std::move(log)) {}

void ErrorReporter::failed(const std::string& reason, Clock::time_point now) {
  if (outage_) return;
  outage_ = now;
  log_(LOG_WARNING, prefix_ + reason + "; values are queued until it is back");
}

void ErrorReporter::answered(Loss loss, Clock::time_point now) {
  if (outage_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - *outage_).count();
    log_(LOG_NOTICE, fmt::format("{}back after {} s; {} values ({} bytes) were dropped", prefix_,
                                 seconds, loss.values, loss.bytes));
    outage_.reset();
    return;
  }
  dropped_.values += loss.values;
  report(now);
}

void ErrorReporter::refused(const std::string& reason, std::size_t values, Clock::time_point now) {
  refused_.values += values;
  refusal_ = reason;
  report(now);
}

ErrorReporter::Clock::time_point ErrorReporter::due() const {
  return std::min(refused_.due(), dropped_.due());
}

void ErrorReporter::report(Clock::time_point now) {
  if (refused_.due() <= now) say_refused(now);
  if (dropped_.due() <= now) say_dropped(now);
}

std::size_t ErrorReporter::Unreported::take(Clock::time_point now) {
  next_line = now + REPEAT;
  return std::exchange(values, 0);
}

void ErrorReporter::say_refused(Clock::time_point now) {
  log_(LOG_WARNING, fmt::format("{}the server refused {} values, they are lost: {}", prefix_,
                                refused_.take(now), refusal_));
}

void ErrorReporter::say_dropped(Clock::time_point now) {
  log_(LOG_WARNING, fmt::format("{}{}{} values were dropped from a full queue", prefix_,
                                outage_ ? "" : "too slow: ", dropped_.take(now)));
}

void ErrorReporter::stopped(Loss unsent, Loss dropped, const std::string& reason) {
  dropped_.values += dropped.values;
  report(Clock::time_point::max() - REPEAT);  // whatever is left, before its time
  if (unsent.values == 0) return;
  log_(LOG_WARNING, fmt::format("{}{} values ({} bytes) could not be sent before the end: {}",
                                prefix_, unsent.values, unsent.bytes, reason));
}

}  // namespace write_skein

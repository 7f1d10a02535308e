#include "collectd/error_reporter.h"

#include <fmt/format.h>
#include <syslog.h>

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
  if (dropped_.values == 0 || !dropped_.is_due(now)) return;
  log_(LOG_WARNING, fmt::format("{}too slow: {} values were dropped from a full queue", prefix_,
                                std::exchange(dropped_.values, 0)));
  dropped_.last_line = now;
}

void ErrorReporter::refused(const std::string& reason, std::size_t values, Clock::time_point now) {
  refused_.values += values;
  if (!refused_.is_due(now)) return;
  log_(LOG_WARNING, fmt::format("{}the server refused {} values, they are lost: {}", prefix_,
                                std::exchange(refused_.values, 0), reason));
  refused_.last_line = now;
}

void ErrorReporter::stopped(Loss loss, const std::string& reason) {
  if (loss.values == 0) return;
  log_(LOG_WARNING, fmt::format("{}{} values ({} bytes) could not be sent before the end: {}",
                                prefix_, loss.values, loss.bytes, reason));
}

}  // namespace write_skein

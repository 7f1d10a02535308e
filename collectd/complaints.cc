#include "collectd/complaints.h"

#include <fmt/format.h>

#include <utility>

namespace write_skein {

Complaints::Complaints(std::string node, Report report)
    : prefix_("node \"" + std::move(node) + "\": "), report_(std::move(report)) {}

void Complaints::failed(const std::string& reason, Clock::time_point now) {
  if (outage_) return;
  outage_ = now;
  report_(Level::WARNING, prefix_ + reason + "; values are queued until it is back");
}

void Complaints::answered(Loss loss, Clock::time_point now) {
  if (outage_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - *outage_).count();
    report_(Level::NOTICE, fmt::format("{}back after {} s; {} values ({} bytes) were dropped",
                                       prefix_, seconds, loss.values, loss.bytes));
    outage_.reset();
    return;
  }
  dropped_.values += loss.values;
  if (dropped_.values == 0 || !dropped_.may_say(now)) return;
  report_(Level::WARNING, fmt::format("{}too slow: {} values were dropped from a full queue",
                                      prefix_, std::exchange(dropped_.values, 0)));
  dropped_.said = now;
}

void Complaints::refused(const std::string& reason, std::size_t values, Clock::time_point now) {
  refused_.values += values;
  if (!refused_.may_say(now)) return;
  report_(Level::WARNING, fmt::format("{}the server refused {} values, they are lost: {}", prefix_,
                                      std::exchange(refused_.values, 0), reason));
  refused_.said = now;
}

void Complaints::stopped(Loss loss, const std::string& reason) {
  if (loss.values == 0) return;
  report_(Level::WARNING, fmt::format("{}{} values ({} bytes) could not be sent before the end: {}",
                                      prefix_, loss.values, loss.bytes, reason));
}

}  // namespace write_skein

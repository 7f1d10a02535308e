#include "pelorus/pelorus/service_status.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/systemd_notify.h"

namespace pelorus {
namespace {

/// A variable of the environment that holds a number; none when it is unset or empty.
std::optional<std::int64_t> number_of(const char* variable) {
  const char* value = std::getenv(variable);
  const std::string_view text = value != nullptr ? value : "";
  if (text.empty()) return std::nullopt;
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number > 0) return number;
  log::warning("{} \"{}\" is not a number above 0: it is not heeded", variable, text);
  return std::nullopt;
}

}  // namespace

std::optional<std::chrono::microseconds> watchdog_interval() {
  const auto process = number_of("WATCHDOG_PID");
  if (process && *process != ::getpid()) return std::nullopt;
  const auto interval = number_of("WATCHDOG_USEC");
  if (!interval) return std::nullopt;
  return std::chrono::microseconds(*interval);
}

ServiceStatus::ServiceStatus(Describe describe, skein::Loop& loop)
    : describe_(std::move(describe)), loop_(loop), watchdog_(watchdog_interval()) {
  if (std::getenv("NOTIFY_SOCKET") != nullptr) timer_ = loop_.call_in(0, [this] { report(); });
}

void ServiceStatus::report() {
  timer_ = watchdog_ ? loop_.call_in(*watchdog_ / 2, [this] { report(); })
                     : loop_.call_in(STATS_INTERVAL, [this] { report(); });
  const int error = systemd_notify_quietly(
      fmt::format("{}STATUS={}", watchdog_ ? "WATCHDOG=1\n" : "", describe_()));
  if (error != 0 && !failed_) {
    log::warning("Cannot tell the service manager the status: {}",
                 std::generic_category().message(error));
  }
  failed_ = error != 0;
}

}  // namespace pelorus

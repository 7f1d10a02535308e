#include "pelorus/pelorus/stderr_sink.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string_view>

#include "pelorus/pelorus/log.h"

namespace pelorus::log {
namespace {

/// Priority of a level in the system log.
int priority(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
      return 7;
    case spdlog::level::info:
      return 6;
    case spdlog::level::warn:
      return 4;
    default:
      return 3;
  }
}

/// "2024-05-01 13:45:00.123"
std::string local_time(spdlog::log_clock::time_point moment) {
  const std::time_t seconds = spdlog::log_clock::to_time_t(moment);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::array<char, sizeof("2024-05-01 13:45:00") + 8> text{};  // room for a year of more digits
  const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  const auto since_epoch = std::chrono::floor<std::chrono::milliseconds>(moment.time_since_epoch());
  return fmt::format("{}.{:03}", std::string_view(text.data(), length), since_epoch.count() % 1000);
}

std::string prefix_of(const spdlog::details::log_msg& message, StderrSink::Prefix prefix) {
  if (prefix == StderrSink::Prefix::PRIORITY) return fmt::format("<{}>", priority(message.level));
  const auto level = spdlog::level::to_string_view(message.level);
  return fmt::format("{} {} ", local_time(message.time), fmt::string_view(level));
}

void write_all(int descriptor, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
    if (written == 0 || (written < 0 && errno != EINTR)) return;
  }
}

}  // namespace

void StderrSink::log(const spdlog::details::log_msg& message) {
  const std::string_view payload(message.payload.data(), message.payload.size());
  write_all(descriptor_, prefix_of(message, prefix_) + escape_controls(payload) + "\n");
}

}  // namespace pelorus::log

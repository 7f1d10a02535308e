#include "pelorus/pelorus/stderr_sink.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
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

/// A pipe that polls as writable takes this much without blocking.
constexpr std::size_t PIECE_BYTES = PIPE_BUF;
/// How long one line may wait for a reader that has fallen behind.
constexpr int PATIENCE_MILLISECONDS = 50;

bool writable_within(int descriptor, int milliseconds) noexcept {
  pollfd state{.fd = descriptor, .events = POLLOUT, .revents = 0};
  return ::poll(&state, 1, milliseconds) > 0;
}

/// False when nothing of it could be written.
bool write_all(int descriptor, std::string_view bytes, int patience) noexcept {
  bool begun = false;
  while (!bytes.empty() && writable_within(descriptor, patience)) {
    const ssize_t written = ::write(descriptor, bytes.data(), std::min(bytes.size(), PIECE_BYTES));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return begun;
    bytes.remove_prefix(static_cast<std::size_t>(written));
    begun = true;
  }
  return begun;
}

}  // namespace

void StderrSink::log(const spdlog::details::log_msg& message) {
  const std::string_view payload(message.payload.data(), message.payload.size());
  std::string line = prefix_of(message, prefix_) + escape_controls(payload) + "\n";
  if (dropped_ > 0) {
    line = fmt::format("{}{} log lines were dropped: nobody read them\n{}",
                       prefix_of(message, prefix_), dropped_, line);
  }
  // Once a reader has been waited for in vain, the lines after it do not wait for it again.
  if (write_all(descriptor_, line, dropped_ > 0 ? 0 : PATIENCE_MILLISECONDS)) {
    dropped_ = 0;
  } else {
    ++dropped_;
  }
}

}  // namespace pelorus::log

#include "pelorus/ctl/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "pelorus/ctl/human.h"

namespace pelorus::ctl {
namespace {

using namespace std::chrono_literals;

constexpr auto FIRST_SHOWN_AFTER = 500ms;
constexpr auto BETWEEN_TWO = 100ms;

}  // namespace

std::string progress_line(std::uint64_t done, std::optional<std::uint64_t> total, double seconds) {
  constexpr std::size_t WIDTH = 30;
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  const std::string amount =
      fmt::format("{}  {}/s", human_bytes(static_cast<double>(done)), human_bytes(rate));
  if (!total || *total == 0) return amount;
  const double share = std::min(static_cast<double>(done) / static_cast<double>(*total), 1.0);
  const auto filled = static_cast<std::size_t>(share * WIDTH);
  const double left = static_cast<double>(*total) - static_cast<double>(std::min(done, *total));
  return fmt::format("[{}{}] {:3.0f} %  {}  {} left", std::string(filled, '#'),
                     std::string(WIDTH - filled, '.'), share * 100, amount,
                     rate > 0 ? human_duration(left / rate) : "?");
}

Progress::Progress(std::optional<std::uint64_t> total)
    : total_(total), terminal_(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (shown_ != Clock::time_point()) std::fputs("\r\033[K", stderr);
}

void Progress::show(std::uint64_t done) {
  const auto now = Clock::now();
  if (!terminal_ || now - began_ < FIRST_SHOWN_AFTER || now - shown_ < BETWEEN_TWO) return;
  shown_ = now;
  const std::chrono::duration<double> seconds = now - began_;
  fmt::print(stderr, "\r{}\033[K", progress_line(done, total_, seconds.count()));
}

}  // namespace pelorus::ctl

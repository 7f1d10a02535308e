#include "pelorus/ctl/human.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <ctime>

namespace pelorus::ctl {

std::string human_count(double number) {
  std::string digits = fmt::format("{:.0f}", number);
  const std::size_t first = digits.front() == '-' ? 1 : 0;
  for (std::size_t i = digits.size(); i > first + 3;) digits.insert(i -= 3, 1, ',');
  return digits;
}

std::string human_number_of(std::string_view thing, std::size_t number) {
  return fmt::format("{} {}{}", number, thing, number == 1 ? "" : "s");
}

std::string human_bytes(double bytes) {
  constexpr std::array<const char*, 5> UNITS{"B", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  while (bytes >= 1023.95 && unit + 1 < UNITS.size()) {
    bytes /= 1024;
    ++unit;
  }
  return unit == 0 ? fmt::format("{:.0f} B", bytes) : fmt::format("{:.1f} {}", bytes, UNITS[unit]);
}

std::string human_duration(double seconds) {
  if (!(std::abs(seconds) < 1e15)) return "?";
  if (seconds < 0.95) return fmt::format("{:.1f} s", std::fmax(seconds, 0));
  const auto whole = static_cast<std::uint64_t>(std::llround(seconds));
  const std::uint64_t minutes = whole / 60;
  const std::uint64_t hours = minutes / 60;
  const std::uint64_t days = hours / 24;
  if (minutes == 0) return fmt::format("{} s", whole);
  if (hours == 0) return fmt::format("{} m {} s", minutes, whole % 60);
  if (days == 0) return fmt::format("{} h {} m", hours, minutes % 60);
  return fmt::format("{} d {} h", days, hours % 24);
}

std::string human_moment(double seconds_since_epoch) {
  if (!std::isfinite(seconds_since_epoch) || std::abs(seconds_since_epoch) > 1e11) return "?";
  const auto seconds = static_cast<std::time_t>(seconds_since_epoch);
  std::tm local{};
  std::array<char, 32> text{};
  localtime_r(&seconds, &local);
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  return text.data();
}

}  // namespace pelorus::ctl

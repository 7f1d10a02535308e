#include "pelorus/ctl/output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <stdexcept>
#include <thread>

#include "pelorus/ctl/options.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

const char* code_of(Tone tone) {
  switch (tone) {
    case Tone::HEADING:
      return "\033[1m";
    case Tone::FAINT:
      return "\033[2m";
    case Tone::GOOD:
      return "\033[32m";
    case Tone::WARNING:
      return "\033[33m";
    case Tone::BAD:
      return "\033[1;31m";
    case Tone::PLAIN:
      break;
  }
  return "";
}

/// Overwrites the screen: clears the rest of each line, and of the screen after the last line.
std::string in_place(std::string_view text) {
  std::string out = "\033[H";
  for (const char byte : text) {
    if (byte == '\n') out += "\033[K";
    out += byte;
  }
  return out + "\033[J";
}

std::string draw_or_explain(const std::function<std::string()>& draw) {
  try {
    return draw();
  } catch (const skein::ClientError& error) {
    return Palette::of_stdout().paint(Tone::BAD, explain(error)) + "\n";
  }
}

/// Columns on the screen, one for each UTF-8 character.
std::size_t width_of(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, std::not_fn(skein::is_utf8_continuation)));
}

}  // namespace

Palette Palette::of_stdout() {
  const char* no_color = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  const bool refused = no_color != nullptr && *no_color != '\0';
  const bool dumb = terminal == nullptr || std::string_view(terminal) == "dumb";
  return Palette(isatty(STDOUT_FILENO) == 1 && !refused && !dumb);
}

std::string Palette::paint(Tone tone, std::string_view text) const {
  if (!coloured_ || tone == Tone::PLAIN) return std::string(text);
  return fmt::format("{}{}\033[0m", code_of(tone), text);
}

std::string Table::draw(const Palette& palette) const {
  std::vector<std::vector<Cell>> all(1);
  for (const Column& column : columns_) all[0].push_back({column.heading, Tone::HEADING});
  for (const auto& row : rows_) {
    all.push_back(row);
    for (Cell& cell : all.back()) cell.text = skein::without_controls(cell.text);
  }
  std::vector<std::size_t> widths(columns_.size());
  for (const auto& row : all) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], width_of(row[i].text));
    }
  }
  std::string drawn;
  for (const auto& row : all) {
    std::string gap;  // written only if another cell follows
    for (std::size_t i = 0; i < widths.size(); ++i) {
      const std::string padding(widths[i] - width_of(row[i].text), ' ');
      if (columns_[i].right_aligned) gap += padding;
      if (!row[i].text.empty()) {
        drawn += gap + palette.paint(row[i].tone, row[i].text);
        gap.clear();
      }
      if (!columns_[i].right_aligned) gap += padding;
      gap += "  ";
    }
    drawn += '\n';
  }
  return drawn;
}

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

void watch(double seconds, const std::function<std::string()>& draw) {
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  if (terminal) std::fputs("\033[2J", stdout);
  while (true) {
    const std::string text = terminal ? in_place(draw_or_explain(draw)) : draw() + "\n";
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
      throw std::runtime_error("cannot write to standard output");
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
}

}  // namespace pelorus::ctl

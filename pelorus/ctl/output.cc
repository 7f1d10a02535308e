#include "pelorus/ctl/output.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
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

#include "pelorus/ctl/command.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

/// Whether standard output shows styles.
bool shows_styles() {
  const char* no_color = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  const bool refused = no_color != nullptr && *no_color != '\0';
  const bool dumb = terminal == nullptr || std::string_view(terminal) == "dumb";
  return isatty(STDOUT_FILENO) == 1 && !refused && !dumb;
}

/// Columns on the screen, one for each UTF-8 character.
std::size_t width_of(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, std::not_fn(skein::is_utf8_continuation)));
}

/// Bytes of the escape sequence that sets a style, if `text` begins with one.
std::size_t style_bytes(std::string_view text) {
  return text.starts_with('\033') ? std::min(text.find('m'), text.size() - 1) + 1 : 0;
}

/// Appends a line, cut to `columns`.
void append_fitted(std::string& out, std::string_view line, std::size_t columns) {
  std::size_t width = 0;
  std::size_t cut = out.size();  // where the last column begins
  while (!line.empty()) {
    std::size_t bytes = style_bytes(line);
    if (bytes == 0) {
      if (++width == columns) cut = out.size();
      if (width > columns) {
        out.resize(cut);
        out += "…\033[0m";
        return;
      }
      const auto* const next =
          std::find_if_not(line.begin() + 1, line.end(), skein::is_utf8_continuation);
      bytes = static_cast<std::size_t>(next - line.begin());
    }
    out += line.substr(0, bytes);
    line.remove_prefix(bytes);
  }
}

using Clock = std::chrono::steady_clock;

/// Leaves one line for the cursor, so that nothing scrolls and a prompt has its place at the end.
Screen screen_of_terminal() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row < 2 || size.ws_col == 0) {
    return {.columns = 80, .rows = 23};
  }
  return {.columns = size.ws_col, .rows = size.ws_row - 1U};
}

/// Overwrites the screen: clears each line before it is written, and the screen after the last one.
/// No line wraps, even if a character takes two columns.
std::string in_place(std::string_view text) {
  std::string out = "\033[?7l\033[H\033[K";
  for (const char byte : text) {
    out += byte;
    if (byte == '\n') out += "\033[K";
  }
  return out + "\033[J\033[?7h";
}

void write(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    throw std::runtime_error("cannot write to standard output");
  }
}

/// The signal that a resized terminal sends. It stays pending until it is waited for.
sigset_t block_resize_signal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGWINCH);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// True as soon as one of the signals arrives; false when the time has come.
bool arrives_before(Clock::time_point end, const sigset_t& signals) {
  const auto left = std::chrono::ceil<std::chrono::nanoseconds>(end - Clock::now()).count();
  if (left <= 0) return false;
  constexpr std::int64_t SECOND = 1'000'000'000;
  const timespec timeout{left / SECOND, left % SECOND};
  return sigtimedwait(&signals, nullptr, &timeout) > 0;
}

Clock::duration duration_of(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

std::string styled(const Style& style, std::string_view text) {
  static const bool SHOWN = shows_styles();
  return SHOWN ? fmt::format(style, "{}", text) : std::string(text);
}

std::string fitted(std::string_view text, const Screen& screen) {
  std::string out;
  for (std::size_t row = 0; row < screen.rows && !text.empty(); ++row) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    append_fitted(out, text.substr(0, end), screen.columns);
    out += '\n';
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return out;
}

std::string Table::draw(const Screen& screen) const {
  const std::size_t shown = lines() <= screen.rows
                                ? rows_.size()
                                : std::min(rows_.size(), std::max(screen.rows, 2UL) - 2);
  const std::size_t more = more_ + rows_.size() - shown;
  const std::string last =
      more == 0 ? "" : styled(FAINT, fmt::format("… and {} more", more)) + "\n";
  if (shown == 0 && more > 0) return fitted(last, screen);
  std::vector<std::vector<Cell>> all(1);
  for (const Column& column : columns_) all[0].push_back({column.heading, HEADING});
  for (std::size_t i = 0; i < shown; ++i) {
    all.push_back(rows_[i]);
    for (Cell& cell : all.back()) cell.text = skein::without_controls(cell.text);
  }
  const auto widths = widths_within(screen.columns, all);
  std::string drawn;
  for (const auto& row : all) {
    std::string gap;  // written only if another cell follows
    for (std::size_t i = 0; i < widths.size(); ++i) {
      if (!widths[i]) continue;
      const std::string padding(*widths[i] - width_of(row[i].text), ' ');
      if (columns_[i].right_aligned) gap += padding;
      if (!row[i].text.empty()) {
        drawn += gap + styled(row[i].style, row[i].text);
        gap.clear();
      }
      if (!columns_[i].right_aligned) gap += padding;
      gap += "  ";
    }
    drawn += '\n';
  }
  return fitted(drawn + last, screen);
}

Table::Widths Table::widths_within(std::size_t columns,
                                   const std::vector<std::vector<Cell>>& rows) const {
  Widths widths(columns_.size());
  std::size_t total = 0;
  for (std::size_t i = 0; i < widths.size(); ++i) {
    widths[i] = 0;
    for (const auto& row : rows) widths[i] = std::max(*widths[i], width_of(row[i].text));
    total += *widths[i] + (i == 0 ? 0 : 2);
  }
  while (total > columns) {
    std::size_t least = 0;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      if (widths[i] && columns_[i].priority > columns_[least].priority) least = i;
    }
    if (columns_[least].priority == 0) break;
    total -= *widths[least] + 2;
    widths[least].reset();
  }
  return widths;
}

void watch(double seconds, const std::function<void()>& update,
           const std::function<std::string(const Screen& screen)>& draw) {
  if (isatty(STDOUT_FILENO) != 1) {
    watch_lines(seconds, [&] {
      update();
      return draw({}) + "\n";
    });
  }
  const sigset_t resized = block_resize_signal();
  write("\033[2J");
  while (true) {
    const Clock::time_point next = Clock::now() + duration_of(seconds);
    std::string failure;
    try {
      update();
    } catch (const skein::ClientError& error) {
      failure = styled(BAD, explain(error)) + "\n";
    }
    do {
      const Screen screen = screen_of_terminal();
      write(in_place(failure.empty() ? draw(screen) : fitted(failure, screen)));
    } while (arrives_before(next, resized));
  }
}

void watch_lines(double seconds, const std::function<std::string()>& next) {
  while (true) {
    const Clock::time_point next_time = Clock::now() + duration_of(seconds);
    write(next());
    std::this_thread::sleep_until(next_time);
  }
}

std::string human_count(double number) {
  std::string digits = fmt::format("{:.0f}", number);
  const std::size_t first = digits.front() == '-' ? 1 : 0;
  for (std::size_t i = digits.size(); i > first + 3;) digits.insert(i -= 3, 1, ',');
  return digits;
}

std::string human_rate(double per_second) {
  return per_second == 0 || per_second >= 100 ? human_count(per_second)
                                              : fmt::format("{:.1f}", per_second);
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

#pragma once

#include <fmt/color.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What the subcommands print with: styles, tables, numbers for people, and a display that is
// updated in place.
namespace pelorus::ctl {

/// How a text stands out on a terminal.
using Style = fmt::text_style;
constexpr Style PLAIN{};
constexpr Style HEADING(fmt::emphasis::bold);
constexpr Style FAINT(fmt::emphasis::faint);
constexpr Style WARNING = fmt::fg(fmt::terminal_color::yellow);
constexpr Style BAD = fmt::fg(fmt::terminal_color::red) | fmt::emphasis::bold;

/// `text` in this style; as it is if standard output is no terminal or a dumb one, or if NO_COLOR
/// is set.
std::string styled(const Style& style, std::string_view text);

/// The size of the screen; without a terminal, no limit.
struct Screen {
  std::size_t columns = std::string::npos;
  std::size_t rows = std::string::npos;
};

/// The first lines of `text`, cut to the screen; "…" ends a line that was cut. Styles take no
/// width.
std::string fitted(std::string_view text, const Screen& screen);

struct Cell {
  std::string text;
  Style style = PLAIN;
};

struct Column {
  std::string heading;
  bool right_aligned = false;
  int priority = 0;  ///< of those above 0, the highest is left out first on a narrow screen
};

/// Columns as wide as their widest cell, with two blanks between them.
class Table {
 public:
  static constexpr bool RIGHT = true;  ///< for Column

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// Takes one cell for each column.
  void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  /// Says that there are `count` rows more, which were not added.
  void set_more(std::size_t count) { more_ = count; }
  /// How many lines draw() needs to show everything.
  std::size_t lines() const { return 1 + rows_.size() + (more_ > 0 ? 1 : 0); }
  /// Headings and rows. Each ends with a newline, none with a blank before it. On a narrow screen
  /// columns are left out; on a low one rows, with "… and 37 more" as the last line, or as the only
  /// one if no row fits.
  std::string draw(const Screen& screen = {}) const;

 private:
  /// Of each column; none if it is left out.
  using Widths = std::vector<std::optional<std::size_t>>;
  Widths widths_within(std::size_t columns, const std::vector<std::vector<Cell>>& rows) const;

  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
  std::size_t more_ = 0;
};

/// Calls `update`, which asks the daemon, every `seconds` until the process is interrupted, and
/// shows what `draw` returns. On a terminal each text overwrites the last one, and is drawn again
/// when the terminal is resized; a failure to reach the daemon is shown in its place. Elsewhere the
/// texts follow each other, with an empty line between them, and a failure is thrown.
[[noreturn]] void watch(double seconds, const std::function<void()>& update,
                        const std::function<std::string(const Screen& screen)>& draw);

/// The same for programs: prints what `next` returns, one text after the other, wherever it goes.
[[noreturn]] void watch_lines(double seconds, const std::function<std::string()>& next);

/// "12,345"
std::string human_count(double number);
/// "0", "3.4", "1,748"
std::string human_rate(double per_second);
/// "1 line", "20000 lines"
std::string human_number_of(std::string_view thing, std::size_t number);
/// "512 B", "1.5 MiB"
std::string human_bytes(double bytes);
/// "0.3 s", "42 s", "3 m 5 s", "2 h 10 m", "3 d 4 h"
std::string human_duration(double seconds);
/// "2023-11-14 22:13:20" in local time; "?" if it cannot be a time of this age.
std::string human_moment(double seconds_since_epoch);

}  // namespace pelorus::ctl

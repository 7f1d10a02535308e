#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What the subcommands print with: colours, tables, and numbers in the form that people read.
namespace pelorus::ctl {

/// How a piece of text stands out on a terminal.
enum class Tone { PLAIN, HEADING, FAINT, GOOD, WARNING, BAD };

/// Colours for standard output.
class Palette {
 public:
  /// Plain if standard output is no terminal or a dumb one, or if NO_COLOR is set.
  static Palette of_stdout();
  explicit Palette(bool coloured) : coloured_(coloured) {}

  std::string paint(Tone tone, std::string_view text) const;

 private:
  bool coloured_;
};

/// What a text may take up.
struct Room {
  std::size_t columns = std::string::npos;
  std::size_t rows = std::string::npos;
};

/// The first lines of `text`, each as wide as the room at most; "…" ends a line that was cut.
/// Colours take no width.
std::string fitted(std::string_view text, const Room& room);

struct Cell {
  std::string text;
  Tone tone = Tone::PLAIN;
};

struct Column {
  std::string heading;
  bool right_aligned = false;
  int priority = 0;  ///< of those above 0, the highest is left out first when the room is narrow
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
  /// Headings and rows. Each ends with a newline, none with a blank before it. In a narrow room,
  /// columns are left out; in a low one, rows, with "… and 37 more" as the last line.
  std::string draw(const Palette& palette, const Room& room = {}) const;

 private:
  /// Of each column; none if it is left out.
  using Widths = std::vector<std::optional<std::size_t>>;
  Widths widths_within(std::size_t columns, const std::vector<std::vector<Cell>>& rows) const;

  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
  std::size_t more_ = 0;
};

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

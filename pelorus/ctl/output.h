#pragma once

#include <cstddef>
#include <functional>
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

struct Cell {
  std::string text;
  Tone tone = Tone::PLAIN;
};

struct Column {
  std::string heading;
  bool right_aligned = false;
};

/// Columns as wide as their widest cell, with two blanks between them.
class Table {
 public:
  static constexpr bool RIGHT = true;  ///< for Column

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// Takes one cell for each column.
  void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  /// Headings and rows. Each ends with a newline, none with a blank before it.
  std::string draw(const Palette& palette) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

/// "12,345"
std::string human_count(double number);
/// "1 line", "20000 lines"
std::string human_number_of(std::string_view thing, std::size_t number);
/// "512 B", "1.5 MiB"
std::string human_bytes(double bytes);
/// "0.3 s", "42 s", "3 m 5 s", "2 h 10 m", "3 d 4 h"
std::string human_duration(double seconds);
/// "2023-11-14 22:13:20" in local time; "?" if it cannot be a time of this age.
std::string human_moment(double seconds_since_epoch);

/// Prints what `draw` returns every `seconds` until the process is interrupted: in place on a
/// terminal, else one text after another. On a terminal, a failure to reach the daemon is shown and
/// `draw` is called again.
[[noreturn]] void watch(double seconds, const std::function<std::string()>& draw);

}  // namespace pelorus::ctl

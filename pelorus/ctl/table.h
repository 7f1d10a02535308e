#pragma once

#include <string>
#include <vector>

#include "pelorus/ctl/terminal.h"

namespace pelorus::ctl {

struct Cell {
  std::string text;
  Tone tone = Tone::PLAIN;
};

/// Columns that are as wide as their widest cell, two blanks between them.
class Table {
 public:
  enum class Side { LEFT, RIGHT };
  struct Column {
    std::string heading;
    Side side = Side::LEFT;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// One cell for each column.
  void add(std::vector<Cell> line) { lines_.push_back(std::move(line)); }
  /// Headings and lines, each ended by a newline, none with a blank at its end.
  std::string draw(const Palette& palette) const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> lines_;
};

}  // namespace pelorus::ctl

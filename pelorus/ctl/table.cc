#include "pelorus/ctl/table.h"

#include <algorithm>

namespace pelorus::ctl {
namespace {

/// Places on the screen, taking one for each character.
std::size_t width_of(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80; }));
}

}  // namespace

std::string Table::draw(const Palette& palette) const {
  std::vector<std::vector<Cell>> all(1);
  for (const Column& column : columns_) all[0].push_back({column.heading, Tone::HEADING});
  for (const auto& line : lines_) {
    all.push_back(line);
    for (Cell& cell : all.back()) cell.text = without_controls(cell.text);
  }
  std::vector<std::size_t> widths(columns_.size());
  for (const auto& line : all) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], width_of(line[i].text));
    }
  }
  std::string drawn;
  for (const auto& line : all) {
    std::string gap;  // goes out only when something stands behind it
    for (std::size_t i = 0; i < widths.size(); ++i) {
      const std::string padding(widths[i] - width_of(line[i].text), ' ');
      if (columns_[i].side == Side::RIGHT) gap += padding;
      if (!line[i].text.empty()) {
        drawn += gap + palette.paint(line[i].tone, line[i].text);
        gap.clear();
      }
      if (columns_[i].side == Side::LEFT) gap += padding;
      gap += "  ";
    }
    drawn += '\n';
  }
  return drawn;
}

}  // namespace pelorus::ctl

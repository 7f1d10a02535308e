#include "pelorus/pelorus/ingest/line_scanner.h"

#include <algorithm>

namespace pelorus {
namespace {

bool is_blank(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

bool all_digits(std::string_view text) noexcept {
  return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

const char* scan_line(const char* begin, ScannedLine& line) noexcept {
  line.field_count = 0;
  for (const char* at = begin;;) {
    while (*at != '\n' && is_blank(*at)) ++at;
    if (*at == '\n') {
      line.line = {begin, static_cast<std::size_t>(at - begin)};
      return at + 1;
    }
    const char* const field = at;
    while (!is_blank(*at)) ++at;
    if (line.field_count < line.fields.size()) {
      line.fields[line.field_count] = {field, static_cast<std::size_t>(at - field)};
    }
    line.field_count = std::min(line.field_count + 1, line.fields.size() + 1);
  }
}

}  // namespace pelorus

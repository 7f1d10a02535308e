#pragma once

#include <cstring>
#include <string_view>

namespace bench {

/// Bytes that scan_split_copy adds to a line.
constexpr std::size_t LINE_FLOOR_GROWTH = 10;

/// The least that any program has to do with Graphite lines: find their ends, split them in three
/// fields, and copy out about as many bytes as a record has. Returns the end of what it wrote.
[[gnu::noinline]] inline char* scan_split_copy(std::string_view block, char* out) {
  const auto find = [](const char* at, const char* end, char wanted) {
    const void* found = std::memchr(at, wanted, static_cast<std::size_t>(end - at));
    return found == nullptr ? end : static_cast<const char*>(found);
  };
  const auto copy = [&out](const char* begin, const char* end) {
    const auto size = static_cast<std::size_t>(end - begin);
    std::memcpy(out, begin, size);
    out += size;
  };
  const char* const end = block.data() + block.size();
  for (const char* line = block.data(); line < end;) {
    const char* const line_end = find(line, end, '\n');
    const char* const value = find(line, line_end, ' ');
    const char* const timestamp = find(value + 1, line_end, ' ');
    copy(line, value);
    copy(value, timestamp);
    copy(timestamp, line_end);
    std::memcpy(out, "000000000\n", LINE_FLOOR_GROWTH);
    out += LINE_FLOOR_GROWTH;
    line = line_end + 1;
  }
  return out;
}

}  // namespace bench

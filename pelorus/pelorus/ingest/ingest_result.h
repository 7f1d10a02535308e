#pragma once

#include <cstdint>
#include <string>

namespace pelorus {

/// What became of one request's data.
struct IngestResult {
  std::int64_t records = 0;
  std::uint64_t bad_lines = 0;  ///< an empty line is none: every block ends with one
  std::string last_warning{};   ///< the start of the last bad line's warning; empty without any
};

}  // namespace pelorus

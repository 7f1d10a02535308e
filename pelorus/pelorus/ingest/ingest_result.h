#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace pelorus {

/// What is wrong with a line that yields no record.
enum class BadLineKind : std::uint8_t {
  FORMAT,   ///< not "series value timestamp"; an empty line is none, for every block ends with one
  SOURCE,   ///< the name begins with no node and not with the management server
  NO_RULE,  ///< no rule knows the plugin
  REFUSED,  ///< the plugin's rule cannot read the name
  UNEXPECTED,  ///< parts are missing that no rule checks for
  SUBMIT,      ///< name or points of a legacy submit request
};
/// Lines by kind.
using BadLineCounts = std::array<std::uint64_t, 6>;

/// What became of one request's data.
struct IngestResult {
  std::int64_t records = 0;
  std::uint64_t bad_lines = 0;  ///< an empty line is none: every block ends with one
  std::string last_warning{};   ///< the start of the last bad line's warning; empty without any
};

}  // namespace pelorus

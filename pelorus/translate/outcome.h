#pragma once

#include <cstdint>
#include <stdexcept>

// What becomes of one series name: a value on the path of each line, an exception for a caller that
// asks about a single name.
namespace translate {

enum class Outcome : std::uint8_t {
  TRANSLATED,
  // Names that cannot be translated: GraphiteSeriesTranslationError.
  SHORT_SOURCE,         ///< the source part has fewer than 4 bytes
  INVALID_SOURCE_TYPE,  ///< it begins neither with "n" nor with "m"
  NO_RULE,              ///< no row of the table takes the plugin part
  KEY_MISSING,          ///< the rule yields an empty field key
  REFUSED,              ///< the rule cannot read the name, and gives no reason
  // Names that no rule checks for: UnexpectedSeriesError.
  PART_MISSING,
  NO_DASH,
  KEY_UNASSIGNED,
};

/// Whether the outcome is one that a rule does not check for.
constexpr bool is_unexpected(Outcome outcome) noexcept { return outcome >= Outcome::PART_MISSING; }

/// A series name that cannot be translated. The text begins `Could not translate "` and is what
/// the caller logs.
class GraphiteSeriesTranslationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A rule met a name that it does not check for: a part is missing, a part has no "-" to be split
/// at, or a key stays unassigned.
class UnexpectedSeriesError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace translate

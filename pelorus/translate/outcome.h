#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace translate {

/// What became of one series name.
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
  NOT_TWO_PIECES,
  KEY_UNASSIGNED,
};

/// Whether the outcome is one that a rule does not check for.
constexpr bool is_unexpected(Outcome outcome) noexcept { return outcome >= Outcome::PART_MISSING; }

}  // namespace translate

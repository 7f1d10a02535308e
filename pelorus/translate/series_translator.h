#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/translate/errors.h"
#include "pelorus/translate/series.h"

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

/// The text of an outcome's failure: `Could not translate "b'…'": reason`, or what was unexpected.
std::string failure_text(Outcome outcome, std::string_view series);

/// A translated name, in views over the series.
struct Translation {
  Text measurement;
  Text key;
  Tags tags;
};

/// A translated name that stands by itself.
struct TranslatedSeries {
  std::string measurement;
  std::string key;
  std::vector<std::pair<std::string, std::string>> tags;  ///< in their order on the wire
};

/// Handles the conversion of Graphite series names to line-protocol measurement, field key and
/// tags. Holds no state: one serves any number of callers.
class GraphiteSeriesTranslator {
 public:
  /// Splits the name at its dots, reads the source from the first part, and lets the rule of the
  /// plugin part make the rest. Throws GraphiteSeriesTranslationError, or UnexpectedSeriesError
  /// for a name that its rule does not check for.
  TranslatedSeries translate(std::string_view series) const;

  /// The same without throwing, allocating or copying, for the road of each line. `cuts` are those
  /// of `series`, which has PIECE_SLACK readable bytes behind it; `translation` holds views over it
  /// and is meaningful when the outcome is TRANSLATED.
  Outcome translate(std::string_view series, const Cuts& cuts,
                    Translation& translation) const noexcept;
};

}  // namespace translate

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/translate/errors.h"
#include "pelorus/translate/series.h"

namespace translate {

/// The text of an outcome's failure: `Could not translate "b'…'": reason`, or what was unexpected.
std::string failure_text(Outcome outcome, std::string_view series);

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
  /// of `series`, which has PIECE_SLACK readable bytes behind it; `tags` comes in empty. The result
  /// and the tags are views over the series.
  Match translate(std::string_view series, const Cuts& cuts, Tags& tags) const noexcept;
};

}  // namespace translate

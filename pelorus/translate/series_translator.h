#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/translate/errors.h"
#include "pelorus/translate/outcome.h"
#include "pelorus/translate/record.h"

namespace translate {

/// The text of an outcome's failure: `Could not translate "b'…'": reason`, or what was unexpected.
std::string failure_text(Outcome outcome, std::string_view series);

/// A translated name that stands by itself.
struct TranslatedSeries {
  std::string measurement;
  std::string key;
  std::vector<std::pair<std::string, std::string>> tags;  ///< in their order on the wire
};

/// Room for the names of a series of so many bytes: a rule writes each byte seven times at most,
/// next to literals, and in steps that reach somewhat further.
constexpr std::size_t names_bytes_at_most(std::size_t series_bytes) {
  return 8 * series_bytes + 256;
}

/// Where the names of a record end; they begin where they were asked for. Good when TRANSLATED.
struct NamesWritten {
  char* end;
  Outcome outcome;
};

/// Handles the conversion of Graphite series names to line-protocol measurement, field key and
/// tags. Holds no state: one serves any number of callers.
class GraphiteSeriesTranslator {
 public:
  /// Splits the name at its dots, reads the source from the first part, and lets the rule of the
  /// plugin part make the rest. Throws GraphiteSeriesTranslationError, or UnexpectedSeriesError
  /// for a name that its rule does not check for.
  TranslatedSeries translate(std::string_view series) const;

  /// The same without throwing or allocating, for the road of each line: writes
  /// "measurement,tag=value… key=" to `out`, which has room for names_bytes_at_most, and nothing if
  /// the name cannot be translated. `series` has PIECE_SLACK readable bytes behind it, and `ends`
  /// are those of its parts.
  NamesWritten translate(std::string_view series, PartEnds ends, char* out,
                         NameSizes* sizes = nullptr) const noexcept;
};

}  // namespace translate

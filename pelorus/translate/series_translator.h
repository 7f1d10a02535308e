#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "pelorus/translate/record.h"

namespace translate {

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

/// The text of an outcome's failure: `Could not translate "b'…'": reason`, or what was unexpected.
std::string failure_text(Outcome outcome, std::string_view series);

/// Buffer size for the names of a series of so many bytes: a rule writes each byte seven times at
/// most, and literals, in steps that write a little further.
constexpr std::size_t names_bytes_at_most(std::size_t series_bytes) {
  return 8 * series_bytes + 256;
}

/// The end of the names of a record, which is valid if TRANSLATED.
struct NamesWritten {
  char* end;
  Outcome outcome;
};

/// Handles the conversion of Graphite series names to line-protocol measurement, field key and
/// tags:
///
///     node12 . disk-sda . disk_octets . read  →  disk,node=12,device=sda read_octets
///     source   plugin     type          instance
///
/// 1. Splits the name at its dots and takes the first part, the source, off: "node" and an
///    identifier give the tag "node", "m…" gives none.
/// 2. Looks the plugin part up in a table of rules (rules.h); the first row that matches wins.
/// 3. The rule names measurement, field key and tags as slices of the name and literals, and the
///    record copies them (record.h).
///
/// Holds no state: one serves any number of callers.
class GraphiteSeriesTranslator {
 public:
  /// Throws GraphiteSeriesTranslationError, or UnexpectedSeriesError for a name that its rule does
  /// not check for.
  TranslatedSeries translate(std::string_view series) const;

  /// The same without throwing or allocating, for the fast path of each line: writes
  /// "measurement,tag=value… key=" to `out`, which has room for names_bytes_at_most, and nothing if
  /// the name cannot be translated. `series` has COPY_STEP readable bytes of padding after it, and
  /// `ends` are those of its parts. `separate`, if given, receives the names one by one, which
  /// allocates.
  NamesWritten translate(std::string_view series, PartEnds ends, char* out,
                         TranslatedSeries* separate = nullptr) const;
};

}  // namespace translate

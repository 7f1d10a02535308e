#pragma once

#include <stdexcept>

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

}  // namespace translate

#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pelorus::ctl {

/// What the daemon would make of one series name or one Graphite line.
struct TranslatedLine {
  std::string series;
  std::string value;  ///< of a line
  std::string rule;   ///< the rule that took it, and the plugin parts that it takes; empty: none
  std::string measurement;
  std::string key;
  std::vector<std::pair<std::string, std::string>> tags;
  std::string error;     ///< as the daemon logs it; empty when it is translated
  bool skipped = false;  ///< its value is "nan": the daemon leaves it out without a word
};

/// `text`: "series", or "series value timestamp".
TranslatedLine translate_line(std::string_view text);

/// Whether the daemon writes the value as an integer.
bool is_integer(std::string_view value);

}  // namespace pelorus::ctl

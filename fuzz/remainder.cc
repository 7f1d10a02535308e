// Graphite text, cut anywhere between requests: the same lines come out as of the whole.
#include <string>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/listen/complete_lines.h"

namespace fuzz {

void run(std::string_view input) {
  const auto seed = take_byte(input);
  pelorus::Remainder remainder;
  std::string lines;
  for (const auto piece : pieces(input, seed)) {
    const pelorus::CompleteLines complete(remainder, piece, input.size());
    require(complete.lines().empty() || complete.lines().ends_with('\n'), "lines are complete");
    lines += complete.lines();
  }
  const auto cut = input.rfind('\n') + 1;
  require(lines == input.substr(0, cut), "the same lines for every cutting");
  require(remainder.take() == input.substr(cut), "nothing is lost behind the last line");
}

}  // namespace fuzz

// Graphite text, cut anywhere between requests: the same lines come out as of the whole.
#include <string>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/listen/line_assembler.h"

namespace fuzz {

void run(std::string_view input) {
  const auto seed = take_byte(input);
  pelorus::LineAssembler assembler;
  std::string lines;
  for (const auto piece : pieces(input, seed)) {
    const pelorus::CompleteLines complete = assembler.add(piece, input.size());
    const std::string_view text = complete.text();
    require(text.empty() || text.ends_with('\n'), "lines are complete");
    lines += text;
  }
  const auto cut = input.rfind('\n') + 1;
  require(lines == input.substr(0, cut), "the same lines for every cutting");
  require(assembler.add("\n", input.size()).text() == std::string(input.substr(cut)) + "\n",
          "nothing is lost behind the last line");
}

}  // namespace fuzz

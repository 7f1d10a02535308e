// The bytes of an answer to a write, cut in two ways: they are read alike.
#include "pelorus/pelorus/influx/http_response.h"

#include <string>

#include "fuzz/fuzz.h"

namespace fuzz {
namespace {

struct Outcome {
  bool complete = false;
  int status = 0;
  std::string fault;
  std::string body;
  bool operator==(const Outcome&) const = default;
};

Outcome read(const std::vector<std::string_view>& pieces, bool ends) {
  pelorus::HTTPResponse response;
  for (const auto piece : pieces) {
    response.feed(piece);
    require(!(response.complete() && !response.fault().empty()), "complete or refused, not both");
  }
  if (ends) response.finish();
  require(!ends || response.complete() || !response.fault().empty(), "the end decides");
  require(response.body().size() <= pelorus::MAX_BODY_KEPT_BYTES, "the body kept is bounded");
  return {response.complete(), response.status(), response.fault(), response.body()};
}

}  // namespace

void run(std::string_view input) {
  const auto seed = take_byte(input);
  const bool ends = seed >= 0x80;
  const Outcome whole = read({input}, ends);
  require(read(pieces(input, seed), ends) == whole, "the same outcome for every cutting");
}

}  // namespace fuzz

// Work for counting instructions on an emulated processor, where time says nothing. What one round
// more takes is what its 1,000 lines take.
//
//   pelorus_scanners lines                    prints the first 1,000 lines of bench/corpus.h
//   pelorus_scanners vector|fallback ROUNDS   builds their message so many times
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/corpus.h"
#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/pelorus/ingest/vector_scanner.h"

namespace {

struct NoReport : pelorus::BadLineReporter {
  void improperly_formatted(std::string_view) override {}
  void not_translated(std::string_view, translate::Outcome) override {}
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view block = bench::blocks_of(1000).front();
  const std::string_view what = argc > 1 ? argv[1] : "";
  if (what == "lines") return std::fwrite(block.data(), 1, block.size(), stdout) == 0;
  if (argc != 3 || (what != "vector" && what != "fallback")) {
    return std::fputs("usage: pelorus_scanners lines|vector ROUNDS|fallback ROUNDS\n", stderr), 2;
  }
  pelorus::GraphiteMessage message(1U << 20);
  NoReport bad;
  for (auto rounds = std::strtoull(argv[2], nullptr, 10); rounds > 0; --rounds) {
    const auto built = what == "vector" ? message.build(block, bad)
                                        : message.build<pelorus::FallbackScanner>(block, bad);
    if (built.num_metrics == 0) return 1;
  }
}

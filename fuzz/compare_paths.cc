// compare_paths LINES [SEED]: builds the messages of so many generated lines in three ways, with
// vector instructions, without them, and in the plainest way; exit status 1 and the block where
// they differ. Half of the lines are the benchmark's, the others such lines with faults in them.
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "bench/corpus.h"
#include "fuzz/plain_graphite.h"
#include "pelorus/pelorus/ingest/graphite_message.h"

namespace {

using fuzz::PlainGraphite;

constexpr std::size_t BLOCK_LINES = 1000;
constexpr std::size_t BUFFER_BYTES = 1U << 20;
constexpr std::string_view FAULTS("\0\t\n\v\f\r  ..-_019ns\x80\xff", 19);

/// Makes faulty lines of good ones: bytes replaced, left out, doubled, moved.
class Mutator {
 public:
  explicit Mutator(unsigned seed) : random_(seed) {}

  /// Every other line stays as it is.
  std::string block_of(std::string_view lines) {
    std::string block;
    for (std::size_t begin = 0; begin < lines.size();) {
      const auto end = lines.find('\n', begin) + 1;
      std::string line(lines.substr(begin, end - begin));
      if (random_() % 2 == 0) mutate(line);
      block += line;
      begin = end;
    }
    if (random_() % 4 == 0) block.resize(block.size() - random_() % 80);  // ends within a line
    return block;
  }

 private:
  void mutate(std::string& line) {
    for (auto times = 1 + random_() % 3; times > 0 && !line.empty(); --times) {
      const auto at = random_() % line.size();
      switch (random_() % 6) {
        case 0:
          line[at] = FAULTS[random_() % FAULTS.size()];
          break;
        case 1:
          line.erase(at, 1 + random_() % 20);
          break;
        case 2:
          line.insert(at, 1 + random_() % 130, FAULTS[random_() % FAULTS.size()]);
          break;
        case 3:
          line.insert(at, line.substr(random_() % line.size(), 70));
          break;
        case 4:
          line[at] = static_cast<char>(random_());
          break;
        default:  // another length of the timestamp
          line.insert(line.size() - 1, random_() % 12, '7');
      }
    }
  }

  std::minstd_rand random_;
};

class CountBadLines : public pelorus::BadLineReporter {
 public:
  void improperly_formatted(std::string_view) override { ++improper; }
  void not_translated(std::string_view, translate::Outcome) override { ++untranslated; }
  std::int64_t improper = 0;
  std::int64_t untranslated = 0;
};

template <class Build>
PlainGraphite::Built built_by(Build&& build) {
  CountBadLines bad;
  const auto built = build(bad);
  return {.message = built.message,
          .num_metrics = built.num_metrics,
          .improperly_formatted = bad.improper,
          .not_translated = bad.untranslated};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return std::fputs("usage: compare_paths LINES [SEED]\n", stderr), 2;
  const auto wanted = std::strtoull(argv[1], nullptr, 10);
  Mutator mutator(argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 1);
  pelorus::GraphiteMessage fast(BUFFER_BYTES);
  pelorus::GraphiteMessage plain(BUFFER_BYTES);
  PlainGraphite plainest(BUFFER_BYTES);
  std::size_t lines = 0;
  std::int64_t records = 0;
  for (;;) {
    for (const auto good : bench::blocks_of(BLOCK_LINES)) {
      const std::string block = mutator.block_of(good);
      const auto expected = plainest.build(block);
      const bool same = built_by([&](auto& bad) { return fast.build(block, bad); }) == expected &&
                        built_by([&](auto& bad) {
                          return plain.build<pelorus::FallbackScanner>(block, bad);
                        }) == expected;
      if (!same) {
        std::fwrite(block.data(), 1, block.size(), stdout);
        fmt::print(stderr, "the messages differ in the block above, after {} lines\n", lines);
        return 1;
      }
      lines += BLOCK_LINES;
      records += expected.num_metrics;
      if (lines < wanted) continue;
      fmt::print("{} lines, {} records: the same in all three ways\n", lines, records);
      return 0;
    }
  }
}

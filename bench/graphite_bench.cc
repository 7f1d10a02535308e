// The block path beside the least that any program has to do with the same lines: find their ends,
// split them in three fields, and copy out as many bytes.
//
//   pelorus_bench [--pairs N] [LINES...]
//
// One row for each count of lines in a block (1000 and 24 unless told): both sides take the whole
// corpus in turn, N times (15 unless told). A row is one line of JSON on standard output:
//   {"lines_per_block": 1000, "pairs": 15, "floor_ns": …, "add_graphite_ns": …,
//    "ratio": …, "ratio_low": …, "ratio_high": …}
// Nanoseconds are CPU time per line (user and system), medians over the pairs; the ratio is the
// median of the pairs' ratios, low and high their quartiles. The corpus is bench/corpus.h's.

#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/corpus.h"
#include "bench/line_floor.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/process.h"

namespace {

using Blocks = std::vector<std::string_view>;

double cpu_nanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

/// The daemon's handler, with buffers that never write and hold no more than a few messages.
class Handler {
 public:
  void add(std::string_view block) { handler_.add_graphite("bonding", block); }

 private:
  skein::Loop loop_;
  const pelorus::BufferSettings buffer_settings_{.max_pending_messages = 20,
                                                 .max_buffer_time = 1e9,
                                                 .ideal_queued_messages = 1000,
                                                 .max_batch_size = 1000,
                                                 .discard_size = 20};
  const pelorus::InfluxConnection connection_{};
  const std::vector<std::string> names_{"tidewell", "bonding"};
  pelorus::InfluxHandler handler_{names_,
                                  [this](const std::string& name) {
                                    return std::make_unique<pelorus::InfluxDatabase>(
                                        name, buffer_settings_, connection_, loop_);
                                  },
                                  loop_};
};

/// Calls `work` with each block; CPU nanoseconds per line.
template <class Work>
double per_line(const Blocks& blocks, std::size_t lines, Work work) {
  const double begin = cpu_nanoseconds();
  for (const auto block : blocks) work(block);
  return (cpu_nanoseconds() - begin) / static_cast<double>(lines);
}

double quantile(std::vector<double> values, double share) {
  std::ranges::sort(values);
  return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5)];
}

void measure(std::size_t lines_per_block, int pairs) {
  const Blocks blocks = bench::blocks_of(lines_per_block);
  const std::size_t lines = bench::line_count(blocks);
  std::vector<char> out(2 * blocks.front().size() + (1U << 20));
  Handler handler;
  std::vector<double> floors;
  std::vector<double> figures;
  std::vector<double> ratios;
  for (int pair = -1; pair < pairs; ++pair) {  // the first one warms up
    const double floor = per_line(blocks, lines, [&](std::string_view block) {
      const char* const end = bench::scan_split_copy(block, out.data());
      asm volatile("" : : "r"(end) : "memory");  // what is written counts as read
    });
    const double figure =
        per_line(blocks, lines, [&](std::string_view block) { handler.add(block); });
    if (pair < 0) continue;
    floors.push_back(floor);
    figures.push_back(figure);
    ratios.push_back(figure / floor);
  }
  fmt::print(
      "{{\"lines_per_block\": {}, \"pairs\": {}, \"floor_ns\": {:.1f}, \"add_graphite_ns\": "
      "{:.1f}, "
      "\"ratio\": {:.3f}, \"ratio_low\": {:.3f}, \"ratio_high\": {:.3f}}}\n",
      lines_per_block, pairs, quantile(floors, 0.5), quantile(figures, 0.5), quantile(ratios, 0.5),
      quantile(ratios, 0.25), quantile(ratios, 0.75));
  std::fflush(stdout);
}

int number(const std::string& text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value < 1) {
    fmt::print(stderr, "pelorus_bench: '{}' is no whole number above 0\n", text);
    std::exit(2);
  }
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  pelorus::keep_freed_memory();  // as the daemon does
  pelorus::log::set_capture([](auto, auto) {});
  pelorus::log::set_level(pelorus::log::Level::ERROR);
  std::vector<std::string> arguments(argv + 1, argv + argc);
  int pairs = 15;
  if (arguments.size() > 1 && arguments.front() == "--pairs") {
    pairs = number(arguments[1]);
    arguments.erase(arguments.begin(), arguments.begin() + 2);
  }
  if (arguments.empty()) arguments = {"1000", "24"};
  for (const std::string& lines : arguments) {
    measure(static_cast<std::size_t>(number(lines)), pairs);
  }
}

// The block path beside the least that any program has to do with the same lines: find their ends,
// split them in three fields, and copy out as many bytes.

#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>

#include <cstring>
#include <vector>

#include "bench/corpus.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/log.h"

namespace {

void report_lines(benchmark::State& state, std::size_t lines, std::size_t bytes_out) {
  const auto rounds = static_cast<double>(state.iterations());
  state.counters["ns/line"] =
      benchmark::Counter(rounds * static_cast<double>(lines) * 1e-9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["bytes/line"] = static_cast<double>(bytes_out) / static_cast<double>(lines);
}

/// Finds the next `wanted` from `at`, or `end`.
const char* find(const char* at, const char* end, char wanted) {
  const void* found = std::memchr(at, wanted, static_cast<std::size_t>(end - at));
  return found == nullptr ? end : static_cast<const char*>(found);
}

char* copy(char* out, const char* begin, const char* end) {
  const auto size = static_cast<std::size_t>(end - begin);
  std::memcpy(out, begin, size);
  return out + size;
}

char* scan_split_copy(std::string_view block, char* out) {
  const char* const end = block.data() + block.size();
  for (const char* line = block.data(); line != end;) {
    const char* const line_end = find(line, end, '\n');
    const char* const value = find(line, line_end, ' ');
    const char* const timestamp = find(value + 1, line_end, ' ');
    out = copy(out, line, value);
    out = copy(out, value, timestamp);
    out = copy(out, timestamp, line_end);
    std::memcpy(out, "000000000\n", 10);
    out += 10;
    line = line_end + 1;
  }
  return out;
}

void BM_ScanSplitCopy(benchmark::State& state) {
  const auto blocks = bench::blocks_of(static_cast<std::size_t>(state.range(0)));
  std::vector<char> out(64U << 20);
  std::size_t bytes_out = 0;
  for (auto _ : state) {
    bytes_out = 0;
    for (const auto block : blocks) {
      char* const end = scan_split_copy(block, out.data());
      benchmark::DoNotOptimize(out.data());
      benchmark::ClobberMemory();
      bytes_out += static_cast<std::size_t>(end - out.data());
    }
  }
  report_lines(state, bench::line_count(blocks), bytes_out);
}

void BM_AddGraphite(benchmark::State& state) {
  using namespace pelorus;
  log::set_sink(std::make_shared<spdlog::sinks::null_sink_st>());
  log::logger().set_level(spdlog::level::err);
  const auto blocks = bench::blocks_of(static_cast<std::size_t>(state.range(0)));
  skein::Loop loop;
  const BufferSettings buffer_settings{.max_pending_messages = 20,
                                       .max_buffer_time = 1e9,
                                       .ideal_queued_messages = 1000,
                                       .max_batch_size = 1000,
                                       .discard_size = 20};
  const InfluxConnection connection{};
  const std::vector<std::string> names{"tidewell", "bonding"};
  InfluxHandler handler(
      names,
      [&](const std::string& name) {
        return std::make_unique<InfluxDatabase>(name, buffer_settings, connection, loop);
      },
      loop);
  for (auto _ : state) {
    for (const auto block : blocks) handler.add_graphite("bonding", block);
  }
  GraphiteMessage message;
  class Silent : public BadLineReporter {
    void improperly_formatted(std::string_view) override {}
    void not_translated(std::string_view, translate::Outcome) override {}
  } silent;
  std::size_t bytes_out = 0;
  for (const auto block : blocks) bytes_out += message.build(block, silent).message.size();
  report_lines(state, bench::line_count(blocks), bytes_out);
}

BENCHMARK(BM_ScanSplitCopy)->Arg(1000)->Arg(24)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AddGraphite)->Arg(1000)->Arg(24)->Unit(benchmark::kMillisecond);

}  // namespace

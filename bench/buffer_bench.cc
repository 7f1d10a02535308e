// pelorus_buffer_bench: what queueing a message costs with many and with few in the queue, and
// whether a million re-armed timers leave anything behind. Prints one JSON object.

#include <unistd.h>
#include <chrono>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "pelorus/pelorus/influx/influx_database.h"

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr std::size_t PAIRS = 21;
constexpr std::size_t ADDS = 2000;
constexpr std::size_t FEW = 10;
constexpr std::size_t MANY = 100'000;
constexpr std::size_t RE_ARMED = 1'000'000;
constexpr std::size_t MESSAGE_BYTES = 100;

/// A buffer that never writes; the queue is taken off by hand.
class Buffer {
 public:
  explicit Buffer(std::size_t batch)
      : settings_{.max_pending_messages = 1U << 30,
                  .max_buffer_time = 1e9,
                  .ideal_queued_messages = 1U << 30,
                  .max_batch_size = batch,
                  .discard_size = 1},
        database_("bonding", settings_, loop_, [](auto&) { return nullptr; }) {}

  void fill(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) database_.add(message());
  }

  /// Nanoseconds of one add; the queue is as long afterwards as before.
  double time_adds() {
    std::vector<std::string> messages(ADDS, message());
    const auto begin = Clock::now();
    for (std::string& each : messages) database_.add(std::move(each));
    const std::chrono::duration<double, std::nano> taken = Clock::now() - begin;
    database_.get_data();
    return taken.count() / static_cast<double>(ADDS);
  }

  void add_and_take() {
    database_.add(message());
    database_.get_data();
  }

 private:
  static std::string message() { return std::string(MESSAGE_BYTES, 'x'); }

  pelorus::BufferSettings settings_;
  skein::Loop loop_;
  pelorus::InfluxDatabase database_;
};

long resident_bytes() {
  std::ifstream status("/proc/self/statm");
  long whole = 0;
  long resident = 0;
  status >> whole >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

}  // namespace

int main() {
  json answer;
  Buffer few(ADDS);
  Buffer many(ADDS);
  few.fill(FEW);
  many.fill(MANY);
  for (std::size_t pair = 0; pair <= PAIRS; ++pair) {
    const double with_many = many.time_adds();
    const double with_few = few.time_adds();
    if (pair > 0) answer["add_ns"].push_back({with_many, with_few});  // the first one warms up
  }

  Buffer steady(1);
  steady.fill(FEW);
  for (std::size_t i = 0; i < ADDS; ++i) steady.add_and_take();
  const long before = resident_bytes();
  for (std::size_t i = 0; i < RE_ARMED; ++i) steady.add_and_take();
  answer["re_arm_bytes"] = resident_bytes() - before;
  std::cout << answer.dump() << std::endl;
}

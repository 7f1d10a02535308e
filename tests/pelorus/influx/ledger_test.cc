#include <fmt/format.h>
#include <gtest/gtest.h>

#include <random>

#include "pelorus/pelorus/influx/influx_database.h"
#include "support/fake_clock.h"
#include "support/ledger.h"
#include "support/log_capture.h"

namespace pelorus {
namespace {

constexpr unsigned SCHEDULES = 100;
constexpr int STEPS = 500;
constexpr std::size_t MESSAGE_BYTES = 7;

/// A buffer under a random schedule of messages, time and outcomes of its writes.
struct Schedule {
  explicit Schedule(unsigned seed) : random(seed) {}

  void step() {
    const bool writing = database.has_current_request();
    switch (random() % 7) {
      case 0:
      case 1:
        for (auto count = random() % 30; count > 0; --count) {
          database.add(fmt::format("{:0{}}", added++, MESSAGE_BYTES));
        }
        break;
      case 2:
        clock.tick(0.25 * static_cast<double>(random() % 12));
        loop.run_once();
        break;
      case 3:  // connected
        if (writing && !taken) take_batch();
        taken = writing;
        break;
      case 4:
        if (std::exchange(taken, false)) database.handle_success();
        break;
      case 5:
        if (taken && random() % 2 == 0) database.handle_partial_write(3);
        [[fallthrough]];
      default:  // after the batch was taken, or before
        if (database.has_current_request()) database.handle_failure();
        taken = false;
        database.handle_close();
    }
  }

  /// Every batch begins behind the one before: nothing is sent twice.
  void take_batch() {
    const std::string body = support::body_of(database.get_data());
    EXPECT_EQ(body.size(), database.counters().in_flight.messages * (MESSAGE_BYTES + 1) - 1);
    EXPECT_GT(body.substr(0, MESSAGE_BYTES), last);
    last = body.substr(body.size() - MESSAGE_BYTES);
  }

  std::minstd_rand random;
  support::FakeClock clock;
  support::LogCapture logs;
  skein::Loop loop{clock.clocks()};
  const BufferSettings settings{.max_pending_messages = 120,
                                .max_buffer_time = 2,
                                .ideal_queued_messages = 20,
                                .max_batch_size = 50,
                                .discard_size = 35};
  InfluxDatabase database{"x", settings, loop, [](InfluxDatabase&) {
                            return std::make_unique<InfluxDatabase::Request>();
                          }};
  std::uint64_t added = 0;
  bool taken = false;  ///< the write in flight has its batch
  std::string last;    ///< message that was taken
};

TEST(Ledger, EveryMessageIsInOneAmountAndNoneIsSentTwice) {
  Amount sent, partial, failed, discarded;
  for (unsigned seed = 1; seed <= SCHEDULES; ++seed) {
    Schedule schedule(seed);
    const WriteCounters& counters = schedule.database.counters();
    for (int step = 0; step < STEPS; ++step) {
      schedule.step();
      const Amount sum = support::accounted(counters);
      ASSERT_EQ(sum.messages, schedule.added) << "seed " << seed << ", step " << step;
      ASSERT_EQ(sum.bytes, schedule.added * MESSAGE_BYTES);
      ASSERT_EQ(counters.queued.messages, schedule.database.pending_data_len());
    }
    sent += counters.sent;
    partial += counters.partial;
    failed += counters.failed;
    discarded += counters.discarded;
  }
  EXPECT_TRUE(sent.messages > 0 && partial.messages > 0 && failed.messages > 0 &&
              discarded.messages > 0)
      << "every way was taken";
}

}  // namespace
}  // namespace pelorus

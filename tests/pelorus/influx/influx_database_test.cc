#include "pelorus/pelorus/influx/influx_database.h"

#include <gtest/gtest.h>

#include "support/ledger.h"
#include "support/log_capture.h"
#include "support/loop_test.h"

namespace pelorus {
namespace {

using Texts = std::vector<std::string>;

/// A buffer whose requests are never really made: `requests` counts them.
struct InfluxDatabaseTest : support::LoopTest {
  void add(int count) {
    for (int i = 0; i < count; ++i) database.add("m value=1 1");
  }

  support::LogCapture logs;
  const BufferSettings settings{.max_pending_messages = 10,
                                .max_buffer_time = 8,
                                .ideal_queued_messages = 5,
                                .max_batch_size = 2,
                                .discard_size = 4};
  int requests = 0;
  InfluxDatabase database{"metrics", settings, loop_, [this](InfluxDatabase&) {
                            ++requests;
                            return std::make_unique<InfluxDatabase::Request>();
                          }};
};

TEST_F(InfluxDatabaseTest, SendsAtTheIdealNumberOrAfterMoreThanTheBufferTime) {
  add(4);
  EXPECT_EQ(requests, 0);
  add(1);
  EXPECT_EQ(requests, 1);
  database.handle_failure();
  database.discard_old_data();  // one is left
  clock_.tick(8);
  database.process_data();
  EXPECT_EQ(requests, 1) << "exactly the buffer time";
  clock_.tick(0.01);
  database.process_data();
  EXPECT_EQ(requests, 2);
  add(5);
  EXPECT_EQ(requests, 2) << "one is under way";
  database.handle_success();
  database.discard_old_data();
  clock_.set_wall(database.last_sent_time() - 7200);
  clock_.tick(8.01);
  database.process_data();
  EXPECT_EQ(requests, 3) << "the wall clock was set back";
}

TEST_F(InfluxDatabaseTest, OnlyASuccessMovesTheTimeOfTheLastAndEndsTheRowOfFailures) {
  const double start = clock_.clocks().wall();
  add(5);
  clock_.tick(3);
  database.handle_failure();
  database.handle_close();
  EXPECT_EQ(database.last_sent_time(), start);
  EXPECT_EQ(database.failure_count(), 1);
  EXPECT_FALSE(database.has_current_request());
  add(1);
  database.handle_success();
  EXPECT_EQ(database.last_sent_time(), start + 3);
  EXPECT_EQ(database.failure_count(), 0);
  EXPECT_EQ(logs.texts("info"), Texts{"Connected to InfluxDB API (metrics database)"});
}

TEST_F(InfluxDatabaseTest, EveryAddThatDoesNotSendPutsTheTimerOffAndStoppingEndsIt) {
  clock_.tick(7);
  add(1);
  tick(0.9);
  add(1);
  tick(0.9);  // 8.8 s: time to send, but the timer has another tenth of a second
  EXPECT_EQ(requests, 0);
  database.stop_process_data_timer();
  database.stop_process_data_timer();
  tick(60);
  EXPECT_EQ(requests, 0);
}

TEST_F(InfluxDatabaseTest, ARequestLeavesTheTimerAlone) {
  add(5);  // the timer that the fourth armed is still there
  database.handle_failure();
  tick(1);
  EXPECT_EQ(requests, 2);  // it fired and started this one
  database.handle_failure();
  tick(60);
  EXPECT_EQ(requests, 2);  // and nobody armed another
}

TEST_F(InfluxDatabaseTest, FullQueueDropsItsOldestOncePerLook) {
  for (int i = 0; i < 9; ++i) database.add(std::to_string(i));
  EXPECT_EQ(database.pending_data_len(), 9U);
  database.add("9");
  EXPECT_EQ(database.pending_data_len(), 6U);
  EXPECT_EQ(logs.texts("warning"), Texts{"Queue filled up, discarding data"});
  EXPECT_EQ(support::body_of(database.get_data()), "4\n5");
  database.discard_old_data();
  EXPECT_EQ(database.pending_data_len(), 0U);
}

TEST_F(InfluxDatabaseTest, QueueIsSoonFullOnlyIfItsShortestLengthGrows) {
  for (int i = 0; i < 20; ++i) {  // a write in every ten seconds empties the queue
    add(i % 3);
    while (database.pending_data_len() > 0) database.get_data();
    add(i % 3);
    database.sample_queue();
    EXPECT_EQ(database.seconds_until_full(5), std::nullopt);
  }
  for (int i = 0; i < 6; ++i) {
    add(1);
    database.sample_queue();
  }
  EXPECT_EQ(database.pending_data_len(), 7U);
  EXPECT_EQ(database.seconds_until_full(1e9), 30.0);  // 3 more in half a minute, room for 3
}

}  // namespace
}  // namespace pelorus

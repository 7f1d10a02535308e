#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/influx/influx_database.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "../handler_fixture.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/bad_lines.h"
#include "pelorus/pelorus/ingest/submit_message.h"
#include "pelorus/pelorus/log_writer.h"
#include "skein/encoders/msgpackencoder.h"

namespace pelorus {
namespace {

TEST(Statistics, SecondsBecomeNanoseconds) {
  EXPECT_EQ(timestamp_to_influx(std::int64_t{0}), 0);
  EXPECT_EQ(timestamp_to_influx(std::int64_t{1}), 1'000'000'000);
  EXPECT_TRUE(timestamp_to_influx(std::numeric_limits<std::int64_t>::min()) ==
              Nanoseconds{std::numeric_limits<std::int64_t>::min()} * 1'000'000'000);
  EXPECT_EQ(timestamp_to_influx(1.5), 1'500'000'000);
  EXPECT_EQ(timestamp_to_influx(-1.0000000005), -1'000'000'000);
  EXPECT_THROW(timestamp_to_influx(std::nan("")), std::domain_error);
  EXPECT_THROW(timestamp_to_influx(1e300), std::domain_error);
}

struct InfluxHandlerTest : HandlerTest {
  InfluxHandlerTest() : HandlerTest(4096) {}
};

TEST_F(InfluxHandlerTest, RepeatedNamesShareOnePlace) {
  ASSERT_EQ(handler_.databases().size(), 2U);
  EXPECT_EQ(handler_.databases()[1]->name(), "bonding");
}

TEST_F(InfluxHandlerTest, QueuesTogetherKeepTheirBytesAndTheLargestLosesItsOldest) {
  InfluxHandler handler(
      std::vector<std::string>{"tidewell", "bonding"},
      [this](const std::string& name) {
        return std::make_unique<InfluxDatabase>(name, buffer_settings_, connection_, loop_);
      },
      loop_, 4096, 11'000);
  handler.add("tidewell", std::string(1000, 't'), 1);
  for (const char each : {'a', 'b', 'c'}) {
    handler.add("bonding", std::string(3000, each), 1);
    for (const int second : {10, 20}) {
      handler.databases()[1]->sample_queue();
      EXPECT_EQ(handler.seconds_until_full(*handler.databases()[1]).has_value(),
                each == 'c' && second == 20);
    }
  }
  EXPECT_EQ(handler.queued_memory(), 3 * 3048U + 1048);
  // 2 messages of 3048 bytes in half a minute.
  EXPECT_DOUBLE_EQ(*handler.seconds_until_full(*handler.databases()[1]), (11'000 - 10'192) / 203.2);
  EXPECT_TRUE(log_.texts("warning").empty());
  EXPECT_EQ(handler.room("bonding"), 50'000U - 3);
  handler.add("bonding", std::string(3000, 'd'), 1);
  EXPECT_EQ(log_.texts("warning"), std::vector<std::string>{"Queue filled up, discarding data"});
  EXPECT_EQ(support::body_of(handler.databases()[1]->get_data()).front(), 'b');
  EXPECT_EQ(handler.databases()[1]->counters().discarded.messages, 1U);
}

TEST_F(InfluxHandlerTest, UnknownDatabaseIsCountedAndFails) {
  EXPECT_THROW(handler_.add("other", "x", 3), UnknownDatabaseError);
  EXPECT_EQ(handler_.statistics().messages, 1);
  EXPECT_EQ(handler_.statistics().records, 3);
}

TEST_F(InfluxHandlerTest, StatisticsCountOnePeriodAndNotThemselves) {
  handler_.add("bonding", "a\n", 10);
  handler_.add("bonding", "b\n", 5);
  handler_.handle_successful_auth();
  handler_.increment_failed_auths();
  EXPECT_EQ(handler_.totals().records, 15);
  handler_.send_stats();
  EXPECT_EQ(handler_.totals().records, 15);
  EXPECT_EQ(queued("tidewell"),
            statistics_message({2, 15, 1, 1}, Nanoseconds{1'700'000'000} * 1'000'000'000));
  tick(9.9);
  EXPECT_EQ(queued("tidewell"), "");
  tick(0.1);
  EXPECT_EQ(queued("tidewell"), statistics_message({}, Nanoseconds{1'700'000'010} * 1'000'000'000));
}

TEST_F(InfluxHandlerTest, StatisticsWithoutTheirDatabaseEndAndAreKept) {
  InfluxHandler other = make_handler({"bonding"});
  other.add("bonding", "a\n", 1);
  EXPECT_THROW(other.send_stats(), UnknownDatabaseError);
  EXPECT_EQ(other.statistics().messages, 2);
  tick(100);
  EXPECT_EQ(other.statistics().messages, 2);
}

TEST_F(InfluxHandlerTest, OnlyTheNewestBadLinesOfAFloodArePutIntoWords) {
  const std::size_t kept = log::BUFFER_LINES;
  handler_.add_graphite("bonding", std::string(kept + 41, '\n') + "last");
  ASSERT_EQ(log_.lines().size(), 1 + kept);
  EXPECT_EQ(log_.lines().front().text, "42 log lines were dropped: more than could be written");
  EXPECT_EQ(log_.lines()[1].text, R"(Improperly formatted metric: "b''")");
  EXPECT_EQ(log_.lines().back().text, R"(Improperly formatted metric: "b'last'")");

  log_.clear();
  handler_.add_graphite("bonding", "node0.irq 1 1");
  const std::size_t of_each = log_.lines().size();  // a warning, the failure and its trace
  ASSERT_GT(of_each, 3U);
  log_.clear();
  std::string block;
  for (std::size_t line = 0; line < kept; ++line) block += fmt::format("node{}.irq 1 1\n", line);
  handler_.add_graphite("bonding", block);
  const auto lines = log_.lines();
  const std::size_t come = (kept - 1) / of_each * of_each + 1;  // whole ones, and the last line
  EXPECT_EQ(lines.size(), 1 + come);
  EXPECT_EQ(lines.front().text, fmt::format("{} log lines were dropped: more than could be written",
                                            kept * of_each + 1 - come));
  EXPECT_EQ(lines[1].text, "Unexpected error occurred when translating series");
  EXPECT_EQ(lines[lines.size() - of_each + 1].text,
            fmt::format("translate::UnexpectedSeriesError: series b'node{}.irq' has too few parts "
                        "for its rule",
                        kept - 1));
}

TEST_F(InfluxHandlerTest, BadLinesAreCountedByTheirKind) {
  handler_.add_graphite("bonding",
                        "two fields\nhost1.a.b 1 1\nm.a.b 1 1\nm000.foo.a 1 1\n"
                        "m000.nginx.other 1 1\nm000.irq 1 1\nm000.load.load 1 1\n");
  skein::Message nil;
  skein::MsgpackEncoder::decode("\x91\xc0", nil);
  SubmitMessages messages("node1.tunnel-2.state", nil.root());
  handler_.add_submit("bonding", messages, 1);
  EXPECT_EQ(handler_.bad_lines(), (BadLineCounts{1, 2, 1, 1, 2, 1}));
}

TEST_F(InfluxHandlerTest, LongLinesAreShownInPart) {
  handler_.add_graphite("bonding", std::string(SHOWN_BYTES + 7, 'x'));
  handler_.add_graphite("bonding", "m000.foo." + std::string(SHOWN_BYTES, 'x') + " 1 1");
  const auto warnings = log_.texts("warning");
  ASSERT_EQ(warnings.size(), 2U);
  EXPECT_EQ(warnings[0].size(), SHOWN_BYTES + 53);
  EXPECT_TRUE(warnings[0].ends_with("xxx'\" (7 bytes left out)"));
  EXPECT_TRUE(warnings[1].ends_with("xxx'\": No match for series (9 bytes left out)"));
  const IngestResult longest = handler_.add_graphite("bonding", std::string(2U << 20, 'x'));
  EXPECT_EQ(longest.last_warning, R"(Improperly formatted metric: "b')" + std::string(128, 'x'))
      << "160 bytes";
}

TEST_F(InfluxHandlerTest, BlockThatOutgrowsTheBufferQueuesNothing) {
  std::string block;
  while (block.size() < 8192) block += "m000.load.load.shortterm 1 1500000000\n";
  EXPECT_THROW(handler_.add_graphite("bonding", block), OutputBufferFullError);
  EXPECT_EQ(database("bonding").pending_data_len(), 0U);
  handler_.add_graphite("bonding", "m000.load.load.a 1 1500000000");
  EXPECT_EQ(database("bonding").pending_data_len(), 1U);
}

}  // namespace
}  // namespace pelorus

#include "pelorus/pelorus/ingest/line_protocol.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace pelorus {
namespace {

TEST(LineProtocol, SecondsBecomeNanoseconds) {
  EXPECT_EQ(timestamp_to_influx(std::int64_t{0}), 0);
  EXPECT_EQ(timestamp_to_influx(std::int64_t{1}), 1'000'000'000);
  EXPECT_TRUE(timestamp_to_influx(std::numeric_limits<std::int64_t>::min()) ==
              Nanoseconds{std::numeric_limits<std::int64_t>::min()} * 1'000'000'000);
  EXPECT_EQ(timestamp_to_influx(1.5), 1'500'000'000);
  EXPECT_EQ(timestamp_to_influx(-1.0000000005), -1'000'000'000);
  EXPECT_THROW(timestamp_to_influx(std::nan("")), std::domain_error);
  EXPECT_THROW(timestamp_to_influx(1e300), std::domain_error);
}

}  // namespace
}  // namespace pelorus

#include "pelorus/pelorus/listen/complete_lines.h"

#include <gtest/gtest.h>

#include "skein/errors.h"

namespace pelorus {
namespace {

// How lines are cut and joined is for the fuzz target of the remainder.
TEST(CompleteLines, RemainderBeyondTheLimitIsRefused) {
  Remainder remainder;
  CompleteLines(remainder, "12345", 5);
  EXPECT_THROW(CompleteLines(remainder, "6", 5), skein::LimitError);
  EXPECT_EQ(CompleteLines(remainder, "6\n", 5).lines(), "123456\n");
}

TEST(CompleteLines, WholeLinesAreNotCopied) {
  Remainder remainder;
  const std::string data = "a\nb\nc";
  EXPECT_EQ(CompleteLines(remainder, data, 100).lines().data(), data.data());
}

}  // namespace
}  // namespace pelorus

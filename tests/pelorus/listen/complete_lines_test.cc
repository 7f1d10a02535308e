#include "pelorus/pelorus/listen/complete_lines.h"

#include <gtest/gtest.h>

#include "skein/errors.h"

namespace pelorus {
namespace {

TEST(CompleteLines, CutBehindTheLastLineEndAndCarryTheRest) {
  const struct {
    std::string remainder;
    std::string data;
    std::string lines;
    std::string left;
  } rows[] = {
      {"", "a\nb\n", "a\nb\n", ""}, {"", "a\nb", "a\n", "b"}, {"", "ab", "", "ab"},
      {"x", "y\nz", "xy\n", "z"},   {"x", "y", "", "xy"},     {"x", "", "", "x"},
      {"x", "\n", "x\n", ""},       {"", "", "", ""},
  };
  for (const auto& row : rows) {
    Remainder remainder;
    remainder.append(row.remainder);
    const CompleteLines complete(remainder, row.data, 100);
    EXPECT_EQ(complete.lines(), row.lines) << row.remainder << "+" << row.data;
    EXPECT_EQ(remainder.take(), row.left) << row.remainder << "+" << row.data;
  }
}

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

#include "pelorus/pelorus/listen/line_assembler.h"

#include <gtest/gtest.h>

#include "skein/errors.h"

namespace pelorus {
namespace {

// Every cutting: the fuzz target of the remainder.
TEST(LineAssembler, RemainderBeyondTheLimitIsRefused) {
  LineAssembler lines;
  lines.add("12", 5);
  lines.add("345", 5);
  EXPECT_THROW(lines.add("6", 5), skein::LimitError);
  EXPECT_EQ(lines.add("6\n", 5).text(), "123456\n");
}

TEST(LineAssembler, WholeLinesAreNotCopied) {
  LineAssembler lines;
  const std::string data = "a\nb\nc";
  EXPECT_EQ(lines.add(data).text().data(), data.data());
}

}  // namespace
}  // namespace pelorus

#include "pelorus/pelorus/listen/line_assembler.h"

#include <gtest/gtest.h>

#include "skein/errors.h"

namespace pelorus {
namespace {

TEST(LineAssembler, LinesAreTheSameForEveryCutting) {
  const std::string text = "a\nbc\n\ndef\ng";
  for (std::size_t first = 0; first <= text.size(); ++first) {
    for (std::size_t second = first; second <= text.size(); ++second) {
      LineAssembler lines;
      std::string joined;
      for (const auto& piece : {text.substr(0, first), text.substr(first, second - first),
                                text.substr(second), std::string("\n")}) {
        joined += lines.add(piece, text.size()).text();
      }
      EXPECT_EQ(joined, text + "\n") << first << ", " << second;
    }
  }
}

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

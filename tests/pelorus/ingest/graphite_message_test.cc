#include "pelorus/pelorus/ingest/graphite_message.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "pelorus/pelorus/errors.h"

namespace pelorus {
namespace {

class BadLines : public BadLineReporter {
 public:
  void improperly_formatted(std::string_view line) override {
    lines.push_back("improper " + std::string(line));
  }
  void not_translated(std::string_view series, translate::Outcome outcome) override {
    lines.push_back((is_unexpected(outcome) ? "unexpected " : "untranslated ") +
                    std::string(series));
  }
  std::vector<std::string> lines;
};

/// Builds each block with both scanners, with vector instructions and without, and line by line.
/// All must agree.
class GraphiteMessageTest : public ::testing::Test {
 protected:
  std::string build(std::string_view block) {
    bad_ = {};
    const auto built = message_.build(block, bad_);
    count_ = built.num_metrics;
    BadLines bad;
    const auto plain = plain_message_.build<FallbackScanner>(block, bad);
    EXPECT_EQ(built.message, plain.message);
    EXPECT_EQ(count_, plain.num_metrics);
    EXPECT_EQ(bad_.lines, bad.lines);
    std::string message(built.message);
    BadLines bad_in_parts;
    EXPECT_EQ(build_in_parts(block, bad_in_parts), message);
    EXPECT_EQ(bad_.lines, bad_in_parts.lines);
    return message;
  }
  std::string build_in_parts(std::string_view block, BadLines& bad) {
    std::string message;
    parts_ = 0;
    do {
      message += line_message_.build_part(block, 1, message.size(), bad).message;
      ++parts_;
    } while (!block.empty());
    return message;
  }

  GraphiteMessage message_{4096};
  GraphiteMessage plain_message_{4096};
  GraphiteMessage line_message_{4096};
  int parts_ = 0;
  BadLines bad_;
  std::int64_t count_ = 0;
};

TEST_F(GraphiteMessageTest, OneRecordPerLineAndOneBadLineForTheEmptyOneAtTheEnd) {
  EXPECT_EQ(build("node12.load.load.shortterm 5 1500000000\n"
                  "m000.disk-sda.disk_octets.read 2.5 1500000001\n"),
            "load,node=12 shortterm=5i 1500000000000000000\n"
            "disk,device=sda read_octets=2.5 1500000001000000000\n");
  EXPECT_EQ(count_, 2);
  EXPECT_EQ(bad_.lines, std::vector<std::string>{"improper "});
}

TEST_F(GraphiteMessageTest, OnlyPlainDigitsAreIntegers) {
  const struct {
    const char* value;
    const char* written;
  } rows[] = {
      {"0", "0i"},    {"18446744073709551616", "18446744073709551616i"},
      {"-3", "-3"},   {"2.5", "2.5"},
      {"1e5", "1e5"}, {"+1", "+1"},
      {"NaN", "NaN"}, {"00000000000000000000000000000007x", "00000000000000000000000000000007x"}};
  for (const auto& row : rows) {
    EXPECT_EQ(build(std::string("m000.load.load.a ") + row.value + " 1500000000"),
              std::string("load a=") + row.written + " 1500000000000000000\n");
  }
}

TEST_F(GraphiteMessageTest, BadLinesAreReportedAndTheOthersGoOut) {
  EXPECT_EQ(build("m000.load.load.a 1\n\nm000.load.load.a 1 2 3\nm000.foo.a 1 1500000000\n"
                  "m000.irq 1 1500000000\nm000.load.load.a nan 1500000000\n"
                  "  m000.load.load.a\t7 \r 1500000000 \r\n\xff\xfe"),
            "load a=7i 1500000000000000000\n");
  EXPECT_EQ(count_, 1);
  EXPECT_EQ(bad_.lines,
            (std::vector<std::string>{"improper m000.load.load.a 1", "improper ",
                                      "improper m000.load.load.a 1 2 3", "untranslated m000.foo.a",
                                      "unexpected m000.irq", "improper \xff\xfe"}));
  EXPECT_EQ(build(""), "");
  EXPECT_EQ(count_, 0);
}

TEST_F(GraphiteMessageTest, PartsOfABlockAreWholeLines) {
  std::string block;
  for (int i = 0; i < 20; ++i) block += "m000.load.load.a 1 1500000000\nbad\n\n";
  build(block);
  EXPECT_EQ(count_, 20);
  EXPECT_EQ(bad_.lines.size(), 41U);
  EXPECT_GT(parts_, 50) << "all lines but those at the end";
}

TEST_F(GraphiteMessageTest, ShortTimestampsGetTheirZerosAtOnce) {
  EXPECT_EQ(build("m000.load.load.a 1 7\nm000.load.load.a 1 123456789"),
            "load a=1i 7000000000\nload a=1i 123456789000000000\n");
}

// build() holds both scanners against each other.
TEST_F(GraphiteMessageTest, LinesAreCutAlikeAtTheEdgesOfTheVectorScannersWindows) {
  for (std::size_t size = 1; size < 140; ++size) {
    const std::string name(size, 's');
    const std::string digits(size, '1');
    EXPECT_EQ(build("m000.load.load." + name + " " + digits + " 1500000000"),
              "load " + name + "=" + digits + "i 1500000000000000000\n");
    build(std::string(size, ' ') + "m000.load.load.a 1" + std::string(size, '\t') + "1500000000");
    build(std::string(size, '.') + " 1 " + digits);
  }
}

// Kept: ten bytes are copied, the length is stepped over.
TEST_F(GraphiteMessageTest, LongTimestampsShowWhatTheBufferHeld) {
  EXPECT_EQ(build("m000.load.load.a 1 123456789012345"),
            "load a=1i 1234567890" + std::string(5, '\0') + "000000000\n");
  build("m000.load.load.abcdefghijklmnopqrstuvwxyz 7 1500000000");
  EXPECT_EQ(build("m000.load.load.a 1 123456789012345"), "load a=1i 1234567890pqrst000000000\n");
}

TEST_F(GraphiteMessageTest, RecordsFillTheBufferToTheLastByteAndNotBeyond) {
  const std::string line = "m000.load.load.a 1 1500000000\n";
  const std::string record = "load a=1i 1500000000000000000\n";
  GraphiteMessage exact(2 * record.size());
  EXPECT_EQ(exact.build(line + line, bad_).message, record + record);
  EXPECT_THROW(exact.build(line + line + line, bad_), OutputBufferFullError);
  EXPECT_EQ(exact.build(line, bad_).message, record);
  GraphiteMessage short_of_one(2 * record.size() - 1);
  EXPECT_THROW(short_of_one.build(line + line, bad_), OutputBufferFullError);
}

}  // namespace
}  // namespace pelorus

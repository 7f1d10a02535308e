#include "collectd/block_queue.h"

#include <gmock/gmock.h>

#include "collectd/backoff.h"
#include "collectd/complaints.h"

namespace write_skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

const BlockQueue::Clock::time_point START{1h};

class Queue : public testing::Test {
 protected:
  /// A line of `size` bytes that begins with `name`.
  static std::string line(char name, std::size_t size) {
    std::string text(size, '.');
    text.front() = name;
    text.back() = '\n';
    return text;
  }
  /// The first byte of each waiting block; takes them all.
  std::string blocks() {
    std::string names;
    while (!queue.empty()) {
      names += queue.take().lines.front();
      queue.delivered();
    }
    return names;
  }

  BlockQueue queue{3 * BLOCK_BYTES, 10s};
};

TEST_F(Queue, BlockIsDueWhenFullOrOldOrFlushed) {
  EXPECT_EQ(queue.due(), std::nullopt);
  queue.add("a\n", START);
  queue.add("b\nc\n", START + 5s);
  EXPECT_EQ(queue.due(), START + 10s);
  queue.flush(6s, START + 5s);
  EXPECT_EQ(queue.due(), START + 10s);
  queue.flush(5s, START + 5s);
  EXPECT_LT(queue.due(), START);
  const Block block = queue.take();
  EXPECT_EQ(block.lines, "a\nb\nc\n");
  EXPECT_EQ(block.values, 3U);
  queue.add(line('d', BLOCK_BYTES), START);
  EXPECT_EQ(queue.due(), START + 10s);
  queue.add("e\n", START);
  EXPECT_LT(queue.due(), START);
}

TEST_F(Queue, BlocksEndWithALineAndStayBelowTheirSize) {
  std::string lines;
  for (int i = 0; i < 3000; ++i) lines += line('x', 50);
  queue.add(lines, START);
  std::string sent;
  while (!queue.empty()) {
    const Block block = queue.take();
    EXPECT_LE(block.lines.size(), BLOCK_BYTES);
    EXPECT_EQ(block.lines.size(), block.values * 50);
    sent += block.lines;
    queue.delivered();
  }
  EXPECT_EQ(sent, lines);
}

TEST_F(Queue, AtItsLimitTheOldestBlockIsDroppedAndCounted) {
  for (const char name : {'a', 'b', 'c', 'd'}) queue.add(line(name, BLOCK_BYTES), START);
  const Loss loss = queue.take_loss();
  EXPECT_EQ(loss.bytes, BLOCK_BYTES);
  EXPECT_EQ(loss.values, 1U);
  EXPECT_EQ(queue.take_loss().values, 0U);
  EXPECT_EQ(queue.waiting().bytes, 3 * BLOCK_BYTES);
  EXPECT_EQ(blocks(), "bcd");
}

TEST_F(Queue, BlockOnItsWayCountsButIsNotDropped) {
  for (const char name : {'a', 'b', 'c'}) queue.add(line(name, BLOCK_BYTES), START);
  Block first = queue.take();
  queue.add(line('d', BLOCK_BYTES), START);
  EXPECT_EQ(queue.take_loss().values, 1U);  // b
  queue.give_back(std::move(first));
  EXPECT_EQ(blocks(), "acd");
}

TEST(Backoff, WaitsSpreadBelowABoundThatDoublesUpToTheLast) {
  Backoff backoff(1);
  for (int round = 0; round < 2; ++round) {
    auto bound = Backoff::FIRST_BOUND;
    bool jitters = false;
    for (int i = 0; i < 20; ++i) {
      const auto wait = backoff.next();
      EXPECT_LE(wait, bound);
      jitters = jitters || wait < bound / 2;
      bound = std::min(bound * 2, Backoff::LAST_BOUND);
    }
    EXPECT_TRUE(jitters);
    backoff.reset();
  }
}

class ComplaintsTest : public testing::Test {
 protected:
  std::vector<std::string> said;
  Complaints complaints{"a", [this](Level, const std::string& text) { said.push_back(text); }};
};

TEST_F(ComplaintsTest, OneLinePerOutageAndOneWhenItIsOver) {
  complaints.answered({}, START);
  complaints.failed("refused", START);
  complaints.failed("timed out", START + 30s);
  complaints.answered({.bytes = 640, .values = 7}, START + 90s);
  complaints.answered({}, START + 100s);
  EXPECT_THAT(said, ElementsAre(HasSubstr("node \"a\": refused; values are queued"),
                                HasSubstr("back after 90 s; 7 values (640 bytes) were dropped")));
}

TEST_F(ComplaintsTest, RefusedAndDroppedValuesAreSummedUpBetweenRareLines) {
  for (int i = 0; i < 3; ++i) {
    complaints.refused("bad key", 10, START + i * 1s);
    complaints.answered({.bytes = 1, .values = 2}, START + i * 1s);
  }
  EXPECT_THAT(said, ElementsAre(HasSubstr("refused 10 values, they are lost: bad key"),
                                HasSubstr("too slow: 2 values")));
  said.clear();
  complaints.refused("bad key", 10, START + Complaints::REPEAT);
  complaints.answered({}, START + Complaints::REPEAT);
  EXPECT_THAT(said, ElementsAre(HasSubstr("refused 30 values"), HasSubstr("4 values")));
}

}  // namespace
}  // namespace write_skein

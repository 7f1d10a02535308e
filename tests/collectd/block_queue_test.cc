#include "collectd/block_queue.h"

#include <gtest/gtest.h>

namespace write_skein {
namespace {

using namespace std::chrono_literals;

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

TEST_F(Queue, BlockInFlightCountsButIsNotDropped) {
  for (const char name : {'a', 'b', 'c'}) queue.add(line(name, BLOCK_BYTES), START);
  Block first = queue.take();
  queue.add(line('d', BLOCK_BYTES), START);
  EXPECT_EQ(queue.take_loss().values, 1U);  // b
  queue.put_back(std::move(first));
  EXPECT_EQ(blocks(), "acd");
}

}  // namespace
}  // namespace write_skein

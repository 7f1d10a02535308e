#include "skein/loops.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <stdexcept>

#include "skein/errors.h"
#include "skein/socket.h"
#include "support/loop_test.h"
#include "support/skein_peer.h"

namespace skein {
namespace {

class LoopTest : public support::LoopTest {
 protected:
  void note(const std::string& what) { order_ += what; }

  std::string order_;
};

TEST_F(LoopTest, TimersFireOnceInTheOrderOfTheirTimes) {
  loop_.call_in(2, [&] { note("c"); });
  loop_.call_in(1, [&] { note("a"); });
  loop_.call_in(1, [&] { note("b"); });
  tick(0.999);
  EXPECT_EQ(order_, "");
  tick(0.001);
  EXPECT_EQ(order_, "ab");
  tick(10);
  loop_.run_once();
  EXPECT_EQ(order_, "abc");
}

TEST_F(LoopTest, CancelIsHarmlessBeforeDuringAndAfterTheFiring) {
  Timer never;
  never.cancel();
  Timer cancelled = loop_.call_in(1, [&] { note("x"); });
  Timer later = loop_.call_in(2, [&] { note("y"); });
  Timer self;
  self = loop_.call_in(1, [&] {
    note("a");
    self.cancel();
    later.cancel();
  });
  cancelled.cancel();
  cancelled.cancel();
  tick(3);
  self.cancel();
  EXPECT_EQ(order_, "a");
}

TEST_F(LoopTest, FailureOfOneCallbackIsReportedAndTheOthersRun) {
  std::string reported;
  loop_.set_failure_handler([&](const std::exception& failure) { reported = failure.what(); });
  loop_.call_in(0, [] { throw std::runtime_error("broken"); });
  loop_.call_in(0, [&] { note("a"); });
  loop_.run_once();
  EXPECT_EQ(reported, "broken");
  EXPECT_EQ(order_, "a");
}

TEST_F(LoopTest, DiscardedObjectIsDestroyedBehindTheCallback) {
  struct Noting : LoopOwned {
    explicit Noting(std::string& order) : order_(order) {}
    ~Noting() override { order_ += "gone"; }
    std::string& order_;
  };
  auto object = std::make_unique<Noting>(order_);
  loop_.call_in(0, [&] {
    loop_.discard(std::move(object));
    note("discarded ");
  });
  loop_.run_once();
  loop_.run_once();
  EXPECT_EQ(order_, "discarded gone");
}

// The library's clock stands still during a callback; a timer that trusted it would be early.
TEST_F(LoopTest, TimerIsNotEarlyAfterASlowCallback) {
  loop_.call_in(0, [&] {
    clock_.tick(0.06);
    loop_.call_in(0.05, [&] { note("a"); });
  });
  loop_.run_once();
  tick(0.049);
  EXPECT_EQ(order_, "");
  tick(0.001);
  EXPECT_EQ(order_, "a");
}

TEST_F(LoopTest, TimerWithoutDelayWaitsForTheNextTurnAndLetsOthersHaveTheirs) {
  int calls = 0;
  std::function<void()> again = [&] {
    ++calls;
    loop_.call_in(calls % 2 - 1, again);
  };
  loop_.call_in(0, again);
  EXPECT_EQ(calls, 0);
  for (int i = 0; i < 3; ++i) loop_.run_once();
  EXPECT_GE(calls, 3);
  EXPECT_LE(calls, 10);
}

// After an error libuv stops watching: what came before it must be read all the same.
TEST(Loop, PollTellsAllThatAPeerSentBeforeItResetAndItsFailuresAreReported) {
  Loop loop;
  Socket listening = Socket::stream(AF_INET);
  bind_tcp(listening, "127.0.0.1", 0);
  listen(listening, 1);
  auto far = support::SkeinPeer::tcp(support::bound_port(listening));
  const Socket near(::accept(listening.descriptor(), nullptr, nullptr));
  struct Target : PollTarget {
    void handle_events(int) override {
      char byte = 0;
      const ssize_t count = ::recv(descriptor, &byte, 1, MSG_DONTWAIT);
      read += count == 1 ? std::string(1, byte) : "!";
      if (count == 1) return;
      poll->watch(0);
      throw std::runtime_error("broken");
    }
    int descriptor = -1;
    Poll* poll = nullptr;
    std::string read;
  } target;
  std::string reported;
  loop.set_failure_handler([&](const std::exception& failure) { reported = failure.what(); });
  Poll poll(loop, near.descriptor(), target);
  target.descriptor = near.descriptor();
  target.poll = &poll;
  poll.watch(UV_READABLE);
  loop.run_once();
  EXPECT_EQ(target.read, "");
  far.send("abc");
  far.reset();
  for (int i = 0; i < 10; ++i) loop.run_once();
  EXPECT_EQ(target.read, "abc!");
  EXPECT_EQ(reported, "broken");
}

}  // namespace
}  // namespace skein

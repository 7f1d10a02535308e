#include "collectd/node_sender.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>

#include "support/folder.h"
#include "support/skein_stub.h"

namespace write_skein {
namespace {

using namespace std::chrono_literals;
using support::SkeinStub;
using testing::ElementsAre;
using testing::HasSubstr;

class Sender : public testing::Test {
 protected:
  std::unique_ptr<NodeSender> make(std::chrono::seconds max_age = 1h) {
    settings.name = "a";
    settings.endpoint = skein::Endpoint::unix_socket(path);
    auto sender = std::make_unique<NodeSender>(settings, max_age,
                                               [this](int, const std::string& line) { log(line); });
    sender->start();
    return sender;
  }

  void log(const std::string& line) {
    const std::lock_guard lock(mutex);
    logged.push_back(line);
    changed.notify_all();
  }
  void wait_for_line() {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 10s, [this] { return !logged.empty(); }));
  }

  static std::string answer(const SkeinStub::Call& call) { return SkeinStub::reply(call); }
  /// The lines of the first blocks, as soon as there are so many.
  static std::string lines_of(SkeinStub& stub, std::size_t blocks) {
    std::string lines;
    for (const auto& call : stub.calls(blocks)) lines += call.args.at("metrics");
    return lines;
  }

  const support::Folder folder;
  const std::string path = folder / "socket";
  NodeSettings settings;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> logged;  // guarded by mutex while a sender runs
};

TEST_F(Sender, SendsWhatIsOldFlushedOrLeftAtTheEnd) {
  settings.key = "12-ab";
  SkeinStub stub(answer, path);
  const auto prompt = make(0s);
  prompt->add("old\n");
  EXPECT_EQ(lines_of(stub, 1), "old\n");
  prompt->stop(10s);  // the stub takes one connection at a time
  const auto sender = make();
  sender->add("flushed\n");
  sender->flush(0s);
  EXPECT_EQ(lines_of(stub, 2), "old\nflushed\n");
  sender->add("left\n");
  sender->stop(10s);
  EXPECT_EQ(lines_of(stub, 3), "old\nflushed\nleft\n");
  EXPECT_EQ(stub.calls(1)[0].name, "collectd");
  EXPECT_EQ(stub.calls(1)[0].args.at("key"), "12-ab");
  EXPECT_THAT(logged, ElementsAre());
}

TEST_F(Sender, KeepsValuesThroughAnOutage) {
  const auto sender = make(0s);
  sender->add("first\n");
  wait_for_line();
  sender->add("second\n");
  SkeinStub stub(answer, path);
  EXPECT_EQ(lines_of(stub, 2), "first\nsecond\n");
  sender->stop(10s);
  EXPECT_THAT(logged, ElementsAre(HasSubstr("No such file"), HasSubstr("0 values (0 bytes)")));
}

TEST_F(Sender, RestartOfTheServerBetweenBlocksIsNoOutage) {
  auto stub = std::make_unique<SkeinStub>(answer, path);
  const auto sender = make(0s);
  sender->add("first\n");
  EXPECT_EQ(lines_of(*stub, 1), "first\n");
  stub.reset();
  stub = std::make_unique<SkeinStub>(answer, path);
  sender->add("second\n");
  EXPECT_EQ(lines_of(*stub, 1), "second\n");
  sender->stop(10s);
  EXPECT_THAT(logged, ElementsAre());
}

TEST_F(Sender, RenewsItsConnectionOnceThatHasTheGivenAge) {
  for (const auto interval : {0ns, 1ns}) {
    SkeinStub stub(answer, path);
    settings.reconnect_interval = interval;
    const auto sender = make(0s);
    sender->add("first\n");
    stub.calls(1);
    sender->add("second\n");
    EXPECT_EQ(stub.calls(2).back().connection, interval == 0ns ? 1 : 2);
    sender->stop(10s);  // the reply may still be on its way
  }
  EXPECT_THAT(logged, ElementsAre());
}

TEST_F(Sender, RefusedBlockIsNotSentAgain) {
  const auto refuse_bad = [](const auto& call) {
    return call.args.at("metrics") == "bad\n" ? SkeinStub::error(call, "no") : answer(call);
  };
  SkeinStub stub(refuse_bad, path);
  const auto sender = make(0s);
  sender->add("bad\n");
  stub.calls(1);
  sender->add("good\n");
  EXPECT_EQ(lines_of(stub, 2), "bad\ngood\n");
  sender->stop(10s);
  EXPECT_THAT(logged, ElementsAre(HasSubstr("refused 1 values, they are lost: no")));
}

TEST_F(Sender, EndIsBoundedAndSaysWhatStayedBehind) {
  const struct {
    std::optional<std::string> answer;
    const char* text;
  } rows[] = {{"", "cancelled"}, {std::nullopt, "closed the connection"}};
  for (const auto& row : rows) {
    SkeinStub stub([&](const auto&) { return row.answer; }, path);
    const auto sender = make(0s);
    sender->add("never\n");
    stub.calls(1);
    sender->stop(50ms);
    EXPECT_THAT(logged.back(), HasSubstr("1 values (6 bytes) could not be sent before the end: "));
    EXPECT_THAT(logged.back(), HasSubstr(row.text));
    logged.clear();
  }
}

const ErrorReporter::Clock::time_point START{1h};

class Reporter : public testing::Test {
 protected:
  std::vector<std::string> lines;
  ErrorReporter errors{"a", [this](int, const std::string& line) { lines.push_back(line); }};
};

TEST_F(Reporter, OneLinePerOutageAndOneWhenItIsOver) {
  errors.answered({}, START);
  errors.failed("refused", START);
  errors.failed("timed out", START + 30s);
  errors.answered({.bytes = 640, .values = 7}, START + 90s);
  errors.answered({}, START + 100s);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("node \"a\": refused; values are queued"),
                                 HasSubstr("back after 90 s; 7 values (640 bytes) were dropped")));
}

TEST_F(Reporter, RefusedAndDroppedValuesAreSummedUpBetweenRareLines) {
  for (int i = 0; i < 3; ++i) {
    errors.refused("bad key", 10, START + i * 1s);
    errors.answered({.bytes = 1, .values = 2}, START + i * 1s);
  }
  EXPECT_THAT(lines, ElementsAre(HasSubstr("refused 10 values, they are lost: bad key"),
                                 HasSubstr("too slow: 2 values")));
  lines.clear();
  errors.refused("bad key", 10, START + ErrorReporter::REPEAT);
  errors.answered({}, START + ErrorReporter::REPEAT);
  EXPECT_THAT(lines, ElementsAre(HasSubstr("refused 30 values"), HasSubstr("4 values")));
}

TEST_F(Reporter, NoLostValueStaysUnreported) {
  for (const int values : {10, 20}) errors.refused("bad key", values, START);
  EXPECT_EQ(errors.due(), START + ErrorReporter::REPEAT);
  errors.report(START + ErrorReporter::REPEAT - 1s);
  EXPECT_EQ(lines.size(), 1U);
  errors.report(START + ErrorReporter::REPEAT);
  EXPECT_THAT(lines.back(), HasSubstr("refused 20 values, they are lost: bad key"));
  EXPECT_EQ(errors.due(), ErrorReporter::Clock::time_point::max());
  errors.refused("bad key", 30, START + ErrorReporter::REPEAT);
  lines.clear();
  errors.stopped({.bytes = 8, .values = 4}, {.bytes = 10, .values = 5}, "cancelled");
  EXPECT_THAT(lines, ElementsAre(HasSubstr("refused 30 values"), HasSubstr("5 values were dropped"),
                                 HasSubstr("4 values (8 bytes) could not be sent before the end")));
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

}  // namespace
}  // namespace write_skein

#include "pelorus/pelorus/listen/local_server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "listener_fixture.h"
#include "skein/errors.h"
#include "skein/resources.h"

namespace pelorus {
namespace {

class LocalServerTest : public ListenerTest {
 protected:
  Settings settings_ = settings(socket_path());
  skein::Resources resources_{loop_};
};

TEST_F(LocalServerTest, StopRemovesTheSocketFile) {
  LocalServer server(handler_, settings_, loop_, resources_);
  EXPECT_TRUE(std::filesystem::is_socket(socket_path()));
  server.stop();
  EXPECT_FALSE(std::filesystem::exists(socket_path()));
}

TEST_F(LocalServerTest, SocketOfALiveProcessIsReplacedWithAWarningAndAStaleOneInSilence) {
  const std::string line = fmt::format(
      "A live process (process {}, user {}) answers on the local socket {}: replacing its socket.",
      getpid(), getuid(), socket_path());
  {
    const LocalServer old(handler_, settings_, loop_, resources_);
    const LocalServer replacing(handler_, settings_, loop_, resources_);
    EXPECT_EQ(log_.texts("warning"), std::vector<std::string>{line});
  }
  const LocalServer next(handler_, settings_, loop_, resources_);
  EXPECT_EQ(log_.texts("warning").size(), 1U);
}

TEST_F(LocalServerTest, WhatStandsAtItsPathIsRemovedAndTheTargetOfALinkIsKept) {
  namespace fs = std::filesystem;
  const fs::path path = socket_path();
  fs::create_directory(folder_ / "target");
  const std::function<void()> in_the_way[] = {
      [&] { skein::bind_unix(skein::Socket::stream(AF_UNIX), path); },
      [&] { std::ofstream(path) << "a file"; },
      [&] { fs::create_symlink(folder_ / "target", path); },
      [&] { fs::create_symlink(folder_ / "nothing", path); },
  };
  for (const auto& put : in_the_way) {
    put();
    const LocalServer server(handler_, settings_, loop_, resources_);
    const auto status = fs::symlink_status(path);
    EXPECT_TRUE(fs::is_socket(status));
    EXPECT_EQ(status.permissions(), fs::perms::owner_all);
    fs::remove(path);
  }
  EXPECT_TRUE(fs::is_directory(folder_ / "target"));
  fs::create_directory(path);
  EXPECT_THROW(LocalServer(handler_, settings_, loop_, resources_), skein::SystemFailure);
  EXPECT_TRUE(fs::is_directory(path));
}

TEST_F(LocalServerTest, BlockWithoutAWholeLineIsAnEmptyMessageAndItsConnectionKeepsTheLine) {
  LocalServer server(handler_, settings_, loop_, resources_);
  auto peer = support::SkeinPeer::unix_socket(socket_path());
  auto other = support::SkeinPeer::unix_socket(socket_path());
  send(peer, support::request(1, "collectd", {{"metrics", "m000.load.load.a 1"}}));
  EXPECT_GT(resources_.admission.held_bytes(), 0U);
  send(other, support::request(1, "collectd", {{"metrics", "no end"}}));
  send(peer, support::request(2, "collectd", {{"metrics", " 1500000000\n"}}));
  EXPECT_EQ(peer.replies() + other.replies(), "1=nil 2=nil 1=nil ");
  EXPECT_EQ(queued("tidewell"), "\n\nload a=1i 1500000000000000000\n");
}

TEST_F(LocalServerTest, LongBlockIsOneMessageWhoeverWaitsForIt) {
  constexpr int LINES = 16'000;  // 600 KB
  LocalServer server(handler_, settings_, loop_, resources_);
  const auto block = [](int lines) {
    std::string text = "bad\n";
    for (int i = 0; i < lines; ++i) text += "m000.load.load.shortterm 1 1500000000\n";
    return support::request(1, "collectd", {{"metrics", text}});
  };
  auto peer = support::SkeinPeer::unix_socket(socket_path());
  peer.send(block(LINES) + support::request(2, "collectd", {{"metrics", "no end"}}));
  run_loop(20);
  EXPECT_EQ(peer.replies(), "1=nil 2=nil ") << "in order";
  EXPECT_EQ(handler_.statistics().messages, 2);
  EXPECT_EQ(handler_.statistics().records, LINES);
  EXPECT_EQ(handler_.bad_lines()[0], 1U);
  peer.send(block(2 * LINES));
  run_loop(20);
  EXPECT_EQ(peer.replies().substr(0, 13), "1!a record of") << "more than the output buffer takes";
  peer.send(block(LINES));
  peer.finish_sending();
  { const auto gone = std::move(peer); }
  run_loop(20);
  EXPECT_EQ(handler_.statistics().records, 2 * LINES) << "what has come is added";
  EXPECT_EQ(resources_.admission.held_bytes(), 0U);
}

TEST_F(LocalServerTest, StatusListsConnectionsInTheOrderThatIsAskedFor) {
  LocalServer server(handler_, settings_, loop_, resources_);
  const auto connect = [this] {
    auto peer = support::SkeinPeer::unix_socket(socket_path());
    run_loop(2);
    clock_.tick(10);
    return peer;
  };
  auto busy = connect();
  const auto silent = connect();
  busy.send(support::request(1, "collectd", {{"metrics", "m000.load.load.a 1 1500000000\n"}}));
  auto newest = connect();
  const auto age_of_first = [&](const std::string& order) {
    newest.send(support::request(1, "status", {{"order", order}}));
    run_loop(2);
    newest.receive();
    const auto messages = newest.messages();
    skein::Message reply;
    skein::MsgpackEncoder::decode(messages.at(0), reply);
    auto item = reply.root().begin();
    for (int i = 0; i < 3; ++i) ++item;
    const auto connections = *(*item).find("local")->find("connections");
    return clock_.clocks().wall() - (*connections.begin()).find("since")->real();
  };
  EXPECT_NEAR(age_of_first("records"), 30, 1);
  EXPECT_NEAR(age_of_first("silent"), 20, 1);
  EXPECT_NEAR(age_of_first("newest"), 10, 1);
}

}  // namespace
}  // namespace pelorus

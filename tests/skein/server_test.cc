#include "skein/server.h"

#include "skein/resources.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

#include "support/loop_test.h"
#include "support/skein_peer.h"

namespace skein {
namespace {

/// Answers "echo" with the argument "text", defers "wait"; notes what happens.
class TestServer : public Server {
 public:
  TestServer(Socket socket, Loop& loop, Resources& resources, Keepalive keepalive)
      : Server(std::move(socket), loop, resources, keepalive) {
    answer_to("echo", [this](const Request& request) { return req_echo(request); });
    answer_to("wait", [this](const Request& request) { return req_wait(request); });
    answer_to("fail", [this](const Request& request) { return req_fail(request); });
  }

  Reply req_echo(const Request& request) {
    MsgpackWriter result;
    result.text(request.text("text"));
    return Reply(std::move(result));
  }
  Reply req_wait(const Request& request) {
    deferred.push_back(defer(request));
    return Reply::later();
  }
  Reply req_fail(const Request& request) {
    defer(request);
    throw Failure("cannot read a secret path");
  }

  void add_connection(Connection& connection) override {
    Server::add_connection(connection);
    ++added;
    if (refuse) throw SystemFailure("getpeername", ENOTCONN);
  }
  void remove_connection(Connection& connection) override {
    ++removed;
    Server::remove_connection(connection);
  }
  void handle_exception(const std::exception& failure) override {
    failures.emplace_back(failure.what());
  }
  void handle_protocol_error(Connection&, const ProtocolError& fault) override {
    faults.emplace_back(fault.what());
  }
  void handle_shortage(const std::string& text) override { shortages.push_back(text); }

  std::vector<DeferredReply> deferred;
  std::vector<std::string> failures;
  std::vector<std::string> faults;
  std::vector<std::string> shortages;
  int added = 0;
  int removed = 0;
  bool refuse = false;
};

std::string request(std::uint32_t msgid, std::string_view name, std::string text = "x") {
  return support::request(msgid, name, {{"text", std::move(text)}});
}

/// So many requests "echo", from number 1 on.
std::string requests(std::uint32_t count, const std::string& text = "x") {
  std::string stream;
  for (std::uint32_t i = 1; i <= count; ++i) stream += request(i, "echo", text);
  return stream;
}

class ServerTest : public support::LoopTest {
 protected:
  ServerTest() { restart({}); }

  void restart(const Limits& limits) {
    server_.reset();
    resources_.emplace(loop_, limits);
    server_.emplace(listening(), loop_, *resources_, KEEPALIVE);
  }

  Connection& connection(std::size_t i) {
    return const_cast<Connection&>(*server_->connections().at(i));
  }
  std::uint64_t ended_by(EndReason reason) {
    return resources_->counters.ended_connections.at(static_cast<std::size_t>(reason));
  }
  std::uint64_t served(std::size_t i) { return connection(i).traffic().requests; }

  static constexpr Keepalive KEEPALIVE{.count = 4, .idle = 300, .interval = 8};

  static Socket listening() {
    Socket socket = Socket::stream(AF_INET);
    bind_tcp(socket, "127.0.0.1", 0);
    listen(socket, 16);
    return socket;
  }

  support::SkeinPeer connect() {
    auto peer = support::SkeinPeer::tcp(support::bound_port(server_->socket()));
    run_loop();
    return peer;
  }

  void send(support::SkeinPeer& peer, std::string_view bytes) {
    peer.send(bytes);
    run_loop();
  }

  std::optional<Resources> resources_;
  std::optional<TestServer> server_;
};

TEST_F(ServerTest, PeerThatWentBeforeItWasAcceptedLeavesNothingBehind) {
  server_->refuse = true;
  { const auto peer = connect(); }
  EXPECT_EQ(server_->added, 1);
  EXPECT_EQ(server_->removed, 1);
  EXPECT_EQ(server_->connection_count(), 0U);
  server_->refuse = false;
  auto peer = connect();
  send(peer, request(1, "echo", "a"));
  EXPECT_EQ(peer.replies(), "1=a ");
}

TEST_F(ServerTest, KeepaliveIsSetOnAcceptedConnections) {
  const auto peer = connect();
  std::vector<int> values;
  for (const int option : {TCP_KEEPCNT, TCP_KEEPIDLE, TCP_KEEPINTVL}) {
    int value = 0;
    socklen_t length = sizeof value;
    const int descriptor = connection(0).socket().descriptor();
    ::getsockopt(descriptor, IPPROTO_TCP, option, &value, &length);
    values.push_back(value);
  }
  EXPECT_EQ(values, (std::vector<int>{4, 300, 8}));
}

TEST_F(ServerTest, OneTurnServesAShareOfEachAndTheRestOnTheNextTurns) {
  restart({.authenticated = {.of_one = 10'000, .of_all = 20'000},
           .unauthenticated = {.of_one = 10'000, .of_all = 20'000}});
  std::vector<support::SkeinPeer> peers;
  for (int i = 0; i < 4; ++i) peers.push_back(connect());
  server_->set_authenticated(connection(3));
  const std::string zeros(9'900, '0');  // some 500 bytes of a frame
  for (auto& peer : peers) peer.send(requests(3, zeros));
  run_loop(1);
  EXPECT_EQ(served(3), 2U) << "alone in its class";
  EXPECT_EQ(served(0), 1U);
  EXPECT_EQ(served(1), 1U);
  EXPECT_EQ(served(2), 0U);
  EXPECT_EQ(peers[0].replies(), "") << "replies gather while more waits";
  run_loop(10);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(served(i), 3U);
}

TEST_F(ServerTest, SmallFramesPassALargeOneThatHasToEarnItsCredit) {
  restart({.unauthenticated = {.of_one = 10'000, .of_all = 10'000}});
  auto large = connect();
  auto small = connect();
  large.send(request(1, "echo", std::string(50'000, '0')));
  small.send(requests(100));
  run_loop(2);
  EXPECT_EQ(served(0), 0U);
  EXPECT_GE(served(1), 9U);
  run_loop(20);
  EXPECT_EQ(served(0), 1U);
  EXPECT_EQ(served(1), 100U);
  large.send(request(2, "echo", std::string(50'000, '0')));
  small.send(requests(100));
  run_loop(2);
  EXPECT_EQ(served(0), 1U) << "what was left of its credit is gone";
}

TEST_F(ServerTest, DeferredReplyComesInOrderAndWhatFollowsWaits) {
  auto peer = connect();
  auto other = connect();
  send(peer, support::frame("\x93\x02\xa4wait\x80"));  // one-way: has no reply
  server_->deferred.front().send({});
  server_->deferred.clear();
  peer.send(request(6, "wait") + request(7, "echo") + std::string(4, '\0'));
  run_loop();
  send(other, request(1, "echo"));
  EXPECT_EQ(peer.replies() + other.replies(), "1=x ");
  const DeferredReply first = server_->deferred.front();
  first.send({});
  run_loop();
  EXPECT_EQ(peer.replies(), "6=nil 7=x end") << "what breaks the protocol waits for its turn, too";
  EXPECT_EQ(first.connection(), nullptr);
  auto third = connect();  // has the place of the one that has ended
  send(third, request(8, "wait"));
  first.send({});
  EXPECT_EQ(third.replies(), "");
}

TEST_F(ServerTest, AllThatCameBeforeTheEndOfTheStreamIsAnswered) {
  auto peer = connect();
  std::string text = support::noise(1000);
  std::ranges::replace(text, '=', '-');
  const std::string stream = requests(999, text) + request(0, "wait") + requests(1000, text);
  std::size_t replies = 0;
  bool ended = false;
  for (std::size_t sent = 0, round = 0; !ended && round < 10'000; ++round) {
    sent += peer.send_now(std::string_view(stream).substr(sent));
    if (sent == stream.size()) peer.finish_sending();
    run_loop(1);
    if (!server_->deferred.empty()) server_->deferred.front().send({});
    if (sent > stream.size() / 2 && sent < stream.size()) continue;  // takes nothing for a while
    const std::string seen = peer.replies();
    replies += static_cast<std::size_t>(std::ranges::count(seen, '='));
    ended = seen.ends_with("end");
  }
  EXPECT_EQ(replies, 2000U);
  EXPECT_EQ(server_->connection_count(), 0U);
}

TEST_F(ServerTest, StrangersAreNotToldOfInternalFailures) {
  auto stranger = connect();
  auto known = connect();
  server_->set_authenticated(connection(1));
  send(stranger, request(1, "fail") + request(2, "unknown"));
  send(known, request(1, "fail"));
  EXPECT_EQ(stranger.replies(),
            "1!the request failed for a reason that the server's log tells "
            "2!unknown request 'unknown' ");
  EXPECT_EQ(known.replies(), "1!cannot read a secret path ");
  EXPECT_EQ(server_->failures.size(), 3U);
  EXPECT_EQ(resources_->counters.refused_requests, 3U);
}

TEST_F(ServerTest, BytesThatAreHeldCountAndAnEvictedConnectionEnds) {
  restart({.held_bytes = 4000});
  auto valid = connect();
  auto small = connect();
  auto large = connect();
  server_->set_authenticated(connection(0));
  const std::string half = request(1, "echo", support::noise(20'000));
  send(valid, half.substr(0, 2000));
  send(small, half.substr(0, 300));
  send(large, half.substr(0, 1500));
  EXPECT_EQ(ended_by(EndReason::HELD_BYTES), 1U);
  EXPECT_EQ(large.replies(), "end");
  send(valid, half.substr(2000, 2500));
  EXPECT_EQ(small.replies(), "end");
  EXPECT_EQ(server_->shortages.size(), 1U) << "only valid ones are left";
}

/// Bytes that are allocated at present.
std::size_t allocated() {
  const auto now = ::mallinfo2();
  return now.uordblks + now.hblkhd;
}

TEST_F(ServerTest, MemoryOfALargeFrameIsGivenBackThoughTheNextOneHasBegun) {
  auto peer = connect();
  const std::string large = request(1, "fail", support::noise(1U << 20));
  const std::size_t before = allocated();
  send(peer, large.substr(0, large.size() / 2));
  send(peer, large.substr(large.size() / 2) + std::string("\0\0\1", 3));
  for (int i = 0; i < 100 && server_->failures.empty(); ++i) run_loop();
  EXPECT_LT(resources_->admission.held_bytes(), 1000U);
  EXPECT_LT(allocated(), before + (128U << 10));
}

TEST_F(ServerTest, SuspendedPeerThatHasGoneMakesRoomBeforeOneThatIsThere) {
  restart({.connections = 2});
  {
    auto gone = connect();
    server_->set_authenticated(connection(0));
    send(gone, request(1, "wait"));
  }
  auto there = connect();
  auto newest = connect();
  EXPECT_FALSE(server_->deferred.front().has_peer());
  EXPECT_EQ(server_->connection_count(), 2U);
  send(there, request(1, "echo"));
  send(newest, request(1, "echo"));
  EXPECT_EQ(there.replies() + newest.replies(), "1=x 1=x ");
  server_->deferred.front().send({});  // to nobody
  auto third = connect();
  EXPECT_EQ(there.replies(), "end") << "the oldest that is not authenticated";
}

TEST_F(ServerTest, FailuresOfOneConnectionAreReportedTenTimesASecond) {
  auto peer = connect();
  std::string stream;
  for (std::uint32_t i = 0; i < 14; ++i) stream += request(i, i % 2 == 0 ? "fail" : "unknown");
  send(peer, stream);
  EXPECT_EQ(server_->failures.size(), 10U);
  clock_.tick(1);
  send(peer, request(1, "unknown"));
  EXPECT_EQ(server_->failures.back(), "unknown request 'unknown'");
  EXPECT_EQ(server_->shortages,
            std::vector<std::string>{
                "4 more failures of requests of a peer at 127.0.0.1 are not logged"});
  for (int i = 0; i < 11; ++i) send(peer, request(1, "unknown"));
  peer.reset();
  run_loop();
  EXPECT_TRUE(server_->shortages.back().starts_with("2 more")) << "said at its end";
}

TEST_F(ServerTest, HalfFrameEndsWhenNothingMoreComesAndIdlenessNever) {
  auto half = connect();
  auto drip = connect();
  auto idle = connect();
  const std::string frame = request(1, "echo");
  send(idle, frame);
  send(half, frame.substr(0, 5));
  for (const char byte : frame.substr(0, 4)) {
    clock_.tick(119);
    send(drip, {&byte, 1});
  }
  EXPECT_EQ(half.replies(), "") << "the clock stood still: more may have come meanwhile";
  clock_.tick(1);
  run_loop();
  EXPECT_EQ(half.replies(), "end");
  EXPECT_EQ(drip.replies() + idle.replies(), "1=x ");
  EXPECT_EQ(server_->faults,
            std::vector<std::string>{"5 bytes of a half frame and no more for 120 seconds"});
  EXPECT_EQ(ended_by(EndReason::HALF_FRAME), 1U);
}

TEST_F(ServerTest, PeerThatTakesNoRepliesIsNotReadAndEndsThoughItHasFinished) {
  const std::string stream = requests(1000, support::noise(30'000));
  for (const bool finishes : {false, true}) {
    restart({.unsent_reply_bytes = 10'000});
    auto peer = connect();
    std::size_t sent = 0;
    for (int in_vain = 0; in_vain < 10 && sent < stream.size(); run_loop()) {
      const std::size_t taken = peer.send_now(std::string_view(stream).substr(sent));
      in_vain = taken == 0 ? in_vain + 1 : 0;
      sent += taken;
    }
    EXPECT_LT(sent, stream.size());
    if (finishes) peer.finish_sending();
    run_loop();
    tick(60);
    run_loop();
    EXPECT_EQ(ended_by(EndReason::UNSENT_REPLIES), 1U);
    EXPECT_TRUE(
        server_->faults.at(0).ends_with("10000 are allowed, and none taken for 60 seconds"));
  }
}

TEST_F(ServerTest, AcceptRestsWhileThereAreNoDescriptorsAndRecovers) {
  auto old = connect();
  rlimit usual{};
  ::getrlimit(RLIMIT_NOFILE, &usual);
  auto peer = support::SkeinPeer::tcp(support::bound_port(server_->socket()));
  rlimit none = usual;
  none.rlim_cur = 0;
  ::setrlimit(RLIMIT_NOFILE, &none);
  for (int i = 0; i < 5; ++i) {
    run_loop();
    clock_.tick(1.1);
  }
  send(old, request(1, "echo"));
  EXPECT_EQ(old.replies(), "1=x ");
  EXPECT_EQ(server_->shortages,
            std::vector<std::string>{"no connection can be accepted: accept: Too many open files"});
  ::setrlimit(RLIMIT_NOFILE, &usual);
  clock_.tick(0.9);
  run_loop();
  EXPECT_EQ(server_->connection_count(), 1U) << "it rests for a second by now";
  clock_.tick(0.2);
  run_loop();
  send(peer, request(1, "echo"));
  EXPECT_EQ(peer.replies(), "1=x ");
}

}  // namespace
}  // namespace skein

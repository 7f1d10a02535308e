#include "skein/server.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>

#include "support/fake_clock.h"
#include "support/skein_peer.h"

namespace skein {
namespace {

/// Answers "echo" with the argument "text", holds "wait"; notes what happens.
class TestServer : public Server {
 public:
  using Server::Server;

  Reply req_echo(const Request& request) {
    MsgpackWriter result;
    result.text(request.text("text"));
    return Reply(std::move(result));
  }
  Reply req_wait(const Request& request) {
    held.push_back(request.connection.hold());
    return Reply::later();
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
  void handle_exception(const std::exception& failure) override { ADD_FAILURE() << failure.what(); }
  void handle_protocol_error(Connection&, const ProtocolError& fault) override {
    faults.emplace_back(fault.what());
  }
  void handle_shortage(const std::string& text) override { shortages.push_back(text); }

  std::vector<HeldRequest> held;
  std::vector<std::string> faults;
  std::vector<std::string> shortages;
  int added = 0;
  int removed = 0;
  bool refuse = false;

 protected:
  std::span<const RequestRow> requests() const override {
    static constexpr std::array<RequestRow, 2> ROWS{{
        {"echo", RequestHandler<&TestServer::req_echo>::handle},
        {"wait", RequestHandler<&TestServer::req_wait>::handle},
    }};
    return ROWS;
  }
};

std::string request(std::uint32_t msgid, std::string_view name, std::string text = "x") {
  return support::request(msgid, name, {{"text", std::move(text)}});
}

class ServerTest : public ::testing::Test {
 protected:
  ServerTest() { server_.emplace(listening(), loop_, KEEPALIVE); }

  void restart(const Limits& limits) {
    server_.emplace(listening(), loop_, KEEPALIVE, std::make_shared<Quota>(limits));
  }

  static constexpr Keepalive KEEPALIVE{.count = 4, .idle = 300, .interval = 8};

  static Socket listening() {
    Socket socket = Socket::stream(AF_INET);
    bind_tcp(socket, "127.0.0.1", 0);
    listen(socket, 16);
    return socket;
  }

  void turns(int count = 5) {
    for (int i = 0; i < count; ++i) loop_.turn();
  }

  support::SkeinPeer connect() {
    auto peer = support::SkeinPeer::tcp(support::bound_port(server_->socket()));
    turns();
    return peer;
  }

  void send(support::SkeinPeer& peer, std::string_view bytes) {
    peer.send(bytes);
    turns();
  }

  support::FakeClock clock_;
  Loop loop_{clock_.clocks()};
  std::optional<TestServer> server_;
};

TEST_F(ServerTest, AnswersWaitForAPeerThatIsSlowToTakeThem) {
  auto peer = connect();
  const std::string text(100'000, 'x');
  std::string stream;
  for (std::uint32_t i = 0; i < 100; ++i) stream += request(i, "echo", text);
  send(peer, stream);
  std::size_t answers = 0;
  for (int i = 0; i < 10'000; ++i) {
    const std::string seen = peer.replies();
    answers += static_cast<std::size_t>(std::ranges::count(seen, '='));
    if (answers == 100) return;
    turns(1);
  }
  FAIL() << "not all answers came";
}

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
    const int descriptor = server_->connections()[0]->socket().descriptor();
    ::getsockopt(descriptor, IPPROTO_TCP, option, &value, &length);
    values.push_back(value);
  }
  EXPECT_EQ(values, (std::vector<int>{4, 300, 8}));
}

TEST_F(ServerTest, OneTurnServesAShareOfEachAndTheRestGoesOnByItself) {
  restart({.requests_per_turn = 2});
  auto busy = connect();
  auto quiet = connect();
  server_->connections()[1]->set_valid();
  std::string stream;
  for (std::uint32_t i = 1; i <= 5; ++i) stream += request(i, "echo");
  busy.send(stream);
  quiet.send(request(1, "echo"));
  turns(1);
  EXPECT_EQ(server_->connections()[0]->traffic().requests, 2U);
  EXPECT_EQ(busy.replies() + quiet.replies(), "1=x ") << "replies gather while more waits";
  turns();
  EXPECT_EQ(busy.replies(), "1=x 2=x 3=x 4=x 5=x ");
  busy.send(request(6, "wait") + stream);
  turns();
  busy.replies();
  server_->held.front().answer({});
  turns();
  EXPECT_EQ(busy.replies(), "6=nil 1=x 2=x 3=x 4=x 5=x ");
}

TEST_F(ServerTest, ContentCountsInAShareAndThoseWithoutAValidKeyHaveOneForAll) {
  restart({.bytes_per_turn = 100'000,
           .newcomer_bytes_per_turn = 20'000,
           .newcomers_bytes_per_turn = 30'000});
  std::vector<support::SkeinPeer> peers;
  for (int i = 0; i < 4; ++i) peers.push_back(connect());
  server_->connections()[3]->set_valid();
  const std::string zeros(10'000, '0');  // some 500 bytes of a frame
  std::string stream;
  for (std::uint32_t i = 1; i <= 3; ++i) stream += request(i, "echo", zeros.substr(0, 9'900));
  for (auto& peer : peers) peer.send(stream);
  const auto served = [&](std::size_t i) { return server_->connections()[i]->traffic().requests; };
  turns(1);
  EXPECT_EQ(served(3), 3U);
  EXPECT_LE(served(0) + served(1) + served(2), 6U) << "at once, and of those that wait";
  turns();
  EXPECT_EQ(served(0) + served(1) + served(2), 9U);

  const std::string large = request(1, "echo", std::string(200'000, '0'));
  for (auto& peer : peers) peer.send(large);
  turns(1);
  EXPECT_LE(served(0) + served(1) + served(2), 10U) << "one large one";
  turns();
  EXPECT_EQ(served(0) + served(1) + served(2) + served(3), 16U);
}

TEST_F(ServerTest, NewcomersHaveTheirSharesOneAfterTheOther) {
  restart({.newcomer_bytes_per_turn = 20'000, .newcomers_bytes_per_turn = 20'000});
  std::vector<support::SkeinPeer> peers;
  for (int i = 0; i < 5; ++i) peers.push_back(connect());
  const std::string text(9'000, '0');
  std::string stream;
  for (std::uint32_t i = 1; i <= 20; ++i) stream += request(i, "echo", text);
  for (int i = 0; i < 4; ++i) peers[static_cast<std::size_t>(i)].send(stream);
  turns(1);
  peers[4].send(request(1, "echo", text));
  turns(8);
  EXPECT_EQ(peers[4].replies(), "1=" + text + " ");
  turns(50);
  EXPECT_EQ(server_->connections()[0]->traffic().requests, 20U);
}

TEST_F(ServerTest, LargestHolderWithoutAValidKeyGoesFirst) {
  restart({.held_bytes = 4000});
  auto valid = connect();
  auto small = connect();
  auto large = connect();
  server_->connections()[0]->set_valid();
  const std::string half = request(1, "echo", support::noise(20'000));
  send(valid, half.substr(0, 2000));
  send(small, half.substr(0, 300));
  send(large, half.substr(0, 1500));
  ASSERT_EQ(server_->faults.size(), 1U);
  EXPECT_EQ(large.replies(), "end");
  send(valid, half.substr(2000, 2500));
  EXPECT_EQ(small.replies(), "end");
  EXPECT_EQ(server_->shortages.size(), 1U) << "only valid ones are left";
  auto second = connect();
  server_->connections()[1]->set_valid();
  send(second, half.substr(0, 3900));
  EXPECT_EQ(valid.replies(), "end") << "beyond twice the limit";
  EXPECT_EQ(second.replies(), "");
}

TEST_F(ServerTest, OldestConnectionWithoutAValidKeyMakesRoom) {
  restart({.connections = 2});
  auto valid = connect();
  server_->connections()[0]->set_valid();
  auto oldest = connect();
  auto newest = connect();
  EXPECT_EQ(oldest.replies(), "end");
  EXPECT_EQ(server_->faults.size(), 1U);
  send(newest, request(1, "echo"));
  send(valid, request(1, "echo"));
  EXPECT_EQ(newest.replies() + valid.replies(), "1=x 1=x ");
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
  turns();
  EXPECT_EQ(half.replies(), "end");
  EXPECT_EQ(drip.replies() + idle.replies(), "1=x ");
  EXPECT_EQ(server_->faults,
            std::vector<std::string>{"5 bytes of a half frame and no more for 120 seconds"});
}

TEST_F(ServerTest, PeerThatTakesNoRepliesIsNotReadAndEnds) {
  restart({.unread_reply_bytes = 10'000, .requests_per_turn = 1000});
  auto peer = connect();
  const std::string text = support::noise(30'000);
  std::string stream;
  for (std::uint32_t i = 0; i < 1000; ++i) stream += request(i, "echo", text);
  std::size_t sent = 0;
  for (int in_vain = 0; in_vain < 10 && sent < stream.size(); turns()) {
    const std::size_t taken = peer.send_now(std::string_view(stream).substr(sent));
    in_vain = taken == 0 ? in_vain + 1 : 0;
    sent += taken;
  }
  EXPECT_LT(sent, stream.size());
  clock_.tick(60);
  turns();
  ASSERT_EQ(server_->faults.size(), 1U);
  EXPECT_TRUE(server_->faults[0].ends_with("10000 are allowed, and none taken for 60 seconds"));
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
    turns();
    clock_.tick(1.1);
  }
  send(old, request(1, "echo"));
  EXPECT_EQ(old.replies(), "1=x ");
  EXPECT_EQ(server_->shortages,
            std::vector<std::string>{"no connection can be accepted: accept: Too many open files"});
  ::setrlimit(RLIMIT_NOFILE, &usual);
  clock_.tick(1.1);
  turns();
  send(peer, request(1, "echo"));
  EXPECT_EQ(peer.replies(), "1=x ");
}

}  // namespace
}  // namespace skein

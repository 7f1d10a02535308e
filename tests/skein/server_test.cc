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

/// Answers "echo" with the argument "text", holds "wait", fails at "fail"; notes what happens.
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
  Reply req_fail(const Request&) { throw std::runtime_error("on purpose"); }

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
    exceptions.emplace_back(failure.what());
  }
  void handle_protocol_error(Connection&, const ProtocolError& fault) override {
    faults.emplace_back(fault.what());
  }
  void handle_shortage(const std::string& text) override { shortages.push_back(text); }

  std::vector<HeldRequest> held;
  std::vector<std::string> exceptions;
  std::vector<std::string> faults;
  std::vector<std::string> shortages;
  int added = 0;
  int removed = 0;
  bool refuse = false;

 protected:
  std::span<const RequestRow> requests() const override {
    static constexpr std::array<RequestRow, 3> ROWS{{
        {"echo", RequestHandler<&TestServer::req_echo>::handle},
        {"wait", RequestHandler<&TestServer::req_wait>::handle},
        {"fail", RequestHandler<&TestServer::req_fail>::handle},
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

TEST_F(ServerTest, RequestsAreAnsweredInOrderAndFailuresLeaveTheConnection) {
  auto peer = connect();
  MsgpackWriter no_args;
  no_args.list(4).natural(0).natural(3).text("echo").nil();
  MsgpackWriter one_way;
  one_way.list(3).natural(2).text("fail").map(0);
  send(peer, request(1, "echo", "a") + request(2, "fail") + support::frame(no_args) +
                 support::frame(one_way) + request(4, "req_echo") + request(5, "echo", "b"));
  EXPECT_EQ(peer.replies(),
            "1=a 2!on purpose 3!request args are no map 4!unknown request 'req_echo' 5=b ");
  EXPECT_EQ(server_->exceptions.size(), 4U);
}

TEST_F(ServerTest, FramesMayComeInAnyPieces) {
  auto peer = connect();
  const std::string stream = request(1, "echo", std::string(5000, 'x')) + request(2, "echo", "b");
  for (const char byte : stream) send(peer, {&byte, 1});
  EXPECT_EQ(peer.replies(), "1=" + std::string(5000, 'x') + " 2=b ");
}

TEST_F(ServerTest, BrokenFrameEndsItsConnectionAfterWhatWasAskedBefore) {
  auto peer = connect();
  auto other = connect();
  send(peer, request(1, "echo", "a") + std::string(4, '\0') + request(2, "echo", "b"));
  EXPECT_EQ(peer.replies(), "1=a end");
  EXPECT_EQ(server_->faults, std::vector<std::string>{"frame of length 0"});
  send(other, request(1, "echo", "a"));
  EXPECT_EQ(other.replies(), "1=a ");
  EXPECT_EQ(server_->connection_count(), 1U);
}

TEST_F(ServerTest, HalfClosedPeerGetsItsAnswers) {
  auto peer = connect();
  peer.send(request(1, "echo", "a") + request(2, "echo", "b"));
  peer.shut();
  turns();
  EXPECT_EQ(peer.replies(), "1=a 2=b end");
  EXPECT_EQ(server_->removed, 1);
}

TEST_F(ServerTest, HeldRequestSuspendsItsOwnConnectionOnly) {
  auto peer = connect();
  auto other = connect();
  send(peer, request(1, "wait") + request(2, "echo", "b"));
  send(peer, request(3, "echo", "c"));
  send(other, request(1, "echo", "a"));
  EXPECT_EQ(peer.replies(), "");
  EXPECT_EQ(other.replies(), "1=a ");
  server_->held.front().answer({});
  turns();
  EXPECT_EQ(peer.replies(), "1=nil 2=b 3=c ");
  send(peer, request(4, "wait"));
  server_->held.back().fail(std::runtime_error("late"));
  EXPECT_EQ(peer.replies(), "4!late ");
  EXPECT_EQ(server_->exceptions, std::vector<std::string>{"late"});
}

TEST_F(ServerTest, HeldRequestOutlivesItsPeerAndWhatWasSentIsStillServed) {
  {
    auto peer = connect();
    send(peer, request(1, "wait") + request(2, "fail") + request(3, "wait") + request(4, "fail"));
  }
  turns();
  EXPECT_EQ(server_->exceptions.size(), 0U);
  server_->held[0].answer({});
  turns();
  ASSERT_EQ(server_->held.size(), 2U);
  server_->held[1].answer({});
  turns();
  EXPECT_EQ(server_->exceptions.size(), 2U);
  EXPECT_EQ(server_->connection_count(), 0U);
  server_->held[1].answer({});  // goes nowhere
}

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
  struct Reading : TestServer {
    using TestServer::TestServer;
    Connection* handle_read() override {
      Connection* accepted = Server::handle_read();
      if (accepted != nullptr) {
        for (const int option : {TCP_KEEPCNT, TCP_KEEPIDLE, TCP_KEEPINTVL}) {
          int value = 0;
          socklen_t length = sizeof value;
          ::getsockopt(accepted->socket().descriptor(), IPPROTO_TCP, option, &value, &length);
          values.push_back(value);
        }
      }
      return accepted;
    }
    std::vector<int> values;
  };
  Reading reading(listening(), loop_, KEEPALIVE);
  const auto peer = support::SkeinPeer::tcp(support::bound_port(reading.socket()));
  turns();
  EXPECT_EQ(reading.values, (std::vector<int>{4, 300, 8}));
}

TEST_F(ServerTest, OneTurnServesAShareOfEachAndTheRestGoesOnByItself) {
  restart({.requests_per_turn = 2});
  auto busy = connect();
  auto quiet = connect();
  std::string stream;
  for (std::uint32_t i = 1; i <= 5; ++i) stream += request(i, "echo");
  busy.send(stream);
  quiet.send(request(1, "echo"));
  turns(1);
  EXPECT_EQ(busy.replies() + quiet.replies(), "1=x 2=x 1=x ");
  turns();
  EXPECT_EQ(busy.replies(), "3=x 4=x 5=x ");
  busy.send(request(6, "wait") + stream);
  turns();
  busy.replies();
  server_->held.front().answer({});
  turns();
  EXPECT_EQ(busy.replies(), "6=nil 1=x 2=x 3=x 4=x 5=x ");
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
  clock_.tick(61);
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

TEST_F(ServerTest, CloseEndsEveryConnectionOnce) {
  auto one = connect();
  auto two = connect();
  server_->close();
  server_->close();
  turns();
  EXPECT_EQ(one.replies() + two.replies(), "endend");
  EXPECT_EQ(server_->removed, 2);
}

}  // namespace
}  // namespace skein

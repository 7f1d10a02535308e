#include "skein/server.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <array>
#include <optional>
#include <stdexcept>

#include "skein/framing.h"
#include "support/fake_clock.h"

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

  std::vector<HeldRequest> held;
  std::vector<std::string> exceptions;
  std::vector<std::string> faults;
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

std::string frame(const MsgpackWriter& message) {
  std::string bytes;
  const std::size_t begin = begin_frame(bytes);
  SnappyEncoder::encode(message.bytes(), bytes);
  end_frame(bytes, begin);
  return bytes;
}

std::string request(std::uint32_t msgid, std::string_view name, std::string_view text = "x") {
  MsgpackWriter message;
  message.list(4).natural(0).natural(msgid).text(name).map(1).text("text").text(text);
  return frame(message);
}

class ServerTest : public ::testing::Test {
 protected:
  ServerTest() {
    Socket listening = Socket::stream(AF_INET);
    bind_tcp(listening, "127.0.0.1", 0);
    listen(listening, 16);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(::getsockname(listening.descriptor(), reinterpret_cast<sockaddr*>(&address), &length),
              0);
    address_ = address;
    server_.emplace(std::move(listening), loop_, Keepalive{.count = 4, .idle = 300, .interval = 8});
  }

  void turns(int count = 5) {
    for (int i = 0; i < count; ++i) loop_.turn();
  }

  /// A connected peer; its reads wait a second at the most.
  Socket connect() {
    Socket peer(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(::connect(peer.descriptor(), reinterpret_cast<sockaddr*>(&address_), sizeof address_),
              0);
    send_without_delay(peer.descriptor());
    turns();
    return peer;
  }

  void send(const Socket& peer, std::string_view bytes) {
    EXPECT_EQ(::send(peer.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
    turns();
  }

  /// What has come back: "msgid=result" or "msgid!error", blanks between; "end" at its end.
  std::string replies(const Socket& peer) {
    std::string bytes;
    std::array<char, 65536> chunk{};
    ssize_t count = 0;
    while ((count = ::recv(peer.descriptor(), chunk.data(), chunk.size(), MSG_DONTWAIT)) > 0) {
      bytes.append(chunk.data(), static_cast<std::size_t>(count));
    }
    std::string shown;
    std::string_view rest = bytes;
    SnappyEncoder snappy;
    Message message;
    while (const auto payload = take_frame(rest)) {
      MsgpackEncoder::decode(snappy.decode(*payload), message);
      auto item = message.root().begin();
      const auto msgid = (*++item).natural();
      const Value error = *++item;
      const Value result = *++item;
      shown += std::to_string(msgid) + (error.text() ? "!" : "=") +
               std::string(error.text().value_or(result.text().value_or("nil"))) + " ";
    }
    if (count == 0) shown += "end";
    return shown;
  }

  support::FakeClock clock_;
  Loop loop_{clock_.clocks()};
  std::optional<TestServer> server_;
  sockaddr_in address_{};
};

TEST_F(ServerTest, RequestsAreAnsweredInOrderAndFailuresLeaveTheConnection) {
  const Socket peer = connect();
  MsgpackWriter no_args;
  no_args.list(4).natural(0).natural(3).text("echo").nil();
  MsgpackWriter one_way;
  one_way.list(3).natural(2).text("fail").map(0);
  send(peer, request(1, "echo", "a") + request(2, "fail") + frame(no_args) + frame(one_way) +
                 request(4, "req_echo") + request(5, "echo", "b"));
  EXPECT_EQ(replies(peer),
            "1=a 2!on purpose 3!request args are no map 4!unknown request 'req_echo' 5=b ");
  EXPECT_EQ(server_->exceptions.size(), 4U);
}

TEST_F(ServerTest, FramesMayComeInAnyPieces) {
  const Socket peer = connect();
  const std::string stream = request(1, "echo", std::string(5000, 'x')) + request(2, "echo", "b");
  for (const char byte : stream) send(peer, {&byte, 1});
  EXPECT_EQ(replies(peer), "1=" + std::string(5000, 'x') + " 2=b ");
}

TEST_F(ServerTest, BrokenFrameEndsItsConnectionAfterWhatWasAskedBefore) {
  const Socket peer = connect();
  const Socket other = connect();
  send(peer, request(1, "echo", "a") + std::string(4, '\0') + request(2, "echo", "b"));
  EXPECT_EQ(replies(peer), "1=a end");
  EXPECT_EQ(server_->faults, std::vector<std::string>{"frame of length 0"});
  send(other, request(1, "echo", "a"));
  EXPECT_EQ(replies(other), "1=a ");
  EXPECT_EQ(server_->connection_count(), 1U);
}

TEST_F(ServerTest, HalfClosedPeerGetsItsAnswers) {
  const Socket peer = connect();
  const std::string two = request(1, "echo", "a") + request(2, "echo", "b");
  ASSERT_EQ(::send(peer.descriptor(), two.data(), two.size(), 0), static_cast<ssize_t>(two.size()));
  ASSERT_EQ(::shutdown(peer.descriptor(), SHUT_WR), 0);
  turns();
  EXPECT_EQ(replies(peer), "1=a 2=b end");
  EXPECT_EQ(server_->removed, 1);
}

TEST_F(ServerTest, HeldRequestSuspendsItsOwnConnectionOnly) {
  const Socket peer = connect();
  const Socket other = connect();
  send(peer, request(1, "wait") + request(2, "echo", "b"));
  send(peer, request(3, "echo", "c"));
  send(other, request(1, "echo", "a"));
  EXPECT_EQ(replies(peer), "");
  EXPECT_EQ(replies(other), "1=a ");
  server_->held.front().answer({});
  turns();
  EXPECT_EQ(replies(peer), "1=nil 2=b 3=c ");
  send(peer, request(4, "wait"));
  server_->held.back().fail(std::runtime_error("late"));
  EXPECT_EQ(replies(peer), "4!late ");
  EXPECT_EQ(server_->exceptions, std::vector<std::string>{"late"});
}

TEST_F(ServerTest, HeldRequestOutlivesItsPeerAndWhatWasSentIsStillServed) {
  {
    const Socket peer = connect();
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
  const Socket peer = connect();
  const std::string text(100'000, 'x');
  std::string stream;
  for (std::uint32_t i = 0; i < 100; ++i) stream += request(i, "echo", text);
  send(peer, stream);
  std::string seen;
  for (int i = 0; i < 10'000 && seen.size() < 100 * text.size(); ++i) {
    std::array<char, 65536> chunk{};
    const ssize_t count = ::recv(peer.descriptor(), chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (count > 0) seen.append(chunk.data(), static_cast<std::size_t>(count));
    loop_.turn();
    std::string_view rest = seen;
    int frames = 0;
    while (take_frame(rest)) ++frames;
    if (frames == 100) return;
  }
  FAIL() << "not all answers came";
}

TEST_F(ServerTest, PeerThatWentBeforeItWasAcceptedLeavesNothingBehind) {
  server_->refuse = true;
  { const Socket peer = connect(); }
  EXPECT_EQ(server_->added, 1);
  EXPECT_EQ(server_->removed, 1);
  EXPECT_EQ(server_->connection_count(), 0U);
  server_->refuse = false;
  const Socket peer = connect();
  send(peer, request(1, "echo", "a"));
  EXPECT_EQ(replies(peer), "1=a ");
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
  Socket listening = Socket::stream(AF_INET);
  bind_tcp(listening, "127.0.0.1", 0);
  listen(listening, 16);
  socklen_t length = sizeof address_;
  ::getsockname(listening.descriptor(), reinterpret_cast<sockaddr*>(&address_), &length);
  Reading reading(std::move(listening), loop_, Keepalive{.count = 4, .idle = 300, .interval = 8});
  const Socket peer = connect();
  EXPECT_EQ(reading.values, (std::vector<int>{4, 300, 8}));
}

TEST_F(ServerTest, CloseEndsEveryConnectionOnceAndStopsListening) {
  const Socket one = connect();
  const Socket two = connect();
  server_->close();
  server_->close();
  turns();
  EXPECT_EQ(replies(one) + replies(two), "endend");
  EXPECT_EQ(server_->removed, 2);
  const Socket late(::socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_NE(::connect(late.descriptor(), reinterpret_cast<sockaddr*>(&address_), sizeof address_),
            0);
}

}  // namespace
}  // namespace skein

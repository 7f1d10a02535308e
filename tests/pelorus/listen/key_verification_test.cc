#include "pelorus/pelorus/listen/key_verification.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "support/http_server.h"
#include "support/loop_test.h"

namespace pelorus {
namespace {

using support::HttpServer;
using support::TlsPeer;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* OK = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";

std::string text_of(const KeyOutcome& outcome) {
  if (const auto* response = std::get_if<KeyResponse>(&outcome)) {
    return std::to_string(response->status) + " " + response->body;
  }
  if (const auto* failure = std::get_if<WebFailure>(&outcome)) {
    return *failure == WebFailure::TIMED_OUT ? "timed out" : "not connected";
  }
  try {
    std::rethrow_exception(std::get<std::exception_ptr>(outcome));
  } catch (const std::exception& failure) {
    return failure.what();
  }
}

std::string url_at(std::uint16_t port, const std::string& host = "127.0.0.1") {
  return "https://" + host + ":" + std::to_string(port) + "/keys/";
}

/// The web server's hands and the daemon's questions, on a clock that stands still.
struct KeyVerificationTest : support::LoopTest {
  void tick(double seconds) {
    settle();
    clock_.tick(seconds);
    settle();
  }
  /// Lets the client do all that it can.
  void settle() { run_loop(10); }

  void ask_at(const std::string& url) { verification.emplace(settings, loop_, url); }
  void ask(const std::string& key = "k3y") {
    const auto before = said.size();
    const auto done = [this](const KeyOutcome& outcome) {
      said.push_back(text_of(outcome));
      if (also) also();
    };
    verification->do_auth_check(key, done);
    EXPECT_EQ(said.size(), before);
  }
  /// The one outcome since the last time.
  std::string heard() {
    until([this] { return !said.empty(); });
    EXPECT_EQ(said.size(), 1U);
    return said.empty() ? "nothing" : std::exchange(said, {}).front();
  }

  void expect_answered(TlsPeer& peer) {
    peer.send(OK);
    EXPECT_EQ(heard(), "200 body");
  }

  skein::Socket accept() {
    skein::Socket socket;
    until([&] { return static_cast<bool>(socket = server.accept()); });
    return socket;
  }
  TlsPeer accept_tls() {
    TlsPeer peer(accept());
    until([&] { return peer.handshake(); });
    return peer;
  }
  /// The next request of a connection, which ends with its key.
  std::string request(TlsPeer& peer, const std::string& key = "k3y") {
    std::string text;
    until([&] { return (text += peer.receive()).ends_with("key=" + key); });
    return text;
  }
  /// Asks, and returns the server's side once the request is there.
  TlsPeer ask_and_accept() {
    ask();
    TlsPeer peer = accept_tls();
    request(peer);
    return peer;
  }

  HttpServer server;
  Settings settings = Settings::from_text(R"({"LOCAL_WWW_KEY": "s3cret"})", "the source");
  std::vector<std::string> said;
  std::function<void()> also;  ///< done by the callback
  std::optional<KeyVerification> verification;

  KeyVerificationTest() {
    std::signal(SIGPIPE, SIG_IGN);
    loop_.set_failure_handler(
        [](const std::exception& failure) { ADD_FAILURE() << failure.what(); });
    ask_at(url_at(server.port()));
  }
};

TEST_F(KeyVerificationTest, RequestIsTheseBytesAndNoMore) {
  ::setenv("https_proxy", "http://127.0.0.1:1", 1);
  ask({"a b&c=%+\0\xff-._~Z9", 16});
  TlsPeer peer = accept_tls();
  EXPECT_EQ(request(peer, "a%20b%26c%3D%25%2B%00%FF-._~Z9"),
            "GET /keys/ HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                "\r\nX-AUTHORIZATION: Token s3cret\r\n"
                "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 34\r\n\r\n"
                "key=a%20b%26c%3D%25%2B%00%FF-._~Z9");
  peer.send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n\x01\xff{}");
  EXPECT_EQ(heard(), "200 \x01\xff{}");
  ::unsetenv("https_proxy");
}

TEST_F(KeyVerificationTest, TokenIsReadForEachKey) {
  for (const auto& [json, outcome] : std::vector<std::pair<const char*, std::string>>{
           {"{}", "Setting LOCAL_WWW_KEY is missing in the source"},
           {R"({"LOCAL_WWW_KEY": "s3\r\ncret"})",
            "Setting LOCAL_WWW_KEY in the source must be text without control bytes"}}) {
    settings = Settings::from_text(json, "the source");
    ask();
    EXPECT_EQ(heard(), outcome);
  }
}

TEST_F(KeyVerificationTest, SecondOfSilenceIsATimeOutWhereverItFalls) {
  const auto expect_time_out = [this](const char* stage) {
    tick(0.9);
    EXPECT_THAT(said, IsEmpty()) << stage;
    tick(0.1);
    EXPECT_EQ(heard(), "timed out") << stage;
  };
  TlsPeer silent = ask_and_accept();
  expect_time_out("before the answer");
  TlsPeer half = ask_and_accept();
  half.send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbo");
  expect_time_out("in the body");
}

TEST_F(KeyVerificationTest, WhatCameWhileTheProcessStoodStillIsInTime) {
  for (const char* answer : {OK, "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbo"}) {
    TlsPeer peer = ask_and_accept();
    settle();
    peer.send(answer);
    clock_.tick(5);
    settle();
    if (answer != OK) peer.send("dy");
    EXPECT_EQ(heard(), "200 body");
  }
}

TEST_F(KeyVerificationTest, ConnectionAndHandshakeShareOneSecond) {
  ask();
  const auto peer = accept();
  tick(0.6);
  support::answer(peer, "\x16\x03");  // the beginning of a handshake record
  tick(0.4);
  EXPECT_EQ(heard(), "timed out");
}

TEST_F(KeyVerificationTest, EveryByteIsAnAnswerForASecondAndAllTogetherForTen) {
  ask();
  TlsPeer peer(accept());
  tick(0.9);
  until([&] { return peer.handshake(); });
  request(peer);
  for (const char byte : std::string_view("HTTP/1.1 2")) {
    tick(0.9);
    peer.send({&byte, 1});
    settle();
    EXPECT_THAT(said, IsEmpty());
  }
  tick(0.1);
  EXPECT_EQ(heard(), "timed out");
}

TEST_F(KeyVerificationTest, AnswerBeyond64KiBIsATimeOut) {
  const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
  const std::string limit((64U << 10) - head.size(), 'x');
  for (const auto& [answer, outcome] : std::vector<std::pair<std::string, std::string>>{
           {head + limit, "200 " + limit},
           {head + limit + "x", "timed out"},
           {"HTTP/1.1 200 OK\r\nX: " + limit + "\r\n\r\n", "timed out"}}) {
    TlsPeer peer = ask_and_accept();
    peer.send(answer);
    peer.close();
    EXPECT_EQ(heard(), outcome);
  }
}

TEST_F(KeyVerificationTest, UrlThatCannotBeAskedIsAFailureOfItsOwn) {
  ask_at("gopher://127.0.0.1");
  ask();
  // libcurl's own words follow.
  EXPECT_THAT(heard(), testing::StartsWith("node key verification: Protocol \"gopher\" "));
}

TEST_F(KeyVerificationTest, AnswerIsReadThoughTheConnectionWasResetAfterIt) {
  TlsPeer peer = ask_and_accept();
  for (const char* part : {"HTTP/1.1 200 OK\r\n", "Content-Length: 4\r\n\r\n", "bo", "dy"}) {
    peer.send(part);
  }
  peer.reset();
  EXPECT_EQ(heard(), "200 body");
}

TEST_F(KeyVerificationTest, HangingNameLookupEndsInTimeAndHoldsNothingUp) {
  ask_at(url_at(server.port(), "hangs.test"));
  ask();
  EXPECT_EQ(heard(), "not connected") << "no such name";
  const support::HangingLookups lookups;
  ask_at(url_at(server.port(), "hangs.test"));
  ask();
  tick(1);
  EXPECT_EQ(heard(), "timed out");
  ask();
  settle();
  verification.reset();
}

TEST_F(KeyVerificationTest, EightGoOutAtATimeEachWithItsOwnTime) {
  std::vector<TlsPeer> peers;
  for (char key = '0'; key <= '7'; ++key) ask({key});
  EXPECT_FALSE(verification->has_room());
  for (char key = '0'; key <= '7'; ++key) {
    peers.push_back(accept_tls());
    request(peers.back(), {key});
  }
  tick(0.9);
  expect_answered(peers[3]);
  EXPECT_TRUE(verification->has_room());
  ask("8");
  request(peers[3], "8");
  tick(0.1);
  EXPECT_THAT(said, testing::Each("timed out"));
  EXPECT_EQ(said.size(), 7U);
  said.clear();
  tick(0.8);
  expect_answered(peers[3]);
}

TEST_F(KeyVerificationTest, ConnectionIsUsedAgainAndADeadOneReplacedInSilence) {
  TlsPeer peer = ask_and_accept();
  expect_answered(peer);
  ask();
  request(peer);
  expect_answered(peer);
  ask();
  request(peer);
  tick(0.9);
  peer.reset();  // as a server does whose patience with an idle connection ended just then
  TlsPeer second(accept());
  tick(0.9);  // a new connection has a new second
  until([&] { return second.handshake(); });
  request(second);
  expect_answered(second);
  second.close();
  TlsPeer third = ask_and_accept();
  expect_answered(third);
  ask();
  request(third);
  third.reset();
  TlsPeer(accept()).reset();
  EXPECT_EQ(heard(), "not connected");
}

TEST_F(KeyVerificationTest, NobodyIsCalledBackAfterTheEnd) {
  ask();
  TlsPeer connecting(accept());
  TlsPeer answering = ask_and_accept();
  answering.send("HTTP/1.1 200 OK\r\n");
  settle();
  verification.reset();
  until([&] { return answering.at_end(); });
  ask_at(url_at(server.port()));
  ask();
  verification.reset();
  tick(1);
  EXPECT_THAT(said, IsEmpty());
}

TEST_F(KeyVerificationTest, CallbackMayFailOrAskAgain) {
  std::vector<std::string> failures;
  loop_.set_failure_handler([&](const std::exception& e) { failures.emplace_back(e.what()); });
  also = [this] {
    if (said.size() == 1) ask();
    if (said.size() == 2) throw std::runtime_error("not this key");
  };
  settings = Settings::from_text("{}", "the source");
  ask();
  until([this] { return said.size() == 2; });
  ask();
  ask();
  settle();
  EXPECT_EQ(said.size(), 4U);
  EXPECT_THAT(failures, ElementsAre("not this key"));
}

}  // namespace
}  // namespace pelorus

#include "skein/client.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <thread>

#include "skein/errors.h"
#include "support/folder.h"
#include "support/skein_stub.h"

namespace {

using namespace std::chrono_literals;
using skein::Client;
using skein::ClientError;
using skein::Endpoint;
using skein::MsgpackWriter;
using support::SkeinStub;
using testing::HasSubstr;
using Kind = ClientError::Kind;

MsgpackWriter metrics(std::string_view lines) {
  MsgpackWriter args;
  args.map(1).text("metrics").text(lines);
  return args;
}

/// The kind and text with which `operation` fails.
std::pair<Kind, std::string> failure_of(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const ClientError& error) {
    return {error.kind(), error.what()};
  }
  ADD_FAILURE() << "nothing failed";
  return {};
}

class OpenClient : public testing::Test {
 protected:
  /// Calls a stub that answers so and returns how that failed.
  std::pair<Kind, std::string> failure_with(SkeinStub::Answer answer) {
    SkeinStub stub(std::move(answer));
    Client client(stub.endpoint(), {5s, 5s, 50ms});
    client.open();
    auto failure = failure_of([&] { client.call("collectd", metrics("x")); });
    still_open = client.is_open();
    return failure;
  }

  bool still_open = false;
};

TEST(Client, ResultOutlivesTheNextCallAndTheClient) {
  SkeinStub stub([](const SkeinStub::Call& call) {
    MsgpackWriter result;
    result.map(1).text("name").text(call.name);
    return SkeinStub::reply(call, skein::Reply(std::move(result)));
  });
  std::vector<skein::Answer> answers;
  {
    Client client(stub.endpoint());
    client.open();
    answers.push_back(client.call("first", metrics("a.b 1 2\n")));
    answers.push_back(client.call("second", metrics("")));
  }
  EXPECT_EQ(answers[0].result().find("name")->text(), "first");
  EXPECT_EQ(answers[1].result().find("name")->text(), "second");
  const auto calls = stub.calls(2);
  EXPECT_EQ(calls[0].args.at("metrics"), "a.b 1 2\n");
  EXPECT_NE(calls[0].msgid, calls[1].msgid);
}

TEST(Client, LargeRequestsGoOutWhole) {
  SkeinStub stub;
  Client client(stub.endpoint());
  client.open();
  const std::string noise = support::noise(4U << 20);  // beyond every socket buffer
  client.call("collectd", metrics(noise));
  EXPECT_EQ(stub.calls(1)[0].args.at("metrics"), noise);
  EXPECT_THROW(client.call("collectd", metrics(std::string(17U << 20, 'x'))), skein::ProtocolError);
}

TEST(Client, ReachesAHostByAddressAndByNameAndASocketByPath) {
  const support::Folder folder;
  SkeinStub at_port;
  SkeinStub at_path([](const auto& call) { return SkeinStub::reply(call); }, folder / "socket");
  const auto port = at_port.endpoint().text().substr(std::string_view("127.0.0.1:").size());
  for (const auto& endpoint :
       {at_port.endpoint(), Endpoint::tcp("localhost", port), at_path.endpoint()}) {
    Client client(endpoint);
    client.open();
    EXPECT_NO_THROW(client.call("collectd", metrics("x"))) << endpoint.text();
  }
}

TEST_F(OpenClient, ErrorOfTheServerLeavesTheConnectionOpen) {
  const auto [kind, text] = failure_with(
      [](const SkeinStub::Call& call) { return SkeinStub::error(call, "no\nsuch request"); });
  EXPECT_EQ(kind, Kind::SERVER);
  EXPECT_EQ(text, "no?such request");
  EXPECT_TRUE(still_open);
}

TEST_F(OpenClient, EveryOtherFailureClosesIt) {
  MsgpackWriter no_reply;
  no_reply.list(2).natural(1).natural(1);
  const struct {
    std::optional<std::string> answer;
    Kind kind;
    const char* text;
  } rows[] = {
      {"", Kind::TIMED_OUT, "took too long"},
      {std::string("\0\0\0", 3), Kind::TIMED_OUT, "took too long"},
      {std::nullopt, Kind::LOST, "closed the connection"},
      {std::string("\0\0\0\0", 4), Kind::LOST, "frame of length 0"},
      {"\xff\xff\xff\xff", Kind::LOST, "are allowed"},
      {std::string("\0\0\0\1", 4) + "\xff", Kind::LOST, "does not decompress"},
      {support::frame("\xc1"), Kind::LOST, "no MessagePack"},
      {support::frame(no_reply.bytes()), Kind::LOST, "no reply"},
  };
  for (const auto& row : rows) {
    const auto [kind, text] = failure_with([&](const auto&) { return row.answer; });
    EXPECT_EQ(kind, row.kind) << text;
    EXPECT_THAT(text, HasSubstr(row.text));
    EXPECT_FALSE(still_open);
  }
}

TEST(Client, SkipsRepliesToOthersAndMayBeReopened) {
  SkeinStub stub([](const SkeinStub::Call& call) {
    if (call.name == "drop") return std::optional<std::string>();
    auto other = call;
    other.msgid += 7;
    return std::optional(SkeinStub::error(other, "not yours") + SkeinStub::reply(call));
  });
  Client client(stub.endpoint());
  client.open();
  EXPECT_NO_THROW(client.call("collectd", metrics("x")));
  EXPECT_EQ(failure_of([&] { client.call("drop", metrics("x")); }).first, Kind::LOST);
  EXPECT_EQ(failure_of([&] { client.call("collectd", metrics("x")); }).first, Kind::LOST);
  client.open();
  EXPECT_NO_THROW(client.call("collectd", metrics("x")));
}

TEST_F(OpenClient, AnotherThreadCancelsForGood) {
  SkeinStub stub([](const auto&) { return ""; });
  Client client(stub.endpoint());
  client.open();
  std::thread canceller([&] {
    stub.calls(1);
    client.cancel();
  });
  EXPECT_EQ(failure_of([&] { client.call("collectd", metrics("x")); }).first, Kind::CANCELLED);
  canceller.join();
  EXPECT_EQ(failure_of([&] { client.open(); }).first, Kind::CANCELLED);
}

}  // namespace

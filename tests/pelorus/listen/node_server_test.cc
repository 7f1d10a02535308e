#include "pelorus/pelorus/listen/node_server.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <optional>

#include "listener_fixture.h"
#include "skein/resources.h"
#include "support/http_server.h"

namespace pelorus {
namespace {

constexpr const char* LINE = "node7.load.load.a 1 1500000000\n";
constexpr const char* RECORD = "load,node=7 a=1i 1500000000000000000\n";

/// A node server and, in the same thread, the web server that it asks.
class NodeServerTest : public ListenerTest {
 protected:
  NodeServerTest() { start({}); }
  void start(const skein::Limits& limits) {
    server_.reset();
    resources_.emplace(loop_, limits);
    server_.emplace(handler_, settings_, loop_, *resources_,
                    fmt::format("http://127.0.0.1:{}/", web_.port()));
  }

  support::SkeinPeer connect() {
    auto peer = support::SkeinPeer::tcp(support::bound_port(server_->socket()));
    run_loop();
    return peer;
  }

  static std::string collectd(const std::string& key, const std::string& metrics = LINE,
                              std::uint32_t msgid = 1) {
    return support::request(msgid, "collectd", {{"key", key}, {"metrics", metrics}});
  }

  /// Takes requests of the daemon until it has been quiet for a while; asked_ holds their keys.
  void listen_to_web_requests() {
    for (int quiet = 0; quiet < 20; ++quiet) {
      run_loop(2);
      for (const auto& request : web_.requests()) {
        asked_.push_back(request.body.substr(std::string_view("key=").size()));
        pending_.push_back(request.peer);
        quiet = 0;
      }
    }
  }

  /// Answers the oldest web request.
  void answer(const std::string& body, int status = 200) {
    listen_to_web_requests();
    ASSERT_FALSE(pending_.empty()) << "nobody asks";
    support::answer(*pending_.front(), fmt::format("HTTP/1.1 {} X\r\nContent-Length: {}\r\n\r\n{}",
                                                   status, body.size(), body));
    pending_.pop_front();
    listen_to_web_requests();
  }
  void accept_key(const std::string& key) { answer(R"({"key": ")" + key + "\"}"); }

  const Statistics& counted() const { return handler_.statistics(); }
  std::int64_t records() const { return counted().records; }

  support::HttpServer web_;
  std::deque<const skein::Socket*> pending_;
  std::vector<std::string> asked_;
  Settings settings_ = settings(socket_path());
  std::optional<skein::Resources> resources_;
  std::optional<NodeServer> server_;
};

TEST_F(NodeServerTest, VerifiedKeyLetsRequestsThroughForAnHour) {
  auto peer = connect();
  peer.send(collectd("ab-cd-ef"));
  accept_key("abcdef");
  EXPECT_EQ(asked_, std::vector<std::string>{"abcdef"});
  EXPECT_EQ(peer.replies(), "1=nil ");
  EXPECT_EQ(queued("bonding"), RECORD);
  EXPECT_EQ(counted().successful_auths, 1);
  const auto expired = log_.texts("debug");
  EXPECT_EQ(std::ranges::count(expired, "Validation error - the key \"abcdef\" is expired."), 1);

  clock_.tick(3600);
  peer.send(collectd("abcdef"));
  listen_to_web_requests();
  EXPECT_EQ(asked_.size(), 2U);
  support::answer(*pending_.front(),
                  "HTTP/1.1 200 X\r\nContent-Length: 17\r\n\r\n{\"key\": \"abcdef\"}");
  until([this] { return counted().successful_auths == 2; });
  pending_.clear();
  clock_.tick(3599.5);
  peer.send(collectd("abcdef"));
  LoopTest::run_loop(20);
  EXPECT_EQ(peer.replies(), "1=nil 1=nil ");
  clock_.tick(0.5);
  peer.send(collectd("abcdef"));
  LoopTest::run_loop(20);
  EXPECT_EQ(peer.replies(), "") << "an hour, and not less";
  accept_key("abcdef");
  EXPECT_EQ(asked_.size(), 3U);
}

TEST_F(NodeServerTest, MoreThan256ConnectionsOfOneKeyAreServedAsStrangersAre) {
  std::deque<support::SkeinPeer> peers;
  const auto authenticated = [this] {
    return std::ranges::count_if(server_->connections(), [this](const auto* connection) {
      return server_->standing(*connection) == skein::Standing::AUTHENTICATED;
    });
  };
  for (int i = 0; i < 257; ++i) {
    peers.push_back(connect());
    peers.back().send(collectd("abcdef"));
    if (i == 0) accept_key("abcdef");
    LoopTest::run_loop(20);
  }
  EXPECT_EQ(records(), 257);
  EXPECT_EQ(authenticated(), 256);
  peers.pop_front();
  peers.front().send(collectd("another"));
  accept_key("another");
  peers.back().send(collectd("abcdef"));
  LoopTest::run_loop(20);
  EXPECT_EQ(authenticated(), 256) << "one has gone, one is there for it";
}

TEST_F(NodeServerTest, KeyOfTheLastRequestIsKnownInEverySpellingAndNoOtherIs) {
  auto peer = connect();
  peer.send(collectd("ab-cdef"));
  accept_key("abcdef");
  std::int64_t good = records();
  std::int64_t refused = 0;
  for (const char* same : {"abcdef", "ab-cdef", "-a-b-c-d-e-f-", "abcdef"}) {
    send(peer, collectd(same));
    EXPECT_EQ(records(), ++good) << same;
  }
  for (const char* other : {"abcde", "abcdefg", "abcdeg", "-abcde", "ab-cdeg", "ab-cdef0"}) {
    peer.send(collectd(other));
    answer("", 404);
    EXPECT_EQ(counted().failed_auths, ++refused) << other;
    send(peer, collectd("abcdef"));
    EXPECT_EQ(records(), ++good) << other;
  }
  EXPECT_EQ(asked_.size(), 7U);
}

TEST_F(NodeServerTest, EveryOtherAnswerDropsTheRequestInSilence) {
  auto peer = connect();
  const std::string content = "Received response with unexpected response content ";
  const std::string no_key = "Received response without \"key\" in response ";
  const std::string trying = " while trying to authenticate to web server";
  const std::string other = "Validation error - no node found for the key ending in cdef.";
  const struct {
    std::string body, warning;
    int status = 200;
  } rows[] = {
      {"", "Received response with unexpected status code 404" + trying + ".", 404},
      {"no", content + "b'no'" + trying + ": no JSON at byte 2."},
      {std::string(1024, 'x') + "abc", content + "b'" + std::string(1024, 'x') +
                                           "' (3 bytes left out)" + trying +
                                           ": no JSON at byte 1."},
      {R"(ab%63-\u0064ef)",
       content + "(14 bytes that repeat the key)" + trying + ": no JSON at byte 1."},
      {"Token token",
       content + "(11 bytes that repeat the token)" + trying + ": no JSON at byte 1."},
      {R"({"key": 1e999, "abc-def": 0})",
       content + "(28 bytes that repeat the key)" + trying + ": a number is out of range."},
      {R"({"kex": "ab-cd-ef"})", no_key + "(19 bytes that repeat the key)" + trying + "."},
      {R"({"a": 1})", no_key + "b'{\"a\": 1}'" + trying + "."},
      {R"({"key": "other"})", other},
      {R"({"key": "abcdef", "key": 7})", other},
  };
  std::int64_t failed = 0;
  for (const auto& row : rows) {
    log_.clear();
    peer.send(collectd("abcdef"));
    answer(row.body, row.status);
    EXPECT_EQ(peer.replies(), "1=nil ");
    EXPECT_EQ(log_.texts("warning"), std::vector<std::string>{row.warning});
    EXPECT_EQ(counted().failed_auths, ++failed);
  }
  EXPECT_EQ(queued("bonding"), "");
}

TEST_F(NodeServerTest, AnswerThatIsNoObjectAndBadKeysAreFailuresOfTheRequest) {
  auto peer = connect();
  peer.send(collectd("abcdef"));
  answer("[1]");
  EXPECT_EQ(peer.replies(), "1!the request failed for a reason that the server's log tells ");
  EXPECT_TRUE(
      logged("error", "Exception in NodeServer: the web server's JSON answer is no object"));
  peer.send(collectd(std::string(1025, 'k')));
  skein::MsgpackWriter number;
  number.list(4).natural(0).natural(2).text("collectd").map(2).text("key").natural(7);
  peer.send(support::frame(number.text("metrics").text(LINE)));
  send(peer, support::request(3, "add", {{"key", "abcdef"}}));
  EXPECT_EQ(peer.replies(),
            "1!argument 'key' has 1025 bytes, 1024 are allowed "
            "2!argument 'key' of request 'collectd' is no text "
            "3!request 'add' lacks the argument 'database' ");
  EXPECT_EQ(counted().failed_auths + counted().successful_auths, 0);
  EXPECT_EQ(asked_.size(), 1U);
}

TEST_F(NodeServerTest, OneAnswerServesAllThatWaitForTheSameGoodKey) {
  std::vector<support::SkeinPeer> peers;
  for (int i = 0; i < 50; ++i) {
    peers.push_back(connect());
    peers.back().send(collectd("good") + collectd("good", LINE, 2));
  }
  accept_key("good");
  for (auto& peer : peers) EXPECT_EQ(peer.replies(), "1=nil 2=nil ");
  EXPECT_EQ(asked_.size(), 1U);
  EXPECT_EQ(counted().successful_auths, 1);
  EXPECT_EQ(records(), 100);
  const auto debug = log_.texts("debug");
  EXPECT_EQ(std::ranges::count(debug, "Validation error - the key \"good\" is expired."), 1);
}

TEST_F(NodeServerTest, EachThatWaitsForABadKeyAsksForItselfOneAfterAnother) {
  std::vector<support::SkeinPeer> peers;
  for (int i = 0; i < 3; ++i) {
    peers.push_back(connect());
    peers.back().send(collectd("bad") + collectd("bad", LINE, 2));
  }
  for (std::size_t i = 1; i <= 6; ++i) {
    answer(R"({"key": ""})");
    EXPECT_EQ(asked_.size(), std::min<std::size_t>(i + 1, 6));
    EXPECT_LE(pending_.size(), 1U);
  }
  for (auto& peer : peers) EXPECT_EQ(peer.replies(), "1=nil 2=nil ");
  EXPECT_EQ(counted().failed_auths, 6);
  EXPECT_EQ(records(), 0);
}

TEST_F(NodeServerTest, KnownKeysAreAskedAboutFirstAndThoseWhosePeersHaveGoneLast) {
  auto known = connect();
  known.send(collectd("known"));
  accept_key("known");
  clock_.tick(3600);
  std::vector<support::SkeinPeer> peers;
  for (int i = 0; i < 8; ++i) {
    peers.push_back(connect());
    peers.back().send(collectd(fmt::format("busy{}", i)));
  }
  listen_to_web_requests();
  asked_.clear();
  std::optional<support::SkeinPeer> leaves = connect();
  leaves->send(collectd("leaves"));
  run_loop();
  auto stays = connect();
  send(stays, collectd("stays"));
  send(known, collectd("known"));
  leaves.reset();
  for (int i = 0; i < 3; ++i) answer("", 404);
  EXPECT_EQ(asked_, (std::vector<std::string>{"known", "stays", "leaves"}));
}

TEST_F(NodeServerTest, LongKeyCountsAsHeldBytes) {
  auto peer = connect();
  send(peer, collectd(std::string(1024, 'k')));
  EXPECT_GT(resources_->admission.held_bytes(), 2048U);
}

TEST_F(NodeServerTest, PendingRequestKeepsItsOrderAndHoldsUpNobodyElse) {
  auto peer = connect();
  peer.send(collectd("known"));
  accept_key("known");
  auto slow = connect();
  slow.send(collectd("slow", "node7.load.load.b 2 1500000000\nnode7.load.lo"));
  slow.send(support::request(
      2, "add", {{"key", "slow"}, {"database", "bonding"}, {"data", "x v=1 1\ny v=1 1"}}));
  slow.send(collectd("slow", "ad.c 3 1500000000\n", 3));
  listen_to_web_requests();
  send(peer, collectd("known"));
  EXPECT_EQ(peer.replies(), "1=nil 1=nil ");
  queued("bonding");
  const auto before = records();
  accept_key("slow");
  EXPECT_EQ(slow.replies(), "1=nil 2=nil 3=nil ");
  EXPECT_EQ(queued("bonding"),
            "load,node=7 b=2i 1500000000000000000\n\nx v=1 1\ny v=1 1\n"
            "load,node=7 c=3i 1500000000000000000\n");
  EXPECT_EQ(records() - before, 3) << "the line without an end is not counted";
}

TEST_F(NodeServerTest, RequestsOfAPeerThatHasGoneAreCountedAndForwarded) {
  {
    auto peer = connect();
    for (std::uint32_t i = 1; i <= 5; ++i) peer.send(collectd("left", LINE, i));
    listen_to_web_requests();
  }
  accept_key("left");
  EXPECT_EQ(records(), 5);
  EXPECT_EQ(counted().successful_auths, 1);
  EXPECT_EQ(server_->connection_count(), 0U);
}

TEST_F(NodeServerTest, PendingOperationThatFailsIsAFailureOfItsRequest) {
  auto peer = connect();
  peer.send(support::request(1, "add", {{"key", "k"}, {"database", "other"}, {"data", "x\n"}}));
  accept_key("k");
  EXPECT_EQ(peer.replies(), "1!no database 'other' is configured ");
  EXPECT_EQ(counted().successful_auths, 1);
  EXPECT_TRUE(logged("error", "Exception in NodeServer: no database 'other' is configured"));
}

TEST_F(NodeServerTest, SubmitWaitsWithItsPointsAndManyAreTakenInTurns) {
  constexpr std::size_t POINTS = 5000;
  auto peer = connect();
  peer.send(submit("k", 1));
  accept_key("k");
  EXPECT_EQ(queued("bonding"), "tunnel_state,node=1,tunnel=2 state=\"up\" 1500000000000000000\n");

  auto other = connect();
  peer.send(submit("k", POINTS) + collectd("k", LINE, 2));
  other.send(collectd("k", LINE, 3));
  for (int i = 0; records() == 1 && i < 100; ++i) run_loop(1);
  EXPECT_LT(records(), POINTS) << "in one iteration";
  run_loop(10);
  EXPECT_EQ(records(), 1 + POINTS + 2);
  EXPECT_EQ(peer.replies() + other.replies(), "1=nil 1=nil 2=nil 3=nil ");

  peer.send(submit("k", POINTS, 1));
  run_loop(10);
  EXPECT_EQ(peer.replies(), "1=nil ");
  EXPECT_EQ(records(), 1 + POINTS + 2 + POINTS) << "what stands before the fault stays";
  EXPECT_TRUE(
      logged("warning", "Could not translate \"b'node1.tunnel-2.state'\": No match for series"));
}

TEST_F(NodeServerTest, PendingRequestsBeyondTheLimitAreEvictedFirstThoseOfPeersThatHaveGone) {
  start({.held_bytes = 20'000});
  auto first = connect();
  auto second = connect();
  auto third = connect();
  send(first, collectd("bad", std::string(8000, 'x') + "\n"));
  {
    auto gone = connect();
    send(gone, collectd("bad", std::string(6000, 'x') + "\n"));
  }
  send(second, collectd("bad", std::string(7000, 'x') + "\n"));
  EXPECT_TRUE(log_.texts("warning").back().starts_with("Dropping a request whose peer has gone"));
  EXPECT_EQ(resources_->counters.refused_requests, 1U);
  send(third, collectd("other", std::string(7000, 'x') + "\n"));
  EXPECT_EQ(first.replies(), "end") << "the largest, though it is being asked about";
  for (int i = 0; i < 3; ++i) answer(R"({"key": ""})");
  EXPECT_EQ(second.replies() + third.replies(), "1=nil 1=nil ");
}

TEST_F(NodeServerTest, GoneRequestsOfAnExpiredKeyMakeRoomToo) {
  start({.held_bytes = 20'000});
  auto known = connect();
  send(known, collectd("k"));
  accept_key("k");
  clock_.tick(3600);
  {
    auto gone = connect();
    send(gone, collectd("k", std::string(9000, 'x') + "\n"));
  }
  auto there = connect();
  send(there, collectd("other", std::string(12'000, 'x') + "\n"));
  EXPECT_TRUE(log_.texts("warning").back().starts_with("Dropping a request whose peer has gone"));
  EXPECT_EQ(there.replies(), "");
}

TEST_F(NodeServerTest, OfAnUnconfirmedKeyTheNewestRequestsWait) {
  std::vector<support::SkeinPeer> peers;
  const auto ask = [&] {
    peers.push_back(connect());
    send(peers.back(), collectd("bad"));
  };
  for (std::size_t i = 0; i < MAX_UNCONFIRMED_REQUESTS; ++i) ask();
  peers[7].reset();
  run_loop();
  ask();
  ask();
  for (std::size_t i = 0; i < peers.size(); ++i) {
    if (i == 7) continue;  // refused first: nobody is there
    EXPECT_EQ(peers[i].replies(),
              i == 1 ? "1!more than 64 requests wait for the verification of this key " : "");
  }
  auto other = connect();
  other.send(collectd("other"));
  answer(R"({"key": ""})");
  answer(R"({"key": "other"})");
  EXPECT_EQ(peers[0].replies() + other.replies(), "1=nil 1=nil ");
}

TEST_F(NodeServerTest, LongSubmitWaitsUntilItsBufferHasRoomButNotForEver) {
  buffer_settings_.max_pending_messages = 4000;
  auto peer = connect();
  peer.send(submit("k", 1));
  accept_key("k");
  peer.send(submit("k", 5000));
  run_loop(20);
  EXPECT_EQ(database("bonding").pending_data_len(), 2000U) << "half is left to others";
  auto other = connect();
  send(other, collectd("k"));
  EXPECT_EQ(peer.replies() + other.replies(), "1=nil ") << "the key's next request waits behind it";
  queued("bonding");
  for (int i = 0; i < 100; ++i) run_loop();
  EXPECT_EQ(database("bonding").pending_data_len(), 2000U);
  clock_.tick(30);
  run_loop(30);
  EXPECT_EQ(peer.replies() + other.replies(), "1=nil 1=nil ");
  EXPECT_EQ(database("bonding").counters().discarded.messages, 0U);
}

TEST_F(NodeServerTest, AdmittedRequestThatIsEvictedLeavesItsKeyUsable) {
  start({.held_bytes = 20'000});
  auto first = connect();
  first.send(collectd("k"));
  accept_key("k");
  first.send(submit("k", 5000));
  run_loop(10);
  EXPECT_EQ(first.replies(), "1=nil end") << "beyond twice the budget";
  auto second = connect();
  send(second, collectd("k"));
  EXPECT_EQ(second.replies(), "1=nil ");
}

TEST_F(NodeServerTest, ConnectionsAreLoggedOnceAsTheyComeAndGo) {
  {
    auto peer = connect();
    send(peer, std::string(4, '\0'));
  }
  run_loop();
  const auto lines = log_.texts("info");
  ASSERT_EQ(lines.size(), 3U);
  const std::string address = lines[1].substr(lines[1].rfind("127.0.0.1"));
  EXPECT_EQ(lines[1], "Accepted skein connection from " + address);
  EXPECT_EQ(lines[2], "Disconnecting skein connection from " + address);
  EXPECT_EQ(log_.texts("warning"), std::vector<std::string>{"Closing the connection of " +
                                                            address.substr(0, address.size() - 1) +
                                                            ": frame of length 0."});
  server_->stop();
  EXPECT_TRUE(logged("info", "Skein socket closed."));
}

}  // namespace
}  // namespace pelorus

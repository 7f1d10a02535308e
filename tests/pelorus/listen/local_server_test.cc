#include "pelorus/pelorus/listen/local_server.h"

#include <sys/stat.h>

#include <fstream>
#include <optional>

#include "listener_fixture.h"
#include "skein/errors.h"

namespace pelorus {
namespace {

constexpr const char* LINE = "m000.load.load.a 1 1500000000\n";
constexpr const char* RECORD = "load a=1i 1500000000000000000\n";

class LocalServerTest : public ListenerTest {
 protected:
  support::SkeinPeer connect() {
    auto peer = support::SkeinPeer::unix_socket(socket_path());
    turns();
    return peer;
  }
  std::string ask(support::SkeinPeer& peer, const std::string& request) {
    peer.send(request);
    turns();
    return peer.replies();
  }
  std::string collectd(support::SkeinPeer& peer, const std::string& metrics) {
    return ask(peer, support::request(1, "collectd", {{"metrics", metrics}}));
  }

  Settings settings_ = settings(socket_path());
};

TEST_F(LocalServerTest, SocketIsItsOwnersAloneAndReplacesWhatLiesThere) {
  std::ofstream(socket_path()) << "stale";
  LocalServer server(handler_, settings_, loop_);
  struct stat status {};
  ASSERT_EQ(::stat(socket_path().c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
  EXPECT_TRUE(logged("info", "Started local socket at " + socket_path() + "."));
  server.stop();
  EXPECT_FALSE(std::filesystem::exists(socket_path()));
}

TEST_F(LocalServerTest, WhatCannotBeReplacedKeepsItFromStarting) {
  std::filesystem::create_directory(socket_path());
  EXPECT_THROW(LocalServer(handler_, settings_, loop_), skein::SystemFailure);
  const Settings too_long = settings(folder_ / std::string(200, 'x'));
  EXPECT_THROW(LocalServer(handler_, too_long, loop_), skein::SystemFailure);
  const auto target = folder_ / "target";
  std::ofstream(target) << "kept";
  std::filesystem::remove(socket_path());
  std::filesystem::create_symlink(target, socket_path());
  LocalServer server(handler_, settings_, loop_);
  EXPECT_TRUE(std::filesystem::exists(target)) << "the link goes, not what it points to";
}

TEST_F(LocalServerTest, LinesMayBeCutBetweenRequestsOfOneConnection) {
  LocalServer server(handler_, settings_, loop_);
  auto peer = connect();
  auto other = connect();
  EXPECT_EQ(collectd(peer, std::string(LINE) + "m000.load.lo"), "1=nil ");
  EXPECT_EQ(queued("tidewell"), RECORD);
  EXPECT_EQ(collectd(other, LINE), "1=nil ");
  EXPECT_EQ(queued("tidewell"), RECORD);
  EXPECT_EQ(collectd(peer, "ad.a 1 1500000000\n"), "1=nil ");
  EXPECT_EQ(queued("tidewell"), RECORD);
  EXPECT_EQ(collectd(peer, "no end"), "1=nil ");
  EXPECT_EQ(handler_.databases()[0]->pending_data_len(), 1U) << "an empty message";
}

TEST_F(LocalServerTest, BadRequestsAreAnsweredAndLogged) {
  LocalServer server(handler_, settings_, loop_);
  auto peer = connect();
  EXPECT_EQ(collectd(peer, ""), "1!argument 'metrics' of request 'collectd' is empty ");
  EXPECT_EQ(ask(peer, support::request(2, "collectd")),
            "2!request 'collectd' lacks the argument 'metrics' ");
  EXPECT_EQ(ask(peer, support::request(3, "fail")), "3!Intentionally failing for testing. ");
  EXPECT_EQ(handler_.databases()[0]->pending_data_len(), 0U);
  EXPECT_TRUE(logged("error", "Exception in LocalServer: Intentionally failing for testing."));
  EXPECT_EQ(ask(peer, std::string(4, '\0')), "end");
  EXPECT_EQ(log_.texts("warning").size(), 1U);
}

TEST_F(LocalServerTest, StatsShowEveryBuffer) {
  LocalServer server(handler_, settings_, loop_);
  auto peer = connect();
  EXPECT_TRUE(logged("info", "Accepted local skein connection."));
  handler_.add("bonding", "x", 1);
  EXPECT_EQ(ask(peer, support::request(7, "stats")), "7=map ");
  skein::MsgpackWriter expected;
  expected.list(4).natural(1).natural(7).nil().map(2);
  for (const auto& database : handler_.databases()) {
    expected.text(database->name()).map(4).text("has_current_request").boolean(false);
    expected.text("pending_data_len").natural(database->name() == "bonding" ? 1 : 0);
    expected.text("failure_count").integer(0);
    expected.text("last_sent_time").real(1'700'000'000.0);
  }
  EXPECT_EQ(peer.last_reply(), expected.bytes());
}

}  // namespace
}  // namespace pelorus

#include "pelorus/pelorus/listen/local_server.h"

#include <fstream>

#include "listener_fixture.h"
#include "skein/errors.h"

namespace pelorus {
namespace {

class LocalServerTest : public ListenerTest {
 protected:
  Settings settings_ = settings(socket_path());
};

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

TEST_F(LocalServerTest, StopRemovesTheSocketFile) {
  LocalServer server(handler_, settings_, loop_);
  EXPECT_TRUE(std::filesystem::is_socket(socket_path()));
  server.stop();
  EXPECT_FALSE(std::filesystem::exists(socket_path()));
}

TEST_F(LocalServerTest, BlockWithoutAWholeLineIsAnEmptyMessage) {
  LocalServer server(handler_, settings_, loop_);
  auto peer = support::SkeinPeer::unix_socket(socket_path());
  peer.send(support::request(1, "collectd", {{"metrics", "no end"}}));
  turns();
  EXPECT_EQ(peer.replies(), "1=nil ");
  EXPECT_EQ(handler_.databases()[0]->pending_data_len(), 1U);
}

}  // namespace
}  // namespace pelorus

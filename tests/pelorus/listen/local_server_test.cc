#include "pelorus/pelorus/listen/local_server.h"

#include <unistd.h>

#include "listener_fixture.h"
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

TEST_F(LocalServerTest, BlockWithoutAWholeLineIsAnEmptyMessage) {
  LocalServer server(handler_, settings_, loop_, resources_);
  auto peer = support::SkeinPeer::unix_socket(socket_path());
  peer.send(support::request(1, "collectd", {{"metrics", "no end"}}));
  turns();
  EXPECT_EQ(peer.replies(), "1=nil ");
  EXPECT_EQ(handler_.databases()[0]->pending_data_len(), 1U);
}

}  // namespace
}  // namespace pelorus

#include "pelorus/pelorus/systemd_notify.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/un.h>

#include <array>
#include <cstddef>

#include "skein/socket.h"
#include "support/log_capture.h"
#include "surroundings.h"

namespace pelorus {
namespace {

using testing::ElementsAre, testing::EndsWith, testing::IsEmpty;

/// A service manager that listens under a filesystem path or, with '@', an abstract name.
class Manager {
 public:
  explicit Manager(const std::string& name) : socket_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(socket_.descriptor(), reinterpret_cast<sockaddr*>(&address), length), 0);
  }

  std::string received() {
    std::array<char, 64> datagram{};
    const auto size = recv(socket_.descriptor(), datagram.data(), datagram.size(), MSG_DONTWAIT);
    return size < 0 ? "nothing" : std::string(datagram.data(), static_cast<std::size_t>(size));
  }

 private:
  skein::Socket socket_;
};

/// Sends to `name` and returns what was logged.
std::vector<std::string> warnings_about(const std::optional<std::string>& name) {
  const support::LogCapture log;
  const support::Variable variable("NOTIFY_SOCKET", name);
  systemd_notify("READY=1");
  return log.texts("warning");
}

TEST(SystemdNotify, StateIsOneDatagramToThePathOrAbstractName) {
  const support::WorkingFolder folder;
  for (const std::string& name :
       {(folder.path() / "notify").string(), fmt::format("@pelorus-test-{}", getpid())}) {
    Manager manager(name);
    EXPECT_THAT(warnings_about(name), IsEmpty());
    EXPECT_EQ(manager.received(), "READY=1") << name;
    EXPECT_EQ(manager.received(), "nothing");
  }
}

TEST(SystemdNotify, FailureToSendIsAWarningAndNoSocketIsNone) {
  EXPECT_THAT(warnings_about(std::nullopt), IsEmpty());
  EXPECT_THAT(warnings_about(""), IsEmpty());
  EXPECT_THAT(warnings_about("/nowhere/notify"),
              ElementsAre("Cannot notify the service manager at /nowhere/notify of READY=1: "
                          "No such file or directory"));
  EXPECT_THAT(warnings_about("/" + std::string(sizeof(sockaddr_un::sun_path), 'x')),
              ElementsAre(EndsWith("File name too long")));
  EXPECT_THAT(warnings_about("vsock:2:1234"), ElementsAre(EndsWith("not supported by protocol")));
}

}  // namespace
}  // namespace pelorus

#include "pelorus/pelorus/systemd_notify.h"

#include <gmock/gmock.h>
#include <sys/un.h>

#include "support/log_capture.h"
#include "surroundings.h"

namespace pelorus {
namespace {

using testing::ElementsAre, testing::EndsWith, testing::IsEmpty;

/// Sends to `name` and returns what was logged.
std::vector<std::string> warnings_about(const std::optional<std::string>& name) {
  const support::LogCapture log;
  const support::Variable variable("NOTIFY_SOCKET", name);
  systemd_notify("READY=1");
  return log.texts("warning");
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

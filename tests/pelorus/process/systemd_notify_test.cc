#include "pelorus/pelorus/systemd_notify.h"

#include <gmock/gmock.h>
#include <sys/un.h>

#include "support/log_capture.h"
#include "support/loop_test.h"
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

using ServiceStatusTest = support::LoopTest;

TEST_F(ServiceStatusTest, SignOfLifeComesTwiceInAnIntervalAndAFailureIsSaidOnce) {
  const support::LogCapture log;
  const support::Variable socket("NOTIFY_SOCKET", "/nowhere/notify");
  const support::Variable interval("WATCHDOG_USEC", "30000000");
  int signs = 0;
  const auto describe = [&signs] { return std::to_string(++signs); };
  const ServiceStatus status(describe, loop_);
  tick(0);
  tick(14.9);
  EXPECT_EQ(signs, 1);
  tick(0.1);
  EXPECT_EQ(signs, 2);
  EXPECT_THAT(log.texts("warning"), ElementsAre(EndsWith("status: No such file or directory")));
  const support::Variable another("WATCHDOG_PID", "1");  // the interval is not ours then
  const ServiceStatus unwatched(describe, loop_);
  tick(0);
  signs = 0;
  tick(9.9);
  EXPECT_EQ(signs, 0);
}

}  // namespace
}  // namespace pelorus

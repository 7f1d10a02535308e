#include "pelorus/pelorus/systemd_notify.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/log.h"
#include "skein/socket.h"

namespace pelorus {
namespace {

/// Returns 0 or the error number.
int send_datagram(std::string_view name, std::string_view state) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name[0] != '/' && name[0] != '@') return EAFNOSUPPORT;
  if (name.size() >= sizeof(address.sun_path)) return ENAMETOOLONG;
  std::copy(name.begin(), name.end(), address.sun_path);
  if (name[0] == '@') address.sun_path[0] = '\0';  // the kernel's mark of an abstract name
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());

  const skein::Socket socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  const auto sent =
      ::sendto(socket.descriptor(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address), length);
  return sent < 0 ? errno : 0;
}

/// Sends a state to the socket that NOTIFY_SOCKET names. Returns 0 or the error number.
int notify(std::string_view state) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  return name == nullptr || *name == '\0' ? 0 : send_datagram(name, state);
}

/// The number in an environment variable; none if it is unset, empty or no number above 0.
std::optional<std::int64_t> number_of(const char* variable) {
  const char* value = std::getenv(variable);
  const std::string_view text = value != nullptr ? value : "";
  if (text.empty()) return std::nullopt;
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size() && number > 0) return number;
  log::warning("{} \"{}\" is not a number above 0: it is not heeded", variable, text);
  return std::nullopt;
}

/// The interval of the watchdog; none without one, or if it watches another process (WATCHDOG_PID).
std::optional<std::chrono::microseconds> watchdog_interval() {
  const auto process = number_of("WATCHDOG_PID");
  if (process && *process != ::getpid()) return std::nullopt;
  const auto interval = number_of("WATCHDOG_USEC");
  if (!interval) return std::nullopt;
  return std::chrono::microseconds(*interval);
}

}  // namespace

void systemd_notify(std::string_view state) {
  if (const int error = notify(state)) {
    log::warning("Cannot notify the service manager at {} of {}: {}", std::getenv("NOTIFY_SOCKET"),
                 state, std::generic_category().message(error));
  }
}

ServiceStatus::ServiceStatus(Describe describe, skein::Loop& loop)
    : describe_(std::move(describe)), loop_(loop), watchdog_(watchdog_interval()) {
  if (std::getenv("NOTIFY_SOCKET") != nullptr) timer_ = loop_.call_in(0, [this] { report(); });
}

void ServiceStatus::report() {
  timer_ = watchdog_ ? loop_.call_in(*watchdog_ / 2, [this] { report(); })
                     : loop_.call_in(STATS_INTERVAL, [this] { report(); });
  const int error =
      notify(fmt::format("{}STATUS={}", watchdog_ ? "WATCHDOG=1\n" : "", describe_()));
  if (error != 0 && !failed_) {
    log::warning("Cannot tell the service manager the status: {}",
                 std::generic_category().message(error));
  }
  failed_ = error != 0;
}

}  // namespace pelorus

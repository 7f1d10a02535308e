#include "pelorus/pelorus/systemd_notify.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <system_error>

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

}  // namespace

void systemd_notify(std::string_view state) {
  if (const int error = systemd_notify_quietly(state)) {
    log::warning("Cannot notify the service manager at {} of {}: {}", std::getenv("NOTIFY_SOCKET"),
                 state, std::generic_category().message(error));
  }
}

int systemd_notify_quietly(std::string_view state) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  return name == nullptr || *name == '\0' ? 0 : send_datagram(name, state);
}

}  // namespace pelorus

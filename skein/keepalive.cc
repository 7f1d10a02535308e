#include "skein/keepalive.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

#include "skein/errors.h"

namespace skein {
namespace {

void set(int descriptor, int level, int option, int value, const char* name) {
  if (::setsockopt(descriptor, level, option, &value, sizeof value) != 0) {
    throw SystemFailure(std::string("setsockopt ") + name, errno);
  }
}

}  // namespace

void Keepalive::apply(int descriptor) const {
  set(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE");
  set(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, idle, "TCP_KEEPIDLE");
  set(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, interval, "TCP_KEEPINTVL");
  set(descriptor, IPPROTO_TCP, TCP_KEEPCNT, count, "TCP_KEEPCNT");
}

}  // namespace skein

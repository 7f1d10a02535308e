#include "skein/socket.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "skein/errors.h"

namespace skein {
namespace {

void set(int descriptor, int level, int option, int value, const char* name) {
  if (::setsockopt(descriptor, level, option, &value, sizeof value) != 0) {
    throw SystemFailure(std::string("setsockopt ") + name, errno);
  }
}

}  // namespace

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = std::exchange(other.descriptor_, -1);
  }
  return *this;
}

Socket::~Socket() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

Socket Socket::stream(int family) {
  Socket made(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!made) throw SystemFailure("socket", errno);
  return made;
}

std::string Address::host() const {
  return fmt::format("{}.{}.{}.{}", ip >> 24U, ip >> 16U & 0xFFU, ip >> 8U & 0xFFU, ip & 0xFFU);
}

Address peer_address(int descriptor) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw SystemFailure("getpeername", errno);
  }
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

std::optional<sockaddr_un> unix_address(std::string_view path) {
  if (path.empty() || path.size() > MAX_UNIX_PATH_BYTES || path.find('\0') != path.npos) {
    return std::nullopt;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  return address;
}

void bind_unix(const Socket& socket, const std::string& path) {
  const auto address = unix_address(path);
  if (!address) {
    throw SystemFailure(fmt::format("bind to the {}-byte path '{}' (1 to {} bytes are possible)",
                                    path.size(), path, MAX_UNIX_PATH_BYTES),
                        ENAMETOOLONG);
  }
  if (::bind(socket.descriptor(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) !=
      0) {
    throw SystemFailure(fmt::format("bind to '{}'", path), errno);
  }
}

void bind_tcp(const Socket& socket, const std::string& host, std::int64_t port) {
  if (port < 0 || port > 65535) {
    throw SystemFailure(fmt::format("bind to {}:{}", host, port), EINVAL);
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const int result = ::getaddrinfo(host.empty() ? nullptr : host.c_str(),
                                   std::to_string(port).c_str(), &hints, &found);
  if (result != 0) {
    throw Failure(fmt::format("bind to {}:{}: {}", host, port, gai_strerror(result)));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, &freeaddrinfo);
  if (::bind(socket.descriptor(), addresses->ai_addr, addresses->ai_addrlen) != 0) {
    throw SystemFailure(fmt::format("bind to {}:{}", host, port), errno);
  }
}

void listen(const Socket& socket, int backlog) {
  if (::listen(socket.descriptor(), backlog) != 0) throw SystemFailure("listen", errno);
}

void Keepalive::apply(int descriptor) const {
  set(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1, "SO_KEEPALIVE");
  set(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, idle, "TCP_KEEPIDLE");
  set(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, interval, "TCP_KEEPINTVL");
  set(descriptor, IPPROTO_TCP, TCP_KEEPCNT, count, "TCP_KEEPCNT");
}

void send_without_delay(int descriptor) noexcept {
  const int on = 1;
  ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace skein

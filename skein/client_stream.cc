#include "skein/client_stream.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "skein/client_error.h"
#include "skein/resolver.h"

namespace skein {
namespace {

using Kind = ClientError::Kind;
using Clock = Waiter::Clock;

/// A unix socket whose backlog is full is tried again after this time; nothing announces room.
constexpr auto BACKLOG_PAUSE = std::chrono::milliseconds(20);
/// Memory grows with what has arrived, not with what a prefix claims.
constexpr std::size_t RECEIVE_BYTES = 64U << 10;

Kind kind_of(int error_number) {
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return Kind::NO_SOCKET;
    case ECONNREFUSED:
      return Kind::REFUSED;
    case EACCES:
    case EPERM:
      return Kind::NOT_PERMITTED;
    case ETIMEDOUT:
      return Kind::TIMED_OUT;
    default:
      return Kind::UNREACHABLE;
  }
}

ClientError cannot_connect(const Endpoint& endpoint, int error_number) {
  return {kind_of(error_number),
          fmt::format("cannot connect to {}: {}", endpoint.text(), std::strerror(error_number))};
}

sockaddr_un unix_address(const Endpoint& endpoint) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& path = endpoint.path();
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw cannot_connect(endpoint, path.empty() ? ENOENT : ENAMETOOLONG);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

Socket connect_unix(const Endpoint& endpoint, const Waiter& waiter, Clock::time_point deadline) {
  const sockaddr_un address = unix_address(endpoint);
  Socket socket = Socket::stream(AF_UNIX);
  while (::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&address),
                   sizeof address) != 0) {
    if (errno == EINTR) continue;
    if (errno != EAGAIN) throw cannot_connect(endpoint, errno);
    if (Clock::now() >= deadline) throw cannot_connect(endpoint, ETIMEDOUT);
    waiter.wait(-1, 0, std::min(Clock::now() + BACKLOG_PAUSE, deadline));
  }
  return socket;
}

/// 0, or the error number of the failed attempt.
int connect_tcp(const Socket& socket, const addrinfo& address, const Waiter& waiter,
                Clock::time_point deadline) {
  if (::connect(socket.descriptor(), address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  if (!waiter.wait(socket.descriptor(), POLLOUT, deadline)) return ETIMEDOUT;
  int outcome = 0;
  socklen_t length = sizeof outcome;
  if (::getsockopt(socket.descriptor(), SOL_SOCKET, SO_ERROR, &outcome, &length) != 0) return errno;
  return outcome;
}

Socket connect_first(const Endpoint& endpoint, const Waiter& waiter, Clock::time_point deadline) {
  const Addresses addresses = resolve(endpoint, waiter, deadline);
  int left = 0;
  for (const addrinfo* at = addresses.get(); at != nullptr; at = at->ai_next) ++left;
  int error_number = EHOSTUNREACH;
  for (const addrinfo* at = addresses.get(); at != nullptr; at = at->ai_next, --left) {
    const auto share = (deadline - Clock::now()) / left;
    Socket socket = Socket::stream(at->ai_family);
    error_number = connect_tcp(socket, *at, waiter, Clock::now() + share);
    if (error_number != 0) continue;
    send_without_delay(socket.descriptor());
    return socket;
  }
  throw cannot_connect(endpoint, error_number);
}

ClientError lost(const std::string& peer, int error_number) {
  return {Kind::LOST,
          fmt::format("lost the connection to {}: {}", peer, std::strerror(error_number))};
}

}  // namespace

ClientStream::ClientStream(const Endpoint& endpoint, const Waiter& waiter,
                           Clock::time_point deadline)
    : waiter_(waiter),
      peer_(endpoint.text()),
      socket_(endpoint.is_unix() ? connect_unix(endpoint, waiter, deadline)
                                 : connect_first(endpoint, waiter, deadline)) {}

void ClientStream::wait(short events, Clock::time_point deadline, std::string_view action) const {
  if (waiter_.wait(socket_.descriptor(), events, deadline)) return;
  throw ClientError(Kind::TIMED_OUT, fmt::format("{} {} took too long", action, peer_));
}

void ClientStream::send(std::string_view bytes, Clock::time_point deadline) {
  while (!bytes.empty()) {
    wait(POLLOUT, deadline, "sending to");
    const ssize_t count = ::send(socket_.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EAGAIN && errno != EINTR) {
      throw lost(peer_, errno);
    }
  }
}

void ClientStream::receive(std::string& bytes, std::size_t count, Clock::time_point deadline) {
  while (count > 0) {
    wait(POLLIN, deadline, "the reply of");
    const std::size_t begin = bytes.size();
    bytes.resize(begin + std::min(count, RECEIVE_BYTES));
    const ssize_t got = ::recv(socket_.descriptor(), bytes.data() + begin, bytes.size() - begin, 0);
    const int error_number = errno;
    bytes.resize(begin + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got > 0) {
      count -= static_cast<std::size_t>(got);
    } else if (got == 0) {
      throw ClientError(Kind::LOST, fmt::format("{} closed the connection", peer_));
    } else if (error_number != EAGAIN && error_number != EINTR) {
      throw lost(peer_, error_number);
    }
  }
}

}  // namespace skein

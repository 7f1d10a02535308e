#include "skein/client_stream.h"

#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>

#include "skein/errors.h"

namespace skein {
namespace {

using std::chrono::milliseconds;
using Kind = ClientError::Kind;
using Clock = Waiter::Clock;
using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/// A unix socket whose backlog is full is tried again after this time: nothing announces room.
constexpr milliseconds BACKLOG_PAUSE{20};
/// Memory grows with what has arrived, not with what a length prefix claims.
constexpr std::size_t RECEIVE_BYTES = 64U << 10;

/// Rounded up: a wait that ends a moment early would only be repeated.
int milliseconds_until(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::clamp(left, milliseconds(0), milliseconds(3'600'000)).count());
}

/// One question to the resolver and its answer.
struct Lookup {
  explicit Lookup(const Endpoint& asked)
      : endpoint(asked), done(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!done) throw SystemFailure("eventfd", errno);
  }

  void run(int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    result = ::getaddrinfo(endpoint.host().c_str(), endpoint.port().c_str(), &hints, &list);
    error_number = errno;
    found.reset(list);
  }

  Endpoint endpoint;
  Socket done;  ///< an eventfd, readable once `finished`
  std::atomic<bool> finished = false;
  int result = 0;
  int error_number = 0;  ///< of result EAI_SYSTEM
  Addresses found{nullptr, &freeaddrinfo};
};

ClientError not_found(const Lookup& lookup) {
  const char* reason = lookup.result == EAI_SYSTEM ? std::strerror(lookup.error_number)
                                                   : gai_strerror(lookup.result);
  return {Kind::UNREACHABLE,
          fmt::format("cannot find the address of {}: {}", lookup.endpoint.text(), reason)};
}

void start(const std::shared_ptr<Lookup>& lookup) {
  try {
    std::thread([lookup] {
      lookup->run(0);
      lookup->finished = true;
      ::eventfd_write(lookup->done.descriptor(), 1);
    }).detach();
  } catch (const std::system_error& error) {
    throw ClientError(Kind::UNREACHABLE,
                      fmt::format("cannot look up {}: {}", lookup->endpoint.text(), error.what()));
  }
}

/// The IPv4 and IPv6 addresses of a host in the order in which they are to be tried. A numeric host
/// never waits. A name is looked up in a thread of its own, because getaddrinfo() takes no
/// deadline; a result that comes too late is freed there.
Addresses resolve(const Endpoint& endpoint, const Waiter& waiter, Clock::time_point deadline) {
  // Shared with the thread of the lookup: the last of the two frees it.
  const auto lookup = std::make_shared<Lookup>(endpoint);
  lookup->run(AI_NUMERICHOST);
  if (lookup->result == EAI_NONAME) {
    start(lookup);
    const bool in_time = waiter.wait(lookup->done.descriptor(), POLLIN, deadline);
    if (!in_time || !lookup->finished) {
      throw ClientError(Kind::TIMED_OUT,
                        fmt::format("looking up {} took too long", endpoint.text()));
    }
  }
  if (lookup->result != 0) throw not_found(*lookup);
  return std::move(lookup->found);
}

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

Socket connect_unix(const Endpoint& endpoint, const Waiter& waiter, Clock::time_point deadline) {
  const auto address = unix_address(endpoint.path());
  if (!address) throw cannot_connect(endpoint, endpoint.path().empty() ? ENOENT : ENAMETOOLONG);
  Socket socket = Socket::stream(AF_UNIX);
  while (::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&*address),
                   sizeof *address) != 0) {
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

std::string Endpoint::text() const {
  if (is_unix()) return path_;
  const bool brackets = host_.find(':') != std::string::npos;
  return (brackets ? "[" + host_ + "]:" : host_ + ":") + port_;
}

Waiter::Waiter() : cancelled_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!cancelled_) throw SystemFailure("eventfd", errno);
}

bool Waiter::wait(int descriptor, short events, Clock::time_point deadline) const {
  std::array<pollfd, 2> watched{{{cancelled_.descriptor(), POLLIN, 0}, {descriptor, events, 0}}};
  for (;;) {
    const int timeout = milliseconds_until(deadline);
    const int ready = ::poll(watched.data(), watched.size(), timeout);
    if (ready < 0 && errno != EINTR) throw SystemFailure("poll", errno);
    if (watched[0].revents != 0) throw ClientError(Kind::CANCELLED, "cancelled");
    if (ready > 0) return true;
    if (ready == 0 && Clock::now() >= deadline) return false;
  }
}

void Waiter::cancel() noexcept { ::eventfd_write(cancelled_.descriptor(), 1); }

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

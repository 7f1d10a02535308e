#pragma once

#include <sys/socket.h>
#include <uv.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "skein/loops.h"

namespace pelorus {

/// One place to connect to.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&storage); }
  /// "127.0.0.1:8086", "[::1]:8086"
  std::string text() const;
};

/// Most addresses of one host that are tried.
constexpr std::size_t MAX_ADDRESSES = 8;

/// The address that a numeric host stands for; empty for a name, which takes a NameLookup.
std::vector<SocketAddress> numeric_address(const std::string& host, std::uint16_t port);

/// Finds the addresses of a host name in libuv's thread pool, so that a slow name server does not
/// hold up the loop. Owned by whoever waits for the outcome; once destroyed it does not call back,
/// even while a thread is still busy with the lookup and cannot be interrupted.
class NameLookup {
 public:
  /// Addresses in the resolver's order, at most MAX_ADDRESSES; when there are none, why.
  using Done = std::function<void(std::vector<SocketAddress> addresses, std::string fault)>;

  /// `done` is called once, on a later turn of the loop. Throws skein::SystemFailure.
  NameLookup(skein::Loop& loop, const std::string& host, std::uint16_t port, Done done);
  NameLookup(const NameLookup&) = delete;
  NameLookup& operator=(const NameLookup&) = delete;
  ~NameLookup();

 private:
  static void on_done(uv_getaddrinfo_t* request, int status, addrinfo* found) noexcept;

  Done done_;
  uv_getaddrinfo_t* request_;  ///< libuv's until on_done, which frees it; none from then on
};

/// Lookups that libuv has not finished, abandoned ones included. While there are any, the process
/// must end by _exit: an orderly exit waits for libuv's threads, however long a lookup hangs.
std::size_t lookups_pending() noexcept;

}  // namespace pelorus

#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace skein {

/// Owns one descriptor; closes it at the end. Move-only.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int descriptor) noexcept : descriptor_(descriptor) {}
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&& other) noexcept;
  ~Socket();

  /// A new non-blocking, close-on-exec stream socket of `family`. Throws SystemFailure.
  static Socket stream(int family);

  int descriptor() const noexcept { return descriptor_; }
  explicit operator bool() const noexcept { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};

/// An IPv4 end point, in 8 bytes: there is one for each connection.
struct Address {
  std::uint32_t ip = 0;  ///< the first byte of the dotted form is the highest
  std::uint16_t port = 0;

  /// The dotted form.
  std::string host() const;
};

/// The far end of a connected TCP socket. Throws SystemFailure (ENOTCONN: the peer has
/// disconnected already).
Address peer_address(int descriptor);

/// Longest path of a unix socket.
constexpr std::size_t MAX_UNIX_PATH_BYTES = sizeof(sockaddr_un::sun_path) - 1;

/// The address of a filesystem path. None if the path is empty, longer than MAX_UNIX_PATH_BYTES or
/// holds a zero byte.
std::optional<sockaddr_un> unix_address(std::string_view path);

/// Binds to a filesystem path. Throws SystemFailure; a path that is too long for a socket address
/// is named as such.
void bind_unix(const Socket& socket, const std::string& path);
/// Binds to a numeric or resolvable IPv4 host ("" means every address). Throws SystemFailure.
void bind_tcp(const Socket& socket, const std::string& host, std::int64_t port);
/// Throws SystemFailure.
void listen(const Socket& socket, int backlog);

/// TCP keep-alive of accepted connections, mapped onto SO_KEEPALIVE, TCP_KEEPCNT, TCP_KEEPIDLE and
/// TCP_KEEPINTVL.
struct Keepalive {
  int count = 0;     ///< unanswered probes before the connection is dropped
  int idle = 0;      ///< seconds of idleness before the first probe
  int interval = 0;  ///< seconds between probes

  /// Throws SystemFailure.
  void apply(int descriptor) const;
};

/// Small replies leave at once instead of waiting for the peer's acknowledgement of the one before,
/// which may take 40 ms. No-op on unix sockets, which never wait.
void send_without_delay(int descriptor) noexcept;

}  // namespace skein

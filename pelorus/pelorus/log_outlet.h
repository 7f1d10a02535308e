#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "skein/socket.h"

namespace pelorus::log {

/// The far end of the log: a descriptor that takes bytes only as far as that blocks nobody.
///
/// Standard error is shared with whoever started the daemon, so its mode is left alone: a socket is
/// told with each write not to wait, and a pipe or terminal is opened once more, without blocking,
/// for the daemon itself. Where that is refused, it is asked before each write whether it has room
/// for one page. Files are written to as they are.
class Outlet {
 public:
  /// The descriptor stays the caller's and open.
  explicit Outlet(int descriptor);

  /// Returns how many of the bytes were taken. Pipes get whole lines in one write where they fit.
  std::size_t put(std::string_view bytes) noexcept;

  /// Whether the last put() stopped because there was no room, rather than by an error.
  bool full() const noexcept { return full_; }
  /// Returns when there may be room again, or after `longest`.
  void wait(std::chrono::milliseconds longest) const noexcept;

 private:
  enum class Kind { FILE, SOCKET, STREAM };

  static Kind kind_of(int descriptor) noexcept;
  /// As write(2).
  ssize_t put_piece(std::string_view bytes) const noexcept;

  int descriptor_;
  Kind kind_;
  skein::Socket own_;  ///< the same pipe or terminal, not blocking; none where that was refused
  bool full_ = false;
};

}  // namespace pelorus::log

#pragma once

#include <chrono>
#include <cstddef>
#include <limits>
#include <list>
#include <string>
#include <string_view>

namespace skein {

class Connection;

/// What waits on a connection: bytes that have come and could not be served yet, and replies that
/// the peer has not taken. An idle connection has none.
struct Buffers {
  /// Somewhat more than the bytes that this object takes itself.
  static constexpr std::size_t OVERHEAD_BYTES = 256;
  static constexpr std::size_t NOWHERE = std::numeric_limits<std::size_t>::max();

  std::string in;
  std::size_t served = 0;  ///< bytes at the front of `in` that have been served
  std::string out;
  std::size_t sent = 0;  ///< bytes at the front of `out` that are out
  /// When a byte came or went last.
  std::chrono::steady_clock::time_point progress;
  std::size_t place = NOWHERE;              ///< in the ProgressWatch
  std::list<Connection*>* queue = nullptr;  ///< of the Backlog, where it stands at `turn`
  std::list<Connection*>::iterator turn;

  std::string_view waiting() const noexcept { return std::string_view(in).substr(served); }
  std::size_t unread() const noexcept { return out.size() - sent; }
  bool is_empty() const noexcept { return in.size() == served && unread() == 0; }
  std::size_t bytes() const noexcept { return in.size() + out.size() + OVERHEAD_BYTES; }

  /// Keeps `bytes` of `expected` that are to come. A half frame gets room for the whole once it is
  /// long, which takes up no memory before it is filled. Growing by doubling, those of many peers
  /// would be copied to a new place in the same turn again and again, and leave their old places
  /// behind; and a peer that has sent less has not earned the room that it claims.
  void keep(std::string_view bytes, std::size_t expected) {
    constexpr std::size_t LONG = 64U << 10;
    if (in.size() + bytes.size() >= LONG) in.reserve(in.size() + expected);
    in.append(bytes);
  }
  /// What has been served goes, at the cost of a copy of the rest.
  void drop_served() {
    if (served == 0) return;
    in = served == in.size() ? std::string() : in.substr(served);
    served = 0;
  }
  /// So does what has been sent, once it is much.
  void drop_sent() {
    constexpr std::size_t MUCH = 256U << 10;
    if (sent < MUCH) return;
    out.erase(0, sent);
    sent = 0;
  }
};

}  // namespace skein

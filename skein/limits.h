#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace skein {

/// Most bytes of one decoded message. Sixteen times the megabyte that a busy node flushes at once.
constexpr std::size_t MAX_CONTENT_BYTES = 16U << 20;

/// Snappy's worst case for content of the largest size: 32 + n + n/6 bytes.
constexpr std::size_t MAX_FRAME_BYTES = 32 + MAX_CONTENT_BYTES + MAX_CONTENT_BYTES / 6;

/// A Snappy element of 3 bytes yields at most 64: no honest block grows by more than some 21.4
/// times, so a larger claim is refused before memory is set aside for it.
constexpr std::size_t MAX_SNAPPY_GROWTH = 22;
constexpr std::size_t MAX_SNAPPY_GROWTH_SLACK = 64;

/// Lists and maps inside each other. A request needs four (args, points, point, value).
constexpr std::size_t MAX_NESTING = 32;

/// Items of all lists plus pairs of all maps of one message.
constexpr std::size_t MAX_ELEMENTS = 1'000'000;

/// Size of the length prefix of a frame.
constexpr std::size_t FRAME_PREFIX_BYTES = 4;

/// What the peers of a process may take up. The defaults are the daemon's; a test makes them small.
struct Limits {
  /// Bytes of half frames, remainders, held requests and unread replies, of all connections. Enough
  /// for 25 KiB of each of 10,000 nodes while the web server is away.
  std::size_t held_bytes = 256U << 20;
  /// Connections of all servers; 0: the limit of descriptors less `spare_descriptors`.
  std::size_t connections = 0;
  /// Descriptors for the outputs, key verification, the log and the listening sockets.
  std::size_t spare_descriptors = 64;
  /// A line whose end has not come: as long as one legal request.
  std::size_t remainder_bytes = MAX_CONTENT_BYTES;
  /// Keys that connections without a valid key may have waiting for verification. Ten times the
  /// nodes of a large installation that starts anew.
  std::size_t waiting_keys = 100'000;
  /// Replies that a peer has not taken. Beyond, it is not read any more.
  std::size_t unread_reply_bytes = 1U << 20;
  /// Without a byte taken, a peer beyond `unread_reply_bytes` is closed.
  std::chrono::seconds unread_reply_wait{60};
  /// Without a byte more, the connection of a half frame is closed: longer than any pause of a
  /// network that TCP bridges.
  std::chrono::seconds half_frame_wait{120};
  /// Of one connection in a turn of the loop: frames, bytes that are read, and content that is
  /// served. One frame with more content, which keeps the loop busy for up to 60 ms, is served per
  /// turn.
  std::size_t requests_per_turn = 16;
  std::size_t bytes_per_turn = 256U << 10;
  /// Content of a connection without a valid key, and of all of them, in a turn of the loop; a
  /// frame counts as 1 KiB at least. A byte may be an element of its own, which costs 16 ns to
  /// decode. A block of collectd's plugin, 64 KiB and what is around it, is no large frame.
  std::size_t newcomer_bytes_per_turn = 128U << 10;
  std::size_t newcomers_bytes_per_turn = 1U << 20;
  /// Of one listening socket in a turn of the loop.
  int accepts_per_turn = 64;
  /// Rest of a listening socket when the system has no descriptors or memory for a connection. It
  /// doubles up to the longest while it stays so.
  std::chrono::milliseconds accept_pause{100};
  std::chrono::milliseconds longest_accept_pause{1000};
  /// Between two log lines about the same shortage.
  std::chrono::seconds shortage_report_interval{10};
};

}  // namespace skein

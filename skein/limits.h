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

/// What the peers of a process may take up together. The defaults are the daemon's; a test makes
/// them small. A peer is authenticated once it has shown who it is, or if it need not.
struct Limits {
  /// Bytes that are held for all peers: half frames, unsent replies and whatever else a server
  /// keeps for them. Enough for 25 KiB of each of 10,000 nodes.
  std::size_t held_bytes = 256U << 20;
  /// Bytes of them for disconnected peers of one origin: two of the largest frames.
  std::size_t disconnected_bytes = 2 * MAX_CONTENT_BYTES;
  /// Bytes that unauthenticated peers may have even if the authenticated take more than
  /// `held_bytes`: the blocks of 500 nodes that connect, 64 KiB each. An eighth of `held_bytes` at
  /// most.
  std::size_t unauthenticated_bytes = 32U << 20;
  /// Connections of all servers; 0: the limit of descriptors less `spare_descriptors`.
  std::size_t connections = 0;
  /// Those of them that are kept for peers that need not show who they are: the operator's. An
  /// eighth of them at most.
  std::size_t reserved_connections = 32;
  /// Descriptors for everything that is no connection of a peer.
  std::size_t spare_descriptors = 64;
  /// Unsent replies of one connection. Beyond, it is not read any more.
  std::size_t unsent_reply_bytes = 1U << 20;
  /// Without a byte sent, a connection beyond `unsent_reply_bytes`, or one whose peer sends no
  /// more, is closed.
  std::chrono::seconds unsent_reply_timeout{60};
  /// Without a byte more, the connection of a half frame is closed: longer than any pause of a
  /// network that TCP bridges.
  std::chrono::seconds half_frame_timeout{120};
  /// Shares of an iteration of the loop, in bytes of decoded content (see ReadyQueue): what one
  /// peer may take before the next one is served, and what all peers of a class may take. A block
  /// of collectd's plugin, 64 KiB and what is around it, fits into one share. A byte may be an
  /// element of its own, which costs 16 ns to decode; a byte of Graphite costs 1.4 ns.
  struct Share {
    std::size_t of_one;
    std::size_t of_all;
  };
  Share authenticated{256U << 10, 2U << 20};
  Share unauthenticated{128U << 10, 1U << 20};
  /// Connections that one listening socket accepts in an iteration of the loop.
  int accepts_per_iteration = 64;
  /// Pause of a listening socket when the system has no descriptors or memory for a connection. It
  /// doubles up to the longest while that lasts.
  std::chrono::milliseconds accept_pause{100};
  std::chrono::milliseconds longest_accept_pause{1000};
  /// Between two log lines about the same shortage.
  std::chrono::seconds shortage_report_interval{10};
};

}  // namespace skein

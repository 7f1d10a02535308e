#pragma once

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

}  // namespace skein

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelorus {

/// Messages and their bytes.
struct Amount {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;

  Amount& operator+=(const Amount& more) noexcept {
    messages += more.messages;
    bytes += more.bytes;
    return *this;
  }
  Amount& operator-=(const Amount& less) noexcept {
    messages -= less.messages;
    bytes -= less.bytes;
    return *this;
  }
};

/// Bytes of those messages with a line feed between each two.
inline std::uint64_t joined_bytes(const Amount& amount) noexcept {
  return amount.bytes + (amount.messages == 0 ? 0 : amount.messages - 1);
}

/// What became of one database's messages since the start. What was added and is in none of these
/// still waits.
struct WriteCounters {
  struct Failure {
    double time = 0;   ///< seconds since the epoch
    std::string text;  ///< "status 400: b'…'", "could not connect to …"; no secret in it
  };

  Amount queued;     ///< waits now
  Amount in_flight;  ///< taken by the present write
  Amount sent;       ///< acknowledged
  Amount failed;     ///< of failed writes; of a partial write, InfluxDB has stored a part of them
  Amount discarded;  ///< dropped because the queue was full
  std::uint64_t largest_body = 0;    ///< bytes of one write's body
  std::uint64_t partial_writes = 0;  ///< answers that named a number of dropped points
  std::uint64_t dropped_points = 0;  ///< those numbers added up
  std::optional<Failure> last_failure;
};

/// The number behind the last "dropped=" of InfluxDB's answer to a write that it took in part;
/// none when there is none.
std::optional<std::uint64_t> dropped_points(std::string_view answer);

}  // namespace pelorus

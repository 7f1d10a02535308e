#pragma once

#include <cstdint>
#include <string>

namespace pelorus {

/// Wide enough for the nanoseconds of every moment that fits 64 bits of seconds.
using Nanoseconds = __int128;

/// A Unix time in seconds as nanoseconds since the epoch: exact for an integer; for a double the
/// product in double precision, truncated toward zero (a quarter of a microsecond off at most,
/// these decades). Throws std::domain_error for a double that is not finite or beyond 128 bits.
Nanoseconds timestamp_to_influx(std::int64_t timestamp);
Nanoseconds timestamp_to_influx(double timestamp);

/// What the daemon counts from one statistics record to the next.
struct Statistics {
  std::int64_t messages = 0;
  std::int64_t records = 0;
  std::int64_t successful_auths = 0;
  std::int64_t failed_auths = 0;
};

constexpr std::int64_t STATISTICS_RECORDS = 4;

/// The daemon's records about itself, each ended by "\n".
std::string statistics_message(const Statistics& statistics, Nanoseconds now);

}  // namespace pelorus

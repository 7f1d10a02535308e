#pragma once

#include <cstdint>
#include <string>

#include "pelorus/pelorus/influx/influx_database.h"

namespace support {

/// The body that a write of the batch sends, as one text.
inline std::string body_of(pelorus::Batch batch) {
  std::string body;
  batch.append_slice(body, SIZE_MAX);
  return body;
}

/// What became of all messages, in one sum.
inline pelorus::Amount accounted(const pelorus::WriteCounters& counters) {
  pelorus::Amount sum;
  for (const auto& amount : {counters.queued, counters.in_flight, counters.sent, counters.partial,
                             counters.failed, counters.discarded}) {
    sum += amount;
  }
  return sum;
}

}  // namespace support

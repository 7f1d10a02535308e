#pragma once

#include <array>
#include <cstdint>

#include "skein/admission.h"
#include "skein/errors.h"
#include "skein/ready_queue.h"

namespace skein {

/// What became of the peers since the start.
struct PeerCounters {
  std::array<std::uint64_t, END_REASONS> ended_connections{};  ///< by EndReason
  std::uint64_t refused_requests = 0;                          ///< failed, or were dropped
};

/// What the servers of a process share, so that no peer gets more of it than its part, whichever
/// server it belongs to. Outlives them.
struct Resources {
  explicit Resources(Loop& loop, const Limits& limits = {})
      : admission(loop, limits), ready_queue(loop, limits) {}

  Admission admission;
  ReadyQueue ready_queue;
  PeerCounters counters;
};

}  // namespace skein

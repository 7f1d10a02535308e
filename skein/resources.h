#pragma once

#include "skein/admission.h"
#include "skein/ready_queue.h"

namespace skein {

/// What the servers of a process share, so that no peer gets more of it than its part, whichever
/// server it belongs to. Outlives them.
struct Resources {
  explicit Resources(Loop& loop, const Limits& limits = {})
      : admission(loop, limits), ready_queue(loop, limits) {}

  Admission admission;
  ReadyQueue ready_queue;
};

}  // namespace skein

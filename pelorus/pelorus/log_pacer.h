#pragma once

#include <uv.h>

#include <chrono>

#include "pelorus/pelorus/stderr_sink.h"
#include "skein/loops.h"

namespace pelorus::log {

/// Writes out the log at the end of each turn of the loop, before the loop waits. While the log's
/// reader takes nothing it is tried again by a timer, the more seldom the longer that lasts.
/// Lives while the loop runs; before and after, each record is written at once.
class Pacer {
 public:
  /// Borrows both. Without a sink there is nothing to do.
  Pacer(StderrSink* sink, skein::Loop& loop);
  Pacer(const Pacer&) = delete;
  Pacer& operator=(const Pacer&) = delete;
  ~Pacer();

 private:
  static constexpr std::chrono::milliseconds SHORTEST_WAIT{2}, LONGEST_WAIT{100};

  void turn_ends();
  void try_again();

  StderrSink* sink_;
  skein::Loop& loop_;
  skein::UvHandle<uv_prepare_t> prepare_;
  skein::Timer timer_;
  bool timer_armed_ = false;
  std::chrono::milliseconds wait_ = SHORTEST_WAIT;
};

}  // namespace pelorus::log

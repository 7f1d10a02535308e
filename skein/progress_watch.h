#pragma once

#include <vector>

#include "skein/loops.h"

namespace skein {

class Connection;

/// Ends connections whose peer has begun something and does not go on with it. Looks at those that
/// have something begun, when the first of them may be due; idle connections cost nothing.
class ProgressWatch {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit ProgressWatch(Loop& loop) : loop_(loop) {}
  ProgressWatch(const ProgressWatch&) = delete;
  ProgressWatch& operator=(const ProgressWatch&) = delete;
  ~ProgressWatch() { timer_.cancel(); }

  /// Watches `connection`, or looks again when it is due if it is watched already.
  void add(Connection& connection);
  void remove(Connection& connection);

 private:
  void wake_at(Time due);
  void look();

  Loop& loop_;
  Timer timer_;
  Time wake_ = Time::max();
  std::vector<Connection*> watched_;
};

}  // namespace skein

#pragma once

#include <list>

#include "skein/loops.h"
#include "skein/next_turn.h"

namespace skein {

class Connection;

/// The connections of a server that have more to be served than their share of one turn of the
/// loop: each gets its share on every turn. Large frames are served here alone, one per turn.
class Backlog {
 public:
  explicit Backlog(Loop& loop) : next_turn_(loop, [this] { run(); }) {}
  Backlog(const Backlog&) = delete;
  Backlog& operator=(const Backlog&) = delete;

  /// Serves `connection` on the next turn. One that waits already keeps its place.
  void add(Connection& connection);
  void remove(Connection& connection);

 private:
  void run();

  NextTurn next_turn_;
  std::list<Connection*> waiting_;
};

}  // namespace skein

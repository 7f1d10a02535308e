#pragma once

#include <cstdint>
#include <list>

#include "skein/limits.h"
#include "skein/loops.h"
#include "skein/next_turn.h"
#include "skein/share.h"

namespace skein {

class Connection;

/// Shares out the turns of the loop among the connections of a server. What a connection has beyond
/// its share waits here, and each that waits gets a share on every turn. Those without a valid key
/// have one part of the turn for all of them, and wait in a queue of their own.
class Backlog {
 public:
  /// Borrows both.
  Backlog(Loop& loop, const Limits& limits);
  Backlog(const Backlog&) = delete;
  Backlog& operator=(const Backlog&) = delete;

  /// What may be served at once of a connection that does not wait here: no large frame, and
  /// nothing while others without a valid key wait before it.
  Share share_at_once(const Connection& connection);

  /// Serves `connection` on the next turn. One that waits already keeps its place.
  void add(Connection& connection);
  void remove(Connection& connection);

 private:
  using Queue = std::list<Connection*>;

  void begin_turn();
  void run();
  void serve(Queue& queue, std::size_t bytes, TurnRest& rest);

  Loop& loop_;
  const Limits& limits_;
  NextTurn next_turn_;
  Queue valid_, newcomers_;
  TurnRest valid_rest_{}, newcomers_rest_{};
  std::uint64_t turn_ = 0;  ///< that the rests are of
};

}  // namespace skein

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
/// its share waits here. Those with a valid key get a share on every turn; the others have one part
/// of a turn for all of them, and get their shares one after the other. Of those with a large frame
/// one of either kind is served per turn.
class Backlog {
 public:
  /// Borrows both.
  Backlog(Loop& loop, const Limits& limits);
  Backlog(const Backlog&) = delete;
  Backlog& operator=(const Backlog&) = delete;

  /// What may be served at once of a connection that does not wait here: no large frame, and
  /// nothing while others without a valid key wait before it.
  Share share_at_once(const Connection& connection);

  /// Serves `connection`, of which a whole frame waits, when its turn comes. One that stands here
  /// already keeps its place.
  void add(Connection& connection);
  void remove(Connection& connection);

 private:
  using Queue = std::list<Connection*>;

  /// The connections of a kind.
  struct Line {
    Queue waiting;
    Queue with_large;      ///< whose next frame is a large one
    std::size_t share;     ///< bytes of content of one of them
    std::size_t per_turn;  ///< and of all, in a turn of the loop
    std::size_t rest = 0;  ///< that is left of this
  };

  Line& line_of(const Connection& connection);
  void begin_turn();
  void run();
  void serve(Line& line);
  void serve_front(Line& line, Queue& queue, bool large);

  Loop& loop_;
  const Limits& limits_;
  NextTurn next_turn_;
  Line valid_;
  Line newcomers_;
  std::uint64_t turn_ = 0;  ///< that the rests are of
};

}  // namespace skein

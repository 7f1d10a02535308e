#include "skein/backlog.h"

#include "skein/connection.h"

namespace skein {

void Backlog::add(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (buffers.queued) return;
  buffers.turn = waiting_.insert(waiting_.end(), &connection);
  buffers.queued = true;
  next_turn_.arm();
}

void Backlog::remove(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (!buffers.queued) return;
  waiting_.erase(buffers.turn);
  buffers.queued = false;
}

void Backlog::run() {
  bool large = true;
  for (std::size_t left = waiting_.size(); left > 0 && !waiting_.empty(); --left) {
    Connection& connection = *waiting_.front();
    remove(connection);
    large = connection.serve_waiting(large);  // may add it again, behind the others
  }
  if (!waiting_.empty()) next_turn_.arm();
}

}  // namespace skein

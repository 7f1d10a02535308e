#include "skein/backlog.h"

#include "skein/connection.h"

namespace skein {

void Backlog::add(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (buffers.queued) return;
  buffers.turn = waiting_.insert(waiting_.end(), &connection);
  buffers.queued = true;
  arm();
}

void Backlog::remove(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (!buffers.queued) return;
  waiting_.erase(buffers.turn);
  buffers.queued = false;
}

void Backlog::arm() {
  if (armed_ || waiting_.empty()) return;
  timer_ = loop_.call_in(0, [this] { run(); });
  armed_ = true;
}

void Backlog::run() {
  armed_ = false;
  bool large = true;
  for (std::size_t left = waiting_.size(); left > 0 && !waiting_.empty(); --left) {
    Connection& connection = *waiting_.front();
    remove(connection);
    large = connection.serve_waiting(large);  // may add it again, behind the others
  }
  arm();
}

}  // namespace skein

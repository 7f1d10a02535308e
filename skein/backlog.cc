#include "skein/backlog.h"

#include <limits>

#include "skein/connection.h"

namespace skein {

Backlog::Backlog(Loop& loop, const Limits& limits)
    : loop_(loop), limits_(limits), next_turn_(loop, [this] { run(); }) {}

Share Backlog::share_at_once(const Connection& connection) {
  begin_turn();
  if (connection.is_valid()) {
    return {limits_.requests_per_turn, limits_.bytes_per_turn, valid_rest_, false};
  }
  const std::size_t requests = newcomers_.empty() ? limits_.requests_per_turn : 0;
  return {requests, limits_.newcomer_bytes_per_turn, newcomers_rest_, false};
}

void Backlog::add(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (buffers.queue != nullptr) return;
  buffers.queue = connection.is_valid() ? &valid_ : &newcomers_;
  buffers.turn = buffers.queue->insert(buffers.queue->end(), &connection);
  next_turn_.arm();
}

void Backlog::remove(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (buffers.queue == nullptr) return;
  buffers.queue->erase(buffers.turn);
  buffers.queue = nullptr;
}

void Backlog::begin_turn() {
  if (turn_ == loop_.turn_number()) return;
  turn_ = loop_.turn_number();
  valid_rest_ = {std::numeric_limits<std::size_t>::max(), true};
  newcomers_rest_ = {limits_.newcomers_bytes_per_turn, true};
}

void Backlog::run() {
  begin_turn();
  serve(valid_, limits_.bytes_per_turn, valid_rest_);
  serve(newcomers_, limits_.newcomer_bytes_per_turn, newcomers_rest_);
  if (!valid_.empty() || !newcomers_.empty()) next_turn_.arm();
}

void Backlog::serve(Queue& queue, std::size_t bytes, TurnRest& rest) {
  for (std::size_t left = queue.size(); left > 0 && !queue.empty(); --left) {
    Connection& connection = *queue.front();
    remove(connection);
    connection.serve_waiting(Share(limits_.requests_per_turn, bytes, rest, true));  // adds it again
  }
}

}  // namespace skein

#include "skein/ready_queue.h"
#include "skein/profile_scope.h"

#include <algorithm>
#include <utility>

namespace skein {
namespace {

std::size_t cost_of(std::size_t bytes) { return std::max(bytes, ReadyQueue::Credit::LEAST_COST); }

}  // namespace

bool ReadyQueue::Credit::spend(std::size_t bytes) noexcept {
  const std::size_t cost = cost_of(bytes);
  if (cost > credit_) return false;
  credit_ -= cost;
  budget_ -= std::min(cost, budget_);
  return true;
}

void ReadyQueue::Credit::charge(std::size_t bytes) noexcept {
  budget_ -= std::min(cost_of(bytes), budget_);
}

ReadyQueue::ReadyQueue(Loop& loop, const Limits& limits)
    : queues_{Queue{limits.authenticated}, Queue{limits.unauthenticated}},
      task_(loop, [this] { run(); }) {}

void ReadyQueue::add(Entry& entry) noexcept {
  if (entry.is_queued()) return;
  entry.queue = entry.is_authenticated() ? 0 : 1;
  queues_[entry.queue].entries.push_back(entry);
  task_.arm();
}

void ReadyQueue::remove(Entry& entry) noexcept {
  if (!entry.is_queued()) return;
  queues_[entry.queue].entries.remove(entry);
  entry.queue = Entry::NO_QUEUE;
  entry.carried = 0;
}

void ReadyQueue::run() noexcept {
  PROFILE_SCOPE();
  for (Queue& queue : queues_) serve(queue);
  for (const Queue& queue : queues_) {
    if (!queue.entries.empty()) task_.arm();
  }
}

void ReadyQueue::serve(Queue& queue) noexcept {
  std::size_t budget = queue.share.of_all;
  while (budget > 0 && !queue.entries.empty()) {
    Entry& entry = queue.entries.front();
    std::size_t credit = entry.carried + queue.share.of_one;
    remove(entry);
    if (!entry.serve({credit, budget})) continue;
    add(entry);
    entry.carried = static_cast<std::uint32_t>(credit);
  }
}

}  // namespace skein

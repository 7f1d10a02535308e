#include "skein/quota.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <limits>

#include "skein/connection.h"

namespace skein {
namespace {

std::size_t descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::numeric_limits<std::size_t>::max();
  return limit.rlim_cur;
}

}  // namespace

Quota::Quota(const Limits& limits) : limits_(limits) {
  if (limits_.connections != 0) return;
  const std::size_t descriptors = descriptor_limit();
  const std::size_t spare = std::min(limits_.spare_descriptors, descriptors / 2);
  limits_.connections = descriptors - spare;
}

void Quota::change(Holder& holder, std::size_t bytes) {
  auto& set = holders(holder);
  auto node = set.extract({holder.bytes_, &holder});
  held_bytes_ += bytes - holder.bytes_;
  holder.bytes_ = bytes;
  if (bytes == 0) return;
  if (node.empty()) {
    set.insert({bytes, &holder});
  } else {
    node.value().first = bytes;
    set.insert(std::move(node));
  }
}

std::string Quota::enforce() {
  while (is_short() && !others_.empty()) close_largest(others_);
  while (held_bytes_ > 2 * limits_.held_bytes && !valid_.empty()) close_largest(valid_);
  if (!is_short()) return {};
  return fmt::format("{} bytes are held for connections with valid keys, {} are allowed",
                     held_bytes_, limits_.held_bytes);
}

void Quota::close_largest(Holders& holders) {
  const auto [bytes, holder] = *holders.rbegin();
  const LimitError reason(
      fmt::format("{} bytes are held for all connections, {} are allowed, and {} for this one",
                  held_bytes_, limits_.held_bytes, bytes));
  hold(*holder, 0);
  holder->give_up(reason);
}

void Quota::admit(Connection& connection) {
  connection.newcomer_ = newcomers_.insert(newcomers_.end(), &connection);
  ++connection_count_;
}

void Quota::make_room(Connection& newest) {
  if (connection_count_ <= limits_.connections) return;
  Holder& gone = newcomers_.empty() ? newest : *newcomers_.front();
  const LimitError reason(fmt::format(
      "{} connections are open, {} are allowed, and this one is the {}", connection_count_,
      limits_.connections, newcomers_.empty() ? "newest" : "oldest without a valid key"));
  gone.give_up(reason);
}

void Quota::set_valid(Connection& connection) {
  Holder& holder = connection;
  const std::size_t bytes = holder.bytes_;
  hold(holder, 0);
  holder.valid_ = true;
  hold(holder, bytes);
  newcomers_.erase(connection.newcomer_);
}

void Quota::dismiss(Connection& connection) {
  hold(connection, 0);
  --connection_count_;
  if (!connection.is_valid()) newcomers_.erase(connection.newcomer_);
}

}  // namespace skein

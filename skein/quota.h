#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <set>
#include <string>
#include <utility>

#include "skein/errors.h"
#include "skein/limits.h"

namespace skein {

class Connection;

/// Somebody for whom bytes are held: a connection, or a request that may outlive it.
class Holder {
 public:
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  /// Whether it belongs to a peer that has shown a valid key, or needs none.
  bool is_valid() const noexcept { return valid_; }
  /// As the quota counts them.
  std::size_t held_bytes() const noexcept { return bytes_; }

 protected:
  explicit Holder(bool valid = false) noexcept : valid_(valid) {}
  ~Holder() = default;

 private:
  friend class Quota;

  /// Lets go of all that is held, and reports why.
  virtual void give_up(const LimitError& reason) = 0;

  std::size_t bytes_ = 0;
  bool valid_;
};

/// What all connections of a process take up together, whichever server they belong to, and who
/// has to go when it is too much. Shared by the servers, which outlive what is counted here.
class Quota {
 public:
  explicit Quota(const Limits& limits = {});

  const Limits& limits() const noexcept { return limits_; }

  /// `bytes` are held for `holder` from now on, 0 when it goes. Costs nothing while that stays.
  void hold(Holder& holder, std::size_t bytes) {
    if (holder.bytes_ != bytes) change(holder, bytes);
  }
  std::size_t held_bytes() const noexcept { return held_bytes_; }
  bool is_short() const noexcept { return held_bytes_ > limits_.held_bytes; }
  /// Closes the largest holders without a valid key until the limit is kept; beyond twice the limit
  /// those with one too. Returns what is to be reported when the limit is not kept even so.
  std::string enforce();

  /// A connection has come, which has shown no valid key yet.
  void admit(Connection& connection);
  /// When there are too many, closes the oldest without a valid key, or `newest` if all have one.
  void make_room(Connection& newest);
  /// It has shown a valid key, or needs none.
  void set_valid(Connection& connection);
  /// It has ended.
  void dismiss(Connection& connection);
  std::size_t connection_count() const noexcept { return connection_count_; }

 private:
  /// Holders by size; those of the same size in no particular order.
  using Holders = std::set<std::pair<std::size_t, Holder*>>;

  Holders& holders(const Holder& holder) { return holder.valid_ ? valid_ : others_; }
  void change(Holder& holder, std::size_t bytes);
  void close_largest(Holders& holders);

  Limits limits_;
  std::size_t held_bytes_ = 0;
  Holders valid_;
  Holders others_;
  std::size_t connection_count_ = 0;
  std::list<Connection*> newcomers_;  ///< without a valid key, the oldest first
};

}  // namespace skein

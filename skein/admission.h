#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "skein/errors.h"
#include "skein/intrusive_list.h"
#include "skein/limits.h"
#include "skein/loops.h"

namespace skein {

/// Protects the process from its peers: how much memory is held for them, how many connections
/// there are, and how long one may go on without progress. It sees accounts, bytes and a class
/// (authenticated or not), and nothing of connections or requests.
///
/// Who has to go when a limit is reached:
///
/// | limit | first | then |
/// |---|---|---|
/// | bytes held | unauthenticated accounts, the largest first | from twice the limit on
/// authenticated ones, the largest first | | connections | the unauthenticated one that came first
/// | the newest | | no progress | the account itself | |
///
/// One for all servers of a process; outlives its accounts. Loop thread only.
class Admission {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Somebody for whom bytes are held: a connection, or something that may outlive it.
  /// release() it before it is destroyed.
  class Account {
   public:
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;
    bool is_authenticated() const noexcept { return authenticated_; }
    /// Bytes that are held for it.
    std::size_t bytes() const noexcept { return bytes_; }

    ListLink<Account> arrival;  ///< of an unauthenticated connection: the admission's own

   protected:
    explicit Account(bool authenticated = false) noexcept : authenticated_(authenticated) {}
    ~Account() = default;

   private:
    friend class Admission;

    /// A limit ends it: it lets go of all that is held, and reports the reason.
    virtual void evict(const LimitError& reason) = 0;
    /// When it must have made progress; max() while nothing is expected of it.
    virtual Time deadline() const { return Time::max(); }
    /// The deadline has passed.
    virtual void time_out() {}

    std::uint32_t bytes_ = 0;
    std::uint32_t watched_until_ = 0;  ///< seconds since the start, as in deadlines_; 0: not there
    bool authenticated_;
  };

  /// Borrows the loop.
  Admission(Loop& loop, const Limits& limits);
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;
  ~Admission() { timer_.cancel(); }

  const Limits& limits() const noexcept { return limits_; }

  /// `bytes` are held for `account` from now on. Costs nothing while that stays the same. Throws
  /// std::bad_alloc, and leaves everything as it is then.
  void hold(Account& account, std::size_t bytes) {
    if (account.bytes_ != bytes) change(account, bytes);
  }
  std::size_t held_bytes() const noexcept { return held_bytes_; }
  bool is_short() const noexcept { return held_bytes_ > limits_.held_bytes; }
  /// Evicts accounts until the limit is kept. Returns what is to be reported if it is not kept even
  /// so. Not from within the handler of a request, whose own connection it may end.
  std::string enforce();
  /// Looks at the account again at its deadline. To be called when that has become an earlier one.
  void watch(Account& account);

  /// An unauthenticated connection has come.
  void add_connection(Account& account) noexcept;
  /// If there are too many connections now, evicts one; `newest` is the one that came last.
  void make_room(Account& newest);
  /// The connection's peer has shown who it is, or need not.
  void set_authenticated(Account& connection);
  void remove_connection(Account& connection) noexcept;
  /// Nothing is held for `account` any more, or expected of it.
  void release(Account& account) noexcept;

 private:
  /// Accounts by size; those of the same size in no particular order.
  using BySize = std::set<std::pair<std::size_t, Account*>>;

  BySize& by_size(const Account& account) {
    return account.authenticated_ ? authenticated_ : unauthenticated_;
  }
  void change(Account& account, std::size_t bytes);
  void evict_largest(BySize& accounts);
  std::uint32_t seconds(Time time) const;
  void forget_deadline(Account& account) noexcept;
  void wake_at(Time time);
  void check_deadlines();

  Loop& loop_;
  Limits limits_;
  std::size_t held_bytes_ = 0;
  BySize authenticated_;
  BySize unauthenticated_;
  std::size_t connections_ = 0;
  /// Unauthenticated connections, the oldest first.
  IntrusiveList<Account, &Account::arrival> arrivals_;
  const Time start_;
  /// Whose deadline is when, in seconds since the start. It may have become a later one since,
  /// which is noticed when the time has come: progress costs nothing here.
  std::set<std::pair<std::uint32_t, Account*>> deadlines_;
  Timer timer_;
  Time wake_ = Time::max();  ///< when the timer fires
};

}  // namespace skein

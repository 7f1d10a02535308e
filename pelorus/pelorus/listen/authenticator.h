#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "pelorus/pelorus/listen/operation.h"
#include "pelorus/pelorus/listen/session.h"
#include "skein/server.h"

namespace pelorus {

class KeyVerification;
class Settings;

/// Longer keys are no keys, and are not worth a question to the web server.
constexpr std::size_t MAX_KEY_BYTES = 1024;
/// Requests of one key that was never confirmed that may wait for it: the newest ones. A node has
/// one connection, or a few.
constexpr std::size_t MAX_UNCONFIRMED_REQUESTS = 64;
/// Connections of one valid key that count as authenticated. More are served, but as strangers are,
/// so that nobody takes all connections with a single key.
constexpr std::uint32_t MAX_KEY_CONNECTIONS = 256;
/// So long a "submit" waits at most for room in the buffer of its database.
constexpr std::chrono::seconds LONGEST_WAIT_FOR_ROOM{30};

/// Lets the requests of nodes through to the InfluxHandler, if their keys are valid: keeps the
/// cache of verified keys, asks the web server about the others, and keeps the requests that wait
/// for that.
///
///     request ── key valid, nothing of it waits ──> runs at once
///        │
///        └──> PendingKey: its requests in order ── question ──> admitted ── ready queue ──> run
///                          ^ the next one asks again ── refused ──┘ (dropped, answered)
///
/// What must look as if requests were served one after the other:
/// - A request that waits suspends its connection, so the order of a connection stays.
/// - The first request of a key asks. After a success those behind it run as well; after a failure
///   the next one asks for itself. There is one question per key at a time, eight in all.
/// - Keys wait for a question in three queues, first come first served in each: keys that were
///   confirmed before, those whose peer is still there, those of disconnected peers. So any number
///   of made-up keys keeps no known node waiting.
/// - Admitted requests run on the iterations of the loop that the ready queue gives them. A long
///   block of Graphite runs in steps, and so does a "submit" of many points, as the buffer of its
///   database has room. Later requests of the key wait for it.
/// - A request of a disconnected peer is counted and run all the same; its reply goes nowhere.
/// - Of a key that was never confirmed the newest requests wait; the others are refused, those
///   of disconnected peers before the rest.
///
/// Owned by NodeServer. Borrows everything. Loop thread only.
class Authenticator {
 public:
  Authenticator(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
                skein::Resources& resources, skein::Server& server,
                skein::PerConnection<Session>& sessions, const std::string& verification_url);
  Authenticator(const Authenticator&) = delete;
  Authenticator& operator=(const Authenticator&) = delete;
  ~Authenticator();

  /// The key of a request without its dashes. Nearly every request has the one with which its
  /// connection was let in before: that costs a comparison, no copy and no look-up.
  class Key {
   public:
    explicit Key(VerifiedKey& verified) : verified_(&verified) {}
    explicit Key(std::string text) : text_(std::move(text)) {}
    const std::string& text() const noexcept { return verified_ ? verified_->first : text_; }
    /// Its entry in the cache, if that is known already.
    VerifiedKey* verified() const noexcept { return verified_; }

   private:
    VerifiedKey* verified_ = nullptr;
    std::string text_;
  };
  /// Notes the key with its session. Throws RequestError for one that is missing, no text, or too
  /// long.
  Key key_of(const skein::Request& request);

  /// Runs the operation of a request at once if its key is valid, nothing of the key waits and it
  /// is short; otherwise keeps a copy and defers the reply. Throws what the operation throws, and
  /// LimitError.
  skein::Reply forward(const skein::Request& request, const Key& key, Operation&& operation);

  /// The session shows another key from now on, or none any more: it has ended.
  static void set_key(Session& session, VerifiedKey* key) noexcept;

 private:
  class PendingRequest;
  class PendingKey;
  struct Queues;

  VerifiedKey* find_verified(const std::string& key);
  /// The connection has shown a valid key.
  void let_in(const skein::Connection& connection, VerifiedKey& key);
  bool valid_key(const std::string& key, const VerifiedKey* verified);
  bool is_valid_now(const VerifiedKey* verified);
  PendingKey* find_pending(const std::string& key);
  /// Keeps the request at the end of those of its key.
  PendingKey& keep(const skein::Request& request, const std::string& key,
                   const Operation& operation);
  /// The first request of the key may run.
  void admit(PendingKey& pending) noexcept;
  /// Asks the web server about the key as soon as there is room.
  void check_auth(PendingKey& pending) noexcept;
  /// Refuses a request of the key if too many wait. Its connection continues, which may evict
  /// others, those of this key too: `pending` may be destroyed by then.
  void limit_requests(PendingKey& pending) noexcept;
  std::size_t rank_of(const PendingKey& pending) const;
  void enqueue(PendingKey& pending, std::size_t rank) noexcept;
  PendingKey* next_question() noexcept;
  void ask() noexcept;
  /// The web server has spoken; or what failed.
  void handle_outcome(PendingKey& pending, bool is_valid,
                      const std::exception_ptr& failure) noexcept;
  /// Counts the outcome, and remembers a valid key.
  void validate(const PendingKey& pending, bool is_valid);
  /// Whether the first request has to wait for room. It is looked at again soon then.
  bool wait_for_room(PendingKey& pending) noexcept;
  void end_wait_for_room() noexcept;
  /// Runs a step of the first request; its failure is the request's. False: there is more to do.
  bool run_first(PendingKey& pending) noexcept;
  void finish_first(PendingKey& pending, const std::exception_ptr& failure) noexcept;
  /// What becomes of a key whose first request is over: the next one is looked at as if it came
  /// now.
  enum class Next { NOTHING, QUESTION, ADMITTED };
  Next next_of(const PendingKey& pending) noexcept;
  void continue_with(PendingKey& pending) noexcept;
  void erase(PendingKey& pending) noexcept;
  void report_dropped(const skein::LimitError& reason);
  /// The request has been evicted.
  void forget(PendingKey& pending, const PendingRequest& request) noexcept;

  InfluxHandler& influx_handler_;
  const Settings& settings_;
  skein::Loop& loop_;
  skein::Resources& resources_;
  skein::Server& server_;
  skein::PerConnection<Session>& sessions_;
  /// Key without dashes to its last success. Never shrinks: there are as many as there
  /// are nodes, and their sessions point here.
  std::unordered_map<std::string, VerifiedKey::second_type> valid_;
  std::unique_ptr<Queues> queues_;  ///< what waits
  const std::string refusal_;       ///< to say it must not take memory
  skein::Timer room_timer_;         ///< of those that wait for room
  std::unique_ptr<KeyVerification> verification_;
};

}  // namespace pelorus

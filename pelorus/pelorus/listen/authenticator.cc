#include "pelorus/pelorus/listen/authenticator.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <exception>
#include <list>
#include <map>
#include <optional>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/listen/key_answer.h"
#include "pelorus/pelorus/listen/key_verification.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/settings.h"
#include "skein/intrusive_list.h"
#include "skein/profile_scope.h"
#include "skein/resources.h"
#include "skein/throttle.h"

namespace pelorus {
namespace {

/// What a request that waits takes up besides its arguments and its key, roughly.
constexpr std::size_t PENDING_OVERHEAD_BYTES = 1024;

/// Whether `given` is `key`, which has no dashes, with dashes anywhere.
bool spells(std::string_view given, std::string_view key) {
  if (given.size() == key.size()) return given == key;
  std::size_t at = 0;
  for (const char c : given) {
    if (c == '-') continue;
    if (at == key.size() || key[at++] != c) return false;
  }
  return at == key.size();
}

/// Between two reports of requests that were dropped.
constexpr std::chrono::seconds DROP_REPORT_INTERVAL{10};

/// After such a pause, requests that wait for room are looked at again.
constexpr std::chrono::milliseconds ROOM_PAUSE{20};

}  // namespace

/// A request that waits: the operation on copies of its arguments, and the deferred reply. Outlives
/// its connection.
class Authenticator::PendingRequest final : public skein::Admission::Account,
                                            private skein::Server::Deferrer {
 public:
  PendingRequest(Authenticator& authenticator, PendingKey& key, const Operation& views,
                 const skein::Request& request);
  ~PendingRequest();

  std::optional<Operation> operation;  ///< none once it was evicted
  /// Its memory is held for it: after it was made, and after each step. Throws std::bad_alloc.
  void hold();

  const skein::DeferredReply reply;
  std::list<PendingRequest>::iterator place;  ///< among those of its key
  /// When it runs whether there is room or not; none before it has met a full buffer.
  std::optional<std::chrono::steady_clock::time_point> patience;

 private:
  void evict(const skein::LimitError& reason) override;
  void handle_hang_up() noexcept override;

  Authenticator& authenticator_;
  PendingKey& key_;
};

/// The requests of one key that wait, in order of arrival, and what they wait for.
class Authenticator::PendingKey final : public skein::ReadyQueue::Entry {
 public:
  /// | state | where it stands |
  /// |---|---|
  /// | QUEUED | in a queue: of questions, or of those that wait for room |
  /// | ASKING | the web server is being asked, for the first request |
  /// | ADMITTED | in the ready queue: the first request may run |
  /// | BUSY | in none: a request of it is run or answered just now, so it must not go |
  enum class State { QUEUED, ASKING, ADMITTED, BUSY };

  explicit PendingKey(Authenticator& authenticator) : authenticator_(authenticator) {}

  /// Runs admitted requests as long as the credit lasts.
  bool serve(skein::ReadyQueue::Credit credit) noexcept override;
  bool is_authenticated() const noexcept override { return true; }

  const std::string* key = nullptr;  ///< of its entry in the map
  std::list<PendingRequest> requests;
  State state = State::BUSY;
  std::size_t rank = 0;  ///< the queue where it stands, if it is QUEUED
  skein::ListLink<PendingKey> place;

 private:
  Authenticator& authenticator_;
};

/// Everything that waits.
struct Authenticator::Queues {
  static constexpr std::size_t KNOWN = 0, PRESENT = 1, DISCONNECTED = 2, QUESTIONS = 3, ROOM = 3;

  /// By key without dashes. No hash table: anybody may choose keys that collide.
  std::map<std::string, PendingKey> keys;
  /// Keys that wait for their question: the known ones, those whose peer is still there, the
  /// others. Behind these, those whose first request waits for room.
  std::array<skein::IntrusiveList<PendingKey, &PendingKey::place>, 4> queues;
  skein::Throttle drop_reports{DROP_REPORT_INTERVAL};
};

Authenticator::PendingRequest::PendingRequest(Authenticator& authenticator, PendingKey& key,
                                              const Operation& views, const skein::Request& request)
    : Account(authenticator.server_.origin(request.connection),
              authenticator.server_.standing(request.connection)),
      reply(authenticator.server_.defer(request, this)),
      authenticator_(authenticator),
      key_(key) {
  operation.emplace(views.owned());
  hold();
}

void Authenticator::PendingRequest::hold() {
  authenticator_.resources_.admission.hold(
      *this, PENDING_OVERHEAD_BYTES + key_.key->size() + operation->bytes());
}

Authenticator::PendingRequest::~PendingRequest() {
  reply.forget_deferrer();
  authenticator_.resources_.admission.release(*this);
}

void Authenticator::PendingRequest::evict(const skein::LimitError& reason) {
  reply.forget_deferrer();
  if (!reply.has_peer()) {
    ++authenticator_.resources_.counters.refused_requests;
    authenticator_.loop_.guarded([&] { authenticator_.report_dropped(reason); });
  }
  reply.end_connection(reason);
  operation.reset();
  authenticator_.forget(key_, *this);
}

/// What a node with a valid key has left behind is kept as before.
void Authenticator::PendingRequest::handle_hang_up() noexcept {
  if (authenticator_.is_valid_now(authenticator_.find_verified(*key_.key))) return;
  authenticator_.loop_.guarded([this] {
    authenticator_.resources_.admission.set_standing(*this, skein::Standing::DISCONNECTED);
  });
}

void Authenticator::report_dropped(const skein::LimitError& reason) {
  if (const auto left_out = queues_->drop_reports.pass(loop_.now())) {
    log::warning("Dropping a request whose peer has gone: {}{}.", reason.what(),
                 *left_out == 0 ? "" : fmt::format(" ({} times more before)", *left_out));
  }
}

Authenticator::Authenticator(InfluxHandler& influx_handler, const Settings& settings,
                             skein::Loop& loop, skein::Resources& resources, skein::Server& server,
                             skein::PerConnection<Session>& sessions,
                             const std::string& verification_url)
    : influx_handler_(influx_handler),
      settings_(settings),
      loop_(loop),
      resources_(resources),
      server_(server),
      sessions_(sessions),
      queues_(std::make_unique<Queues>()),
      refusal_(fmt::format("more than {} requests wait for the verification of this key",
                           MAX_UNCONFIRMED_REQUESTS)),
      verification_(std::make_unique<KeyVerification>(settings, loop, verification_url)) {}

Authenticator::~Authenticator() {
  room_timer_.cancel();
  for (auto& [key, pending] : queues_->keys) resources_.ready_queue.remove(pending);
}

Authenticator::Key Authenticator::key_of(const skein::Request& request) {
  const std::string_view given = request.text("key");
  if (given.size() > MAX_KEY_BYTES) {
    throw skein::RequestError(
        fmt::format("argument 'key' has {} bytes, {} are allowed", given.size(), MAX_KEY_BYTES));
  }
  Session& session = sessions_[request.connection];
  if (session.verified_key != nullptr && spells(given, session.verified_key->first)) {
    return Key(*session.verified_key);
  }
  set_key(session, nullptr);
  std::string key(given);
  std::erase(key, '-');
  session.counters.note_key(key);
  return Key(std::move(key));
}

VerifiedKey* Authenticator::find_verified(const std::string& key) {
  const auto verified = valid_.find(key);
  return verified == valid_.end() ? nullptr : &*verified;
}

void Authenticator::set_key(Session& session, VerifiedKey* key) noexcept {
  if (key != nullptr) ++key->second.connections;
  if (session.verified_key != nullptr) --session.verified_key->second.connections;
  session.verified_key = key;
}

void Authenticator::let_in(const skein::Connection& connection, VerifiedKey& key) {
  Session& session = sessions_[connection];
  if (session.verified_key != &key) set_key(session, &key);
  if (session.is_authenticated || key.second.connections > MAX_KEY_CONNECTIONS) return;
  server_.set_authenticated(connection);
  session.is_authenticated = true;
}

bool Authenticator::is_valid_now(const VerifiedKey* verified) {
  return verified != nullptr && loop_.now() - verified->second.time < VALID_CUTOFF;
}

bool Authenticator::valid_key(const std::string& key, const VerifiedKey* verified) {
  if (is_valid_now(verified)) return true;
  // Kept: said of a key that was never seen as well.
  log::debug("Validation error - the key \"{}\" is expired.", key);
  return false;
}

Authenticator::PendingKey* Authenticator::find_pending(const std::string& key) {
  if (queues_->keys.empty()) return nullptr;  // as a rule: the key need not be looked up then
  const auto found = queues_->keys.find(key);
  return found == queues_->keys.end() ? nullptr : &found->second;
}

skein::Reply Authenticator::forward(const skein::Request& request, const Key& node_key,
                                    Operation&& operation) {
  PROFILE_SCOPE();
  const std::string& key = node_key.text();
  const bool behind_others = find_pending(key) != nullptr;
  VerifiedKey* const verified =
      node_key.verified() != nullptr ? node_key.verified() : find_verified(key);
  const bool admitted = !behind_others && valid_key(key, verified);
  if (admitted) {
    let_in(request.connection, *verified);
    if (operation.is_short(influx_handler_)) {
      sessions_[request.connection].counters.count(operation.run(influx_handler_));
      return {};
    }
  }
  PendingKey& pending = keep(request, key, operation);
  if (admitted) {
    admit(pending);
  } else if (!behind_others) {
    check_auth(pending);
  } else {
    limit_requests(pending);
  }
  return skein::Reply::later();
}

Authenticator::PendingKey& Authenticator::keep(const skein::Request& request,
                                               const std::string& key, const Operation& operation) {
  auto& keys = queues_->keys;
  auto found = keys.find(key);
  const bool is_new = found == keys.end();
  if (is_new) {
    found = keys.try_emplace(key, *this).first;
    found->second.key = &found->first;
  }
  PendingKey& pending = found->second;
  try {
    auto& added = pending.requests.emplace_back(*this, pending, operation, request);
    added.place = std::prev(pending.requests.end());
  } catch (...) {  // nothing of the request is left
    if (is_new) keys.erase(found);
    throw;
  }
  // Its peer has come back, or somebody else who has its key.
  if (pending.state == PendingKey::State::QUEUED && pending.rank == Queues::DISCONNECTED) {
    queues_->queues[Queues::DISCONNECTED].remove(pending);
    enqueue(pending, rank_of(pending));
  }
  return pending;
}

void Authenticator::limit_requests(PendingKey& pending) noexcept {
  auto& requests = pending.requests;
  if (requests.size() <= MAX_UNCONFIRMED_REQUESTS) return;
  if (is_valid_now(find_verified(*pending.key))) return;
  const auto oldest =
      std::next(requests.begin(), pending.state == PendingKey::State::ASKING ? 1 : 0);
  auto refused = std::find_if(oldest, requests.end(), [](const PendingRequest& request) {
    return !request.reply.has_peer();
  });
  if (refused == requests.end()) refused = oldest;
  const skein::DeferredReply reply = refused->reply;
  requests.erase(refused);
  reply.refuse(refusal_);
}

std::size_t Authenticator::rank_of(const PendingKey& pending) const {
  if (valid_.contains(*pending.key)) return Queues::KNOWN;
  return pending.requests.back().reply.has_peer() ? Queues::PRESENT : Queues::DISCONNECTED;
}

void Authenticator::enqueue(PendingKey& pending, std::size_t rank) noexcept {
  pending.state = PendingKey::State::QUEUED;
  pending.rank = rank;
  queues_->queues[rank].push_back(pending);
}

void Authenticator::admit(PendingKey& pending) noexcept {
  pending.state = PendingKey::State::ADMITTED;
  resources_.ready_queue.add(pending);
}

void Authenticator::check_auth(PendingKey& pending) noexcept {
  enqueue(pending, rank_of(pending));
  ask();
}

/// The first of the first queue that is not empty. One whose peer has disconnected goes to the
/// end of its queue.
Authenticator::PendingKey* Authenticator::next_question() noexcept {
  for (std::size_t rank = 0; rank < Queues::QUESTIONS; ++rank) {
    auto& questions = queues_->queues[rank];
    while (!questions.empty()) {
      PendingKey& next = questions.front();
      questions.remove(next);
      const std::size_t present_rank = rank_of(next);
      if (present_rank <= rank) return &next;
      enqueue(next, present_rank);
    }
  }
  return nullptr;
}

void Authenticator::ask() noexcept {
  while (verification_->has_room()) {
    PendingKey* const next = next_question();
    if (next == nullptr) return;
    next->state = PendingKey::State::ASKING;
    verification_->do_auth_check(*next->key, [this, next](const KeyOutcome& outcome) {
      bool is_valid = false;
      std::exception_ptr failure;
      try {
        is_valid = is_confirmed(*next->key, outcome, settings_);
        validate(*next, is_valid);
      } catch (const std::exception&) {
        failure = std::current_exception();
      }
      handle_outcome(*next, is_valid && !failure, failure);
      ask();
    });
  }
}

void Authenticator::validate(const PendingKey& pending, bool is_valid) {
  if (const auto* connection = pending.requests.front().reply.connection()) {
    sessions_[*connection].counters.count_auth(is_valid);
  }
  if (is_valid) {
    influx_handler_.handle_successful_auth();
    valid_[*pending.key].time = loop_.clocks().monotonic();
  } else {
    influx_handler_.increment_failed_auths();
  }
}

void Authenticator::handle_outcome(PendingKey& pending, bool is_valid,
                                   const std::exception_ptr& failure) noexcept {
  if (is_valid) return admit(pending);
  pending.state = PendingKey::State::BUSY;
  finish_first(pending, failure);  // without a failure: dropped in silence
  continue_with(pending);
}

bool Authenticator::PendingKey::serve(skein::ReadyQueue::Credit credit) noexcept {
  PROFILE_SCOPE();
  const auto cost_of_first = [this] {
    const auto& operation = requests.front().operation;
    return operation ? operation->cost() : 0;
  };
  state = State::BUSY;
  Next next = Next::ADMITTED;
  while (next == Next::ADMITTED) {
    if (authenticator_.wait_for_room(*this)) return false;
    if (!credit.spend(cost_of_first())) break;
    if (authenticator_.run_first(*this)) next = authenticator_.next_of(*this);
  }
  if (next == Next::ADMITTED) {
    state = State::ADMITTED;
    return true;
  }
  next == Next::QUESTION ? authenticator_.check_auth(*this) : authenticator_.erase(*this);
  return false;
}

bool Authenticator::wait_for_room(PendingKey& pending) noexcept {
  PendingRequest& first = pending.requests.front();
  if (!first.operation || first.operation->has_room(influx_handler_)) return false;
  const auto now = loop_.now();
  if (!first.patience) first.patience = now + LONGEST_WAIT_FOR_ROOM;
  if (now >= *first.patience) return false;
  auto& waiting = queues_->queues[Queues::ROOM];
  try {
    if (waiting.empty()) {
      room_timer_.cancel();
      room_timer_ = loop_.call_in(ROOM_PAUSE, [this] { end_wait_for_room(); });
    }
  } catch (const std::exception&) {  // no memory to wait with
    return false;
  }
  enqueue(pending, Queues::ROOM);
  return true;
}

void Authenticator::end_wait_for_room() noexcept {
  auto& waiting = queues_->queues[Queues::ROOM];
  while (!waiting.empty()) {
    PendingKey& pending = waiting.front();
    waiting.remove(pending);
    admit(pending);
  }
}

bool Authenticator::run_first(PendingKey& pending) noexcept {
  PendingRequest& first = pending.requests.front();
  std::exception_ptr failure;
  try {
    skein::Connection* const connection = first.reply.connection();
    if (connection != nullptr) let_in(*connection, *valid_.find(*pending.key));
    if (first.operation) {
      IngestResult ingested = first.operation->run(influx_handler_);
      if (connection != nullptr) sessions_[*connection].counters.count(std::move(ingested));
      if (!first.operation->is_done()) {
        first.hold();
        return false;
      }
    }
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  finish_first(pending, failure);
  return true;
}

/// Its bytes are not held any more when the reply lets the connection continue.
void Authenticator::finish_first(PendingKey& pending, const std::exception_ptr& failure) noexcept {
  const skein::DeferredReply reply = pending.requests.front().reply;
  pending.requests.pop_front();
  if (!failure) return reply.send({});
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& known) {
    reply.fail(known);
  }
}

Authenticator::Next Authenticator::next_of(const PendingKey& pending) noexcept {
  if (pending.requests.empty()) return Next::NOTHING;
  try {
    const bool is_valid = valid_key(*pending.key, find_verified(*pending.key));
    return is_valid ? Next::ADMITTED : Next::QUESTION;
  } catch (const std::exception& failure) {  // no memory for a log line
    loop_.report(failure);
    return Next::QUESTION;
  }
}

void Authenticator::continue_with(PendingKey& pending) noexcept {
  switch (next_of(pending)) {
    case Next::NOTHING:
      return erase(pending);
    case Next::QUESTION:
      return check_auth(pending);
    case Next::ADMITTED:
      return admit(pending);
  }
}

void Authenticator::forget(PendingKey& pending, const PendingRequest& request) noexcept {
  const bool is_first = &pending.requests.front() == &request;
  if (pending.state == PendingKey::State::ASKING && is_first) return;  // its outcome is counted
  pending.requests.erase(request.place);
  if (!pending.requests.empty() || pending.state == PendingKey::State::BUSY) return;
  if (pending.state == PendingKey::State::QUEUED) {
    queues_->queues[pending.rank].remove(pending);
  }
  resources_.ready_queue.remove(pending);
  erase(pending);
}

void Authenticator::erase(PendingKey& pending) noexcept {
  queues_->keys.erase(queues_->keys.find(*pending.key));
}

}  // namespace pelorus

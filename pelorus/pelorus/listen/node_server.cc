#include "pelorus/pelorus/listen/node_server.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iterator>
#include <memory>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/complete_lines.h"
#include "pelorus/pelorus/listen/key_answer.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/profile.h"

namespace pelorus {
namespace {

constexpr std::array<skein::RequestRow, 3> REQUESTS{{
    {"add", skein::RequestHandler<&NodeServer::req_add>::handle},
    {"submit", skein::RequestHandler<&NodeServer::req_submit>::handle},
    {"collectd", skein::RequestHandler<&NodeServer::req_collectd>::handle},
}};

/// What a held request takes up besides its arguments, roughly: its key stands in four places.
constexpr std::size_t HELD_OVERHEAD_BYTES = 1024;

/// A submit request for later, with its own copies of the arguments.
struct OwnedSubmit {
  OwnedSubmit(std::string_view to, std::string_view series, skein::Value given)
      : database(to), name(series), points(given), messages(name, points.value()) {}

  std::size_t bytes() const noexcept { return database.size() + name.size() + points.bytes(); }

  const std::string database;
  const std::string name;
  const skein::OwnedValue points;
  SubmitMessages messages;
};

CollectdConnection& collectd(skein::Connection& connection) {
  return static_cast<CollectdConnection&>(connection);
}

/// Whether the peer will send nothing more. While a request is held, its connection is not read
/// and does not know.
bool has_hung_up(const skein::Socket& socket) {
  pollfd now{socket.descriptor(), POLLRDHUP, 0};
  return ::poll(&now, 1, 0) > 0;
}

NodeKey key_of(const skein::Request& request) { return {request, collectd(request.connection)}; }

}  // namespace

NodeServer::NodeServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
                       std::string verification_url, std::shared_ptr<skein::Quota> quota)
    : Server(bind_listen(settings), loop, KEEPALIVE, std::move(quota)),
      influx_handler_(influx_handler),
      settings_(settings),
      next_turn_(loop, [this] { serve_let_through(); }),
      verification_(settings, loop, std::move(verification_url)) {}

skein::Socket NodeServer::bind_listen(const Settings& settings) {
  const auto host = settings.get<std::string>("PELORUS_SERVER");
  const auto port = settings.get<std::int64_t>("PELORUS_PORT");
  auto socket = skein::Socket::stream(AF_INET);
  const int on = 1;
  if (::setsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    throw skein::SystemFailure("setsockopt SO_REUSEADDR", errno);
  }
  skein::bind_tcp(socket, host, port);
  skein::listen(socket, LISTEN_BACKLOG);
  log::info("Started skein socket at {}:{}.", host, port);
  return socket;
}

void NodeServer::stop() {
  log::info("Skein socket closed.");
  close();
}

std::span<const skein::RequestRow> NodeServer::requests() const { return REQUESTS; }

std::unique_ptr<skein::Connection> NodeServer::make_connection(skein::Socket socket) {
  return std::make_unique<CollectdConnection>(*this, loop(), std::move(socket));
}

skein::Address& NodeServer::connection_addresses(skein::Connection& connection) {
  return collectd(connection).address;
}

void NodeServer::add_connection(skein::Connection& connection) {
  Server::add_connection(connection);
  const auto address = skein::peer_address(connection.socket().descriptor());
  connection_addresses(connection) = address;
  log::info("Accepted skein connection from {}:{}.", address.host(), address.port);
}

void NodeServer::remove_connection(skein::Connection& connection) {
  const auto address = std::exchange(connection_addresses(connection), {});
  if (address.port != 0) {
    log::info("Disconnecting skein connection from {}:{}.", address.host(), address.port);
  }
  Server::remove_connection(connection);
}

void NodeServer::handle_exception(const std::exception& failure) {
  log::exception(fmt::format("Exception in NodeServer: {}", failure.what()), failure);
}

void NodeServer::handle_protocol_error(skein::Connection& connection,
                                       const skein::ProtocolError& fault) {
  const skein::Address address = connection_addresses(connection);
  log::warning("Closing the connection of {}:{}: {}.", address.host(), address.port, fault.what());
}

void NodeServer::handle_shortage(const std::string& text) {
  log::warning("Node socket: {}.", text);
}

std::string NodeServer::address(const skein::Connection& connection) const {
  const auto& address = static_cast<const CollectdConnection&>(connection).address;
  return address.port == 0 ? "" : fmt::format("{}:{}", address.host(), address.port);
}

skein::Reply NodeServer::req_add(const skein::Request& request) {
  PROFILE_SCOPE();
  const NodeKey key = key_of(request);
  const std::string_view database = request.text("database");
  const std::string_view data = request.text("data");
  // Kept: a last line without its line end is not counted.
  const auto num_metrics = static_cast<std::int64_t>(std::ranges::count(data, '\n'));
  return dispatch(
      request, key,
      [&] {
        influx_handler_.add(database, std::string(data), num_metrics);
        return IngestResult{.records = num_metrics};
      },
      [&]() -> OwnedMethod {
        return {[this, database = std::string(database), data = std::string(data), num_metrics] {
                  influx_handler_.add(database, data, num_metrics);
                  return Step{{.records = num_metrics}};
                },
                database.size() + data.size()};
      });
}

skein::Reply NodeServer::req_submit(const skein::Request& request) {
  PROFILE_SCOPE();
  const NodeKey key = key_of(request);
  const std::string_view database = request.text("database");
  const std::string_view name = request.text("name");
  request.get("columns");
  const skein::Value points = request.get("points");
  return dispatch(
      request, key,
      [&]() -> std::optional<IngestResult> {
        if (points.is(skein::Value::Type::LIST) && points.size() > POINTS_PER_TURN) return {};
        return influx_handler_.add_submit(database, name, points);
      },
      [&]() -> OwnedMethod {
        auto submit = std::make_shared<OwnedSubmit>(database, name, points);
        return {[this, submit] {
                  SubmitMessages& messages = submit->messages;
                  auto ingested =
                      influx_handler_.add_submit(submit->database, messages, POINTS_PER_TURN);
                  return Step{std::move(ingested), !messages.has_more()};
                },
                submit->bytes()};
      });
}

skein::Reply NodeServer::req_collectd(const skein::Request& request) {
  PROFILE_SCOPE();
  const NodeKey key = key_of(request);
  const std::string_view metrics = request.text("metrics");
  // Kept: what remains of the last line is carried over before the key is looked at.
  auto& remainder = collectd(request.connection).graphite_remainder;
  const CompleteLines complete(remainder, metrics, limits().remainder_bytes);
  return dispatch(
      request, key,
      [&] { return influx_handler_.add_graphite(BONDING_DATABASE, complete.lines()); },
      [&]() -> OwnedMethod {
        return {[this, lines = std::string(complete.lines())] {
                  return Step{influx_handler_.add_graphite(BONDING_DATABASE, lines)};
                },
                complete.lines().size()};
      });
}

template <class Now, class MakeOwned>
skein::Reply NodeServer::dispatch(const skein::Request& request, const NodeKey& node_key, Now&& now,
                                  MakeOwned&& owned) {
  skein::Connection& connection = request.connection;
  const std::string& key = node_key.text();
  const VerifiedKey* const verified =
      node_key.verified() ? node_key.verified() : find_verified(key);
  const bool behind_others = is_waiting(key);
  const bool good = !behind_others && valid_key(key, verified);
  if (good) {
    connection.set_valid();
    collectd(connection).verified_key = verified;
    if (std::optional<IngestResult> ingested = now()) {
      collectd(connection).counters.count(*std::move(ingested));
      return {};
    }
  }
  if (!behind_others && !connection.is_valid() && waiting_.size() >= limits().waiting_keys) {
    throw skein::LimitError(fmt::format("{} keys wait for verification, {} are allowed",
                                        waiting_.size(), limits().waiting_keys));
  }
  auto& queue = waiting_[key].held;
  queue.emplace_back(*this, key, connection, owned(), connection.hold());
  queue.back().place = std::prev(queue.end());
  if (good) {
    let_through(key);
  } else if (!behind_others) {
    check_auth(key);
  }
  return skein::Reply::later();
}

NodeServer::HeldMethod::HeldMethod(NodeServer& server, const std::string& key,
                                   const skein::Connection& connection, OwnedMethod owned,
                                   skein::HeldRequest held)
    : Holder(connection.is_valid()),
      server_(server),
      key_(key),
      method_(std::move(owned.method)),
      request_(held) {
  server_.quota().hold(*this, HELD_OVERHEAD_BYTES + owned.bytes);
}

void NodeServer::HeldMethod::give_up(const skein::LimitError& reason) {
  if (!request_.give_up(reason)) {
    log::warning("Dropping a request whose peer has gone: {}.", reason.what());
  }
  method_ = nullptr;
  server_.forget(key_, *this);
}

void NodeServer::forget(const std::string& key, const HeldMethod& held) {
  auto& queue = waiting_[key];
  const bool asked = queue.state == KeyQueue::State::ASKING && &queue.held.front() == &held;
  if (!asked) queue.held.erase(held.place);
}

std::list<NodeServer::HeldMethod> NodeServer::take_first(KeyQueue& queue) {
  std::list<HeldMethod> first;
  first.splice(first.begin(), queue.held, queue.held.begin());
  quota().hold(first.front(), 0);
  return first;
}

bool NodeServer::is_waiting(const std::string& key) const {
  if (waiting_.empty()) return false;  // as a rule: the key need not be hashed for that
  const auto queue = waiting_.find(key);
  return queue != waiting_.end() &&
         (queue->second.state != KeyQueue::State::IDLE || !queue->second.held.empty());
}

const VerifiedKey* NodeServer::find_verified(const std::string& key) const {
  const auto verified = valid_.find(key);
  return verified == valid_.end() ? nullptr : &*verified;
}

bool NodeServer::valid_key(const std::string& key, const VerifiedKey* verified) {
  const double time = verified == nullptr ? 0 : verified->second;
  if (loop().now().wall - time < VALID_CUTOFF) return true;
  // Kept: said of a key that was never seen as well.
  log::debug("Validation error - the key \"{}\" is expired.", key);
  return false;
}

void NodeServer::check_auth(const std::string& key) {
  verification_.do_auth_check(
      key, [this, key](const KeyOutcome& outcome) { handle_outcome(key, outcome); },
      [this, key] { return line_of(key); });
  waiting_[key].state = KeyQueue::State::ASKING;
}

KeyVerification::Line NodeServer::line_of(const std::string& key) const {
  if (valid_.contains(key)) return KeyVerification::Line::KNOWN;
  const skein::Connection* newest = waiting_.at(key).held.back().request().connection();
  return newest != nullptr && !has_hung_up(newest->socket()) ? KeyVerification::Line::PRESENT
                                                             : KeyVerification::Line::GONE;
}

void NodeServer::let_through(const std::string& key) {
  let_through_.push_back(key);
  waiting_[key].state = KeyQueue::State::LET_THROUGH;
  next_turn_.arm();
}

// Answering a request lets its connection go on, which may bring the next request of the same key
// before this returns.
void NodeServer::handle_outcome(const std::string& key, const KeyOutcome& outcome) {
  KeyQueue& queue = waiting_[key];
  queue.state = KeyQueue::State::IDLE;
  bool is_valid = false;
  try {
    is_valid = validate(key, queue.held.front(), is_confirmed(key, outcome, settings_));
  } catch (const std::exception& failure) {
    take_first(queue).front().request().fail(failure);
    return serve_next(key);
  }
  if (is_valid) return let_through(key);
  take_first(queue).front().request().answer({});  // dropped in silence
  serve_next(key);
}

void NodeServer::serve_next(const std::string& key) {
  KeyQueue& queue = waiting_[key];
  if (queue.state != KeyQueue::State::IDLE) return;
  if (queue.held.empty()) {
    waiting_.erase(key);
  } else if (valid_key(key, find_verified(key))) {
    let_through(key);
  } else {
    check_auth(key);
  }
}

void NodeServer::serve_let_through() {
  next_turn_.arm();  // first: whatever fails, the others have their turn
  std::size_t bytes = 0;
  for (std::size_t requests = 0; requests < limits().requests_per_turn &&
                                 bytes < limits().bytes_per_turn && !let_through_.empty();
       ++requests) {
    std::list<std::string> key;
    key.splice(key.begin(), let_through_, let_through_.begin());
    KeyQueue& queue = waiting_[key.front()];
    if (queue.held.empty()) {  // given up meanwhile
      queue.state = KeyQueue::State::IDLE;
    } else {
      bytes += queue.held.front().held_bytes();
      if (!forward(queue)) {
        let_through_.splice(let_through_.end(), key);
        break;
      }
    }
    serve_next(key.front());
  }
  if (let_through_.empty()) next_turn_.disarm();
}

bool NodeServer::validate(const std::string& key, const HeldMethod& held, bool is_valid) {
  count_auth(held, is_valid);
  if (is_valid) {
    influx_handler_.handle_successful_auth();
    valid_[key] = loop().clocks().wall();
  } else {
    influx_handler_.increment_failed_auths();
  }
  return is_valid;
}

void NodeServer::count_auth(const HeldMethod& held, bool accepted) {
  if (auto* connection = held.request().connection())
    collectd(*connection).counters.count_auth(accepted);
}

bool NodeServer::forward(KeyQueue& queue) {
  const HeldMethod& first = queue.held.front();
  if (auto* connection = first.request().connection()) connection->set_valid();
  try {
    Step step = first.run();
    if (auto* connection = first.request().connection()) {
      collectd(*connection).counters.count(std::move(step.ingested));
    }
    if (!step.is_last) return false;
  } catch (const std::exception& failure) {
    queue.state = KeyQueue::State::IDLE;
    take_first(queue).front().request().fail(failure);
    return true;
  }
  queue.state = KeyQueue::State::IDLE;
  take_first(queue).front().request().answer({});
  return true;
}

}  // namespace pelorus

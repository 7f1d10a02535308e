#include "pelorus/pelorus/listen/node_server.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/complete_lines.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/profile.h"
#include "pelorus/translate/display.h"

namespace pelorus {
namespace {

constexpr std::array<skein::RequestRow, 3> REQUESTS{{
    {"add", skein::RequestHandler<&NodeServer::req_add>::handle},
    {"submit", skein::RequestHandler<&NodeServer::req_submit>::handle},
    {"collectd", skein::RequestHandler<&NodeServer::req_collectd>::handle},
}};

/// Longer ones are no keys and are not worth a web request.
constexpr std::size_t MOST_KEY_BYTES = 128;
constexpr long HTTP_OK = 200;
/// What a held request takes up besides its arguments, roughly: its key stands in four places.
constexpr std::size_t HELD_OVERHEAD_BYTES = 1024;

ConnectionCounters& counters_of(skein::Connection& connection) {
  return static_cast<CollectdConnection&>(connection).counters;
}

/// The request's key without its dashes.
std::string node_key(const skein::Request& request) {
  const std::string_view given = request.text("key");
  if (given.size() > MOST_KEY_BYTES) {
    throw skein::RequestError(
        fmt::format("argument 'key' has {} bytes, {} are allowed", given.size(), MOST_KEY_BYTES));
  }
  std::string key(given);
  std::erase(key, '-');
  counters_of(request.connection).note_key(key);
  return key;
}

/// `text` without percent-encoding and dashes.
std::string plain_spelling(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned byte = 0;
    const char* const digits = text.data() + i + 1;
    if (text[i] == '%' && i + 2 < text.size() &&
        std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
      plain += static_cast<char>(byte);
      i += 2;
    } else if (text[i] != '-') {
      plain += text[i];
    }
  }
  return plain;
}

/// Whether `text` holds `secret`, as it stands or percent-encoded, with dashes anywhere.
bool repeats(std::string text, std::string secret) {
  std::erase(secret, '-');
  const bool encoded = plain_spelling(text).find(secret) != text.npos;
  std::erase(text, '-');
  return encoded || text.find(secret) != text.npos;
}

/// A body for the log. One that repeats the key that was asked about, or the token, is not shown.
std::string shown_body(const std::string& body, const std::string& key, const std::string& token) {
  const std::string shown = translate::display(body);
  // An escape's last digit may complete what the bytes behind it leave out.
  const auto told = [&](const std::string& secret) {
    return repeats(body, secret) || repeats(shown, secret);
  };
  const bool has_key = key_ending(key).size() < key.size() && told(key);
  const bool has_token = !token.empty() && told(token);
  if (has_key || has_token) {
    return fmt::format("({} bytes that repeat the {})", body.size(), has_key ? "key" : "token");
  }
  return shown;
}

}  // namespace

NodeServer::NodeServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
                       std::string verification_url, std::shared_ptr<skein::Quota> quota)
    : Server(bind_listen(settings), loop, KEEPALIVE, std::move(quota)),
      influx_handler_(influx_handler),
      settings_(settings),
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
  return static_cast<CollectdConnection&>(connection).address;
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
  const std::string key = node_key(request);
  const std::string_view database = request.text("database");
  const std::string_view data = request.text("data");
  // Kept: a last line without its line end is not counted.
  const auto num_metrics = static_cast<std::int64_t>(std::ranges::count(data, '\n'));
  return dispatch(
      request, key,
      [&] {
        influx_handler_.add(database, std::string(data), num_metrics);
        return Ingested{.records = num_metrics};
      },
      [&]() -> OwnedMethod {
        return {[this, database = std::string(database), data = std::string(data), num_metrics] {
                  influx_handler_.add(database, data, num_metrics);
                  return Ingested{.records = num_metrics};
                },
                database.size() + data.size()};
      });
}

skein::Reply NodeServer::req_submit(const skein::Request& request) {
  PROFILE_SCOPE();
  const std::string key = node_key(request);
  const std::string_view database = request.text("database");
  const std::string_view name = request.text("name");
  request.get("columns");
  const skein::Value points = request.get("points");
  return dispatch(
      request, key, [&] { return influx_handler_.add_submit(database, name, points); },
      [&]() -> OwnedMethod {
        auto owned = std::make_shared<skein::OwnedValue>(points);
        const std::size_t bytes = database.size() + name.size() + owned->bytes();
        return {[this, database = std::string(database), name = std::string(name), owned] {
                  return influx_handler_.add_submit(database, name, owned->value());
                },
                bytes};
      });
}

skein::Reply NodeServer::req_collectd(const skein::Request& request) {
  PROFILE_SCOPE();
  const std::string key = node_key(request);
  const std::string_view metrics = request.text("metrics");
  // Kept: what remains of the last line is carried over before the key is looked at.
  auto& remainder = static_cast<CollectdConnection&>(request.connection).graphite_remainder;
  const CompleteLines complete(remainder, metrics, limits().remainder_bytes);
  return dispatch(
      request, key,
      [&] { return influx_handler_.add_graphite(BONDING_DATABASE, complete.lines()); },
      [&]() -> OwnedMethod {
        return {[this, lines = std::string(complete.lines())] {
                  return influx_handler_.add_graphite(BONDING_DATABASE, lines);
                },
                complete.lines().size()};
      });
}

template <class Now, class MakeOwned>
skein::Reply NodeServer::dispatch(const skein::Request& request, const std::string& key, Now&& now,
                                  MakeOwned&& owned) {
  skein::Connection& connection = request.connection;
  const bool behind_others = is_waiting(key);
  if (!behind_others && valid_key(key)) {
    connection.set_valid();
    counters_of(connection).count(now());
    return {};
  }
  if (!behind_others && !connection.is_valid() && waiting_.size() >= limits().waiting_keys) {
    throw skein::LimitError(fmt::format("{} keys wait for verification, {} are allowed",
                                        waiting_.size(), limits().waiting_keys));
  }
  auto& queue = waiting_[key].held;
  queue.emplace_back(*this, key, connection, owned(), connection.hold());
  queue.back().place = std::prev(queue.end());
  if (!behind_others) check_auth(key);
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
  const bool asked = queue.asking && &queue.held.front() == &held;
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
  return queue != waiting_.end() && (queue->second.asking || !queue->second.held.empty());
}

bool NodeServer::valid_key(const std::string& key) {
  const auto verified = valid_.find(key);
  const double time = verified == valid_.end() ? 0 : verified->second;
  if (loop().clocks().wall() - time < VALID_CUTOFF) return true;
  // Kept: said of a key that was never seen as well.
  log::debug("Validation error - the key \"{}\" is expired.", key);
  return false;
}

void NodeServer::check_auth(const std::string& key) {
  waiting_[key].asking = true;
  verification_.do_auth_check(
      key, [this, key](const KeyOutcome& outcome) { handle_outcome(key, outcome); });
}

// Answering a request lets its connection go on, which may bring the next request of the same key
// before this returns.
void NodeServer::handle_outcome(const std::string& key, const KeyOutcome& outcome) {
  KeyQueue& queue = waiting_[key];
  queue.asking = false;
  const auto first = take_first(queue);
  try {
    validate(key, first.front(), judge(key, outcome));
  } catch (const std::exception& failure) {
    first.front().request().fail(failure);
  }
  serve_waiting(key);
}

void NodeServer::serve_waiting(const std::string& key) {
  KeyQueue& queue = waiting_[key];
  while (!queue.asking && !queue.held.empty()) {
    if (!valid_key(key)) return check_auth(key);
    const auto next = take_first(queue);
    forward(next.front());
  }
  if (!queue.asking) waiting_.erase(key);
}

bool NodeServer::judge(const std::string& key, const KeyOutcome& outcome) const {
  if (const auto* failure = std::get_if<std::exception_ptr>(&outcome)) {
    std::rethrow_exception(*failure);
  }
  if (const auto* failure = std::get_if<WebFailure>(&outcome)) {
    if (*failure == WebFailure::TIMED_OUT) {
      log::warning("Timed out trying to authenticate to web server.");
    } else {
      log::warning("Failed to connect to web server.");
    }
    return false;
  }
  const auto& response = std::get<KeyResponse>(outcome);
  if (response.status == HTTP_OK) return judge_body(key, response.body);
  log::warning(
      "Received response with unexpected status code {} while trying to authenticate to web "
      "server.",
      response.status);
  return false;
}

bool NodeServer::judge_body(const std::string& key, const std::string& body) const {
  nlohmann::json answer;
  try {
    answer = nlohmann::json::parse(body);
  } catch (const nlohmann::json::parse_error& error) {
    log::warning(
        "Received response with unexpected response content {} while trying to authenticate to "
        "web server: {}.",
        shown_body(body, key, settings_.get<std::string>("LOCAL_WWW_KEY")),
        fmt::format("no JSON at byte {}", error.byte));
    return false;
  }
  if (!answer.is_object()) throw skein::Failure("the web server's JSON answer is no object");
  const auto member = answer.find("key");
  if (member == answer.end()) {
    log::warning(
        "Received response without \"key\" in response {} while trying to authenticate to web "
        "server.",
        shown_body(body, key, settings_.get<std::string>("LOCAL_WWW_KEY")));
    return false;
  }
  if (member->is_string() && member->get_ref<const std::string&>() == key) return true;
  log::warning("Validation error - no node found for the key ending in {}.", key_ending(key));
  return false;
}

void NodeServer::validate(const std::string& key, const HeldMethod& held, bool is_valid) {
  count_auth(held, is_valid);
  if (!is_valid) {
    influx_handler_.increment_failed_auths();
    held.request().answer({});  // dropped in silence
    return;
  }
  influx_handler_.handle_successful_auth();
  valid_[key] = loop().clocks().wall();
  forward(held);
}

void NodeServer::count_auth(const HeldMethod& held, bool accepted) {
  if (auto* connection = held.request().connection()) counters_of(*connection).count_auth(accepted);
}

void NodeServer::forward(const HeldMethod& held) {
  if (auto* connection = held.request().connection()) connection->set_valid();
  try {
    Ingested ingested = held.run();
    if (auto* connection = held.request().connection()) {
      counters_of(*connection).count(std::move(ingested));
    }
  } catch (const std::exception& failure) {
    held.request().fail(failure);
    return;
  }
  held.request().answer({});
}

}  // namespace pelorus

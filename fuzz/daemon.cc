#include "fuzz/daemon.h"

#include <fmt/format.h>

#include <array>
#include <optional>

#include "fuzz/fuzz.h"
#include "fuzz/peer.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/log.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/errors.h"

namespace fuzz {
namespace {

using skein::Value;

const std::array<std::string, 2> DATABASES{"tidewell", "bonding"};
/// Buffers so small that an input may fill them, and that making them takes no time.
constexpr std::size_t GRAPHITE_BUFFER_BYTES = 1U << 10;
const skein::Limits LIMITS{.connections = 64,
                           .authenticated = {.of_one = 1U << 10, .of_all = 8U << 10},
                           .unauthenticated = {.of_one = 1U << 10, .of_all = 4U << 10}};
/// More than are served in one turn of the loop.
constexpr int MOST_MESSAGES = 20;
/// The message behind which the peer waits; all others go with the one that follows.
constexpr std::string_view NIL = "\xc0";

const pelorus::Settings& fixed_settings() {
  static const auto settings = pelorus::Settings::from_text(
      fmt::format(R"({{"INFLUX_UNIX_SOCKET": "unbound", "PELORUS_SERVER": "127.0.0.1",
                       "PELORUS_PORT": 0, "LOCAL_WWW_KEY": "{}"}})",
                  TOKEN),
      "fuzz");
  return settings;
}

struct Message {
  bool decodes = true;
  std::optional<std::uint64_t> msgid;  ///< under which an answer is due
};

Message look_at(std::string_view content) {
  static skein::Message message;
  try {
    skein::MsgpackEncoder::decode(content, message);
  } catch (const skein::ProtocolError&) {
    return {.decodes = false, .msgid = {}};
  }
  const Value root = message.root();
  if (!root.is(Value::Type::LIST) || root.size() < 2) return {};
  auto item = root.begin();
  const Value kind = *item;
  const Value msgid = *++item;
  const bool numbered = kind.is(Value::Type::UNSIGNED) && kind.natural() == 0 &&
                        msgid.is(Value::Type::UNSIGNED) && msgid.natural() >> 32U == 0;
  return {.decodes = true, .msgid = numbered ? std::optional(msgid.natural()) : std::nullopt};
}

/// The number of a reply, which has to be well-formed: [1, msgid, error, nil], [1, msgid, nil, …].
std::uint64_t number_of(const std::string& reply) {
  static skein::Message message;
  skein::MsgpackEncoder::decode(reply, message);
  const Value root = message.root();
  require(root.is(Value::Type::LIST) && root.size() == 4, "a reply is a list of 4");
  auto item = root.begin();
  require((*item).is(Value::Type::UNSIGNED) && (*item).natural() == 1, "it begins with 1");
  const Value msgid = *++item;
  require(msgid.is(Value::Type::UNSIGNED), "it has a number");
  const Value error = *++item;
  const Value result = *++item;
  require(
      error.is(Value::Type::NIL) || (error.is(Value::Type::TEXT) && result.is(Value::Type::NIL)),
      "a reply has an error or a result");
  return msgid.natural();
}

/// Kept from one execution to the next: to make one takes a dozen system calls. All that it carries
/// over is how long its own turns took, which no two executions have alike anyhow.
skein::Loop& shared_loop() {
  static support::FakeClock clock;
  static skein::Loop loop(clock.clocks());
  return loop;
}

/// What it watches, so that nothing of an execution is left in it unseen.
std::size_t handles_of(skein::Loop& loop) {
  std::size_t count = 0;
  const auto add = [](uv_handle_t*, void* sum) { ++*static_cast<std::size_t*>(sum); };
  uv_walk(loop.uv(), add, &count);
  return count;
}

}  // namespace

Daemon::Daemon()
    : loop(shared_loop()),
      settings(fixed_settings()),
      handler(
          DATABASES,
          [this](const std::string& name) {
            return std::make_unique<pelorus::InfluxDatabase>(
                name, buffer_settings, loop,
                [](pelorus::InfluxDatabase&) -> std::unique_ptr<pelorus::InfluxDatabase::Request> {
                  require(false, "nothing is written");
                  return nullptr;
                });
          },
          loop, GRAPHITE_BUFFER_BYTES) {
  loop.turn();  // what the execution before has closed
  handles_before = handles_of(loop);
  resources.emplace(loop, LIMITS);
  pelorus::log::set_capture(
      [this](auto, std::string_view line) { log.append(line).push_back('\n'); });
}

Daemon::~Daemon() {
  resources.reset();
  loop.turn();
  require(handles_of(loop) == handles_before, "nothing is left for the next execution");
  pelorus::log::set_capture([](auto, auto) {});
}

void Daemon::serve(skein::Server& server, std::string_view values) {
  const bool told = values.find(TOKEN) != values.npos;  // a peer may say it by itself
  std::vector<std::uint64_t> due;
  Peer peer(server, loop);
  std::string frames;
  bool decodes = true;
  for (int count = 0; count < MOST_MESSAGES && decodes && !values.empty(); ++count) {
    const auto value = take_value(values);
    const Message message = look_at(value);
    decodes = message.decodes;
    if (message.msgid) due.push_back(*message.msgid);
    frames += support::frame(value);
    if (value != NIL) continue;
    peer.send(frames);
    frames.clear();
  }
  peer.send(frames);
  peer.finish();
  std::vector<std::uint64_t> answered;
  for (const std::string& reply : peer.messages()) answered.push_back(number_of(reply));
  require(answered == due, "every numbered request has one reply, in order");
  if (!told) require_unlogged(TOKEN);
  require(server.connection_count() == 0, "no connection is left");
}

std::size_t Daemon::queued() const {
  std::size_t count = 0;
  for (const auto& database : handler.databases()) count += database->pending_data_len();
  return count;
}

void Daemon::require_unlogged(std::string_view secret) const {
  require(log.find(secret) == std::string::npos, "no secret is logged");
}

}  // namespace fuzz

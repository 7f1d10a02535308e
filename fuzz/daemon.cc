#include "fuzz/daemon.h"

#include <fmt/format.h>

#include <array>
#include <msgpack.hpp>

#include "fuzz/fuzz.h"
#include "fuzz/peer.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/log.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/envelope.h"
#include "skein/errors.h"

namespace fuzz {
namespace {

/// The token for the web server, which must never be logged.
constexpr std::string_view TOKEN = "t0ken-of-the-web-server";
const std::array<std::string, 2> DATABASES{"tidewell", "bonding"};
/// Buffers so small that an input may fill them, and that making them takes no time.
constexpr std::size_t GRAPHITE_BUFFER_BYTES = 1U << 10;
const skein::Limits LIMITS{.connections = 64,
                           .authenticated = {.of_one = 1U << 10, .of_all = 8U << 10},
                           .unauthenticated = {.of_one = 1U << 10, .of_all = 4U << 10}};
/// More than are served in one iteration of the loop.
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

/// Takes one MessagePack value off the front of `bytes`; the whole rest where none begins there.
std::string_view take_value(std::string_view& bytes) {
  msgpack::null_visitor visitor;
  std::size_t end = 0;
  if (!msgpack::parse(bytes.data(), bytes.size(), end, visitor)) end = bytes.size();
  const auto value = bytes.substr(0, end);
  bytes.remove_prefix(end);
  return value;
}

/// The number of a reply, [1, msgid, error, result].
std::uint64_t number_of(const std::string& reply) {
  static skein::Message message;
  skein::MsgpackEncoder::decode(reply, message);
  const skein::Value root = message.root();
  require(root.is(skein::Value::Type::LIST) && root.size() == 4, "a reply is a list of 4");
  auto item = root.begin();
  require((*item).natural() == 1, "it begins with 1");
  return (*++item).natural();
}

/// Kept from one execution to the next: to make one takes a dozen system calls. All that it carries
/// over is how long its own iterations took, which no two executions have alike anyhow.
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
  loop.run_once();  // what the execution before has closed
  handles_before = handles_of(loop);
  resources.emplace(loop, LIMITS);
  pelorus::log::set_capture(
      [this](auto, std::string_view line) { log.append(line).push_back('\n'); });
}

Daemon::~Daemon() {
  resources.reset();
  loop.run_once();
  require(handles_of(loop) == handles_before, "nothing is left for the next execution");
  pelorus::log::set_capture([](auto, auto) {});
}

void Daemon::serve(skein::Server& server, std::string_view values) {
  const bool told = values.find(TOKEN) != values.npos;  // a peer may say it by itself
  std::vector<std::uint64_t> due;
  Peer peer(server, loop);
  std::string frames;
  static skein::Message message;
  try {
    for (int count = 0; count < MOST_MESSAGES && !values.empty(); ++count) {
      const auto value = take_value(values);
      frames += support::frame(value);
      skein::MsgpackEncoder::decode(value, message);
      if (const auto msgid = skein::read_envelope(message).msgid) due.push_back(*msgid);
      if (value != NIL) continue;
      peer.send(frames);
      frames.clear();
    }
  } catch (const skein::ProtocolError&) {  // the last message that the server reads
  }
  peer.send(frames);
  peer.finish();
  std::vector<std::uint64_t> answered;
  for (const std::string& reply : peer.messages()) answered.push_back(number_of(reply));
  require(answered == due, "every numbered request has one reply, in order");
  require(told || log.find(TOKEN) == log.npos, "no secret is logged");
  require(server.connection_count() == 0, "no connection is left");
}

std::size_t Daemon::queued() const {
  std::size_t count = 0;
  for (const auto& database : handler.databases()) count += database->pending_data_len();
  return count;
}

}  // namespace fuzz

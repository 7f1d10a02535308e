#include "fuzz/daemon.h"

#include <fmt/format.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/null_sink.h>

#include <array>
#include <optional>

#include "fuzz/fuzz.h"
#include "fuzz/peer.h"
#include "pelorus/pelorus/log.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/errors.h"

namespace fuzz {
namespace {

using skein::Value;

const std::array<std::string, 2> DATABASES{"tidewell", "bonding"};
constexpr std::size_t GRAPHITE_BUFFER_BYTES = 64U << 10;

const pelorus::Settings& fixed_settings() {
  static const auto settings = pelorus::Settings::from_text(
      fmt::format(R"({{"INFLUX_UNIX_SOCKET": "unbound", "PELORUS_SERVER": "127.0.0.1",
                       "PELORUS_PORT": 0, "LOCAL_WWW_KEY": "{}"}})",
                  TOKEN),
      "fuzz");
  return settings;
}

class Sink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 public:
  explicit Sink(std::string& text) : text_(text) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    text_.append(message.payload.data(), message.payload.size()).push_back('\n');
  }
  void flush_() override {}

 private:
  std::string& text_;
};

struct Message {
  bool decodes = true;
  std::optional<std::uint64_t> msgid;  ///< under which an answer is due
};

Message look_at(std::string_view content) {
  skein::Message message;
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
  skein::Message message;
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

}  // namespace

Daemon::Daemon()
    : settings(fixed_settings()),
      handler(
          DATABASES,
          [this](const std::string& name) {
            return std::make_unique<pelorus::InfluxDatabase>(
                name, buffer_settings, loop,
                [](pelorus::InfluxDatabase&) -> const skein::LoopOwned* {
                  require(false, "nothing is written");
                  return nullptr;
                });
          },
          loop, GRAPHITE_BUFFER_BYTES) {
  pelorus::log::set_sink(std::make_shared<Sink>(log));
}

Daemon::~Daemon() { pelorus::log::set_sink(std::make_shared<spdlog::sinks::null_sink_st>()); }

void Daemon::serve(skein::Server& server, std::string_view values) {
  const bool told = values.find(TOKEN) != values.npos;  // a peer may say it by itself
  std::vector<std::uint64_t> due;
  Peer peer(server, loop);
  for (bool decodes = true; decodes && !values.empty();) {
    const auto value = take_value(values);
    const Message message = look_at(value);
    decodes = message.decodes;
    if (message.msgid) due.push_back(*message.msgid);
    peer.send(frame(value));
  }
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

#include "skein/envelope.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <limits>
#include <msgpack.hpp>

#include "skein/text.h"

namespace skein {
namespace {

constexpr std::uint64_t REQUEST = 0;
constexpr std::uint64_t REPLY = 1;
constexpr std::uint64_t ONE_WAY_REQUEST = 2;

bool all_keys_are_text(Value map) {
  for (auto at = map.begin(); at != map.end(); ++at, ++at) {
    if (!(*at).text()) return false;
  }
  return true;
}

void read_name_and_args(Value name, Value args, Envelope& envelope) {
  const auto text = name.text();
  if (!text) {
    envelope.fault = "request name is no text";
  } else if (!args.is(Value::Type::MAP)) {
    envelope.fault = "request args are no map";
  } else if (!all_keys_are_text(args)) {
    envelope.fault = "request args have a key that is no text";
  } else {
    envelope.name = *text;
    envelope.args = args;
  }
}

/// Lets the packer write to memory that has room for what comes.
struct Place {
  char* at;
  void write(const char* data, std::size_t size) { at = std::copy_n(data, size, at); }
};

/// `[1, msgid, nil, nil]`, the reply to nearly every request: without a writer, which would take
/// 7 % of the time of a small frame.
std::string encode_nil_reply(std::uint32_t msgid) {
  std::array<char, 9> bytes{};  // as much as the largest msgid takes
  Place place{bytes.data()};
  msgpack::packer<Place> packer(place);
  packer.pack_array(4).pack_uint64(REPLY).pack_uint32(msgid).pack_nil().pack_nil();
  return {bytes.data(), place.at};
}

std::string encode_outcome(std::uint32_t msgid, std::string_view error, const Reply* reply) {
  MsgpackWriter writer;
  writer.list(4).natural(REPLY).natural(msgid);
  if (reply == nullptr) {
    writer.text(error).nil();
  } else {
    writer.nil().encoded(reply->value());
  }
  return writer.take();
}

}  // namespace

Envelope read_envelope(const Message& message) {
  Envelope envelope;
  const Value root = message.root();
  if (!root.is(Value::Type::LIST) || root.size() == 0) {
    envelope.fault = "message is no list of a request";
    return envelope;
  }
  auto item = root.begin();
  const Value kind = *item;
  if (kind.is_number(ONE_WAY_REQUEST) && root.size() == 3) {
    const Value name = *++item;
    read_name_and_args(name, *++item, envelope);
    return envelope;
  }
  if (!kind.is_number(REQUEST)) {
    envelope.fault = "message is neither a request nor a one-way request";
    return envelope;
  }
  if (root.size() > 1) {
    const Value msgid = *++item;
    if (msgid.is(Value::Type::UNSIGNED) &&
        msgid.natural() <= std::numeric_limits<std::uint32_t>::max()) {
      envelope.msgid = static_cast<std::uint32_t>(msgid.natural());
    }
  }
  if (!envelope.msgid) {
    envelope.fault = "request has no 32-bit message number";
  } else if (root.size() != 4) {
    envelope.fault = fmt::format("request has {} items instead of 4", root.size());
  } else {
    const Value name = *++item;
    read_name_and_args(name, *++item, envelope);
  }
  return envelope;
}

std::string encode_request(std::uint32_t msgid, std::string_view name, const MsgpackWriter& args) {
  MsgpackWriter request;
  request.list(4).natural(REQUEST).natural(msgid).text(name).encoded(args.bytes());
  return request.take();
}

bool is_reply(const Message& message) {
  const Value root = message.root();
  return root.is(Value::Type::LIST) && root.size() == 4 && (*root.begin()).is_number(REPLY);
}

std::string encode_reply(std::uint32_t msgid, const Reply& reply) {
  return reply.is_nil() ? encode_nil_reply(msgid) : encode_outcome(msgid, {}, &reply);
}

std::string encode_error(std::uint32_t msgid, std::string_view error) {
  // The peer's own bytes may stand in an error; as text it must be good for every reader.
  return encode_outcome(msgid, as_ascii(error), nullptr);
}

}  // namespace skein

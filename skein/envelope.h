#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "skein/request.h"
#include "skein/value.h"

namespace skein {

// The messages of both sides, as MessagePack.

/// The parts of a request message, before its name and arguments have been looked at.
struct Envelope {
  /// Answers go to this number; none for one-way requests, and where no number can be read.
  std::optional<std::uint32_t> msgid;
  /// What is wrong with the shape; empty when name and args hold.
  std::string fault;
  std::string_view name;
  std::optional<Value> args;
};

/// Reads `[0, msgid, name, args]` and `[2, name, args]`. Never fails: the fault is in the result.
Envelope read_envelope(const Message& message);

/// The message `[0, msgid, name, args]`. `args`: an encoded map with text keys.
std::string encode_request(std::uint32_t msgid, std::string_view name, const MsgpackWriter& args);
/// Whether the message is `[1, msgid, error, result]`.
bool is_reply(const Message& message);

/// The message `[1, msgid, nil, result]`.
std::string encode_reply(std::uint32_t msgid, const Reply& reply);
/// The message `[1, msgid, error, nil]`.
std::string encode_error(std::uint32_t msgid, std::string_view error);

}  // namespace skein

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "skein/encoders/msgpackencoder.h"
#include "skein/value.h"

namespace skein {

class Connection;

/// One decoded request of a peer. A view: valid while its handler runs.
struct Request {
  std::string_view name;
  Value args;              ///< a MAP with text keys
  Connection& connection;  ///< the connection it came on
  /// The number under which the peer waits for the reply; none for a one-way request.
  std::optional<std::uint32_t> msgid{};

  /// A required argument. Throws RequestError that names it when it is missing.
  Value get(std::string_view argument) const;
  /// A required text argument. Throws RequestError that names it when missing or no text.
  std::string_view text(std::string_view argument) const;
};

/// What a handler answers: one encoded value, nil unless said otherwise, or later.
class Reply {
 public:
  Reply() = default;
  explicit Reply(MsgpackWriter value) : value_(value.take()) {}
  /// The reply comes by the DeferredReply that the handler got from Server::defer().
  static Reply later() {
    Reply reply;
    reply.later_ = true;
    return reply;
  }

  bool is_nil() const noexcept { return value_.empty(); }
  bool is_later() const noexcept { return later_; }
  /// The encoded value; empty for nil.
  const std::string& value() const noexcept { return value_; }

 private:
  std::string value_;
  bool later_ = false;
};

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

/// The message `[1, msgid, nil, nil]`: the reply to nearly every request, made without a writer.
class NilReply {
 public:
  explicit NilReply(std::uint32_t msgid);
  std::string_view message() const noexcept { return {bytes_.data(), size_}; }

 private:
  std::array<char, 9> bytes_;  ///< as much as the largest msgid takes
  std::size_t size_ = 0;
};

/// The message `[1, msgid, nil, result]`.
std::string encode_reply(std::uint32_t msgid, const Reply& reply);
/// The message `[1, msgid, error, nil]`.
std::string encode_error(std::uint32_t msgid, std::string_view error);

}  // namespace skein

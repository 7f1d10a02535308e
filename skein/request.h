#pragma once

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

}  // namespace skein

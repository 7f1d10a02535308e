#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <system_error>

#include "skein/trace.h"

namespace skein {

/// A failure that somebody will want to trace back: it remembers the stack that raised it.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text) : std::runtime_error(text), trace_(Trace::here()) {}
  const Trace& trace() const noexcept { return trace_; }

 private:
  Trace trace_;
};

/// An operating-system or libuv call failed; the text names the call, its subject and the error.
class SystemFailure : public Failure {
 public:
  SystemFailure(const std::string& what, int error_number)
      : Failure(what + ": " + std::generic_category().message(error_number)),
        error_number_(error_number) {}
  int error_number() const noexcept { return error_number_; }

 private:
  int error_number_;
};

/// A request that cannot be served as it stands: a missing or wrongly typed argument, an unknown
/// name, a message of the wrong shape. The connection stays.
class RequestError : public Failure {
 public:
  using Failure::Failure;
};

/// Why a server ends a connection.
enum class EndReason : std::uint8_t {
  PROTOCOL,        ///< bytes that break it, or one message beyond its limits
  HELD_BYTES,      ///< memory that is held for all peers
  CONNECTIONS,     ///< their number
  HALF_FRAME,      ///< no more bytes of a frame in time
  UNSENT_REPLIES,  ///< replies not taken in time
  LINE_BYTES,      ///< a line without an end
};
constexpr std::size_t END_REASONS = 6;

/// Bytes that break the framing, compression or encoding contract. The connection ends.
class ProtocolError : public Failure {
 public:
  explicit ProtocolError(const std::string& text, EndReason reason = EndReason::PROTOCOL)
      : Failure(text), reason_(reason) {}
  EndReason reason() const noexcept { return reason_; }

 private:
  EndReason reason_;
};

/// A peer takes up more than a limit allows; the text names the limit and the size seen. The
/// connection ends.
class LimitError : public ProtocolError {
 public:
  LimitError(EndReason limit, const std::string& text) : ProtocolError(text, limit) {}
};

/// The terminal's interrupt (SIGINT) ended Loop::run().
class KeyboardInterrupt {};

}  // namespace skein

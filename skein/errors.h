#pragma once

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

/// Bytes that break the framing, compression or encoding contract. The connection ends.
class ProtocolError : public Failure {
 public:
  using Failure::Failure;
};

/// A peer takes up more than a limit allows; the text names the limit and the size seen. The
/// connection ends.
class LimitError : public ProtocolError {
 public:
  using ProtocolError::ProtocolError;
};

/// The terminal's interrupt (SIGINT) ended Loop::run().
class KeyboardInterrupt {};

}  // namespace skein

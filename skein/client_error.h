#pragma once

#include <stdexcept>
#include <string>

namespace skein {

/// Why a client's operation failed. Expected outcomes of talking to another process: no trace.
class ClientError : public std::runtime_error {
 public:
  enum class Kind {
    NO_SOCKET,      ///< nothing stands at the path
    REFUSED,        ///< nobody listens there
    NOT_PERMITTED,  ///< the socket is not ours to use
    UNREACHABLE,    ///< any other reason why there is no connection: no route, unknown host
    TIMED_OUT,      ///< connecting, sending or the reply took too long
    LOST,           ///< the connection broke, or what came over it is no skein
    SERVER,         ///< the server answered with an error; the text is the server's own
    CANCELLED,      ///< Client::cancel() was called
  };

  ClientError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

}  // namespace skein

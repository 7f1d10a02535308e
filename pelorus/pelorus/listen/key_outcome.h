#pragma once

#include <exception>
#include <string>
#include <variant>

namespace pelorus {

/// What the web server said of a node key, before anybody judged it.
struct KeyResponse {
  long status = 0;   ///< HTTP status code
  std::string body;  ///< bytes as they came
};

/// Why the web server said nothing.
enum class WebFailure {
  TIMED_OUT,      ///< to connect, in a wait for data, or in all; also an answer without an end
  NOT_CONNECTED,  ///< refused, reset or unreachable, no TLS spoken, name not resolved
};

/// How the verification of one key ended. The exception stands for whatever is neither an answer
/// nor a WebFailure: a SettingsError, or a skein::Failure with libcurl's text, such as of a
/// connection that broke after the request had gone out. No text holds the key or the token.
using KeyOutcome = std::variant<KeyResponse, WebFailure, std::exception_ptr>;

}  // namespace pelorus

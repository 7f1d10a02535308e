#pragma once

#include <exception>
#include <string>
#include <variant>

#include "pelorus/pelorus/settings.h"

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

/// Whether the web server's outcome confirms `key`; why not is logged, without the key and without
/// the token. Throws what is none of its ordinary answers: a failure of libcurl, SettingsError, and
/// skein::Failure for JSON that is no object.
bool is_confirmed(const std::string& key, const KeyOutcome& outcome, const Settings& settings);

}  // namespace pelorus

#include "pelorus/pelorus/listen/key_answer.h"

#include <fmt/format.h>

#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>
#include <variant>

#include "pelorus/pelorus/listen/connection_counters.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/secret_text.h"
#include "skein/errors.h"
#include "skein/text.h"

namespace pelorus {
namespace {

constexpr long HTTP_OK = 200;

/// A body for the log. One that repeats the key that was asked about, or the token, is not shown.
std::string shown_body(const std::string& body, const std::string& key, const std::string& token) {
  const std::string shown = skein::display(body);
  // An escape's last digit may complete what the bytes behind it leave out.
  const auto told = [&](const std::string& secret) {
    return repeats(body, secret) || repeats(shown, secret);
  };
  const bool has_key = key_ending(key).size() < key.size() && told(key);
  const bool has_token = !token.empty() && told(token);
  if (has_key || has_token) {
    return fmt::format("({} bytes that repeat the {})", body.size(), has_key ? "key" : "token");
  }
  return shown;
}

/// Why `body` is no JSON; empty when it is, and stands in `answer`. The library's texts quote it.
std::string parse(const std::string& body, nlohmann::json& answer) {
  try {
    answer = nlohmann::json::parse(body);
    return {};
  } catch (const nlohmann::json::parse_error& error) {
    return fmt::format("no JSON at byte {}", error.byte);
  } catch (const nlohmann::json::exception&) {
    return "a number is out of range";
  }
}

bool is_confirmed_by(const std::string& body, const std::string& key, const Settings& settings) {
  nlohmann::json answer;
  if (const std::string fault = parse(body, answer); !fault.empty()) {
    log::warning(
        "Received response with unexpected response content {} while trying to authenticate to "
        "web server: {}.",
        shown_body(body, key, settings.get<std::string>("LOCAL_WWW_KEY")), fault);
    return false;
  }
  if (!answer.is_object()) throw skein::Failure("the web server's JSON answer is no object");
  const auto member = answer.find("key");
  if (member == answer.end()) {
    log::warning(
        "Received response without \"key\" in response {} while trying to authenticate to web "
        "server.",
        shown_body(body, key, settings.get<std::string>("LOCAL_WWW_KEY")));
    return false;
  }
  if (member->is_string() && member->get_ref<const std::string&>() == key) return true;
  log::warning("Validation error - no node found for the key ending in {}.", key_ending(key));
  return false;
}

}  // namespace

bool is_confirmed(const std::string& key, const KeyOutcome& outcome, const Settings& settings) {
  if (const auto* failure = std::get_if<std::exception_ptr>(&outcome)) {
    std::rethrow_exception(*failure);
  }
  if (const auto* failure = std::get_if<WebFailure>(&outcome)) {
    if (*failure == WebFailure::TIMED_OUT) {
      log::warning("Timed out trying to authenticate to web server.");
    } else {
      log::warning("Failed to connect to web server.");
    }
    return false;
  }
  const auto& response = std::get<KeyResponse>(outcome);
  if (response.status == HTTP_OK) return is_confirmed_by(response.body, key, settings);
  log::warning(
      "Received response with unexpected status code {} while trying to authenticate to web "
      "server.",
      response.status);
  return false;
}

}  // namespace pelorus

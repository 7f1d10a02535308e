#include "pelorus/pelorus/listen/key_answer.h"

#include <fmt/format.h>

#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <variant>

#include "pelorus/pelorus/listen/session.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/secret_text.h"
#include "skein/errors.h"
#include "skein/text.h"

namespace pelorus {
namespace {

constexpr long HTTP_OK = 200;
/// As much of a body as the log shows: a login page for each node would swamp it.
constexpr std::size_t SHOWN_BODY_BYTES = 1024;

/// A body for the log. One that repeats the key that was asked about, or the token, is not shown.
std::string shown_body(const std::string& body, const std::string& key, const std::string& token) {
  const std::string shown = skein::display(std::string_view(body).substr(0, SHOWN_BODY_BYTES));
  // An escape's last digit may complete what the bytes behind it leave out.
  const auto told = [&](const std::string& secret) {
    return repeats(body, secret) || repeats(shown, secret);
  };
  const bool has_key = key_ending(key).size() < key.size() && told(key);
  const bool has_token = !token.empty() && told(token);
  if (has_key || has_token) {
    return fmt::format("({} bytes that repeat the {})", body.size(), has_key ? "key" : "token");
  }
  if (body.size() <= SHOWN_BODY_BYTES) return shown;
  return fmt::format("{} ({} bytes left out)", shown, body.size() - SHOWN_BODY_BYTES);
}

/// Reads of a JSON text what is asked for: whether it is an object, and its member "key"; the last
/// one if it stands there twice. No document is built: the library's would end the process when it
/// is destroyed and there is no memory.
class KeyReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  bool is_object = false;
  bool has_key = false;
  std::optional<std::string> text;  ///< of the member, if that is a text
  std::string fault;                ///< why it is no JSON; the library's texts would quote it

  bool null() override { return value(); }
  bool boolean(bool) override { return value(); }
  bool number_integer(number_integer_t) override { return value(); }
  bool number_unsigned(number_unsigned_t) override { return value(); }
  bool number_float(number_float_t, const string_t&) override { return value(); }
  bool binary(binary_t&) override { return value(); }
  bool string(string_t& value_text) override {
    if (is_key_next()) text = std::move(value_text);
    return value();
  }
  bool start_object(std::size_t) override {
    is_object = is_object || depth_ == 0;
    return begin();
  }
  bool start_array(std::size_t) override { return begin(); }
  bool end_object() override { return end(); }
  bool end_array() override { return end(); }
  bool key(string_t& name) override {
    if (depth_ != 1) return true;
    key_next_ = name == "key";
    has_key = has_key || key_next_;
    if (key_next_) text.reset();
    return true;
  }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& error) override {
    constexpr int NO_JSON = 101;
    fault = error.id == NO_JSON ? fmt::format("no JSON at byte {}", position)
                                : "a number is out of range";
    return false;
  }

 private:
  bool is_key_next() const { return depth_ == 1 && key_next_; }
  bool value() {
    if (depth_ == 1) key_next_ = false;
    return true;
  }
  bool begin() {
    ++depth_;
    return true;
  }
  bool end() {
    --depth_;
    return value();
  }

  int depth_ = 0;          ///< lists and objects around the present value
  bool key_next_ = false;  ///< the next value of the outermost object is the member's
};

bool is_confirmed_by(const std::string& body, const std::string& key, const Settings& settings) {
  KeyReader answer;
  nlohmann::json::sax_parse(body, &answer);
  if (!answer.fault.empty()) {
    log::warning(
        "Received response with unexpected response content {} while trying to authenticate to "
        "web server: {}.",
        shown_body(body, key, settings.get<std::string>("LOCAL_WWW_KEY")), answer.fault);
    return false;
  }
  if (!answer.is_object) throw skein::Failure("the web server's JSON answer is no object");
  if (!answer.has_key) {
    log::warning(
        "Received response without \"key\" in response {} while trying to authenticate to web "
        "server.",
        shown_body(body, key, settings.get<std::string>("LOCAL_WWW_KEY")));
    return false;
  }
  if (answer.text == key) return true;
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

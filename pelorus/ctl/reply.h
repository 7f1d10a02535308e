#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "skein/client.h"

// Asking the local daemon, and reading its reply.
namespace pelorus::ctl {

struct ServerOptions;

/// Sends one request to the local daemon. Throws skein::ClientError.
skein::Answer ask(const ServerOptions& server, std::string_view request,
                  const skein::MsgpackWriter& args);
skein::Answer ask(const ServerOptions& server, std::string_view request);

/// A value in a reply that may be missing. If it is, everything inside it is missing, too.
class ReplyValue {
 public:
  explicit ReplyValue(std::optional<skein::Value> value) : value_(value) {}

  /// The value under `key`, if this is a map.
  ReplyValue operator[](std::string_view key) const;

  /// The number, whatever its kind. None if this is no number.
  std::optional<double> number() const;
  /// The number, or 0.
  double amount() const { return number().value_or(0); }
  /// The text, or an empty one.
  std::string text() const;
  std::optional<bool> boolean() const;

  /// Calls `take(name, value)` for each pair of a map, in order.
  template <class Take>
  void each_pair(Take&& take) const {
    if (!is(skein::Value::Type::MAP)) return;
    for (auto at = value_->begin(); at != value_->end(); ++at) {
      const std::string name((*at).text().value_or("?"));
      take(name, ReplyValue(*++at));
    }
  }
  /// Calls `take(value)` for each item of a list.
  template <class Take>
  void each_item(Take&& take) const {
    if (!is(skein::Value::Type::LIST)) return;
    for (const skein::Value item : *value_) take(ReplyValue(item));
  }

 private:
  bool is(skein::Value::Type type) const { return value_ && value_->is(type); }

  std::optional<skein::Value> value_;
};

/// Any value as JSON. Maps keep their order; a newline ends the text. `lines`: indented, or all on
/// one line.
enum class JsonLines { MANY, ONE };
std::string to_json(skein::Value value, JsonLines lines);

}  // namespace pelorus::ctl

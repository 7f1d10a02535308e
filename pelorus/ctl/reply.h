#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "skein/client.h"
#include "skein/value.h"

namespace pelorus::ctl {

struct ServerOptions;

/// Asks the local daemon once. Throws skein::ClientError.
skein::Answer ask(const ServerOptions& server, std::string_view request,
                  const skein::MsgpackWriter& args);
skein::Answer ask(const ServerOptions& server, std::string_view request);

/// A value somewhere in a reply, which may be missing: then everything below it is missing, too.
class Reading {
 public:
  explicit Reading(std::optional<skein::Value> value) : value_(value) {}

  Reading operator[](std::string_view key) const {
    return Reading(value_ && value_->is(skein::Value::Type::MAP) ? value_->find(key)
                                                                 : std::nullopt);
  }
  /// Of any number; none for everything else.
  std::optional<double> number() const;
  /// The number, or 0.
  double amount() const { return number().value_or(0); }
  /// The text as it is; empty when there is none.
  std::string text() const;
  std::optional<bool> boolean() const;
  const std::optional<skein::Value>& value() const noexcept { return value_; }

  /// Calls `take(name, reading)` for each pair of a map, in order.
  template <class Take>
  void each_pair(Take&& take) const {
    if (!value_ || !value_->is(skein::Value::Type::MAP)) return;
    for (auto at = value_->begin(); at != value_->end(); ++at) {
      const std::string name((*at).text().value_or("?"));
      take(name, Reading(*++at));
    }
  }
  /// Calls `take(reading)` for each item of a list.
  template <class Take>
  void each_item(Take&& take) const {
    if (!value_ || !value_->is(skein::Value::Type::LIST)) return;
    for (const skein::Value item : *value_) take(Reading(item));
  }

 private:
  std::optional<skein::Value> value_;
};

}  // namespace pelorus::ctl

#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "skein/value.h"

namespace pelorus {

/// Appends a decoded value as the text of a string field. The legacy senders' field texts were made
/// this way and dashboards compare against them: text as it is; integers in decimal; floats in the
/// shortest form that reads back the same, with ".0" when whole; True, False, None; lists and maps
/// as in [1, 'a'] and {'k': 2.5}, where texts are quoted.
void append_value_text(std::string& out, skein::Value value);

/// Makes one message of one record per point of a legacy submit request.
///
/// `name` is "node1.tunnel-2.link-3.state" or without the link; `points` a list of pairs of a time
/// in milliseconds and a value, which is written as a quoted text. Borrows both.
class SubmitMessages {
 public:
  SubmitMessages(std::string_view name, skein::Value points);

  /// Hands the messages of the next `most_points` points to `add`. False when the name has too few
  /// parts, a point is no pair, or a time is not a number (NaN); throws ArgumentTypeError for
  /// points that are no list and for a time that is infinite or of a kind that cannot be
  /// multiplied. Messages handed over before stay, and no more will be made.
  bool make(std::size_t most_points, const std::function<void(std::string)>& add);

  bool has_more() const noexcept { return next_ != end_; }
  std::string_view name() const noexcept { return name_; }

 private:
  std::string_view name_;
  /// Everything before the value: "link_state,node=12,tunnel=7,link=wan1 overall". None when the
  /// series name has fewer than three parts.
  std::optional<std::string> names_;
  bool are_points_;
  skein::Value::Iterator next_;
  skein::Value::Iterator end_;
};

}  // namespace pelorus

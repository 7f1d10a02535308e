#pragma once

#include <string>

#include "skein/value.h"

namespace pelorus {

/// A decoded value as the text of a string field. The legacy senders' field texts were made this
/// way and dashboards compare against them: text as it is; integers in decimal; floats in the
/// shortest form that reads back the same, with ".0" when whole; True, False, None; lists and maps
/// as in [1, 'a'] and {'k': 2.5}, where texts are quoted.
void append_value_text(std::string& out, skein::Value value);
std::string value_text(skein::Value value);

}  // namespace pelorus

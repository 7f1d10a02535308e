#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "skein/value.h"

namespace pelorus {

/// Makes one message of one record per point of a legacy submit request and hands it to `add`.
///
/// `name` is "node1.tunnel-2.link-3.state" or without the link; `points` a list of pairs of a time
/// in milliseconds and a value, which is written as a quoted text. False when the name has too few
/// parts, a point is no pair, or a time is not a number (NaN): messages made before stay handed
/// over. Throws ArgumentTypeError for points that are no list and for a time that is infinite or of
/// a kind that cannot be multiplied.
bool submit_messages(std::string_view name, skein::Value points,
                     const std::function<void(std::string)>& add);

}  // namespace pelorus

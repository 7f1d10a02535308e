#pragma once

#include <string>

#include "skein/value.h"

namespace pelorus::ctl {

/// Any value as JSON, maps in their order, with a newline at the end.
std::string to_json(skein::Value value);

}  // namespace pelorus::ctl

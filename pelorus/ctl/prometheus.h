#pragma once

#include <string>

#include "skein/value.h"

namespace pelorus::ctl {

/// The reply to "status" in Prometheus' text format, for a textfile collector. Values that the
/// reply lacks are left out. Connections are counted, not listed.
std::string prometheus_text(skein::Value status);

}  // namespace pelorus::ctl

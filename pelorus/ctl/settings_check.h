#pragma once

#include <string>
#include <vector>

#include "pelorus/pelorus/settings.h"

namespace pelorus::ctl {

/// What is wrong with settings. No text holds the value of a credential.
struct Findings {
  std::vector<std::string> errors;    ///< the daemon would not start, or would lose data
  std::vector<std::string> warnings;  ///< it would work, and somebody should know
};

/// Looks at every key as the daemon reads it, and at what they mean together. `message_bytes`: size
/// of a usual message.
Findings check_settings(const Settings& settings, double message_bytes);

}  // namespace pelorus::ctl

#pragma once

#include <string>

#include "pelorus/pelorus/listen/key_outcome.h"
#include "pelorus/pelorus/settings.h"

namespace pelorus {

/// Whether the web server's outcome confirms `key`; why not is logged, without the key and without
/// the token. Throws what is none of its ordinary answers: a failure of libcurl, SettingsError, and
/// skein::Failure for JSON that is no object.
bool is_confirmed(const std::string& key, const KeyOutcome& outcome, const Settings& settings);

}  // namespace pelorus

#pragma once

#include <functional>
#include <string>

#include "pelorus/pelorus/listen/key_answer.h"

namespace fuzz {

/// What the web server would say of a key. Programs that link this file have no other web server:
/// it stands in the place of the real KeyVerification.
extern std::function<pelorus::KeyOutcome(const std::string& key)> web_server;

}  // namespace fuzz

#pragma once

#include <functional>
#include <string>

#include "pelorus/ctl/output.h"

// Looking at a daemon again and again.
namespace pelorus::ctl {

/// What one look has found, as text that fits a room.
using Picture = std::function<std::string(const Room& room)>;

/// Looks every `seconds` until the process is interrupted, and shows what it found. On a terminal
/// each picture overwrites the last one, fits the terminal and is drawn again when that is resized;
/// a failure to reach the daemon is shown, and the next look follows. Elsewhere pictures follow
/// each other, with an empty line between them, and a failure is thrown.
[[noreturn]] void watch(double seconds, const std::function<Picture()>& look);

/// The same for programs: prints what `look` returns, one text after the other, wherever it goes.
[[noreturn]] void watch_lines(double seconds, const std::function<std::string()>& look);

}  // namespace pelorus::ctl

#pragma once

#include <string_view>

namespace pelorus {

/// Tells the service manager a state, for example "READY=1": one datagram to the socket that
/// NOTIFY_SOCKET names (a path, or an abstract name after '@'). Without it, nothing is sent.
/// Never throws for a failure to send: that is logged as a warning.
void systemd_notify(std::string_view state);

}  // namespace pelorus

#pragma once

#include <string_view>

namespace pelorus {

/// Tells the service manager a state, for example "READY=1": one datagram to the socket that
/// NOTIFY_SOCKET names (a path, or an abstract name after '@'). Without it, nothing is sent.
/// Never waits, and never throws for a failure to send: that is logged as a warning.
void systemd_notify(std::string_view state);

/// The same without the warning. Returns 0, or the error number of the failure.
int systemd_notify_quietly(std::string_view state);

}  // namespace pelorus

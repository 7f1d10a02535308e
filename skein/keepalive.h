#pragma once

namespace skein {

/// TCP keep-alive of accepted connections, mapped onto SO_KEEPALIVE, TCP_KEEPCNT, TCP_KEEPIDLE and
/// TCP_KEEPINTVL.
struct Keepalive {
  int count = 0;     ///< unanswered probes before the connection is dropped
  int idle = 0;      ///< seconds of idleness before the first probe
  int interval = 0;  ///< seconds between probes

  /// Throws SystemFailure.
  void apply(int descriptor) const;
};

}  // namespace skein

#pragma once

#include <fmt/format.h>

#include <string>

#include "../handler_fixture.h"
#include "pelorus/pelorus/settings.h"
#include "support/folder.h"
#include "support/skein_peer.h"

namespace pelorus {

/// A handler with what a listener needs besides: settings and a folder.
class ListenerTest : public HandlerTest {
 protected:
  Settings settings(const std::string& socket_path) const {
    return Settings::from_text(
        fmt::format(R"({{"INFLUX_UNIX_SOCKET": "{}", "PELORUS_SERVER": "127.0.0.1",
                        "PELORUS_PORT": 0, "LOCAL_WWW_KEY": "token"}})",
                    socket_path),
        "test");
  }
  std::string socket_path() const { return folder_ / "collectd.sock"; }

  void turns(int count = 5) {
    for (int i = 0; i < count; ++i) {
      clock_.tick(0.001);
      loop_.turn();
    }
  }

  bool logged(const std::string& level, const std::string& text) const {
    for (const auto& line : log_.texts(level)) {
      if (line == text) return true;
    }
    return false;
  }

  const support::Folder folder_;
};

}  // namespace pelorus

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

  /// With a little time in each.
  void run_loop(int count = 5) {
    for (int i = 0; i < count; ++i) {
      tick(0.001);
    }
  }

  void send(support::SkeinPeer& peer, std::string_view bytes) {
    peer.send(bytes);
    run_loop();
  }

  /// A submit request of so many good points, and bad ones behind them.
  static std::string submit(std::string_view key, std::size_t points, std::size_t bad_points = 0) {
    skein::MsgpackWriter request;
    request.list(4).natural(0).natural(1).text("submit").map(5);
    request.text("key").text(key).text("database").text("bonding").text("name");
    request.text("node1.tunnel-2.state").text("columns").nil().text("points");
    request.list(points + bad_points);
    for (std::size_t i = 0; i < points; ++i) request.list(2).integer(1500000000000).text("up");
    for (std::size_t i = 0; i < bad_points; ++i) request.nil();
    return support::frame(request);
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

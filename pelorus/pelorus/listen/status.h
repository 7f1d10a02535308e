#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/listen/session.h"
#include "skein/connection.h"
#include "skein/loops.h"
#include "skein/request.h"
#include "skein/resources.h"

// The answer to the local request "status": doc/skein_protocol.md has its members.
namespace pelorus {

class NodeServer;

/// The moment from which the counters count, by both clocks.
struct StartTime {
  double wall = 0;  ///< seconds since the epoch
  std::chrono::steady_clock::time_point monotonic;

  static StartTime now(const skein::Clocks& clocks) { return {clocks.wall(), clocks.monotonic()}; }
};

/// The connections of one server.
struct ConnectionGroup {
  struct Member {
    const skein::Connection* connection;
    const Session* session;
  };
  std::string_view name;
  std::vector<Member> members;
  std::string (*address)(const Member& member);
};

/// What a status is made of. Borrows everything.
struct StatusSources {
  const InfluxHandler& influx_handler;
  const skein::PeerCounters& peers;
  skein::Loop& loop;
  const StartTime& started;
  std::span<const ConnectionGroup> groups;
};

/// Which connections a status lists: of each group the first `most` in an order that the asker
/// chose. So the answer stays small, and the loop is not held up, however many there are.
struct ConnectionChoice {
  /// Ranks a connection: larger values come first.
  using Rank = std::array<std::uint64_t, 2> (*)(const ConnectionGroup::Member&);

  std::size_t most = 0;
  Rank rank = nullptr;

  /// From the arguments "connections" and "order", which may both be missing. Throws RequestError.
  static ConnectionChoice of(const skein::Request& request);
};

skein::MsgpackWriter write_status(const StatusSources& sources, const ConnectionChoice& choice);

}  // namespace pelorus

// Requests to the local server: a sequence of MessagePack values, each sent as one message.
#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "pelorus/pelorus/listen/local_server.h"

namespace fuzz {

void run(std::string_view input) {
  Daemon daemon;
  pelorus::LocalServer server(daemon.handler, daemon.settings, daemon.loop, *daemon.resources);
  daemon.serve(server, input);
  const auto& counted = daemon.handler.statistics();
  require(daemon.queued() == static_cast<std::size_t>(counted.messages),
          "every message is queued for the one database");
  require(counted.successful_auths + counted.failed_auths == 0, "nobody is asked for a key");
  server.close();
}

}  // namespace fuzz

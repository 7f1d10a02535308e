// The web server's answer to a node key: one whose JSON repeats the key lets the request through,
// every other does not, and neither key nor token is logged.
#include <nlohmann/json.hpp>

#include "fuzz/daemon.h"
#include "fuzz/fake_key_verification.h"
#include "fuzz/fuzz.h"
#include "fuzz/peer.h"
#include "pelorus/pelorus/listen/node_server.h"

namespace fuzz {
namespace {

constexpr const char* KEY = "0a1b2c3d4e5f";

bool confirms(std::string_view body) {
  const auto answer = nlohmann::json::parse(body, nullptr, false);
  return answer.is_object() && answer.contains("key") && answer["key"] == KEY;
}

}  // namespace

void run(std::string_view input) {
  web_server = [input](const std::string&) {
    return pelorus::KeyResponse{200, std::string(input)};
  };
  Daemon daemon;
  pelorus::NodeServer server(daemon.handler, daemon.settings, daemon.loop, *daemon.resources, "");
  Peer peer(server, daemon.loop);
  skein::MsgpackWriter request;
  request.list(4).natural(0).natural(1).text("add").map(3);
  request.text("key").text("0a1b-2c3d-4e5f").text("database").text("bonding");
  request.text("data").text("m v=1 1\n");
  peer.send(support::frame(request.bytes()));
  peer.finish();

  const auto& counted = daemon.handler.statistics();
  require(peer.messages().size() == 1, "the request is answered");
  require(daemon.queued() == (confirms(input) ? 1U : 0U),
          "a confirmed key, and no other, is let in");
  require(counted.successful_auths == (confirms(input) ? 1 : 0), "a success is counted");
  require(counted.failed_auths <= (confirms(input) ? 0 : 1), "a failure is counted once");
  daemon.require_unlogged(KEY);
  daemon.require_unlogged(TOKEN);
  server.close();
}

}  // namespace fuzz

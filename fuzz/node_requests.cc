// Requests to the node server: a sequence of MessagePack values, each sent as one message. What
// the web server says of a key hangs on the key's first letter.
#include "fuzz/daemon.h"
#include "fuzz/fake_key_verification.h"
#include "fuzz/fuzz.h"
#include "pelorus/pelorus/listen/node_server.h"
#include "skein/errors.h"

namespace fuzz {
namespace {

pelorus::KeyOutcome answer(const std::string& key) {
  switch (key.empty() ? '\0' : key.front()) {
    case 'n':
      return pelorus::KeyResponse{404, ""};
    case 't':
      return pelorus::WebFailure::TIMED_OUT;
    case 'c':
      return pelorus::WebFailure::NOT_CONNECTED;
    case 'x':
      return std::make_exception_ptr(skein::Failure("broke off"));
    case 'o':
      return pelorus::KeyResponse{200, R"({"key": "another"})"};
    default:
      return pelorus::KeyResponse{200, "{\"key\": \"" + key + "\"}"};
  }
}

}  // namespace

void run(std::string_view input) {
  web_server = answer;
  Daemon daemon;
  pelorus::NodeServer server(daemon.handler, daemon.settings, daemon.loop, *daemon.resources, "");
  daemon.serve(server, input);
  require(daemon.queued() <= static_cast<std::size_t>(daemon.handler.statistics().messages),
          "every queued message is counted");
  server.close();
}

}  // namespace fuzz

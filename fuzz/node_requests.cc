// Requests to the node server: a sequence of MessagePack values, each sent as one message. What
// the web server says of a key hangs on the key's first letter.
#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_verification.h"
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
}  // namespace fuzz

namespace pelorus {

/// One question at a time, answered at the end of the iteration.
class KeyVerification::Exchange {
 public:
  std::string key;
  Done done;
};

KeyVerification::KeyVerification(const Settings&, skein::Loop& loop, const std::string&)
    : loop_(loop), deliver_(loop, [this] { deliver(); }) {
  exchanges_.push_back(std::make_unique<Exchange>());
  idle_.push_back(exchanges_.back().get());
}

KeyVerification::~KeyVerification() = default;

void KeyVerification::do_auth_check(std::string_view key, Done done) noexcept {
  *idle_.back() = {std::string(key), std::move(done)};
  idle_.pop_back();
  deliver_.arm();
}

void KeyVerification::deliver() noexcept {
  const Exchange ended = std::move(*exchanges_.front());
  idle_.push_back(exchanges_.front().get());
  try {
    ended.done(fuzz::answer(ended.key));
  } catch (const std::exception& failure) {
    loop_.report(failure);
  }
}

}  // namespace pelorus

namespace fuzz {

void run(std::string_view input) {
  Daemon daemon;
  pelorus::NodeServer server(daemon.handler, daemon.settings, daemon.loop, *daemon.resources, "");
  daemon.serve(server, input);
  require(daemon.queued() <= static_cast<std::size_t>(daemon.handler.statistics().messages),
          "every queued message is counted");
  server.close();
}

}  // namespace fuzz

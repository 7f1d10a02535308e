#include "fuzz/fake_key_verification.h"

#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_exchange.h"
#include "pelorus/pelorus/listen/key_verification.h"

namespace fuzz {
std::function<pelorus::KeyOutcome(const std::string& key)> web_server;
}

namespace pelorus {

KeyVerification::KeyVerification(const Settings&, skein::Loop& loop, std::string)
    : next_turn_(loop, [this] { start_waiting(); }) {}

KeyVerification::~KeyVerification() = default;

void KeyVerification::do_auth_check(std::string key, Done done, FindLine line) {
  line();
  auto& waiting = lines_.front();
  waiting.push_back({std::move(key), std::move(done), std::move(line)});
  next_turn_.arm();
}

void KeyVerification::start_waiting() {
  auto& waiting = lines_.front();
  const Waiting next = std::move(waiting.front());
  waiting.pop_front();
  if (!waiting.empty()) next_turn_.arm();
  next.line();
  next.done(fuzz::web_server(next.key));
}

}  // namespace pelorus

#include "fuzz/fake_key_verification.h"

#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_exchange.h"
#include "pelorus/pelorus/listen/key_verification.h"

namespace fuzz {
std::function<pelorus::KeyOutcome(const std::string& key)> web_server;
}

namespace pelorus {

KeyVerification::KeyVerification(const Settings&, skein::Loop& loop, std::string) : loop_(loop) {}

KeyVerification::~KeyVerification() { start_timer_.cancel(); }

void KeyVerification::do_auth_check(std::string key, Done done, FindLine line) {
  line();
  auto& waiting = lines_.front();
  waiting.push_back({std::move(key), std::move(done), std::move(line)});
  if (waiting.size() == 1) start_timer_ = loop_.call_in(0, [this] { start_waiting(); });
}

void KeyVerification::start_waiting() {
  auto& waiting = lines_.front();
  const Waiting next = std::move(waiting.front());
  waiting.pop_front();
  if (!waiting.empty()) start_timer_ = loop_.call_in(0, [this] { start_waiting(); });
  next.line();
  next.done(fuzz::web_server(next.key));
}

}  // namespace pelorus

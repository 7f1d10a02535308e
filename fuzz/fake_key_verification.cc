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

void KeyVerification::do_auth_check(std::string key, Done done) {
  waiting_.push_back({std::move(key), std::move(done)});
  if (waiting_.size() == 1) start_timer_ = loop_.call_in(0, [this] { start_waiting(); });
}

void KeyVerification::start_waiting() {
  const Waiting next = std::move(waiting_.front());
  waiting_.pop_front();
  if (!waiting_.empty()) start_timer_ = loop_.call_in(0, [this] { start_waiting(); });
  next.done(fuzz::web_server(next.key));
}

}  // namespace pelorus

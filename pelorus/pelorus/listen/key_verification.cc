#include "pelorus/pelorus/listen/key_verification.h"

#include <utility>

#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_exchange.h"

namespace pelorus {
namespace {

constexpr std::size_t MAX_EXCHANGES = 8;

}  // namespace

KeyVerification::KeyVerification(const Settings& settings, skein::Loop& loop, std::string url)
    : loop_(loop), multi_(std::make_unique<CurlMulti>(loop, MAX_EXCHANGES)) {
  for (std::size_t i = 0; i < MAX_EXCHANGES; ++i) {
    exchanges_.push_back(std::make_unique<KeyExchange>(*multi_, settings, loop, url));
    idle_.push_back(exchanges_.back().get());
  }
}

KeyVerification::~KeyVerification() { start_timer_.cancel(); }

void KeyVerification::do_auth_check(std::string key, Done done) {
  waiting_.push_back({std::move(key), std::move(done)});
  if (waiting_.size() > 1) return;  // all places are taken, or the timer is running
  start_timer_.cancel();
  start_timer_ = loop_.call_in(0, [this] { start_waiting(); });
}

void KeyVerification::start_waiting() {
  while (!waiting_.empty() && !idle_.empty()) {
    KeyExchange& exchange = *idle_.back();  // the last one used: its TLS session is the freshest
    idle_.pop_back();
    Waiting next = std::move(waiting_.front());
    waiting_.pop_front();
    start(exchange, std::move(next));
  }
}

void KeyVerification::start(KeyExchange& exchange, Waiting next) {
  exchange.start(next.key, [this, &exchange, done = std::move(next.done)](KeyOutcome outcome) {
    idle_.push_back(&exchange);
    start_waiting();
    done(std::move(outcome));  // may destroy this
  });
}

}  // namespace pelorus

#include "fuzz/fake_key_verification.h"

#include <utility>

#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_verification.h"

namespace fuzz {
std::function<pelorus::KeyOutcome(const std::string& key)> web_server;
}

namespace pelorus {

/// One question at a time, answered at the end of the turn.
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
    ended.done(fuzz::web_server(ended.key));
  } catch (const std::exception& failure) {
    loop_.report(failure);
  }
}

}  // namespace pelorus

#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/key_outcome.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"

namespace pelorus {

class CurlMulti;
class KeyExchange;

/// Asks the administration web server about node keys, over HTTPS and without blocking the loop:
/// at most eight keys at a time, first come first served. A key may be asked about twice at a time;
/// whether it should be is the caller's to say. Owned by NodeServer; borrows settings and loop.
class KeyVerification {
 public:
  using Done = std::function<void(KeyOutcome)>;

  /// Throws skein::Failure.
  KeyVerification(const Settings& settings, skein::Loop& loop,
                  std::string url = std::string(NODE_KEY_VERIFICATION_API_URL));
  /// Breaks off what is under way; nobody is called back any more.
  ~KeyVerification();

  /// Sends `key`, any bytes, when its turn has come; LOCAL_WWW_KEY is read then, and the time-outs
  /// begin. `done` is called exactly once, on a later turn of the loop. It may ask again, and may
  /// destroy this.
  void do_auth_check(std::string key, Done done);

 private:
  struct Waiting {
    std::string key;
    Done done;
  };
  void start_waiting();
  void start(KeyExchange& exchange, Waiting next);

  skein::Loop& loop_;
  std::unique_ptr<CurlMulti> multi_;
  std::vector<std::unique_ptr<KeyExchange>> exchanges_;  // leave multi_ when they are destroyed
  std::vector<KeyExchange*> idle_;                       ///< those of them without a key
  std::deque<Waiting> waiting_;
  skein::Timer start_timer_;
};

}  // namespace pelorus

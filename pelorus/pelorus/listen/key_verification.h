#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/key_answer.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"

namespace pelorus {

class CurlMulti;

/// Longest time of one question in all, however steadily its answer drips.
constexpr std::chrono::seconds EXCHANGE_TIME{10};
/// Most bytes of one answer, head and body.
constexpr std::size_t MAX_ANSWER_BYTES = 64U << 10;

/// Asks the administration web server about node keys: over HTTPS, without blocking the loop, eight
/// keys at most at a time. A GET with the key form-encoded in the body and LOCAL_WWW_KEY as the
/// token; one second to connect, one for each wait for data. Which key is next is the
/// Authenticator's to say, which owns it. Borrows settings and loop.
class KeyVerification {
 public:
  using Done = std::function<void(KeyOutcome)>;

  /// Throws skein::Failure.
  KeyVerification(const Settings& settings, skein::Loop& loop,
                  const std::string& url = std::string(NODE_KEY_VERIFICATION_API_URL));
  /// Breaks off what is under way; nobody is called back any more.
  ~KeyVerification();

  /// Whether one more key can be asked about now.
  bool has_room() const noexcept { return !idle_.empty(); }
  /// Asks about `key`, any bytes. There must be room. `done` is called exactly once, on a later
  /// iteration of the loop, whatever happens. It may ask again.
  void do_auth_check(std::string_view key, Done done) noexcept;

 private:
  class Exchange;
  void deliver() noexcept;

  skein::Loop& loop_;
  std::unique_ptr<CurlMulti> multi_;
  skein::EndOfIterationTask deliver_;                 ///< for outcomes that are there
  std::vector<std::unique_ptr<Exchange>> exchanges_;  // leave multi_ when they are destroyed
  std::vector<Exchange*> idle_;                       ///< those of them without a key
};

}  // namespace pelorus

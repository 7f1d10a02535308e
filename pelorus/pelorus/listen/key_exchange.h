#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_outcome.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"

namespace pelorus {

/// Longest time of one exchange in all, however steadily its answer drips.
constexpr std::chrono::seconds EXCHANGE_TIME{10};
/// Most bytes of one answer, head and body.
constexpr std::size_t MAX_ANSWER_BYTES = 64U << 10;

/// The place of one HTTPS request to the web server at a time: GET, with the node key
/// form-encoded in the body and LOCAL_WWW_KEY as the token. Used again and again, it keeps the TLS
/// session for the next request. Owned by KeyVerification; borrows multi, settings and loop.
class KeyExchange final : private CurlTransfer {
 public:
  using Ended = std::function<void(KeyOutcome)>;

  /// Throws skein::Failure.
  KeyExchange(CurlMulti& multi, const Settings& settings, skein::Loop& loop,
              const std::string& url);
  KeyExchange(const KeyExchange&) = delete;
  KeyExchange& operator=(const KeyExchange&) = delete;
  ~KeyExchange();

  /// Sends `key`. `ended` is called once, on a later turn; the place is free then, and may be
  /// destroyed. No exchange must be under way.
  void start(std::string_view key, Ended ended);

 private:
  static curl_socket_t on_open_socket(void* self, curlsocktype, curl_sockaddr* address) noexcept;
  static int on_connected(void* self, char*, char*, int, int) noexcept;
  static std::size_t on_head(const char* bytes, std::size_t, std::size_t count,
                             void* self) noexcept;
  static std::size_t on_body(const char* bytes, std::size_t, std::size_t count,
                             void* self) noexcept;

  template <class Value>
  void set(CURLoption option, Value value);
  void set_callbacks();
  void prepare(std::string_view key);
  void wait_from_now();
  void set_connected(bool connected);
  bool accept(std::size_t count) noexcept;
  void handle_readable() override;
  void handle_end(CURLcode result) override;
  KeyOutcome outcome_of(CURLcode result);
  void end_wait(bool may_go_on);
  void end(KeyOutcome outcome);
  void deliver(KeyOutcome outcome);

  CurlMulti& multi_;
  const Settings& settings_;
  skein::Loop& loop_;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy_;
  std::array<char, CURL_ERROR_SIZE> error_text_{};  ///< libcurl's, of the present exchange
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers_;  ///< hold a secret
  std::string form_;                                                     ///< holds the key
  bool connected_ = false;    ///< TLS included: the request goes out
  std::size_t received_ = 0;  ///< bytes of the answer, head and body
  KeyResponse response_;
  skein::Timer wait_timer_;  ///< of the connecting, then of each wait for data
  skein::Timer whole_timer_;
  skein::Timer deliver_timer_;
  Ended ended_;
};

}  // namespace pelorus

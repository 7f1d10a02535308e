#include "pelorus/pelorus/listen/key_verification.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <exception>
#include <optional>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/listen/curl_multi.h"
#include "skein/profile_scope.h"
#include "skein/text.h"

namespace pelorus {
namespace {

constexpr std::size_t MAX_EXCHANGES = 8;

using FormText = std::unique_ptr<char, decltype(&curl_free)>;

void check(CURLcode code, const char* what) {
  if (code != CURLE_OK) throw skein::Failure(fmt::format("{}: {}", what, curl_easy_strerror(code)));
}

std::string form_of(CURL* easy, std::string_view key) {
  const FormText escaped(curl_easy_escape(easy, key.data(), static_cast<int>(key.size())),
                         &curl_free);
  if (!escaped) throw std::bad_alloc();
  return std::string("key=") + escaped.get();
}

/// The token as it is now. A byte that would end the header early is refused.
std::string read_token(const Settings& settings) {
  auto token = settings.get<std::string>("LOCAL_WWW_KEY");
  if (std::ranges::any_of(token, skein::is_control)) {
    throw SettingsError(fmt::format(
        "Setting LOCAL_WWW_KEY in {} must be text without control bytes", settings.source()));
  }
  return token;
}

/// What libcurl says of a head line that does not end within 100 KiB: since 8.6 CURLE_TOO_LARGE.
bool is_endless_line(CURLcode result) {
#if LIBCURL_VERSION_NUM >= 0x080600
  if (result == CURLE_TOO_LARGE) return true;
#endif
  return result == CURLE_OUT_OF_MEMORY;
}

/// A fault of this process or of the URL, not of the way to the web server.
bool is_own_fault(CURLcode result) {
  return result == CURLE_URL_MALFORMAT || result == CURLE_UNSUPPORTED_PROTOCOL ||
         result == CURLE_FAILED_INIT;
}

}  // namespace

/// The place of one question at a time. Used again and again, it keeps the TLS session for the
/// next.
class KeyVerification::Exchange final : private CurlTransfer {
 public:
  /// `ended` is armed when there is an outcome.
  Exchange(CurlMulti& multi, const Settings& settings, skein::Loop& loop, const std::string& url,
           skein::EndOfIterationTask& ended);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange();

  /// No exchange must be under way.
  void start(std::string_view key, Done done) noexcept;
  bool has_outcome() const noexcept { return outcome_.has_value(); }
  /// Calls `done` with the outcome; the exchange is free before that.
  void deliver();

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
  void end_wait(bool may_continue);
  void end(KeyOutcome outcome) noexcept;

  CurlMulti& multi_;
  const Settings& settings_;
  skein::Loop& loop_;
  skein::EndOfIterationTask& ended_;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy_;
  std::array<char, CURL_ERROR_SIZE> error_text_{};  ///< libcurl's, of the present exchange
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers_;  ///< hold a secret
  std::string form_;                                                     ///< holds the key
  bool connected_ = false;    ///< TLS included: the request goes out
  std::size_t received_ = 0;  ///< bytes of the answer, head and body
  KeyResponse response_;
  skein::Timer wait_timer_;  ///< of the connecting, then of each wait for data
  skein::Timer whole_timer_;
  Done done_;
  std::optional<KeyOutcome> outcome_;
};

KeyVerification::Exchange::Exchange(CurlMulti& multi, const Settings& settings, skein::Loop& loop,
                                    const std::string& url, skein::EndOfIterationTask& ended)
    : multi_(multi),
      settings_(settings),
      loop_(loop),
      ended_(ended),
      easy_(curl_easy_init(), &curl_easy_cleanup),
      headers_(nullptr, &curl_slist_free_all) {
  if (!easy_) throw skein::Failure("libcurl cannot be initialised");
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_CUSTOMREQUEST, "GET");  // with the body that CURLOPT_POSTFIELDS gives it
  set(CURLOPT_PROXY, "");             // not even one that the environment names
  // The web server is on this machine, and its certificate is accepted whatever it is.
  set(CURLOPT_SSL_VERIFYPEER, 0L);
  set(CURLOPT_SSL_VERIFYHOST, 0L);
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);  // breaking off does not wait for a name server
  set_callbacks();
}

KeyVerification::Exchange::~Exchange() {
  multi_.remove(easy_.get());
  wait_timer_.cancel();
  whole_timer_.cancel();
}

template <class Value>
void KeyVerification::Exchange::set(CURLoption option, Value value) {
  check(curl_easy_setopt(easy_.get(), option, value), "curl_easy_setopt");
}

void KeyVerification::Exchange::set_callbacks() {
  set(CURLOPT_PRIVATE, static_cast<CurlTransfer*>(this));
  set(CURLOPT_ERRORBUFFER, error_text_.data());
  set(CURLOPT_OPENSOCKETFUNCTION, &KeyVerification::Exchange::on_open_socket);
  set(CURLOPT_OPENSOCKETDATA, this);
  set(CURLOPT_PREREQFUNCTION, &KeyVerification::Exchange::on_connected);
  set(CURLOPT_PREREQDATA, this);
  set(CURLOPT_HEADERFUNCTION, &KeyVerification::Exchange::on_head);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &KeyVerification::Exchange::on_body);
  set(CURLOPT_WRITEDATA, this);
}

void KeyVerification::Exchange::start(std::string_view key, Done done) noexcept {
  done_ = std::move(done);
  try {
    prepare(key);
    whole_timer_ = loop_.call_in(EXCHANGE_TIME, [this] { end_wait(false); });
    set_connected(false);
    multi_.add(easy_.get());
  } catch (const std::exception&) {
    multi_.remove(easy_.get());
    end(std::current_exception());
  }
}

void KeyVerification::Exchange::prepare(std::string_view key) {
  error_text_.front() = '\0';
  received_ = 0;
  response_ = {};
  form_ = form_of(easy_.get(), key);
  const std::string authorization = "X-AUTHORIZATION: Token " + read_token(settings_);
  for (const char* line : {authorization.c_str(), "Content-Type: application/x-www-form-urlencoded",
                           "Accept:", "Expect:"}) {  // the last two: not sent
    curl_slist* longer = curl_slist_append(headers_.get(), line);
    if (longer == nullptr) throw std::bad_alloc();
    headers_.release();
    headers_.reset(longer);
  }
  set(CURLOPT_HTTPHEADER, headers_.get());
  set(CURLOPT_POSTFIELDS, form_.c_str());
  set(CURLOPT_POSTFIELDSIZE, static_cast<long>(form_.size()));
}

void KeyVerification::Exchange::wait_from_now() {
  wait_timer_.cancel();
  wait_timer_ = loop_.call_in(NODE_API_TIMEOUT, [this] { end_wait(true); });
}

void KeyVerification::Exchange::set_connected(bool connected) {
  connected_ = connected;
  wait_from_now();
}

/// A request that met a dead connection goes out again on a new one, which has its own time.
curl_socket_t KeyVerification::Exchange::on_open_socket(void* self, curlsocktype,
                                                        curl_sockaddr* address) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  curl_socket_t socket = CURL_SOCKET_BAD;
  exchange.loop_.guarded([&] {
    if (exchange.connected_) exchange.set_connected(false);
    socket = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  });
  return socket;
}

int KeyVerification::Exchange::on_connected(void* self, char*, char*, int, int) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  int result = CURL_PREREQFUNC_ABORT;
  exchange.loop_.guarded([&] {
    exchange.set_connected(true);
    result = CURL_PREREQFUNC_OK;
  });
  return result;
}

std::size_t KeyVerification::Exchange::on_head(const char*, std::size_t, std::size_t count,
                                               void* self) noexcept {
  return static_cast<Exchange*>(self)->accept(count) ? count : 0;
}

std::size_t KeyVerification::Exchange::on_body(const char* bytes, std::size_t, std::size_t count,
                                               void* self) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  std::size_t taken = 0;
  exchange.loop_.guarded([&] {
    if (!exchange.accept(count)) return;
    exchange.response_.body.append(bytes, count);
    taken = count;
  });
  return taken;
}

bool KeyVerification::Exchange::accept(std::size_t count) noexcept {
  received_ += count;
  return received_ <= MAX_ANSWER_BYTES;
}

/// While connecting, bytes change nothing: connection and TLS share one time.
void KeyVerification::Exchange::handle_readable() {
  if (connected_) wait_from_now();
}

void KeyVerification::Exchange::handle_end(CURLcode result) { end(outcome_of(result)); }

KeyOutcome KeyVerification::Exchange::outcome_of(CURLcode result) {
  if (result == CURLE_OK) {
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &response_.status);
    return std::move(response_);
  }
  if (result == CURLE_OPERATION_TIMEDOUT) return WebFailure::TIMED_OUT;
  if (received_ > MAX_ANSWER_BYTES || is_endless_line(result)) return WebFailure::TIMED_OUT;
  const bool to_connect = !connected_ || result == CURLE_COULDNT_RESOLVE_HOST;
  if (to_connect && !is_own_fault(result)) return WebFailure::NOT_CONNECTED;
  const char* text = error_text_.front() != '\0' ? error_text_.data() : curl_easy_strerror(result);
  return std::make_exception_ptr(skein::Failure(fmt::format("node key verification: {}", text)));
}

/// Data that arrived before the time-out count even if not yet read; while connecting, only a
/// complete transfer does.
void KeyVerification::Exchange::end_wait(bool may_continue) {
  const bool continues = multi_.serve_ready(easy_.get()) && may_continue && connected_;
  if (outcome_) return;  // that was the end
  if (continues) return wait_from_now();
  multi_.remove(easy_.get());
  end(WebFailure::TIMED_OUT);
}

void KeyVerification::Exchange::end(KeyOutcome outcome) noexcept {
  wait_timer_.cancel();
  whole_timer_.cancel();
  connected_ = false;
  headers_.reset();
  form_.clear();
  outcome_ = std::move(outcome);
  ended_.arm();
}

void KeyVerification::Exchange::deliver() {
  const Done done = std::exchange(done_, nullptr);
  KeyOutcome outcome = *std::exchange(outcome_, std::nullopt);
  done(std::move(outcome));
}

KeyVerification::KeyVerification(const Settings& settings, skein::Loop& loop,
                                 const std::string& url)
    : loop_(loop),
      multi_(std::make_unique<CurlMulti>(loop, MAX_EXCHANGES)),
      deliver_(loop, [this] { deliver(); }) {
  for (std::size_t i = 0; i < MAX_EXCHANGES; ++i) {
    exchanges_.push_back(std::make_unique<Exchange>(*multi_, settings, loop, url, deliver_));
    idle_.push_back(exchanges_.back().get());
  }
}

KeyVerification::~KeyVerification() = default;

void KeyVerification::do_auth_check(std::string_view key, Done done) noexcept {
  PROFILE_SCOPE();
  Exchange& exchange = *idle_.back();  // the last one used: its TLS session is the freshest
  idle_.pop_back();
  exchange.start(key, std::move(done));
}

void KeyVerification::deliver() noexcept {
  PROFILE_SCOPE();
  for (const auto& exchange : exchanges_) {
    if (!exchange->has_outcome()) continue;
    idle_.push_back(exchange.get());  // which has had its place there before
    loop_.guarded([&] { exchange->deliver(); });
  }
}

}  // namespace pelorus

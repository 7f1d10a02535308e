#include "pelorus/pelorus/listen/curl_multi.h"

#include <poll.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "skein/errors.h"
#include "skein/profile_scope.h"

namespace pelorus {
namespace {

void check(CURLMcode code, const char* call) {
  if (code != CURLM_OK) throw skein::Failure(std::string(call) + ": " + curl_multi_strerror(code));
}

/// libcurl is initialised once, and stays so to the end of the process.
CURLM* make_multi() {
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_ALL);
  CURLM* multi = initialised == CURLE_OK ? curl_multi_init() : nullptr;
  if (multi == nullptr) throw skein::Failure("libcurl cannot be initialised");
  return multi;
}

CurlTransfer& transfer(CURL* easy) {
  CurlTransfer* found = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &found);
  return *found;
}

int poll_events(int wanted) {
  return ((wanted & CURL_POLL_IN) != 0 ? UV_READABLE : 0) |
         ((wanted & CURL_POLL_OUT) != 0 ? UV_WRITABLE : 0);
}

int curl_events(int ready) {
  return ((ready & UV_READABLE) != 0 ? CURL_CSELECT_IN : 0) |
         ((ready & UV_WRITABLE) != 0 ? CURL_CSELECT_OUT : 0);
}

}  // namespace

/// One descriptor of libcurl's. It stops watching at once when libcurl is about to close the
/// descriptor, which may happen in the midst of its own callback; the loop destroys it later.
class CurlMulti::Watch : public skein::LoopOwned, private skein::PollTarget {
 public:
  Watch(CurlMulti& multi, curl_socket_t socket)
      : multi_(multi),
        socket_(socket),
        poll_(std::in_place, multi.loop_, socket, static_cast<skein::PollTarget&>(*this)) {}

  void serve(CURL* easy, int events) {
    easy_ = easy;
    watched_ = events;
    poll_->watch(events);
  }
  void stop() { poll_.reset(); }
  bool serves(CURL* easy) const { return easy_ == easy; }
  bool serve_ready() {
    pollfd now{socket_, POLLIN | POLLOUT, 0};
    if (::poll(&now, 1, 0) <= 0) return false;
    const int ready = watched_ & (((now.revents & ~POLLOUT) != 0 ? UV_READABLE : 0) |
                                  ((now.revents & ~POLLIN) != 0 ? UV_WRITABLE : 0));
    if (ready != 0) handle_events(ready);
    return ready != 0;
  }

 private:
  void handle_events(int ready) override {
    if ((ready & UV_READABLE) != 0) transfer(easy_).handle_readable();
    multi_.act(socket_, curl_events(ready));
  }

  CurlMulti& multi_;
  const curl_socket_t socket_;
  std::optional<skein::Poll> poll_;
  CURL* easy_ = nullptr;  ///< whose transfer uses the descriptor at present
  int watched_ = 0;
};

CurlMulti::CurlMulti(skein::Loop& loop, long max_idle_connections)
    : loop_(loop), multi_(make_multi()) {
  curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlMulti::on_socket);
  curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlMulti::on_timer);
  curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, max_idle_connections);
}

CurlMulti::~CurlMulti() {
  curl_multi_cleanup(multi_);  // closes the idle connections, which may call back
  timer_.cancel();
}

void CurlMulti::add(CURL* easy) {
  check(curl_multi_add_handle(multi_, easy), "curl_multi_add_handle");
}

bool CurlMulti::serve_ready(CURL* easy) noexcept {
  bool any = false;
  loop_.guarded([&] {
    std::vector<curl_socket_t> sockets;  // serving one may change what is watched
    for (const auto& [socket, watch] : watches_) {
      if (watch->serves(easy)) sockets.push_back(socket);
    }
    for (const curl_socket_t socket : sockets) {
      const auto watch = watches_.find(socket);
      any = (watch != watches_.end() && watch->second->serve_ready()) || any;
    }
  });
  return any;
}

void CurlMulti::remove(CURL* easy) noexcept { curl_multi_remove_handle(multi_, easy); }

// A descriptor that cannot be watched shows nothing, and its transfer ends by its owner's time-out.
int CurlMulti::on_socket(CURL* easy, curl_socket_t socket, int wanted, void* self, void*) noexcept {
  auto& multi = *static_cast<CurlMulti*>(self);
  multi.loop_.guarded([&] { multi.watch(easy, socket, wanted); });
  return 0;
}

int CurlMulti::on_timer(CURLM*, long milliseconds, void* self) noexcept {
  auto& multi = *static_cast<CurlMulti*>(self);
  multi.loop_.guarded([&] { multi.set_timer(milliseconds); });
  return 0;
}

void CurlMulti::watch(CURL* easy, curl_socket_t socket, int wanted) {
  if (wanted == CURL_POLL_REMOVE) {
    auto node = watches_.extract(socket);
    if (node.empty()) return;
    node.mapped()->stop();
    return loop_.discard(std::move(node.mapped()));
  }
  auto watched = watches_.find(socket);
  if (watched == watches_.end()) {
    watched = watches_.emplace(socket, std::make_unique<Watch>(*this, socket)).first;
  }
  watched->second->serve(easy, poll_events(wanted));
}

void CurlMulti::set_timer(long milliseconds) {
  timer_.cancel();
  if (milliseconds < 0) return;
  timer_ = loop_.call_in(std::chrono::milliseconds(milliseconds),
                         [this] { act(CURL_SOCKET_TIMEOUT, 0); });
}

void CurlMulti::act(curl_socket_t socket, int events) {
  PROFILE_SCOPE();
  int running = 0;
  const CURLMcode code = curl_multi_socket_action(multi_, socket, events, &running);
  report_ends();
  check(code, "curl_multi_socket_action");
}

void CurlMulti::report_ends() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    CURL* easy = message->easy_handle;
    const CURLcode result = message->data.result;  // the message dies with the removal
    remove(easy);
    transfer(easy).handle_end(result);
  }
}

}  // namespace pelorus

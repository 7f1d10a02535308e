#include "support/skein_stub.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "skein/envelope.h"

namespace support {
namespace {

constexpr auto LONGEST_WAIT = std::chrono::seconds(10);

SkeinStub::Call read_call(const skein::Message& message) {
  const skein::Envelope envelope = skein::read_envelope(message);
  SkeinStub::Call call{envelope.msgid.value_or(0), std::string(envelope.name), {}, 0};
  for (auto at = envelope.args->begin(); at != envelope.args->end(); ++at) {
    const std::string key(*(*at).text());
    if (const auto text = (*++at).text()) call.args[key] = *text;
  }
  return call;
}

}  // namespace

std::string SkeinStub::reply(const Call& call, const skein::Reply& reply) {
  return frame(skein::encode_reply(call.msgid, reply));
}

std::string SkeinStub::error(const Call& call, std::string_view text) {
  skein::MsgpackWriter reply;  // not encode_error(): the text goes out as it stands
  return frame(reply.list(4).natural(1).natural(call.msgid).text(text).nil());
}

SkeinStub::SkeinStub(Answer answer, std::string path)
    : answer_(std::move(answer)),
      path_(std::move(path)),
      listening_(skein::Socket::stream(path_.empty() ? AF_INET : AF_UNIX)) {
  path_.empty() ? skein::bind_tcp(listening_, "127.0.0.1", 0) : skein::bind_unix(listening_, path_);
  skein::listen(listening_, 8);
  thread_ = std::thread([this] { run(); });
}

SkeinStub::~SkeinStub() {
  waiter_.cancel();
  thread_.join();
  if (!path_.empty()) ::unlink(path_.c_str());
}

skein::Endpoint SkeinStub::endpoint() const {
  if (!path_.empty()) return skein::Endpoint::unix_socket(path_);
  return skein::Endpoint::tcp("127.0.0.1", std::to_string(bound_port(listening_)));
}

std::vector<SkeinStub::Call> SkeinStub::calls(std::size_t count) {
  std::unique_lock lock(mutex_);
  called_.wait_for(lock, LONGEST_WAIT, [&] { return calls_.size() >= count; });
  return calls_;
}

void SkeinStub::run() {
  try {
    for (;;) {
      waiter_.wait(listening_.descriptor(), POLLIN, skein::Waiter::Clock::now() + LONGEST_WAIT);
      skein::Socket peer(::accept(listening_.descriptor(), nullptr, nullptr));
      ++connections_;
      if (peer) serve(std::move(peer));
    }
  } catch (const skein::ClientError&) {  // cancelled: the test is over
  }
}

void SkeinStub::serve(skein::Socket socket) {
  const int descriptor = socket.descriptor();
  SkeinPeer peer(std::move(socket));
  for (bool open = true; open;) {
    waiter_.wait(descriptor, POLLIN, skein::Waiter::Clock::now() + LONGEST_WAIT);
    open = peer.receive();
    for (const std::string& content : peer.messages()) {
      if (!answer(peer, content)) return;
    }
  }
}

bool SkeinStub::answer(SkeinPeer& peer, std::string_view content) {
  skein::Message message;
  skein::MsgpackEncoder::decode(content, message);
  Call call = read_call(message);
  call.connection = connections_;
  const auto bytes = answer_(call);
  {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  called_.notify_all();
  return bytes && peer.send_now(*bytes) == bytes->size();  // else the client has gone
}

}  // namespace support

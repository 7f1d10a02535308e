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
    ++at;
    if (const auto text = (*at).text()) call.args[key] = *text;
  }
  return call;
}

std::string joined_metrics(const std::vector<SkeinStub::Call>& calls) {
  std::string all;
  for (const auto& call : calls) {
    if (call.args.contains("metrics")) all += call.args.at("metrics");
  }
  return all;
}

}  // namespace

SkeinStub::Outcome SkeinStub::reply(const Call& call, const skein::Reply& reply) {
  return {frame(skein::encode_reply(call.msgid, reply))};
}

SkeinStub::Outcome SkeinStub::error(const Call& call, std::string_view text) {
  skein::MsgpackWriter reply;  // not encode_error(): the text goes out as it stands
  return {frame(reply.list(4).natural(1).natural(call.msgid).text(text).nil().take())};
}

SkeinStub::SkeinStub(Handler handler, std::string path)
    : path_(path.empty() ? folder_ / "socket" : std::move(path)),
      handler_(std::move(handler)),
      listening_(skein::Socket::stream(AF_UNIX)) {
  ::unlink(path_.c_str());
  skein::bind_unix(listening_, path_);
  skein::listen(listening_, 8);
  thread_ = std::thread([this] { run(); });
}

SkeinStub::SkeinStub(Tcp, Handler handler)
    : handler_(std::move(handler)), listening_(skein::Socket::stream(AF_INET)) {
  skein::bind_tcp(listening_, "127.0.0.1", 0);
  skein::listen(listening_, 8);
  thread_ = std::thread([this] { run(); });
}

SkeinStub::~SkeinStub() {
  waiter_.cancel();
  thread_.join();
  if (!path_.empty()) ::unlink(path_.c_str());
}

std::vector<SkeinStub::Call> SkeinStub::calls(std::size_t count) {
  std::unique_lock lock(mutex_);
  called_.wait_for(lock, LONGEST_WAIT, [&] { return calls_.size() >= count; });
  return calls_;
}

std::string SkeinStub::metrics_with(const std::string& text) {
  std::unique_lock lock(mutex_);
  called_.wait_for(lock, LONGEST_WAIT,
                   [&] { return joined_metrics(calls_).find(text) != std::string::npos; });
  return joined_metrics(calls_);
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
  const Outcome outcome = handler_(call);
  {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
  }
  called_.notify_all();
  try {
    peer.send(outcome.bytes);
  } catch (const std::runtime_error&) {
    return false;  // the client has gone
  }
  return !outcome.close;
}

}  // namespace support

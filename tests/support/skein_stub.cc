#include "support/skein_stub.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "skein/client_error.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/framing.h"

namespace support {
namespace {

constexpr auto LONGEST_WAIT = std::chrono::seconds(10);

SkeinStub::Call read_call(const skein::Message& message) {
  const skein::Envelope envelope = skein::read_envelope(message);
  SkeinStub::Call call{envelope.msgid.value_or(0), std::string(envelope.name), {}};
  for (auto at = envelope.args->begin(); at != envelope.args->end(); ++at) {
    const std::string key(*(*at).text());
    ++at;
    if (const auto text = (*at).text()) call.args[key] = *text;
  }
  return call;
}

skein::Socket listen_unix(const std::string& path) {
  auto socket = skein::Socket::stream(AF_UNIX);
  ::unlink(path.c_str());
  skein::bind_unix(socket, path);
  skein::listen(socket, 8);
  return socket;
}

skein::Socket listen_tcp() {
  auto socket = skein::Socket::stream(AF_INET);
  skein::bind_tcp(socket, "127.0.0.1", 0);
  skein::listen(socket, 8);
  return socket;
}

std::string joined_metrics(const std::vector<SkeinStub::Call>& calls) {
  std::string all;
  for (const auto& call : calls) {
    if (call.args.contains("metrics")) all += call.args.at("metrics");
  }
  return all;
}

}  // namespace

std::string make_directory() {
  std::string name = (std::filesystem::temp_directory_path() / "skein-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  return name;
}

std::string SkeinStub::frame(std::string_view message) {
  std::string bytes;
  const std::size_t begin = skein::begin_frame(bytes);
  skein::SnappyEncoder::encode(message, bytes);
  skein::end_frame(bytes, begin);
  return bytes;
}

SkeinStub::Outcome SkeinStub::reply(const Call& call, const skein::Reply& reply) {
  return {frame(skein::encode_reply(call.msgid, reply))};
}

SkeinStub::Outcome SkeinStub::error(const Call& call, std::string_view text) {
  skein::MsgpackWriter reply;  // not encode_error(): the text goes out as it stands
  return {frame(reply.list(4).natural(1).natural(call.msgid).text(text).nil().take())};
}

SkeinStub::SkeinStub(Handler handler)
    : SkeinStub(make_directory() + "/socket", std::move(handler)) {
  directory_ = std::filesystem::path(path_).parent_path();
}

SkeinStub::SkeinStub(std::string path, Handler handler)
    : SkeinStub(listen_unix(path), std::move(handler)) {
  path_ = std::move(path);
}

SkeinStub::SkeinStub(Tcp, Handler handler) : SkeinStub(listen_tcp(), std::move(handler)) {}

SkeinStub::SkeinStub(skein::Socket listening, Handler handler)
    : handler_(std::move(handler)), listening_(std::move(listening)) {
  thread_ = std::thread([this] { run(); });
}

std::string SkeinStub::port() const {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(listening_.descriptor(), reinterpret_cast<sockaddr*>(&address), &length);
  return std::to_string(ntohs(address.sin_port));
}

SkeinStub::~SkeinStub() {
  waiter_.cancel();
  thread_.join();
  if (!path_.empty()) ::unlink(path_.c_str());
  if (!directory_.empty()) std::filesystem::remove_all(directory_);
}

std::vector<SkeinStub::Call> SkeinStub::calls(std::size_t count) {
  std::unique_lock lock(mutex_);
  called_.wait_for(lock, LONGEST_WAIT, [&] { return calls_.size() >= count; });
  return calls_;
}

std::string SkeinStub::metrics_with(const std::string& text, std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  called_.wait_for(lock, longest,
                   [&] { return joined_metrics(calls_).find(text) != std::string::npos; });
  return joined_metrics(calls_);
}

void SkeinStub::run() {
  try {
    for (;;) {
      waiter_.wait(listening_.descriptor(), POLLIN, skein::Waiter::Clock::now() + LONGEST_WAIT);
      const skein::Socket peer(::accept(listening_.descriptor(), nullptr, nullptr));
      if (peer) serve(peer);
    }
  } catch (const skein::ClientError&) {  // cancelled: the test is over
  }
}

void SkeinStub::serve(const skein::Socket& peer) {
  std::string bytes(1U << 20, '\0');
  std::string unread;
  for (;;) {
    waiter_.wait(peer.descriptor(), POLLIN, skein::Waiter::Clock::now() + LONGEST_WAIT);
    const ssize_t count = ::recv(peer.descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) continue;
    if (count <= 0) return;
    unread.append(bytes, 0, static_cast<std::size_t>(count));
    std::string_view rest = unread;
    while (const auto payload = skein::take_frame(rest)) {
      if (!answer(peer, *payload)) return;
    }
    unread.erase(0, unread.size() - rest.size());
  }
}

bool SkeinStub::answer(const skein::Socket& peer, std::string_view payload) {
  skein::SnappyEncoder decoder;
  skein::Message message;
  skein::MsgpackEncoder::decode(decoder.decode(payload), message);
  const Call call = read_call(message);
  const Outcome outcome = handler_(call);
  {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
  }
  called_.notify_all();
  ::send(peer.descriptor(), outcome.bytes.data(), outcome.bytes.size(), MSG_NOSIGNAL);
  return !outcome.close;
}

}  // namespace support

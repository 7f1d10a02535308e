// Bytes on the wire, cut in two ways: the server sees the same requests and answers alike.
#include <sys/eventfd.h>

#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/peer.h"
#include "pelorus/pelorus/ingest/submit_message.h"
#include "skein/resources.h"
#include "support/fake_clock.h"

namespace fuzz {
namespace {

std::string text_of(skein::Value value) {
  std::string text;
  pelorus::append_value_text(text, value);
  return text;
}

/// Writes down what it is asked.
class Recorder : public skein::Server {
 public:
  Recorder(skein::Loop& loop, skein::Resources& resources)
      : Server(skein::Socket(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), loop, resources) {
    answer_to("now", [this](const skein::Request& request) {
      note("now", text_of(request.args));
      return skein::Reply();
    });
    answer_to("later", [this](const skein::Request& request) {
      note("later", text_of(request.args));
      this->loop().call_in(0, [reply = defer(request)] { reply.send({}); });
      return skein::Reply::later();
    });
    answer_to("fail", [this](const skein::Request& request) -> skein::Reply {
      request.text("a");
      defer(request);
      throw skein::RequestError("failed");
    });
  }

  void handle_exception(const std::exception& failure) override { note("failure", failure.what()); }
  void handle_protocol_error(skein::Connection&, const skein::ProtocolError& fault) override {
    note("fault", fault.what());
  }

  std::string take_events() { return std::exchange(events_, {}); }

 private:
  void note(std::string_view kind, std::string_view text) {
    events_.append(kind).append(" ").append(text).append("\n");
  }

  std::string events_;
};

struct Seen {
  std::string events;
  std::string replies;
};

Seen serve(const std::vector<std::string_view>& pieces) {
  static support::FakeClock clock;
  static skein::Loop loop(clock.clocks());
  static skein::Resources resources(loop);
  static Recorder server(loop, resources);
  Peer peer(server, loop);
  for (const auto piece : pieces) peer.send(piece);
  peer.finish();
  require(server.connection_count() == 0, "no connection is left");
  return {server.take_events(), peer.received()};
}

}  // namespace

void run(std::string_view input) {
  const auto seed = take_byte(input);
  const Seen whole = serve({input});
  const Seen cut = serve(pieces(input, seed));
  require(whole.events == cut.events, "the same requests for every cutting");
  require(whole.replies == cut.replies, "the same replies for every cutting");
}

}  // namespace fuzz

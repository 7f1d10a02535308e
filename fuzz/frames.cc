// Bytes on the wire, cut in two ways: the server sees the same requests and answers alike.
#include <sys/eventfd.h>

#include <array>
#include <string>

#include "fuzz/fuzz.h"
#include "fuzz/peer.h"
#include "pelorus/pelorus/ingest/submit_message.h"
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
  explicit Recorder(skein::Loop& loop)
      : Server(skein::Socket(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), loop) {}

  void handle_exception(const std::exception& failure) override { note("failure", failure.what()); }
  void handle_protocol_error(skein::Connection&, const skein::ProtocolError& fault) override {
    note("fault", fault.what());
  }

  skein::Reply req_now(const skein::Request& request) {
    note("now", text_of(request.args));
    return {};
  }
  /// Answers on a later turn.
  skein::Reply req_later(const skein::Request& request) {
    note("later", text_of(request.args));
    loop().call_in(0, [held = request.connection.hold()] { held.answer({}); });
    return skein::Reply::later();
  }
  skein::Reply req_fail(const skein::Request& request) {
    request.text("a");
    request.connection.hold();
    throw skein::RequestError("failed");
  }

  std::string take_events() { return std::exchange(events_, {}); }

 protected:
  std::span<const skein::RequestRow> requests() const override {
    static constexpr std::array<skein::RequestRow, 3> REQUESTS{{
        {"now", skein::RequestHandler<&Recorder::req_now>::handle},
        {"later", skein::RequestHandler<&Recorder::req_later>::handle},
        {"fail", skein::RequestHandler<&Recorder::req_fail>::handle},
    }};
    return REQUESTS;
  }

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
  static Recorder server(loop);
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

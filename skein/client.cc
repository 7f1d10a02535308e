#include "skein/client.h"

#include <fmt/format.h>

#include <utility>

#include "skein/envelope.h"
#include "skein/errors.h"
#include "skein/framing.h"
#include "skein/limits.h"
#include "skein/text.h"

namespace skein {
namespace {

using Kind = ClientError::Kind;

/// The rest of a longer error of a server is cut off.
constexpr std::size_t MAX_ERROR_TEXT = 1000;

}  // namespace

Answer::Answer(std::string_view payload) {
  MsgpackEncoder::decode(content_.decode(payload), message_);
  if (!is_reply(message_)) throw ProtocolError("what came is no reply");
}

Value Answer::item(int index) const noexcept {
  auto at = message_.root().begin();
  while (index-- > 0) ++at;
  return *at;
}

Client::Client(Endpoint endpoint, Timeouts timeouts)
    : endpoint_(std::move(endpoint)), timeouts_(timeouts) {}

void Client::open() {
  close();
  stream_.emplace(endpoint_, waiter_, Waiter::Clock::now() + timeouts_.connect);
}

Answer Client::call(std::string_view name, const MsgpackWriter& args) {
  if (!stream_) throw ClientError(Kind::LOST, "not connected to " + endpoint_.text());
  try {
    send(name, args);
    Answer answer = receive();
    if (answer.error().is(Value::Type::NIL)) return answer;
    throw ClientError(Kind::SERVER,
                      without_controls(answer.error().text()->substr(0, MAX_ERROR_TEXT)));
  } catch (const ClientError& error) {
    if (error.kind() != Kind::SERVER) close();
    throw;
  } catch (...) {
    close();
    throw;
  }
}

void Client::send(std::string_view name, const MsgpackWriter& args) {
  const std::string request = encode_request(++msgid_, name, args);
  if (request.size() > MAX_CONTENT_BYTES) {
    throw ProtocolError(
        fmt::format("a request of {} bytes, {} are allowed", request.size(), MAX_CONTENT_BYTES));
  }
  std::string frame;
  append_frame(request, frame);
  stream_->send(frame, Waiter::Clock::now() + timeouts_.send);
}

Answer Client::receive() {
  const auto deadline = Waiter::Clock::now() + timeouts_.receive;
  try {
    for (;;) {
      std::string bytes;
      while (const std::size_t missing = missing_to_frame(bytes)) {
        stream_->receive(bytes, missing, deadline);
      }
      std::string_view unread = bytes;
      Answer answer(*take_frame(unread));
      if (!answer.msgid().is_number(msgid_)) continue;
      if (!answer.error().is(Value::Type::NIL) && !answer.error().text()) {
        throw ProtocolError("the error of the reply is no text");
      }
      return answer;
    }
  } catch (const ProtocolError& error) {
    throw ClientError(Kind::LOST,
                      fmt::format("{} sent what is no skein: {}", endpoint_.text(), error.what()));
  }
}

}  // namespace skein

#include "skein/client.h"

#include <fmt/format.h>

#include <utility>

#include "skein/errors.h"
#include "skein/framing.h"
#include "skein/limits.h"

namespace skein {
namespace {

using Kind = ClientError::Kind;

constexpr std::uint64_t REQUEST = 0;
constexpr std::uint64_t REPLY = 1;
/// Enough of a server's error for a person.
constexpr std::size_t MAX_ERROR_TEXT = 1000;

bool is_number(Value value, std::uint64_t number) {
  return value.is(Value::Type::UNSIGNED) && value.natural() == number;
}

/// Fit for a terminal and a log: no control bytes, no end of paper.
std::string readable(std::string_view text) {
  std::string shown(text.substr(0, MAX_ERROR_TEXT));
  for (char& byte : shown) {
    if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F) byte = '?';
  }
  return shown;
}

std::string frame_of(const std::string& message) {
  if (message.size() > MAX_CONTENT_BYTES) {
    throw ProtocolError(
        fmt::format("a request of {} bytes, {} are allowed", message.size(), MAX_CONTENT_BYTES));
  }
  std::string frame;
  const std::size_t begin = begin_frame(frame);
  SnappyEncoder::encode(message, frame);
  end_frame(frame, begin);
  return frame;
}

/// The items of `[1, msgid, error, result]`.
struct ReplyItems {
  Value msgid;
  Value error;
  Value result;
};

ReplyItems items_of(const Message& message) {
  const Value root = message.root();
  if (!root.is(Value::Type::LIST) || root.size() != 4 || !is_number(*root.begin(), REPLY)) {
    throw ProtocolError("what came is no reply");
  }
  auto item = root.begin();
  const Value msgid = *++item;
  const Value error = *++item;
  return {msgid, error, *++item};
}

}  // namespace

Value Answer::result() const noexcept { return items_of(message_).result; }

Client::Client(Endpoint endpoint, Timeouts timeouts)
    : endpoint_(std::move(endpoint)), timeouts_(timeouts) {}

void Client::open() {
  close();
  stream_.emplace(endpoint_, waiter_, Waiter::Clock::now() + timeouts_.connect);
}

Answer Client::call(std::string_view name, const MsgpackWriter& args) {
  if (!stream_) throw ClientError(Kind::LOST, "not connected to " + endpoint_.text());
  Answer answer;
  std::optional<std::string> error;
  try {
    send(name, args);
    error = receive(answer);
  } catch (...) {
    close();
    throw;
  }
  if (error) throw ClientError(Kind::SERVER, *error);
  return answer;
}

void Client::send(std::string_view name, const MsgpackWriter& args) {
  MsgpackWriter request;
  request.list(4).natural(REQUEST).natural(++msgid_).text(name).encoded(args.bytes());
  stream_->send(frame_of(request.bytes()), Waiter::Clock::now() + timeouts_.send);
}

std::optional<std::string> Client::receive(Answer& answer) {
  const auto deadline = Waiter::Clock::now() + timeouts_.receive;
  try {
    for (;;) {
      receive_message(answer, deadline);
      const ReplyItems reply = items_of(answer.message_);
      if (!is_number(reply.msgid, msgid_)) continue;
      if (reply.error.is(Value::Type::NIL)) return std::nullopt;
      const auto text = reply.error.text();
      if (!text) throw ProtocolError("the error of the reply is no text");
      return readable(*text);
    }
  } catch (const ProtocolError& error) {
    throw ClientError(Kind::LOST,
                      fmt::format("{} sent what is no skein: {}", endpoint_.text(), error.what()));
  }
}

void Client::receive_message(Answer& answer, Waiter::Clock::time_point deadline) {
  std::string bytes;
  while (const std::size_t missing = missing_to_frame(bytes)) {
    stream_->receive(bytes, missing, deadline);
  }
  std::string_view unread = bytes;
  MsgpackEncoder::decode(answer.content_.decode(*take_frame(unread)), answer.message_);
}

}  // namespace skein

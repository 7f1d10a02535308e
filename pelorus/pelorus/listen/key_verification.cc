#include "pelorus/pelorus/listen/key_verification.h"

#include <utility>

#include "pelorus/pelorus/listen/curl_multi.h"
#include "pelorus/pelorus/listen/key_exchange.h"

namespace pelorus {
namespace {

constexpr std::size_t MAX_EXCHANGES = 8;

}  // namespace

KeyVerification::KeyVerification(const Settings& settings, skein::Loop& loop, std::string url)
    : multi_(std::make_unique<CurlMulti>(loop, MAX_EXCHANGES)),
      next_turn_(loop, [this] { start_waiting(); }) {
  for (std::size_t i = 0; i < MAX_EXCHANGES; ++i) {
    exchanges_.push_back(std::make_unique<KeyExchange>(*multi_, settings, loop, url));
    idle_.push_back(exchanges_.back().get());
  }
}

KeyVerification::~KeyVerification() = default;

void KeyVerification::do_auth_check(std::string key, Done done, FindLine line) {
  line_up({std::move(key), std::move(done), std::move(line)});
  if (!idle_.empty()) next_turn_.arm();
}

void KeyVerification::line_up(Waiting waiting) {
  auto& line = lines_.at(static_cast<std::size_t>(waiting.line()));
  line.push_back(std::move(waiting));
}

std::optional<KeyVerification::Waiting> KeyVerification::take_next() {
  for (std::size_t i = 0; i < LINES; ++i) {
    while (!lines_[i].empty()) {
      Waiting next = std::move(lines_[i].front());
      lines_[i].pop_front();
      if (static_cast<std::size_t>(next.line()) <= i) return next;
      line_up(std::move(next));
    }
  }
  return std::nullopt;
}

void KeyVerification::start_waiting() {
  while (!idle_.empty()) {
    std::optional<Waiting> next = take_next();
    if (!next) return;
    KeyExchange& exchange = *idle_.back();  // the last one used: its TLS session is the freshest
    idle_.pop_back();
    start(exchange, *std::move(next));
  }
}

void KeyVerification::start(KeyExchange& exchange, Waiting next) {
  exchange.start(next.key, [this, &exchange, done = std::move(next.done)](KeyOutcome outcome) {
    idle_.push_back(&exchange);
    start_waiting();
    done(std::move(outcome));  // may destroy this
  });
}

}  // namespace pelorus

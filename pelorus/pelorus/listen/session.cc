#include "pelorus/pelorus/listen/session.h"

#include <algorithm>

#include "skein/text.h"

namespace pelorus {
namespace {

/// As much of a key as may be shown.
constexpr std::size_t SHOWN_KEY_CHARACTERS = 4;

}  // namespace

std::string_view key_ending(std::string_view key) {
  std::size_t begin = key.size();
  for (std::size_t characters = 0; begin > 0 && characters < SHOWN_KEY_CHARACTERS; --begin) {
    if (!skein::is_utf8_continuation(key[begin - 1])) ++characters;
  }
  return key.substr(begin);
}

void SessionCounters::note_key(std::string_view key) noexcept {
  std::string_view ending = pelorus::key_ending(key);
  if (ending.size() == key.size()) ending = {};
  if (ending.size() > key_ending_.size()) {
    ending.remove_prefix(ending.size() - key_ending_.size());
    while (!ending.empty() && skein::is_utf8_continuation(ending.front())) ending.remove_prefix(1);
  }
  key_ending_ = {};
  // The bound says what the lines above ensure, for compilers that look at the size alone.
  ending.copy(key_ending_.data(), key_ending_.size());
}

std::string_view SessionCounters::key_ending() const noexcept {
  const auto end = std::ranges::find(key_ending_, '\0');
  return {key_ending_.begin(), end};
}

const SessionCounters::Errors& SessionCounters::errors() const noexcept {
  static const Errors NONE;
  return errors_ ? *errors_ : NONE;
}

}  // namespace pelorus

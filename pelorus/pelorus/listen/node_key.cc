#include "pelorus/pelorus/listen/node_key.h"

#include <fmt/format.h>

#include <string_view>

#include "pelorus/pelorus/listen/complete_lines.h"
#include "skein/errors.h"

namespace pelorus {
namespace {

/// Longer ones are no keys and are not worth a web request.
constexpr std::size_t MOST_KEY_BYTES = 128;

/// Whether `given` is `key`, which has no dashes, with dashes anywhere.
bool spells(std::string_view given, std::string_view key) {
  if (given.size() == key.size()) return given == key;
  std::size_t at = 0;
  for (const char c : given) {
    if (c == '-') continue;
    if (at == key.size() || key[at++] != c) return false;
  }
  return at == key.size();
}

}  // namespace

NodeKey::NodeKey(const skein::Request& request, CollectdConnection& connection) {
  const std::string_view given = request.text("key");
  if (given.size() > MOST_KEY_BYTES) {
    throw skein::RequestError(
        fmt::format("argument 'key' has {} bytes, {} are allowed", given.size(), MOST_KEY_BYTES));
  }
  if (connection.verified_key != nullptr && spells(given, connection.verified_key->first)) {
    verified_ = connection.verified_key;
    return;
  }
  connection.verified_key = nullptr;
  text_ = given;
  std::erase(text_, '-');
  connection.counters.note_key(text_);
}

}  // namespace pelorus

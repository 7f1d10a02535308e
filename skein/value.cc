#include "skein/value.h"

namespace skein {

std::optional<std::string_view> Value::text() const noexcept {
  if (is(Type::TEXT) || is(Type::BYTES)) return bytes();
  return std::nullopt;
}

std::optional<Value> Value::find(std::string_view key) const noexcept {
  std::optional<Value> found;
  for (auto at = begin(); at != end(); ++at) {
    const Value name = *at;
    ++at;
    if (name.text() == key) found = *at;
  }
  return found;
}

}  // namespace skein

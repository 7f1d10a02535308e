#include "skein/value.h"

#include <algorithm>

namespace skein {

std::optional<Value> Value::find(std::string_view key) const noexcept {
  std::optional<Value> found;
  for (auto at = begin(); at != end(); ++at) {
    const Value name = *at;
    ++at;
    if (name.text() == key) found = *at;
  }
  return found;
}

/// Texts lie in the frame in the order of their nodes: one copy from the first to the last.
OwnedValue::OwnedValue(Value value) : nodes_(&value.node(), &value.node() + value.node().span) {
  const auto has_bytes = [](const Value::Node& node) {
    return node.type == Value::Type::TEXT || node.type == Value::Type::BYTES ||
           node.type == Value::Type::EXTENSION;
  };
  const auto first = std::find_if(nodes_.begin(), nodes_.end(), has_bytes);
  if (first == nodes_.end()) return;
  const auto last = std::find_if(nodes_.rbegin(), nodes_.rend(), has_bytes);
  const char* const begin = first->bytes;
  bytes_.assign(begin, last->bytes + last->size);
  for (auto& node : nodes_) {
    if (has_bytes(node)) node.bytes = bytes_.data() + (node.bytes - begin);
  }
}

}  // namespace skein

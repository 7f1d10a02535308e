#include "skein/value.h"

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

OwnedValue::OwnedValue(Value value) : nodes_(&value.node(), &value.node() + value.node().span) {
  const auto has_bytes = [](const Value::Node& node) {
    return node.type == Value::Type::TEXT || node.type == Value::Type::BYTES ||
           node.type == Value::Type::EXTENSION;
  };
  std::size_t size = 0;
  for (const auto& node : nodes_) size += has_bytes(node) ? node.size : 0;
  bytes_.reserve(size);  // the views below stay good
  for (auto& node : nodes_) {
    if (!has_bytes(node)) continue;
    bytes_.append(node.bytes, node.size);
    node.bytes = bytes_.data() + bytes_.size() - node.size;
  }
}

}  // namespace skein

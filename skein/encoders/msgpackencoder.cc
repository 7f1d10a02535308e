#include "skein/encoders/msgpackencoder.h"

#include <fmt/format.h>
#include <algorithm>

#include <array>
#include <bit>
#include <limits>
#include <msgpack.hpp>

#include "skein/errors.h"
#include "skein/limits.h"
#include "skein/profile_scope.h"

namespace skein {
namespace {

/// A value takes so many bytes or more, as a rule.
constexpr std::size_t BYTES_PER_NODE = 4;

/// Appends a node per visited value; refuses with ProtocolError, which passes through the parser.
class NodeVisitor : public msgpack::null_visitor {
 public:
  explicit NodeVisitor(std::vector<Value::Node>& nodes) : nodes_(nodes) {}

  bool visit_nil() {
    add(Value::Type::NIL);
    return true;
  }
  bool visit_boolean(bool value) {
    add(Value::Type::BOOLEAN).integer = value ? 1 : 0;
    return true;
  }
  bool visit_positive_integer(std::uint64_t value) {
    add(Value::Type::UNSIGNED).natural = value;
    return true;
  }
  bool visit_negative_integer(std::int64_t value) {
    add(Value::Type::INTEGER).integer = value;
    return true;
  }
  bool visit_float32(float value) { return visit_float64(static_cast<double>(value)); }
  bool visit_float64(double value) {
    add(Value::Type::REAL).real = value;
    return true;
  }
  bool visit_str(const char* bytes, std::uint32_t size) {
    return add_bytes(Value::Type::TEXT, bytes, size);
  }
  bool visit_bin(const char* bytes, std::uint32_t size) {
    return add_bytes(Value::Type::BYTES, bytes, size);
  }
  bool visit_ext(const char* bytes, std::uint32_t size) {
    return add_bytes(Value::Type::EXTENSION, bytes, size);
  }
  bool start_array(std::uint32_t size) { return open(Value::Type::LIST, size); }
  bool end_array() { return close(); }
  bool start_map(std::uint32_t size) { return open(Value::Type::MAP, size); }
  bool end_map() { return close(); }

  void parse_error(std::size_t, std::size_t) { throw ProtocolError("content is no MessagePack"); }
  void insufficient_bytes(std::size_t, std::size_t) {
    throw ProtocolError("content ends inside a MessagePack value");
  }

 private:
  Value::Node& add(Value::Type type) {
    Value::Node& node = nodes_.emplace_back();
    node.type = type;
    return node;
  }

  bool add_bytes(Value::Type type, const char* bytes, std::uint32_t size) {
    Value::Node& node = add(type);
    node.size = size;
    node.bytes = bytes;
    return true;
  }

  bool open(Value::Type type, std::uint32_t size) {
    if (depth_ == MAX_NESTING) {
      throw ProtocolError(fmt::format("content nested more than {} deep", MAX_NESTING));
    }
    elements_ += size;
    if (elements_ > MAX_ELEMENTS) {
      throw ProtocolError(
          fmt::format("content of {} elements or more, {} are allowed", elements_, MAX_ELEMENTS));
    }
    open_[depth_++] = nodes_.size();
    add(type).size = size;
    return true;
  }

  bool close() {
    const std::size_t begin = open_[--depth_];
    nodes_[begin].span = static_cast<std::uint32_t>(nodes_.size() - begin);
    return true;
  }

  std::vector<Value::Node>& nodes_;
  std::array<std::size_t, MAX_NESTING> open_;  ///< the first `depth_` of them
  std::size_t depth_ = 0;
  std::size_t elements_ = 0;
};

/// Lets the packer append to a std::string.
struct Appender {
  std::string& bytes;
  void write(const char* data, std::size_t size) { bytes.append(data, size); }
};

template <class Pack>
void pack_into(std::string& bytes, Pack&& pack) {
  Appender appender{bytes};
  msgpack::packer<Appender> packer(appender);
  pack(packer);
}

std::uint32_t checked_size(std::size_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max()) {
    throw ProtocolError("a value of 4 GiB or more cannot be encoded");
  }
  return static_cast<std::uint32_t>(size);
}

}  // namespace

void MsgpackEncoder::decode(std::string_view content, Message& message) {
  PROFILE_SCOPE();
  message.nodes.clear();
  // Growing by doubling would copy those of a large message again and again.
  message.nodes.reserve(std::min(content.size() / BYTES_PER_NODE, MAX_ELEMENTS));
  NodeVisitor visitor(message.nodes);
  std::size_t offset = 0;
  if (content.empty() || !msgpack::parse(content.data(), content.size(), offset, visitor)) {
    throw ProtocolError("content is no MessagePack");
  }
  if (offset != content.size()) {
    throw ProtocolError(
        fmt::format("{} bytes behind the MessagePack value", content.size() - offset));
  }
}

MsgpackWriter& MsgpackWriter::nil() {
  pack_into(bytes_, [](auto& packer) { packer.pack_nil(); });
  return *this;
}

MsgpackWriter& MsgpackWriter::boolean(bool value) {
  pack_into(bytes_, [&](auto& packer) { value ? packer.pack_true() : packer.pack_false(); });
  return *this;
}

MsgpackWriter& MsgpackWriter::integer(std::int64_t value) {
  pack_into(bytes_, [&](auto& packer) { packer.pack_int64(value); });
  return *this;
}

MsgpackWriter& MsgpackWriter::natural(std::uint64_t value) {
  pack_into(bytes_, [&](auto& packer) { packer.pack_uint64(value); });
  return *this;
}

MsgpackWriter& MsgpackWriter::real(double value) {
  // The library's packer turns a whole double into an integer; readers rely on the type.
  constexpr char FLOAT64 = '\xcb';
  auto bits = std::bit_cast<std::uint64_t>(value);
  std::array<char, 1 + sizeof bits> encoded{FLOAT64};
  for (std::size_t i = encoded.size(); i-- > 1; bits >>= 8U) {
    encoded[i] = static_cast<char>(bits & 0xFFU);
  }
  bytes_.append(encoded.data(), encoded.size());
  return *this;
}

MsgpackWriter& MsgpackWriter::text(std::string_view value) {
  const std::uint32_t size = checked_size(value.size());
  pack_into(bytes_, [&](auto& packer) {
    packer.pack_str(size);
    packer.pack_str_body(value.data(), size);
  });
  return *this;
}

MsgpackWriter& MsgpackWriter::list(std::size_t size) {
  pack_into(bytes_, [&](auto& packer) { packer.pack_array(checked_size(size)); });
  return *this;
}

MsgpackWriter& MsgpackWriter::map(std::size_t size) {
  pack_into(bytes_, [&](auto& packer) { packer.pack_map(checked_size(size)); });
  return *this;
}

MsgpackWriter& MsgpackWriter::encoded(std::string_view value) {
  bytes_.append(value);
  return *this;
}

}  // namespace skein

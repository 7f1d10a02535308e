#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// One decoded MessagePack value, as a view: 8 bytes, valid as long as its Message is.
/// Texts are views into the decoded frame.
class Value {
 public:
  enum class Type : std::uint8_t {
    NIL,
    BOOLEAN,
    INTEGER,
    UNSIGNED,
    REAL,
    TEXT,
    BYTES,
    LIST,
    MAP,
    EXTENSION
  };

  /// A value and everything inside it lie behind each other in a Message, parents first.
  struct Node {
    Type type = Type::NIL;
    std::uint32_t size = 0;  ///< bytes of a text, items of a list, pairs of a map
    std::uint32_t span = 1;  ///< nodes from this one to its next sibling
    union {
      std::int64_t integer = 0;  ///< negative integers, booleans
      std::uint64_t natural;
      double real;
      const char* bytes;
    };
  };

  explicit Value(const Node& node) noexcept : node_(&node) {}
  const Node& node() const noexcept { return *node_; }

  Type type() const noexcept { return node_->type; }
  bool is(Type type) const noexcept { return node_->type == type; }

  /// Whether it is this natural number.
  bool is_number(std::uint64_t number) const noexcept {
    return is(Type::UNSIGNED) && natural() == number;
  }

  bool boolean() const noexcept { return node_->integer != 0; }
  std::int64_t integer() const noexcept { return node_->integer; }
  std::uint64_t natural() const noexcept { return node_->natural; }
  double real() const noexcept { return node_->real; }
  /// The bytes of a TEXT, BYTES or EXTENSION.
  std::string_view bytes() const noexcept { return {node_->bytes, node_->size}; }
  /// The text where text is expected: TEXT, or BYTES as it is; none for every other type.
  std::optional<std::string_view> text() const noexcept {
    if (is(Type::TEXT) || is(Type::BYTES)) return bytes();
    return std::nullopt;
  }

  /// Items of a LIST, pairs of a MAP, bytes of a text.
  std::size_t size() const noexcept { return node_->size; }

  /// Walks the items of a LIST, or the keys and values of a MAP in turn.
  class Iterator {
   public:
    explicit Iterator(const Node* node) noexcept : node_(node) {}
    Value operator*() const noexcept { return Value(*node_); }
    Iterator& operator++() noexcept {
      node_ += node_->span;
      return *this;
    }
    bool operator==(const Iterator&) const = default;

   private:
    const Node* node_;
  };
  Iterator begin() const noexcept { return Iterator(node_ + 1); }
  Iterator end() const noexcept { return Iterator(node_ + node_->span); }

  /// The value under a text key of a MAP, the last one if it stands there twice; none if absent.
  std::optional<Value> find(std::string_view key) const noexcept;

 private:
  const Node* node_;
};

/// A value that stands by itself: a copy of a Value with everything inside it. Not copyable, since
/// its texts are views into itself.
class OwnedValue {
 public:
  explicit OwnedValue(Value value);
  OwnedValue(const OwnedValue&) = delete;
  OwnedValue& operator=(const OwnedValue&) = delete;

  Value value() const noexcept { return Value(nodes_.front()); }
  /// Memory that it takes up.
  std::size_t bytes() const noexcept { return nodes_.size() * sizeof nodes_[0] + bytes_.size(); }

 private:
  std::vector<Value::Node> nodes_;
  std::string bytes_;
};

/// The nodes of one decoded message; reused from message to message.
struct Message {
  std::vector<Value::Node> nodes;

  /// The outermost value. There is one as soon as the message was decoded.
  Value root() const noexcept { return Value(nodes.front()); }
};

}  // namespace skein

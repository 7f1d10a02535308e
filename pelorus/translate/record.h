#pragma once

#include <array>
#include <cstddef>

#include "pelorus/translate/parts.h"
#include "pelorus/translate/text.h"

namespace translate {

/// ",KEY=" as it goes to the wire.
template <Padded KEY>
consteval auto tag_begin() {
  Padded<KEY.SIZE + 3> text{};  // comma, equals sign and the end that every literal has
  text.bytes[0] = ',';
  std::copy_n(KEY.bytes.begin(), KEY.SIZE, text.bytes.begin() + 1);
  text.bytes[KEY.SIZE + 1] = '=';
  return text;
}

/// A tag whose key is a literal.
template <Padded KEY, class Value = Text<1>>
struct Tag {
  Value value;

  static constexpr std::size_t key_size() noexcept { return KEY.SIZE; }
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    static constexpr auto BEGIN = tag_begin<KEY>();
    return value.write(copy_in_steps(out, BEGIN.piece()));
  }
};

/// A tag whose key comes from the data.
struct AnyTag {
  Piece key;
  Text<1> value;

  std::size_t key_size() const noexcept { return key.size; }
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    *out++ = ',';
    out = copy_in_steps(out, key);
    *out++ = '=';
    return value.write(out);
  }
};

template <Padded KEY>
Tag<KEY> tag(Piece value) noexcept {
  return {text(value)};
}
template <Padded KEY, std::size_t COUNT>
Tag<KEY, Replaced<COUNT>> tag(Replaced<COUNT> value) noexcept {
  return {value};
}
inline AnyTag tag(Piece key, Piece value) noexcept { return {key, text(value)}; }

/// Sizes of what a record's names consist of, by which they can be told apart.
struct NameSizes {
  struct OfTag {
    std::size_t key = 0;
    std::size_t value = 0;
  };
  std::size_t measurement = 0;
  std::size_t key = 0;
  std::array<OfTag, 3> tags{};  ///< the node, and at most two of a rule
  std::size_t tag_count = 0;
};

/// Where a rule writes the names of its record, "measurement,tag=value… key=", the tags in the
/// order in which they are given, behind the one of the source. A rule writes once or not at all.
class Record {
 public:
  /// Room at `out` for whatever the parts come to, in steps. `sizes` may be null.
  Record(const Parts& parts, char* out, NameSizes* sizes) noexcept
      : parts_(parts), out_(out), sizes_(sizes) {}

  /// The source's tag, the first of each record.
  void set_node(Piece identifier) noexcept { node_ = identifier; }
  bool has_node() const noexcept { return node_.data != nullptr; }

  /// Nothing is written, and the fault is returned, if one of the parts was missing or the key is
  /// empty.
  template <class Measurement, class Key, class... Tags>
  [[gnu::always_inline]] Outcome write(const Measurement& measurement, const Key& key,
                                       const Tags&... tags) noexcept {
    return write_texts(as_text(measurement), as_text(key), tags...);
  }

  /// Behind what was written.
  char* end() const noexcept { return out_; }

 private:
  static Text<1> as_text(Piece piece) noexcept { return text(piece); }
  template <class AnyText>
  static const AnyText& as_text(const AnyText& text) noexcept {
    return text;
  }

  template <class Measurement, class Key, class... Tags>
  [[gnu::always_inline]] Outcome write_texts(const Measurement& measurement, const Key& key,
                                             const Tags&... tags) noexcept {
    using namespace literals;
    if (parts_.fault() != Outcome::TRANSLATED) return parts_.fault();
    if (key.size() == 0) return Outcome::KEY_MISSING;
    char* out = measurement.write(out_);
    if (has_node()) out = copy_in_steps(copy_in_steps(out, ",node="_p), node_);
    ((out = tags.write(out)), ...);
    *out++ = ' ';
    out = key.write(out);
    *out++ = '=';
    out_ = out;
    if (sizes_ != nullptr) [[unlikely]] {
      std::size_t count = 0;
      if (has_node()) sizes_->tags[count++] = {"node"_p.size, node_.size};
      ((sizes_->tags[count++] = {tags.key_size(), tags.value.size()}), ...);
      sizes_->measurement = measurement.size();
      sizes_->key = key.size();
      sizes_->tag_count = count;
    }
    return Outcome::TRANSLATED;
  }

  const Parts& parts_;
  char* out_;
  NameSizes* sizes_;
  Piece node_{nullptr, 0};
};

}  // namespace translate

#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "pelorus/translate/parts.h"
#include "pelorus/translate/slice.h"

namespace translate {

/// The names of one record as separate strings.
struct TranslatedSeries {
  std::string measurement;
  std::string key;
  std::vector<std::pair<std::string, std::string>> tags;  ///< in their order on the wire
};

/// What a concatenation writes, as a string by itself.
template <class Names>
[[gnu::cold, gnu::noinline]] std::string to_string(const Names& names) {
  std::string text(names.size() + COPY_STEP, '\0');
  text.resize(static_cast<std::size_t>(names.write(text.data()) - text.data()));
  return text;
}

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
template <Padded KEY, class Value = Concatenation<1>>
struct Tag {
  Value value;

  static std::string key_text() { return std::string(KEY.slice().view()); }
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    static constexpr auto BEGIN = tag_begin<KEY>();
    return value.write(copy_in_steps(out, BEGIN.slice()));
  }
};

/// A tag whose key comes from the data.
struct AnyTag {
  Slice key;
  Concatenation<1> value;

  std::string key_text() const { return std::string(key.view()); }
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    *out++ = ',';
    out = copy_in_steps(out, key);
    *out++ = '=';
    return value.write(out);
  }
};

template <Padded KEY>
Tag<KEY> tag(Slice value) noexcept {
  return {concat(value)};
}
template <Padded KEY, std::size_t COUNT>
Tag<KEY, Replaced<COUNT>> tag(Replaced<COUNT> value) noexcept {
  return {value};
}
inline AnyTag tag(Slice key, Slice value) noexcept { return {key, concat(value)}; }

/// Where a rule writes the names of its record: "measurement,tag=value… key=", the tag of the
/// source first, then the rule's tags in the order in which they are given. A rule writes once or
/// not at all.
class Record {
 public:
  /// `out` has room for names_bytes_at_most. `separate`, which may be null, receives the names one
  /// by one as well: the bytes at `out` cannot be parsed again, since nothing in them is escaped.
  Record(const Parts& parts, char* out, TranslatedSeries* separate) noexcept
      : parts_(parts), out_(out), separate_(separate) {}

  /// The source's tag, the first of each record.
  void set_node(Slice identifier) noexcept { node_ = identifier; }
  bool has_node() const noexcept { return node_.data != nullptr; }

  /// If one of the parts was missing or the key is empty, writes nothing and returns the fault.
  template <class Measurement, class Key, class... Tags>
  [[gnu::always_inline]] Outcome write(const Measurement& measurement, const Key& key,
                                       const Tags&... tags) {
    return write_names(as_names(measurement), as_names(key), tags...);
  }

  /// The end of what was written.
  char* end() const noexcept { return out_; }

 private:
  static Concatenation<1> as_names(Slice slice) noexcept { return concat(slice); }
  template <class Names>
  static const Names& as_names(const Names& names) noexcept {
    return names;
  }

  template <class Measurement, class Key, class... Tags>
  [[gnu::always_inline]] Outcome write_names(const Measurement& measurement, const Key& key,
                                             const Tags&... tags) {
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
    if (separate_ != nullptr) [[unlikely]] {
      separate_->measurement = to_string(measurement);
      separate_->key = to_string(key);
      if (has_node()) separate_->tags.emplace_back("node", node_.view());
      (separate_->tags.emplace_back(tags.key_text(), to_string(tags.value)), ...);
    }
    return Outcome::TRANSLATED;
  }

  const Parts& parts_;
  char* out_;
  TranslatedSeries* separate_;
  Slice node_{nullptr, 0};
};

}  // namespace translate

#include "pelorus/pelorus/ingest/submit_message.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <span>
#include <utility>

#include "pelorus/pelorus/errors.h"
#include "pelorus/translate/parts.h"
#include "skein/profile_scope.h"
#include "skein/text.h"

namespace pelorus {
namespace {

using Type = skein::Value::Type;
using translate::drop_prefix;
using translate::Slice;

constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1'000'000;

/// "link_state,node=12,tunnel=7,link=wan1 overall" of "node12.tunnel_7.link_wan1.overall_state";
/// none when the name has fewer than three parts.
std::optional<std::string> names_of(std::string_view name) {
  translate::Parts parts(name);
  const Slice node = drop_prefix(parts[0], "node");
  const Slice tunnel = drop_prefix(parts[1], "tunnel-");
  const Slice third = parts[2];
  if (parts.fault() != translate::Outcome::TRANSLATED) return std::nullopt;
  const bool of_link = starts_with(third, "link");
  std::string names = fmt::format("{},node={},tunnel={}", of_link ? "link_state" : "tunnel_state",
                                  node.view(), tunnel.view());
  if (of_link) names += fmt::format(",link={}", drop_prefix(third, "link-").view());
  const std::string_view last = name.substr(name.rfind('.') + 1);
  return fmt::format("{} {}", names, last == "overall_state" ? "overall" : last);
}

/// A product that fits 64 bits, as nearly all do, is printed at a fraction of the cost.
template <class Milliseconds>
void append_nanoseconds_of(std::string& out, Milliseconds time) {
  std::int64_t product = 0;
  if (!__builtin_mul_overflow(time, NANOSECONDS_PER_MILLISECOND, &product)) {
    const fmt::format_int digits(product);
    out.append(digits.data(), digits.size());
  } else {
    out += fmt::format("{}", __int128{time} * NANOSECONDS_PER_MILLISECOND);
  }
}

/// The digits before the point. Formatting a number of 300 digits in any other way takes a
/// hundred times as long as everything else about a point.
void append_whole(std::string& out, double number) {
  std::array<char, std::numeric_limits<double>::max_exponent10 + 4> digits{};
  const double whole = std::trunc(number) + 0.0;  // "+ 0.0": no "-0"
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), whole,
                                 std::chars_format::fixed, 0);
  out.append(digits.data(), end.ptr);
}

/// Appends the nanoseconds of a time in milliseconds, printed whole. False for NaN.
bool append_nanoseconds(std::string& out, skein::Value time) {
  switch (time.type()) {
    case Type::BOOLEAN:  // counts as 0 or 1
    case Type::INTEGER:
      append_nanoseconds_of(out, time.integer());
      return true;
    case Type::UNSIGNED:
      append_nanoseconds_of(out, time.natural());
      return true;
    case Type::REAL:
      break;
    default:
      throw ArgumentTypeError("a point's time is no number");
  }
  const double product = time.real() * static_cast<double>(NANOSECONDS_PER_MILLISECOND);
  if (std::isnan(product)) return false;
  if (std::isinf(product)) throw ArgumentTypeError("a point's time is infinite");
  append_whole(out, product);
  return true;
}

bool is_pair(skein::Value point) { return point.is(Type::LIST) && point.size() == 2; }

/// Shortest digits that read back the same; an exponent from 1e16 up and below 1e-4.
std::string_view real_text(double value, std::span<char> digits) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  constexpr double FIRST_WITH_EXPONENT = 1e16;
  constexpr double LAST_WITH_EXPONENT = 1e-4;
  const double size = std::fabs(value);
  const bool exponent = size >= FIRST_WITH_EXPONENT || (size < LAST_WITH_EXPONENT && size > 0);
  char* end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                            exponent ? std::chars_format::scientific : std::chars_format::fixed)
                  .ptr;
  if (!exponent && std::find(digits.data(), end, '.') == end) end = std::copy_n(".0", 2, end);
  return {digits.data(), end};
}

/// As display() without its "b"; UTF-8 characters beyond ASCII stand as they are.
void append_quoted(std::string& out, std::string_view text) {
  const char quote = skein::display_quote(text);
  out += quote;
  while (!text.empty()) {
    const std::size_t length = skein::utf8_length(text);
    if (length > 1) {
      out += text.substr(0, length);
    } else {
      skein::append_display_byte(out, text.front(), quote);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  out += quote;
}

void append_item(std::string& out, skein::Value value) {
  if (value.is(Type::TEXT)) return append_quoted(out, value.bytes());
  if (value.is(Type::BYTES)) return skein::append_display(out, value.bytes());
  append_value_text(out, value);
}

void append_list(std::string& out, skein::Value list) {
  std::string_view separator;
  out += '[';
  for (const skein::Value item : list) {
    out += std::exchange(separator, ", ");
    append_item(out, item);
  }
  out += ']';
}

void append_map(std::string& out, skein::Value map) {
  std::string_view separator;
  out += '{';
  for (auto at = map.begin(); at != map.end(); ++at) {
    out += std::exchange(separator, ", ");
    append_item(out, *at);
    out += ": ";
    append_item(out, *++at);
  }
  out += '}';
}

}  // namespace

void append_value_text(std::string& out, skein::Value value) {
  std::array<char, 64> digits{};
  switch (value.type()) {
    case Type::NIL:
      out += "None";
      break;
    case Type::BOOLEAN:
      out += value.boolean() ? "True" : "False";
      break;
    case Type::INTEGER:
      out.append(digits.data(), fmt::format_to(digits.data(), FMT_COMPILE("{}"), value.integer()));
      break;
    case Type::UNSIGNED:
      out.append(digits.data(), fmt::format_to(digits.data(), FMT_COMPILE("{}"), value.natural()));
      break;
    case Type::REAL:
      out += real_text(value.real(), digits);
      break;
    case Type::TEXT:
    case Type::BYTES:
      out += value.bytes();
      break;
    case Type::LIST:
      append_list(out, value);
      break;
    case Type::MAP:
      append_map(out, value);
      break;
    case Type::EXTENSION:
      skein::append_display(out, value.bytes());
      break;
  }
}

SubmitMessages::SubmitMessages(std::string_view name, skein::Value points)
    : name_(name),
      names_(names_of(name)),
      are_points_(points.is(Type::LIST)),
      next_(points.begin()),
      end_(are_points_ ? points.end() : next_) {}

bool SubmitMessages::make(std::size_t most_points, const std::function<void(std::string)>& add) {
  PROFILE_SCOPE();
  auto point = std::exchange(next_, end_);  // after a failure nothing is left to make
  if (!names_) return false;
  if (!are_points_) throw ArgumentTypeError("argument 'points' is no list");
  std::string value, time;
  for (; point != end_ && most_points > 0; ++point, --most_points) {
    if (!is_pair(*point)) return false;
    auto item = (*point).begin();
    time.clear();
    if (!append_nanoseconds(time, *item)) return false;
    value.clear();
    append_value_text(value, *++item);
    std::string line;
    line.reserve(names_->size() + value.size() + time.size() + 5);
    line.append(*names_).append("=\"").append(value).append("\" ").append(time) += '\n';
    add(std::move(line));
  }
  next_ = point;
  return true;
}

}  // namespace pelorus

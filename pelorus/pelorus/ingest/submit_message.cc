#include "pelorus/pelorus/ingest/submit_message.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <optional>

#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/value_text.h"
#include "pelorus/translate/parts.h"

namespace pelorus {
namespace {

using Type = skein::Value::Type;
using translate::past;
using translate::Piece;

constexpr std::int64_t NANOSECONDS_PER_MILLISECOND = 1'000'000;

/// "link_state,node=12,tunnel=7,link=wan1 overall" of "node12.tunnel_7.link_wan1.overall_state";
/// none when the name has fewer than three parts.
std::optional<std::string> names_of(std::string_view name) {
  translate::Parts parts(name);
  const Piece node = past(parts[0], "node");
  const Piece tunnel = past(parts[1], "tunnel-");
  const Piece third = parts[2];
  if (parts.fault() != translate::Outcome::TRANSLATED) return std::nullopt;
  const bool of_link = starts_with(third, "link");
  std::string names = fmt::format("{},node={},tunnel={}", of_link ? "link_state" : "tunnel_state",
                                  node.view(), tunnel.view());
  if (of_link) names += fmt::format(",link={}", past(third, "link-").view());
  const std::string_view last = name.substr(name.rfind('.') + 1);
  return fmt::format("{} {}", names, last == "overall_state" ? "overall" : last);
}

/// A product that fits 64 bits, as nearly all do, is printed at a fraction of the cost.
template <class Milliseconds>
std::string nanoseconds_text_of(Milliseconds time) {
  std::int64_t product = 0;
  if (!__builtin_mul_overflow(time, NANOSECONDS_PER_MILLISECOND, &product)) {
    return fmt::format_int(product).str();
  }
  return fmt::format("{}", __int128{time} * NANOSECONDS_PER_MILLISECOND);
}

/// Nanoseconds of a time in milliseconds, printed whole; none for NaN.
std::optional<std::string> nanoseconds_text(skein::Value time) {
  switch (time.type()) {
    case Type::BOOLEAN:  // counts as 0 or 1
    case Type::INTEGER:
      return nanoseconds_text_of(time.integer());
    case Type::UNSIGNED:
      return nanoseconds_text_of(time.natural());
    case Type::REAL:
      break;
    default:
      throw ArgumentTypeError("a point's time is no number");
  }
  const double product = time.real() * static_cast<double>(NANOSECONDS_PER_MILLISECOND);
  if (std::isnan(product)) return std::nullopt;
  if (std::isinf(product)) throw ArgumentTypeError("a point's time is infinite");
  return fmt::format("{:.0f}", std::trunc(product) + 0.0);  // "+ 0.0": no "-0"
}

bool is_pair(skein::Value point) { return point.is(Type::LIST) && point.size() == 2; }

}  // namespace

bool submit_messages(std::string_view name, skein::Value points,
                     const std::function<void(std::string)>& add) {
  const auto names = names_of(name);
  if (!names) return false;
  if (!points.is(Type::LIST)) throw ArgumentTypeError("argument 'points' is no list");
  for (const skein::Value point : points) {
    if (!is_pair(point)) return false;
    auto item = point.begin();
    const auto time = nanoseconds_text(*item);
    if (!time) return false;
    add(fmt::format("{}=\"{}\" {}\n", *names, value_text(*++item), *time));
  }
  return true;
}

}  // namespace pelorus

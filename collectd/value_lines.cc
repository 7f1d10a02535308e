#include "collectd/value_lines.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

namespace write_skein {
namespace {

constexpr std::string_view BREAKS_A_RECORD = ",=\\";

bool is_address(std::string_view text) {
  const std::string name(text);
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return inet_pton(AF_INET, name.c_str(), address.data()) == 1 ||
         inet_pton(AF_INET6, name.c_str(), address.data()) == 1;
}

void append_name(std::string& out, std::string_view name, bool keep_dots = false) {
  for (const char byte : name) {
    const bool blank = static_cast<unsigned char>(byte) <= 0x20 || byte == 0x7F;
    const bool dot = byte == '.' && !keep_dots;
    const bool breaks = BREAKS_A_RECORD.find(byte) != std::string_view::npos;
    out += blank || dot || breaks ? '_' : byte;
  }
}

/// "host.plugin-instance.type-instance."
std::string prefix_of(const Identifier& id) {
  std::string prefix;
  append_name(prefix, id.host);
  append_name(prefix += '.', id.plugin);
  if (!id.plugin_instance.empty()) append_name(prefix += '-', id.plugin_instance);
  append_name(prefix += '.', id.type);
  if (!id.type_instance.empty()) {
    // A peer of ntpd may also be a host name, whose dots the daemon restores as well.
    const bool keep_dots = id.plugin == "ntpd" || is_address(id.type_instance);
    append_name(prefix += '-', id.type_instance, keep_dots);
  }
  return prefix += '.';
}

template <class T>
std::string text_of(T number) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
  return {text.data(), end};
}

/// None for a number that is left out.
std::optional<std::string> shown(double number) {
  if (!std::isfinite(number)) return std::nullopt;
  std::string text = text_of(number);
  if (text.find('.') == text.npos) text.insert(std::min(text.find('e'), text.size()), ".0");
  return text;
}

std::optional<std::string> shown(std::int64_t count) {
  if (count < 0) return std::nullopt;
  return text_of(count);
}

std::optional<std::string> shown(std::uint64_t count) {
  if (count > std::numeric_limits<std::int64_t>::max()) return std::nullopt;
  return text_of(count);
}

}  // namespace

void append_lines(const Identifier& identifier, std::span<const Sample> samples,
                  std::int64_t seconds, std::string& out) {
  const std::string prefix = prefix_of(identifier);
  const std::string time = text_of(seconds);
  for (const Sample& sample : samples) {
    const auto number = std::visit([](auto kind) { return shown(kind); }, sample.number);
    if (!number) continue;
    out += prefix;
    append_name(out, sample.source);
    out.append(" ").append(*number).append(" ").append(time).append("\n");
  }
}

}  // namespace write_skein

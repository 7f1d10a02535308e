#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace write_skein {

/// What collectd calls a value list's identifier. Borrowed texts; instances may be empty.
struct Identifier {
  std::string_view host;
  std::string_view plugin;
  std::string_view plugin_instance;
  std::string_view type;
  std::string_view type_instance;
};

/// A gauge or a rate; an absolute count that may fall (DERIVE); one that may not.
using Number = std::variant<double, std::int64_t, std::uint64_t>;

/// One data source of a value list. Borrowed name.
struct Sample {
  std::string_view source;
  Number number;
};

/// Appends a line "host.plugin[-instance].type[-instance].source number seconds\n" per sample.
///
/// Dots, blanks and control bytes in the names become "_", and so do "," "=" and "\", which would
/// break the record that the line becomes in InfluxDB. The dots of an address in the type instance
/// stay: the daemon puts the peers of ntpd together again.
///
/// A number keeps its kind, because InfluxDB refuses a field that is a float now and an integer
/// later: a double always has a decimal point, a count never. Left out are doubles that are not
/// finite, counts beyond 2^63-1, and counts below 0, which the daemon would write as floats.
void append_lines(const Identifier& identifier, std::span<const Sample> samples,
                  std::int64_t seconds, std::string& out);

}  // namespace write_skein

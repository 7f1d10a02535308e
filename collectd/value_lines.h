#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace write_skein {

/// The identifier of a value list, as collectd calls it. The texts are borrowed; instances may be
/// empty.
struct Identifier {
  std::string_view host;
  std::string_view plugin;
  std::string_view plugin_instance;
  std::string_view type;
  std::string_view type_instance;
};

/// A gauge or a rate; a count that may fall (DERIVE); a count that only grows.
using Number = std::variant<double, std::int64_t, std::uint64_t>;

/// One data source of a value list. The name is borrowed.
struct Sample {
  std::string_view source;
  Number number;
};

/// Appends one line "host.plugin[-instance].type[-instance].source number seconds\n" per sample.
///
/// In names, dots, blanks and control bytes become "_". So do "," "=" and "\", which would break
/// the record that the line becomes in InfluxDB. An address in the type instance keeps its dots:
/// the daemon joins the parts of a peer of ntpd again.
///
/// A number keeps its kind, because InfluxDB refuses a field whose type changes: a double always
/// has a decimal point, a count never has one. Doubles that are not finite are left out, and so are
/// counts above 2^63-1 and counts below 0, which the daemon would write as floats.
void append_lines(const Identifier& identifier, std::span<const Sample> samples,
                  std::int64_t seconds, std::string& out);

}  // namespace write_skein

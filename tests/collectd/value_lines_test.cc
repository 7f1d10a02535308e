#include "collectd/value_lines.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace write_skein {
namespace {

std::string line(const Identifier& identifier, const Sample& sample) {
  std::string out;
  append_lines(identifier, std::vector{sample}, 1700000000, out);
  return out;
}

TEST(ValueLines, SeriesNamesKeepOnlyTheDotsBetweenTheirParts) {
  const struct {
    Identifier identifier;
    const char* source;
    std::string series;
  } rows[] = {
      {{"m000", "load", "", "load", ""}, "shortterm", "m000.load.load.shortterm"},
      {{"node1234", "cpu", "3", "cpu", "idle"}, "value", "node1234.cpu-3.cpu-idle.value"},
      {{"n.a b", "df", "var\tlog", "df_complex", "x.y\n"},
       "v",
       "n_a_b.df-var_log.df_complex-x_y_.v"},
      {{"m000", "processes", "a,b=c\\", "ps_rss", ""}, "v", "m000.processes-a_b_c_.ps_rss.v"},
      {{"m000", "ntpd", "", "delay", "10.0.0.1"}, "value", "m000.ntpd.delay-10.0.0.1.value"},
      {{"m000", "ntpd", "", "delay", "a.org"}, "value", "m000.ntpd.delay-a.org.value"},
      {{"m000", "ping", "", "ping", "::ffff:10.0.0.1"}, "v", "m000.ping.ping-::ffff:10.0.0.1.v"},
      {{"m000", "ping", "10.0.0.1", "ping", "a.org"}, "v", "m000.ping-10_0_0_1.ping-a_org.v"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(line(row.identifier, {row.source, 1.5}), row.series + " 1.5 1700000000\n");
  }
}

TEST(ValueLines, NumbersKeepTheirKindOrStayOut) {
  constexpr auto MAX_COUNT = std::uint64_t{1} << 63U;
  const struct {
    Number number;
    std::string text;  ///< empty: left out
  } rows[] = {
      {0.0, "0.0"},
      {100.0, "100.0"},
      {-3.0, "-3.0"},
      {0.1, "0.1"},
      {1e22, "1.0e+22"},
      {1.5e-9, "1.5e-09"},
      {5e-324, "5.0e-324"},
      {std::numeric_limits<double>::max(), "1.7976931348623157e+308"},
      {std::numeric_limits<double>::quiet_NaN(), ""},
      {-std::numeric_limits<double>::infinity(), ""},
      {std::int64_t{42}, "42"},
      {std::int64_t{-1}, ""},
      {std::uint64_t{0}, "0"},
      {MAX_COUNT - 1, "9223372036854775807"},
      {MAX_COUNT, ""},
  };
  for (const auto& row : rows) {
    const std::string expected = row.text.empty() ? "" : "m000.p.t.v " + row.text + " 1700000000\n";
    EXPECT_EQ(line({"m000", "p", "", "t", ""}, {"v", row.number}), expected);
  }
}

}  // namespace
}  // namespace write_skein

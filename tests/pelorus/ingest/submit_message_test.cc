#include "pelorus/pelorus/ingest/submit_message.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <vector>

#include "pelorus/pelorus/errors.h"
#include "skein/encoders/msgpackencoder.h"

namespace pelorus {
namespace {

using skein::MsgpackWriter;
using Write = std::function<void(MsgpackWriter&)>;

constexpr const char* LINK = "node12.tunnel_7.link_wan1.overall_state";

/// The messages of one request; "!" after them if the request ended with the warning.
std::vector<std::string> submitted(std::string_view name, const Write& points) {
  MsgpackWriter writer;
  points(writer);
  skein::Message message;
  skein::MsgpackEncoder::decode(writer.bytes(), message);
  std::vector<std::string> lines;
  SubmitMessages messages(name, message.root());
  do {
    if (!messages.make(1, [&](std::string line) { lines.push_back(std::move(line)); })) {
      lines.emplace_back("!");
    }
  } while (messages.has_more());
  return lines;
}

/// The text of the record of one point at `time`.
std::vector<std::string> at(const Write& time) {
  return submitted(LINK, [&](MsgpackWriter& w) {
    w.list(1).list(2);
    time(w);
    w.text("up");
  });
}

std::string shown(const Write& value) {
  MsgpackWriter writer;
  value(writer);
  skein::Message message;
  skein::MsgpackEncoder::decode(writer.bytes(), message);
  std::string text;
  append_value_text(text, message.root());
  return text;
}

TEST(SubmitMessage, NamesGiveMeasurementTagsAndKey) {
  const auto point = [](MsgpackWriter& w) { w.list(1).list(2).integer(1500000000000).text("up"); };
  const struct {
    const char* name;
    const char* begin;
  } rows[] = {{LINK, "link_state,node=12,tunnel=7,link=wan1 overall="},
              {"node12.tunnel-7.state", "tunnel_state,node=12,tunnel=7 state="},
              {"n.t.link", "link_state,node=,tunnel=,link= link="}};
  for (const auto& row : rows) {
    EXPECT_EQ(submitted(row.name, point),
              std::vector{std::string(row.begin) + "\"up\" 1500000000000000000\n"});
  }
  EXPECT_EQ(submitted("node12.tunnel_7", point), std::vector<std::string>{"!"});
}

TEST(SubmitMessage, TimesOfEveryNumberArePrintedWhole) {
  const std::string begin = "link_state,node=12,tunnel=7,link=wan1 overall=\"up\" ";
  const struct {
    Write time;
    const char* nanoseconds;
  } rows[] = {
      {[](auto& w) { w.integer(-5); }, "-5000000"},
      {[](auto& w) { w.natural(18446744073709551615U); }, "18446744073709551615000000"},
      {[](auto& w) { w.real(1.9999999); }, "1999999"},
      {[](auto& w) { w.real(-1.9999999); }, "-1999999"},
      {[](auto& w) { w.real(-1e-9); }, "0"},
      {[](auto& w) { w.real(1e24); }, "1000000000000000019884624838656"},
      {[](auto& w) { w.boolean(true); }, "1000000"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(at(row.time), std::vector{begin + row.nanoseconds + "\n"});
  }
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(at([&](auto& w) { w.real(infinity - infinity); }), std::vector<std::string>{"!"});
  EXPECT_THROW(at([&](auto& w) { w.real(infinity); }), ArgumentTypeError);
  EXPECT_THROW(at([&](auto& w) { w.real(1e305); }), ArgumentTypeError);
  EXPECT_THROW(at([](auto& w) { w.text("1"); }), ArgumentTypeError);
  EXPECT_THROW(at([](auto& w) { w.nil(); }), ArgumentTypeError);
  EXPECT_THROW(submitted(LINK, [](auto& w) { w.nil(); }), ArgumentTypeError);
}

TEST(SubmitMessage, PointsBeforeOneThatIsNoPairStay) {
  const auto lines = submitted(LINK, [](MsgpackWriter& w) {
    w.list(3).list(2).integer(1).integer(1).list(3).integer(2).nil().nil().list(2).nil().nil();
  });
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[1], "!");
}

TEST(ValueText, EveryKindReadsAsTheLegacySendersWroteIt) {
  const struct {
    Write value;
    const char* text;
  } rows[] = {
      {[](auto& w) { w.text("it's \"x\""); }, "it's \"x\""},
      {[](auto& w) { w.integer(-7); }, "-7"},
      {[](auto& w) { w.natural(18446744073709551615U); }, "18446744073709551615"},
      {[](auto& w) { w.real(3); }, "3.0"},
      {[](auto& w) { w.real(0.1); }, "0.1"},
      {[](auto& w) { w.real(-0.0); }, "-0.0"},
      {[](auto& w) { w.real(1e16); }, "1e+16"},
      {[](auto& w) { w.real(123456789012345680); }, "1.2345678901234568e+17"},
      {[](auto& w) { w.real(9007199254740992); }, "9007199254740992.0"},
      {[](auto& w) { w.real(0.0001); }, "0.0001"},
      {[](auto& w) { w.real(0.00001); }, "1e-05"},
      {[](auto& w) { w.real(-std::numeric_limits<double>::infinity()); }, "-inf"},
      {[](auto& w) { w.boolean(true); }, "True"},
      {[](auto& w) { w.nil(); }, "None"},
      {[](auto& w) { w.list(2).integer(1).text("a'\n\xc3\xa9"); }, "[1, \"a'\\n\xc3\xa9\"]"},
      {[](auto& w) { w.map(2).text("k").real(2.5).integer(3).list(0); }, "{'k': 2.5, 3: []}"},
  };
  for (const auto& row : rows) EXPECT_EQ(shown(row.value), row.text);
}

}  // namespace
}  // namespace pelorus

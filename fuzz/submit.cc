// A legacy submit request, as MessagePack [name, points].
#include "pelorus/pelorus/ingest/submit_message.h"

#include <fmt/format.h>

#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/errors.h"
#include "skein/encoders/msgpackencoder.h"

namespace fuzz {
namespace {

using Type = skein::Value::Type;

constexpr std::size_t POINTS_PER_STEP = 3;

std::string behind(const std::string& part, std::size_t count) {
  return part.size() < count ? "" : part.substr(count);
}

/// What the records of `name` begin with; empty when the name has too few parts.
std::string begin_of_records(std::string_view name) {
  std::vector<std::string> parts(1);
  for (const char c : name) c == '.' ? parts.emplace_back() : parts.back() += c;
  if (parts.size() < 3) return "";
  const bool of_link = parts[2].starts_with("link");
  return fmt::format("{},node={},tunnel={}{} {}=\"", of_link ? "link_state" : "tunnel_state",
                     behind(parts[0], 4), behind(parts[1], 7),
                     of_link ? ",link=" + behind(parts[2], 5) : "",
                     parts.back() == "overall_state" ? "overall" : parts.back());
}

void submit(std::string_view name, skein::Value points) {
  const std::string begin = begin_of_records(name);
  std::size_t count = 0;
  pelorus::SubmitMessages messages(name, points);
  const auto add = [&](const std::string& line) {
    require(!begin.empty() && line.starts_with(begin), "a record begins with the names");
    require(line.find("\" ", begin.size()) != line.npos && line.ends_with('\n'),
            "a quoted value, a time and a line end follow");
    ++count;
  };
  bool read = messages.make(POINTS_PER_STEP, add);
  while (read && messages.has_more()) read = messages.make(POINTS_PER_STEP, add);
  require(!messages.has_more(), "a fault ends it");
  require(!read || count == points.size(), "one message per point");
}

}  // namespace

void run(std::string_view input) {
  skein::Message message;
  try {
    skein::MsgpackEncoder::decode(input, message);
  } catch (const skein::ProtocolError&) {
    return;
  }
  const skein::Value root = message.root();
  if (!root.is(Type::LIST) || root.size() != 2) return;
  auto item = root.begin();
  const auto name = (*item).text();
  if (!name) return;
  const skein::OwnedValue points(*++item);
  try {
    submit(*name, points.value());
  } catch (const pelorus::ArgumentTypeError&) {
  }
}

}  // namespace fuzz

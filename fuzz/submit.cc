// A legacy submit request, as MessagePack [name, points]: made in steps it gives the same records
// as at once.
#include "pelorus/pelorus/ingest/submit_message.h"

#include <cstdint>
#include <string>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/errors.h"
#include "skein/encoders/msgpackencoder.h"

namespace fuzz {
namespace {

using Type = skein::Value::Type;

/// The records of the points, made so many at a time, and why they end early.
std::string submit(std::string_view name, skein::Value points, std::size_t step) {
  std::string records;
  try {
    pelorus::SubmitMessages messages(name, points);
    const auto add = [&records](const std::string& line) { records += line; };
    bool read = messages.make(step, add);
    while (read && messages.has_more()) read = messages.make(step, add);
    require(!messages.has_more(), "a fault ends it");
    return read ? records : records + "unreadable";
  } catch (const pelorus::ArgumentTypeError& fault) {
    return records + fault.what();
  }
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
  require(submit(*name, points.value(), 3) == submit(*name, points.value(), SIZE_MAX),
          "the same records in steps and at once");
}

}  // namespace fuzz

#include "pelorus/ctl/json.h"

#include <nlohmann/json.hpp>

namespace pelorus::ctl {
namespace {

using nlohmann::ordered_json;
using skein::Value;

ordered_json json_of(Value value);

ordered_json json_of_list(Value list) {
  ordered_json items = ordered_json::array();
  for (const Value item : list) items.push_back(json_of(item));
  return items;
}

ordered_json json_of_map(Value map) {
  ordered_json pairs = ordered_json::object();
  for (auto at = map.begin(); at != map.end(); ++at) {
    const std::string key((*at).text().value_or("?"));
    pairs[key] = json_of(*++at);
  }
  return pairs;
}

ordered_json json_of(Value value) {
  switch (value.type()) {
    case Value::Type::NIL:
      return nullptr;
    case Value::Type::BOOLEAN:
      return value.boolean();
    case Value::Type::INTEGER:
      return value.integer();
    case Value::Type::UNSIGNED:
      return value.natural();
    case Value::Type::REAL:
      return value.real();
    case Value::Type::TEXT:
    case Value::Type::BYTES:
    case Value::Type::EXTENSION:
      return std::string(value.bytes());
    case Value::Type::LIST:
      return json_of_list(value);
    case Value::Type::MAP:
      return json_of_map(value);
  }
  return nullptr;
}

}  // namespace

std::string to_json(Value value) {
  // Text that is not UTF-8 is shown with replacement characters rather than refused.
  return json_of(value).dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace pelorus::ctl

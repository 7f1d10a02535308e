#include "pelorus/ctl/reply.h"

#include <nlohmann/json.hpp>

#include "pelorus/ctl/options.h"

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

skein::Answer ask(const ServerOptions& server, std::string_view request,
                  const skein::MsgpackWriter& args) {
  skein::Client client(server.endpoint(), server.timeouts());
  client.open();
  return client.call(request, args);
}

skein::Answer ask(const ServerOptions& server, std::string_view request) {
  skein::MsgpackWriter no_args;
  return ask(server, request, no_args.map(0));
}

ReplyValue ReplyValue::operator[](std::string_view key) const {
  return ReplyValue(is(Value::Type::MAP) ? value_->find(key) : std::nullopt);
}

std::optional<double> ReplyValue::number() const {
  if (is(Value::Type::REAL)) return value_->real();
  if (is(Value::Type::UNSIGNED)) return static_cast<double>(value_->natural());
  if (is(Value::Type::INTEGER)) return static_cast<double>(value_->integer());
  return std::nullopt;
}

std::string ReplyValue::text() const {
  return value_ ? std::string(value_->text().value_or("")) : std::string();
}

std::optional<bool> ReplyValue::boolean() const {
  if (!is(Value::Type::BOOLEAN)) return std::nullopt;
  return value_->boolean();
}

std::string to_json(Value value, JsonLines lines) {
  // Bytes that are no UTF-8 become replacement characters.
  const int indentation = lines == JsonLines::MANY ? 2 : -1;
  return json_of(value).dump(indentation, ' ', false, ordered_json::error_handler_t::replace) +
         "\n";
}

}  // namespace pelorus::ctl

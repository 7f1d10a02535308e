#include "pelorus/ctl/reply.h"

#include "pelorus/ctl/server_options.h"

namespace pelorus::ctl {

using skein::Value;

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

std::optional<double> Reading::number() const {
  if (!value_) return std::nullopt;
  if (value_->is(Value::Type::REAL)) return value_->real();
  if (value_->is(Value::Type::UNSIGNED)) return static_cast<double>(value_->natural());
  if (value_->is(Value::Type::INTEGER)) return static_cast<double>(value_->integer());
  return std::nullopt;
}

std::string Reading::text() const {
  return value_ ? std::string(value_->text().value_or("")) : std::string();
}

std::optional<bool> Reading::boolean() const {
  if (!value_ || !value_->is(Value::Type::BOOLEAN)) return std::nullopt;
  return value_->boolean();
}

}  // namespace pelorus::ctl

#include "collectd/node_settings.h"

#include <fmt/format.h>
#include <strings.h>

#include <charconv>
#include <cmath>
#include <span>
#include <string_view>
#include <utility>

#include "collectd/block_queue.h"
#include "pelorus/node_key_file.h"
#include "skein/errors.h"

namespace write_skein {
namespace {

constexpr std::string_view DEFAULT_PORT = "8995";
constexpr double MAX_QUEUE_BYTES = 1U << 30;
constexpr double MAX_TIMEOUT = 3600;              // seconds
constexpr double MAX_RECONNECT_INTERVAL = 86400;  // seconds

/// What the options of one <Node> have set so far.
struct Draft {
  NodeSettings settings;
  std::string socket;
  std::string host;
  std::string port;
};

[[noreturn]] void refuse(const oconfig_item_t& option, std::string_view demand) {
  throw skein::Failure(fmt::format("{} {}", option.key, demand));
}

const oconfig_value_t& only_value(const oconfig_item_t& option, int type, std::string_view demand) {
  if (option.values_num != 1 || option.children_num != 0 || option.values[0].type != type) {
    refuse(option, demand);
  }
  return option.values[0];
}

std::string text(const oconfig_item_t& option) {
  const std::string found =
      only_value(option, OCONFIG_TYPE_STRING, "needs one text in quotes").value.string;
  if (found.empty()) refuse(option, "is empty");
  return found;
}

double number(const oconfig_item_t& option, double least, double most) {
  const std::string demand = fmt::format("needs a whole number from {} to {}", least, most);
  const double found = only_value(option, OCONFIG_TYPE_NUMBER, demand).value.number;
  if (!(found >= least && found <= most) || found != std::floor(found)) refuse(option, demand);
  return found;
}

/// The number may be in quotes.
std::string port(const oconfig_item_t& option) {
  constexpr std::string_view DEMAND = "needs a number from 1 to 65535";
  int found = 0;
  if (option.values_num == 1 && option.values[0].type == OCONFIG_TYPE_STRING) {
    const std::string_view given = option.values[0].value.string;
    const auto end = std::from_chars(given.data(), given.data() + given.size(), found);
    if (end.ptr != given.data() + given.size()) refuse(option, DEMAND);
  } else {
    found = static_cast<int>(number(option, 1, 65535));
  }
  if (found < 1 || found > 65535) refuse(option, DEMAND);
  return std::to_string(found);
}

std::string socket_path(const oconfig_item_t& option) {
  std::string path = text(option);
  if (path.front() != '/') refuse(option, "needs an absolute path");
  if (path.size() > skein::MAX_UNIX_PATH_BYTES) {
    refuse(option, fmt::format("has a path of {} bytes, {} are possible", path.size(),
                               skein::MAX_UNIX_PATH_BYTES));
  }
  return path;
}

std::string key(const oconfig_item_t& option) {
  std::string found = text(option);
  if (!pelorus::is_node_key(found)) refuse(option, "holds blanks or control bytes");
  return found;
}

std::chrono::seconds seconds(const oconfig_item_t& option, double least, double most) {
  return std::chrono::seconds(static_cast<long>(number(option, least, most)));
}

void set_option(const oconfig_item_t& option, Draft& draft) {
  NodeSettings& node = draft.settings;
  // collectd ignores the case of options.
  const auto is = [&](const char* name) { return strcasecmp(option.key, name) == 0; };
  if ((is("NodeKey") || is("NodeKeyFile")) && !node.key.empty()) {
    refuse(option, "stands beside another key");
  }
  if (is("Socket")) {
    draft.socket = socket_path(option);
  } else if (is("Host")) {
    draft.host = text(option);
  } else if (is("Port")) {
    draft.port = port(option);
  } else if (is("NodeKey")) {
    node.key = key(option);
  } else if (is("NodeKeyFile")) {
    node.key = pelorus::read_node_key_file(text(option));
  } else if (is("StoreRates")) {
    node.store_rates =
        only_value(option, OCONFIG_TYPE_BOOLEAN, "needs true or false").value.boolean != 0;
  } else if (is("QueueLimit")) {
    node.queue_limit = static_cast<std::size_t>(number(option, MIN_QUEUE_BYTES, MAX_QUEUE_BYTES));
  } else if (is("ConnectTimeout")) {
    node.connect_timeout = seconds(option, 1, MAX_TIMEOUT);
  } else if (is("SendTimeout")) {
    node.send_timeout = seconds(option, 1, MAX_TIMEOUT);
  } else if (is("ReconnectInterval")) {
    node.reconnect_interval = seconds(option, 0, MAX_RECONNECT_INTERVAL);
  } else {
    refuse(option, "is no option of a node");
  }
}

void set_endpoint(Draft& draft) {
  if (draft.socket.empty() && draft.host.empty()) throw skein::Failure("needs a Socket or a Host");
  if (draft.socket.empty()) {
    if (draft.port.empty()) draft.port = DEFAULT_PORT;
    draft.settings.endpoint = skein::Endpoint::tcp(draft.host, draft.port);
    return;
  }
  if (!draft.host.empty()) throw skein::Failure("has both a Socket and a Host");
  if (!draft.port.empty()) throw skein::Failure("has a Port, but no Host");
  // The local server does not ask for a key, so the secret is not sent to it.
  if (!draft.settings.key.empty()) throw skein::Failure("has a key, which goes with a Host only");
  draft.settings.endpoint = skein::Endpoint::unix_socket(draft.socket);
}

NodeSettings read_node(const oconfig_item_t& item) {
  Draft draft;
  if (item.values_num != 1 || item.values[0].type != OCONFIG_TYPE_STRING) {
    refuse(item, "needs one name in quotes");
  }
  draft.settings.name = item.values[0].value.string;
  try {
    for (const oconfig_item_t& option :
         std::span(item.children, static_cast<std::size_t>(item.children_num))) {
      set_option(option, draft);
    }
    set_endpoint(draft);
  } catch (const skein::Failure& failure) {
    throw skein::Failure(fmt::format("Node \"{}\": {}", draft.settings.name, failure.what()));
  }
  return draft.settings;
}

}  // namespace

void read_settings(const oconfig_item_t& plugin, std::vector<NodeSettings>& nodes) {
  std::vector<NodeSettings> all = nodes;
  for (const oconfig_item_t& item :
       std::span(plugin.children, static_cast<std::size_t>(plugin.children_num))) {
    if (strcasecmp(item.key, "Node") != 0) refuse(item, "is no option, <Node \"name\"> is one");
    NodeSettings node = read_node(item);
    for (const NodeSettings& other : all) {
      if (other.name == node.name) {
        throw skein::Failure(fmt::format("Node \"{}\": there are two of this name", node.name));
      }
    }
    all.push_back(std::move(node));
  }
  if (all.empty()) throw skein::Failure("there is no <Node \"name\"> block");
  nodes = std::move(all);
}

}  // namespace write_skein

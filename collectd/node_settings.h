#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "liboconfig/oconfig.h"
#include "skein/client_stream.h"

namespace write_skein {

/// One <Node> block of the configuration.
struct NodeSettings {
  std::string name;
  skein::Endpoint endpoint = skein::Endpoint::unix_socket("");
  std::string key;  ///< secret; if empty, no "key" is sent
  bool store_rates = true;
  std::size_t queue_limit = 16U << 20;  ///< bytes
  std::chrono::seconds connect_timeout{5};
  std::chrono::seconds send_timeout{30};  ///< for a block, and again for its reply
  std::chrono::nanoseconds reconnect_interval{
      0};  ///< age at which a connection is renewed; 0: never
};

/// Reads the <Plugin write_skein> block and appends its nodes to `nodes`.
/// Throws skein::Failure, whose text names the node, the option and the fault; `nodes` then stays
/// unchanged.
void read_settings(const oconfig_item_t& plugin, std::vector<NodeSettings>& nodes);

}  // namespace write_skein

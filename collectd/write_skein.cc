// The collectd plugin "write_skein": sends collectd's values to the nodes of its configuration.
// Each node is a pelorus daemon, reached over its local socket or its node listener. The options
// are in doc/write_skein.md. The daemon takes the first dotted part of a series name as the source,
// so collectd's Hostname must begin with "m" ("m000": this machine) or be "node" and the node's
// number.
//
// This file holds collectd's callbacks; node_sender.h sends the values.

extern "C" {
#include "core/daemon/collectd.h"
#include "core/daemon/plugin.h"
#include "core/daemon/utils_cache.h"
}

#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collectd/node_sender.h"
#include "collectd/node_settings.h"
#include "collectd/value_lines.h"

namespace {

using write_skein::NodeSender;
using write_skein::NodeSettings;
using write_skein::Number;
using write_skein::Sample;

/// Time to send what is queued when collectd ends.
constexpr auto SHUTDOWN_GRACE = std::chrono::seconds(2);

// collectd's callbacks for configuration, start and shutdown take no object. Its main thread calls
// them; writes come only between start and shutdown.
std::vector<NodeSettings> configured;
std::vector<std::unique_ptr<NodeSender>> senders;

void log_line(int priority, const std::string& line) {
  plugin_log(priority, "write_skein plugin: %s", line.c_str());
}

/// No exception reaches collectd: if `operation` throws, a line is logged and -1 returned.
template <class Operation>
int guarded(Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::exception& failure) {
    log_line(LOG_ERR, failure.what());
    return -1;
  }
}

std::chrono::nanoseconds duration_of(cdtime_t time) {
  return std::chrono::nanoseconds(static_cast<std::int64_t>(CDTIME_T_TO_NS(time)));
}

Number number_of(int type, const value_t& value) {
  switch (type) {
    case DS_TYPE_COUNTER:
      return static_cast<std::uint64_t>(value.counter);
    case DS_TYPE_DERIVE:
      return static_cast<std::int64_t>(value.derive);
    case DS_TYPE_ABSOLUTE:
      return static_cast<std::uint64_t>(value.absolute);
    default:
      return value.gauge;
  }
}

/// None if collectd has no rates for the list.
std::optional<std::vector<Sample>> samples_of(const data_set_t& set, const value_list_t& list,
                                              bool store_rates) {
  // collectd allocates the rates by malloc().
  const std::unique_ptr<gauge_t, decltype(&std::free)> rates(
      store_rates ? uc_get_rate(&set, &list) : nullptr, &std::free);
  if (store_rates && !rates) return std::nullopt;
  std::vector<Sample> samples;
  samples.reserve(set.ds_num);
  for (std::size_t i = 0; i < set.ds_num && i < list.values_len; ++i) {
    const bool rate = store_rates && set.ds[i].type != DS_TYPE_GAUGE;
    samples.push_back({set.ds[i].name,
                       rate ? Number(rates.get()[i]) : number_of(set.ds[i].type, list.values[i])});
  }
  return samples;
}

NodeSender& sender_of(const user_data_t* data) { return *static_cast<NodeSender*>(data->data); }

int write(const data_set_t* set, const value_list_t* list, user_data_t* data) {
  return guarded([&] {
    NodeSender& sender = sender_of(data);
    const auto samples = samples_of(*set, *list, sender.settings().store_rates);
    if (!samples) return -1;
    std::string lines;
    append_lines({list->host, list->plugin, list->plugin_instance, list->type, list->type_instance},
                 *samples, static_cast<std::int64_t>(CDTIME_T_TO_TIME_T(list->time)), lines);
    sender.add(lines);
    return 0;
  });
}

int flush(cdtime_t timeout, const char*, user_data_t* data) {
  return guarded([&] {
    sender_of(data).flush(duration_of(timeout));
    return 0;
  });
}

int configure(oconfig_item_t* block) {
  return guarded([&] {
    write_skein::read_settings(*block, configured);
    return 0;
  });
}

void start(const NodeSettings& settings) {
  senders.push_back(
      std::make_unique<NodeSender>(settings, duration_of(plugin_get_interval()), log_line));
  const std::string name = "write_skein/" + settings.name;
  const user_data_t data{senders.back().get(), nullptr};  // owned by `senders` until shutdown
  plugin_register_write(name.c_str(), write, &data);
  plugin_register_flush(name.c_str(), flush, &data);
  senders.back()->start();
}

/// Starts the threads. configure() would be too early: collectd forks after it.
int init() {
  return guarded([] {
    if (configured.empty()) log_line(LOG_WARNING, "no <Node> block: nothing is sent");
    for (const NodeSettings& settings : configured) start(settings);
    configured.clear();
    return 0;
  });
}

int shutdown() {
  return guarded([] {
    const auto end = NodeSender::Clock::now() + SHUTDOWN_GRACE;
    for (const auto& sender : senders) sender->begin_stop();
    for (const auto& sender : senders) sender->stop(end - NodeSender::Clock::now());
    senders.clear();
    return 0;
  });
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void module_register() {
  plugin_register_complex_config("write_skein", configure);
  plugin_register_init("write_skein", init);
  plugin_register_shutdown("write_skein", shutdown);
}

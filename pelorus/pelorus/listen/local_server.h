#pragma once

#include <sys/types.h>

#include <list>
#include <optional>
#include <string>

#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/listen/status.h"
#include "pelorus/pelorus/settings.h"
#include "skein/server.h"

namespace pelorus {

/// Receives what the server's own collectd measures, over the unix socket INFLUX_UNIX_SOCKET, and
/// answers the operator's tool there. The socket is its owner's alone. Borrows handler, settings,
/// loop, resources and the server of the nodes.
class LocalServer : public skein::Server {
 public:
  /// Binds and listens at once. `node_server`: whose connections the status lists as well; may be
  /// none. Throws SettingsError, skein::SystemFailure.
  LocalServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
              skein::Resources& resources, const NodeServer* node_server = nullptr);
  ~LocalServer() override;

  /// Closes the server and removes the socket file.
  void stop();

  skein::Connection* handle_read() override;
  void add_connection(skein::Connection& connection) override;
  void remove_connection(skein::Connection& connection) override;
  void handle_exception(const std::exception& failure) override;
  void handle_refusal(const std::string& text) override;
  void handle_protocol_error(skein::Connection& connection,
                             const skein::ProtocolError& fault) override;
  void handle_shortage(const std::string& text) override;

  /// "collectd": Graphite lines in the text "metrics", which may be cut anywhere between requests.
  skein::Reply req_collectd(const skein::Request& request);
  /// "stats": the state of every write buffer, by database.
  skein::Reply req_stats(const skein::Request& request);
  /// "status": what the daemon has done since its start, and for whom.
  skein::Reply req_status(const skein::Request& request);
  /// "fail": fails on purpose, so that the way of a failure can be looked at.
  skein::Reply req_fail(const skein::Request& request);

 private:
  /// Who is to own the socket file, as far as the system knows the account and the group.
  struct Owner {
    std::optional<uid_t> bonding_uid;
    std::optional<gid_t> bonding_gid;
    static Owner look_up();
  };
  static skein::Socket bind_listen(const Settings& settings, const Owner& owner);
  std::size_t held_bytes(const skein::Connection& connection) const override {
    return sessions_[connection].graphite_remainder.remaining();
  }

  class LongRequest;

  InfluxHandler& influx_handler_;
  const Settings& settings_;
  const NodeServer* node_server_;
  const StartTime started_;
  skein::PerConnection<Session> sessions_;
  std::list<LongRequest> long_requests_;
};

}  // namespace pelorus

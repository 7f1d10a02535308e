#pragma once

#include <string>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/authenticator.h"
#include "pelorus/pelorus/listen/session.h"
#include "skein/server.h"

namespace pelorus {

/// Receives what remote nodes measure, over TCP. Each request carries the node's key, which the
/// Authenticator checks before it lets the request through to the handler.
/// Borrows handler, settings, loop and resources.
class NodeServer : public skein::Server {
 public:
  /// Binds to PELORUS_SERVER:PELORUS_PORT and listens at once. Throws SettingsError,
  /// skein::Failure.
  NodeServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
             skein::Resources& resources,
             const std::string& verification_url = std::string(NODE_KEY_VERIFICATION_API_URL));

  void stop();

  void add_connection(skein::Connection& connection) override;
  void remove_connection(skein::Connection& connection) override;
  void handle_exception(const std::exception& failure) override;
  void handle_refusal(const std::string& text) override;
  void handle_protocol_error(skein::Connection& connection,
                             const skein::ProtocolError& fault) override;
  void handle_shortage(const std::string& text) override;

  /// "add": records of line protocol in "data" for "database".
  skein::Reply req_add(const skein::Request& request);
  /// "submit": points of the legacy API, from nodes before 2016.1.
  skein::Reply req_submit(const skein::Request& request);
  /// "collectd": Graphite lines in "metrics", which may be cut anywhere between requests.
  skein::Reply req_collectd(const skein::Request& request);

  /// The address of a connection's peer, from add_connection to remove_connection.
  const skein::Address& connection_addresses(const skein::Connection& connection) const {
    return sessions_[connection].address;
  }
  const Session& session(const skein::Connection& connection) const {
    return sessions_[connection];
  }

 private:
  static skein::Socket bind_listen(const Settings& settings);
  std::size_t held_bytes(const skein::Connection& connection) const override {
    return sessions_[connection].graphite_remainder.remaining();
  }

  skein::PerConnection<Session> sessions_;
  Authenticator authenticator_;
};

}  // namespace pelorus

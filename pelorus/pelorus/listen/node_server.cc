#include "pelorus/pelorus/listen/node_server.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/settings.h"
#include "skein/profile_scope.h"

namespace pelorus {

NodeServer::NodeServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
                       skein::Resources& resources, const std::string& verification_url)
    : Server(bind_listen(settings), loop, resources, KEEPALIVE),
      authenticator_(influx_handler, settings, loop, resources, *this, sessions_,
                     verification_url) {
  answer_to("add", [this](const skein::Request& request) { return req_add(request); });
  answer_to("submit", [this](const skein::Request& request) { return req_submit(request); });
  answer_to("collectd", [this](const skein::Request& request) { return req_collectd(request); });
}

skein::Socket NodeServer::bind_listen(const Settings& settings) {
  const auto host = settings.get<std::string>("PELORUS_SERVER");
  const auto port = settings.get<std::int64_t>("PELORUS_PORT");
  auto socket = skein::Socket::stream(AF_INET);
  const int on = 1;
  if (::setsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    throw skein::SystemFailure("setsockopt SO_REUSEADDR", errno);
  }
  skein::bind_tcp(socket, host, port);
  skein::listen(socket, LISTEN_BACKLOG);
  log::info("Started skein socket at {}:{}.", host, port);
  return socket;
}

void NodeServer::stop() {
  log::info("Skein socket closed.");
  close();
}

void NodeServer::add_connection(skein::Connection& connection) {
  Server::add_connection(connection);
  Session& session = sessions_.add(connection);
  session.address = skein::peer_address(connection.socket().descriptor());
  log::info("Accepted skein connection from {}:{}.", session.address.host(), session.address.port);
}

void NodeServer::remove_connection(skein::Connection& connection) {
  Session session = sessions_.remove(connection);
  Authenticator::set_key(session, nullptr);
  if (session.address.port != 0) {
    log::info("Disconnecting skein connection from {}:{}.", session.address.host(),
              session.address.port);
  }
  Server::remove_connection(connection);
}

void NodeServer::handle_exception(const std::exception& failure) {
  log::exception(fmt::format("Exception in NodeServer: {}", failure.what()), failure);
}

void NodeServer::handle_refusal(const std::string& text) {
  log::error("Exception in NodeServer: {}", text);
}

void NodeServer::handle_protocol_error(skein::Connection& connection,
                                       const skein::ProtocolError& fault) {
  const skein::Address& address = connection_addresses(connection);
  log::warning("Closing the connection of {}:{}: {}.", address.host(), address.port, fault.what());
}

void NodeServer::handle_shortage(const std::string& text) {
  log::warning("Node socket: {}.", text);
}

skein::Reply NodeServer::req_add(const skein::Request& request) {
  PROFILE_SCOPE();
  const Authenticator::Key key = authenticator_.key_of(request);
  const std::string_view database = request.text("database");
  const std::string_view data = request.text("data");
  // Kept: a last line without its line end is not counted.
  const auto num_metrics = static_cast<std::int64_t>(std::ranges::count(data, '\n'));
  return authenticator_.forward(request, key, Operation::add(database, data, num_metrics));
}

skein::Reply NodeServer::req_submit(const skein::Request& request) {
  PROFILE_SCOPE();
  const Authenticator::Key key = authenticator_.key_of(request);
  const std::string_view database = request.text("database");
  const std::string_view name = request.text("name");
  request.get("columns");
  const skein::Value points = request.get("points");
  return authenticator_.forward(request, key, Operation::add_submit(database, name, points));
}

skein::Reply NodeServer::req_collectd(const skein::Request& request) {
  PROFILE_SCOPE();
  const Authenticator::Key key = authenticator_.key_of(request);
  const std::string_view metrics = request.text("metrics");
  // Kept: what remains of the last line is carried over before the key is looked at.
  const CompleteLines lines = sessions_[request.connection].graphite_remainder.add(metrics);
  return authenticator_.forward(request, key,
                                Operation::add_graphite(BONDING_DATABASE, lines.text()));
}

}  // namespace pelorus

#include "pelorus/pelorus/listen/local_server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "pelorus/pelorus/listen/node_server.h"
#include "pelorus/pelorus/listen/operation.h"
#include "pelorus/pelorus/log.h"
#include "skein/profile_scope.h"

namespace pelorus {
namespace {

/// Everybody but the owner is kept out of the socket file.
constexpr mode_t OWNER_ONLY = 0077;

std::string socket_path(const Settings& settings) {
  return settings.get<std::string>("INFLUX_UNIX_SOCKET");
}

/// Removes what an earlier run left behind; a symbolic link goes itself, not what it points to.
void remove_stale(const std::string& path) {
  if (path.find('\0') != std::string::npos) return;  // names another file; bind refuses it
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return;
  if (::unlink(path.c_str()) != 0) {
    throw skein::SystemFailure(fmt::format("remove '{}'", path), errno);
  }
}

/// Hands the socket file over, if it is the one that this process has made: whoever may write to
/// its folder could have put a link to another file in its place.
void change_owner(const std::string& path, uid_t user, gid_t group) {
  const skein::Socket file(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!file || ::fstat(file.descriptor(), &status) != 0) return;
  const bool own = S_ISSOCK(status.st_mode) && status.st_uid == ::geteuid() && status.st_nlink == 1;
  if (own && ::fchownat(file.descriptor(), "", user, group, AT_EMPTY_PATH) != 0) {
    // Not root: the socket stays with the daemon's own account.
  }
}

/// The peer of a unix socket by what the kernel knows of it.
std::string process_name(const skein::Socket& socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(socket.descriptor(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    return "unknown process";
  }
  return fmt::format("process {}, user {}", peer.pid, peer.uid);
}

std::string peer_name(const ConnectionGroup::Member& peer) {
  return process_name(peer.connection->socket());
}

/// Says so if somebody listens at the path, whose peers will not reach it any more.
void warn_of_live_process(const std::string& path) {
  const auto address = skein::unix_address(path);
  if (!address) return;
  const auto socket = skein::Socket::stream(AF_UNIX);
  // A listener that takes no more connections now (EAGAIN) lives as well.
  if (::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&*address),
                sizeof *address) != 0 &&
      errno != EAGAIN) {
    return;
  }
  log::warning("A live process ({}) answers on the local socket {}: replacing its socket.",
               process_name(socket), path);
}

std::string node_address(const ConnectionGroup::Member& node) {
  return fmt::format("{}:{}", node.session->address.host(), node.session->address.port);
}

ConnectionGroup group_of(const NodeServer& server) {
  ConnectionGroup group{"nodes", {}, node_address};
  for (const skein::Connection* connection : server.connections()) {
    group.members.push_back({connection, &server.session(*connection)});
  }
  return group;
}

}  // namespace

/// A request that takes several steps, on the iterations that the ready queue gives it. Outlives
/// its connection.
class LocalServer::LongRequest final : public skein::ReadyQueue::Entry,
                                       private skein::Admission::Account {
 public:
  LongRequest(LocalServer& server, const Operation& views, const skein::Request& request)
      : Account(server.origin(request.connection), skein::Standing::AUTHENTICATED),
        server_(server),
        operation_(views.owned()),
        reply_(server.defer(request)) {
    server_.resources().admission.hold(*this, operation_.bytes());
  }
  ~LongRequest() {
    server_.resources().ready_queue.remove(*this);
    server_.resources().admission.release(*this);
  }

  bool is_authenticated() const noexcept override { return true; }
  bool serve(skein::ReadyQueue::Credit credit) noexcept override {
    PROFILE_SCOPE();
    while (credit.spend(operation_.cost())) {
      try {
        IngestResult ingested = operation_.run(server_.influx_handler_);
        if (!operation_.is_done()) {
          server_.resources().admission.hold(*this, operation_.bytes());
          continue;
        }
        if (const skein::Connection* connection = reply_.connection()) {
          server_.sessions_[*connection].counters.count(std::move(ingested));
        }
        end().send({});
      } catch (const std::exception& failure) {
        end().fail(failure);
      }
      return false;
    }
    return true;
  }

 private:
  void evict(const skein::LimitError& reason) override { end().end_connection(reason); }
  /// Destroys it: its bytes are not held any more when the reply lets the connection continue.
  skein::DeferredReply end() noexcept {
    const skein::DeferredReply reply = reply_;
    server_.long_requests_.remove_if([this](const LongRequest& each) { return &each == this; });
    return reply;
  }

  LocalServer& server_;
  Operation operation_;
  const skein::DeferredReply reply_;
};

LocalServer::Owner LocalServer::Owner::look_up() {
  Owner owner;
  if (const passwd* account = ::getpwnam(TIDEWELL_ACCOUNT)) {
    owner.bonding_uid = account->pw_uid;
    if (const group* same_name = ::getgrnam(TIDEWELL_ACCOUNT))
      owner.bonding_gid = same_name->gr_gid;
  }
  return owner;
}

LocalServer::LocalServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
                         skein::Resources& resources, const NodeServer* node_server)
    : Server(bind_listen(settings, Owner::look_up()), loop, resources),
      influx_handler_(influx_handler),
      settings_(settings),
      node_server_(node_server),
      started_(StartTime::now(loop.clocks())) {
  answer_to("collectd", [this](const skein::Request& request) { return req_collectd(request); });
  answer_to("stats", [this](const skein::Request& request) { return req_stats(request); });
  answer_to("status", [this](const skein::Request& request) { return req_status(request); });
  answer_to("fail", [this](const skein::Request& request) { return req_fail(request); });
}

LocalServer::~LocalServer() = default;

skein::Socket LocalServer::bind_listen(const Settings& settings, const Owner& owner) {
  const std::string path = socket_path(settings);
  auto socket = skein::Socket::stream(AF_UNIX);
  warn_of_live_process(path);
  remove_stale(path);
  // Kept: a failure below leaves the mask as it is; the process ends then.
  const mode_t previous = ::umask(OWNER_ONLY);
  skein::bind_unix(socket, path);
  skein::listen(socket, LISTEN_BACKLOG);
  if (owner.bonding_uid && owner.bonding_gid) {
    change_owner(path, *owner.bonding_uid, *owner.bonding_gid);
  }
  ::umask(previous);
  log::info("Started local socket at {}.", path);
  return socket;
}

void LocalServer::stop() {
  log::info("Closed local socket.");
  close();
  ::unlink(socket_path(settings_).c_str());
}

skein::Connection* LocalServer::handle_read() {
  skein::Connection* accepted = Server::handle_read();
  if (accepted != nullptr) log::info("Accepted local skein connection.");
  return accepted;
}

// Whoever may open the socket needs no key.
void LocalServer::add_connection(skein::Connection& connection) {
  Server::add_connection(connection);
  sessions_.add(connection);
  set_authenticated(connection);
}

void LocalServer::remove_connection(skein::Connection& connection) {
  sessions_.remove(connection);
  Server::remove_connection(connection);
}

void LocalServer::handle_exception(const std::exception& failure) {
  log::exception(fmt::format("Exception in LocalServer: {}", failure.what()), failure);
}

void LocalServer::handle_refusal(const std::string& text) {
  log::error("Exception in LocalServer: {}", text);
}

void LocalServer::handle_protocol_error(skein::Connection& connection,
                                        const skein::ProtocolError& fault) {
  log::warning("Closing the connection of a local peer ({}): {}.",
               process_name(connection.socket()), fault.what());
}

void LocalServer::handle_shortage(const std::string& text) {
  log::warning("Local socket: {}.", text);
}

skein::Reply LocalServer::req_collectd(const skein::Request& request) {
  PROFILE_SCOPE();
  Session& session = sessions_[request.connection];
  const std::string_view metrics = request.text("metrics");
  if (metrics.empty() && session.graphite_remainder.remaining() == 0) {
    throw skein::RequestError("argument 'metrics' of request 'collectd' is empty");
  }
  const CompleteLines lines = session.graphite_remainder.add(metrics);
  Operation operation = Operation::add_graphite(TIDEWELL_DATABASE, lines.text());
  if (!operation.is_short(influx_handler_)) {
    resources().ready_queue.add(long_requests_.emplace_back(*this, operation, request));
    return skein::Reply::later();
  }
  session.counters.count(operation.run(influx_handler_));
  return {};
}

skein::Reply LocalServer::req_stats(const skein::Request&) {
  PROFILE_SCOPE();
  skein::MsgpackWriter stats;
  stats.map(influx_handler_.databases().size());
  for (const auto& database : influx_handler_.databases()) {
    stats.text(database->name()).map(4);
    stats.text("has_current_request").boolean(database->has_current_request());
    stats.text("pending_data_len").natural(database->pending_data_len());
    stats.text("failure_count").integer(database->failure_count());
    stats.text("last_sent_time").real(database->last_sent_time());
  }
  return skein::Reply(std::move(stats));
}

skein::Reply LocalServer::req_status(const skein::Request& request) {
  PROFILE_SCOPE();
  std::vector<ConnectionGroup> groups;
  if (node_server_ != nullptr) groups.push_back(group_of(*node_server_));
  ConnectionGroup local{"local", {}, peer_name};
  for (const skein::Connection* connection : connections()) {
    local.members.push_back({connection, &sessions_[*connection]});
  }
  groups.push_back(std::move(local));
  const StatusSources sources{influx_handler_, resources().counters, loop(), started_, groups};
  return skein::Reply(write_status(sources, ConnectionChoice::of(request)));
}

skein::Reply LocalServer::req_fail(const skein::Request&) {
  throw skein::Failure("Intentionally failing for testing.");
}

}  // namespace pelorus

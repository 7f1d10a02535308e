#include "skein/server.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace skein {
namespace {

/// Bytes taken from one connection before the others have their turn.
constexpr std::size_t READ_BUFFER_BYTES = 256U << 10;
/// Connections accepted before the open ones have their turn.
constexpr int ACCEPTS_PER_TURN = 64;
/// Rest after the process ran out of descriptors or memory: the listening socket stays readable.
constexpr double ACCEPT_PAUSE_SECONDS = 0.1;
/// Nodes of a decoded message that are kept for the next one: 24 bytes each.
constexpr std::size_t KEPT_NODES = 4096;

bool peer_has_gone(int error_number) {
  return error_number == ECONNABORTED || error_number == EPROTO || error_number == ENOTCONN;
}

}  // namespace

Server::Server(Socket sock, Loop& loop, std::optional<Keepalive> connection_keepalive)
    : loop_(loop),
      socket_(std::move(sock)),
      poll_(std::make_unique<Poll>(loop, socket_.descriptor(), static_cast<PollTarget&>(*this))),
      connection_keepalive_(connection_keepalive),
      read_buffer_(std::make_unique_for_overwrite<char[]>(READ_BUFFER_BYTES)) {
  poll_->watch(UV_READABLE);
}

Server::~Server() { resume_listening_.cancel(); }

void Server::handle_events(int) {
  try {
    for (int i = 0; i < ACCEPTS_PER_TURN && poll_ && handle_read() != nullptr; ++i) {
    }
  } catch (const std::exception& failure) {
    pause_listening();
    handle_exception(failure);
  }
}

void Server::pause_listening() {
  if (!poll_) return;
  poll_->watch(0);
  resume_listening_ = loop_.call_in(ACCEPT_PAUSE_SECONDS, [this] {
    if (poll_) poll_->watch(UV_READABLE);
  });
}

Connection* Server::handle_read() {
  Socket accepted(::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!accepted) {
    if (errno == EAGAIN || errno == EINTR || peer_has_gone(errno)) return nullptr;
    throw SystemFailure("accept", errno);
  }
  send_without_delay(accepted.descriptor());
  if (connection_keepalive_) connection_keepalive_->apply(accepted.descriptor());
  auto& connection = *connections_.emplace_back(make_connection(std::move(accepted)));
  connection.index_ = connections_.size() - 1;
  try {
    add_connection(connection);
  } catch (const SystemFailure& failure) {
    connection.end();
    if (!peer_has_gone(failure.error_number())) handle_exception(failure);
    return nullptr;
  }
  return &connection;
}

std::unique_ptr<Connection> Server::make_connection(Socket socket) {
  return std::make_unique<Connection>(*this, loop_, std::move(socket));
}

void Server::add_connection(Connection&) {}

void Server::remove_connection(Connection&) {}

void Server::end(Connection& connection) {
  const std::size_t place = connection.index_;
  auto owned = std::move(connections_[place]);
  if (place + 1 < connections_.size()) {
    connections_[place] = std::move(connections_.back());
    connections_[place]->index_ = place;
  }
  connections_.pop_back();
  held_.erase(connection.held_);
  loop_.discard(std::move(owned));
  remove_connection(connection);
}

HeldRequest Server::hold(Connection& connection) {
  connection.held_ = ++held_made_;
  held_.emplace(held_made_, Held{&connection, msgid_});
  return {*this, held_made_};
}

Connection* Server::held_connection(std::uint64_t number) const noexcept {
  const auto held = held_.find(number);
  return held == held_.end() ? nullptr : held->second.connection;
}

void Server::answer_held(std::uint64_t number, const Reply& reply) {
  release(number, [&](std::uint32_t msgid) { return encode_reply(msgid, reply); });
}

void Server::fail_held(std::uint64_t number, const std::exception& failure) {
  handle_exception(failure);
  release(number, [&](std::uint32_t msgid) { return encode_error(msgid, failure.what()); });
}

void Server::release(std::uint64_t number,
                     const std::function<std::string(std::uint32_t)>& answer) {
  const auto node = held_.extract(number);
  if (node.empty()) return;  // the connection has ended meanwhile
  const auto& [connection, msgid] = node.mapped();
  connection->go_on();
  if (msgid) connection->send(answer(*msgid));
  connection->resume();
}

std::span<char> Server::read_buffer() noexcept { return {read_buffer_.get(), READ_BUFFER_BYTES}; }

void Server::serve(Connection& connection, std::string_view frame) {
  encoders_.msgpack.decode(encoders_.snappy.decode(frame), message_);
  const Envelope envelope = read_envelope(message_);
  msgid_ = envelope.msgid;
  try {
    if (!envelope.fault.empty()) throw RequestError(envelope.fault);
    const Request request{envelope.name, *envelope.args, connection};
    const Reply reply = dispatch(requests(), *this, request);
    if (envelope.msgid && !reply.is_later()) connection.send(encode_reply(*envelope.msgid, reply));
  } catch (const std::exception& failure) {
    handle_exception(failure);
    if (held_.erase(connection.held_) != 0) connection.go_on();
    if (envelope.msgid) connection.send(encode_error(*envelope.msgid, failure.what()));
  }
  encoders_.snappy.trim();
  if (message_.nodes.capacity() > KEPT_NODES) message_.nodes = {};
}

void Server::close() {
  if (!poll_) return;
  resume_listening_.cancel();
  poll_.reset();
  socket_ = Socket();
  while (!connections_.empty()) connections_.back()->end();
}

}  // namespace skein

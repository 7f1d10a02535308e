#include "skein/server.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace skein {
namespace {

/// Nodes of a decoded message that are kept for the next one: 24 bytes each.
constexpr std::size_t KEPT_NODES = 4096;
/// Capacity of a connection's buffers that is kept for the next one.
constexpr std::size_t KEPT_BUFFER_BYTES = 64U << 10;

bool peer_has_gone(int error_number) {
  return error_number == ECONNABORTED || error_number == EPROTO || error_number == ENOTCONN;
}

void make_empty(std::string& buffer) {
  buffer.clear();
  if (buffer.capacity() > KEPT_BUFFER_BYTES) buffer.shrink_to_fit();
}

}  // namespace

Server::Server(Socket sock, Loop& loop, std::optional<Keepalive> connection_keepalive,
               std::shared_ptr<Quota> quota)
    : loop_(loop),
      socket_(std::move(sock)),
      poll_(std::make_unique<Poll>(loop, socket_.descriptor(), static_cast<PollTarget&>(*this))),
      quota_(quota ? std::move(quota) : std::make_shared<Quota>()),
      accept_pause_(limits().accept_pause),
      accept_reports_(limits().shortage_report_interval),
      quota_reports_(limits().shortage_report_interval),
      backlog_(loop, limits()),
      progress_(loop),
      connection_keepalive_(connection_keepalive),
      read_buffer_(std::make_unique_for_overwrite<char[]>(limits().bytes_per_turn)) {
  poll_->watch(UV_READABLE);
}

Server::~Server() {
  resume_listening_.cancel();
  for (const auto& connection : connections_) quota_->dismiss(*connection);
}

void Server::handle_events(int) {
  try {
    for (int i = 0; i < limits().accepts_per_turn && poll_ && handle_read() != nullptr; ++i) {
      accept_pause_ = limits().accept_pause;
    }
  } catch (const std::exception& failure) {
    pause_listening(failure.what());
  }
}

void Server::pause_listening(const std::string& reason) {
  if (!poll_) return;
  poll_->watch(0);
  resume_listening_ = loop_.call_in(accept_pause_, [this] {
    if (poll_) poll_->watch(UV_READABLE);
  });
  accept_pause_ = std::min(2 * accept_pause_, limits().longest_accept_pause);
  report_shortage(accept_reports_, "no connection can be accepted: " + reason);
}

void Server::report_shortage(Throttle& throttle, const std::string& text) {
  const auto left_out = throttle.pass(now());
  if (!left_out) return;
  handle_shortage(*left_out == 0 ? text
                                 : fmt::format("{} ({} times more before)", text, *left_out));
}

void Server::enforce_short_quota() {
  const std::string shortage = quota_->enforce();
  if (!shortage.empty()) report_shortage(quota_reports_, shortage);
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
  connection.index_ = static_cast<std::uint32_t>(connections_.size() - 1);
  quota_->admit(connection);
  try {
    add_connection(connection);
  } catch (const SystemFailure& failure) {
    connection.end();
    if (!peer_has_gone(failure.error_number())) handle_exception(failure);
    return nullptr;
  }
  quota_->make_room(connection);
  return connection.ended_ ? nullptr : &connection;
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
    connections_[place]->index_ = static_cast<std::uint32_t>(place);
  }
  connections_.pop_back();
  held_.erase(connection.held_);
  forget_buffers(connection);
  quota_->dismiss(connection);
  loop_.discard(std::move(owned));
  remove_connection(connection);
  connection.socket_ = Socket();  // at once: descriptors are few
}

std::unique_ptr<Buffers> Server::fresh_buffers() {
  return spare_buffers_ ? std::move(spare_buffers_) : std::make_unique<Buffers>();
}

void Server::take_back(Connection& connection) {
  forget_buffers(connection);
  Buffers& buffers = *connection.buffers_;
  make_empty(buffers.in);
  make_empty(buffers.out);
  buffers.served = buffers.sent = 0;
  buffers.progress = {};
  spare_buffers_ = std::move(connection.buffers_);
}

void Server::forget_buffers(Connection& connection) {
  if (!connection.buffers_) return;
  backlog_.remove(connection);
  progress_.remove(connection);
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
  release(number,
          [&](Connection& connection, std::uint32_t msgid) { answer(connection, msgid, reply); });
}

void Server::fail_held(std::uint64_t number, const std::exception& failure) {
  handle_exception(failure);
  release(number, [&](Connection& connection, std::uint32_t msgid) {
    connection.send(encode_error(msgid, failure.what()));
  });
}

void Server::release(std::uint64_t number,
                     const std::function<void(Connection&, std::uint32_t)>& send_answer) {
  const auto node = held_.extract(number);
  if (node.empty()) return;  // the connection has ended meanwhile
  const auto& [connection, msgid] = node.mapped();
  connection->go_on();
  try {
    if (msgid) send_answer(*connection, *msgid);
    connection->resume();
  } catch (const std::exception& failure) {  // no memory: nothing would wake it any more
    connection->end();
    handle_exception(failure);
  }
}

std::span<char> Server::read_buffer() noexcept {
  return {read_buffer_.get(), limits().bytes_per_turn};
}

/// One large frame does not make the server large for good, whatever becomes of it.
void Server::trim() noexcept {
  encoders_.snappy.trim();
  if (message_.nodes.capacity() > KEPT_NODES) message_.nodes = {};
}

void Server::serve(Connection& connection, std::string_view frame) {
  const struct Trim {
    ~Trim() { server.trim(); }
    Server& server;
  } trim_at_end{*this};
  encoders_.msgpack.decode(encoders_.snappy.decode(frame), message_);
  const Envelope envelope = read_envelope(message_);
  msgid_ = envelope.msgid;
  try {
    if (!envelope.fault.empty()) throw RequestError(envelope.fault);
    const Request request{envelope.name, *envelope.args, connection};
    const Reply reply = dispatch(requests(), *this, request);
    if (envelope.msgid) answer(connection, *envelope.msgid, reply);
  } catch (const LimitError&) {
    throw;
  } catch (const std::exception& failure) {
    handle_exception(failure);
    if (held_.erase(connection.held_) != 0) connection.go_on();
    if (envelope.msgid) connection.send(encode_error(*envelope.msgid, failure.what()));
  }
}

void Server::answer(Connection& connection, std::uint32_t msgid, const Reply& reply) {
  if (reply.is_later()) return;
  if (reply.is_nil()) return connection.send(NilReply(msgid).message());
  connection.send(encode_reply(msgid, reply));
}

void Server::close() {
  if (!poll_) return;
  resume_listening_.cancel();
  poll_.reset();
  socket_ = Socket();
  while (!connections_.empty()) connections_.back()->end();
}

}  // namespace skein

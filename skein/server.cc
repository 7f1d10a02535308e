#include "skein/server.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/envelope.h"
#include "skein/profile_scope.h"
#include "skein/resources.h"
#include "skein/throttle.h"

namespace skein {
namespace {

/// Nodes of a decoded message that are kept for the next one: 24 bytes each.
constexpr std::size_t KEPT_NODES = 4096;

/// Bytes that are received at once. Receiving costs about a quarter of decoding, byte for byte.
constexpr std::size_t READ_BUFFER_BYTES = 256U << 10;
constexpr std::size_t RECEIVED_BYTES_PER_CONTENT_BYTE = 4;

/// While more of a peer's requests wait, so many bytes of replies gather and go with one call:
/// those of some 350 requests that were good. A call costs as much as several such requests.
constexpr std::size_t GATHERED_REPLY_BYTES = 4U << 10;

/// So many failures of the requests of one connection are reported in each interval.
constexpr std::uint32_t FAILURES_PER_INTERVAL = 10;
constexpr std::chrono::seconds FAILURE_INTERVAL{1};
/// Origin of all local peers; no address of a remote one.
constexpr std::uint32_t LOCAL = 0;
/// Stands for all disconnected peers.
constexpr std::uint32_t NO_SLOT = UINT32_MAX;

/// As much of a request's name as an error shows.
constexpr std::size_t SHOWN_NAME_BYTES = 64;

bool peer_has_gone(int error_number) {
  return error_number == ECONNABORTED || error_number == EPROTO || error_number == ENOTCONN;
}

}  // namespace

/// A connection with all that its server keeps for it. Owned by the server, which destroys it after
/// the callback in which it has ended. There are thousands, so its size counts.
///
///     state                    means                              received from?  served?
///     open                                                        yes             yes
///     suspended (`deferral`)   its last reply is deferred         end is watched  no
///     blocked                  too many unsent replies            no              no
///     disconnected             its end came while suspended       once continued  yes
///     finished                 it sends no more (`end_of_stream`);
///                              closed once all is answered        no              yes
///     ended (`ended`)          closed, about to be destroyed      no              no
class Server::Peer final : private PollTarget, public ReadyQueue::Entry, public Admission::Account {
 public:
  Peer(Server& server, Socket socket, std::uint32_t origin, std::uint32_t slot)
      : Account(origin, Standing::UNAUTHENTICATED),
        server_(server),
        connection(server.loop_, std::move(socket), *this, slot) {}

  bool is_authenticated() const noexcept override { return Account::is_authenticated(); }
  bool serve(ReadyQueue::Credit credit) noexcept override;
  /// Sends the deferred reply, which `write` makes out of the number of the request, and continues.
  template <class Write>
  void resume(Write&& write);
  void evict(const LimitError& reason) override;
  /// Tells the deferrer, if there is one, that the peer has disconnected.
  void tell_deferrer() noexcept {
    if (Deferrer* const told = std::exchange(deferrer, nullptr)) told->handle_hang_up();
  }

 private:
  void handle_events(int events) override;
  void hang_up();
  bool may_serve() const noexcept;
  void receive(ReadyQueue::Credit& credit);
  bool has_frame() { return connection.front_frame().has_value(); }
  bool update();
  Admission::Time deadline() const override;
  void time_out() override;

 public:
  bool has_hung_up() const noexcept { return standing() == Standing::DISCONNECTED; }

  bool end_of_stream = false;
  bool ended = false;
  bool replies = false;        ///< the deferred request has a number, `msgid`
  std::uint32_t deferral = 0;  ///< number of the deferred reply; 0: none
  std::uint32_t msgid = 0;
  Deferrer* deferrer = nullptr;

 private:
  Server& server_;

 public:
  Connection connection;
};

/// What users of the class need not see.
struct Server::Internals {
  explicit Internals(std::chrono::seconds interval)
      : accept_reports(interval), memory_reports(interval) {}

  /// Runs `step` for each connection that has not ended.
  template <class Step>
  void for_each_open(Step&& step) {
    for (std::uint32_t slot = 0; slot < peers.slots(); ++slot) {
      if (peers[slot] && !peers[slot]->ended) step(*peers[slot]);
    }
  }
  /// One large frame does not make the server large for good, whatever becomes of it.
  void trim() noexcept {
    snappy.trim();
    if (message.nodes.capacity() > KEPT_NODES) std::vector<Value::Node>().swap(message.nodes);
  }

  // The encoders, in the order in which they are applied to a message that goes out, and the
  // message that is being served.
  MsgpackEncoder msgpack;
  SnappyEncoder snappy;
  Message message;
  /// Shared by all connections: each empties it at once.
  const std::unique_ptr<char[]> read_buffer =
      std::make_unique_for_overwrite<char[]>(READ_BUFFER_BYTES);

  PerConnection<std::optional<Peer>> peers;
  std::vector<std::uint32_t> free_slots;
  std::vector<std::uint32_t>
      ended_slots;  ///< of peers that are destroyed at the end of the iteration

  Throttle accept_reports;
  Throttle memory_reports;
  std::map<std::uint32_t, Throttle> failure_reports;  ///< by slot, of peers whose requests failed
};

void Server::Peer::handle_events(int events) {
  PROFILE_SCOPE();
  if (ended) return;
  server_.guarded(*this, [this, events] {
    if ((events & UV_WRITABLE) != 0 && !is_queued()) {
      connection.flush(server_.loop_.now());
      if (update()) server_.resources_.ready_queue.add(*this);
    }
    if ((events & UV_READABLE) != 0 && may_serve() && !end_of_stream) {
      server_.resources_.ready_queue.add(*this);
    }
    if ((events & (UV_DISCONNECT | UV_READABLE)) != 0 && deferral != 0 && !has_hung_up() &&
        !ended) {
      hang_up();
    }
  });
}

/// What it has sent is still served; but it goes first when there is too much.
void Server::Peer::hang_up() {
  server_.resources_.admission.set_standing(*this, Standing::DISCONNECTED);
  tell_deferrer();
  update();
}

bool Server::Peer::may_serve() const noexcept {
  return !ended && deferral == 0 && connection.unsent() <= server_.limits_.unsent_reply_bytes;
}

bool Server::Peer::serve(ReadyQueue::Credit credit) noexcept {
  bool more = false;
  server_.guarded(*this, [&] {
    if (may_serve() && !has_frame()) receive(credit);
    while (may_serve()) {
      const auto frame = connection.front_frame();
      if (!frame || !credit.spend(SnappyEncoder::content_size(*frame))) break;
      connection.pop_frame(*frame);
      server_.serve(*this, *frame);
    }
    more = update();
  });
  return more && !ended;
}

void Server::Peer::receive(ReadyQueue::Credit& credit) {
  PROFILE_SCOPE();
  if (end_of_stream) return;
  const std::size_t before = connection.unserved();
  const auto received = connection.receive(
      {server_.internals_->read_buffer.get(), READ_BUFFER_BYTES}, server_.loop_.seconds());
  end_of_stream = received == Connection::Received::END;
  credit.charge((connection.unserved() - before) / RECEIVED_BYTES_PER_CONTENT_BYTE);
}

/// After bytes have come or gone: keeps what is unfinished, sends what is to be sent, and keeps
/// account of the rest. Returns whether there is a frame to be served.
bool Server::Peer::update() {
  PROFILE_SCOPE();
  if (ended) return false;
  const auto now = server_.loop_.now();
  connection.store_rest(now);
  const bool goes_on = may_serve() && has_frame();
  if (connection.unsent() >= (goes_on ? GATHERED_REPLY_BYTES : 1)) connection.flush(now);
  const bool more = may_serve() && has_frame();  // the replies that blocked it may be sent by now
  if (end_of_stream && !more && may_serve() && connection.unsent() == 0) {
    server_.end(*this);
    return false;
  }
  const bool readable = may_serve() && !end_of_stream;
  const bool writable = connection.unsent() != 0 && !more;
  const bool suspended = deferral != 0 && !has_hung_up();
  connection.watch((readable ? UV_READABLE : 0) | (writable ? UV_WRITABLE : 0) |
                   (suspended ? UV_DISCONNECT : 0));
  Admission& admission = server_.resources_.admission;
  admission.hold(*this, connection.release_empty_buffers() + server_.held_bytes(connection));
  admission.watch(*this);
  server_.enforce_limits();
  return more && !ended;
}

template <class Write>
void Server::Peer::resume(Write&& write) {
  server_.guarded(*this, [&] {
    deferral = 0;
    deferrer = nullptr;
    if (replies) write(msgid);
    if (update()) server_.resources_.ready_queue.add(*this);
  });
}

void Server::Peer::evict(const LimitError& reason) {
  if (ended) return;
  has_hung_up() ? server_.end(*this) : server_.end_for(*this, reason);
}

Admission::Time Server::Peer::deadline() const {
  const Limits& limits = server_.limits_;
  const bool blocked = connection.unsent() > limits.unsent_reply_bytes;
  if (blocked || (end_of_stream && connection.unsent() != 0)) {
    return connection.last_progress() + limits.unsent_reply_timeout;
  }
  const bool half_frame = connection.unserved() != 0 && deferral == 0 && !is_queued();
  if (half_frame) return connection.last_progress() + limits.half_frame_timeout;
  return Admission::Time::max();
}

void Server::Peer::time_out() {
  const Limits& limits = server_.limits_;
  if (connection.unsent() > limits.unsent_reply_bytes) {
    return evict(
        LimitError(EndReason::UNSENT_REPLIES,
                   fmt::format("{} bytes of replies, {} are allowed, and none taken for {} seconds",
                               connection.unsent(), limits.unsent_reply_bytes,
                               limits.unsent_reply_timeout.count())));
  }
  if (end_of_stream) return server_.end(*this);  // nothing is lost but replies
  evict(LimitError(EndReason::HALF_FRAME,
                   fmt::format("{} bytes of a half frame and no more for {} seconds",
                               connection.unserved(), limits.half_frame_timeout.count())));
}

Server::Server(Socket sock, Loop& loop, Resources& resources,
               std::optional<Keepalive> connection_keepalive)
    : loop_(loop),
      resources_(resources),
      limits_(resources.admission.limits()),
      socket_(std::move(sock)),
      poll_(std::make_unique<Poll>(loop, socket_.descriptor(), static_cast<PollTarget&>(*this))),
      accept_pause_(limits_.accept_pause),
      connection_keepalive_(connection_keepalive),
      internals_(std::make_unique<Internals>(limits_.shortage_report_interval)),
      sweep_(loop, [this] { sweep(); }) {
  poll_->watch(UV_READABLE);
}

Server::~Server() {
  resume_listening_.cancel();
  internals_->for_each_open([this](Peer& peer) {
    resources_.ready_queue.remove(peer);
    resources_.admission.remove_connection(peer);
  });
}

void Server::handle_events(int) {
  try {
    for (int i = 0; i < limits_.accepts_per_iteration && poll_ && handle_read() != nullptr; ++i) {
      accept_pause_ = limits_.accept_pause;
    }
  } catch (const std::exception& failure) {
    pause_listening(failure.what());
  }
}

/// The timer first: without it nobody would listen again.
void Server::pause_listening(const std::string& reason) {
  if (!poll_) return;
  resume_listening_.cancel();
  resume_listening_ = loop_.call_in(accept_pause_, [this] {
    if (poll_) poll_->watch(UV_READABLE);
  });
  poll_->watch(0);
  accept_pause_ = std::min(2 * accept_pause_, limits_.longest_accept_pause);
  report_shortage(internals_->accept_reports.pass(loop_.now()),
                  "no connection can be accepted: " + reason);
}

void Server::report_shortage(std::optional<std::uint64_t> left_out, const std::string& text) {
  if (!left_out) return;
  handle_shortage(*left_out == 0 ? text
                                 : fmt::format("{} ({} times more before)", text, *left_out));
}

void Server::enforce_limits() {
  if (!resources_.admission.is_short()) return;
  const std::string shortage = resources_.admission.enforce();
  if (!shortage.empty()) report_shortage(internals_->memory_reports.pass(loop_.now()), shortage);
}

Connection* Server::handle_read() {
  PROFILE_SCOPE();
  sockaddr_in peer_address{};
  socklen_t length = sizeof peer_address;
  Socket accepted(::accept4(socket_.descriptor(), reinterpret_cast<sockaddr*>(&peer_address),
                            &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!accepted) {
    if (errno == EAGAIN || errno == EINTR || peer_has_gone(errno)) return nullptr;
    throw SystemFailure("accept", errno);
  }
  send_without_delay(accepted.descriptor());
  if (connection_keepalive_) connection_keepalive_->apply(accepted.descriptor());
  // Peers of one address share an origin, and so do all local ones.
  const bool is_remote = peer_address.sin_family == AF_INET;
  Peer& peer =
      add_peer(std::move(accepted), is_remote ? ntohl(peer_address.sin_addr.s_addr) : LOCAL);
  try {
    add_connection(peer.connection);
  } catch (const SystemFailure& failure) {
    end(peer);
    if (!peer_has_gone(failure.error_number())) handle_exception(failure);
    return nullptr;
  } catch (...) {
    end(peer);
    throw;
  }
  resources_.admission.make_room(peer);
  return peer.ended ? nullptr : &peer.connection;
}

Server::Peer& Server::add_peer(Socket socket, std::uint32_t origin) {
  static_assert(sizeof(std::optional<Peer>) <= 152, "an idle connection is to stay small");
  auto& peers = internals_->peers;
  auto& free_slots = internals_->free_slots;
  auto& ended_slots = internals_->ended_slots;
  if (free_slots.empty()) {
    const std::uint32_t before = peers.slots();
    if (free_slots.capacity() <= before) {  // so that ending a peer never takes memory
      ended_slots.reserve(2 * before + peers.BLOCK);
      free_slots.reserve(ended_slots.capacity());
    }
    peers.add(before);
    for (std::uint32_t slot = peers.slots(); slot-- > before;) free_slots.push_back(slot);
  }
  const std::uint32_t slot = free_slots.back();
  auto& peer = peers[slot];
  peer.emplace(*this, std::move(socket), origin, slot);
  try {
    resources_.admission.add_connection(*peer);
  } catch (...) {
    peer.reset();
    throw;
  }
  free_slots.pop_back();
  ++connection_count_;
  return *peer;
}

void Server::add_connection(Connection&) {}

void Server::remove_connection(Connection&) {}

void Server::end_for(Peer& peer, const ProtocolError& fault) noexcept {
  ++resources_.counters.ended_connections[static_cast<std::size_t>(fault.reason())];
  loop_.guarded([&] { handle_protocol_error(peer.connection, fault); });
  end(peer);
}

void Server::end(Peer& peer) noexcept {
  PROFILE_SCOPE();
  if (peer.ended) return;
  peer.ended = true;
  if (peer.is_queued() && peer.connection.unsent() != 0) {  // replies that have gathered so far
    peer.connection.flush(loop_.now());
  }
  peer.tell_deferrer();
  resources_.ready_queue.remove(peer);
  resources_.admission.remove_connection(peer);
  internals_->ended_slots.push_back(peer.connection.slot());
  sweep_.arm();
  --connection_count_;
  loop_.guarded([&] {
    remove_connection(peer.connection);
    if (internals_->failure_reports.empty()) return;
    if (const auto failures = internals_->failure_reports.extract(peer.connection.slot())) {
      const std::uint64_t left_out = failures.mapped().left_out();
      if (left_out != 0) report_left_out(&peer, left_out);
    }
  });
  peer.connection.close();
}

void Server::sweep() noexcept {
  for (const std::uint32_t slot : internals_->ended_slots) {
    internals_->peers[slot].reset();
    internals_->free_slots.push_back(slot);
  }
  internals_->ended_slots.clear();
}

void Server::set_authenticated(const Connection& connection) {
  resources_.admission.set_standing(peer_of(connection), Standing::AUTHENTICATED);
}

Standing Server::standing(const Connection& connection) const {
  return peer_of(connection).standing();
}

std::uint32_t Server::origin(const Connection& connection) const {
  return peer_of(connection).origin();
}

Server::Peer& Server::peer_of(const Connection& connection) const {
  return *internals_->peers[connection.slot()];
}

std::vector<const Connection*> Server::connections() const {
  std::vector<const Connection*> open;
  open.reserve(connection_count_);
  internals_->for_each_open([&](Peer& peer) { open.push_back(&peer.connection); });
  return open;
}

void Server::serve(Peer& peer, std::string_view frame) {
  PROFILE_SCOPE();
  const struct Trim {
    ~Trim() { internals.trim(); }
    Internals& internals;
  } trim_at_end{*internals_};
  internals_->msgpack.decode(internals_->snappy.decode(frame), internals_->message);
  const Envelope envelope = read_envelope(internals_->message);
  const auto handler =
      envelope.fault.empty()
          ? std::ranges::find(handlers_, envelope.name, [](const auto& each) { return each.first; })
          : handlers_.end();
  if (handler == handlers_.end()) {
    const std::string refusal =
        envelope.fault.empty()
            ? fmt::format("unknown request '{}'", envelope.name.substr(0, SHOWN_NAME_BYTES))
            : envelope.fault;
    if (note_failure(&peer)) handle_refusal(refusal);
    if (envelope.msgid) peer.connection.send(encode_error(*envelope.msgid, refusal));
    return;
  }
  try {
    const Request request{envelope.name, *envelope.args, peer.connection, envelope.msgid};
    const Reply reply = handler->second(request);
    if (envelope.msgid && !reply.is_later()) {
      peer.connection.send(encode_reply(*envelope.msgid, reply));
    }
  } catch (const LimitError&) {
    throw;
  } catch (const std::exception& failure) {
    peer.deferral = 0;
    peer.deferrer = nullptr;
    if (note_failure(&peer)) handle_exception(failure);
    if (!envelope.msgid) return;
    peer.connection.send(encode_error(*envelope.msgid, error_text(peer, failure)));
  }
}

/// Failures of all disconnected peers count together.
bool Server::note_failure(const Peer* peer) {
  ++resources_.counters.refused_requests;
  const std::uint32_t slot = peer == nullptr ? NO_SLOT : peer->connection.slot();
  auto& reports =
      internals_->failure_reports.try_emplace(slot, FAILURE_INTERVAL, FAILURES_PER_INTERVAL)
          .first->second;
  const auto left_out = reports.pass(loop_.now());
  if (left_out && *left_out != 0) report_left_out(peer, *left_out);
  return left_out.has_value();
}

void Server::report_left_out(const Peer* peer, std::uint64_t failures) {
  handle_shortage(fmt::format("{} more failures of requests of {} are not logged", failures,
                              peer == nullptr ? "peers that have gone"
                              : peer->origin() == LOCAL
                                  ? "a local peer"
                                  : "a peer at " + Address{peer->origin()}.host()));
}

std::string_view Server::error_text(const Peer& peer, const std::exception& failure) {
  const bool is_about_request = dynamic_cast<const RequestError*>(&failure) != nullptr;
  if (peer.is_authenticated() || is_about_request) return failure.what();
  return "the request failed for a reason that the server's log tells";
}

template <class Step>
void Server::guarded(Peer& peer, Step&& step) noexcept {
  try {
    step();
  } catch (const ProtocolError& fault) {
    if (peer.ended) return;
    peer.connection.flush(loop_.now());  // what was asked before is answered
    end_for(peer, fault);
  } catch (const std::exception& failure) {  // no memory: where its next frame begins is lost
    if (peer.ended) return;
    end(peer);
    loop_.guarded([&] { handle_exception(failure); });
  }
}

DeferredReply Server::defer(const Request& request, Deferrer* deferrer) noexcept {
  Peer& peer = peer_of(request.connection);
  if (++deferrals_ == 0) ++deferrals_;  // 0 stands for none
  peer.deferral = deferrals_;
  peer.deferrer = deferrer;
  peer.replies = request.msgid.has_value();
  peer.msgid = request.msgid.value_or(0);
  return {*this, request.connection.slot(), peer.deferral};
}

Server::Peer* DeferredReply::peer() const noexcept {
  auto& peer = server_->internals_->peers[slot_];
  return peer && !peer->ended && peer->deferral == number_ ? &*peer : nullptr;
}

Connection* DeferredReply::connection() const noexcept {
  Peer* const waiting = peer();
  return waiting == nullptr ? nullptr : &waiting->connection;
}

bool DeferredReply::has_peer() const noexcept {
  const Peer* const waiting = peer();
  return waiting != nullptr && !waiting->has_hung_up();
}

void DeferredReply::forget_deferrer() const noexcept {
  if (Peer* const waiting = peer()) waiting->deferrer = nullptr;
}

void DeferredReply::send(const Reply& reply) const noexcept {
  Peer* const waiting = peer();
  if (waiting == nullptr) return;
  waiting->resume(
      [&](std::uint32_t msgid) { waiting->connection.send(encode_reply(msgid, reply)); });
}

void DeferredReply::refuse(const std::string& text) const noexcept {
  reply_error([&] { server_->handle_refusal(text); }, text);
}

void DeferredReply::fail(const std::exception& failure) const noexcept {
  const Peer* const waiting = peer();
  reply_error([&] { server_->handle_exception(failure); },
              waiting == nullptr ? "" : error_text(*waiting, failure));
}

template <class Report>
void DeferredReply::reply_error(Report&& report, std::string_view text) const noexcept {
  Peer* const waiting = peer();
  server_->loop_.guarded([&] {
    if (server_->note_failure(waiting)) report();
  });
  if (waiting == nullptr) return;
  waiting->resume(
      [&](std::uint32_t msgid) { waiting->connection.send(encode_error(msgid, text)); });
}

bool DeferredReply::end_connection(const LimitError& reason) const {
  Peer* const waiting = peer();
  if (waiting != nullptr) waiting->evict(reason);
  return waiting != nullptr;
}

void Server::close() {
  if (!poll_) return;
  resume_listening_.cancel();
  poll_.reset();
  socket_ = Socket();
  internals_->for_each_open([this](Peer& peer) { end(peer); });
}

}  // namespace skein

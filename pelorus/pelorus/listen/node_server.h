#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/listen/key_verification.h"
#include "pelorus/pelorus/listen/node_key.h"
#include "pelorus/pelorus/settings.h"
#include "skein/next_turn.h"
#include "skein/server.h"

namespace pelorus {

/// Receives what remote nodes measure, over TCP. Each request carries the node's key: one that was
/// verified within VALID_CUTOFF seconds lets the request through at once; with any other the
/// request is held until the web server has spoken, and dropped in silence when it says no.
/// Borrows handler, settings and loop.
class NodeServer : public skein::Server {
 public:
  /// Binds to PELORUS_SERVER:PELORUS_PORT and listens at once. Throws SettingsError,
  /// skein::Failure.
  NodeServer(InfluxHandler& influx_handler, const Settings& settings, skein::Loop& loop,
             std::string verification_url = std::string(NODE_KEY_VERIFICATION_API_URL),
             std::shared_ptr<skein::Quota> quota = nullptr);

  void stop();

  void add_connection(skein::Connection& connection) override;
  void remove_connection(skein::Connection& connection) override;
  void handle_exception(const std::exception& failure) override;
  void handle_protocol_error(skein::Connection& connection,
                             const skein::ProtocolError& fault) override;
  void handle_shortage(const std::string& text) override;

  /// "10.1.2.3:40000"; empty for a connection that has ended.
  std::string address(const skein::Connection& connection) const;

  /// "add": records of line protocol in "data" for "database".
  skein::Reply req_add(const skein::Request& request);
  /// "submit": points of the legacy API, from nodes before 2016.1.
  skein::Reply req_submit(const skein::Request& request);
  /// "collectd": Graphite lines in "metrics", which may be cut anywhere between requests.
  skein::Reply req_collectd(const skein::Request& request);

 protected:
  std::span<const skein::RequestRow> requests() const override;
  std::unique_ptr<skein::Connection> make_connection(skein::Socket socket) override;

 private:
  /// What a part of an operation has done, and whether there is more to do.
  struct Step {
    IngestResult ingested{};
    bool is_last = true;
  };
  /// An ingest operation with its complete argument list. One that takes long is done in steps, one
  /// per call.
  using Method = std::function<Step()>;
  /// A method for later and how many bytes it holds.
  struct OwnedMethod {
    Method method;
    std::size_t bytes;
  };

  /// A request that waits for its key. Outlives its connection.
  class HeldMethod final : public skein::Holder {
   public:
    HeldMethod(NodeServer& server, const std::string& key, const skein::Connection& connection,
               OwnedMethod owned, skein::HeldRequest held);
    ~HeldMethod() { server_.quota().hold(*this, 0); }

    /// Nothing, when it had to be given up.
    Step run() const { return method_ ? method_() : Step(); }
    const skein::HeldRequest& request() const noexcept { return request_; }

    std::list<HeldMethod>::iterator place;  ///< in its queue

   private:
    void give_up(const skein::LimitError& reason) override;

    NodeServer& server_;
    std::string key_;
    Method method_;
    skein::HeldRequest request_;
  };

  /// The requests of one key that wait, in order of arrival.
  struct KeyQueue {
    enum class State {
      IDLE,
      ASKING,      ///< the web server is being asked for the first of them
      LET_THROUGH  ///< the first of them may run when its turn comes
    };
    std::list<HeldMethod> held;
    State state = State::IDLE;
  };

  static skein::Socket bind_listen(const Settings& settings);

  /// The peer addresses, by connection: from add_connection to remove_connection, else port 0.
  static skein::Address& connection_addresses(skein::Connection& connection);

  /// None for a key that never was verified.
  const VerifiedKey* find_verified(const std::string& key) const;
  /// Whether the key was verified less than VALID_CUTOFF seconds ago, as its entry says.
  bool valid_key(const std::string& key, const VerifiedKey* verified);
  /// Runs `now` at once where the key is valid and `now` does not find it too long for that; else
  /// what `owned` makes, a method for later with its own copies of the arguments.
  template <class Now, class MakeOwned>
  skein::Reply dispatch(const skein::Request& request, const NodeKey& node_key, Now&& now,
                        MakeOwned&& owned);
  /// Whether earlier requests of this key wait: the next one is looked at when its turn has come.
  bool is_waiting(const std::string& key) const;
  /// Asks the web server for the first request that waits for this key.
  void check_auth(const std::string& key);
  void handle_outcome(const std::string& key, const KeyOutcome& outcome);
  /// Counts the outcome, and remembers a valid key. Returns `is_valid`.
  bool validate(const std::string& key, const HeldMethod& held, bool is_valid);
  /// The first request that waits for this key may run on the next turn.
  void let_through(const std::string& key);
  /// Runs requests that were let through, of one key after the other, as many as one turn has time
  /// for: all that waited for the web server would keep the others waiting.
  void serve_let_through();
  /// Runs a step of the first request; its failure is the request's. False: there is more to do.
  bool forward(KeyQueue& queue);
  /// Takes the next one that waits for this key as if it came now.
  void serve_next(const std::string& key);
  /// Takes the first one out of its queue: a list of one. Its bytes are not counted any more.
  std::list<HeldMethod> take_first(KeyQueue& queue);
  /// One that is not being asked for leaves its queue.
  void forget(const std::string& key, const HeldMethod& held);
  static void count_auth(const HeldMethod& held, bool accepted);
  KeyVerification::Line line_of(const std::string& key) const;

  InfluxHandler& influx_handler_;
  const Settings& settings_;
  /// Key without dashes to the time of its last success, seconds since the epoch. Never shrinks:
  /// there are as many as there are nodes, and their connections point here.
  std::unordered_map<std::string, double> valid_;
  /// By key without dashes. No hash table: anybody may choose keys that collide.
  std::map<std::string, KeyQueue> waiting_;
  std::list<std::string> let_through_;  ///< keys, the next one first
  skein::NextTurn next_turn_;
  KeyVerification verification_;
};

}  // namespace pelorus

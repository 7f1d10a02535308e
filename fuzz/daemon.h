#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "pelorus/pelorus/ingest/influx_handler.h"
#include "pelorus/pelorus/settings.h"
#include "skein/resources.h"
#include "skein/server.h"
#include "support/fake_clock.h"

namespace fuzz {

/// What a server of the daemon stands on: databases that keep all they get, and a loop, which is
/// the one thing that outlives an execution.
struct Daemon {
  Daemon();
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// Sends the messages that lie behind each other in `values`, as many as MOST_MESSAGES, over one
  /// connection that ends then, and demands of every server: one reply for each numbered request,
  /// in order, up to the first message that is none; no connection is left; the token is not
  /// logged.
  void serve(skein::Server& server, std::string_view values);

  /// Messages that wait, of all databases.
  std::size_t queued() const;

  std::string log;  ///< all that was logged, save debug
  skein::Loop& loop;
  const pelorus::Settings& settings;
  pelorus::BufferSettings buffer_settings{.max_pending_messages = 1U << 20,
                                          .max_buffer_time = 1e9,
                                          .ideal_queued_messages = 1U << 20,
                                          .max_batch_size = 1U << 20,
                                          .discard_size = 1};
  pelorus::InfluxHandler handler;
  std::size_t handles_before;                 ///< that the loop had, with those of the handler
  std::optional<skein::Resources> resources;  // for the server
};

}  // namespace fuzz

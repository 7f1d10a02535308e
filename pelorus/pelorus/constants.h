#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "skein/socket.h"
#include "tidewell_origin.h"

// Fixed values of the daemon: no setting, file or environment variable overrides them.
namespace pelorus {

using namespace std::chrono_literals;

/// Age at which a verified node key is verified again.
constexpr std::chrono::seconds VALID_CUTOFF{3600};
/// Points of a legacy submit request in one iteration of the loop: about a millisecond of work,
/// whatever their values.
constexpr std::size_t POINTS_PER_STEP = 1024;
/// Pending connections of either listening socket.
constexpr int LISTEN_BACKLOG = 1024;
/// Where node keys are verified: the origin is a build option, the path is the web application's.
constexpr std::string_view NODE_KEY_VERIFICATION_API_URL =
    PELORUS_TIDEWELL_ORIGIN "/api/v4/nodes/key-verification/";
/// Longest wait to connect to the web server, and for each part of its answer.
constexpr double NODE_API_TIMEOUT = 1.0;  // seconds
/// Time between two reports of the daemon about itself.
constexpr int STATS_INTERVAL = 10;  // seconds
/// A node that has vanished without closing its connection is noticed after 300 + 4 × 8 seconds.
constexpr int KEEPALIVE_IDLE = 300;  // seconds
constexpr int KEEPALIVE_COUNT = 4;
constexpr int KEEPALIVE_INTERVAL = 8;  // seconds
constexpr skein::Keepalive KEEPALIVE{
    .count = KEEPALIVE_COUNT, .idle = KEEPALIVE_IDLE, .interval = KEEPALIVE_INTERVAL};

/// Account and group of the local socket; database of the daemon's own records.
constexpr const char* TIDEWELL_ACCOUNT = "tidewell";
constexpr std::string_view TIDEWELL_DATABASE = "tidewell";
/// The database of the data that nodes send.
constexpr std::string_view BONDING_DATABASE = "bonding";

}  // namespace pelorus

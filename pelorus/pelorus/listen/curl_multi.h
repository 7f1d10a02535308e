#pragma once

#include <curl/curl.h>

#include <memory>
#include <unordered_map>

#include "skein/loops.h"

namespace pelorus {

/// What a CurlMulti tells about one transfer. Nothing is called from within libcurl.
class CurlTransfer {
 public:
  /// Bytes have come on the transfer's socket, or its end; libcurl is about to read them.
  virtual void handle_readable() = 0;
  /// The transfer is over and has left the CurlMulti. Must not destroy the CurlMulti.
  virtual void handle_end(CURLcode result) = 0;

 protected:
  ~CurlTransfer() = default;
};

/// libcurl's transfers on the event loop: watches the descriptors and keeps the timer that libcurl
/// asks for, and tells how each transfer ended. Never blocks. Connections that a server leaves open
/// are kept for the next transfer. Borrows the loop. Loop thread only.
class CurlMulti {
 public:
  /// `max_idle_connections`: most of them that are kept. Throws skein::Failure.
  CurlMulti(skein::Loop& loop, long max_idle_connections);
  CurlMulti(const CurlMulti&) = delete;
  CurlMulti& operator=(const CurlMulti&) = delete;
  /// All transfers must have left.
  ~CurlMulti();

  /// Begins with `easy` on the next iteration. Its CURLOPT_PRIVATE is the CurlTransfer that hears
  /// of it. Both stay the caller's, until handle_end or remove(). Throws skein::Failure.
  void add(CURL* easy);
  /// Serves the ready sockets of the transfer now; whether any was ready. For time-outs: after a
  /// suspension a timer runs before descriptors are looked at.
  bool serve_ready(CURL* easy) noexcept;
  /// Breaks a transfer off, without handle_end. Harmless for one that is not there.
  void remove(CURL* easy) noexcept;

 private:
  class Watch;

  static int on_socket(CURL* easy, curl_socket_t socket, int wanted, void* self, void*) noexcept;
  static int on_timer(CURLM*, long milliseconds, void* self) noexcept;
  void watch(CURL* easy, curl_socket_t socket, int wanted);
  void set_timer(long milliseconds);
  void act(curl_socket_t socket, int events);
  void report_ends();

  skein::Loop& loop_;
  skein::Timer timer_;  ///< when libcurl wants to look for itself
  std::unordered_map<curl_socket_t, std::unique_ptr<Watch>> watches_;
  CURLM* multi_;
};

}  // namespace pelorus

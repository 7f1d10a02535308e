#include "pelorus/pelorus/influx/name_lookup.h"

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>

#include <array>
#include <cstring>
#include <memory>
#include <utility>

#include "skein/errors.h"

namespace pelorus {
namespace {

std::size_t pending = 0;

addrinfo stream_hints(int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  return hints;
}

std::vector<SocketAddress> copy_of(const addrinfo* found) {
  std::vector<SocketAddress> addresses;
  for (; found != nullptr && addresses.size() < MAX_ADDRESSES; found = found->ai_next) {
    auto& address = addresses.emplace_back();
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    address.length = found->ai_addrlen;
  }
  return addresses;
}

}  // namespace

std::size_t lookups_pending() noexcept { return pending; }

std::string SocketAddress::text() const {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (::getnameinfo(get(), length, host.data(), host.size(), port.data(), port.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "an unknown address";
  }
  const bool v6 = storage.ss_family == AF_INET6;
  return fmt::format("{}{}{}:{}", v6 ? "[" : "", host.data(), v6 ? "]" : "", port.data());
}

std::vector<SocketAddress> numeric_address(const std::string& host, std::uint16_t port) {
  const addrinfo hints = stream_hints(AI_NUMERICHOST);
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(found, &freeaddrinfo);
  return copy_of(found);
}

NameLookup::NameLookup(skein::Loop& loop, const std::string& host, std::uint16_t port, Done done)
    : done_(std::move(done)) {
  auto request = std::make_unique<uv_getaddrinfo_t>();
  request->data = this;
  const addrinfo hints = stream_hints(0);
  const int result = uv_getaddrinfo(loop.uv(), request.get(), &NameLookup::on_done, host.c_str(),
                                    std::to_string(port).c_str(), &hints);
  if (result != 0) throw skein::SystemFailure("uv_getaddrinfo", -result);
  ++pending;
  request_ = request.release();
}

NameLookup::~NameLookup() {
  if (request_ == nullptr) return;
  request_->data = nullptr;
  uv_cancel(reinterpret_cast<uv_req_t*>(request_));  // in vain where a thread is at it already
}

void NameLookup::on_done(uv_getaddrinfo_t* request, int status, addrinfo* found) noexcept {
  const std::unique_ptr<uv_getaddrinfo_t> owned(request);
  const std::unique_ptr<addrinfo, decltype(&uv_freeaddrinfo)> list(found, &uv_freeaddrinfo);
  --pending;
  auto* lookup = static_cast<NameLookup*>(request->data);
  if (lookup == nullptr) return;
  lookup->request_ = nullptr;
  auto* loop = static_cast<skein::Loop*>(request->loop->data);
  try {
    const auto done = std::move(lookup->done_);  // it may destroy the lookup
    done(copy_of(found), status == 0 ? "" : uv_strerror(status));
  } catch (const std::exception& failure) {
    loop->report(failure);
  }
}

}  // namespace pelorus

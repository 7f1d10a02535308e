#include "skein/client_c.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "skein/client.h"

struct skein_client {
  skein_client(skein::Endpoint endpoint, skein::Timeouts timeouts)
      : client(std::move(endpoint), timeouts) {}

  skein::Client client;
};

namespace {

using skein::ClientError;

int status_of(ClientError::Kind kind) noexcept {
  switch (kind) {
    case ClientError::Kind::NO_SOCKET:
      return SKEIN_NO_SOCKET;
    case ClientError::Kind::REFUSED:
      return SKEIN_REFUSED;
    case ClientError::Kind::NOT_PERMITTED:
      return SKEIN_NOT_PERMITTED;
    case ClientError::Kind::UNREACHABLE:
      return SKEIN_UNREACHABLE;
    case ClientError::Kind::TIMED_OUT:
      return SKEIN_TIMED_OUT;
    case ClientError::Kind::LOST:
      return SKEIN_LOST;
    case ClientError::Kind::SERVER:
      return SKEIN_SERVER;
    case ClientError::Kind::CANCELLED:
      return SKEIN_CANCELLED;
  }
  return SKEIN_FAILED;
}

void write_error(std::string_view text, char* error, std::size_t size) noexcept {
  if (size == 0) return;
  const std::size_t count = std::min(text.size(), size - 1);
  std::memcpy(error, text.data(), count);
  error[count] = '\0';
}

/// No exception crosses into C: `operation` fails with a status and a text.
template <class Operation>
int guarded(char* error, std::size_t size, Operation operation) noexcept {
  try {
    operation();
    return SKEIN_OK;
  } catch (const ClientError& failure) {
    write_error(failure.what(), error, size);
    return status_of(failure.kind());
  } catch (const std::exception& failure) {
    write_error(failure.what(), error, size);
  } catch (...) {
    write_error("unknown failure", error, size);
  }
  return SKEIN_FAILED;
}

std::chrono::milliseconds or_default(unsigned milliseconds) {
  return std::chrono::milliseconds(milliseconds == 0 ? 5000U : milliseconds);
}

skein_client* create(skein::Endpoint endpoint, const skein_timeouts* timeouts) {
  const skein_timeouts given = timeouts == nullptr ? skein_timeouts{} : *timeouts;
  const skein::Timeouts waits{.connect = or_default(given.connect),
                              .send = or_default(given.send),
                              .receive = or_default(given.receive)};
  return std::make_unique<skein_client>(std::move(endpoint), waits).release();
}

}  // namespace

skein_client* skein_client_unix(const char* path, const skein_timeouts* timeouts) {
  skein_client* client = nullptr;
  guarded(nullptr, 0, [&] { client = create(skein::Endpoint::unix_socket(path), timeouts); });
  return client;
}

skein_client* skein_client_tcp(const char* host, const char* port, const skein_timeouts* timeouts) {
  skein_client* client = nullptr;
  guarded(nullptr, 0, [&] { client = create(skein::Endpoint::tcp(host, port), timeouts); });
  return client;
}

int skein_client_open(skein_client* client, char* error, size_t error_size) {
  return guarded(error, error_size, [&] { client->client.open(); });
}

int skein_client_is_open(const skein_client* client) { return client->client.is_open() ? 1 : 0; }

int skein_client_call(skein_client* client, const char* name, const skein_argument* arguments,
                      size_t count, char* error, size_t error_size) {
  return guarded(error, error_size, [&] {
    skein::MsgpackWriter args;
    args.map(count);
    for (size_t i = 0; i < count; ++i) {
      args.text(arguments[i].name).text({arguments[i].text, arguments[i].size});
    }
    client->client.call(name, args);
  });
}

void skein_client_close(skein_client* client) { client->client.close(); }

void skein_client_cancel(skein_client* client) { client->client.cancel(); }

void skein_client_free(skein_client* client) { std::default_delete<skein_client>()(client); }

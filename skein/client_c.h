#ifndef SKEIN_CLIENT_C_H
#define SKEIN_CLIENT_C_H

#include <stddef.h>

/* The client of skein/client.h for C. Nothing throws. Each function that can fail returns a
 * skein_status and, unless it is SKEIN_OK, writes what happened into `error`, ended by a null byte
 * and cut to `error_size` bytes; `error` may be NULL where `error_size` is 0. */
#ifdef __cplusplus
extern "C" {
#endif

typedef struct skein_client skein_client;

enum skein_status {
  SKEIN_OK = 0,
  SKEIN_NO_SOCKET,     /* nothing stands at the path */
  SKEIN_REFUSED,       /* nobody listens there */
  SKEIN_NOT_PERMITTED, /* the socket is not ours to use */
  SKEIN_UNREACHABLE,   /* any other reason why there is no connection */
  SKEIN_TIMED_OUT,     /* connecting, sending or the reply took too long */
  SKEIN_LOST,          /* the connection broke, or what came over it is no skein */
  SKEIN_SERVER,        /* the server answered with an error: `error` is its text */
  SKEIN_CANCELLED,     /* skein_client_cancel() was called */
  SKEIN_FAILED         /* no memory, no descriptor, a request that is too large */
};

/* Longest waits in milliseconds; 0 means 5000. */
struct skein_timeouts {
  unsigned connect;
  unsigned send;
  unsigned receive;
};

/* One text argument of a request; the bytes need no null byte at their end. */
struct skein_argument {
  const char* name;
  const char* text;
  size_t size;
};

/* A client that is not connected yet; NULL when there is no memory or no descriptor left.
 * `timeouts` may be NULL. The caller frees it. */
skein_client* skein_client_unix(const char* path, const struct skein_timeouts* timeouts);
skein_client* skein_client_tcp(const char* host, const char* port,
                               const struct skein_timeouts* timeouts);

int skein_client_open(skein_client* client, char* error, size_t error_size);
/* 1 while a connection stands, else 0. A failed call closes it, save with SKEIN_SERVER. */
int skein_client_is_open(const skein_client* client);
/* Sends one request and waits until it was served. The result of the reply is dropped. */
int skein_client_call(skein_client* client, const char* name,
                      const struct skein_argument* arguments, size_t count, char* error,
                      size_t error_size);
void skein_client_close(skein_client* client);
/* Ends what waits, and all later calls, with SKEIN_CANCELLED. Any thread. */
void skein_client_cancel(skein_client* client);
void skein_client_free(skein_client* client);

#ifdef __cplusplus
}
#endif

#endif

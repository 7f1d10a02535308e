/* Compiled as C: the header must hold there too. */
#include <string.h>

#include "skein/client_c.h"

int call_from_c(const char* path, char* error, size_t error_size);

/* Opens, sends one good and one bad block; the first status that is not SKEIN_OK. */
int call_from_c(const char* path, char* error, size_t error_size) {
  const struct skein_timeouts timeouts = {1000, 1000, 1000};
  const struct skein_argument good[] = {{"metrics", "good\n", 5}, {"key", "12-ab", 5}};
  const struct skein_argument bad = {"metrics", "bad\n", 4};
  skein_client* client = skein_client_unix(path, &timeouts);
  int status = skein_client_open(client, error, error_size);
  if (status == SKEIN_OK) {
    status = skein_client_call(client, "collectd", good, 2, error, error_size);
  }
  if (status == SKEIN_OK) {
    status = skein_client_call(client, "collectd", &bad, 1, error, error_size);
  }
  skein_client_free(client);
  return status;
}

#include <unistd.h>

#include <cstdio>

#include "pelorus/pelorus/influx/http_exchange.h"
#include "pelorus/pelorus/service.h"

int main(int argument_count, char** arguments) {
  const int status = pelorus::run_process(argument_count, arguments);
  if (pelorus::HTTPExchange::lookups_pending()) {
    // A name server that does not answer holds a thread that the ordinary end would wait for.
    std::fflush(nullptr);
    ::_exit(status);
  }
  return status;
}

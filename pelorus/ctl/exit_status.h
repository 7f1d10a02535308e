#pragma once

#include <string>

#include "skein/client_stream.h"

namespace pelorus::ctl {

/// What pelorusctl ends with. Scripts rely on the numbers.
enum class ExitStatus : int {
  SUCCESS = 0,
  FAILURE = 1,  ///< anything that is not below
  USAGE = 2,    ///< the command line is wrong
  NO_SOCKET = 3,
  REFUSED = 4,
  NOT_PERMITTED = 5,
  TIMED_OUT = 6,
  SERVER_ERROR = 7,
  UNREACHABLE = 8,
  LOST = 9,
};

ExitStatus exit_status_of(skein::ClientError::Kind kind);

/// What happened and what it may mean, for a person.
std::string explain(const skein::ClientError& error);

/// The list of exit statuses, as the help shows it.
std::string exit_status_help();

}  // namespace pelorus::ctl

#pragma once

#include "skein/errors.h"

namespace pelorus {

/// A setting is missing, of the wrong type or out of range, or the settings cannot be read. The
/// text names the key and the source, never a value.
class SettingsError : public skein::Failure {
 public:
  using Failure::Failure;
};

/// A request names a database that is not configured.
class UnknownDatabaseError : public skein::Failure {
 public:
  using Failure::Failure;
};

/// A record would not fit the output buffer of the Graphite path.
class OutputBufferFullError : public skein::Failure {
 public:
  using Failure::Failure;
};

/// A value in a request's argument has a type that is not supported there.
class ArgumentTypeError : public skein::Failure {
 public:
  using Failure::Failure;
};

}  // namespace pelorus

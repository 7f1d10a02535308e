#pragma once

#include "skein/errors.h"

namespace pelorus {

/// A setting is missing, of the wrong type or senseless, or the settings cannot be read. The text
/// names the key and the source, never a value.
class SettingsError : public skein::Failure {
 public:
  using Failure::Failure;
};

/// A database that is not configured.
class UnknownDatabaseError : public skein::Failure {
 public:
  using Failure::Failure;
};

/// A record would not fit the output buffer of the Graphite path.
class OutputBufferFullError : public skein::Failure {
 public:
  using Failure::Failure;
};

/// A request's argument holds a value of a kind that cannot be used there.
class ArgumentTypeError : public skein::Failure {
 public:
  using Failure::Failure;
};

}  // namespace pelorus

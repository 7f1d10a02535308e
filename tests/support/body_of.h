#pragma once

#include <cstdint>
#include <string>

#include "pelorus/pelorus/influx/influx_database.h"

namespace support {

/// The body that a write of the batch sends, as one text.
inline std::string body_of(pelorus::Batch batch) {
  std::string body;
  batch.append_slice(body, SIZE_MAX);
  return body;
}

}  // namespace support

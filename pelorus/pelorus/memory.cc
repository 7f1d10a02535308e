#include "pelorus/pelorus/memory.h"

#include <malloc.h>

namespace pelorus {
namespace {

constexpr int MIB = 1 << 20;
constexpr int KEPT_BYTES = 4 * MIB;
/// Larger blocks, such as the body after a long outage, are mapped by themselves and go back to the
/// system as soon as they are freed.
constexpr int OWN_MAPPING_BYTES = 1 * MIB;

}  // namespace

void keep_freed_memory() {
  // Both: setting one of them ends the allocator's own adjustment of the other.
  ::mallopt(M_TRIM_THRESHOLD, KEPT_BYTES);
  ::mallopt(M_MMAP_THRESHOLD, OWN_MAPPING_BYTES);
}

}  // namespace pelorus

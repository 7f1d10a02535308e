#pragma once

namespace pelorus {

/// Has the allocator keep a few MiB that were freed. Messages and request bodies come and go all
/// the time; without this their memory goes back to the system with each batch, and taking it anew
/// costs more, page by page, than translating the lines that it holds.
void keep_freed_memory();

}  // namespace pelorus

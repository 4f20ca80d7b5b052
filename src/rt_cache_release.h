// Release of the PCIe SSD extender and backplane objects, shared by the
// cache's own release walk and the NVMe inventory (which replaces or drops
// objects it built). No lock, no trace: callers hold the cache lock when the
// object is reachable from the cache.
#pragma once

#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"

namespace rtvox::cache {

// Frees an extender with its name and FQDD, and clears the pointer. NULL: nothing.
void release_extender(RtCacheExtender *&extender);
// Frees an enclosure record with its FQDD and NAME, and clears the pointer. NULL: nothing.
void release_enclosure(RtEnclosure *&enclosure);
// Frees a backplane with its enclosure record, and clears the pointer. NULL: nothing.
void release_backplane(RtCacheBackplane *&backplane);

}  // namespace rtvox::cache

// Direct reads of one controller's row of the physical-disk table, for a
// caller that walks many keys of one controller under the cache lock and
// would otherwise search the registry again for every key. Private to the
// library.
#pragma once

#include <cstdint>

#include "rtvox/rt_cache.h"

namespace rtvox::cache {

struct DiskRow {
    void **slots = nullptr;  // null: the EID has no row (see pd_row)
    uint32_t limit = 0;      // keys below it are in the row

    // The object a fetch of (RTCACHE_KEY_PD, the row's EID, key) answers, or
    // null where that fetch answers nothing or fails on the key.
    void *at(uint32_t key) const
    {
        const auto slot = static_cast<uint16_t>(key);  // keys are 16-bit, as in the fetch
        return slot < limit ? slots[slot] : nullptr;
    }
};

// The row of EID's adapter in cache_PDs, or an empty row where
// rtcache_GetCachedObject(RTCACHE_KEY_PD, EID, ...) fails whatever the key
// (an EID above 254 or without an adapter index, no table): such a caller
// goes through the fetch itself, which traces why. The row stays valid while
// the caller holds the cache lock and stores nothing.
DiskRow pd_row(uint32_t EID);

}  // namespace rtvox::cache

// Set-ups that several benchmarks share.
#include "bench.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"

namespace rtvox::bench {

bool set_up_cache(uint32_t controllers)
{
    if (rtcache_Init() != 0) {
        return false;
    }
    for (uint32_t c = 0; c < controllers; ++c) {
        uint8_t eid = controller_eid(c);
        if (rtcache_GetLock() != 0) {
            return false;
        }
        const uint32_t rc = rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, c, &eid);
        SMMutexUnLock(mutexRtCache);
        if (rc != 0 || rtcache_SetStorageEIDType(eid, RTCACHE_EIDTYPE_TAVO) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace rtvox::bench

// The cache lock as a scope: taken on construction (waiting without limit),
// released on destruction when it was taken. Private to the library: the cache
// module and the NVMe inventory, which holds the cache lock while it stores.
#pragma once

#include <cstdint>

#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"

namespace rtvox::cache {

class CacheLock {
public:
    CacheLock() : handle_(mutexRtCache), held_(SMMutexLock(handle_, -1) == 0) {}
    ~CacheLock()
    {
        if (held_) {
            SMMutexUnLock(handle_);
        }
    }
    CacheLock(const CacheLock &) = delete;
    CacheLock &operator=(const CacheLock &) = delete;

    bool held() const { return held_; }

private:
    uint32_t handle_;
    bool held_;
};

}  // namespace rtvox::cache

// The trace of a lock that could not be taken, in the caller's name.
#define RTCACHE_TRACE_MUTEX_FAIL() RT_TRACE(1, "%s%s", "<-- err mutex fail", "")

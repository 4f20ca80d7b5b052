// Set-ups and measuring aids that several benchmarks share.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <unordered_map>

#include "bench.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "vornhost/vornhost.h"

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

double filtered_trace_rate(std::chrono::steady_clock::duration length)
{
    // A typical line of the library at level 5, above the level the host keeps.
    auto trace = [] {
        vornprintf(5, 15, "%s:%s:%u:--> entry, EID:%d, objType:0x%x, eventType:0x%x, objKey:%d\n", "rt_cache.c",
                   "rtcache_SetCachedEvent", 1u, 10, 1u, 9u, 1);
    };
    return Bench::run_for(length, trace);
}

void trace_capture_start()
{
    vornhost_trace_clear();
    vornhost_trace_capture(1);
}

uint32_t trace_capture_stop()
{
    vornhost_trace_capture(0);
    const uint32_t lines = vornhost_trace_count();
    vornhost_trace_clear();
    return lines;
}

namespace {

// The blocks taken while counting, by address; blocks from before are not
// counted when they are freed. Other benchmarks' threads call the wrappers
// too, so the switch is atomic and the table locked.
struct HeapCount {
    std::atomic<bool> on{false};
    std::mutex lock;
    std::unordered_map<void *, size_t> blocks;
    size_t live = 0;
    size_t peak = 0;
};

HeapCount &heap()
{
    static auto *count = new HeapCount;  // never destroyed: frees may come during exit
    return *count;
}

}  // namespace

void heap_count_start()
{
    HeapCount &h = heap();
    const std::lock_guard guard(h.lock);
    h.blocks.clear();
    h.live = 0;
    h.peak = 0;
    h.on.store(true, std::memory_order_relaxed);
}

void heap_count_stop()
{
    heap().on.store(false, std::memory_order_relaxed);
}

size_t heap_peak()
{
    HeapCount &h = heap();
    const std::lock_guard guard(h.lock);
    return h.peak;
}

}  // namespace rtvox::bench

// The wrappers the benchmark links in place of calloc and free (-Wl,--wrap).
extern "C" {
void *__real_calloc(size_t count, size_t size);  // NOLINT(bugprone-reserved-identifier)
void __real_free(void *block);                   // NOLINT(bugprone-reserved-identifier)

void *__wrap_calloc(size_t count, size_t size)  // NOLINT(bugprone-reserved-identifier)
{
    void *block = __real_calloc(count, size);
    rtvox::bench::HeapCount &h = rtvox::bench::heap();
    if (block != nullptr && h.on.load(std::memory_order_relaxed)) {
        const std::lock_guard guard(h.lock);
        h.blocks[block] = count * size;
        h.live += count * size;
        h.peak = std::max(h.peak, h.live);
    }
    return block;
}

void __wrap_free(void *block)  // NOLINT(bugprone-reserved-identifier)
{
    rtvox::bench::HeapCount &h = rtvox::bench::heap();
    if (block != nullptr && h.on.load(std::memory_order_relaxed)) {
        const std::lock_guard guard(h.lock);
        if (const auto found = h.blocks.find(block); found != h.blocks.end()) {
            h.live -= found->second;
            h.blocks.erase(found);
        }
    }
    __real_free(block);
}
}

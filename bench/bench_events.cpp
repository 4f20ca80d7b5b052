// The event cache under an event storm: on each of 30 controllers a full
// ring of 384 plain events and 256 change-object events (one per disk slot,
// each with its record), every event recorded under the cache lock as an
// event thread does, then one fetch per controller that takes the batch.
// Records are built before and released after the timed part.
//
// Beside it, the cost of one bitmap print: a plain event prints the
// change-object bitmap once while max_physicaldevices is above 7 and not at
// all below, so the difference of the two rates is one print.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench.h"
#include "rtvox/rt_cache.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kControllers = 30;
constexpr uint32_t kPlain = RTCACHE_EVENTCACHE_DEPTH;
constexpr uint32_t kChange = RTCACHE_PDCHOBJ_SLOTS;
constexpr uint32_t kEventsPerStorm = kControllers * (kPlain + kChange);

uint8_t eid_of(uint32_t controller)
{
    return static_cast<uint8_t>(10 + controller);
}

bool set_up_cache()
{
    if (rtcache_Init() != 0) {
        return false;
    }
    for (uint32_t c = 0; c < kControllers; ++c) {
        uint8_t eid = eid_of(c);
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

RtCacheEventRecord *make_record()
{
    auto *record = static_cast<RtCacheEventRecord *>(rtvox_alloc(32));
    record->messageId = static_cast<char *>(rtvox_alloc(8));
    std::memcpy(record->messageId, "PDR4", 5);
    record->pData = rtvox_alloc(16);
    return record;
}

void release_record(void *event_data)
{
    auto *record = static_cast<RtCacheEventRecord *>(event_data);
    rtvox_free(record->messageId);
    rtvox_free(record->pData);
    rtvox_free(record);
}

struct Storm {
    Clock::duration record{};
    Clock::duration fetch{};
    uint64_t storms = 0;
    uint64_t fetched = 0;
};

void one_storm(Storm &storm)
{
    std::vector<void *> records(kControllers * kChange);
    for (void *&record : records) {
        record = make_record();
    }
    const auto t0 = Clock::now();
    for (uint32_t c = 0; c < kControllers; ++c) {
        const uint8_t eid = eid_of(c);
        for (uint32_t i = 0; i < kPlain; ++i) {
            rtcache_GetLock();
            rtcache_SetCachedEvent(eid, 1, 9, i);
            SMMutexUnLock(mutexRtCache);
        }
        for (uint32_t disk = 0; disk < kChange; ++disk) {
            rtcache_GetLock();
            rtcache_SetCachedEvent_roll_up(eid, PHYSICALDISK, RAID_MGMT_EVENT_CHANGE_OBJECT, disk,
                                           records[c * kChange + disk]);
            SMMutexUnLock(mutexRtCache);
        }
    }
    const auto t1 = Clock::now();
    std::vector<std::pair<RtCacheEventBlock *, RtCachePdChObjBlock *>> batches(kControllers);
    for (uint32_t c = 0; c < kControllers; ++c) {
        rtcache_GetCachedEvents(eid_of(c), &batches[c].first, &batches[c].second);
    }
    const auto t2 = Clock::now();
    for (auto &[events, chObj] : batches) {
        if (events == nullptr || chObj == nullptr) {
            continue;
        }
        storm.fetched += events->u32Count;
        for (void *record : chObj->apRecords) {
            if (record != nullptr) {
                ++storm.fetched;
                release_record(record);
            }
        }
        rtvox_free(events);
        rtvox_free(chObj);
    }
    storm.record += t1 - t0;
    storm.fetch += t2 - t1;
    ++storm.storms;
}

// Plain events per second on one controller, the ring wrapping as it goes.
double plain_rate(const rtvox::bench::Bench &bench)
{
    const uint8_t eid = eid_of(0);
    return bench.rate([eid] {
        rtcache_GetLock();
        rtcache_SetCachedEvent(eid, 1, 9, 1);
        SMMutexUnLock(mutexRtCache);
    });
}

}  // namespace

RTVOX_BENCH(event_storm)
{
    if (!set_up_cache()) {
        std::fprintf(stderr, "event_storm: the cache could not be set up\n");
        rtcache_Destroy();
        return;
    }
    Storm storm;
    const auto end = Clock::now() + bench.budget() * 2;
    do {
        one_storm(storm);
    } while (Clock::now() < end);
    if (storm.fetched != storm.storms * kEventsPerStorm) {
        std::fprintf(stderr, "event_storm: %llu events fetched, %llu expected\n",
                     static_cast<unsigned long long>(storm.fetched),
                     static_cast<unsigned long long>(storm.storms * kEventsPerStorm));
    }
    using rtvox::bench::Bench;
    const std::string what = " (30 controllers x (384 plain + 256 change-object))";
    bench.report("event storm, record under the lock" + what,
                 Bench::per_second(storm.storms * kEventsPerStorm, storm.record), "events/s");
    bench.report("event storm, fetch of each controller's batch",
                 Bench::per_second(storm.storms * kEventsPerStorm, storm.fetch), "events/s");
    bench.report("event storm, record + fetch",
                 Bench::per_second(storm.storms * kEventsPerStorm, storm.record + storm.fetch), "events/s");

    const double printing = plain_rate(bench);
    const uint32_t limit = max_physicaldevices;
    max_physicaldevices = 7;  // below 8 no bitmap is printed
    const double silent = plain_rate(bench);
    max_physicaldevices = limit;
    bench.report("plain event with its bitmap print (64 bytes)", printing, "events/s");
    bench.report("plain event without a bitmap print", silent, "events/s");
    const double print_ns = printing > 0 && silent > 0 ? 1e9 / printing - 1e9 / silent : 0.0;
    bench.report("one bitmap print (64 bytes, 192 characters, traced at level 2)", print_ns, "ns");
    rtcache_Destroy();
}

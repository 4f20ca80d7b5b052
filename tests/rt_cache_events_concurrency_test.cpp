// Event threads record plain and change-object events under the cache lock
// while a service thread fetches batches: every event arrives exactly once,
// every record is handed over exactly once. This suite also runs under drd
// (i386-valgrind preset), with smaller counts.
#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "rt_cache_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

constexpr uint8_t kEid = 0x12;
constexpr uint32_t kIndex = 1;
constexpr uint32_t kThreads = 3;
constexpr uint32_t kDisksPerThread = 80;  // 240 disks: every one has a record slot

class EventCacheConcurrency : public CacheTest {
protected:
    void SetUp() override
    {
        root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");  // every thread traces a lot
        CacheTest::SetUp();
        vornhost_trace_capture(0);
        vornhost_trace_set_level(0);
        add_eid(kIndex, kEid);
    }
    void TearDown() override
    {
        CacheTest::TearDown();
        EXPECT_EQ(alloc_live(), 0);
    }
};

// Records a plain event under the lock when the ring has room, as a service
// that fetches often enough never to lose one; false when it has to wait.
bool record_plain(uint32_t key)
{
    EXPECT_EQ(rtcache_GetLock(), 0u);
    const bool room = cache_Events[kIndex].u32Count < RTCACHE_EVENTCACHE_DEPTH;
    if (room) {
        EXPECT_EQ(rtcache_SetCachedEvent_roll_up(kEid, 1, 7, key, nullptr), 0u);
    }
    SMMutexUnLock(mutexRtCache);
    return room;
}

TEST_F(EventCacheConcurrency, EveryEventIsFetchedExactlyOnceWhileBatchesAreTaken)
{
    const TimeBound bound(valgrind_run() ? 500 : 100);
    const uint32_t plainPerThread = valgrind_run() ? 300 : 3000;
    std::atomic<uint32_t> running{kThreads};

    // Plain events carry (thread << 16 | n) as key; thread t's disks are
    // t * 80 ... t * 80 + 79, each changed once with its own record.
    std::vector<std::vector<void *>> records(kThreads);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        for (uint32_t d = 0; d < kDisksPerThread; ++d) {
            records[t].push_back(event_record("PDR5"));
        }
        threads.emplace_back([&, t] {
            for (uint32_t n = 0, disk = 0; n < plainPerThread; ++n) {
                while (!record_plain((t << 16) | n)) {
                    std::this_thread::yield();
                }
                if (n % (plainPerThread / kDisksPerThread) == 0 && disk < kDisksPerThread) {
                    EXPECT_EQ(record_event(kEid, PHYSICALDISK, RAID_MGMT_EVENT_CHANGE_OBJECT,
                                           t * kDisksPerThread + disk, records[t][disk]),
                              0u);
                    ++disk;
                }
            }
            --running;
        });
    }

    std::map<uint32_t, uint32_t> seen;  // plain key -> times fetched
    std::map<void *, uint32_t> handed;  // record -> times handed over
    std::map<uint32_t, uint32_t> bits;  // disk -> times its bit was set
    uint32_t batches = 0;
    auto take = [&] {
        RtCacheEventBlock *events = nullptr;
        RtCachePdChObjBlock *chObj = nullptr;
        ASSERT_EQ(rtcache_GetCachedEvents(kEid, &events, &chObj), 0u);
        ++batches;
        for (uint32_t i = 0; i < events->u32Count; ++i) {
            ++seen[events->entries[i].objKey];
        }
        for (uint32_t disk = 0; disk < RTCACHE_PDCHOBJ_SLOTS; ++disk) {
            bits[disk] += (chObj->au8Bitmap[disk >> 3] >> (disk & 7)) & 1;
            if (chObj->apRecords[disk] != nullptr) {
                ++handed[chObj->apRecords[disk]];
            }
        }
        rtvox_free(events);
        rtvox_free(chObj);
    };
    while (running.load() != 0) {
        take();
        std::this_thread::yield();
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    take();

    EXPECT_GE(batches, 2u);
    EXPECT_EQ(seen.size(), kThreads * plainPerThread);
    for (const auto &[key, times] : seen) {
        ASSERT_EQ(times, 1u) << std::hex << key;
        ASSERT_LT(key & 0xFFFF, plainPerThread);
    }
    for (uint32_t disk = 0; disk < RTCACHE_PDCHOBJ_SLOTS; ++disk) {
        ASSERT_EQ(bits[disk], disk < kThreads * kDisksPerThread ? 1u : 0u) << disk;
    }
    EXPECT_EQ(handed.size(), kThreads * kDisksPerThread);
    for (const std::vector<void *> &mine : records) {
        for (void *record : mine) {
            EXPECT_EQ(handed[record], 1u);
            release_event_record(record);
        }
    }
}

}  // namespace

// The cache under a poll thread that replaces records while readers fetch
// them, and under event threads while a service thread fetches batches.
// These suites also run under drd (i386-valgrind preset), with smaller counts.
#include <atomic>
#include <cwchar>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rt_cache_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

// Every thread traces a lot: no log file, no capture. A lock never given back
// ends the process instead of leaving a thread waiting.
class QuietCache : public CacheTest {
protected:
    void SetUp() override
    {
        root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");
        CacheTest::SetUp();
        vornhost_trace_capture(0);
        vornhost_trace_set_level(0);
    }
    const TimeBound bound{valgrind_run() ? 500u : 100u};
};

constexpr uint8_t kRaid = 7;
constexpr uint8_t kHba = 9;
constexpr uint32_t kDisks = 16;

class CacheConcurrency : public QuietCache {
protected:
    void SetUp() override
    {
        QuietCache::SetUp();
        add_eid(0, kRaid);
        add_eid(1, kHba, RTCACHE_EIDTYPE_HBA);
        for (uint8_t eid : {kRaid, kHba}) {
            ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, eid, eid, cached_node()), 0u);
            for (uint32_t key = 0; key < kDisks; ++key) {
                ASSERT_EQ(store(RTCACHE_KEY_PD, eid, key, cached_pd_node(key)), 0u);
            }
        }
    }
};

// One poll pass over a controller: each disk record, then the adapter
// record, is replaced under the lock as the service does it (copy, swap it
// into the node, or store a new node where the row was released, free the
// old record); then the status is updated.
void poll(uint8_t eid, uint32_t pass)
{
    for (uint32_t key = 0; key < kDisks; ++key) {
        ASSERT_EQ(rtcache_GetLock(), 0u);
        RtPhysicalDisk *fresh = cached_pd(key, L"Disk generation " + std::to_wstring(pass));
        void *node = nullptr;
        EXPECT_EQ(rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &node), 0u);
        if (node == nullptr) {
            EXPECT_EQ(rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key, disk_node(fresh)), 0u);
        } else {
            rtcache_FreeRMObjects(
                std::exchange(static_cast<RtCachePdNode *>(node)->enclObj->enclType.physicalDisk.Obj, fresh), 1);
        }
        SMMutexUnLock(mutexRtCache);
    }
    ASSERT_EQ(rtcache_GetLock(), 0u);
    void *node = nullptr;
    EXPECT_EQ(rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, &node), 0u);
    RtAdapter *&adapter = static_cast<RtCacheCtrlNode *>(node)->pAdapter;
    rtcache_FreeRMObjects(std::exchange(adapter, cached_adapter(L"RAID.Slot." + std::to_wstring(pass))), 1);
    SMMutexUnLock(mutexRtCache);
    EXPECT_EQ(rtcache_SetStorageEIDStatus(eid, StorageEIDStatus{static_cast<uint8_t>(pass), eid}), 0u);
}

// Reads the registry, then a disk and the adapter record under the lock:
// false when anything is torn. Only the RAID controller's disk slots may be
// empty (while its row is released).
bool read_whole(uint8_t eid, uint32_t key)
{
    StorageEIDInfoEntry entry{};
    uint8_t type = 0;
    const bool registry = rtcache_GetStorageEIDCount() == 2 && rtcache_GetStorageEIDStatus(eid, &entry) == 0 &&
                          entry.u8StatusB == (entry.u8StatusA != 0 ? eid : 0) &&
                          rtcache_GetStorageEIDType(kHba, &type) == 0 && type == RTCACHE_EIDTYPE_HBA;
    if (rtcache_GetLock() != 0) {
        return false;
    }
    void *object = nullptr;
    void *node = nullptr;
    const bool fetched = rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &object) == 0 &&
                         rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, &node) == 0 && node != nullptr;
    const RtPhysicalDisk *disk = disk_of(object);
    const RtAdapter *adapter = fetched ? static_cast<const RtCacheCtrlNode *>(node)->pAdapter : nullptr;
    const bool whole =
        registry && adapter != nullptr && std::wcsncmp(adapter->hdr.FQDD, L"RAID.Slot.", 10) == 0 &&
        adapter->textSlots[7].pText != nullptr &&
        (disk != nullptr ? disk->id == key && "KEY-" + std::to_string(key) == disk->keyId &&
                               disk->listEntries[1] == key + 1 && std::wcsstr(disk->NAME, L"Disk") != nullptr
                         : eid == kRaid);
    SMMutexUnLock(mutexRtCache);
    return whole;
}

TEST_F(CacheConcurrency, PollThreadReplacesRecordsWhileReadersFetchUnderTheLock)
{
    const uint32_t passes = valgrind_run() ? 20 : 150;
    const int64_t live = alloc_live();
    std::atomic<bool> polling{true};
    std::atomic<uint32_t> readers_started{0};
    std::atomic<uint32_t> torn{0};
    std::thread poller([&] {
        while (readers_started < 2) {  // the passes overlap the reads even where threads are serialised
            std::this_thread::yield();
        }
        for (uint32_t pass = 1; pass <= passes; ++pass) {
            if (pass % 2 == 0) {  // a rescan: the RAID controller's disk row is released first
                EXPECT_EQ(rtcache_FreeObjectLevel(kRaid, RTCACHE_LEVEL_PDS), 0u);
            }
            poll(kRaid, pass);
            poll(kHba, pass);
        }
        polling = false;
    });
    std::vector<std::thread> readers;
    for (uint32_t r = 0; r < 2; ++r) {
        readers.emplace_back([&, r] {
            ++readers_started;
            // At least a few rounds, however quickly the poller finishes.
            for (uint32_t round = 0; polling || round < 8; ++round) {
                torn += read_whole((round & 1) != 0 ? kRaid : kHba, (r + 5 * round) % kDisks) ? 0 : 1;
            }
        });
    }
    poller.join();
    for (std::thread &reader : readers) {
        reader.join();
    }
    EXPECT_EQ(torn.load(), 0u);
    EXPECT_EQ(alloc_live(), live);  // each replaced record freed
    const std::wstring last = L"Disk generation " + std::to_wstring(passes);
    for (uint32_t key = 0; key < 2 * kDisks; ++key) {
        const RtPhysicalDisk *disk = disk_of(cache_PDs[key / kDisks][key % kDisks]);
        ASSERT_NE(disk, nullptr);
        EXPECT_EQ(disk->NAME, last);
    }
    StorageEIDInfoEntry entry{};
    EXPECT_EQ(rtcache_GetStorageEIDStatus(kHba, &entry), 0u);
    EXPECT_EQ(entry.u8StatusA, passes);
}

constexpr uint8_t kEid = 0x12;
constexpr uint32_t kIndex = 1;
constexpr uint32_t kThreads = 3;
constexpr uint32_t kDisksPerThread = 80;  // 240 disks: every one has a record slot

class EventCacheConcurrency : public QuietCache {
protected:
    void SetUp() override
    {
        QuietCache::SetUp();
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

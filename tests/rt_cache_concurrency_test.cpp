// The cache under a poll thread that replaces records while other threads read
// the registry and fetch records under the lock. This suite also runs under
// drd (i386-valgrind preset), with smaller counts.
#include <atomic>
#include <cwchar>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rt_cache_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

constexpr uint8_t kRaid = 7;
constexpr uint8_t kHba = 9;
constexpr uint32_t kDisks = 16;

class CacheConcurrency : public CacheTest {
protected:
    void SetUp() override
    {
        root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");  // every thread traces a lot: no log file
        CacheTest::SetUp();
        vornhost_trace_capture(0);
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
    const TimeBound bound(valgrind_run() ? 500 : 100);
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

}  // namespace

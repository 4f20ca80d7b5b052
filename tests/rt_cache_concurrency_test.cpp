// The cache under a poll thread that replaces records while other threads read
// the registry and fetch records. This suite also runs under helgrind and drd
// (i386-valgrind preset), with smaller counts.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <thread>
#include <vector>

#include "rt_cache_fixtures.h"
#include "rtvox/rt_cache.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

using namespace std::chrono_literals;

bool under_valgrind()
{
    const char *flag = std::getenv("RTVOX_UNDER_VALGRIND");
    return flag != nullptr && flag[0] == '1';
}

// Ends the process when the test overruns its bound: a lock that is never
// given back would otherwise leave a thread waiting for ever.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds bound)
        : thread_([this, bound] {
              std::unique_lock lock(mutex_);
              if (!done_cv_.wait_for(lock, bound, [this] { return done_; })) {
                  std::fprintf(stderr, "watchdog: cache test still running after %llds\n",
                               static_cast<long long>(bound.count()));
                  std::fflush(stderr);
                  std::_Exit(3);
              }
          })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
            done_cv_.notify_all();
        }
        thread_.join();
    }
    Watchdog(const Watchdog &) = delete;
    Watchdog &operator=(const Watchdog &) = delete;

private:
    std::mutex mutex_;
    std::condition_variable done_cv_;
    bool done_ = false;
    std::thread thread_;
};

constexpr uint8_t kRaid = 7;
constexpr uint8_t kHba = 9;
constexpr uint32_t kDisks = 16;

class CacheConcurrency : public ::testing::Test {
protected:
    void SetUp() override
    {
        // No copies to the log file: every thread traces a lot.
        root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");
        vornhost_reset();
        alloc_reset();
        ASSERT_EQ(rtcache_Init(), 0u);
        add_eid(0, kRaid);
        add_eid(1, kHba, RTCACHE_EIDTYPE_HBA);
        for (uint8_t eid : {kRaid, kHba}) {
            ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, eid, eid, cached_node()), 0u);
            for (uint32_t key = 0; key < kDisks; ++key) {
                ASSERT_EQ(store(RTCACHE_KEY_PD, eid, key, cached_pd(key)), 0u);
            }
        }
    }
    void TearDown() override
    {
        rtcache_Destroy();
        EXPECT_EQ(alloc_live(), 0);
    }
    TempRoot root;
};

// One replacement as a poll pass makes it: copy, store, free the old one,
// all under the lock.
void replace_disk(uint8_t eid, uint32_t key, uint32_t generation)
{
    ASSERT_EQ(rtcache_GetLock(), 0u);
    RtPhysicalDisk *fresh = cached_pd(key, L"Disk generation " + std::to_wstring(generation));
    void *old = nullptr;
    EXPECT_EQ(rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &old), 0u);
    EXPECT_EQ(rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key, fresh), 0u);
    rtcache_FreeRMObjects(old, 1);
    SMMutexUnLock(mutexRtCache);
}

void replace_adapter(uint8_t eid)
{
    ASSERT_EQ(rtcache_GetLock(), 0u);
    void *object = nullptr;
    EXPECT_EQ(rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, &object), 0u);
    auto *node = static_cast<RtCacheCtrlNode *>(object);
    RtAdapter *old = node->pAdapter;
    node->pAdapter = cached_adapter(eid == kRaid ? L"RAID.Slot.1-1" : L"SAS.Slot.2-1");
    rtcache_FreeRMObjects(old, 1);
    SMMutexUnLock(mutexRtCache);
}

// Reads everything a reader may look at under the lock; false on a torn record.
bool read_under_lock(uint8_t eid, uint32_t key)
{
    if (rtcache_GetLock() != 0) {
        return false;
    }
    bool whole = true;
    void *object = nullptr;
    whole = whole && rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &object) == 0 && object != nullptr;
    if (whole) {
        const auto *disk = static_cast<const RtPhysicalDisk *>(object);
        char expected[16];
        std::snprintf(expected, sizeof expected, "KEY-%u", key);
        whole = disk->id == key && disk->NAME != nullptr && std::wcsstr(disk->NAME, L"Disk") != nullptr &&
                std::strcmp(disk->keyId, expected) == 0 && disk->listEntries[1] == key + 1 &&
                std::wcsstr(disk->hdr.FQDD, L"Disk.Bay.") != nullptr;
    }
    whole = whole && rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, &object) == 0 && object != nullptr;
    if (whole) {
        const RtAdapter *adapter = static_cast<const RtCacheCtrlNode *>(object)->pAdapter;
        whole = adapter != nullptr && std::wcslen(adapter->hdr.FQDD) > 4 && adapter->textSlots[7].pText != nullptr;
    }
    SMMutexUnLock(mutexRtCache);
    return whole;
}

TEST_F(CacheConcurrency, PollThreadReplacesRecordsWhileReadersFetchUnderTheLock)
{
    const Watchdog watchdog(under_valgrind() ? 500s : 100s);
    const uint32_t passes = under_valgrind() ? 3 : 150;
    std::atomic<bool> polling{true};
    std::atomic<uint32_t> torn{0};
    std::atomic<uint32_t> reads{0};

    std::thread poller([&] {
        for (uint32_t pass = 1; pass <= passes; ++pass) {
            for (uint8_t eid : {kRaid, kHba}) {
                for (uint32_t key = 0; key < kDisks; ++key) {
                    replace_disk(eid, key, pass);
                }
                replace_adapter(eid);
                rtcache_SetStorageEIDStatus(eid, StorageEIDStatus{static_cast<uint8_t>(pass), eid});
            }
        }
        polling = false;
    });

    std::vector<std::thread> readers;
    for (uint32_t r = 0; r < 2; ++r) {
        readers.emplace_back([&, r] {
            uint32_t key = r;
            // At least a few rounds, however quickly the poller finishes.
            for (uint32_t round = 0; polling || round < 8; ++round) {
                const uint8_t eid = (round & 1) != 0 ? kRaid : kHba;
                key = (key + 5) % kDisks;
                if (rtcache_GetStorageEIDCount() != 2) {
                    ++torn;
                }
                StorageEIDInfoEntry entry{};
                uint8_t type = 0;
                if (rtcache_GetStorageEIDStatus(eid, &entry) != 0 || entry.u8StatusB != (entry.u8StatusA ? eid : 0) ||
                    rtcache_GetStorageEIDType(kHba, &type) != 0 || type != RTCACHE_EIDTYPE_HBA) {
                    ++torn;
                }
                if (!read_under_lock(eid, key)) {
                    ++torn;
                }
                ++reads;
            }
        });
    }
    poller.join();
    for (std::thread &reader : readers) {
        reader.join();
    }

    EXPECT_EQ(torn.load(), 0u);
    EXPECT_GE(reads.load(), 16u);
    for (uint32_t key = 0; key < kDisks; ++key) {
        const auto *disk = static_cast<const RtPhysicalDisk *>(cache_PDs[0][key]);
        ASSERT_NE(disk, nullptr);
        EXPECT_EQ(std::wcscmp(disk->NAME, (L"Disk generation " + std::to_wstring(passes)).c_str()), 0);
    }
    StorageEIDInfoEntry entry{};
    EXPECT_EQ(rtcache_GetStorageEIDStatus(kHba, &entry), 0u);
    EXPECT_EQ(entry.u8StatusA, passes);
}

TEST_F(CacheConcurrency, LevelReleaseRacesWithFetchersWithoutTearing)
{
    const Watchdog watchdog(under_valgrind() ? 500s : 100s);
    const uint32_t rounds = under_valgrind() ? 3 : 100;
    std::atomic<bool> running{true};
    std::atomic<uint32_t> torn{0};

    std::thread releaser([&] {
        for (uint32_t round = 0; round < rounds; ++round) {
            EXPECT_EQ(rtcache_FreeObjectLevel(kRaid, RTCACHE_LEVEL_PDS), 0u);
            for (uint32_t key = 0; key < kDisks; ++key) {
                replace_disk(kRaid, key, round);  // into an empty slot: nothing old to free
            }
        }
        running = false;
    });
    std::thread fetcher([&] {
        for (uint32_t round = 0; running || round < 8; ++round) {
            if (rtcache_GetLock() != 0) {
                ++torn;
                continue;
            }
            for (uint32_t key = 0; key < kDisks; ++key) {
                void *object = nullptr;
                rtcache_GetCachedObject(RTCACHE_KEY_PD, kRaid, key, &object);
                const auto *disk = static_cast<const RtPhysicalDisk *>(object);
                // A slot is either empty or holds a whole record.
                if (disk != nullptr && (disk->keyId == nullptr || disk->NAME == nullptr || disk->id != key)) {
                    ++torn;
                }
            }
            SMMutexUnLock(mutexRtCache);
        }
    });
    releaser.join();
    fetcher.join();
    EXPECT_EQ(torn.load(), 0u);
}

}  // namespace

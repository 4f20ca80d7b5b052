// The cache core: init and destroy, the storage-element registry and the
// store and fetch of cached objects by key type.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "rt_cache_fixtures.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_sync.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

// ---- init and destroy --------------------------------------------------------------

class CacheLifecycle : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        alloc_reset();
        trace_start();
    }
    // Frees what a failed init left behind: the release walk needs a lock.
    static void reclaim()
    {
        vornhost_fail_clear();
        if (mutexRtCache == 0) {
            mutexRtCache = SMMutexCreate(nullptr);
        }
        rtcache_Destroy();
    }
    TempRoot root;
};

TEST_F(CacheLifecycle, BeforeInitLockedCallsFailAndTablesAreRefused)
{
    EXPECT_EQ(rtcache_GetLock(), 3u);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 3u);
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_GetStorageEIDCount:"));
    EXPECT_TRUE(trace_has(1, "<-- err mutex fail"));
    uint8_t type = 0x55;
    EXPECT_EQ(rtcache_GetStorageEIDType(1, &type), 3u);
    EXPECT_EQ(rtcache_FreeMem(), 3);
    EXPECT_EQ(GetIndexFromEID(1), RTCACHE_INVALID_INDEX);
    uint8_t eid = 1;
    EXPECT_EQ(rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, 1, 0, &eid), 1u);
    void *object = &eid;
    EXPECT_EQ(rtcache_GetCachedObject(RTCACHE_KEY_PD, 1, 0, &object), 1u);
    EXPECT_EQ(object, &eid);
}

TEST_F(CacheLifecycle, InitBuildsEmptyTablesOfTheConfiguredShape)
{
    ASSERT_EQ(rtcache_Init(), 0u);
    EXPECT_NE(mutexRtCache, 0u);
    EXPECT_NE(rtsync_mutex, 0u);
    EXPECT_NE(rtraid_tavo_state_mutex, 0u);
    EXPECT_TRUE(trace_has(4, "--> entry  rtcache_Init"));
    EXPECT_TRUE(trace_has(4, "<-- exit  rtcache_Init"));
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 0u);
    for (uint32_t eid = 0; eid <= 254; ++eid) {
        ASSERT_EQ(GetIndexFromEID(eid), RTCACHE_INVALID_INDEX) << eid;
    }
    // 10 blocks: registry (2), event blocks (4), two tables of two blocks each.
    EXPECT_EQ(alloc_live(), 10);
    EXPECT_EQ(alloc_live_bytes(), 30 + 90 + 30 * (6148 + 1536 + 3076 + 512) + 30 * 4 * 2 + 30 * 512 * 4 + 30 * 254 * 4);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(cache_PDs[1]) - reinterpret_cast<uint8_t *>(cache_PDs[0]), 512 * 4);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(cache_VDs[29]) - reinterpret_cast<uint8_t *>(cache_VDs[0]), 29 * 254 * 4);
    rtcache_Destroy();
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(mutexRtCache, 0u);
    EXPECT_EQ(rtsync_mutex, 0u);
    EXPECT_EQ(rtraid_tavo_state_mutex, 0u);
}

TEST_F(CacheLifecycle, EachFailedAllocationAnswers3AndKeepsWhatWasObtained)
{
    for (uint32_t failing = 0; failing < 10; ++failing) {
        SCOPED_TRACE(failing);
        alloc_reset();
        vornhost_reset();
        alloc_fail(failing, 1);
        uint32_t rc = 0;
        {
            const KeptLeak kept;  // a failed row table loses its data block, as the array does
            rc = rtcache_Init();
        }
        EXPECT_EQ(rc, 3u);
        EXPECT_EQ(alloc_calls(), 10u);
        EXPECT_EQ(alloc_live(), 9);  // nothing rolled back
        EXPECT_EQ(mutexRtCache, 0u);
        EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexCreate), 0u);
        reclaim();
        // Only the data block of a table whose row table failed is beyond reach.
        EXPECT_EQ(alloc_live(), (failing == 6 || failing == 8) ? 1 : 0);
    }
}

TEST_F(CacheLifecycle, LockCreationFailureAnswers1)
{
    vornhost_fail(VORNHOST_SMMutexCreate, 0, 1);
    EXPECT_EQ(rtcache_Init(), 1u);
    EXPECT_EQ(mutexRtCache, 0u);
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_Init:"));
    EXPECT_TRUE(trace_has(1, "<-- rtcache_Init failed to create mutex"));
    EXPECT_EQ(cache_StorageEIDInfo.pEIDs[0], RTCACHE_EID_NONE);  // the tables are there
    reclaim();
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(CacheLifecycle, SynchronisationInitFailureAnswers1AndKeepsTheLock)
{
    vornhost_fail(VORNHOST_SMMutexCreate, 1, 1);  // RTSync_Init's mutex
    EXPECT_EQ(rtcache_Init(), 1u);
    EXPECT_NE(mutexRtCache, 0u);
    EXPECT_EQ(rtsync_mutex, 0u);
    EXPECT_NE(rtraid_tavo_state_mutex, 0u);  // the state table is set up all the same
    rtcache_Destroy();

    vornhost_reset();
    vornhost_fail(VORNHOST_SMMutexCreate, 2, 1);  // RTSync_TavoStateInit's mutex
    EXPECT_EQ(rtcache_Init(), 1u);
    EXPECT_NE(mutexRtCache, 0u);
    EXPECT_NE(rtsync_mutex, 0u);
    EXPECT_EQ(rtraid_tavo_state_mutex, 0u);
    rtcache_Destroy();
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(CacheLifecycle, InitFillDestroyInitAgainStartsEmpty)
{
    ASSERT_EQ(rtcache_Init(), 0u);
    add_eid(0, 7);
    add_eid(1, 9, RTCACHE_EIDTYPE_HBA);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 7, 7, cached_node()), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 9, 9, cached_node(RTCACHE_NODE_HBA)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, 7, 511, cached_pd(1)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_VD, 9, 3, cached_vd(3)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_CMDSCOUNT, 7, 254, rtvox_alloc(8)), 0u);
    ASSERT_EQ(rtcache_SetID(3, 4), 0u);

    rtcache_Destroy();
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(cache_StorageEIDInfo.u8EIDCount, 0u);
    EXPECT_EQ(cache_StorageEIDInfo.pEIDs, nullptr);
    EXPECT_EQ(cache_PDs, nullptr);
    EXPECT_EQ(cache_Events, nullptr);
    EXPECT_EQ(mutexRtCache, 0u);
    EXPECT_EQ(cache_AllEIDs[7], nullptr);

    ASSERT_EQ(rtcache_Init(), 0u);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 0u);
    EXPECT_EQ(GetIndexFromEID(7), RTCACHE_INVALID_INDEX);
    uint8_t value = 1;
    EXPECT_EQ(rtcache_GetID(3, &value), 0u);
    EXPECT_EQ(value, 0u);
    rtcache_Destroy();
    EXPECT_EQ(alloc_live(), 0);
}

// ---- registry ---------------------------------------------------------------------

using StorageEIDRegistry = CacheTest;

TEST_F(StorageEIDRegistry, RegisteringASlotRaisesTheCountAndLeavesLowerSlotsFree)
{
    add_eid(3, 7);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 4u);
    EXPECT_EQ(GetIndexFromEID(7), 3);
    StorageEIDInfo info{};
    ASSERT_EQ(rtcache_GetStorageEIDs(&info), 0u);
    EXPECT_EQ(info.u8EIDCount, 4u);
    EXPECT_EQ(info.pEIDs, cache_StorageEIDInfo.pEIDs);  // the registry's own arrays
    EXPECT_EQ(info.pEIDInfo, cache_StorageEIDInfo.pEIDInfo);
    EXPECT_EQ(info.pEIDs[0], 255u);
    EXPECT_EQ(info.pEIDs[2], 255u);
    add_eid(1, 9);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 4u);
    EXPECT_EQ(rtcache_GetStorageEIDs(nullptr), 2u);
}

TEST_F(StorageEIDRegistry, TypeAndModularIdShareOneByteWithoutDisturbingEachOther)
{
    add_eid(3, 7, 0);
    EXPECT_EQ(rtcache_SetModularId(7, 0x13), 0u);
    EXPECT_EQ(rtcache_SetStorageEIDType(7, 0x1A), 0u);
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[3].u8TypeAndModularId, 0x3A);
    uint8_t type = 0;
    EXPECT_EQ(rtcache_GetStorageEIDType(7, &type), 0u);
    EXPECT_EQ(type, 10u);
    ASSERT_EQ(rtcache_GetLock(), 0u);
    uint8_t id = 0;
    EXPECT_EQ(rtcache_GetModularIdNoLock(7, &id), 0u);
    EXPECT_EQ(rtcache_GetStorageEIDTypeNoLock(7, &type), 0u);
    SMMutexUnLock(mutexRtCache);
    EXPECT_EQ(id, 3u);
    EXPECT_EQ(type, 10u);
    EXPECT_TRUE(trace_has(6, "---> Entry Max EIDs= 4"));
}

TEST_F(StorageEIDRegistry, UnknownEidIsSilentForLockedCallsAndNotFoundForNoLockOnes)
{
    add_eid(0, 7);
    uint8_t type = 0x55;
    EXPECT_EQ(rtcache_GetStorageEIDType(8, &type), 0u);
    EXPECT_EQ(type, 0x55);
    StorageEIDInfoEntry entry{0x11, 0x22, 0x33};
    EXPECT_EQ(rtcache_GetStorageEIDStatus(8, &entry), 0u);
    EXPECT_EQ(entry.u8StatusA, 0x11);
    EXPECT_EQ(entry.u8TypeAndModularId, 0x33);
    EXPECT_EQ(rtcache_SetStorageEIDStatus(8, StorageEIDStatus{1, 2}), 0u);
    EXPECT_EQ(rtcache_SetStorageEIDType(8, 5), 0u);
    EXPECT_EQ(rtcache_SetModularId(8, 5), 0u);
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[0].u8StatusA, 0u);
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[0].u8TypeAndModularId, RTCACHE_EIDTYPE_TAVO);

    ASSERT_EQ(rtcache_GetLock(), 0u);
    EXPECT_EQ(rtcache_GetStorageEIDTypeNoLock(8, &type), 1u);
    EXPECT_EQ(type, 0x55);
    uint8_t id = 0x55;
    EXPECT_EQ(rtcache_GetModularIdNoLock(8, &id), 1u);
    EXPECT_EQ(id, 0u);
    SMMutexUnLock(mutexRtCache);
}

TEST_F(StorageEIDRegistry, NullOutputsAnswer2)
{
    EXPECT_EQ(rtcache_GetStorageEIDStatus(7, nullptr), 2u);
    EXPECT_TRUE(trace_has(2, "<-- err null inputs"));
    EXPECT_EQ(rtcache_GetStorageEIDType(7, nullptr), 2u);
    EXPECT_EQ(rtcache_GetStorageEIDTypeNoLock(7, nullptr), 2u);
    EXPECT_EQ(rtcache_GetModularIdNoLock(7, nullptr), 2u);
}

TEST_F(StorageEIDRegistry, DuplicateEidStatusFromTheLaterSlotTypeFromTheEarlier)
{
    add_eid(1, 7, 4);
    add_eid(2, 7, 6);  // type set on the first match: slot 1 again
    cache_StorageEIDInfo.pEIDInfo[2].u8TypeAndModularId = 0x26;
    cache_StorageEIDInfo.pEIDInfo[2].u8StatusA = 0xA2;
    cache_StorageEIDInfo.pEIDInfo[2].u8StatusB = 0xB2;
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[1].u8TypeAndModularId, 6u);

    StorageEIDInfoEntry entry{};
    EXPECT_EQ(rtcache_GetStorageEIDStatus(7, &entry), 0u);
    EXPECT_EQ(entry.u8StatusA, 0xA2);
    EXPECT_EQ(entry.u8StatusB, 0xB2);
    EXPECT_EQ(entry.u8TypeAndModularId, 0x26);
    EXPECT_TRUE(trace_has(4, "EID=7 [162-178]"));
    uint8_t type = 0;
    EXPECT_EQ(rtcache_GetStorageEIDType(7, &type), 0u);
    EXPECT_EQ(type, 6u);
    EXPECT_EQ(GetIndexFromEID(7), 1);

    EXPECT_EQ(rtcache_SetStorageEIDStatus(7, StorageEIDStatus{0x0C, 0x0D}), 0u);
    for (int slot : {1, 2}) {
        EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[slot].u8StatusA, 0x0C);
        EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[slot].u8StatusB, 0x0D);
    }
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[2].u8TypeAndModularId, 0x26);  // status only
}

TEST_F(StorageEIDRegistry, IndexLookupScansEverySlotWhileSearchesStopAtTheCount)
{
    add_eid(0, 7);
    cache_StorageEIDInfo.pEIDs[20] = 40;  // beyond the count
    EXPECT_EQ(GetIndexFromEID(40), 20);
    uint8_t type = 0x55;
    EXPECT_EQ(rtcache_GetStorageEIDType(40, &type), 0u);
    EXPECT_EQ(type, 0x55);
}

TEST_F(StorageEIDRegistry, IdMapStoresTheLowByteOfSixteenIds)
{
    EXPECT_EQ(rtcache_SetID(15, 0x1FF), 0u);
    EXPECT_EQ(sIDToValueMap[15], 0xFF);
    EXPECT_EQ(rtcache_SetID(16, 0x12), 1u);
    uint8_t value = 0;
    EXPECT_EQ(rtcache_GetID(15, &value), 0u);
    EXPECT_EQ(value, 0xFF);
    EXPECT_EQ(rtcache_GetID(16, &value), 1u);
    EXPECT_EQ(rtcache_GetID(0, nullptr), 1u);
    for (uint32_t id = 0; id < 15; ++id) {
        EXPECT_EQ(sIDToValueMap[id], 0u);
    }
}

TEST_F(StorageEIDRegistry, LockFailureAnswers3AndChangesNothing)
{
    add_eid(0, 7);
    vornhost_fail(VORNHOST_SMMutexLock, 0, 100);
    EXPECT_EQ(rtcache_GetLock(), 3u);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 3u);
    StorageEIDInfo info{};
    EXPECT_EQ(rtcache_GetStorageEIDs(&info), 3u);
    EXPECT_EQ(info.pEIDs, nullptr);
    StorageEIDInfoEntry entry{};
    EXPECT_EQ(rtcache_GetStorageEIDStatus(7, &entry), 3u);
    EXPECT_EQ(rtcache_SetStorageEIDStatus(7, StorageEIDStatus{1, 1}), 3u);
    uint8_t type = 0;
    EXPECT_EQ(rtcache_GetStorageEIDType(7, &type), 3u);
    EXPECT_EQ(rtcache_SetStorageEIDType(7, 3), 3u);
    EXPECT_EQ(rtcache_SetModularId(7, 3), 3u);
    EXPECT_EQ(type, 0u);
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[0].u8TypeAndModularId, RTCACHE_EIDTYPE_TAVO);
    EXPECT_EQ(cache_StorageEIDInfo.pEIDInfo[0].u8StatusA, 0u);
    EXPECT_EQ(trace_count("<-- err mutex fail"), 8);
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_SetModularId:"));
}

// ---- cached objects ------------------------------------------------------------------

using CachedObjects = CacheTest;

struct Bound {
    RtCacheKeyType keyType;
    uint32_t lastStore;  // highest key a store takes
    uint32_t lastFetch;  // highest key a fetch takes
};

TEST_F(CachedObjects, KeyBoundsAtBothEdgesForStoreAndFetch)
{
    add_eid(0, 7);
    int marker = 0;
    uint8_t eid = 9;
    const Bound bounds[] = {
        {RTCACHE_KEY_ADAPTER, 254, 254},
        {RTCACHE_KEY_PD, 511, 511},
        {RTCACHE_KEY_VD, 253, 253},
        {RTCACHE_KEY_PCIESSD_BACKPLANE, 4, 4},
        {RTCACHE_KEY_PCIESSD_EXTENDER, 16, 16},
    };
    for (const Bound &bound : bounds) {
        SCOPED_TRACE(bound.keyType);
        EXPECT_EQ(store(bound.keyType, 7, bound.lastStore, &marker), 0u);
        EXPECT_EQ(store(bound.keyType, 7, bound.lastStore + 1, &marker), 2u);
        void *object = nullptr;
        EXPECT_EQ(fetch(bound.keyType, 7, bound.lastFetch, &object), 0u);
        EXPECT_EQ(object, &marker);
        object = &eid;
        EXPECT_EQ(fetch(bound.keyType, 7, bound.lastFetch + 1, &object), 2u);
        EXPECT_EQ(object, &eid);
        EXPECT_EQ(store(bound.keyType, 7, bound.lastStore, nullptr), 0u);  // empties the slot
        EXPECT_EQ(fetch(bound.keyType, 7, bound.lastFetch, &object), 0u);
        EXPECT_EQ(object, nullptr);
    }
    // The registry: slots below max_adapters.
    EXPECT_EQ(store(RTCACHE_KEY_STORAGEEID, 7, 29, &eid), 0u);
    EXPECT_EQ(store(RTCACHE_KEY_STORAGEEID, 7, 30, &eid), 2u);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 30u);
    void *object = nullptr;
    EXPECT_EQ(fetch(RTCACHE_KEY_STORAGEEID, 7, 29, &object), 0u);
    EXPECT_EQ(object, &cache_StorageEIDInfo.pEIDs[29]);
    EXPECT_EQ(fetch(RTCACHE_KEY_STORAGEEID, 7, 30, &object), 2u);
}

TEST_F(CachedObjects, PcieSsdLimitsAreNotConsultedOnStoreAndExtenderFetchIsFixedAt16)
{
    int marker = 0;
    max_pciessd_backplanes = 2;
    max_pciessd_extndrs = 3;
    EXPECT_EQ(store(RTCACHE_KEY_PCIESSD_BACKPLANE, 0, 4, &marker), 0u);
    EXPECT_EQ(store(RTCACHE_KEY_PCIESSD_EXTENDER, 0, 16, &marker), 0u);
    void *object = nullptr;
    EXPECT_EQ(fetch(RTCACHE_KEY_PCIESSD_BACKPLANE, 0, 3, &object), 2u);
    EXPECT_EQ(fetch(RTCACHE_KEY_PCIESSD_EXTENDER, 0, 16, &object), 0u);
    EXPECT_EQ(object, &marker);
    // The extender store names the backplane limit but prints the extender one.
    EXPECT_TRUE(trace_has(4, "PCIeSSD Cache max_pciessd_backplanes=3 u16ObjKey=16"));
    EXPECT_TRUE(trace_has(4, "PCIeSSD Cache max_pciessd_extndrs=3 u16ObjKey=16"));
    max_pciessd_backplanes = 9;  // beyond the table: its own slots still bound the key
    EXPECT_EQ(fetch(RTCACHE_KEY_PCIESSD_BACKPLANE, 0, 5, &object), 2u);
    EXPECT_EQ(store(RTCACHE_KEY_PCIESSD_BACKPLANE, 0, 5, &marker), 2u);
    EXPECT_EQ(store(RTCACHE_KEY_PCIESSD_EXTENDER, 0, 17, &marker), 2u);
    max_pciessd_backplanes = 4;
    max_pciessd_extndrs = 16;
    cache_Bkplanes[4] = nullptr;
    cache_Extndrs[16] = nullptr;
}

TEST_F(CachedObjects, ValueSlotsStoreThirtyTwoBitsAndIgnoreFetchesBeyond254)
{
    EXPECT_EQ(store(RTCACHE_KEY_CMDSCOUNT, 0, 254, reinterpret_cast<void *>(0x1234)), 0u);
    EXPECT_EQ(cache_CMDsCount[254], 0x1234u);
    void *object = nullptr;
    EXPECT_EQ(fetch(RTCACHE_KEY_CMDSCOUNT, 0, 254, &object), 0u);
    EXPECT_EQ(object, reinterpret_cast<void *>(0x1234));
    object = &object;
    EXPECT_EQ(fetch(RTCACHE_KEY_CMDSCOUNT, 0, 255, &object), 0u);
    EXPECT_EQ(object, &object);
    EXPECT_EQ(store(RTCACHE_KEY_CMDSCOUNT, 0, 255, &object), 2u);  // outside the table
    cache_CMDsCount[254] = 0;                                      // not a block: keep it from the release walk
}

TEST_F(CachedObjects, AdapterKeyIgnoresTheEidAndKeysCarry16Bits)
{
    int marker = 0;
    EXPECT_EQ(store(RTCACHE_KEY_ADAPTER, 3, 5, &marker), 0u);
    void *object = nullptr;
    EXPECT_EQ(fetch(RTCACHE_KEY_ADAPTER, 9, 5, &object), 0u);
    EXPECT_EQ(object, &marker);
    EXPECT_EQ(fetch(RTCACHE_KEY_ADAPTER, 9, 0x10005, &object), 0u);
    EXPECT_EQ(object, &marker);
    EXPECT_EQ(store(RTCACHE_KEY_ADAPTER, 3, 0x10006, &marker), 0u);
    EXPECT_EQ(reinterpret_cast<void *>(cache_AllEIDs[6]), &marker);
    cache_AllEIDs[5] = nullptr;
    cache_AllEIDs[6] = nullptr;
}

TEST_F(CachedObjects, DisksNeedARegisteredEidAndLandInItsRow)
{
    add_eid(2, 7);
    int marker = 0;
    void *object = &marker;
    EXPECT_EQ(fetch(RTCACHE_KEY_PD, 8, 0, &object), 1u);
    EXPECT_EQ(object, &marker);
    EXPECT_TRUE(trace_has(5, "<-- rtcache_GetCachedObject error s32Temp 255"));
    EXPECT_EQ(store(RTCACHE_KEY_VD, 8, 0, &marker), 1u);
    EXPECT_TRUE(trace_has(5, "<-- rtcache_SetCachedObject error s32Temp 255"));
    EXPECT_EQ(store(RTCACHE_KEY_PD, 7, 10, &marker), 0u);
    EXPECT_TRUE(trace_has(5, "--> max_physicaldevices:512"));
    EXPECT_TRUE(trace_has(5, "--> enter with EID:7, u16ObjKey:10, pObjectToBeCached:"));
    EXPECT_EQ(cache_PDs[2][10], &marker);
    EXPECT_EQ(store(RTCACHE_KEY_VD, 7, 11, &marker), 0u);
    EXPECT_EQ(cache_VDs[2][11], &marker);
    cache_PDs[2][10] = nullptr;
    cache_VDs[2][11] = nullptr;
}

TEST_F(CachedObjects, RegistryFetchHandsOutTheByteItself)
{
    uint8_t eid = 9;
    ASSERT_EQ(store(RTCACHE_KEY_STORAGEEID, 0, 3, &eid), 0u);
    EXPECT_EQ(rtcache_GetStorageEIDCount(), 4u);
    eid = 0;  // the byte was read, not kept
    EXPECT_EQ(GetIndexFromEID(9), 3);
    void *object = nullptr;
    ASSERT_EQ(fetch(RTCACHE_KEY_STORAGEEID, 0, 3, &object), 0u);
    *static_cast<uint8_t *>(object) = 11;
    EXPECT_EQ(GetIndexFromEID(11), 3);
    EXPECT_EQ(store(RTCACHE_KEY_STORAGEEID, 0, 1, nullptr), 2u);
    EXPECT_TRUE(trace_has(2, "<-- err null pObjectToBeCached"));
}

TEST_F(CachedObjects, BadKeyTypesAndArgumentsAnswer2AndChangeNothing)
{
    int marker = 0;
    void *object = &marker;
    for (RtCacheKeyType keyType : {7u, 9u}) {
        EXPECT_EQ(store(keyType, 0, 0, &marker), 2u);
        EXPECT_EQ(fetch(keyType, 0, 0, &object), 2u);
    }
    EXPECT_TRUE(trace_has(2, "<-- err wrong keytype 7"));
    EXPECT_TRUE(trace_has(2, "<-- err wrong keytype 9"));
    EXPECT_EQ(store(0, 0, 0, &marker), 2u);
    EXPECT_EQ(store(RTCACHE_KEY_ADAPTER, 255, 0, &marker), 2u);
    EXPECT_EQ(fetch(RTCACHE_KEY_ADAPTER, 255, 0, &object), 2u);
    EXPECT_EQ(fetch(RTCACHE_KEY_ADAPTER, 0, 0, nullptr), 2u);
    EXPECT_EQ(trace_count("<-- err null inputs"), 4);
    EXPECT_EQ(object, &marker);
    EXPECT_EQ(cache_AllEIDs[0], nullptr);
}

TEST_F(CachedObjects, ReplacingASlotLeavesTheOldRecordToTheCaller)
{
    add_eid(0, 7);
    RtPhysicalDisk *first = cached_pd(1);
    RtPhysicalDisk *second = cached_pd(2);
    ASSERT_EQ(store(RTCACHE_KEY_PD, 7, 4, first), 0u);
    const int64_t live = alloc_live();
    ASSERT_EQ(store(RTCACHE_KEY_PD, 7, 4, second), 0u);
    EXPECT_EQ(alloc_live(), live);
    EXPECT_STREQ(first->keyId, "KEY-1");  // still whole
    ASSERT_EQ(rtcache_GetLock(), 0u);
    rtcache_FreeRMObjects(first, 1);
    SMMutexUnLock(mutexRtCache);
}

}  // namespace

// The cache core: init and destroy, the storage-element registry, the store
// and fetch of cached objects by key type, the HBA communication status table
// and the polling sleep.
#include <chrono>
#include <cstring>
#include <regex>
#include <vector>

#include "rt_cache_fixtures.h"
#include "rtvox/rt_sync.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

// Results of several calls, made in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

// ---- init and destroy --------------------------------------------------------------

class CacheLifecycle : public ::testing::Test {
protected:
    void SetUp() override { vornhost_reset(), alloc_reset(), trace_start(); }
    TempRoot root;
};

// Frees what a failed init left behind: the release walk needs a lock.
void reclaim()
{
    vornhost_fail_clear();
    mutexRtCache = mutexRtCache != 0 ? mutexRtCache : SMMutexCreate(nullptr);
    rtcache_Destroy();
}

// Without a cache (before init, after destroy) locked calls fail and the tables are refused.
void expect_no_cache()
{
    uint8_t eid = 1;
    void *object = &eid;
    EXPECT_EQ((Codes{rtcache_GetLock(), rtcache_GetStorageEIDCount(), rtcache_GetStorageEIDType(1, &eid),
                     rtcache_FreeMem(), GetIndexFromEID(1), rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, 1, 0, &eid),
                     rtcache_GetCachedObject(RTCACHE_KEY_PD, 1, 0, &object)}),
              (Codes{3, 3, 3, 3, RTCACHE_INVALID_INDEX, 1, 1}));
    EXPECT_EQ(object, &eid);
}

TEST_F(CacheLifecycle, InitFillDestroyInitAgain)
{
    expect_no_cache();
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_GetStorageEIDCount:"));
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(rtcache_Init(), 0u);
        EXPECT_TRUE(mutexRtCache != 0 && rtsync_mutex != 0 && rtraid_tavo_state_mutex != 0);
        uint8_t value = 1;
        EXPECT_EQ((Codes{rtcache_GetStorageEIDCount(), GetIndexFromEID(0), GetIndexFromEID(254),
                         rtcache_GetID(3, &value), value}),
                  (Codes{0, 255, 255, 0, 0}));
        // 10 blocks: registry (2), event blocks (4), two tables of two blocks each.
        EXPECT_EQ(alloc_live(), 10);
        EXPECT_EQ(alloc_live_bytes(),
                  30 + 90 + 30 * (6148 + 1536 + 3076 + 512) + 30 * 4 * 2 + 30 * 512 * 4 + 30 * 254 * 4);
        add_eid(0, 7);
        add_eid(1, 9, RTCACHE_EIDTYPE_HBA);
        EXPECT_EQ((Codes{store(RTCACHE_KEY_ADAPTER, 7, 7, cached_node()),
                         store(RTCACHE_KEY_ADAPTER, 9, 9, cached_node(RTCACHE_NODE_HBA)),
                         store(RTCACHE_KEY_PD, 7, 511, cached_pd_node(1)), store(RTCACHE_KEY_VD, 9, 3, cached_vd(3)),
                         store(RTCACHE_KEY_CMDSCOUNT, 7, 254, rtvox_alloc(8)), rtcache_SetID(3, 4)}),
                  (Codes{0, 0, 0, 0, 0, 0}));
        rtcache_Destroy();
        EXPECT_EQ((Codes{alloc_live(), cache_StorageEIDInfo.u8EIDCount}), (Codes{0, 0}));
        EXPECT_TRUE(cache_StorageEIDInfo.pEIDs == nullptr && cache_PDs == nullptr && cache_Events == nullptr);
        EXPECT_TRUE(mutexRtCache == 0 && rtsync_mutex == 0 && rtraid_tavo_state_mutex == 0);
        EXPECT_EQ(cache_AllEIDs[7], nullptr);
        expect_no_cache();
    }
}

TEST_F(CacheLifecycle, EachFailedAllocationAnswers3AndAFailedLockOrSynchronisationInit1)
{
    // Cases 0-9 fail that allocation, 10-12 that mutex creation: the cache
    // lock, RTSync_Init's, RTSync_TavoStateInit's.
    for (uint32_t n = 0; n < 13; ++n) {
        SCOPED_TRACE(n);
        alloc_reset();
        vornhost_reset();
        trace_start();
        const bool lock = n >= 10;
        lock ? vornhost_fail(VORNHOST_SMMutexCreate, n - 10, 1) : alloc_fail(n, 1);
        EXPECT_EQ(rtcache_Init(), lock ? 1u : 3u);
        // Nothing is rolled back; a lock once made stays; the controller-state
        // table is set up whatever RTSync_Init answered.
        EXPECT_EQ(
            (Codes{alloc_calls(), alloc_live(), mutexRtCache != 0, rtsync_mutex != 0, rtraid_tavo_state_mutex != 0}),
            (Codes{10,
                   lock                 ? 10
                   : (n == 6 || n == 8) ? 8
                                        : 9,
                   n > 10, n == 12, n == 11}));
        EXPECT_TRUE(!lock || cache_StorageEIDInfo.pEIDs[0] == RTCACHE_EID_NONE);
        EXPECT_EQ(trace_count("<-- rtcache_Init failed to create mutex"), n == 10 ? 1 : 0);
        reclaim();
        // A table whose row table failed gave its data block back at once.
        EXPECT_EQ(alloc_live(), 0);
    }
}

// ---- registry ---------------------------------------------------------------------

using StorageEIDRegistry = CacheTest;

// The three bytes of an entry as 0xAABBTT (status A, status B, type and modular id).
uint32_t bytes_of(const StorageEIDInfoEntry &entry)
{
    return entry.u8StatusA << 16 | entry.u8StatusB << 8 | entry.u8TypeAndModularId;
}

uint32_t slot_bytes(int slot)
{
    return bytes_of(cache_StorageEIDInfo.pEIDInfo[slot]);
}

TEST_F(StorageEIDRegistry, SlotsTypesModularIdsDuplicatesAndIds)
{
    add_eid(3, 7, 0);
    add_eid(1, 9);
    StorageEIDInfo info{};
    EXPECT_EQ((Codes{rtcache_GetStorageEIDCount(), GetIndexFromEID(7), rtcache_GetStorageEIDs(&info),
                     rtcache_GetStorageEIDs(nullptr), info.u8EIDCount, info.pEIDs[0], info.pEIDs[2]}),
              (Codes{4, 3, 0, 2, 4, 255, 255}));
    EXPECT_EQ(info.pEIDs, cache_StorageEIDInfo.pEIDs);  // the registry's own arrays
    EXPECT_EQ(info.pEIDInfo, cache_StorageEIDInfo.pEIDInfo);

    uint8_t type = 0;
    uint8_t id = 0;
    EXPECT_EQ((Codes{rtcache_SetModularId(7, 0x13), rtcache_SetStorageEIDType(7, 0x1A), slot_bytes(3),
                     rtcache_SetModularId(7, 0x25), slot_bytes(3), rtcache_GetStorageEIDType(7, &type), type}),
              (Codes{0, 0, 0x3A, 0, 0x5A, 0, 10}));
    ASSERT_EQ(rtcache_GetLock(), 0u);
    EXPECT_EQ((Codes{rtcache_GetModularIdNoLock(7, &id), id, rtcache_GetStorageEIDTypeNoLock(7, &type), type}),
              (Codes{0, 5, 0, 10}));
    SMMutexUnLock(mutexRtCache);
    EXPECT_TRUE(trace_has(6, "---> Entry Max EIDs= 4"));
    // EID 9 in slots 1 and 2: the status getter reads the later slot and the
    // setter writes both; type, modular id and index use the earlier slot.
    add_eid(2, 9, 6);  // type set on the first match: slot 1 again
    cache_StorageEIDInfo.pEIDInfo[2] = StorageEIDInfoEntry{0xA2, 0xB2, 0x26};
    StorageEIDInfoEntry entry{};
    EXPECT_EQ((Codes{slot_bytes(1), rtcache_GetStorageEIDStatus(9, &entry), bytes_of(entry),
                     rtcache_GetStorageEIDType(9, &type), type, GetIndexFromEID(9),
                     rtcache_SetStorageEIDStatus(9, StorageEIDStatus{0x0C, 0x0D}), rtcache_SetModularId(9, 3),
                     slot_bytes(1), slot_bytes(2)}),
              (Codes{6, 0, 0xA2B226, 0, 6, 1, 0, 0, 0x0C0D36, 0x0C0D26}));
    EXPECT_TRUE(trace_has(4, "EID=9 [162-178]"));
    // The id map: the low byte of the value, ids 0 to 15.
    uint8_t value = 0;
    EXPECT_EQ((Codes{rtcache_SetID(15, 0x1FF), rtcache_SetID(16, 0x12), rtcache_GetID(15, &value), value,
                     rtcache_GetID(16, &value), rtcache_GetID(0, nullptr)}),
              (Codes{0, 1, 0, 0xFF, 1, 1}));
    const uint8_t expected[RTCACHE_ID_SLOTS] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF};
    EXPECT_EQ(std::memcmp(sIDToValueMap, expected, sizeof expected), 0);
}

TEST_F(StorageEIDRegistry, UnknownEidNullOutputAndLockFailureChangeNothing)
{
    add_eid(0, 7);
    cache_StorageEIDInfo.pEIDs[20] = 40;  // beyond the count: only the index lookup scans there
    EXPECT_EQ(GetIndexFromEID(40), 20);
    for (uint32_t eid : {8u, 40u}) {
        SCOPED_TRACE(eid);
        uint8_t type = 0x55;
        uint8_t id = 0x55;
        StorageEIDInfoEntry entry{0x11, 0x22, 0x33};
        EXPECT_EQ((Codes{rtcache_GetStorageEIDType(eid, &type), rtcache_GetStorageEIDStatus(eid, &entry),
                         rtcache_SetStorageEIDStatus(eid, StorageEIDStatus{1, 2}), rtcache_SetStorageEIDType(eid, 5),
                         rtcache_SetModularId(eid, 5), rtcache_GetLock(), rtcache_GetStorageEIDTypeNoLock(eid, &type),
                         rtcache_GetModularIdNoLock(eid, &id), type, id, bytes_of(entry)}),
                  (Codes{0, 0, 0, 0, 0, 0, 1, 1, 0x55, 0, 0x112233}));
        SMMutexUnLock(mutexRtCache);
    }
    EXPECT_EQ(slot_bytes(0), RTCACHE_EIDTYPE_TAVO);
    EXPECT_EQ(slot_bytes(20), 0u);
    EXPECT_EQ((Codes{rtcache_GetStorageEIDStatus(7, nullptr), rtcache_GetStorageEIDType(7, nullptr),
                     rtcache_GetStorageEIDTypeNoLock(7, nullptr), rtcache_GetModularIdNoLock(7, nullptr)}),
              (Codes{2, 2, 2, 2}));
    EXPECT_TRUE(trace_has(2, "<-- err null inputs"));
    // A lock failure answers 3 and changes nothing either.
    vornhost_fail(VORNHOST_SMMutexLock, 0, 100);
    StorageEIDInfo info{};
    StorageEIDInfoEntry entry{};
    uint8_t type = 0;
    EXPECT_EQ((Codes{rtcache_GetLock(), rtcache_GetStorageEIDCount(), rtcache_GetStorageEIDs(&info),
                     rtcache_GetStorageEIDStatus(7, &entry), rtcache_SetStorageEIDStatus(7, StorageEIDStatus{1, 1}),
                     rtcache_GetStorageEIDType(7, &type), rtcache_SetStorageEIDType(7, 3), rtcache_SetModularId(7, 3),
                     type, slot_bytes(0), trace_count("<-- err mutex fail")}),
              (Codes{3, 3, 3, 3, 3, 3, 3, 3, 0, RTCACHE_EIDTYPE_TAVO, 8}));
}

// ---- cached objects ------------------------------------------------------------------

using CachedObjects = CacheTest;

TEST_F(CachedObjects, KeyBoundsAtBothEdgesForStoreAndFetch)
{
    add_eid(2, 7);
    max_pciessd_backplanes = 2;  // the stores of key types 5 and 6 consult no limit
    max_pciessd_extndrs = 3;     // and the extender fetch admits up to 16 whatever it says
    int marker = 9;              // its first byte is the EID a registry store reads
    int other = 0;
    // key type, EID, key, store result, fetch result. EID 8 is not registered,
    // keys carry 16 bits (0x1000A is slot 10) and a value fetch beyond 254 fetches nothing.
    const struct {
        RtCacheKeyType type;
        uint32_t eid, key;
        int64_t store, fetch;
    } cases[] = {// clang-format off
        {RTCACHE_KEY_STORAGEEID, 7, 29, 0, 0},          {RTCACHE_KEY_STORAGEEID, 7, 30, 2, 2},
        {RTCACHE_KEY_ADAPTER, 3, 254, 0, 0},            {RTCACHE_KEY_ADAPTER, 3, 255, 2, 2},
        {RTCACHE_KEY_PD, 7, 511, 0, 0},                 {RTCACHE_KEY_PD, 7, 512, 2, 2},
        {RTCACHE_KEY_PD, 8, 0, 1, 1},                   {RTCACHE_KEY_PD, 7, 0x1000A, 0, 0},
        {RTCACHE_KEY_VD, 7, 253, 0, 0},                 {RTCACHE_KEY_VD, 7, 254, 2, 2},
        {RTCACHE_KEY_VD, 8, 0, 1, 1},                   {RTCACHE_KEY_ADAPTER, 255, 0, 2, 2},
        {RTCACHE_KEY_PCIESSD_BACKPLANE, 7, 2, 0, 0},    {RTCACHE_KEY_PCIESSD_BACKPLANE, 7, 4, 0, 2},
        {RTCACHE_KEY_PCIESSD_BACKPLANE, 7, 5, 2, 2},    {RTCACHE_KEY_PCIESSD_EXTENDER, 7, 16, 0, 0},
        {RTCACHE_KEY_PCIESSD_EXTENDER, 7, 17, 2, 2},    {RTCACHE_KEY_CMDSCOUNT, 7, 254, 0, 0},
        {RTCACHE_KEY_CMDSCOUNT, 7, 255, 2, 0},          {0, 7, 0, 2, 2},  {7, 7, 0, 2, 2},  {9, 7, 0, 2, 2}};
    // clang-format on
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << " " << c.eid << " " << c.key);
        void *object = &other;
        EXPECT_EQ((Codes{store(c.type, c.eid, c.key, &marker), fetch(c.type, c.eid, c.key, &object)}),
                  (Codes{c.store, c.fetch}));
        const void *stored = c.type == RTCACHE_KEY_STORAGEEID ? &cache_StorageEIDInfo.pEIDs[c.key] : nullptr;
        EXPECT_EQ(object, c.store != 0 || c.fetch != 0 ? &other : stored != nullptr ? stored : &marker);
    }
    EXPECT_TRUE(cache_PDs[2][10] == &marker && cache_VDs[2][253] == &marker);  // the row of the EID's slot
    void *object = nullptr;
    marker = 0;  // the registry store read the byte, it did not keep it
    EXPECT_EQ((Codes{rtcache_GetStorageEIDCount(), GetIndexFromEID(9), fetch(RTCACHE_KEY_STORAGEEID, 7, 29, &object),
                     fetch(RTCACHE_KEY_ADAPTER, 0, 0, nullptr)}),
              (Codes{30, 29, 0, 2}));
    *static_cast<uint8_t *>(object) = 11;  // the registry byte itself
    EXPECT_EQ((Codes{GetIndexFromEID(11), fetch(RTCACHE_KEY_ADAPTER, 9, 254, &object)}), (Codes{29, 0}));
    EXPECT_EQ(object, &marker);  // the adapter key ignores the EID
    // Storing null empties a slot (the registry refuses it); what was there is not released.
    for (const auto &c : cases) {
        if (c.store == 0) {
            object = &other;
            EXPECT_EQ((Codes{store(c.type, c.eid, c.key, nullptr), fetch(c.type, c.eid, c.key, &object)}),
                      (Codes{c.type == RTCACHE_KEY_STORAGEEID ? 2 : 0, c.fetch}));
            EXPECT_EQ(object == nullptr, c.fetch == 0 && c.type != RTCACHE_KEY_STORAGEEID);
        }
    }
    max_pciessd_backplanes = 9;  // beyond the table: its own slots still bound the key
    EXPECT_EQ(fetch(RTCACHE_KEY_PCIESSD_BACKPLANE, 0, 5, &object), 2u);
    max_pciessd_backplanes = 4;
    max_pciessd_extndrs = 16;
    EXPECT_TRUE(trace_has(2, "<-- err wrong keytype 7") && trace_has(2, "<-- err wrong keytype 9"));
    EXPECT_TRUE(trace_has(2, "<-- err null pObjectToBeCached") && trace_has(2, "<-- err null inputs"));
    EXPECT_TRUE(trace_has(5, "<-- rtcache_GetCachedObject error s32Temp 255") &&
                trace_has(5, "<-- rtcache_SetCachedObject error s32Temp 255"));
    EXPECT_TRUE(trace_has(5, "--> enter with EID:7, u16ObjKey:10, pObjectToBeCached:") &&
                trace_has(5, "--> max_physicaldevices:512"));
    // The extender store names the backplane limit but prints the extender one.
    EXPECT_TRUE(trace_has(4, "PCIeSSD Cache max_pciessd_backplanes=3 u16ObjKey=16") &&
                trace_has(4, "PCIeSSD Cache max_pciessd_extndrs=3 u16ObjKey=16"));
}

// ---- the HBA communication status table, the polling sleep ------------------------------

uint32_t set(uint8_t ctrl, uint8_t status)
{
    return rtmpi2_SetHBACommunicationStatus(static_cast<uint32_t>(ctrl) | (static_cast<uint32_t>(status) << 8));
}

// {status, result} of one lookup; the status starts at 0xEE.
Codes lookup(uint8_t ctrl)
{
    RtHbaCommStatus record{ctrl, 0xEE};
    const uint32_t rc = rtmpi2_GetHBACommunicationStatus(&record);
    return {record.u8CommStatus, rc};
}

// {controller, status} of a table slot.
Codes slot(int index)
{
    return {g_rtpil_HBA_Communication_Status[index].u8CtrlNum, g_rtpil_HBA_Communication_Status[index].u8CommStatus};
}

using HbaTable = CacheLifecycle;  // no cache needed

TEST_F(HbaTable, ControllersClaimSlotsInOrderAndControllerZeroUsesTheFirstFreeOne)
{
    // Before any update only controller 0 is answered, from a free slot.
    EXPECT_EQ(lookup(1), (Codes{0xEE, 0xFFFFFFFF}));
    EXPECT_EQ(lookup(0), (Codes{0, 0}));
    EXPECT_TRUE(trace_has(4, "rt_cache.c:rtmpi2_GetHBACommunicationStatus:"));
    EXPECT_TRUE(trace_has(4, "Unable to get HBA Comm status for ctrl:1"));
    EXPECT_TRUE(trace_has(5, "Read HBA I2C Comm status:0 for ctrl:0 at index:0"));
    // A first update claims a slot, later ones overwrite it; controller 0 writes
    // the first free slot without claiming it, and the next new controller takes it.
    EXPECT_EQ((Codes{set(4, 1), set(9, 2), set(4, 7), set(0, 5)}), (Codes{0, 0, 0, 0}));
    EXPECT_TRUE(trace_has(5, "First time Set HBA I2C Comm status:2 for ctrl:9 at index:1"));
    EXPECT_TRUE(trace_has(5, "Set HBA I2C Comm status:7 for ctrl:4 at index:0"));
    EXPECT_EQ(slot(2), (Codes{0, 5}));
    EXPECT_EQ(lookup(0), (Codes{5, 0}));
    EXPECT_EQ(set(8, 6), 0u);
    EXPECT_EQ((Codes{slot(0)[0], slot(1)[0], slot(2)[0]}), (Codes{4, 9, 8}));
    EXPECT_EQ((Codes{lookup(4)[0], lookup(9)[0], lookup(8)[0]}), (Codes{7, 2, 6}));

    // Twelve controllers fill the table: a thirteenth is refused and the twelve stay updatable.
    for (uint8_t ctrl = 20; ctrl < 29; ++ctrl) {
        ASSERT_EQ(set(ctrl, ctrl), 0u);
    }
    trace_start();
    EXPECT_EQ(set(13, 1), 0xFFFFFFFFu);
    EXPECT_TRUE(trace_has(4, "Unable to set HBA Comm status for ctrl:13"));
    EXPECT_EQ(slot(12)[0], 0);  // the 13th pair is never used
    EXPECT_EQ(set(28, 99), 0u);
    EXPECT_EQ(lookup(28), (Codes{99, 0}));
    EXPECT_EQ(lookup(13), (Codes{0xEE, 0xFFFFFFFF}));
    EXPECT_EQ(lookup(0), (Codes{0xEE, 0xFFFFFFFF}));  // no free slot left to answer for 0
}

TEST_F(HbaTable, NullLookupRepeatsTheEntryLineAndCopiesIt)
{
    EXPECT_EQ(rtmpi2_GetHBACommunicationStatus(nullptr), 0xFFFFFFFFu);
    const auto lines = trace_lines();
    ASSERT_EQ(lines.size(), 2u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(std::regex_match(lines[i], std::regex("L" + std::to_string(5 - i) +
                                                          R"( rt_cache\.c:rtmpi2_GetHBACommunicationStatus:\d+:-->  )"
                                                          R"(rtmpi2_GetHBACommunicationStatus)")));
    }
    EXPECT_NE(root.read("/var/log/rtvox.log").find("] -->  rtmpi2_GetHBACommunicationStatus\n"), std::string::npos);
}

int g_predicate_calls = 0;
int32_t g_predicate_answer = 1;
int32_t predicate()
{
    ++g_predicate_calls;
    return g_predicate_answer;
}

TEST(PollingSleep, PredicateIsAskedAfterEachSleep)
{
    using clock = std::chrono::steady_clock;
    rtvox_sleep(1, 0, predicate);
    EXPECT_EQ(g_predicate_calls, 0);
    rtvox_sleep(0, 4, predicate);
    EXPECT_EQ(g_predicate_calls, 4);

    g_predicate_answer = 0;  // stop at once
    const auto start = clock::now();
    rtvox_sleep(1, 5, predicate);
    const auto elapsed = clock::now() - start;
    EXPECT_EQ(g_predicate_calls, 5);
    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1900));

    rtvox_sleep(0, 3, nullptr);  // no predicate: just the sleeps
}

}  // namespace

// NVMe extender and backplane inventory into the object cache.
#include <algorithm>
#include <cwchar>

#include "rt_cache_release.h"
#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

using Codes = std::vector<int64_t>;

std::wstring text(const wchar_t *value)
{
    return value != nullptr ? value : L"(null)";
}

// Bay 1 (technology 4, 8 slots) with NVMe drives in slots 0 and 2 behind the
// extender in PCIe slot `extender` (0: none), and riser entry 2 describing it.
ApiInfo bay_one(uint8_t extender)
{
    ApiInfo r;
    r.counts(1, 0, 2, 3).bay(0, 1, 4, 8).drive(0, 1, 0, 4, 5, extender).drive(1, 1, 2, 4, 7, extender);
    if (extender != 0) {
        r.riser(2, 1, extender, 1);
    }
    return r;
}

// The cached extender of a PCIe slot as {FQDD, name}, "-" when none is cached.
std::vector<std::wstring> extender(uint32_t slot)
{
    const RtCacheExtender *e = cache_Extndrs[slot];
    return e == nullptr ? std::vector<std::wstring>{L"-", L"-"}
                        : std::vector<std::wstring>{text(e->pFQDD), text(e->pName)};
}

// The cached backplane of a bay as its 12 bytes' fields and its enclosure
// record's FQDD, name and counts (read at bytes 20, 8, 71, 72).
struct Backplane {
    std::vector<int> fields;  // bay id, first slot, slot count, drive count, status, slot count, drive count
    std::wstring fqdd;
    std::wstring name;
};
Backplane backplane(uint32_t bay)
{
    const auto *b = reinterpret_cast<const uint8_t *>(cache_Bkplanes[bay]);
    if (b == nullptr) {
        return {{}, L"-", L"-"};
    }
    const uint8_t *record = *reinterpret_cast<uint8_t *const *>(b + 8);
    const auto word = [record](uint32_t at) { return *reinterpret_cast<const wchar_t *const *>(record + at); };
    return {{b[0], b[1], b[2], b[3], b[4] | (b[5] << 8), record[71], record[72]}, text(word(20)), text(word(8))};
}

// ---- inventory ----------------------------------------------------------------------------

using ShmInventory = ShmTest;

TEST_F(ShmInventory, ExtendersFirstThenEachBackplaneOnceWithItsFqdd)
{
    struct Case {
        uint8_t extenderSlot;
        bool extendersFirst;
        const wchar_t *fqdd;
    };
    const Case cases[] = {
        {3, false, L"(null)"},  // extender not cached yet: no FQDD at all, no fallback
        {0, true, L"Enclosure.Internal.0-1"},
        {3, true, L"Enclosure.Internal.0-1:PCIeExtender.Slot.3"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.extenderSlot * 10 + c.extendersFirst);
        rtcache_Destroy();
        ASSERT_EQ(rtcache_Init(), 0u);
        std::memset(&sNVMeSSDBPInfo, 0, sizeof sNVMeSSDBPInfo);
        ApiInfo record = bay_one(c.extenderSlot);
        vornhost_bp_set_info(record.data());
        ASSERT_EQ(rtshm_BpApiInit(), 0u);
        trace_start();
        EXPECT_EQ(c.extendersFirst ? rtshm_getNVMeExtcard() : 0u, 0u);
        EXPECT_EQ(rtshm_getNVMeBPs(), 0u);
        const Backplane bp = backplane(1);
        EXPECT_EQ(bp.fields, (std::vector<int>{1, 0, 8, 0, 5, 8, 0}));
        EXPECT_EQ(bp.fqdd, c.fqdd);
        EXPECT_EQ(bp.name, L"PCIe SSD BP 1");
        EXPECT_EQ(trace_count("BP FQDD is already constrructed u8BayID=1: u8SlotNumInBay=2"), 1);
        if (c.extenderSlot != 0 && c.extendersFirst) {
            EXPECT_EQ(extender(3), (std::vector<std::wstring>{L"PCIeExtender.Slot.3", L"PCIe Extender 3"}));
            EXPECT_TRUE(trace_has(1, "Inventory store PCIeExtender.Slot.3"));
        } else if (c.extenderSlot != 0) {
            EXPECT_TRUE(trace_has(3, "Extender Read Error or Not Available"));
        }
    }
    EXPECT_EQ((Codes{backplane(0).fqdd == L"-", backplane(2).fqdd == L"-"}), (Codes{1, 1}));

    // A second inventory updates the cached objects in place and releases the texts it replaces.
    const int64_t live = alloc_live();
    const RtCacheBackplane *cached = cache_Bkplanes[1];
    EXPECT_EQ((Codes{rtshm_getNVMeExtcard(), rtshm_getNVMeBPs(), alloc_live() - live, cache_Bkplanes[1] == cached}),
              (Codes{0, 0, 0, 1}));
}

TEST_F(ShmInventory, ExtenderSlotOfADriveSlot)
{
    ApiInfo record = bay_one(3);
    open(record);
    uint8_t slot = 0xEE;
    EXPECT_EQ((Codes{rtshm_getExtenderSlotFromDriveSlot(1, 2, &slot), slot,
                     rtshm_getExtenderSlotFromDriveSlot(1, 1, &slot), slot}),
              (Codes{0, 3, 0, 0}));
    slot = 0xEE;
    EXPECT_EQ((Codes{rtshm_getExtenderSlotFromDriveSlot(1, 32, &slot), rtshm_getExtenderSlotFromDriveSlot(3, 0, &slot),
                     rtshm_getExtenderSlotFromDriveSlot(1, 0, nullptr), slot}),
              (Codes{2, 2, 2, 0xEE}));
    EXPECT_TRUE(trace_has(2, "Error!!, Invalid DriveSlot:32") && trace_has(4, "--> No Extender Found for u8BayID:1") &&
                trace_has(2, "<-- error bay id 3 is out of range"));
}

// ---- failures ------------------------------------------------------------------------------

TEST_F(ShmInventory, EachFailureReleasesTheLockAndWhatWasNotStored)
{
    ApiInfo record = bay_one(3);
    open(record);
    // Allocation n of an extender (object, FQDD, name), then of a backplane
    // (object, enclosure record, FQDD, name): result, and what is cached.
    struct Case {
        bool backplane;
        uint32_t failing;
        uint32_t result;
        const wchar_t *fqdd;
        const wchar_t *name;
    };
    const Case cases[] = {
        {false, 0, 3, L"-", L"-"},
        {false, 1, 0, L"(null)", L""},
        {false, 2, 0, L"PCIeExtender.Slot.3", L"(null)"},
        {true, 0, 3, L"-", L"-"},
        {true, 1, 3, L"-", L"-"},
        {true, 2, 0, L"(null)", L"PCIe SSD BP 1"},
        {true, 3, 0, L"Enclosure.Internal.0-1:PCIeExtender.Slot.3", L"(null)"},
    };
    RtShmNVMeBay &bay = sNVMeSSDBPInfo.bay[1];
    RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[1][0];
    for (const Case &c : cases) {
        SCOPED_TRACE(c.backplane * 10 + c.failing);
        ASSERT_EQ(processNVMeExtndrcardInfo(1, 3), 0u);  // the backplane's FQDD nests it
        if (!c.backplane) {
            rtvox::cache::release_extender(cache_Extndrs[3]);
        }
        const int64_t live = alloc_live();
        alloc_fail(c.failing, 1);
        EXPECT_EQ(c.backplane ? processNVMeBackplaneInfo(&bay, &slot) : processNVMeExtndrcardInfo(1, 3), c.result);
        alloc_fail_clear();
        EXPECT_EQ(vornhost_mutex_state(mutexRtCache), 0);
        if (c.backplane) {
            const Backplane bp = backplane(1);
            EXPECT_EQ((std::vector<std::wstring>{bp.fqdd, bp.name}), (std::vector<std::wstring>{c.fqdd, c.name}));
            rtvox::cache::release_backplane(cache_Bkplanes[1]);
        } else {
            EXPECT_EQ(extender(3), (std::vector<std::wstring>{c.fqdd, c.name}));
            rtvox::cache::release_extender(cache_Extndrs[3]);
        }
        EXPECT_EQ(alloc_live(), live);
    }

    // The lock, and a store the cache refuses (extender slot 17, bay id 5).
    vornhost_fail(VORNHOST_SMMutexLock, 0, 2);
    EXPECT_EQ((Codes{processNVMeExtndrcardInfo(1, 3), processNVMeBackplaneInfo(&bay, &slot)}), (Codes{3, 3}));
    EXPECT_EQ(trace_count("<-- err mutex fail"), 2);
    const int64_t live = alloc_live();
    sNVMeSSDBPInfo.extender[0] = RtShmNVMeExtender{1, 17, 4, 1};
    slot.u8BayID = 5;
    EXPECT_EQ(
        (Codes{processNVMeExtndrcardInfo(1, 17), rtshm_getNVMeExtcard(), processNVMeBackplaneInfo(&bay, &slot),
               processNVMeBackplaneInfo(nullptr, &slot), alloc_live() - live, vornhost_mutex_state(mutexRtCache)}),
        (Codes{2, 3, 3, 2, 0, 0}));
    EXPECT_TRUE(trace_has(1, " Error Exit  2") && trace_has(2, "<-- Error, processPciessdExtndrcardInfo"));
    EXPECT_EQ(std::ranges::count(lines_of("processNVMeBackplaneInfo"), std::string("L2 <-- error")), 1);
}

}  // namespace

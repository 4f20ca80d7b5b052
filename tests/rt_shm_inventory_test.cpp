// NVMe extender and backplane inventory into the object cache.
#include <algorithm>
#include <cwchar>

#include <tuple>

#include "rt_cache_release.h"
#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

using Texts = std::vector<std::wstring>;

std::wstring text(const wchar_t *value)
{
    return value != nullptr ? value : L"(null)";
}

// Bay 1 (technology 4, 8 slots) with NVMe drives in slots 0 and 2 behind the
// extender in PCIe slot `extender` (0: none), which riser entry 2 describes.
ApiInfo bay_one(int extender)
{
    ApiInfo r;
    r.counts(1, 0, 2, 3).bay(0, 1, 4, 8).drive(0, 1, 0, 4, 5, extender).drive(1, 1, 2, 4, 7, extender);
    return extender != 0 ? r.riser(2, 1, extender, 1) : r;
}

// The cached extender of a PCIe slot as {FQDD, name}; "-" when none is cached.
Texts extender(uint32_t slot)
{
    const RtCacheExtender *e = cache_Extndrs[slot];
    return e == nullptr ? Texts{L"-", L"-"} : Texts{text(e->pFQDD), text(e->pName)};
}

// The cached backplane of a bay read by bytes: {FQDD, name} of its enclosure
// record (pointer at 8; FQDD at 20, NAME at 8), and its fields with the
// record's slot and drive counts (bytes 72, 73).
Texts backplane(uint32_t bay, Ints *fields = nullptr)
{
    const auto *b = reinterpret_cast<const uint8_t *>(cache_Bkplanes[bay]);
    if (b == nullptr) {
        return {L"-", L"-"};
    }
    const uint8_t *record = *reinterpret_cast<uint8_t *const *>(b + 8);
    if (fields != nullptr) {
        *fields = {b[0], b[1], b[2], b[3], b[4] | (b[5] << 8), record[72], record[73]};
    }
    return {text(*reinterpret_cast<const wchar_t *const *>(record + 20)),
            text(*reinterpret_cast<const wchar_t *const *>(record + 8))};
}

using ShmInventory = ShmTest;

TEST_F(ShmInventory, ExtendersFirstThenEachBackplaneOnceWithItsFqdd)
{
    // The extender's PCIe slot, whether extenders are inventoried first, the backplane's FQDD.
    const std::tuple<int, bool, const wchar_t *> cases[] = {
        {3, false, L"(null)"},  // the extender is not cached: no FQDD at all, no fallback
        {0, true, L"Enclosure.Internal.0-1"},
        {3, true, L"Enclosure.Internal.0-1:PCIeExtender.Slot.3"},
    };
    for (const auto &[extenderSlot, extendersFirst, fqdd] : cases) {
        rtcache_Destroy();
        ASSERT_EQ(rtcache_Init(), 0u);
        std::memset(view(), 0, sizeof sNVMeSSDBPInfo);
        ApiInfo record = bay_one(extenderSlot);
        open(record);
        Ints fields;
        EXPECT_EQ((Codes{extendersFirst ? rtshm_getNVMeExtcard() : 0, rtshm_getNVMeBPs()}), (Codes{0, 0}));
        EXPECT_EQ(backplane(1, &fields), (Texts{fqdd, L"PCIe SSD BP 1"}));
        EXPECT_EQ(fields, (Ints{1, 0, 8, 0, 5, 8, 0}));
        EXPECT_EQ(trace_count("BP FQDD is already constrructed u8BayID=1: u8SlotNumInBay=2"), 1);
        EXPECT_EQ(trace_count("Extender Read Error or Not Available"), extendersFirst ? 0 : 1);
    }
    EXPECT_EQ(extender(3), (Texts{L"PCIeExtender.Slot.3", L"PCIe Extender 3"}));
    EXPECT_TRUE(trace_has(1, "Inventory store PCIeExtender.Slot.3"));
    EXPECT_EQ((Texts{backplane(0)[0], backplane(2)[0]}), (Texts{L"-", L"-"}));

    // A second inventory updates the cached objects in place and frees the texts it replaces.
    const int64_t live = alloc_live();
    const RtCacheBackplane *cached = cache_Bkplanes[1];
    EXPECT_EQ((Codes{rtshm_getNVMeExtcard(), rtshm_getNVMeBPs(), alloc_live() - live, cache_Bkplanes[1] == cached}),
              (Codes{0, 0, 0, 1}));

    uint8_t slot = 0xEE;
    EXPECT_EQ(
        (Codes{rtshm_getExtenderSlotFromDriveSlot(1, 2, &slot), slot, rtshm_getExtenderSlotFromDriveSlot(1, 32, &slot),
               rtshm_getExtenderSlotFromDriveSlot(3, 0, &slot), rtshm_getExtenderSlotFromDriveSlot(1, 1, &slot), slot}),
        (Codes{0, 3, 2, 2, 0, 0}));
    EXPECT_TRUE(trace_has(2, "Error!!, Invalid DriveSlot:32") && trace_has(4, "--> No Extender Found for u8BayID:1"));
}

TEST_F(ShmInventory, EachFailureReleasesTheLockAndWhatWasNotStored)
{
    ApiInfo record = bay_one(3);
    open(record);
    // Allocation n of an extender (object, FQDD, name) or of a backplane
    // (object, enclosure record, FQDD, name) fails: result and what is cached.
    const std::tuple<bool, uint32_t, uint32_t, Texts> cases[] = {
        {false, 0, 3, {L"-", L"-"}},
        {false, 1, 0, {L"(null)", L""}},
        {false, 2, 0, {L"PCIeExtender.Slot.3", L"(null)"}},
        {true, 0, 3, {L"-", L"-"}},
        {true, 1, 3, {L"-", L"-"}},
        {true, 2, 0, {L"(null)", L"PCIe SSD BP 1"}},
        {true, 3, 0, {L"Enclosure.Internal.0-1:PCIeExtender.Slot.3", L"(null)"}},
    };
    RtShmNVMeBay &bay = sNVMeSSDBPInfo.bay[1];
    RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[1][0];
    for (const auto &[isBackplane, failing, result, cached] : cases) {
        ASSERT_EQ(processNVMeExtndrcardInfo(1, 3), 0u);  // the backplane's FQDD nests it
        if (!isBackplane) {
            rtvox::cache::release_extender(cache_Extndrs[3]);
        }
        const int64_t live = alloc_live();
        alloc_fail(failing, 1);
        EXPECT_EQ(isBackplane ? processNVMeBackplaneInfo(&bay, &slot) : processNVMeExtndrcardInfo(1, 3), result);
        alloc_fail_clear();
        EXPECT_EQ((Codes{vornhost_mutex_state(mutexRtCache)}), (Codes{0}));
        EXPECT_EQ(isBackplane ? backplane(1) : extender(3), cached);
        if (isBackplane) {
            rtvox::cache::release_backplane(cache_Bkplanes[1]);
        } else {
            rtvox::cache::release_extender(cache_Extndrs[3]);
        }
        EXPECT_EQ(alloc_live(), live);
    }

    // The lock, a store the cache refuses (extender slot 17, bay id 5), a missing entry.
    vornhost_fail(VORNHOST_SMMutexLock, 0, 2);
    EXPECT_EQ((Codes{processNVMeExtndrcardInfo(1, 3), processNVMeBackplaneInfo(&bay, &slot),
                     trace_count("<-- err mutex fail")}),
              (Codes{3, 3, 2}));
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

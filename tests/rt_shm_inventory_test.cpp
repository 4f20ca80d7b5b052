// NVMe extender and backplane inventory into the object cache; NVMe locate
// and drive status: the drive-status records the backplane received (host
// write journal), the sessions they went over, and each backplane failure in
// turn.
#include <algorithm>
#include <cwchar>
#include <functional>
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

constexpr int kEid = 20;         // a PCIe SSD in a backplane (type 7), in bay 0 slot 2 and bay 1 slot 6
constexpr int kCardEid = 21;     // an add-in card (type 11)
constexpr int kLostEid = 22;     // type 7, in no slot
constexpr int kUnknownEid = 99;  // not registered

class ShmLocate : public ShmTest {
protected:
    void SetUp() override
    {
        ShmTest::SetUp();
        cache::add_eid(0, kEid, 7);
        cache::add_eid(1, kCardEid, 11);
        cache::add_eid(2, kLostEid, 7);
        view()[slot_at(0, 2) + 9] = view()[slot_at(1, 6) + 9] = kEid;  // the last match wins
        ApiInfo empty;
        open(empty);
    }
    // The writes journaled from index `from` as {write type, record bytes,
    // over bpAPIHandler (1) or a session of its own (0)}.
    static std::vector<Ints> writes(uint32_t from = 0)
    {
        std::vector<Ints> out;
        VornHostBpWrite w{};
        for (uint32_t i = from; vornhost_bp_write_get(i, &w) == 0; ++i) {
            out.push_back({static_cast<int>(w.writeType), w.bytes[0], w.bytes[1], w.bytes[2], w.bytes[3],
                           w.handle == bpAPIHandler});
        }
        return out;
    }
};

TEST_F(ShmLocate, WritesOneDriveStatusRecordPerCallAndNeverAnUnknownState)
{
    // The call, the record written (type, bay, slot, status low and high, over
    // bpAPIHandler; {} when none) and a line at level 4.
    const std::tuple<std::function<uint32_t()>, Ints, const char *> cases[] = {
        {[] { return BlinkNVMeSSD(1, 4); }, {1, 1, 4, 0x08, 0, 0}, "<-- Exit BlinkNVMeSSD"},
        {[] { return UnBlinkNVMeSSD(0, 2, 0x000D); }, {1, 0, 2, 0x05, 0, 0}, "u8bayId:0 u6NVMeDriveState:13"},
        {[] { return UnBlinkNVMeSSD(2, 31, 0xFFFF); }, {1, 2, 31, 0xF7, 0xFF, 0}, "<-- Exit UnBlinkNVMeSSD"},
        {[] { return UnBlinkAllNVMeSSDS(kEid, 1, 3, 0x120C); }, {1, 1, 3, 0x04, 0x12, 1}, "Sucess for EID:20"},
        {[] { return UnBlinkAllNVMeSSDS(kEid, 1, 3, 0xFFFF); }, {}, "u6NVMeDriveState:65535"},
        // The table takes the caller's slot (9), the record the EID's (bay 1 slot 6).
        {[] { return updateNVMeSSDDriveStatusToBP(0x0105, 9, kEid); },
         {1, 1, 6, 0x05, 0x01, 0},
         "Updating NVMe SSD Status:u16DriveStatus:261 u8SSDSlotNum:6 u8bayId:1"},
        {[] { return updateNVMeSSDDriveStatusToBP(0xFFFF, 8, kEid); }, {}, "update Done!! u16DriveStatus:65535"},
        {[] { return updateNVMeSSDDriveStatusToBP(7, 9, kCardEid); }, {1, 0, 0, 7, 0, 0}, "Add-in card"},
        {[] { return updateNVMeSSDDriveStatusToBP(5, 9, kUnknownEid); },
         {},
         "Failed to Get the BayID for the slot: Slot:9 u8Ret:1"},
        {[] { return updateNVMeSSDDriveStatusToBP(5, 9, kLostEid); }, {}, "the slot: Slot:9 u8Ret:3"},
    };
    for (const auto &[call, written, line] : cases) {
        SCOPED_TRACE(line);
        const uint32_t from = vornhost_bp_write_count();
        EXPECT_EQ(call(), 0u);
        EXPECT_EQ(writes(from), written.empty() ? std::vector<Ints>{} : std::vector<Ints>{written});
        EXPECT_EQ(vornhost_bp_session_count(), 1u);  // short sessions are closed again
        EXPECT_TRUE(trace_has(4, line));
    }
    EXPECT_EQ((Ints{states(1, 9)[0], slot_bytes(1, 9)[3], states(1, 6)[0], states(1, 8)[0], states(0, 9)[0]}),
              (Ints{0x0105, 0x0105, 0, 0xFFFF, 7}));

    close_session();
    EXPECT_EQ(UnBlinkAllNVMeSSDS(kEid, 1, 3, 0), 1u);
    EXPECT_TRUE(trace_has(4, "Error:bpAPIHandler is NULL u8bayId:1 Slot:3"));
}

TEST_F(ShmLocate, EachBackplaneFailureInTurn)
{
    const auto blink = [] { return BlinkNVMeSSD(1, 4); };
    const auto unblink = [] { return UnBlinkNVMeSSD(1, 4, 0x0D); };
    const auto update = [] { return updateNVMeSSDDriveStatusToBP(5, 9, kEid); };
    const auto unblinkAll = [] { return UnBlinkAllNVMeSSDS(kEid, 1, 4, 0x0D); };
    // The operation that fails and its status, the call, its result, the
    // sessions it leaves open besides bpAPIHandler, a line at level 4.
    const std::tuple<VornHostBpOp, uint32_t, std::function<uint32_t()>, uint32_t, uint32_t, const char *> cases[] = {
        {VORNHOST_BP_OPEN, VORNHOST_E_BUSY, blink, 1, 0,
         "<-- unable to Open backplaneApi. u8SSDSlotNum:4,BPAPIOpen: Error:Success"},
        {VORNHOST_BP_OPEN, VORNHOST_E_BUSY, unblink, 1, 0, "<-- unable to Open backplaneApi. u8SSDSlotNum:4,"},
        {VORNHOST_BP_OPEN, VORNHOST_E_BUSY, update, 0, 0, "<--NVMeSSDDriveStatus update Done!! u16DriveStatus:5"},
        {VORNHOST_BP_WRITE, VORNHOST_E_BUSY, blink, 1, 0,
         "<-- unable to write backplaneApi. u8Ret:11,NVMeSSDBlink: Error:Backplane busy"},
        {VORNHOST_BP_WRITE, VORNHOST_E_BUSY, unblink, 1, 0, "u8Ret:11,NVMeSSDUnBlink: Error:Backplane busy"},
        {VORNHOST_BP_WRITE, VORNHOST_E_BUSY, update, 1, 1,
         "<-- unable to write backplane api info. u8Ret:11, Error:Backplane busy"},
        {VORNHOST_BP_WRITE, VORNHOST_E_BUSY, unblinkAll, 1, 0, "--> Failed to Write to BPAPI @ "},
        {VORNHOST_BP_WRITE, 0x7700, blink, 0, 0, "<-- Exit BlinkNVMeSSD"},  // only the low 8 bits count
        {VORNHOST_BP_CLOSE, VORNHOST_E_BUSY, blink, 0, 1, "--> Failed to Close to BPAPI @ "},
        {VORNHOST_BP_CLOSE, VORNHOST_E_BUSY, update, 0, 1, "--> Failed to Close to BPAPI @ "},
    };
    for (const auto &[op, status, call, result, leftOpen, line] : cases) {
        SCOPED_TRACE(line);
        trace_start();
        const uint32_t before = vornhost_bp_session_count();
        vornhost_bp_set_status(op, status, 1);
        EXPECT_EQ(call(), result);
        EXPECT_EQ(vornhost_bp_session_count() - before, leftOpen);
        EXPECT_TRUE(trace_has(4, line));
        EXPECT_EQ(vornhost_bp_write_count() == 0, op == VORNHOST_BP_OPEN);
        vornhost_reset();
    }
    // The sessions left open were opened without a hot-plug callback.
    vornhost_bp_set_status(VORNHOST_BP_CLOSE, VORNHOST_E_BUSY, 1);
    BlinkNVMeSSD(1, 4);
    VornHostBpWrite w{};
    ASSERT_EQ(vornhost_bp_write_get(0, &w), 0);
    EXPECT_EQ(vornhost_bp_session_has_callback(w.handle), 0);
}

}  // namespace

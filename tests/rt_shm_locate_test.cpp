// NVMe locate and drive status: the drive-status records the backplane
// received (host write journal), the sessions they went over, and each
// backplane failure in turn.
#include <functional>

#include <tuple>

#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

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

    VornBpApiCloseExec(bpAPIHandler, "test", "locate", 0);
    bpAPIHandler = 0;
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

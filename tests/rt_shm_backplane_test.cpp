// The backplane API session, the update of the NVMe view from the API info
// record and the trace of the record; the hot-plug callback, delivered by the
// host's injection on its own thread, and the single-slot accessors. The
// *Concurrency suite also runs under drd (i386-valgrind preset), with smaller
// counts.
#include <atomic>
#include <thread>

#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

// NVMe bays 0 and 2 (the second secondary, with downstream bays and a riser)
// around a bay of technology 2; four drives, two risers.
ApiInfo sample()
{
    ApiInfo r;
    r.counts(3, 2, 4, 2).bay(0, 0, 4, 8, 1, 2).bay(1, 1, 2, 4).bay(2, 2, 1, 2, 0x1A, 3);
    r.put(8, {1, 2, 1, 0, 3, 2, 1, 0})
        .put(8 + 16, {8})
        .put(8 + 30, {8, 0, 2})
        .put(8 + 35, {1})
        .put(47, {0xAA, 0xBB, 0xCC});
    r.put(110 + 3, {2}).put(110 + 8, {5, 6}).put(110 + 27, {1, 4}).put(110 + 32, {1}).put(110 + 35, {1});
    r.drive(0, 0, 0, 4, 5, 0, 1).put(242, {0x31}).drive(1, 2, 1, 1, 3, 3, 2).put(257, {0x32});
    r.drive(2, 0, 1, 4, 0x0102, 0, 3);                   // beyond driveCnt: processed, not printed
    r.drive(3, 1, 0, 4, 9, 0, 4);                        // in the bay of technology 2: ignored
    return r.riser(0, 2, 3, 1).riser(1, 0, 5, 2, 2, 0);  // the second absent, of type 2, in bay 0
}

using ShmSession = ShmTest;

TEST_F(ShmSession, OpensOnceWithTheCallbackReadsAndZeroesTheStateTables)
{
    vornhost_fail(VORNHOST_VornBpApiOpenExec, 0, 1);
    ApiInfo record = sample();
    ApiInfo copy;
    EXPECT_EQ((Codes{rtshm_BpApiInit(), rtshm_BpDataUpdate(), ReadNVMeBPInfo(nullptr),
                     vornhost_call_count(VORNHOST_VornBpApiReadExec)}),
              (Codes{1, 0, 1, 0}));
    EXPECT_TRUE(trace_has(2, "Failed to get Open bpAPI") && trace_has(2, "<-- error:bpAPIHandler is NULL!!") &&
                trace_has(2, "<-- error:BPAPI Handler is NULL!!!"));

    rtvox::shm::au16DriveState[2][31] = rtvox::shm::au16PendingDriveState[1][0] = 7;
    vornhost_bp_set_info(record.data());
    EXPECT_EQ(rtshm_BpApiInit(), 0u);
    const uint32_t session = bpAPIHandler;
    EXPECT_EQ((Codes{vornhost_bp_session_has_callback(session), states(2, 31)[0], states(1, 0)[1], states(0, 0)[0]}),
              (Codes{1, 0, 0, 5}));
    vornhost_bp_set_status(VORNHOST_BP_READ, VORNHOST_E_BUSY, 1);  // a failing update is only traced
    EXPECT_EQ((Codes{rtshm_BpApiInit(), bpAPIHandler == session, vornhost_call_count(VORNHOST_VornBpApiOpenExec),
                     ReadNVMeBPInfo(reinterpret_cast<RtShmBpApiInfo *>(copy.data())), copy.bytes == record.bytes}),
              (Codes{0, 1, 2, 0, 1}));
    EXPECT_TRUE(trace_has(4, "--> rtshm_BpApiInit Calling BPAPIOpen") && trace_has(2, "<-- error:BPRead Failed!!") &&
                trace_has(4, "--> rtshm_BpApiInit BPApi is already Open"));
}

using ShmUpdate = ShmTest;

TEST_F(ShmUpdate, CondensesTheNvmeBaysDrivesAndRisers)
{
    ApiInfo record = sample();
    open(record);
    const uint8_t *v = view();
    EXPECT_EQ(Ints(v, v + 28),
              (Ints{3, 0, 0, 0, 0, 0, 8, 0, 0, 0, 1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2, 0, 0, 0, 0x1A, 3}));
    EXPECT_EQ(slot_bytes(0, 0), (Ints{0, 0, 1, 5, 4, 4, 0, 0}));
    EXPECT_EQ(slot_bytes(0, 1), (Ints{0, 1, 3, 0x0102, 4, 4, 0, 0}));
    EXPECT_EQ(slot_bytes(2, 1), (Ints{2, 1, 2, 3, 1, 1, 3, 0}));
    EXPECT_EQ(slot_bytes(1, 0), Ints(8, 0));
    EXPECT_EQ((Ints{states(0, 0)[0], states(0, 1)[0], states(2, 1)[0], states(1, 0)[0]}), (Ints{5, 0x0102, 3, 0}));
    // Riser index r fills extender entry r with type 4, whatever the riser says.
    EXPECT_EQ(Ints(v + 1380, v + 1388), (Ints{2, 3, 4, 1, 0, 5, 4, 2}));

    // A failed allocation or read leaves the view as it was; bays no longer reported stay.
    ApiInfo other;
    vornhost_bp_set_info(other.counts(1, 0, 0, 0).bay(0, 1, 4, 3).data());
    const std::string before = snapshot();
    alloc_fail(0, 1);
    vornhost_bp_set_status(VORNHOST_BP_READ, VORNHOST_E_BUSY, 1);
    EXPECT_EQ((Codes{rtshm_BpDataUpdate(), rtshm_BpDataUpdate(), snapshot() == before}), (Codes{5, 0, 1}));
    EXPECT_TRUE(trace_has(1, "<-- error:malloc to BP_Info is Failed!!"));
    EXPECT_EQ((Codes{rtshm_BpDataUpdate(), v[0], v[12], v[14], v[6]}), (Codes{0, 1, 1, 3, 8}));
}

TEST_F(ShmUpdate, ReadsOnlyInsideTheRecordAndWritesOnlyInsideTheTables)
{
    ApiInfo record;
    open(
        record.counts(255, 255, 255, 255).bay(0, 3, 4, 1).bay(1, 0, 4, 40).drive(0, 0, 32, 4, 6).drive(1, 0, 31, 4, 7));
    EXPECT_EQ((Codes{rtshm_BpDataUpdate(), view()[0], states(0, 31)[0], view()[6]}), (Codes{0, 255, 7, 40}));
    for (const char *line : {"bay id 3 is out of range", "slot 32 is out of range", "bay entries from 14 on pass",
                             "drive entries from 33 on pass", "riser entries from 3 on pass"}) {
        EXPECT_TRUE(trace_has(2, std::string("<-- error ") + line)) << line;
    }
}

TEST_F(ShmUpdate, TracesEveryBayDriveAndRiserLineInOrder)
{
    ApiInfo record = sample();
    open(record);
    EXPECT_EQ(rtshm_BpDataUpdate(), 0u);
    const std::vector<std::string> expected = {
        "L4 =========================", "L4 API Info bayCnt:3 bays",
        // bay 0: primary, two drives of which one printed, an absent riser
        "L4 Bay Id: 0 Inventory", "L4 Comp Id:      0xccbbaa", "L4 Fw Version:   1.2", "L4 Technology:   4",
        "L4 bpId:   258 size:8", "L4 pcieSlotMap:   66051", "L4 Carrier          :8", "L4 Pri/Sec          :0",
        "L4 Physical Slot Cnt:8", "L4 Logical Slot Cnt :8", "L4 Physical Drve Cnt:2", "L4 Downstream Cnt   :0",
        "L4 Primary Bay Id:0", "L4 Drive Info, 2 drives:", "L4 NVMe SSD Slot:0 with an extenderSlot 0:",
        "L4 Drive  1, Sensor 0x31, Bay 0, State:5", "L4 Riser Info, 1 risers:",
        // bay 1: technology 2, printed like any other
        "L4 Bay Id: 1 No Inventory", "L4 Comp Id:      0x000000", "L4 Fw Version:   0.0", "L4 Technology:   2",
        "L4 bpId:   0 size:0", "L4 pcieSlotMap:   0", "L4 Carrier          :0", "L4 Pri/Sec          :0",
        "L4 Physical Slot Cnt:4", "L4 Logical Slot Cnt :0", "L4 Physical Drve Cnt:0", "L4 Downstream Cnt   :0",
        "L4 Primary Bay Id:0", "L4 Drive Info, 0 drives:", "L4 Riser Info, 0 risers:",
        // bay 2: secondary with two downstream bays, a drive on an extender, a riser
        "L4 Bay Id: 2 No Inventory", "L4 Comp Id:      0x000000", "L4 Fw Version:   1a.3", "L4 Technology:   1",
        "L4 bpId:   0 size:0", "L4 pcieSlotMap:   0", "L4 Carrier          :0", "L4 Pri/Sec          :1",
        "L4 Physical Slot Cnt:2", "L4 Logical Slot Cnt :0", "L4 Physical Drve Cnt:1", "L4 Downstream Cnt   :2",
        "L4 Downstream Slot Cnt:4", "L4 Downstream Drive Cnt:4", "L4 Downstream Bay Ids :5 ",
        "L4 Downstream Bay Ids :6 ", "L4 Drive Info, 1 drives:", "L4 NVMe SSD Slot:1 with an extenderSlot 3:",
        "L4 Drive  2, Sensor 0x32, Bay 2, State:3", "L4 Riser Info, 1 risers:", "L4 Number: 1, Type: 0x04, Slot 3"};
    EXPECT_EQ(lines_of("VornBpPrintApiInfo"), expected);
    EXPECT_TRUE(trace_has(4, " Not a NVMe BP, Hence skipping bpType=2 u8BayNo=1 ") &&
                trace_has(4, "Extern Found, @PCIe Slot =3, Type:4"));
    trace_start();
    VornBpPrintApiInfo(nullptr);
    EXPECT_EQ(vornhost_trace_count(), 0u);
}

using ShmHotPlug = ShmTest;

TEST_F(ShmHotPlug, CommitsChangesAndKeepsPendingStatesThatMatched)
{
    ApiInfo empty, first, same, changed;
    open(empty);
    // Bay 1 slot 3 at 5, with a drive of technology 2 and two outside the tables.
    first.counts(0, 0, 4, 0).drive(0, 1, 3, 4, 5).drive(1, 0, 0, 2, 9).drive(2, 3, 0, 4, 1).drive(3, 0, 32, 1, 1);
    same.counts(0, 0, 1, 0).drive(0, 1, 3, 1, 5);
    changed.counts(0, 0, 1, 0).drive(0, 1, 3, 4, 6);
    // The record reported; the current and pending state, the change lines, the slot entry's state.
    const std::pair<ApiInfo *, Ints> steps[] = {
        {&first, {5, 0, 1, 5}},    // inserted: committed, pending cleared
        {&same, {5, 5, 0, 5}},     // reported again: no change, pending kept
        {&empty, {5, 5, 0, 5}},    // no longer reported: pending still matches, state kept
        {&changed, {6, 0, 1, 6}},  // a new state is committed
        {&empty, {0, 0, 1, 0}},    // pulled after a commit: reads as absent
    };
    for (const auto &[record, expected] : steps) {
        trace_start();
        hotplug(*record);
        EXPECT_EQ(
            (Ints{states(1, 3)[0], states(1, 3)[1], trace_count("HotPlug:NVMe DriveStatus"), slot_bytes(1, 3)[3]}),
            expected);
    }
    EXPECT_EQ(slot_bytes(1, 3), (Ints{1, 0, 0, 0, 0, 4, 0, 0}));  // bay id and technology from the reports
    EXPECT_EQ(std::string(reinterpret_cast<char *>(view()), slot_at(0, 1)), std::string(slot_at(0, 1), '\0'));
    EXPECT_TRUE(trace_has(4, "HotPlug:NVMe DriveStatus bayID:1, slot:3, NewState:0x0, OldState:0x6") &&
                trace_has(4, "baySlot:3, au16DriveStatus:0"));
    trace_start();
    hotplug(first);
    EXPECT_EQ((Codes{vornhost_bp_hotplug_done(), vornhost_bp_hotplug_last_result(), NVMeHotPlugCallback(nullptr)}),
              (Codes{6, 0, 0}));
    EXPECT_TRUE(trace_has(2, "info is NULL") && trace_has(2, "NVMeHotPlugCallback:") &&
                trace_has(2, "<-- error bay id 3 is out of range") &&
                trace_has(2, "<-- error slot 32 is out of range"));
}

using ShmDriveState = ShmTest;

TEST_F(ShmDriveState, AccessorsReadAndWriteOneSlotAndNothingOutsideTheTables)
{
    uint16_t state = 0;
    uint8_t tech = 0;
    view()[slot_at(1, 3) + 7] = 4;  // the drive technology an update would store
    EXPECT_EQ((Codes{rtshm_SetNVMeDriveState(1, 7, 3), rtshm_getNVMeDriveState(&state, 1, 3), state,
                     rtshm_UpdateNVMeSSDSlotToEID(1, 3, 0x1234), rtshm_getDriveTechFromBpInfo(&tech, 1, 3), tech}),
              (Codes{0, 0, 7, 0, 0, 4}));
    EXPECT_EQ(slot_bytes(1, 3), (Ints{0, 0, 0, 7, 0, 4, 0, 0x34}));
    EXPECT_TRUE(trace_has(4, "DriveState for Slot:3, u6DriveState:7 CurrentDriveState:0") &&
                trace_has(4, "--> u8BayID:1 u8Slot:3, u8EID:52 ") &&
                trace_has(4, "DriveTech for Bay:1 Slot:3, u8DriveTech:4"));

    const std::string before = snapshot();
    state = 0xBEEF;
    tech = 0xEE;
    for (const auto &[b, s] : {std::pair<uint8_t, uint8_t>{3, 0}, {0, 32}, {255, 255}}) {
        trace_start();
        EXPECT_EQ((Codes{rtshm_SetNVMeDriveState(b, 9, s), rtshm_getNVMeDriveState(&state, b, s),
                         rtshm_UpdateNVMeSSDSlotToEID(b, s, 9), rtshm_getDriveTechFromBpInfo(&tech, b, s),
                         trace_count("is out of range")}),
                  (Codes{2, 2, 2, 2, 4}));
    }
    EXPECT_EQ((Codes{snapshot() == before, state, tech, rtshm_getNVMeDriveState(nullptr, 0, 0),
                     rtshm_getDriveTechFromBpInfo(nullptr, 0, 0), trace_count("<-- err null inputs")}),
              (Codes{1, 0xBEEF, 0xEE, 2, 2, 2}));
}

using ShmHotPlugConcurrency = ShmTest;

// Hot plug flips a drive between two states on the backplane API's threads
// while a service thread reads the slot: it only ever sees a reported state.
TEST_F(ShmHotPlugConcurrency, ServiceReadsStatesWhileHotPlugChangesThem)
{
    const TimeBound bound(120);
    vornhost_trace_capture(0);
    ApiInfo empty, records[2];
    open(empty);
    records[0].counts(0, 0, 1, 0).drive(0, 2, 31, 4, 0xA5A5);
    records[1].counts(0, 0, 1, 0).drive(0, 2, 31, 1, 0x5A5A);
    const int rounds = valgrind_run() ? 20 : 200;
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, reads{0};
    std::thread service([&] {
        while (!stop.load()) {
            uint16_t state = 0;
            uint8_t tech = 0;
            if (rtshm_getNVMeDriveState(&state, 2, 31) != 0 || rtshm_getDriveTechFromBpInfo(&tech, 2, 31) != 0 ||
                (state != 0 && state != 0xA5A5 && state != 0x5A5A) || (tech != 0 && tech != 1 && tech != 4)) {
                ++bad;
            }
            ++reads;
            std::this_thread::yield();  // drd runs one thread at a time: let the hot-plug thread in
        }
    });
    for (int i = 0; i < rounds; ++i) {
        hotplug(records[i % 2]);
    }
    stop = true;
    service.join();
    uint16_t last = 0;
    EXPECT_EQ(
        (Codes{bad.load(), reads.load() > 0, rtshm_getNVMeDriveState(&last, 2, 31), last, vornhost_bp_hotplug_done()}),
        (Codes{0, 1, 0, 0x5A5A, rounds}));
}

}  // namespace

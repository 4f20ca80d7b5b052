// The backplane API session, the update of the NVMe view from the API info
// record, and the trace of the record.
#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

using Lines = std::vector<std::string>;
using Codes = std::vector<int64_t>;

// Two NVMe bays (ids 0 and 2, the second with downstream bays and a riser)
// and a bay of technology 2 between them; four drives, two risers.
ApiInfo sample()
{
    ApiInfo r;
    r.counts(3, 2, 4, 2);
    r.bay(0, 0, 4, 8, 1, 2).set(8 + 0, 1).put16(8 + 1, 258).set(8 + 4, 3).set(8 + 5, 2).set(8 + 6, 1);
    r.set(8 + 16, 8).set(8 + 30, 8).set(8 + 32, 2).set(8 + 35, 1).set(8 + 39, 0xAA).set(8 + 40, 0xBB).set(8 + 41, 0xCC);
    r.bay(1, 1, 2, 4);
    r.bay(2, 2, 1, 2, 0x1A, 3).set(110 + 27, 1).set(110 + 28, 4).set(110 + 3, 2).set(110 + 8, 5).set(110 + 9, 6);
    r.set(110 + 32, 1).set(110 + 35, 1);
    r.drive(0, 0, 0, 4, 5, 0, 1).set(240 + 2, 0x31);
    r.drive(1, 2, 1, 1, 3, 3, 2).set(255 + 2, 0x32);
    r.drive(2, 0, 1, 4, 0x0102, 0, 3);  // beyond driveCnt: processed, not printed
    r.drive(3, 1, 0, 4, 9, 0, 4);       // in the bay of technology 2: ignored
    r.riser(0, 2, 3, 1);
    r.riser(1, 0, 5, 2, 2, 0);  // absent and not an extender: not printed, but bay 0's riser index 1
    return r;
}

// ---- session ------------------------------------------------------------------------------

using ShmSession = ShmTest;

TEST_F(ShmSession, OpensOnceWithTheCallbackAndZeroesTheStateTables)
{
    ApiInfo record = sample();
    rtvox::shm::au16DriveState[2][31] = 7;
    rtvox::shm::au16PendingDriveState[1][0] = 7;
    vornhost_bp_set_info(record.data());
    EXPECT_EQ(rtshm_BpApiInit(), 0u);
    const uint32_t session = bpAPIHandler;
    EXPECT_EQ((Codes{vornhost_bp_session_has_callback(session), rtvox::shm::au16DriveState[2][31],
                     rtvox::shm::au16PendingDriveState[1][0], rtvox::shm::au16DriveState[0][0]}),
              (Codes{1, 0, 0, 5}));
    EXPECT_TRUE(trace_has(4, "--> rtshm_BpApiInit Calling BPAPIOpen") && trace_has(4, "<-- SUCCESS rtshm_BpApiInit"));

    // A second init keeps the session; a failing update is only traced.
    vornhost_bp_set_status(VORNHOST_BP_READ, VORNHOST_E_BUSY, 1);
    EXPECT_EQ((Codes{rtshm_BpApiInit(), bpAPIHandler == session, vornhost_call_count(VORNHOST_VornBpApiOpenExec)}),
              (Codes{0, 1, 1}));
    EXPECT_TRUE(trace_has(4, "--> rtshm_BpApiInit BPApi is already Open") && trace_has(2, "<-- error:BPRead Failed!!"));

    ApiInfo copy;
    EXPECT_EQ(
        (Codes{ReadNVMeBPInfo(copy.info()), std::memcmp(copy.data(), record.data(), 738), ReadNVMeBPInfo(nullptr)}),
        (Codes{0, 0, 1}));
    EXPECT_TRUE(trace_has(2, "<-- error Reading BPAPI Failed!"));
}

TEST_F(ShmSession, WithoutASessionNothingIsRead)
{
    vornhost_fail(VORNHOST_VornBpApiOpenExec, 0, 1);
    ApiInfo copy;
    EXPECT_EQ((Codes{rtshm_BpApiInit(), bpAPIHandler, rtshm_BpDataUpdate(), ReadNVMeBPInfo(copy.info()),
                     vornhost_call_count(VORNHOST_VornBpApiReadExec)}),
              (Codes{1, 0, 0, 1, 0}));
    EXPECT_TRUE(trace_has(2, "Failed to get Open bpAPI") && trace_has(2, "<-- error:bpAPIHandler is NULL!!") &&
                trace_has(2, "<-- error:BPAPI Handler is NULL!!!"));
}

// ---- the update ---------------------------------------------------------------------------

using ShmUpdate = ShmTest;

TEST_F(ShmUpdate, CondensesTheNvmeBaysDrivesAndRisers)
{
    ApiInfo record = sample();
    open(record);
    const uint8_t *v = view();
    EXPECT_EQ(v[0], 3);
    EXPECT_EQ((Codes{v[4], v[6], v[10], v[11]}), (Codes{0, 8, 1, 2}));                        // bay 0
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(v + 12), 8), std::string(8, '\0'));  // bay 1: technology 2
    EXPECT_EQ((Codes{v[20], v[22], v[26], v[27]}), (Codes{2, 2, 0x1A, 3}));                   // bay 2
    EXPECT_EQ(slot_bytes(0, 0), (std::vector<int>{0, 0, 1, 5, 4, 4, 0, 0}));
    EXPECT_EQ(slot_bytes(0, 1), (std::vector<int>{0, 1, 3, 0x0102, 4, 4, 0, 0}));
    EXPECT_EQ(slot_bytes(2, 1), (std::vector<int>{2, 1, 2, 3, 1, 1, 3, 0}));
    EXPECT_EQ(slot_bytes(1, 0), (std::vector<int>(8, 0)));
    EXPECT_EQ((Codes{rtvox::shm::au16DriveState[0][0], rtvox::shm::au16DriveState[0][1],
                     rtvox::shm::au16DriveState[2][1], rtvox::shm::au16DriveState[1][0]}),
              (Codes{5, 0x0102, 3, 0}));
    // Riser index r fills extender entry r with type 4, whatever the riser says.
    EXPECT_EQ(std::vector<int>(v + 1380, v + 1388), (std::vector<int>{2, 3, 4, 1, 0, 5, 4, 2}));

    // A failed read or allocation leaves the view as it was.
    ApiInfo other;
    other.counts(1, 0, 0, 0).bay(0, 1, 4, 3);
    vornhost_bp_set_info(other.data());
    const std::string before = snapshot();
    vornhost_bp_set_status(VORNHOST_BP_READ, VORNHOST_E_BUSY, 1);
    alloc_fail(0, 1);
    EXPECT_EQ((Codes{rtshm_BpDataUpdate(), rtshm_BpDataUpdate(), snapshot() == before}), (Codes{5, 0, 1}));
    EXPECT_TRUE(trace_has(1, "<-- error:malloc to BP_Info is Failed!!"));
    // Entries no longer reported are not cleared.
    EXPECT_EQ((Codes{rtshm_BpDataUpdate(), v[0], v[12], v[14], v[4], v[6]}), (Codes{0, 1, 1, 3, 0, 8}));
}

TEST_F(ShmUpdate, ReadsOnlyInsideTheRecordAndWritesOnlyInsideTheTables)
{
    ApiInfo record;
    record.counts(255, 255, 255, 255).bay(0, 3, 4, 1).bay(1, 0, 4, 40);
    record.drive(0, 0, 32, 4, 6).drive(1, 0, 31, 4, 7);
    open(record);
    EXPECT_EQ(rtshm_BpDataUpdate(), 0u);
    EXPECT_EQ((Codes{view()[0], rtvox::shm::au16DriveState[0][31], view()[6]}), (Codes{255, 7, 40}));
    for (const char *line : {"<-- error bay id 3 is out of range", "<-- error slot 32 is out of range",
                             "<-- error bay entries from 14 on pass the record's end",
                             "<-- error drive entries from 33 on pass the record's end",
                             "<-- error riser entries from 3 on pass the record's end"}) {
        EXPECT_TRUE(trace_has(2, line)) << line;
    }
}

// ---- the trace of the record ---------------------------------------------------------------

TEST_F(ShmUpdate, TracesEveryBayDriveAndRiserLineInOrder)
{
    ApiInfo record = sample();
    open(record);
    EXPECT_EQ(rtshm_BpDataUpdate(), 0u);
    const Lines bay1 = {"L4 Bay Id: 1 No Inventory", "L4 Comp Id:      0x000000", "L4 Fw Version:   0.0",
                        "L4 Technology:   2",        "L4 bpId:   0 size:0",       "L4 pcieSlotMap:   0",
                        "L4 Carrier          :0",    "L4 Pri/Sec          :0",    "L4 Physical Slot Cnt:4",
                        "L4 Logical Slot Cnt :0",    "L4 Physical Drve Cnt:0",    "L4 Downstream Cnt   :0",
                        "L4 Primary Bay Id:0",       "L4 Drive Info, 0 drives:",  "L4 Riser Info, 0 risers:"};
    Lines expected = {"L4 =========================",
                      "L4 API Info bayCnt:3 bays",
                      "L4 Bay Id: 0 Inventory",
                      "L4 Comp Id:      0xccbbaa",
                      "L4 Fw Version:   1.2",
                      "L4 Technology:   4",
                      "L4 bpId:   258 size:8",
                      "L4 pcieSlotMap:   66051",
                      "L4 Carrier          :8",
                      "L4 Pri/Sec          :0",
                      "L4 Physical Slot Cnt:8",
                      "L4 Logical Slot Cnt :8",
                      "L4 Physical Drve Cnt:2",
                      "L4 Downstream Cnt   :0",
                      "L4 Primary Bay Id:0",
                      "L4 Drive Info, 2 drives:",
                      "L4 NVMe SSD Slot:0 with an extenderSlot 0:",
                      "L4 Drive  1, Sensor 0x31, Bay 0, State:5",
                      "L4 Riser Info, 1 risers:"};
    expected.insert(expected.end(), bay1.begin(), bay1.end());
    for (const char *line : {"L4 Bay Id: 2 No Inventory",
                             "L4 Comp Id:      0x000000",
                             "L4 Fw Version:   1a.3",
                             "L4 Technology:   1",
                             "L4 bpId:   0 size:0",
                             "L4 pcieSlotMap:   0",
                             "L4 Carrier          :0",
                             "L4 Pri/Sec          :1",
                             "L4 Physical Slot Cnt:2",
                             "L4 Logical Slot Cnt :0",
                             "L4 Physical Drve Cnt:1",
                             "L4 Downstream Cnt   :2",
                             "L4 Downstream Slot Cnt:4",
                             "L4 Downstream Drive Cnt:4",
                             "L4 Downstream Bay Ids :5 ",
                             "L4 Downstream Bay Ids :6 ",
                             "L4 Drive Info, 1 drives:",
                             "L4 NVMe SSD Slot:1 with an extenderSlot 3:",
                             "L4 Drive  2, Sensor 0x32, Bay 2, State:3",
                             "L4 Riser Info, 1 risers:",
                             "L4 Number: 1, Type: 0x04, Slot 3"}) {
        expected.emplace_back(line);
    }
    EXPECT_EQ(lines_of("VornBpPrintApiInfo"), expected);
    EXPECT_TRUE(trace_has(4, " Not a NVMe BP, Hence skipping bpType=2 u8BayNo=1 "));
    EXPECT_TRUE(trace_has(4, "Extern Found, @PCIe Slot =3, Type:4"));

    trace_start();
    VornBpPrintApiInfo(nullptr);
    EXPECT_EQ(vornhost_trace_count(), 0u);
}

}  // namespace

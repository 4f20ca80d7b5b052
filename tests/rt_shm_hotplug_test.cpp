// NVMe drive state: the hot-plug callback delivered by the host's injection on
// its own thread, and the single-slot accessors. The *Concurrency suite also
// runs under drd (i386-valgrind preset), with smaller counts.
#include <atomic>
#include <thread>

#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

using Codes = std::vector<int64_t>;

// ---- hot plug -------------------------------------------------------------------------------

using ShmHotPlug = ShmTest;

TEST_F(ShmHotPlug, CommitsChangesAndKeepsPendingStatesThatMatched)
{
    ApiInfo empty;
    open(empty);
    ApiInfo first;  // bay 1 slot 3 at 5, plus three drives that must leave no trace in the tables
    first.counts(0, 0, 4, 0).drive(0, 1, 3, 4, 5).drive(1, 0, 0, 2, 9).drive(2, 3, 0, 4, 1).drive(3, 0, 32, 1, 1);
    ApiInfo same;
    same.counts(0, 0, 1, 0).drive(0, 1, 3, 1, 5);
    ApiInfo changed;
    changed.counts(0, 0, 1, 0).drive(0, 1, 3, 4, 6);
    struct Step {
        ApiInfo *record;
        std::vector<int> states;  // current, pending of bay 1 slot 3
        int changes;              // "HotPlug:NVMe DriveStatus" lines
        int slotState;            // the slot entry's state
    };
    const Step steps[] = {
        {&first, {5, 0}, 1, 5},    // inserted: committed, pending cleared
        {&same, {5, 5}, 0, 5},     // reported again: no change, pending kept
        {&empty, {5, 5}, 0, 5},    // no longer reported: pending still matches, state kept
        {&changed, {6, 0}, 1, 6},  // a new state is committed
        {&empty, {0, 0}, 1, 0},    // pulled after a commit: reads as absent
    };
    const std::string others = snapshot().substr(0, slot_at(0, 1));  // the view up to bay 0 slot 0 included
    for (size_t i = 0; i < std::size(steps); ++i) {
        SCOPED_TRACE(i);
        trace_start();
        hotplug(*steps[i].record);
        EXPECT_EQ(states(1, 3), steps[i].states);
        EXPECT_EQ(trace_count("HotPlug:NVMe DriveStatus"), steps[i].changes);
        EXPECT_EQ(slot_bytes(1, 3)[3], steps[i].slotState);
    }
    EXPECT_EQ(slot_bytes(1, 3), (std::vector<int>{1, 0, 0, 0, 0, 4, 0, 0}));  // bay id and technology from the report
    EXPECT_EQ(snapshot().substr(0, slot_at(0, 1)), others);
    EXPECT_EQ(states(0, 0), (std::vector<int>{0, 0}));
    EXPECT_TRUE(trace_has(4, "HotPlug:NVMe DriveStatus bayID:1, slot:3, NewState:0x0, OldState:0x6") &&
                trace_has(4, "baySlot:3, au16DriveStatus:0"));
    EXPECT_EQ((Codes{vornhost_bp_hotplug_done(), vornhost_bp_hotplug_last_result()}), (Codes{5, 0}));

    trace_start();
    hotplug(first);
    EXPECT_TRUE(trace_has(2, "rt_shm.c:NVMeHotPlugCallback:") && trace_has(2, "<-- error bay id 3 is out of range") &&
                trace_has(2, "<-- error slot 32 is out of range"));
    EXPECT_EQ(NVMeHotPlugCallback(nullptr), 0);
    EXPECT_TRUE(trace_has(2, "info is NULL"));
}

// ---- single slots ---------------------------------------------------------------------------

using ShmDriveState = ShmTest;

TEST_F(ShmDriveState, AccessorsReadAndWriteOneSlot)
{
    uint16_t state = 0;
    uint8_t tech = 0;
    const_cast<uint8_t *>(view())[slot_at(1, 3) + 7] = 4;  // the drive technology the update would store
    EXPECT_EQ((Codes{rtshm_SetNVMeDriveState(1, 7, 3), rtshm_getNVMeDriveState(&state, 1, 3), state,
                     rtshm_UpdateNVMeSSDSlotToEID(1, 3, 0x1234), rtshm_getDriveTechFromBpInfo(&tech, 1, 3), tech}),
              (Codes{0, 0, 7, 0, 0, 4}));
    EXPECT_EQ(slot_bytes(1, 3), (std::vector<int>{0, 0, 0, 7, 0, 4, 0, 0x34}));
    EXPECT_EQ(states(1, 3), (std::vector<int>{7, 0}));
    EXPECT_TRUE(trace_has(4, "DriveState for Slot:3, u6DriveState:7 CurrentDriveState:0") &&
                trace_has(4, "--> u8BayID:1 u8Slot:3, u8EID:52 ") &&
                trace_has(4, "DriveTech for Bay:1 Slot:3, u8DriveTech:4"));

    // Outside the tables: 2, a level-2 line, nothing written or read out.
    const std::string before = snapshot();
    state = 0xBEEF;
    tech = 0xEE;
    for (const auto &[bay, slot] : {std::pair{3, 0}, std::pair{0, 32}, std::pair{255, 255}}) {
        SCOPED_TRACE(bay * 1000 + slot);
        trace_start();
        const auto b = static_cast<uint8_t>(bay);
        const auto s = static_cast<uint8_t>(slot);
        EXPECT_EQ((Codes{rtshm_SetNVMeDriveState(b, 9, s), rtshm_getNVMeDriveState(&state, b, s),
                         rtshm_UpdateNVMeSSDSlotToEID(b, s, 9), rtshm_getDriveTechFromBpInfo(&tech, b, s)}),
                  (Codes{2, 2, 2, 2}));
        EXPECT_EQ(trace_count("is out of range"), 4);
    }
    EXPECT_EQ((Codes{snapshot() == before, state, tech}), (Codes{1, 0xBEEF, 0xEE}));
    EXPECT_EQ((Codes{rtshm_getNVMeDriveState(nullptr, 0, 0), rtshm_getDriveTechFromBpInfo(nullptr, 0, 0),
                     trace_count("<-- err null inputs")}),
              (Codes{2, 2, 2}));
}

// ---- concurrency -----------------------------------------------------------------------------

using ShmHotPlugConcurrency = ShmTest;

// Hot plug flips a drive between two states on the backplane API's threads
// while a service thread reads the slot: it only ever sees a reported state.
TEST_F(ShmHotPlugConcurrency, ServiceReadsStatesWhileHotPlugChangesThem)
{
    const TimeBound bound(120);
    vornhost_trace_capture(0);
    ApiInfo empty;
    open(empty);
    ApiInfo records[2];
    records[0].counts(0, 0, 1, 0).drive(0, 2, 31, 4, 0xA5A5);
    records[1].counts(0, 0, 1, 0).drive(0, 2, 31, 1, 0x5A5A);
    const int rounds = valgrind_run() ? 20 : 200;

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::atomic<int> reads{0};
    std::thread service([&] {
        while (!stop.load()) {
            uint16_t state = 0;
            uint8_t tech = 0;
            if (rtshm_getNVMeDriveState(&state, 2, 31) != 0 || rtshm_getDriveTechFromBpInfo(&tech, 2, 31) != 0 ||
                (state != 0 && state != 0xA5A5 && state != 0x5A5A) || (tech != 0 && tech != 1 && tech != 4)) {
                ++torn;
            }
            ++reads;
        }
    });
    for (int i = 0; i < rounds; ++i) {
        hotplug(records[i % 2]);
    }
    stop = true;
    service.join();

    uint16_t last = 0;
    EXPECT_EQ(
        (Codes{torn.load(), reads.load() > 0, rtshm_getNVMeDriveState(&last, 2, 31), last, vornhost_bp_hotplug_done()}),
        (Codes{0, 1, 0, (rounds - 1) % 2 == 0 ? 0xA5A5 : 0x5A5A, rounds}));
}

}  // namespace

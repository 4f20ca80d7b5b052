// NVMe drive state: the hot-plug callback, delivered by the host's injection
// on its own thread, and the single-slot accessors. The *Concurrency suite
// also runs under drd (i386-valgrind preset), with smaller counts.
#include <atomic>
#include <thread>

#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;

namespace {

using ShmHotPlug = ShmTest;

TEST_F(ShmHotPlug, CommitsChangesAndKeepsPendingStatesThatMatched)
{
    ApiInfo empty, first, same, changed;
    open(empty);
    // Bay 1 slot 3 at 5, with a drive of technology 2 and two outside the tables.
    first.counts(0, 0, 4, 0).drive(0, 1, 3, 4, 5).drive(1, 0, 0, 2, 9).drive(2, 3, 0, 4, 1).drive(3, 0, 32, 1, 1);
    same.counts(0, 0, 1, 0).drive(0, 1, 3, 1, 5);
    changed.counts(0, 0, 1, 0).drive(0, 1, 3, 4, 6);
    const struct {
        ApiInfo *record;
        Ints expected;  // current, pending, change lines, the slot entry's state
    } steps[] = {
        {&first, {5, 0, 1, 5}},    // inserted: committed, pending cleared
        {&same, {5, 5, 0, 5}},     // reported again: no change, pending kept
        {&empty, {5, 5, 0, 5}},    // no longer reported: pending still matches, state kept
        {&changed, {6, 0, 1, 6}},  // a new state is committed
        {&empty, {0, 0, 1, 0}},    // pulled after a commit: reads as absent
    };
    for (const auto &step : steps) {
        trace_start();
        hotplug(*step.record);
        EXPECT_EQ(
            (Ints{states(1, 3)[0], states(1, 3)[1], trace_count("HotPlug:NVMe DriveStatus"), slot_bytes(1, 3)[3]}),
            step.expected);
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

// Synchronisation: the global status and poll state and the controller-state
// table. The *Concurrency suites also run under drd (i386-valgrind preset),
// with smaller counts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <ctime>
#include <thread>
#include <vector>

#include "rt_sync_fixtures.h"
#include "rtvox/rt_sync.h"

namespace rtvox::test::sync {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

uint32_t now()
{
    return static_cast<uint32_t>(time(nullptr));
}

// Every test starts from a process that has seen no RTSync call.
class SyncTest : public SyncFixture {
protected:
    void SetUp() override
    {
        RTSync_Destroy();
        RTSync_TavoStateDestroy();
        grtsync_Status = RTSyncStatus{};
        SyncFixture::SetUp();
    }
};

TEST_F(SyncTest, LockedCallsFailWithoutAUsableMutexAndChangeNothing)
{
    const RTSyncStatus written{0x20, 0x40, 3, 0x5A5A, 100, 200};
    for (auto &entry : gTAVOState) {
        entry = RTSyncTavoState{7, 8, {0, 0}};
    }
    const std::string table = bytes_of(gTAVOState);
    // Never initialised; Init without a mutex; the locks failing; destroyed (twice).
    for (int stage = 0; stage < 4; ++stage) {
        SCOPED_TRACE(stage);
        trace_start();
        std::vector<std::string> want;
        std::vector<std::string> failing = {"RTSync_SetGlobalPoll", "RTSync_updateGlobalPoll",
                                            "RTSync_LockGlobalStatus"};
        if (stage == 1) {
            vornhost_fail(VORNHOST_SMMutexCreate, 0, 2);
            EXPECT_EQ(RTSync_Init(), 1u);
            EXPECT_EQ(RTSync_TavoStateInit(), 1u);
            EXPECT_EQ(bytes_of(gTAVOState), table);
            want = {"L1 rt_sync.c:RTSync_Init:#:<-- RTSync_Init failed to create mutex",
                    "L1 rt_sync.c:RTSync_TavoStateInit:#:<-- RTSync_TavoStateInit failed to create mutex"};
        } else if (stage == 2) {
            ASSERT_EQ(RTSync_Init(), 0u);
            ASSERT_EQ(RTSync_TavoStateInit(), 0u);
            ASSERT_EQ(RTSync_SetTavoStatus(5, 50), 0u);
            vornhost_fail(VORNHOST_SMMutexLock, 0, 5);
            failing.insert(failing.end(), {"RTSync_SetTavoStatus", "RTSync_GetTavoStatus"});
        } else if (stage == 3) {
            RTSync_Destroy();
            RTSync_Destroy();
            RTSync_TavoStateDestroy();
            RTSync_TavoStateDestroy();
        }
        uint8_t state = 0x5A;
        // Setting the status needs no lock.
        EXPECT_EQ(
            (Codes{rtsync_mutex == 0 && rtraid_tavo_state_mutex == 0, RTSync_SetGlobalStatus(written),
                   RTSync_SetGlobalPoll(RTSyncStatus{0, 0, 9, 0, 900, 901}), RTSync_updateGlobalPoll(RTSyncStatus{}),
                   RTSync_LockGlobalStatus(), RTSync_SetTavoStatus(5, 51), RTSync_GetTavoStatus(5, &state), state}),
            (Codes{stage != 2, 0, 1, 1, 1, 1, 1, 0x5A}));
        EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(written));
        for (const auto &name : failing) {
            want.push_back("L1 rt_sync.c:" + name + ":#:<-- err mutex fail" + name);
        }
        EXPECT_EQ(traces(), want);
    }
    // Without a mutex the controller-state accessors refuse before locking.
    EXPECT_EQ((Codes{vornhost_call_count(VORNHOST_SMMutexLock), vornhost_call_count(VORNHOST_SMMutexUnLock),
                     vornhost_call_count(VORNHOST_SMMutexDestroy)}),
              (Codes{4 * 3 + 3, 1, 2}));
    EXPECT_EQ(bytes_of(gTAVOState[0]).substr(0, 2), "\x05\x32"s);  // the table outlives its mutex
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[RTSync_Init] <-- RTSync_Init failed to create mutex\n"));
    EXPECT_THAT(log, HasSubstr("[RTSync_SetGlobalPoll] <-- err mutex failRTSync_SetGlobalPoll\n"));
    ASSERT_EQ(RTSync_Init(), 0u);  // a destroyed lock can be made again
    EXPECT_EQ(RTSync_SetGlobalPoll(written), 0u);
}

TEST_F(SyncTest, InitClearsTheFlagsAndPollSettersWriteOnlyThePollFields)
{
    RTSync_SetGlobalStatus(RTSyncStatus{0xFFFF, 0xFFFF, 5, 0x5A5A, 50, 60});
    ASSERT_EQ(RTSync_Init(), 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(RTSyncStatus{0, 0, 5, 0x5A5A, 50, 60}));
    RTSync_SetGlobalStatus(RTSyncStatus{0x20, 0x40, 1, 0, 2, 3});
    EXPECT_EQ(RTSync_SetGlobalPoll(RTSyncStatus{0xFFFF, 0xFFFF, 7, 0xFFFF, 1000, 2000}), 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(RTSyncStatus{0x20, 0x40, 7, 0, 1000, 2000}));
    const uint32_t before = now();
    EXPECT_EQ(RTSync_updateGlobalPoll(RTSyncStatus{1, 1, 1, 1, 1, 1}), 0u);
    const RTSyncStatus updated = grtsync_Status;
    EXPECT_EQ(bytes_of(updated).substr(0, 8), bytes_of(RTSyncStatus{0x20, 0x40, 7, 0, 0, 0}).substr(0, 8));
    EXPECT_TRUE(updated.pollTime == updated.pollUpdateTime && updated.pollTime >= before && updated.pollTime <= now());
    // One lock for each setter.
    EXPECT_EQ((Codes{vornhost_call_count(VORNHOST_SMMutexLock), vornhost_call_count(VORNHOST_SMMutexUnLock)}),
              (Codes{2, 2}));

    // The reader copies the whole record, padding included, and takes no lock.
    const RTSyncStatus whole{0x21, 0x41, 0xBEEF, 0xA55A, 0xDEADBEEF, 0x12345678};
    RTSync_SetGlobalStatus(whole);
    RTSyncStatus copy{1, 1, 1, 1, 1, 1};
    EXPECT_EQ((Codes{RTSync_GetGlobalStatus(nullptr), RTSync_GetGlobalStatus(&copy),
                     vornhost_call_count(VORNHOST_SMMutexLock)}),
              (Codes{2, 0, 2}));
    EXPECT_EQ(bytes_of(copy), bytes_of(whole));
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(whole));
    EXPECT_TRUE(trace_lines().empty());
}

// ---- controller state -------------------------------------------------------------

// Lookups {id, result, state}; the state starts at 0x5A each time.
void expect_lookups(std::initializer_list<std::array<int, 3>> lookups)
{
    for (const auto &[id, rc, expected] : lookups) {
        uint8_t state = 0x5A;
        EXPECT_EQ(RTSync_GetTavoStatus(static_cast<uint8_t>(id), &state), static_cast<uint32_t>(rc)) << id;
        EXPECT_EQ(state, expected) << id;
    }
}

TEST_F(SyncTest, ControllersClaimEntriesInOrderAndAThirteenthIsNotStored)
{
    for (auto &entry : gTAVOState) {
        entry = RTSyncTavoState{7, 8, {0xAB, 0xCD}};
    }
    ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    // The second update of 7 is made in place.
    EXPECT_EQ((Codes{RTSync_SetTavoStatus(7, 1), RTSync_SetTavoStatus(3, 2), RTSync_SetTavoStatus(7, 9)}),
              (Codes{0, 0, 0}));
    std::string expected = "\x07\x09\xAB\xCD\x03\x02\xAB\xCD"s;
    while (expected.size() < sizeof gTAVOState) {
        expected += "\xFF\x00\xAB\xCD"s;  // free; nobody writes the spare bytes
    }
    EXPECT_EQ(bytes_of(gTAVOState), expected);
    // 255 marks free entries: a lookup of it finds the first free one.
    expect_lookups({{3, 0, 2}, {7, 0, 9}, {4, 255, 0}, {255, 0, 0}});

    for (uint8_t id = 20; id < 30; ++id) {
        ASSERT_EQ(RTSync_SetTavoStatus(id, static_cast<uint8_t>(id + 100)), 0u);
    }
    const std::string full = bytes_of(gTAVOState);
    EXPECT_EQ(RTSync_SetTavoStatus(40, 1), 0u);  // a 13th controller is silently not stored
    EXPECT_EQ(bytes_of(gTAVOState), full);
    expect_lookups({{40, 255, 0}, {29, 0, 129}, {7, 0, 9}, {255, 255, 0}});
    EXPECT_EQ(RTSync_GetTavoStatus(7, nullptr), 2u);
    EXPECT_THAT(traces(), ElementsAre("L2 rt_sync.c:RTSync_GetTavoStatus:#:<-- err null inputs"));
    expect_lookups({{7, 0, 9}});  // nothing was left locked
}

// ---- concurrency ----------------------------------------------------------------

class GlobalStatusConcurrency : public SyncTest {
protected:
    void SetUp() override
    {
        SyncTest::SetUp();
        ASSERT_EQ(RTSync_Init(), 0u);
        ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    }
};
using TavoStateConcurrency = GlobalStatusConcurrency;

// Writers stamp the three poll fields from one value with the top bit set;
// updateGlobalPoll writes the current time (top bit clear) to both times.
constexpr uint32_t kStamped = 0x80000000u;
RTSyncStatus stamped(uint32_t stamp)
{
    return {0x20, 0x40, static_cast<uint16_t>(stamp ^ 0xA5A5u), 0, stamp, stamp};
}

TEST_F(GlobalStatusConcurrency, LockedReadersNeverSeeATornRecord)
{
    const uint32_t iterations = valgrind_run() ? 2000 : 50000;
    RTSync_SetGlobalStatus(stamped(kStamped));
    const uint32_t start = now();
    std::vector<std::thread> threads;
    for (uint32_t w = 0; w < 2; ++w) {
        threads.emplace_back([w, iterations] {
            for (uint32_t k = 0; k < iterations; ++k) {
                RTSync_SetGlobalPoll(stamped(kStamped | w << 24 | k));
            }
        });
    }
    threads.emplace_back([iterations] {
        for (uint32_t k = 0; k < iterations / 4; ++k) {
            RTSync_updateGlobalPoll(RTSyncStatus{});
        }
    });
    std::vector<uint32_t> torn(2, 0);
    for (uint32_t r = 0; r < 2; ++r) {
        threads.emplace_back([r, iterations, start, &torn] {
            for (uint32_t k = 0; k < iterations; ++k) {
                RTSyncStatus seen{};
                const bool locked = RTSync_LockGlobalStatus() == 0 && RTSync_GetGlobalStatus(&seen) == 0;
                RTSync_UnLockGlobalStatus();
                const bool timed = (seen.pollTime & kStamped) == 0;  // by updateGlobalPoll
                torn[r] += !locked || bytes_of(seen).substr(0, 4) != "\x20\0\x40\0"s ||
                           seen.pollTime != seen.pollUpdateTime ||
                           (timed ? seen.pollTime < start : seen.pollState != stamped(seen.pollTime).pollState);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn, std::vector<uint32_t>(2, 0));
}

TEST_F(GlobalStatusConcurrency, AHeldLockKeepsBothPollWritersOut)
{
    const uint32_t start = now();
    for (auto write : {+[] {
                           RTSync_SetGlobalPoll(RTSyncStatus{0, 0, 1, 0, 11, 12});
                       },
                       +[] { RTSync_updateGlobalPoll(RTSyncStatus{}); }}) {
        ASSERT_EQ(RTSync_LockGlobalStatus(), 0u);
        const std::string held = bytes_of(grtsync_Status);
        std::thread writer(write);
        EXPECT_TRUE(eventually([] { return vornhost_mutex_waiters(rtsync_mutex) == 1; }));
        EXPECT_EQ(bytes_of(grtsync_Status), held);
        EXPECT_EQ(RTSync_UnLockGlobalStatus(), 0);
        writer.join();
        EXPECT_NE(bytes_of(grtsync_Status), held);
    }
    EXPECT_EQ(grtsync_Status.pollState, 1);
    EXPECT_TRUE(grtsync_Status.pollTime == grtsync_Status.pollUpdateTime && grtsync_Status.pollTime >= start);
}

TEST_F(TavoStateConcurrency, TwelveControllersClaimTwelveEntriesOnce)
{
    const uint32_t rounds = valgrind_run() ? 200 : 5000;
    std::vector<uint32_t> misses(12, 0);
    std::vector<std::thread> threads;
    for (uint8_t id = 0; id < 12; ++id) {
        threads.emplace_back([id, rounds, &misses] {
            for (uint32_t k = 0; k < rounds; ++k) {  // only this thread writes controller 10 + id
                uint8_t seen = 0;
                misses[id] += RTSync_SetTavoStatus(10 + id, static_cast<uint8_t>(k)) != 0 ||
                              RTSync_GetTavoStatus(10 + id, &seen) != 0 || seen != static_cast<uint8_t>(k);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(misses, std::vector<uint32_t>(12, 0));
    std::vector<int> owners(256, 0);
    for (const auto &entry : gTAVOState) {
        ++owners[entry.u8CtrlId];
    }
    EXPECT_EQ(std::vector<int>(owners.begin() + 10, owners.begin() + 22), std::vector<int>(12, 1));
}

}  // namespace
}  // namespace rtvox::test::sync

// Synchronisation: the global status and poll state, the worker-thread
// starter and the controller-state table. The *Concurrency suites also run
// under helgrind and drd (i386-valgrind preset), with smaller counts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>
#include <vector>

#include "rtvox/rt_sync.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using namespace std::chrono_literals;

bool under_valgrind()
{
    const char *flag = std::getenv("RTVOX_UNDER_VALGRIND");
    return flag != nullptr && flag[0] == '1';
}

// Trace lines with the head's line number replaced by '#'.
// Trace lines with the line numbers (of the head and of entry/exit texts)
// replaced by '#', so expectations survive edits of the source.
std::string without_line_numbers(std::string line)
{
    const size_t file_end = line.find(':');
    const size_t func_end = file_end == std::string::npos ? file_end : line.find(':', file_end + 1);
    const size_t number_end = func_end == std::string::npos ? func_end : line.find(':', func_end + 1);
    if (number_end == std::string::npos) {
        return line;
    }
    line.replace(func_end + 1, number_end - func_end - 1, "#");
    const std::string text = line.substr(func_end + 3);
    if (text.rfind("--> entry ", 0) == 0 || text.rfind("<-- exit ", 0) == 0) {
        const size_t blank = line.find_last_of(' ');
        line.replace(blank + 1, std::string::npos, "#");
    }
    return line;
}

std::vector<std::string> traces()
{
    std::vector<std::string> lines;
    for (const auto &line : trace_lines()) {
        lines.push_back(without_line_numbers(line));
    }
    return lines;
}

// Ends the process when a test overruns `seconds`, so that no test can hang
// (a lost wake-up would otherwise leave a thread blocked for ever).
void arm_watchdog(unsigned seconds)
{
    std::signal(SIGALRM, [](int) {
        static const char message[] = "watchdog: the test overran its time bound\n";
        (void)!write(STDERR_FILENO, message, sizeof message - 1);
        _exit(3);
    });
    alarm(seconds);
}

RTSyncStatus status_of(uint16_t flags, uint16_t phase, uint16_t poll, uint32_t time1, uint32_t time2)
{
    RTSyncStatus status{};
    status.statusFlags = flags;
    status.phaseFlags = phase;
    status.pollState = poll;
    status.pollTime = time1;
    status.pollUpdateTime = time2;
    return status;
}

std::string bytes_of(const RTSyncStatus &status)
{
    return {reinterpret_cast<const char *>(&status), sizeof status};
}

// Every test starts from a process that has seen no RTSync call.
class SyncTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        arm_watchdog(under_valgrind() ? 500 : 60);
        RTSync_Destroy();
        RTSync_TavoStateDestroy();
        grtsync_Status = RTSyncStatus{};
        std::memset(gTAVOState, 0, sizeof gTAVOState);
        vornhost_reset();
        trace_start();
    }
    void TearDown() override
    {
        alarm(0);
        vornhost_fail_clear();
        RTSync_Destroy();
        RTSync_TavoStateDestroy();
    }
    TempRoot root;
};

using GlobalStatus = SyncTest;
using TavoState = SyncTest;
using ThreadStart = SyncTest;

// ---- global status ------------------------------------------------------------

TEST_F(GlobalStatus, RecordLayoutPutsThePhaseBitsInTheHighHalfOfTheFirstWord)
{
    RTSyncStatus status =
        status_of(RTSYNC_STATUS_PAST_EVENTS_DONE, RTSYNC_PHASE_INVENTORY, 0x0102, 0x03040506, 0x0708090A);
    const unsigned char expected[16] = {0x20, 0,    0x40, 0,    0x02, 0x01, 0,    0,
                                        0x06, 0x05, 0x04, 0x03, 0x0A, 0x09, 0x08, 0x07};
    EXPECT_EQ(std::memcmp(&status, expected, sizeof expected), 0);
    uint32_t word = 0;
    std::memcpy(&word, &status, sizeof word);
    EXPECT_EQ((word >> 22) & 1u, 1u);
    EXPECT_EQ(word & 0x20u, 0x20u);
}

TEST_F(GlobalStatus, BeforeInitOnlyTheUnlockedSetterWorks)
{
    EXPECT_EQ(rtsync_mutex, 0u);
    const RTSyncStatus written = status_of(0x20, 0x40, 3, 100, 200);
    EXPECT_EQ(RTSync_SetGlobalStatus(written), 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(written));

    EXPECT_EQ(RTSync_SetGlobalPoll(status_of(0, 0, 9, 900, 901)), 1u);
    EXPECT_EQ(RTSync_updateGlobalPoll(RTSyncStatus{}), 1u);
    EXPECT_NE(RTSync_LockGlobalStatus(), 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(written));
    EXPECT_THAT(traces(),
                ElementsAre("L1 rt_sync.c:RTSync_SetGlobalPoll:#:<-- err mutex failRTSync_SetGlobalPoll",
                            "L1 rt_sync.c:RTSync_updateGlobalPoll:#:<-- err mutex failRTSync_updateGlobalPoll",
                            "L1 rt_sync.c:RTSync_LockGlobalStatus:#:<-- err mutex failRTSync_LockGlobalStatus"));
    // The failures are copied to the log file as well.
    EXPECT_THAT(root.read("/var/log/rtvox.log"),
                HasSubstr("[RTSync_SetGlobalPoll] <-- err mutex failRTSync_SetGlobalPoll\n"));
}

TEST_F(GlobalStatus, InitClearsTheFlagsAndKeepsThePollFields)
{
    RTSync_SetGlobalStatus(status_of(0xFFFF, 0xFFFF, 5, 50, 60));
    EXPECT_EQ(RTSync_Init(), 0u);
    EXPECT_NE(rtsync_mutex, 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(status_of(0, 0, 5, 50, 60)));
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(GlobalStatus, InitWithoutAMutexFailsAndTouchesNothing)
{
    const RTSyncStatus written = status_of(0x20, 0x40, 5, 50, 60);
    RTSync_SetGlobalStatus(written);
    vornhost_fail(VORNHOST_SMMutexCreate, 0, 1);
    EXPECT_EQ(RTSync_Init(), 1u);
    EXPECT_EQ(rtsync_mutex, 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(written));
    EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_Init:#:<-- RTSync_Init failed to create mutex"));
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[RTSync_Init] <-- RTSync_Init failed to create mutex\n"));
}

TEST_F(GlobalStatus, PollSettersWriteOnlyThePollFields)
{
    ASSERT_EQ(RTSync_Init(), 0u);
    RTSync_SetGlobalStatus(status_of(0x20, 0x40, 1, 2, 3));
    EXPECT_EQ(RTSync_SetGlobalPoll(status_of(0xFFFF, 0xFFFF, 7, 1000, 2000)), 0u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(status_of(0x20, 0x40, 7, 1000, 2000)));

    const auto before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(RTSync_updateGlobalPoll(status_of(1, 1, 1, 1, 1)), 0u);
    const auto after = static_cast<uint32_t>(time(nullptr));
    RTSyncStatus now{};
    ASSERT_EQ(RTSync_GetGlobalStatus(&now), 0u);
    EXPECT_EQ(now.statusFlags, 0x20);
    EXPECT_EQ(now.phaseFlags, 0x40);
    EXPECT_EQ(now.pollState, 7);
    EXPECT_EQ(now.pollTime, now.pollUpdateTime);
    EXPECT_GE(now.pollTime, before);
    EXPECT_LE(now.pollTime, after);
    // Each setter takes and releases the lock once.
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexLock), 2u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexUnLock), 2u);
}

TEST_F(GlobalStatus, AFailingLockLeavesTheRecordAlone)
{
    ASSERT_EQ(RTSync_Init(), 0u);
    const RTSyncStatus written = status_of(0x20, 0, 4, 40, 41);
    RTSync_SetGlobalStatus(written);
    vornhost_fail(VORNHOST_SMMutexLock, 0, 3);
    EXPECT_EQ(RTSync_SetGlobalPoll(status_of(0, 0, 9, 90, 91)), 1u);
    EXPECT_EQ(RTSync_updateGlobalPoll(RTSyncStatus{}), 1u);
    EXPECT_EQ(RTSync_LockGlobalStatus(), 1u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(written));
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexUnLock), 0u);
    EXPECT_EQ(trace_count("<-- err mutex fail"), 3);
}

TEST_F(GlobalStatus, GetCopiesTheWholeRecordAndRefusesNull)
{
    const RTSyncStatus written = status_of(0x21, 0x41, 0xBEEF, 0xDEADBEEF, 0x12345678);
    RTSync_SetGlobalStatus(written);
    EXPECT_EQ(RTSync_GetGlobalStatus(nullptr), 2u);
    EXPECT_EQ(bytes_of(grtsync_Status), bytes_of(written));
    RTSyncStatus copy = status_of(1, 1, 1, 1, 1);
    EXPECT_EQ(RTSync_GetGlobalStatus(&copy), 0u);
    EXPECT_EQ(bytes_of(copy), bytes_of(written));
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexLock), 0u);  // the reader takes no lock itself
}

TEST_F(GlobalStatus, DestroyDropsTheMutexOnce)
{
    ASSERT_EQ(RTSync_Init(), 0u);
    ASSERT_EQ(RTSync_LockGlobalStatus(), 0u);
    EXPECT_EQ(RTSync_UnLockGlobalStatus(), 0);
    RTSync_Destroy();
    EXPECT_EQ(rtsync_mutex, 0u);
    RTSync_Destroy();
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexDestroy), 1u);
    EXPECT_EQ(RTSync_SetGlobalPoll(RTSyncStatus{}), 1u);
    // A new Init after Destroy works (the cache is initialised again after a destroy).
    EXPECT_EQ(RTSync_Init(), 0u);
    EXPECT_EQ(RTSync_SetGlobalPoll(RTSyncStatus{}), 0u);
}

// ---- worker threads -------------------------------------------------------------

struct Started {
    std::mutex mutex;
    std::condition_variable cv;
    bool ran = false;
    void *argument = nullptr;
    int detach_state = -1;
    size_t stack_size = 0;
};

void *record_start(void *argument)
{
    auto *started = static_cast<Started *>(argument);
    pthread_attr_t attr;
    int detach_state = -1;
    size_t stack_size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &detach_state);
        pthread_attr_getstacksize(&attr, &stack_size);
        pthread_attr_destroy(&attr);
    }
    {
        std::lock_guard lock(started->mutex);
        started->ran = true;
        started->argument = argument;
        started->detach_state = detach_state;
        started->stack_size = stack_size;
        started->cv.notify_all();
    }
    return nullptr;
}

TEST_F(ThreadStart, StartsADetachedThreadWithTheFixedStackAndAnswersOne)
{
    static Started started_once;  // static: the detached thread may outlive the test
    Started *started = &started_once;
    ASSERT_EQ(RTSync_FFThreadStart(record_start, started), 1u);
    std::unique_lock lock(started->mutex);
    ASSERT_TRUE(started->cv.wait_for(lock, 10s, [&] { return started->ran; }));
    EXPECT_EQ(started->argument, started);
    EXPECT_EQ(started->detach_state, PTHREAD_CREATE_DETACHED);
    EXPECT_EQ(started->stack_size, RTSYNC_THREAD_STACK_SIZE);
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(ThreadStart, NullRoutineIsRefused)
{
    EXPECT_EQ(RTSync_FFThreadStart(nullptr, nullptr), 0u);
    EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_FFThreadStart:#:<-- err pthreadRTSync_FFThreadStart 22"));
}

// ---- controller state -------------------------------------------------------------

TEST_F(TavoState, WithoutInitBothAccessorsRefuse)
{
    uint8_t state = 0x5A;
    EXPECT_EQ(RTSync_SetTavoStatus(1, 2), 1u);
    EXPECT_EQ(RTSync_GetTavoStatus(1, &state), 1u);
    EXPECT_EQ(state, 0x5A);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexLock), 0u);
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(TavoState, InitFreesEveryEntryAndLeavesTheSpareBytes)
{
    for (auto &entry : gTAVOState) {
        entry = RTSyncTavoState{7, 8, {0xAB, 0xCD}};
    }
    EXPECT_EQ(RTSync_TavoStateInit(), 0u);
    EXPECT_NE(rtraid_tavo_state_mutex, 0u);
    for (const auto &entry : gTAVOState) {
        EXPECT_EQ(entry.u8CtrlId, 0xFF);
        EXPECT_EQ(entry.u8State, 0);
        EXPECT_EQ(entry.au8Reserved[0], 0xAB);
        EXPECT_EQ(entry.au8Reserved[1], 0xCD);
    }
}

TEST_F(TavoState, InitWithoutAMutexFailsAndLeavesTheTable)
{
    for (auto &entry : gTAVOState) {
        entry = RTSyncTavoState{7, 8, {0, 0}};
    }
    vornhost_fail(VORNHOST_SMMutexCreate, 0, 1);
    EXPECT_EQ(RTSync_TavoStateInit(), 1u);
    EXPECT_EQ(rtraid_tavo_state_mutex, 0u);
    EXPECT_EQ(gTAVOState[0].u8CtrlId, 7);
    EXPECT_EQ(gTAVOState[11].u8State, 8);
    EXPECT_THAT(traces(),
                ElementsAre("L1 rt_sync.c:RTSync_TavoStateInit:#:<-- RTSync_TavoStateInit failed to create mutex"));
}

TEST_F(TavoState, ControllersClaimEntriesInOrderAndKeepThem)
{
    ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    EXPECT_EQ(RTSync_SetTavoStatus(7, 1), 0u);
    EXPECT_EQ(RTSync_SetTavoStatus(3, 2), 0u);
    EXPECT_EQ(RTSync_SetTavoStatus(7, 9), 0u);  // updated in place
    EXPECT_EQ(gTAVOState[0].u8CtrlId, 7);
    EXPECT_EQ(gTAVOState[0].u8State, 9);
    EXPECT_EQ(gTAVOState[1].u8CtrlId, 3);
    EXPECT_EQ(gTAVOState[1].u8State, 2);
    EXPECT_EQ(gTAVOState[2].u8CtrlId, 0xFF);

    uint8_t state = 0x5A;
    EXPECT_EQ(RTSync_GetTavoStatus(3, &state), 0u);
    EXPECT_EQ(state, 2);
    state = 0x5A;
    EXPECT_EQ(RTSync_GetTavoStatus(4, &state), 255u);
    EXPECT_EQ(state, 0);
    // 255 marks free entries: a lookup of it finds the first free one.
    state = 0x5A;
    EXPECT_EQ(RTSync_GetTavoStatus(255, &state), 0u);
    EXPECT_EQ(state, 0);
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(TavoState, AThirteenthControllerIsSilentlyNotStored)
{
    ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    for (uint8_t id = 0; id < 12; ++id) {
        ASSERT_EQ(RTSync_SetTavoStatus(id, static_cast<uint8_t>(id + 100)), 0u);
    }
    const std::string table(reinterpret_cast<const char *>(gTAVOState), sizeof gTAVOState);
    EXPECT_EQ(RTSync_SetTavoStatus(40, 1), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(gTAVOState), sizeof gTAVOState), table);
    uint8_t state = 0x5A;
    EXPECT_EQ(RTSync_GetTavoStatus(40, &state), 255u);
    EXPECT_EQ(state, 0);
    // Known ones still answer; with no free entry left, 255 is unknown too.
    EXPECT_EQ(RTSync_GetTavoStatus(11, &state), 0u);
    EXPECT_EQ(state, 111);
    EXPECT_EQ(RTSync_GetTavoStatus(255, &state), 255u);
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(TavoState, AFailingLockOrANullOutputChangesNothing)
{
    ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    ASSERT_EQ(RTSync_SetTavoStatus(5, 50), 0u);
    vornhost_fail(VORNHOST_SMMutexLock, 0, 2);
    uint8_t state = 0x5A;
    EXPECT_EQ(RTSync_SetTavoStatus(5, 51), 1u);
    EXPECT_EQ(RTSync_GetTavoStatus(5, &state), 1u);
    EXPECT_EQ(state, 0x5A);
    EXPECT_EQ(gTAVOState[0].u8State, 50);
    EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_SetTavoStatus:#:<-- err mutex failRTSync_SetTavoStatus",
                                      "L1 rt_sync.c:RTSync_GetTavoStatus:#:<-- err mutex failRTSync_GetTavoStatus"));

    EXPECT_EQ(RTSync_GetTavoStatus(5, nullptr), 2u);
    EXPECT_EQ(RTSync_GetTavoStatus(5, &state), 0u);
    EXPECT_EQ(state, 50);
}

TEST_F(TavoState, DestroyDropsTheMutexAndTheAccessorsRefuseAgain)
{
    ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    ASSERT_EQ(RTSync_SetTavoStatus(5, 50), 0u);
    RTSync_TavoStateDestroy();
    RTSync_TavoStateDestroy();
    EXPECT_EQ(rtraid_tavo_state_mutex, 0u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexDestroy), 1u);
    uint8_t state = 0;
    EXPECT_EQ(RTSync_GetTavoStatus(5, &state), 1u);
    EXPECT_EQ(gTAVOState[0].u8State, 50);  // the table itself stays
}

// ---- concurrency ----------------------------------------------------------------

class GlobalStatusConcurrency : public SyncTest {
protected:
    void SetUp() override
    {
        SyncTest::SetUp();
        vornhost_trace_set_level(0);
        ASSERT_EQ(RTSync_Init(), 0u);
        ASSERT_EQ(RTSync_TavoStateInit(), 0u);
    }
};

// Writers stamp the three poll fields from one value with the top bit set;
// updateGlobalPoll writes the current time (top bit clear) to both times.
constexpr uint32_t kStamped = 0x80000000u;
uint16_t state_for(uint32_t stamp)
{
    return static_cast<uint16_t>((stamp ^ 0xA5A5u) & 0xFFFFu);
}

TEST_F(GlobalStatusConcurrency, LockedReadersNeverSeeATornRecord)
{
    const uint32_t iterations = under_valgrind() ? 2000 : 50000;
    RTSync_SetGlobalStatus(status_of(0x20, 0x40, state_for(kStamped), kStamped, kStamped));
    const auto start = static_cast<uint32_t>(time(nullptr));

    std::vector<std::thread> threads;
    for (uint32_t w = 0; w < 2; ++w) {
        threads.emplace_back([w, iterations] {
            for (uint32_t k = 0; k < iterations; ++k) {
                const uint32_t stamp = kStamped | (w << 24) | k;
                RTSync_SetGlobalPoll(status_of(0, 0, state_for(stamp), stamp, stamp));
            }
        });
    }
    threads.emplace_back([iterations] {
        for (uint32_t k = 0; k < iterations / 4; ++k) {
            RTSync_updateGlobalPoll(RTSyncStatus{});
        }
    });
    std::vector<uint32_t> torn(2, 0);
    std::vector<uint32_t> reads(2, 0);
    for (uint32_t r = 0; r < 2; ++r) {
        threads.emplace_back([r, iterations, start, &torn, &reads] {
            for (uint32_t k = 0; k < iterations; ++k) {
                if (RTSync_LockGlobalStatus() != 0) {
                    ++torn[r];
                    continue;
                }
                RTSyncStatus seen{};
                RTSync_GetGlobalStatus(&seen);
                RTSync_UnLockGlobalStatus();
                ++reads[r];
                bool whole =
                    seen.statusFlags == 0x20 && seen.phaseFlags == 0x40 && seen.pollTime == seen.pollUpdateTime;
                if ((seen.pollTime & kStamped) != 0) {
                    whole = whole && seen.pollState == state_for(seen.pollTime);
                } else {
                    whole = whole && seen.pollTime >= start;
                }
                if (!whole) {
                    ++torn[r];
                }
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn[0] + torn[1], 0u);
    EXPECT_EQ(reads[0] + reads[1], 2 * iterations);
}

TEST_F(GlobalStatusConcurrency, AHeldLockKeepsPollWritersOut)
{
    ASSERT_EQ(RTSync_LockGlobalStatus(), 0u);
    std::mutex mutex;
    std::condition_variable cv;
    bool written = false;
    std::thread writer([&] {
        RTSync_SetGlobalPoll(status_of(0, 0, 1, 11, 12));
        std::lock_guard lock(mutex);
        written = true;
        cv.notify_all();
    });
    // Wait (bounded) until the writer is blocked on the lock.
    for (int i = 0; i < 5000 && vornhost_mutex_waiters(rtsync_mutex) < 1; ++i) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(vornhost_mutex_waiters(rtsync_mutex), 1);
    {
        std::lock_guard lock(mutex);
        EXPECT_FALSE(written);
    }
    RTSyncStatus seen{};
    RTSync_GetGlobalStatus(&seen);
    EXPECT_EQ(seen.pollTime, 0u);
    EXPECT_EQ(RTSync_UnLockGlobalStatus(), 0);
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(cv.wait_for(lock, 10s, [&] { return written; }));
    }
    writer.join();
    ASSERT_EQ(RTSync_LockGlobalStatus(), 0u);
    RTSync_GetGlobalStatus(&seen);
    RTSync_UnLockGlobalStatus();
    EXPECT_EQ(seen.pollTime, 11u);
    EXPECT_EQ(seen.pollUpdateTime, 12u);
}

using TavoStateConcurrency = GlobalStatusConcurrency;

TEST_F(TavoStateConcurrency, TwelveControllersClaimTwelveEntriesOnce)
{
    const uint32_t rounds = under_valgrind() ? 200 : 5000;
    std::vector<uint32_t> misses(12, 0);
    std::vector<std::thread> threads;
    for (uint8_t id = 0; id < 12; ++id) {
        threads.emplace_back([id, rounds, &misses] {
            const auto ctrl = static_cast<uint8_t>(10 + id);
            for (uint32_t k = 0; k < rounds; ++k) {
                const auto state = static_cast<uint8_t>(k);
                RTSync_SetTavoStatus(ctrl, state);
                uint8_t seen = 0;
                // Only this thread writes this controller's state.
                if (RTSync_GetTavoStatus(ctrl, &seen) != 0 || seen != state) {
                    ++misses[id];
                }
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    std::vector<int> owners(256, 0);
    for (const auto &entry : gTAVOState) {
        ++owners[entry.u8CtrlId];
    }
    for (uint8_t id = 0; id < 12; ++id) {
        EXPECT_EQ(misses[id], 0u) << "controller " << 10 + id;
        EXPECT_EQ(owners[10 + id], 1) << "controller " << 10 + id;
    }
}

}  // namespace

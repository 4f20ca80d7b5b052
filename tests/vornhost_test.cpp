// Tests of the host platform emulation (libvornhost) itself.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "rtvox/platform.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using rtvox::test::read_file;
using rtvox::test::split_lines;

long elapsed_ms(Clock::time_point start)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Polls `done` for at most 10 s.
template <typename F>
bool eventually(F done)
{
    const auto start = Clock::now();
    while (!done()) {
        if (elapsed_ms(start) > 10000) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class TempDir {
public:
    TempDir()
    {
        std::string pattern = (fs::temp_directory_path() / "vornhost-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) {
            dir_ = pattern;
        }
    }
    ~TempDir()
    {
        std::error_code ignored;
        fs::remove_all(dir_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string path(const char *name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

class Vornhost : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char *name : {"VORN_TRACE_LEVEL", "VORN_TRACE_FILE", "VORN_EVENTLOG_FILE"}) {
            unsetenv(name);
        }
        vornhost_shm_set_mode(VORNHOST_SHM_PRIVATE, nullptr);
        vornhost_reset();
        vornhost_trace_set_level(0);  // keep test output quiet unless a test wants lines
    }
    void TearDown() override
    {
        for (const char *name : {"VORN_TRACE_LEVEL", "VORN_TRACE_FILE", "VORN_EVENTLOG_FILE"}) {
            unsetenv(name);
        }
        if (vornhost_shm_get_mode() == VORNHOST_SHM_POSIX) {  // a POSIX-mode test stopped half-way
            vornhost_shm_unlink();
            vornhost_shm_set_mode(VORNHOST_SHM_PRIVATE, nullptr);
        }
        vornhost_reset();
    }
};

using VornhostMutex = Vornhost;
using VornhostEvent = Vornhost;
using VornhostConcurrency = Vornhost;
using VornhostTrace = Vornhost;
using VornhostFault = Vornhost;
using VornhostShm = Vornhost;
using VornhostBackplane = Vornhost;
using VornhostEventLog = Vornhost;
using VornhostFriendly = Vornhost;
using VornhostIpmi = Vornhost;

// ---- mutex -----------------------------------------------------------------

TEST_F(VornhostMutex, LockUnlockDestroy)
{
    const uint32_t before = vornhost_mutex_live_count();
    const uint32_t h = SMMutexCreate("m");
    ASSERT_NE(h, 0u);
    EXPECT_EQ(h >> 28, 1u);
    EXPECT_EQ(vornhost_mutex_live_count(), before + 1);
    EXPECT_EQ(vornhost_mutex_state(h), 0);
    EXPECT_EQ(SMMutexLock(h, -1), 0);
    EXPECT_EQ(vornhost_mutex_state(h), 1);
    EXPECT_EQ(SMMutexUnLock(h), 0);
    EXPECT_EQ(SMMutexLock(h, 0), 0);
    EXPECT_EQ(SMMutexUnLock(h), 0);
    EXPECT_EQ(SMMutexDestroy(h), 0);
    EXPECT_EQ(vornhost_mutex_live_count(), before);
    EXPECT_EQ(vornhost_mutex_state(h), -1);
}

TEST_F(VornhostMutex, RelockByOwnerIsRefusedWhateverTheTimeout)
{
    const uint32_t h = SMMutexCreate(nullptr);
    ASSERT_EQ(SMMutexLock(h, -1), 0);
    EXPECT_EQ(SMMutexLock(h, -1), VORNHOST_E_DEADLOCK);
    EXPECT_EQ(SMMutexLock(h, 0), VORNHOST_E_DEADLOCK);
    EXPECT_EQ(SMMutexLock(h, 100), VORNHOST_E_DEADLOCK);
    EXPECT_EQ(SMMutexUnLock(h), 0);  // held once: one unlock frees it
    EXPECT_EQ(vornhost_mutex_state(h), 0);
    EXPECT_EQ(SMMutexUnLock(h), VORNHOST_E_NOT_OWNER);
    EXPECT_EQ(SMMutexDestroy(h), 0);
}

TEST_F(VornhostMutex, OtherThreadTimesOutAndCannotUnlock)
{
    const uint32_t h = SMMutexCreate("m");
    ASSERT_EQ(SMMutexLock(h, -1), 0);
    int32_t try_rc = -1;
    int32_t timed_rc = -1;
    int32_t unlock_rc = -1;
    long waited = 0;
    std::thread other([&] {
        try_rc = SMMutexLock(h, 0);
        const auto start = Clock::now();
        timed_rc = SMMutexLock(h, 60);
        waited = elapsed_ms(start);
        unlock_rc = SMMutexUnLock(h);
    });
    other.join();
    EXPECT_EQ(try_rc, VORNHOST_E_TIMEOUT);
    EXPECT_EQ(timed_rc, VORNHOST_E_TIMEOUT);
    EXPECT_GE(waited, 55);
    EXPECT_LT(waited, 5000);
    EXPECT_EQ(unlock_rc, VORNHOST_E_NOT_OWNER);
    EXPECT_EQ(vornhost_mutex_state(h), 1);
    EXPECT_EQ(SMMutexUnLock(h), 0);
    EXPECT_EQ(SMMutexDestroy(h), 0);
}

TEST_F(VornhostMutex, InvalidHandlesAreRefused)
{
    const uint32_t event = SMEventCreate(nullptr, 1, 0);
    const uint32_t gone = SMMutexCreate(nullptr);
    ASSERT_EQ(SMMutexDestroy(gone), 0);
    for (const uint32_t h : {0u, 0x12345678u, 0x1FFFFFFFu, gone, event}) {
        EXPECT_EQ(SMMutexLock(h, -1), VORNHOST_E_HANDLE) << std::hex << h;
        EXPECT_EQ(SMMutexUnLock(h), VORNHOST_E_HANDLE) << std::hex << h;
        EXPECT_EQ(SMMutexDestroy(h), VORNHOST_E_HANDLE) << std::hex << h;
    }
    const uint32_t h = SMMutexCreate(nullptr);
    EXPECT_EQ(SMMutexLock(h, -2), VORNHOST_E_ARG);
    EXPECT_EQ(vornhost_mutex_state(h), 0);
    EXPECT_EQ(SMMutexDestroy(h), 0);
    EXPECT_EQ(SMEventDestroy(event), 0);
}

// ---- event -------------------------------------------------------------------

TEST_F(VornhostEvent, ManualResetStaysSignalledUntilReset)
{
    const uint32_t h = SMEventCreate(nullptr, 1, 0);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(SMEventWait(h, 0), VORNHOST_E_TIMEOUT);
    EXPECT_EQ(SMEventSet(h), 0);
    EXPECT_EQ(SMEventWait(h, 0), 0);
    EXPECT_EQ(SMEventWait(h, -1), 0);
    EXPECT_EQ(vornhost_event_state(h), 1);
    EXPECT_EQ(SMEventReset(h), 0);
    EXPECT_EQ(vornhost_event_state(h), 0);
    EXPECT_EQ(SMEventWait(h, 0), VORNHOST_E_TIMEOUT);
    EXPECT_EQ(SMEventDestroy(h), 0);
}

TEST_F(VornhostEvent, AutoResetIsConsumedByOneWaitAndDoesNotCount)
{
    const uint32_t h = SMEventCreate("auto", 0, 0);
    EXPECT_EQ(SMEventSet(h), 0);
    EXPECT_EQ(SMEventSet(h), 0);
    EXPECT_EQ(SMEventWait(h, 0), 0);
    EXPECT_EQ(SMEventWait(h, 0), VORNHOST_E_TIMEOUT);
    EXPECT_EQ(vornhost_event_state(h), 0);
    EXPECT_EQ(SMEventDestroy(h), 0);

    const uint32_t initially = SMEventCreate(nullptr, 0, 1);
    EXPECT_EQ(SMEventWait(initially, 0), 0);
    EXPECT_EQ(SMEventWait(initially, 0), VORNHOST_E_TIMEOUT);
    EXPECT_EQ(SMEventDestroy(initially), 0);
}

TEST_F(VornhostEvent, TimedWaitTimesOutAndInvalidHandlesAreRefused)
{
    const uint32_t h = SMEventCreate(nullptr, 1, 0);
    const auto start = Clock::now();
    EXPECT_EQ(SMEventWait(h, 60), VORNHOST_E_TIMEOUT);
    EXPECT_GE(elapsed_ms(start), 55);
    EXPECT_EQ(SMEventWait(h, -5), VORNHOST_E_ARG);
    const uint32_t mutex = SMMutexCreate(nullptr);
    EXPECT_EQ(SMEventDestroy(h), 0);
    for (const uint32_t bad : {0u, 0x10FFFFFFu, h, mutex}) {
        EXPECT_EQ(SMEventSet(bad), VORNHOST_E_HANDLE);
        EXPECT_EQ(SMEventReset(bad), VORNHOST_E_HANDLE);
        EXPECT_EQ(SMEventWait(bad, 0), VORNHOST_E_HANDLE);
        EXPECT_EQ(SMEventDestroy(bad), VORNHOST_E_HANDLE);
    }
    EXPECT_EQ(SMMutexDestroy(mutex), 0);
}

// ---- concurrency (also run under helgrind and drd) ------------------------------

TEST_F(VornhostConcurrency, MutexExcludesOtherThreads)
{
    const uint32_t h = SMMutexCreate("counter");
    int counter = 0;  // guarded by h only
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                if (SMMutexLock(h, -1) == 0) {
                    ++counter;
                    SMMutexUnLock(h);
                }
            }
        });
    }
    for (auto &t : threads) {
        t.join();
    }
    EXPECT_EQ(counter, 800);
    EXPECT_EQ(SMMutexDestroy(h), 0);
}

TEST_F(VornhostConcurrency, ManualSetReleasesEveryWaiterEvenWhenResetAtOnce)
{
    const uint32_t h = SMEventCreate(nullptr, 1, 0);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    waiters.reserve(3);
    for (int t = 0; t < 3; ++t) {
        waiters.emplace_back([&] {
            if (SMEventWait(h, 20000) == 0) {
                ++released;
            }
        });
    }
    ASSERT_TRUE(eventually([&] { return vornhost_event_waiters(h) == 3; }));
    EXPECT_EQ(SMEventSet(h), 0);
    EXPECT_EQ(SMEventReset(h), 0);
    for (auto &t : waiters) {
        t.join();
    }
    EXPECT_EQ(released.load(), 3);
    EXPECT_EQ(SMEventDestroy(h), 0);
}

TEST_F(VornhostConcurrency, AutoSetReleasesOneWaiterPerSet)
{
    const uint32_t h = SMEventCreate(nullptr, 0, 0);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    waiters.reserve(2);
    for (int t = 0; t < 2; ++t) {
        waiters.emplace_back([&] {
            if (SMEventWait(h, 20000) == 0) {
                ++released;
            }
        });
    }
    ASSERT_TRUE(eventually([&] { return vornhost_event_waiters(h) == 2; }));
    EXPECT_EQ(SMEventSet(h), 0);
    ASSERT_TRUE(eventually([&] { return released.load() == 1; }));
    EXPECT_EQ(vornhost_event_waiters(h), 1);
    EXPECT_EQ(vornhost_event_state(h), 0);
    EXPECT_EQ(SMEventSet(h), 0);
    for (auto &t : waiters) {
        t.join();
    }
    EXPECT_EQ(released.load(), 2);
    EXPECT_EQ(SMEventDestroy(h), 0);
}

TEST_F(VornhostConcurrency, DestroyReleasesWaitersWithAnError)
{
    const uint32_t event = SMEventCreate(nullptr, 1, 0);
    const uint32_t mutex = SMMutexCreate(nullptr);
    ASSERT_EQ(SMMutexLock(mutex, -1), 0);
    int32_t wait_rc = 0;
    int32_t lock_rc = 0;
    std::thread event_waiter([&] { wait_rc = SMEventWait(event, -1); });
    std::thread lock_waiter([&] { lock_rc = SMMutexLock(mutex, -1); });
    ASSERT_TRUE(eventually([&] { return vornhost_event_waiters(event) == 1 && vornhost_mutex_waiters(mutex) == 1; }));
    EXPECT_EQ(SMEventDestroy(event), 0);
    EXPECT_EQ(SMMutexDestroy(mutex), 0);
    event_waiter.join();
    lock_waiter.join();
    EXPECT_EQ(wait_rc, VORNHOST_E_HANDLE);
    EXPECT_EQ(lock_rc, VORNHOST_E_HANDLE);
    EXPECT_EQ(SMMutexUnLock(mutex), VORNHOST_E_HANDLE);
}

struct CallbackSeen {
    std::thread::id thread;
    uint8_t bay_count = 0;
    uint16_t drive_state = 0;
    uint32_t read_status = 0xFFFFFFFFu;
};
CallbackSeen g_seen;
uint32_t g_session = 0;

int32_t hotplug_callback(void *info)
{
    const auto *bytes = static_cast<const uint8_t *>(info);
    g_seen.thread = std::this_thread::get_id();
    g_seen.bay_count = bytes[2];
    g_seen.drive_state = static_cast<uint16_t>(bytes[240 + 12] | (bytes[240 + 13] << 8));
    uint8_t again[VORNHOST_BP_INFO_SIZE];
    g_seen.read_status = VornBpApiReadExec(g_session, again, "cb", "hotplug_callback", 1);
    return 42;
}

TEST_F(VornhostConcurrency, HotPlugCallsTheCallbackOnAThreadOfItsOwn)
{
    g_seen = CallbackSeen{};
    g_session = VornBpApiOpenExec(hotplug_callback, 0, "t.c", "test", 1, 0);
    ASSERT_NE(g_session, 0u);
    const uint32_t plain = VornBpApiOpenExec(nullptr, 0, "t.c", "test", 2, 0);
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {};
    const VornHostBpDrive drive{1, 0x30, 0, 4, 0, 4, 0x0105};
    ASSERT_EQ(vornhost_bp_info_set_counts(record, 1, 1, 1, 0), 0);
    ASSERT_EQ(vornhost_bp_info_set_drive(record, 0, &drive), 0);

    EXPECT_EQ(vornhost_bp_hotplug(record), 1);  // only the session with a callback
    EXPECT_EQ(vornhost_bp_hotplug_wait(20000), 0);
    EXPECT_EQ(vornhost_bp_hotplug_done(), 1u);
    EXPECT_EQ(vornhost_bp_hotplug_last_result(), 42);
    EXPECT_NE(g_seen.thread, std::this_thread::get_id());
    EXPECT_EQ(g_seen.bay_count, 1);
    EXPECT_EQ(g_seen.drive_state, 0x0105);
    EXPECT_EQ(g_seen.read_status, 0u);
    uint8_t now[VORNHOST_BP_INFO_SIZE];
    vornhost_bp_get_info(now);
    EXPECT_EQ(std::memcmp(now, record, sizeof now), 0);
    EXPECT_EQ(VornBpApiCloseExec(g_session, "t.c", "test", 3), 0u);
    EXPECT_EQ(VornBpApiCloseExec(plain, "t.c", "test", 4), 0u);
}

TEST_F(VornhostConcurrency, TraceFromManyThreadsIsCapturedWhole)
{
    vornhost_trace_capture(1);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                vornprintf(4, 15, "thread %d line %d\n", t, i);
            }
        });
    }
    for (auto &t : threads) {
        t.join();
    }
    ASSERT_EQ(vornhost_trace_count(), 200u);
    VornHostTraceLine line{};
    ASSERT_EQ(vornhost_trace_get(199, &line), 0);
    EXPECT_EQ(std::strncmp(line.text, "thread ", 7), 0);
}

// ---- trace ---------------------------------------------------------------------

TEST_F(VornhostTrace, WritesLinesAtOrBelowTheLevelToTheFile)
{
    TempDir dir;
    const std::string file = dir.path("trace.log");
    setenv("VORN_TRACE_FILE", file.c_str(), 1);
    setenv("VORN_TRACE_LEVEL", "3", 1);
    vornhost_trace_set_level(-1);
    EXPECT_EQ(vornhost_trace_effective_level(), 3);
    EXPECT_EQ(vornprintf(2, 15, "%s:%s:%u:two\n", "rt_evtq.c", "Put", 12u), 21);
    EXPECT_EQ(vornprintf(3, 7, "three"), 5);  // no newline: one is added
    EXPECT_EQ(vornprintf(4, 15, "four\n"), 5);
    EXPECT_EQ(read_file(file), "[L2 C15] rt_evtq.c:Put:12:two\n[L3 C7] three\n");
}

TEST_F(VornhostTrace, LevelComesFromOverrideThenEnvironmentThenDefault)
{
    vornhost_trace_set_level(-1);
    EXPECT_EQ(vornhost_trace_effective_level(), 2);
    setenv("VORN_TRACE_LEVEL", "junk", 1);
    EXPECT_EQ(vornhost_trace_effective_level(), 2);
    setenv("VORN_TRACE_LEVEL", "6", 1);
    EXPECT_EQ(vornhost_trace_effective_level(), 6);
    vornhost_trace_set_level(1);
    EXPECT_EQ(vornhost_trace_effective_level(), 1);
    vornhost_reset();
    EXPECT_EQ(vornhost_trace_effective_level(), 6);
}

TEST_F(VornhostTrace, CaptureKeepsEveryLevel)
{
    TempDir dir;
    const std::string file = dir.path("trace.log");
    setenv("VORN_TRACE_FILE", file.c_str(), 1);
    vornprintf(1, 15, "before capture\n");
    rtvox::test::trace_start();
    EXPECT_EQ(vornprintf(6, 15, "x %d\n", 42), 5);
    vornprintf(1, 15, "y");
    ASSERT_EQ(vornhost_trace_count(), 2u);
    VornHostTraceLine line{};
    ASSERT_EQ(vornhost_trace_get(0, &line), 0);
    EXPECT_EQ(line.level, 6);
    EXPECT_EQ(line.category, 15);
    EXPECT_STREQ(line.text, "x 42\n");
    EXPECT_EQ(vornhost_trace_get(2, &line), -1);
    EXPECT_EQ(rtvox::test::trace_lines(), (std::vector<std::string>{"L6 x 42", "L1 y"}));
    EXPECT_FALSE(fs::exists(file));  // level 0: nothing written out
    vornhost_trace_capture(0);
    vornprintf(1, 15, "after\n");
    EXPECT_EQ(vornhost_trace_count(), 2u);
    vornhost_trace_clear();
    EXPECT_EQ(vornhost_trace_count(), 0u);
}

TEST_F(VornhostTrace, NullFormatAndInjectedFaultAnswerMinusOne)
{
    vornhost_trace_capture(1);
    const char *volatile null_format = nullptr;
    EXPECT_EQ(vornprintf(1, 15, null_format, 0), -1);
    vornhost_fail(VORNHOST_vornprintf, 0, 1);
    EXPECT_EQ(vornprintf(1, 15, "lost\n"), -1);
    EXPECT_EQ(vornprintf(1, 15, "kept\n"), 5);
    EXPECT_EQ(vornhost_trace_count(), 1u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_vornprintf), 3u);
}

// ---- fault injection -------------------------------------------------------------

TEST_F(VornhostFault, SkipThenCountThenNormalAgain)
{
    vornhost_fail(VORNHOST_SMMutexCreate, 1, 2);
    const uint32_t a = SMMutexCreate(nullptr);
    const uint32_t b = SMMutexCreate(nullptr);
    const uint32_t c = SMMutexCreate(nullptr);
    const uint32_t d = SMMutexCreate(nullptr);
    EXPECT_NE(a, 0u);
    EXPECT_EQ(b, 0u);
    EXPECT_EQ(c, 0u);
    EXPECT_NE(d, 0u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexCreate), 4u);
    vornhost_fail(VORNHOST_SMMutexDestroy, 0, 5);
    vornhost_fail_clear();
    EXPECT_EQ(SMMutexDestroy(a), 0);
    EXPECT_EQ(SMMutexDestroy(d), 0);
    vornhost_fail(VORNHOST_FUNCTION_COUNT, 0, 1);  // ignored
    EXPECT_EQ(vornhost_call_count(VORNHOST_FUNCTION_COUNT), 0u);
    vornhost_reset();
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexCreate), 0u);
}

TEST_F(VornhostFault, EveryFunctionFailsWithoutSideEffects)
{
    const uint32_t mutex = SMMutexCreate(nullptr);
    const uint32_t event = SMEventCreate(nullptr, 1, 0);
    const uint32_t session = VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0);
    uint32_t list = 0;
    ASSERT_EQ(QNIPCLCreateTLVList(&list), 0);
    vornhost_reset();
    uint8_t buf[VORNHOST_BP_INFO_SIZE] = {0x5A};
    uint32_t len = 7;
    uint32_t out_list = 0x77;
    char arg[] = "a";
    char *args[] = {arg};
    const uint8_t request[2] = {1, 2};
    const auto fails = [](VornHostFunction fn) {
        vornhost_fail(fn, 0, 1);
        return fn;
    };
    fails(VORNHOST_SMMutexCreate);
    EXPECT_EQ(SMMutexCreate(nullptr), 0u);
    fails(VORNHOST_SMMutexLock);
    EXPECT_EQ(SMMutexLock(mutex, 0), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_mutex_state(mutex), 0);
    ASSERT_EQ(SMMutexLock(mutex, 0), 0);
    fails(VORNHOST_SMMutexUnLock);
    EXPECT_EQ(SMMutexUnLock(mutex), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_mutex_state(mutex), 1);
    EXPECT_EQ(SMMutexUnLock(mutex), 0);
    fails(VORNHOST_SMMutexDestroy);
    EXPECT_EQ(SMMutexDestroy(mutex), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_mutex_state(mutex), 0);
    fails(VORNHOST_SMEventCreate);
    EXPECT_EQ(SMEventCreate(nullptr, 1, 1), 0u);
    fails(VORNHOST_SMEventSet);
    EXPECT_EQ(SMEventSet(event), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_event_state(event), 0);
    ASSERT_EQ(SMEventSet(event), 0);
    fails(VORNHOST_SMEventReset);
    EXPECT_EQ(SMEventReset(event), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_event_state(event), 1);
    fails(VORNHOST_SMEventWait);
    EXPECT_EQ(SMEventWait(event, 0), VORNHOST_E_INJECTED);
    fails(VORNHOST_SMEventDestroy);
    EXPECT_EQ(SMEventDestroy(event), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_event_state(event), 1);
    fails(VORNHOST_Vorn_shm_memread);
    EXPECT_EQ(Vorn_shm_memread(3, buf, 0, 4), VORNHOST_E_INJECTED);
    EXPECT_EQ(buf[0], 0x5A);
    fails(VORNHOST_Vorn_shm_memwrite);
    EXPECT_EQ(Vorn_shm_memwrite(3, buf, 0, 4), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_shm_bytes(3)[0], 0);
    fails(VORNHOST_VornBpApiOpenExec);
    EXPECT_EQ(VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0), 0u);
    fails(VORNHOST_VornBpApiReadExec);
    EXPECT_EQ(VornBpApiReadExec(session, buf, "f", "g", 1), static_cast<uint32_t>(VORNHOST_E_INJECTED));
    EXPECT_EQ(buf[0], 0x5A);
    fails(VORNHOST_VornBpApiWriteExec);
    EXPECT_EQ(VornBpApiWriteExec(session, 1, buf, "f", "g", 1), static_cast<uint32_t>(VORNHOST_E_INJECTED));
    EXPECT_EQ(vornhost_bp_write_count(), 0u);
    fails(VORNHOST_VornBpApiCloseExec);
    EXPECT_EQ(VornBpApiCloseExec(session, "f", "g", 1), static_cast<uint32_t>(VORNHOST_E_INJECTED));
    EXPECT_EQ(vornhost_bp_session_has_callback(session), 0);  // still open
    fails(VORNHOST_QNIPCLBuildMsgArgsBuffer);
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(args, 1, buf, &len), VORNHOST_E_INJECTED);
    EXPECT_EQ(len, 7u);
    fails(VORNHOST_QNIPCLCreateTLVList);
    EXPECT_EQ(QNIPCLCreateTLVList(&out_list), VORNHOST_E_INJECTED);
    EXPECT_EQ(out_list, 0x77u);
    fails(VORNHOST_QNIPCLAddTLVToList);
    EXPECT_EQ(QNIPCLAddTLVToList(6, 1, buf, list), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_tlv_list_size(list), 0);
    fails(VORNHOST_QNIPCLFreeTLVList);
    EXPECT_EQ(QNIPCLFreeTLVList(list), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_tlv_list_size(list), 0);
    fails(VORNHOST_QNIPCLSubmitEvent);
    EXPECT_EQ(QNIPCLSubmitEvent(4, 2, 1, "CTL97", 0, nullptr, 0), VORNHOST_E_INJECTED);
    fails(VORNHOST_QNIPCLSubmitSingle);
    EXPECT_EQ(QNIPCLSubmitSingle(buf, 2, 0), VORNHOST_E_INJECTED);
    EXPECT_EQ(vornhost_eventlog_count() + vornhost_single_count(), 0u);
    fails(VORNHOST_ConvertFQDDToFriendlyName);
    EXPECT_EQ(ConvertFQDDToFriendlyName("RAID.Slot.3-1"), nullptr);
    fails(VORNHOST_IPMI_DoIPMICmd);
    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, request, 2, nullptr, nullptr), static_cast<uint32_t>(VORNHOST_E_INJECTED));
    EXPECT_EQ(vornhost_ipmi_count(), 0u);
    fails(VORNHOST_vornprintf);
    EXPECT_EQ(vornprintf(1, 15, "x\n"), -1);
    for (int fn = 0; fn < VORNHOST_FUNCTION_COUNT; ++fn) {
        EXPECT_GE(vornhost_call_count(static_cast<VornHostFunction>(fn)), 1u) << fn;
    }
    EXPECT_EQ(SMMutexDestroy(mutex), 0);
    EXPECT_EQ(SMEventDestroy(event), 0);
    EXPECT_EQ(VornBpApiCloseExec(session, "f", "g", 1), 0u);
    EXPECT_EQ(QNIPCLFreeTLVList(list), 0);
}

// ---- shared memory ---------------------------------------------------------------

TEST_F(VornhostShm, RegionsAndSizes)
{
    EXPECT_EQ(vornhost_shm_get_mode(), VORNHOST_SHM_PRIVATE);
    EXPECT_EQ(vornhost_shm_size(3), 5342u);
    EXPECT_EQ(vornhost_shm_size(15), 65536u);
    EXPECT_EQ(vornhost_shm_size(20), 325u);
    EXPECT_EQ(vornhost_shm_size(26), 11444u);
    EXPECT_EQ(vornhost_shm_size(55), 526u);
    EXPECT_EQ(vornhost_shm_size(4), 0u);
    uint8_t b[4] = {};
    EXPECT_EQ(Vorn_shm_memread(4, b, 0, 1), VORNHOST_E_NODEV);
    EXPECT_EQ(Vorn_shm_memwrite(0, b, 0, 1), VORNHOST_E_NODEV);
    EXPECT_EQ(vornhost_shm_bytes(16), nullptr);
}

TEST_F(VornhostShm, AccessesAreBoundChecked)
{
    const uint8_t data[4] = {1, 2, 3, 4};
    EXPECT_EQ(Vorn_shm_memwrite(55, data, 522, 4), 0);  // last four bytes
    uint8_t out[8];
    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(Vorn_shm_memread(55, out, 522, 4), 0);
    EXPECT_EQ(std::memcmp(out, data, 4), 0);

    std::memset(out, 0xEE, sizeof out);
    EXPECT_EQ(Vorn_shm_memread(55, out, 523, 4), VORNHOST_E_RANGE);
    EXPECT_EQ(Vorn_shm_memwrite(55, data, 523, 4), VORNHOST_E_RANGE);
    EXPECT_EQ(Vorn_shm_memread(55, out, 0xFFFFFFF0u, 0x20), VORNHOST_E_RANGE);  // offset + length wraps
    EXPECT_EQ(Vorn_shm_memwrite(55, data, 4, 0xFFFFFFFFu), VORNHOST_E_RANGE);
    EXPECT_EQ(Vorn_shm_memread(55, out, 527, 0), VORNHOST_E_RANGE);
    EXPECT_EQ(Vorn_shm_memread(55, out, 526, 0), 0);
    EXPECT_EQ(Vorn_shm_memread(55, nullptr, 0, 1), VORNHOST_E_ARG);
    EXPECT_EQ(out[0], 0xEE);
    const uint8_t *region = vornhost_shm_bytes(55);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(region[521], 0);
    EXPECT_EQ(region[522], 1);
    EXPECT_EQ(region[525], 4);
}

TEST_F(VornhostShm, ZeroAndResetClearRegions)
{
    const uint8_t ff[3] = {0xFF, 0xFF, 0xFF};
    ASSERT_EQ(Vorn_shm_memwrite(20, ff, 6, 3), 0);
    ASSERT_EQ(Vorn_shm_memwrite(26, ff, 0, 3), 0);
    EXPECT_EQ(vornhost_shm_bytes(20)[7], 0xFF);
    EXPECT_EQ(vornhost_shm_zero(20), 0);
    EXPECT_EQ(vornhost_shm_bytes(20)[7], 0);
    EXPECT_EQ(vornhost_shm_bytes(26)[2], 0xFF);
    EXPECT_EQ(vornhost_shm_zero(99), VORNHOST_E_NODEV);
    vornhost_reset();
    EXPECT_EQ(vornhost_shm_bytes(26)[2], 0);
}

TEST_F(VornhostShm, PosixModeIsReadableFromAnotherProcess)
{
    const std::string prefix = "vornhost-test-" + std::to_string(getpid());
    EXPECT_EQ(vornhost_shm_set_mode(VORNHOST_SHM_POSIX, "a/b"), VORNHOST_E_ARG);
    EXPECT_EQ(vornhost_shm_set_mode(VORNHOST_SHM_POSIX, ""), VORNHOST_E_ARG);
    ASSERT_EQ(vornhost_shm_set_mode(VORNHOST_SHM_POSIX, prefix.c_str()), 0);
    EXPECT_EQ(vornhost_shm_get_mode(), VORNHOST_SHM_POSIX);
    char name[256];
    ASSERT_EQ(vornhost_shm_object_name(20, name, sizeof name), 0);
    EXPECT_EQ(std::string(name), "/" + prefix + "-20");
    EXPECT_EQ(vornhost_shm_object_name(20, name, 4), VORNHOST_E_NOSPACE);

    const uint8_t data[3] = {0x11, 0x22, 0x33};
    ASSERT_EQ(Vorn_shm_memwrite(20, data, 322, 3), 0);

    // In-process, through the object's name.
    const int fd = shm_open(name, O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    void *map = mmap(nullptr, 325, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(map, MAP_FAILED);
    EXPECT_EQ(std::memcmp(static_cast<const uint8_t *>(map) + 322, data, 3), 0);
    munmap(map, 325);

    // Another process reads what this one wrote and writes a byte back.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const int cfd = shm_open(name, O_RDWR, 0);
        if (cfd < 0) {
            _exit(2);
        }
        auto *bytes = static_cast<uint8_t *>(mmap(nullptr, 325, PROT_READ | PROT_WRITE, MAP_SHARED, cfd, 0));
        if (bytes == MAP_FAILED) {
            _exit(3);
        }
        const bool same = bytes[322] == 0x11 && bytes[323] == 0x22 && bytes[324] == 0x33;
        bytes[0] = 0x5A;
        _exit(same ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    uint8_t back = 0;
    EXPECT_EQ(Vorn_shm_memread(20, &back, 0, 1), 0);
    EXPECT_EQ(back, 0x5A);

    EXPECT_EQ(vornhost_shm_unlink(), 0);
    EXPECT_LT(shm_open(name, O_RDONLY, 0), 0);
    ASSERT_EQ(vornhost_shm_set_mode(VORNHOST_SHM_PRIVATE, nullptr), 0);
    EXPECT_EQ(vornhost_shm_bytes(20)[322], 0);  // the private buffer never saw the write
}

// ---- backplane ----------------------------------------------------------------------

TEST_F(VornhostBackplane, SessionReadsTheRecordAndJournalsWrites)
{
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {};
    VornHostBpBay bay{};
    bay.bpId = 0x1234;
    bay.bayId = 1;
    bay.tech = 4;
    bay.physSlotCnt = 8;
    bay.fwMajor = 2;
    bay.fwMinor = 0x15;
    bay.compId[2] = 0xAB;
    const VornHostBpRiser riser{1, 1, 4, 3, 2};
    ASSERT_EQ(vornhost_bp_info_set_counts(record, 1, 0, 0, 1), 0);
    ASSERT_EQ(vornhost_bp_info_set_bay(record, 0, &bay), 0);
    ASSERT_EQ(vornhost_bp_info_set_riser(record, 2, &riser), 0);
    EXPECT_EQ(vornhost_bp_info_set_bay(record, 4, &bay), VORNHOST_E_ARG);
    EXPECT_EQ(vornhost_bp_info_set_riser(record, 3, &riser), VORNHOST_E_ARG);
    EXPECT_EQ(record[8 + 1], 0x34);
    EXPECT_EQ(record[8 + 2], 0x12);
    EXPECT_EQ(record[8 + 14], 1);
    EXPECT_EQ(record[8 + 29], 8);
    EXPECT_EQ(record[8 + 41], 0xAB);
    EXPECT_EQ(record[720 + 12 + 3], 3);
    vornhost_bp_set_info(record);

    const uint32_t h = VornBpApiOpenExec(nullptr, 0, "rt_shm.c", "BlinkNVMeSSD", 10, 0);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(h >> 28, 2u);
    EXPECT_EQ(vornhost_bp_session_count(), 1u);
    EXPECT_EQ(vornhost_bp_session_has_callback(h), 0);
    uint8_t read[VORNHOST_BP_INFO_SIZE] = {};
    EXPECT_EQ(VornBpApiReadExec(h, read, "rt_shm.c", "f", 11), 0u);
    EXPECT_EQ(std::memcmp(read, record, sizeof read), 0);
    EXPECT_EQ(VornBpApiReadExec(h, nullptr, "rt_shm.c", "f", 11), static_cast<uint32_t>(VORNHOST_E_ARG));

    const uint8_t blink[4] = {0x01, 0x04, 0x08, 0x00};
    EXPECT_EQ(VornBpApiWriteExec(h, 1, blink, "rt_shm.c", "BlinkNVMeSSD", 12), 0u);
    EXPECT_EQ(VornBpApiWriteExec(h, 7, blink, "rt_shm.c", "other", 13), static_cast<uint32_t>(VORNHOST_E_UNSUPPORTED));
    ASSERT_EQ(vornhost_bp_write_count(), 2u);
    VornHostBpWrite w{};
    ASSERT_EQ(vornhost_bp_write_get(0, &w), 0);
    EXPECT_EQ(w.handle, h);
    EXPECT_EQ(w.writeType, 1u);
    EXPECT_EQ(w.status, 0u);
    ASSERT_EQ(w.length, 4u);
    EXPECT_EQ(std::memcmp(w.bytes, blink, 4), 0);
    EXPECT_EQ(w.line, 12u);
    EXPECT_STREQ(w.function, "BlinkNVMeSSD");
    ASSERT_EQ(vornhost_bp_write_get(1, &w), 0);
    EXPECT_EQ(w.length, 0u);
    EXPECT_EQ(vornhost_bp_write_get(2, &w), -1);

    EXPECT_EQ(VornBpApiCloseExec(h, "rt_shm.c", "f", 14), 0u);
    EXPECT_EQ(vornhost_bp_session_count(), 0u);
    EXPECT_EQ(VornBpApiReadExec(h, read, "rt_shm.c", "f", 15), static_cast<uint32_t>(VORNHOST_E_HANDLE));
    EXPECT_EQ(VornBpApiWriteExec(h, 1, blink, "rt_shm.c", "f", 16), static_cast<uint32_t>(VORNHOST_E_HANDLE));
    EXPECT_EQ(VornBpApiCloseExec(h, "rt_shm.c", "f", 17), static_cast<uint32_t>(VORNHOST_E_HANDLE));
    EXPECT_EQ(VornBpApiCloseExec(0, nullptr, nullptr, 0), static_cast<uint32_t>(VORNHOST_E_HANDLE));
    EXPECT_EQ(vornhost_bp_write_count(), 2u);  // refused writes are not journaled
}

TEST_F(VornhostBackplane, ScriptedStatusesAndWriteSizes)
{
    vornhost_bp_set_status(VORNHOST_BP_OPEN, VORNHOST_E_NODEV, 1);
    EXPECT_EQ(VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0), 0u);
    const uint32_t h = VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0);
    ASSERT_NE(h, 0u);

    uint8_t read[VORNHOST_BP_INFO_SIZE];
    std::memset(read, 0xEE, sizeof read);
    vornhost_bp_set_status(VORNHOST_BP_READ, 0x20B, 1);
    EXPECT_EQ(VornBpApiReadExec(h, read, "f", "g", 1), 0x20Bu);
    EXPECT_EQ(read[0], 0xEE);
    EXPECT_EQ(VornBpApiReadExec(h, read, "f", "g", 1), 0u);
    EXPECT_EQ(read[0], 0);

    const uint8_t rec[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    vornhost_bp_set_status(VORNHOST_BP_WRITE, 0x100, 0);  // low byte 0: success
    EXPECT_EQ(VornBpApiWriteExec(h, 1, rec, "f", "g", 1), 0x100u);
    EXPECT_EQ(VornBpApiWriteExec(h, 1, rec, "f", "g", 1), 0x100u);
    vornhost_bp_set_status(VORNHOST_BP_WRITE, 0, 0);
    EXPECT_EQ(vornhost_bp_set_write_size(9, 10), 0);
    EXPECT_EQ(vornhost_bp_set_write_size(1, 10), VORNHOST_E_ARG);
    EXPECT_EQ(vornhost_bp_set_write_size(9, VORNHOST_BP_INFO_SIZE + 1), VORNHOST_E_ARG);
    EXPECT_EQ(VornBpApiWriteExec(h, 9, rec, "f", "g", 1), 0u);
    VornHostBpWrite w{};
    ASSERT_EQ(vornhost_bp_write_get(2, &w), 0);
    EXPECT_EQ(w.length, 10u);
    EXPECT_EQ(w.bytes[9], 10);

    vornhost_bp_set_status(VORNHOST_BP_CLOSE, VORNHOST_E_BUSY, 1);
    EXPECT_EQ(VornBpApiCloseExec(h, "f", "g", 1), static_cast<uint32_t>(VORNHOST_E_BUSY));
    EXPECT_EQ(vornhost_bp_session_count(), 1u);
    EXPECT_EQ(VornBpApiCloseExec(h, "f", "g", 1), 0u);
}

TEST_F(VornhostBackplane, ErrorTextsAndHotPlugWithoutCallbacks)
{
    EXPECT_STREQ(VornBpApiError(0), "Success");
    EXPECT_STREQ(VornBpApiError(1), "Invalid session handle");
    EXPECT_STREQ(VornBpApiError(0x305), "Invalid argument");  // low 8 bits only
    EXPECT_STREQ(VornBpApiError(126), "Fault injected (vornhost)");
    EXPECT_STREQ(VornBpApiError(200), "Unknown backplane API error");
    for (uint32_t s = 0; s < 256; ++s) {
        ASSERT_NE(VornBpApiError(s), nullptr);
    }
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {};
    record[2] = 3;
    EXPECT_EQ(vornhost_bp_hotplug(nullptr), -1);
    EXPECT_EQ(vornhost_bp_hotplug(record), 0);
    EXPECT_EQ(vornhost_bp_hotplug_wait(0), 0);
    uint8_t now[VORNHOST_BP_INFO_SIZE] = {};
    vornhost_bp_get_info(now);
    EXPECT_EQ(now[2], 3);
    vornhost_reset();
    vornhost_bp_get_info(now);
    EXPECT_EQ(now[2], 0);
}

// ---- event log ---------------------------------------------------------------------

TEST_F(VornhostEventLog, MessageArgumentsRespectTheBufferLength)
{
    char a[] = "abc";
    char b[] = "de";
    char *args[] = {a, b};
    uint8_t buf[16];
    std::memset(buf, 0xEE, sizeof buf);
    uint32_t length = 6;
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(args, 2, buf, &length), VORNHOST_E_NOSPACE);
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(buf[0], 0xEE);
    length = 7;
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(args, 2, buf, &length), 0);
    EXPECT_EQ(length, 7u);
    EXPECT_EQ(std::memcmp(buf, "abc\0de\0", 7), 0);
    EXPECT_EQ(buf[7], 0xEE);
    length = 200;
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(nullptr, 0, buf, &length), 0);
    EXPECT_EQ(length, 0u);
    char *with_null[] = {a, nullptr};
    length = 200;
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(with_null, 2, buf, &length), VORNHOST_E_ARG);
    EXPECT_EQ(length, 200u);
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(args, 2, buf, nullptr), VORNHOST_E_ARG);
    EXPECT_EQ(QNIPCLBuildMsgArgsBuffer(args, 2, nullptr, &length), VORNHOST_E_ARG);
}

TEST_F(VornhostEventLog, SubmitJournalsTheEventAndItsTlvs)
{
    uint32_t list = 0;
    ASSERT_EQ(QNIPCLCreateTLVList(&list), 0);
    EXPECT_EQ(list >> 28, 3u);
    EXPECT_EQ(vornhost_tlv_list_count(), 1u);
    EXPECT_EQ(QNIPCLAddTLVToList(6, 7, "abc\0de", list), 0);
    EXPECT_EQ(QNIPCLAddTLVToList(6, 3, nullptr, list), VORNHOST_E_ARG);
    EXPECT_EQ(vornhost_tlv_list_size(list), 1);
    const char *fqdd = "Disk.Bay.4:Enclosure.Internal.0-1:RAID.Integrated.1-1";
    EXPECT_EQ(QNIPCLSubmitEvent(4, 2, 3, "PDR16", 0, fqdd, list), 0);
    EXPECT_EQ(QNIPCLAddTLVToList(9, 0, nullptr, list), 0);  // later TLVs do not change the journal
    EXPECT_EQ(QNIPCLFreeTLVList(list), 0);
    EXPECT_EQ(QNIPCLFreeTLVList(list), VORNHOST_E_HANDLE);
    EXPECT_EQ(QNIPCLAddTLVToList(6, 0, nullptr, list), VORNHOST_E_HANDLE);
    EXPECT_EQ(vornhost_tlv_list_count(), 0u);
    EXPECT_EQ(QNIPCLSubmitEvent(4, 1, 2, "CTL97", 0, nullptr, 0), 0);
    EXPECT_EQ(QNIPCLSubmitEvent(4, 1, 2, nullptr, 0, nullptr, 0), VORNHOST_E_ARG);
    EXPECT_EQ(QNIPCLSubmitEvent(4, 1, 2, "X", 0, nullptr, list), VORNHOST_E_HANDLE);
    EXPECT_EQ(QNIPCLCreateTLVList(nullptr), VORNHOST_E_ARG);

    ASSERT_EQ(vornhost_eventlog_count(), 2u);
    VornHostEvent e{};
    ASSERT_EQ(vornhost_eventlog_get(0, &e), 0);
    EXPECT_EQ(e.category, 4u);
    EXPECT_EQ(e.source, 2u);
    EXPECT_EQ(e.severity, 3u);
    EXPECT_EQ(e.flags, 0u);
    EXPECT_STREQ(e.msgId, "PDR16");
    EXPECT_STREQ(e.fqdd, fqdd);
    ASSERT_EQ(e.tlvCount, 1u);
    VornHostTlv tlv{};
    ASSERT_EQ(vornhost_eventlog_tlv(0, 0, &tlv), 0);
    EXPECT_EQ(tlv.type, 6u);
    ASSERT_EQ(tlv.length, 7u);
    EXPECT_EQ(std::memcmp(tlv.value, "abc\0de", 7), 0);
    EXPECT_EQ(vornhost_eventlog_tlv(0, 1, &tlv), -1);
    ASSERT_EQ(vornhost_eventlog_get(1, &e), 0);
    EXPECT_STREQ(e.msgId, "CTL97");
    EXPECT_EQ(e.fqdd, nullptr);
    EXPECT_EQ(e.tlvCount, 0u);
    EXPECT_EQ(vornhost_eventlog_get(2, &e), -1);
}

TEST_F(VornhostEventLog, SingleRecordsAndScriptedStatuses)
{
    const uint8_t record[16] = {16, 0, 0, 0, 0x29, 0x04, 2, 0};  // value 1065
    EXPECT_EQ(QNIPCLSubmitSingle(record, 2, 0), 0);
    EXPECT_EQ(QNIPCLSubmitSingle(record, 5, 0), VORNHOST_E_UNSUPPORTED);
    EXPECT_EQ(vornhost_eventlog_set_single_size(5, 8), 0);
    EXPECT_EQ(vornhost_eventlog_set_single_size(2, 8), VORNHOST_E_ARG);
    vornhost_eventlog_set_status(VORNHOST_EVT_SUBMIT_SINGLE, -9, 1);
    EXPECT_EQ(QNIPCLSubmitSingle(record, 5, 1), -9);
    EXPECT_EQ(QNIPCLSubmitSingle(nullptr, 2, 0), VORNHOST_E_ARG);
    ASSERT_EQ(vornhost_single_count(), 2u);
    VornHostSingle s{};
    ASSERT_EQ(vornhost_single_get(0, &s), 0);
    EXPECT_EQ(s.kind, 2u);
    ASSERT_EQ(s.length, 16u);
    EXPECT_EQ(std::memcmp(s.bytes, record, 16), 0);
    ASSERT_EQ(vornhost_single_get(1, &s), 0);
    EXPECT_EQ(s.length, 8u);
    EXPECT_EQ(s.status, -9);
    EXPECT_EQ(s.flags, 1u);

    vornhost_eventlog_set_status(VORNHOST_EVT_SUBMIT_EVENT, 7, 1);
    EXPECT_EQ(QNIPCLSubmitEvent(4, 2, 1, "ENC28", 0, nullptr, 0), 7);
    EXPECT_EQ(QNIPCLSubmitEvent(4, 2, 1, "ENC28", 0, nullptr, 0), 0);
    VornHostEvent e{};
    ASSERT_EQ(vornhost_eventlog_get(0, &e), 0);
    EXPECT_EQ(e.status, 7);
    vornhost_eventlog_clear();
    EXPECT_EQ(vornhost_eventlog_count() + vornhost_single_count(), 0u);
}

TEST_F(VornhostEventLog, JsonLinesFile)
{
    TempDir dir;
    const std::string file = dir.path("events.jsonl");
    setenv("VORN_EVENTLOG_FILE", file.c_str(), 1);
    uint32_t list = 0;
    ASSERT_EQ(QNIPCLCreateTLVList(&list), 0);
    ASSERT_EQ(QNIPCLAddTLVToList(6, 7, "abc\0d\"", list), 0);
    ASSERT_EQ(QNIPCLSubmitEvent(4, 2, 3, "PDR16", 0, "RAID.Slot.3-1", list), 0);
    ASSERT_EQ(QNIPCLFreeTLVList(list), 0);
    ASSERT_EQ(QNIPCLSubmitEvent(4, 1, 2, "CTL\n97", 1, nullptr, 0), 0);
    const uint8_t record[16] = {16, 0, 0, 0, 0x29, 0x04, 2};
    ASSERT_EQ(QNIPCLSubmitSingle(record, 2, 0), 0);
    const auto lines = split_lines(read_file(file));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0],
              "{\"type\":\"event\",\"category\":4,\"source\":2,\"severity\":3,\"msgId\":\"PDR16\",\"flags\":0,"
              "\"fqdd\":\"RAID.Slot.3-1\",\"status\":0,\"tlvs\":[{\"type\":6,\"length\":7,\"hex\":\"61626300642200\","
              "\"args\":[\"abc\",\"d\\\"\"]}]}");
    EXPECT_EQ(lines[1],
              "{\"type\":\"event\",\"category\":4,\"source\":1,\"severity\":2,\"msgId\":\"CTL\\n97\",\"flags\":1,"
              "\"fqdd\":null,\"status\":0,\"tlvs\":[]}");
    EXPECT_EQ(lines[2],
              "{\"type\":\"single\",\"kind\":2,\"flags\":0,\"status\":0,\"length\":16,"
              "\"hex\":\"10000000290402000000000000000000\"}");
}

// ---- friendly names -------------------------------------------------------------------

TEST_F(VornhostFriendly, DocumentedForms)
{
    const std::pair<const char *, const char *> cases[] = {
        {"Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.3", "PCIe SSD in Slot 4 in Bay 1"},
        {"Disk.Bay.2:Enclosure.Internal.0-1:PCIeExtender.Slot.255", "PCIe SSD in Slot 2 in Bay 1"},
        {"Enclosure.Internal.0-2", "Backplane 2"},
        {"Enclosure.Internal.0-1:PCIeExtender.Slot.3", "Backplane 1 on PCIe Extender in Slot 3"},
        {"PCIeExtender.Slot.5", "PCIe Extender in Slot 5"},
        {"RAID.Integrated.1-1", "Integrated RAID Controller 1"},
        {"RAID.Slot.3-1", "RAID Controller in Slot 3"},
        {"RAID.Embedded.2-1", "Embedded RAID Controller 2"},
        {"NonRAID.Slot.2-1", "Non-RAID Controller in Slot 2"},
        {"NonRAID.Integrated.1-1", "Integrated Non-RAID Controller 1"},
        {"Disk.Bay.4:Enclosure.Internal.0-1:RAID.Integrated.1-1",
         "Disk 4 in Backplane 1 of Integrated RAID Controller 1"},
        {"Disk.Bay.0:Enclosure.External.1-2:RAID.Slot.3-1", "Disk 0 in Enclosure 2 of RAID Controller in Slot 3"},
        {"Enclosure.Internal.0-1:RAID.Integrated.1-1", "Backplane 1 on Connector 0 of Integrated RAID Controller 1"},
        {"Enclosure.External.1-2:NonRAID.Slot.2-1", "Enclosure 2 on Connector 1 of Non-RAID Controller in Slot 2"},
        {"Disk.Virtual.0:RAID.Integrated.1-1", "Virtual Disk 0 on Integrated RAID Controller 1"},
        {"Battery.Integrated.1:RAID.Integrated.1-1", "Battery on Integrated RAID Controller 1"},
        {"Disk.Bay.07:Enclosure.Internal.0-1", "Disk 7 in Backplane 1"},
    };
    for (const auto &[fqdd, expected] : cases) {
        char *name = ConvertFQDDToFriendlyName(fqdd);
        ASSERT_NE(name, nullptr) << fqdd;
        EXPECT_STREQ(name, expected) << fqdd;
        free(name);
    }
}

TEST_F(VornhostFriendly, UnknownFormsGiveNull)
{
    for (const char *fqdd :
         {"", "RAID.Integrated.1", "raid.integrated.1-1", "RAID.Integrated.1-1:", "Disk.Bay.x",
          "Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1:extra", "Disk.Bay.1234567890:Enclosure.Internal.0-1",
          "Enclosure.Internal.0-1:Disk.Bay.1", "Enclosure.Internal.-1", "PCIeExtender.Slot.3 ", "CPU.Socket.1"}) {
        EXPECT_EQ(ConvertFQDDToFriendlyName(fqdd), nullptr) << fqdd;
    }
    EXPECT_EQ(ConvertFQDDToFriendlyName(nullptr), nullptr);
    EXPECT_EQ(vornhost_call_count(VORNHOST_ConvertFQDDToFriendlyName), 12u);
}

// ---- IPMI --------------------------------------------------------------------------------

TEST_F(VornhostIpmi, JournalsRequestsAndAnswersTheScript)
{
    const uint8_t request[20] = {0, 0x14, 0x0E, 0, 0, 0, 0x0E, 0, 1, 5, 8, 0};
    uint8_t response[10] = {};
    uint32_t response_length = 0;  // as the library passes it: nothing may be written
    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &response_length), 0u);
    EXPECT_EQ(response_length, 0u);
    ASSERT_EQ(vornhost_ipmi_count(), 1u);
    VornHostIpmiRequest r{};
    ASSERT_EQ(vornhost_ipmi_get(0, &r), 0);
    EXPECT_EQ(r.netFn, 0x30);
    EXPECT_EQ(r.cmd, 0xD5);
    ASSERT_EQ(r.length, 20u);
    EXPECT_EQ(std::memcmp(r.data, request, 20), 0);

    const uint8_t answer[3] = {0x00, 0xAA, 0xBB};
    ASSERT_EQ(vornhost_ipmi_set_result(0x100, answer, 3, 0), 0);  // low byte 0: success
    response_length = 2;
    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &response_length), 0x100u);
    EXPECT_EQ(response_length, 2u);
    EXPECT_EQ(response[1], 0xAA);
    EXPECT_EQ(response[2], 0);
    response_length = 10;
    IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &response_length);
    EXPECT_EQ(response_length, 3u);

    ASSERT_EQ(vornhost_ipmi_set_result(0xC1, nullptr, 0, 1), 0);
    std::memset(response, 0xEE, sizeof response);
    response_length = 10;
    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &response_length), 0xC1u);
    EXPECT_EQ(response_length, 0u);
    EXPECT_EQ(response[0], 0xEE);
    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, request, 20, nullptr, nullptr), 0u);  // script used up
    EXPECT_EQ(vornhost_ipmi_get(3, &r), 0);
    EXPECT_EQ(r.status, 0xC1u);

    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, nullptr, 5, nullptr, nullptr), static_cast<uint32_t>(VORNHOST_E_ARG));
    EXPECT_EQ(IPMI_DoIPMICmd(0x30, 0xD5, request, VORNHOST_IPMI_MAX_REQUEST + 1, nullptr, nullptr),
              static_cast<uint32_t>(VORNHOST_E_ARG));
    EXPECT_EQ(vornhost_ipmi_count(), 5u);
    EXPECT_EQ(vornhost_ipmi_set_result(0, nullptr, 4, 0), VORNHOST_E_ARG);
    vornhost_reset();
    EXPECT_EQ(vornhost_ipmi_count(), 0u);
}

}  // namespace

// Tests of the host platform emulation (libvornhost) itself: one dense test per facility.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "rtvox/platform.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace {

using namespace std::chrono_literals;
using rtvox::test::read_file;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using V = std::vector<int64_t>;  // several results compared at once; a braced list evaluates them in call order
constexpr int64_t kHandle = VORNHOST_E_HANDLE, kTimeout = VORNHOST_E_TIMEOUT, kDeadlock = VORNHOST_E_DEADLOCK,
                  kNotOwner = VORNHOST_E_NOT_OWNER, kArg = VORNHOST_E_ARG, kRange = VORNHOST_E_RANGE,
                  kNoSpace = VORNHOST_E_NOSPACE, kNodev = VORNHOST_E_NODEV, kUnsupported = VORNHOST_E_UNSUPPORTED,
                  kInjected = VORNHOST_E_INJECTED;

// Polls `done` for at most 10 s.
template <typename F>
bool eventually(F done)
{
    for (const auto deadline = Clock::now() + 10s; !done() && Clock::now() < deadline;) {
        std::this_thread::sleep_for(1ms);
    }
    return done();
}

class Vornhost : public ::testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override
    {
        for (const char *name : {"VORN_TRACE_LEVEL", "VORN_TRACE_FILE", "VORN_EVENTLOG_FILE"}) {
            unsetenv(name);
        }
        if (vornhost_shm_get_mode() == VORNHOST_SHM_POSIX) {  // a POSIX-mode test stopped half-way
            vornhost_shm_unlink();
        }
        vornhost_shm_set_mode(VORNHOST_SHM_PRIVATE, nullptr);
        vornhost_reset();
        vornhost_trace_set_level(0);  // keep test output quiet unless a test wants lines
    }
};
using VornhostConcurrency = Vornhost;

TEST_F(Vornhost, MutexTimeoutsOwnershipAndInvalidHandles)
{
    const uint32_t live = vornhost_mutex_live_count(), h = SMMutexCreate("m"), event = SMEventCreate(nullptr, 1, 0);
    // Never recursive: the owner's relock is refused at once whatever the timeout; one unlock frees it.
    EXPECT_EQ((V{h >> 28, vornhost_mutex_live_count() - live, SMMutexLock(h, -1), vornhost_mutex_state(h),
                 SMMutexLock(h, -1), SMMutexLock(h, 0), SMMutexLock(h, 100), SMMutexUnLock(h), vornhost_mutex_state(h),
                 SMMutexUnLock(h), SMMutexLock(h, -2), vornhost_mutex_state(h), SMMutexLock(h, 0)}),
              (V{1, 1, 0, 1, kDeadlock, kDeadlock, kDeadlock, 0, 0, kNotOwner, kArg, 0, 0}));
    std::jthread([&] {
        const auto start = Clock::now();
        EXPECT_EQ((V{SMMutexLock(h, 0), SMMutexLock(h, 60), SMMutexUnLock(h)}), (V{kTimeout, kTimeout, kNotOwner}));
        EXPECT_TRUE(Clock::now() - start >= 55ms && Clock::now() - start < 5s);
    });
    EXPECT_EQ((V{vornhost_mutex_state(h), SMMutexUnLock(h), SMMutexDestroy(h), vornhost_mutex_state(h),
                 vornhost_mutex_live_count() - live}),
              (V{1, 0, 0, -1, 0}));
    for (const uint32_t bad : {0u, 0x12345678u, 0x1FFFFFFFu, h, event}) {
        EXPECT_EQ((V{SMMutexLock(bad, -1), SMMutexUnLock(bad), SMMutexDestroy(bad)}), V(3, kHandle)) << bad;
    }
    EXPECT_EQ(SMEventDestroy(event), 0);
}

TEST_F(Vornhost, ManualAndAutomaticEventsTimeoutsAndInvalidHandles)
{
    const uint32_t manual = SMEventCreate(nullptr, 1, 0), automatic = SMEventCreate("auto", 0, 0),
                   initially = SMEventCreate(nullptr, 0, 1), mutex = SMMutexCreate(nullptr);
    // Manual: stays signalled through any number of waits until Reset. Automatic: consumed by one wait;
    // setting a signalled event does not count.
    EXPECT_EQ((V{SMEventWait(manual, 0), SMEventSet(manual), SMEventWait(manual, 0), SMEventWait(manual, -1),
                 vornhost_event_state(manual), SMEventReset(manual), vornhost_event_state(manual),
                 SMEventWait(manual, 0), SMEventSet(automatic), SMEventSet(automatic), SMEventWait(automatic, 0),
                 SMEventWait(automatic, 0), vornhost_event_state(automatic), SMEventWait(initially, 0),
                 SMEventWait(initially, 0), SMEventWait(manual, -5)}),
              (V{kTimeout, 0, 0, 0, 1, 0, 0, kTimeout, 0, 0, 0, kTimeout, 0, 0, kTimeout, kArg}));
    const auto start = Clock::now();
    EXPECT_EQ((V{SMEventWait(manual, 60), SMEventDestroy(manual), SMEventDestroy(initially)}), (V{kTimeout, 0, 0}));
    EXPECT_GE(Clock::now() - start, 55ms);
    for (const uint32_t bad : {0u, 0x10FFFFFFu, manual, mutex}) {
        EXPECT_EQ((V{SMEventSet(bad), SMEventReset(bad), SMEventWait(bad, 0), SMEventDestroy(bad)}), V(4, kHandle))
            << bad;
    }
    EXPECT_EQ((V{SMMutexDestroy(mutex), SMEventDestroy(automatic)}), (V{0, 0}));
}

// ---- concurrency (also run under drd) ----------------------------------------------

TEST_F(VornhostConcurrency, MutexExcludesOtherThreadsAndTraceLinesStayWhole)
{
    const uint32_t h = SMMutexCreate("counter");
    int counter = 0;  // guarded by h only
    vornhost_trace_capture(1);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 200; ++i) {
                    if (SMMutexLock(h, -1) == 0) {
                        ++counter;
                        SMMutexUnLock(h);
                    }
                    if (i < 50) {
                        vornprintf(4, 15, "thread %d line %d\n", t, i);
                    }
                }
            });
        }
    }
    const Lines lines = rtvox::test::trace_lines();
    EXPECT_EQ((V{counter, rtvox::test::trace_count("L4 thread "), SMMutexDestroy(h)}), (V{800, 200, 0}));
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 200u);  // none lost, none merged
}

TEST_F(VornhostConcurrency, SetReleasesWaitersAndDestroyRefusesThem)
{
    const uint32_t manual = SMEventCreate(nullptr, 1, 0), automatic = SMEventCreate(nullptr, 0, 0),
                   mutex = SMMutexCreate(nullptr);
    ASSERT_EQ(SMMutexLock(mutex, -1), 0);
    std::atomic<int> ok{0}, refused{0};  // waits that went through / were refused with VORNHOST_E_HANDLE
    {
        std::vector<std::jthread> threads;
        for (const uint32_t h : {manual, manual, manual, automatic, automatic, mutex}) {
            threads.emplace_back([&, h] {
                const int32_t rc = h == mutex ? SMMutexLock(h, 20000) : SMEventWait(h, 20000);
                ++(rc == 0 ? ok : refused);
                EXPECT_TRUE(rc == 0 || rc == VORNHOST_E_HANDLE) << rc;
            });
        }
        ASSERT_TRUE(eventually([&] {
            return vornhost_event_waiters(manual) == 3 && vornhost_event_waiters(automatic) == 2 &&
                   vornhost_mutex_waiters(mutex) == 1;
        }));
        // Every thread waiting at a manual Set goes, even when a Reset follows at once; an automatic Set frees one.
        EXPECT_EQ((V{SMEventSet(manual), SMEventReset(manual), SMEventSet(automatic)}), (V{0, 0, 0}));
        ASSERT_TRUE(eventually([&] { return ok == 4; }));
        // Destroying releases the remaining waiters with an error; the owner's later unlock is refused.
        EXPECT_EQ((V{vornhost_event_waiters(automatic), vornhost_event_state(automatic), SMEventDestroy(automatic),
                     SMMutexDestroy(mutex), SMEventDestroy(manual)}),
                  (V{1, 0, 0, 0, 0}));
    }
    EXPECT_EQ((V{ok, refused, SMMutexUnLock(mutex)}), (V{4, 2, kHandle}));
}

TEST_F(VornhostConcurrency, HotPlugCallsTheCallbackOnAThreadOfItsOwn)
{
    // What the callback saw: its thread; bay count, drive 0 state and a read made from the callback.
    static std::thread::id seen_thread;
    static V seen;
    static uint32_t session;
    session = VornBpApiOpenExec(
        [](void *info) -> int32_t {
            const auto *bytes = static_cast<const uint8_t *>(info);
            uint8_t again[VORNHOST_BP_INFO_SIZE];
            seen_thread = std::this_thread::get_id();
            seen = V{bytes[2], bytes[252] | bytes[253] << 8, VornBpApiReadExec(session, again, "", "", 1)};
            return 42;
        },
        0, "t.c", "test", 1, 0);
    const uint32_t plain = VornBpApiOpenExec(nullptr, 0, nullptr, nullptr, 2, 0);
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {}, now[VORNHOST_BP_INFO_SIZE];
    const VornHostBpDrive drive{1, 0x30, 0, 4, 0, 4, 0x0105};
    // Only the session with a callback is called, after the record is stored.
    EXPECT_EQ((V{vornhost_bp_info_set_counts(record, 1, 1, 1, 0), vornhost_bp_info_set_drive(record, 0, &drive),
                 vornhost_bp_info_set_drive(record, 32, &drive), vornhost_bp_session_has_callback(session),
                 vornhost_bp_session_has_callback(plain), vornhost_bp_hotplug(nullptr), vornhost_bp_hotplug(record),
                 vornhost_bp_hotplug_wait(20000), vornhost_bp_hotplug_done(), vornhost_bp_hotplug_last_result()}),
              (V{0, 0, kArg, 1, 0, -1, 1, 0, 1, 42}));
    EXPECT_NE(seen_thread, std::this_thread::get_id());
    EXPECT_EQ(seen, (V{1, 0x0105, 0}));
    vornhost_bp_get_info(now);
    EXPECT_EQ((V{std::memcmp(now, record, sizeof now), VornBpApiCloseExec(session, "t.c", "test", 3),
                 VornBpApiCloseExec(plain, nullptr, nullptr, 4), vornhost_bp_session_has_callback(plain),
                 vornhost_bp_hotplug(record), vornhost_bp_hotplug_wait(0)}),
              (V{0, 0, 0, -1, 0, 0}));
}

// ---- trace, fault injection ----------------------------------------------------------

TEST_F(Vornhost, TraceLevelFilterFileOutputAndCapture)
{
    rtvox::test::TempRoot root;
    const std::string file = root.dir() + "/trace.log";
    setenv("VORN_TRACE_FILE", file.c_str(), 1);
    // The level: the override, else VORN_TRACE_LEVEL (read again when the override is dropped), else 2.
    const auto level = [](const char *env, int32_t override) {
        setenv("VORN_TRACE_LEVEL", env, 1);
        vornhost_trace_set_level(override);
        return vornhost_trace_effective_level();
    };
    EXPECT_EQ((V{level("", -1), level("junk", -1), level("6", 1)}), (V{2, 2, 1}));
    vornhost_reset();  // drops the override
    EXPECT_EQ((V{vornhost_trace_effective_level(), level("3", -1),
                 vornprintf(2, 15, "%s:%s:%u:two\n", "rt_evtq.c", "Put", 12u), vornprintf(3, 7, "three"),
                 vornprintf(4, 15, "four\n")}),
              (V{6, 3, 21, 5, 5}));
    // The variable is read only when the override is set or dropped; a set level counts at once. A dropped
    // line is not formatted: %n, which stores how many characters were formatted, leaves -1.
    const auto ab_line = [](int32_t at) {
        int formatted = -1;
        const int32_t result = vornprintf(at, 15, "ab%n\n", &formatted);
        return V{result, formatted};
    };
    setenv("VORN_TRACE_LEVEL", "6", 1);
    EXPECT_EQ(ab_line(4), (V{0, -1}));
    EXPECT_EQ(ab_line(3), (V{3, 2}));
    vornhost_trace_set_level(4);
    EXPECT_EQ(ab_line(4), (V{3, 2}));
    vornhost_trace_set_level(-1);
    EXPECT_EQ(ab_line(6), (V{3, 2}));
    const std::string written =  // a missing newline is added
        "[L2 C15] rt_evtq.c:Put:12:two\n[L3 C7] three\n[L3 C15] ab\n[L4 C15] ab\n[L6 C15] ab\n";
    EXPECT_EQ(read_file(file), written);
    // Capture keeps every level, even those not written out; failed calls keep nothing.
    vornhost_trace_set_level(0);
    rtvox::test::trace_start();
    const char *volatile null_format = nullptr;
    EXPECT_EQ(vornprintf(1, 15, null_format, 0), -1);
    vornhost_fail(VORNHOST_vornprintf, 0, 1);
    VornHostTraceLine line{};
    EXPECT_EQ((V{vornprintf(1, 15, "lost\n"), vornprintf(6, 15, "x %d\n", 42), vornprintf(1, 15, "y"),
                 vornhost_trace_get(0, &line), line.level, line.category}),
              (V{-1, 5, 1, 0, 6, 15}));
    EXPECT_STREQ(line.text, "x 42\n");
    EXPECT_EQ(rtvox::test::trace_lines(), (Lines{"L6 x 42", "L1 y"}));
    EXPECT_EQ(read_file(file), written);
    vornhost_trace_capture(0);
    vornprintf(1, 15, "after\n");
    const uint32_t kept = vornhost_trace_count();
    vornhost_trace_clear();
    EXPECT_EQ((V{kept, vornhost_trace_get(2, &line), vornhost_trace_count(), vornhost_call_count(VORNHOST_vornprintf)}),
              (V{2, -1, 0, 12}));
}

TEST_F(Vornhost, FaultsFailEveryFunctionWithoutSideEffects)
{
    // `skip` calls go through, the next `count` fail, then calls go through again; clear disarms.
    vornhost_fail(VORNHOST_SMMutexCreate, 1, 2);
    const uint32_t m[4] = {SMMutexCreate(nullptr), SMMutexCreate(nullptr), SMMutexCreate(nullptr),
                           SMMutexCreate(nullptr)};
    vornhost_fail(VORNHOST_SMMutexDestroy, 0, 5);
    vornhost_fail_clear();
    vornhost_fail(VORNHOST_FUNCTION_COUNT, 0, 1);  // ignored
    EXPECT_EQ((V{m[0] != 0, m[1], m[2], m[3] != 0, vornhost_call_count(VORNHOST_SMMutexCreate), SMMutexDestroy(m[0]),
                 SMMutexDestroy(m[3]), vornhost_call_count(VORNHOST_FUNCTION_COUNT)}),
              (V{1, 0, 0, 1, 4, 0, 0, 0}));
    // A free mutex for Lock/Destroy, a held one for UnLock; a clear automatic event for Set and a signalled
    // one (which a wait that went through would clear) for Reset/Wait/Destroy.
    const uint32_t free_mutex = SMMutexCreate(nullptr), held = SMMutexCreate(nullptr);
    const uint32_t clear = SMEventCreate(nullptr, 0, 0), set = SMEventCreate(nullptr, 0, 1);
    const uint32_t session = VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0);
    uint32_t list = 0, out_list = 0x77, len = 7;
    ASSERT_EQ((V{QNIPCLCreateTLVList(&list), SMMutexLock(held, 0)}), (V{0, 0}));
    vornhost_reset();  // call counts back to zero
    vornhost_trace_capture(1);
    uint8_t buf[VORNHOST_BP_INFO_SIZE] = {0x5A};
    char arg[] = "a";
    char *args[] = {arg};
    const auto fails = [&](VornHostFunction fn, int64_t answer, auto call) {
        const auto state = [&] {
            return (V{vornhost_mutex_live_count(), vornhost_mutex_state(free_mutex), vornhost_mutex_state(held),
                      vornhost_event_live_count(), vornhost_event_state(clear), vornhost_event_state(set),
                      vornhost_shm_bytes(3)[0], buf[0], len, out_list, vornhost_tlv_list_count(),
                      vornhost_tlv_list_size(list), vornhost_bp_session_count(), vornhost_bp_write_count(),
                      vornhost_eventlog_count(), vornhost_single_count(), vornhost_ipmi_count(),
                      vornhost_trace_count()});
        };
        const V before = state();
        vornhost_fail(fn, 0, 1);
        EXPECT_EQ((V{call(), vornhost_call_count(fn)}), (V{answer, 1})) << fn;
        EXPECT_EQ(state(), before) << fn;
    };
    fails(VORNHOST_SMMutexCreate, 0, [] { return SMMutexCreate(nullptr); });
    fails(VORNHOST_SMMutexLock, kInjected, [&] { return SMMutexLock(free_mutex, 0); });
    fails(VORNHOST_SMMutexUnLock, kInjected, [&] { return SMMutexUnLock(held); });
    fails(VORNHOST_SMMutexDestroy, kInjected, [&] { return SMMutexDestroy(free_mutex); });
    fails(VORNHOST_SMEventCreate, 0, [] { return SMEventCreate(nullptr, 1, 1); });
    fails(VORNHOST_SMEventSet, kInjected, [&] { return SMEventSet(clear); });
    fails(VORNHOST_SMEventReset, kInjected, [&] { return SMEventReset(set); });
    fails(VORNHOST_SMEventWait, kInjected, [&] { return SMEventWait(set, 0); });
    fails(VORNHOST_SMEventDestroy, kInjected, [&] { return SMEventDestroy(set); });
    fails(VORNHOST_vornprintf, -1, [] { return vornprintf(1, 15, "x\n"); });
    fails(VORNHOST_Vorn_shm_memread, kInjected, [&] { return Vorn_shm_memread(3, buf, 0, 4); });
    fails(VORNHOST_Vorn_shm_memwrite, kInjected, [&] { return Vorn_shm_memwrite(3, buf, 0, 4); });
    fails(VORNHOST_VornBpApiOpenExec, 0, [] { return VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0); });
    fails(VORNHOST_VornBpApiReadExec, kInjected, [&] { return VornBpApiReadExec(session, buf, "f", "g", 1); });
    fails(VORNHOST_VornBpApiWriteExec, kInjected, [&] { return VornBpApiWriteExec(session, 1, buf, "f", "g", 1); });
    fails(VORNHOST_VornBpApiCloseExec, kInjected, [&] { return VornBpApiCloseExec(session, "f", "g", 1); });
    fails(VORNHOST_QNIPCLBuildMsgArgsBuffer, kInjected, [&] { return QNIPCLBuildMsgArgsBuffer(args, 1, buf, &len); });
    fails(VORNHOST_QNIPCLCreateTLVList, kInjected, [&] { return QNIPCLCreateTLVList(&out_list); });
    fails(VORNHOST_QNIPCLAddTLVToList, kInjected, [&] { return QNIPCLAddTLVToList(6, 1, buf, list); });
    fails(VORNHOST_QNIPCLFreeTLVList, kInjected, [&] { return QNIPCLFreeTLVList(list); });
    fails(VORNHOST_QNIPCLSubmitEvent, kInjected, [] { return QNIPCLSubmitEvent(4, 2, 1, "CTL97", 0, nullptr, 0); });
    fails(VORNHOST_QNIPCLSubmitSingle, kInjected, [&] { return QNIPCLSubmitSingle(buf, 2, 0); });
    fails(VORNHOST_ConvertFQDDToFriendlyName, 0, [] { return ConvertFQDDToFriendlyName("RAID.Slot.3-1") != nullptr; });
    fails(VORNHOST_IPMI_DoIPMICmd, kInjected, [&] { return IPMI_DoIPMICmd(0x30, 0xD5, buf, 2, nullptr, nullptr); });
    for (int fn = 0; fn < VORNHOST_FUNCTION_COUNT; ++fn) {
        EXPECT_EQ(vornhost_call_count(static_cast<VornHostFunction>(fn)), 1u) << fn;  // none left out above
    }
    EXPECT_EQ((V{SMMutexDestroy(free_mutex), SMMutexUnLock(held), SMMutexDestroy(held), SMEventDestroy(clear),
                 SMEventDestroy(set), VornBpApiCloseExec(session, "f", "g", 1), QNIPCLFreeTLVList(list)}),
              V(7, 0));
}

// ---- shared memory ---------------------------------------------------------------

TEST_F(Vornhost, ShmIsBoundCheckedInPrivateAndPosixModes)
{
    const uint8_t data[4] = {1, 2, 3, 4};
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ((V{vornhost_shm_get_mode(), vornhost_shm_size(3), vornhost_shm_size(15), vornhost_shm_size(20),
                 vornhost_shm_size(26), vornhost_shm_size(55), vornhost_shm_size(4), vornhost_shm_bytes(16) == nullptr,
                 vornhost_shm_zero(99)}),
              (V{VORNHOST_SHM_PRIVATE, 5342, 65536, 325, 11444, 526, 0, 1, kNodev}));
    // offset + length may reach the end of the region, not pass it nor wrap; checked before a byte moves.
    EXPECT_EQ(
        (V{Vorn_shm_memwrite(55, data, 522, 4), Vorn_shm_memread(55, out, 523, 4), Vorn_shm_memwrite(55, data, 523, 4),
           Vorn_shm_memread(55, out, 0xFFFFFFF0u, 0x20), Vorn_shm_memwrite(55, data, 4, 0xFFFFFFFFu),
           Vorn_shm_memread(55, out, 527, 0), Vorn_shm_memread(55, out, 526, 0), Vorn_shm_memread(55, nullptr, 0, 1),
           Vorn_shm_memread(4, out, 0, 1), Vorn_shm_memwrite(0, data, 0, 1), out[0], Vorn_shm_memread(55, out, 522, 4),
           std::memcmp(out, data, 4)}),
        (V{0, kRange, kRange, kRange, kRange, kRange, 0, kArg, kNodev, kNodev, 0xEE, 0, 0}));
    const uint8_t *region = vornhost_shm_bytes(55);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ((V{region[521], region[522], region[525], Vorn_shm_memwrite(20, data, 6, 3), vornhost_shm_zero(20),
                 vornhost_shm_bytes(20)[7], region[522]}),
              (V{0, 1, 4, 0, 0, 0, 1}));
    vornhost_reset();
    EXPECT_EQ(region[522], 0);

    // POSIX mode: whoever opens the object's name sees the bytes and can change them; the private buffer does not.
    const std::string prefix = "vornhost-test-" + std::to_string(getpid());
    char name[256];
    EXPECT_EQ((V{vornhost_shm_set_mode(VORNHOST_SHM_POSIX, "a/b"), vornhost_shm_set_mode(VORNHOST_SHM_POSIX, ""),
                 vornhost_shm_set_mode(VORNHOST_SHM_POSIX, prefix.c_str()), vornhost_shm_get_mode(),
                 vornhost_shm_object_name(20, name, 4), vornhost_shm_object_name(20, name, sizeof name),
                 Vorn_shm_memwrite(20, data, 322, 3)}),
              (V{kArg, kArg, 0, VORNHOST_SHM_POSIX, kNoSpace, 0, 0}));
    EXPECT_EQ(name, "/" + prefix + "-20");
    const int fd = shm_open(name, O_RDWR, 0);
    auto *other = static_cast<uint8_t *>(mmap(nullptr, 325, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    ASSERT_NE(other, MAP_FAILED);
    other[0] = 0x5A;
    EXPECT_EQ((V{std::memcmp(other + 322, data, 3), munmap(other, 325), Vorn_shm_memread(20, out, 0, 1), out[0],
                 vornhost_shm_unlink(), shm_open(name, O_RDONLY, 0),
                 vornhost_shm_set_mode(VORNHOST_SHM_PRIVATE, nullptr), vornhost_shm_bytes(20)[322]}),
              (V{0, 0, 0, 0x5A, 0, -1, 0, 0}));
}

// ---- backplane ----------------------------------------------------------------------

TEST_F(Vornhost, BackplaneSessionsJournalScriptsAndErrorTexts)
{
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {}, read[VORNHOST_BP_INFO_SIZE] = {};
    const VornHostBpBay bay{0, 0x1234, 0, 0, {}, 1, 0, 0, 0, 0, 8, 0, 0, 0, 0, 0x15, {0, 0, 0xAB}};
    const VornHostBpRiser riser{1, 1, 4, 3, 2};
    // Little-endian, unaligned, at the documented offsets; an index past the maximum is refused.
    EXPECT_EQ((V{vornhost_bp_info_set_counts(record, 1, 0, 0, 1), vornhost_bp_info_set_bay(record, 0, &bay),
                 vornhost_bp_info_set_riser(record, 2, &riser), vornhost_bp_info_set_bay(record, 4, &bay),
                 vornhost_bp_info_set_riser(record, 3, &riser), vornhost_bp_info_set_counts(nullptr, 1, 1, 1, 1),
                 record[2], record[6], record[9], record[10], record[22], record[37], record[46], record[49],
                 record[734], record[735], record[736]}),
              (V{0, 0, 0, kArg, kArg, kArg, 1, 1, 0x34, 0x12, 1, 8, 0x15, 0xAB, 4, 3, 2}));
    vornhost_bp_set_info(record);
    const uint32_t h = VornBpApiOpenExec(nullptr, 0, "rt_shm.c", "BlinkNVMeSSD", 10, 0);
    const uint8_t blink[4] = {0x01, 0x04, 0x08, 0x00};
    VornHostBpWrite w{};
    // Writes are journaled, an unsupported type without bytes; refused calls are not.
    EXPECT_EQ(
        (V{h >> 28, vornhost_bp_session_count(), VornBpApiReadExec(h, read, "f", "f", 11),
           std::memcmp(read, record, sizeof read), VornBpApiReadExec(h, nullptr, "f", "f", 11),
           VornBpApiWriteExec(h, 1, blink, "f", "BlinkNVMeSSD", 12), VornBpApiWriteExec(h, 7, blink, "f", "f", 13),
           VornBpApiWriteExec(h, 1, nullptr, "f", "f", 14), vornhost_bp_write_get(0, &w), w.handle, w.writeType,
           w.status, w.length, std::memcmp(w.bytes, blink, 4), w.line}),
        (V{2, 1, 0, 0, kArg, 0, kUnsupported, kArg, 0, h, 1, 0, 4, 0, 12}));
    EXPECT_STREQ(w.function, "BlinkNVMeSSD");
    EXPECT_EQ((V{vornhost_bp_write_get(1, &w), w.writeType, w.status, w.length, vornhost_bp_write_count()}),
              (V{0, 7, kUnsupported, 0, 2}));
    // Scripts: a failing status has no effect but a journaled write; one whose low byte is 0 is a success.
    vornhost_bp_set_status(VORNHOST_BP_OPEN, VORNHOST_E_NODEV, 1);
    vornhost_bp_set_status(VORNHOST_BP_READ, 0x20B, 1);
    vornhost_bp_set_status(VORNHOST_BP_WRITE, 0x100, 0);  // every call
    vornhost_bp_set_status(VORNHOST_BP_CLOSE, VORNHOST_E_BUSY, 1);
    const std::string long_name(70, 'n');
    std::memset(read, 0xEE, sizeof read);
    EXPECT_EQ((V{VornBpApiOpenExec(nullptr, 0, "f", "g", 1, 0), vornhost_bp_session_count(),
                 VornBpApiReadExec(h, read, "f", "g", 1), read[2], VornBpApiReadExec(h, read, "f", "g", 1), read[2],
                 vornhost_bp_set_write_size(9, 10), vornhost_bp_set_write_size(1, 10),
                 vornhost_bp_set_write_size(9, VORNHOST_BP_INFO_SIZE + 1),
                 VornBpApiWriteExec(h, 9, record, "f", long_name.c_str(), 1), vornhost_bp_write_get(2, &w), w.status,
                 w.length, w.bytes[9], static_cast<int64_t>(std::strlen(w.function)),
                 VornBpApiCloseExec(h, "f", "g", 1), vornhost_bp_session_count(), VornBpApiCloseExec(h, "f", "g", 1)}),
              (V{0, 1, 0x20B, 0xEE, 0, 1, 0, kArg, kArg, 0x100, 0, 0x100, 10, 0x34, 63, VORNHOST_E_BUSY, 1, 0}));
    EXPECT_EQ(
        (V{VornBpApiReadExec(h, read, "f", "f", 16), VornBpApiWriteExec(h, 1, blink, "f", "f", 17),
           VornBpApiCloseExec(h, "f", "f", 18), VornBpApiCloseExec(0, nullptr, nullptr, 0), vornhost_bp_write_count()}),
        (V{kHandle, kHandle, kHandle, kHandle, 3}));
    Lines texts;
    for (const uint32_t status : {0u, 1u, 0x305u, 126u, 200u}) {  // the low 8 bits only
        texts.emplace_back(VornBpApiError(status));
    }
    EXPECT_EQ(texts, (Lines{"Success", "Invalid session handle", "Invalid argument", "Fault injected (vornhost)",
                            "Unknown backplane API error"}));
    for (uint32_t s = 0; s < 256; ++s) {
        ASSERT_NE(VornBpApiError(s), nullptr);
    }
    vornhost_reset();
    vornhost_bp_get_info(read);
    EXPECT_EQ((V{read[2], read[735], vornhost_bp_write_count()}), (V{0, 0, 0}));
}

// ---- event log ---------------------------------------------------------------------

TEST_F(Vornhost, EventLogJournalJsonLinesAndMessageArguments)
{
    rtvox::test::TempRoot root;
    const std::string file = root.dir() + "/events.jsonl";
    setenv("VORN_EVENTLOG_FILE", file.c_str(), 1);
    // Message arguments: each string and its NUL. A capacity one byte short answers the length needed and
    // leaves the buffer untouched.
    char a[] = "abc", b[] = "d\"";
    char *args[] = {a, b}, *with_null[] = {a, nullptr};
    uint8_t buf[16];
    std::memset(buf, 0xEE, sizeof buf);
    uint32_t length = 6, big = 200;
    EXPECT_EQ(
        (V{QNIPCLBuildMsgArgsBuffer(args, 2, buf, &length), length, buf[0],
           QNIPCLBuildMsgArgsBuffer(args, 2, buf, &length), length, std::memcmp(buf, "abc\0d\"\0", 7), buf[7],
           QNIPCLBuildMsgArgsBuffer(with_null, 2, buf, &big), big, QNIPCLBuildMsgArgsBuffer(args, 2, buf, nullptr),
           QNIPCLBuildMsgArgsBuffer(args, 2, nullptr, &big), QNIPCLBuildMsgArgsBuffer(nullptr, 1, buf, &big),
           QNIPCLBuildMsgArgsBuffer(nullptr, 0, buf, &big), big}),
        (V{kNoSpace, 7, 0xEE, 0, 7, 0, 0xEE, kArg, 200, kArg, kArg, kArg, 0, 0}));
    // The journal copies the TLVs a list holds at the submit; later changes do not reach it.
    uint32_t list = 0;
    EXPECT_EQ((V{QNIPCLCreateTLVList(&list), list >> 28, vornhost_tlv_list_count(), QNIPCLAddTLVToList(6, 7, buf, list),
                 QNIPCLAddTLVToList(6, 3, nullptr, list), vornhost_tlv_list_size(list),
                 QNIPCLSubmitEvent(4, 2, 3, "PDR16", 0, "RAID.Slot.3-1", list), QNIPCLAddTLVToList(9, 0, nullptr, list),
                 QNIPCLFreeTLVList(list), QNIPCLFreeTLVList(list), QNIPCLAddTLVToList(6, 0, nullptr, list),
                 vornhost_tlv_list_count()}),
              (V{0, 3, 1, 0, kArg, 1, 0, 0, 0, kHandle, kHandle, 0}));
    vornhost_eventlog_set_status(VORNHOST_EVT_SUBMIT_EVENT, 7, 1);
    VornHostEvent e{}, second{}, scratch{};
    VornHostTlv tlv{}, scratch_tlv{};
    EXPECT_EQ((V{QNIPCLSubmitEvent(4, 1, 2, "CTL\n97", 1, nullptr, 0),
                 QNIPCLSubmitEvent(4, 1, 2, nullptr, 0, nullptr, 0), QNIPCLSubmitEvent(4, 1, 2, "X", 0, nullptr, list),
                 QNIPCLCreateTLVList(nullptr), vornhost_eventlog_count(), vornhost_eventlog_get(0, &e), e.category,
                 e.source, e.severity, e.flags, e.status, e.tlvCount, vornhost_eventlog_tlv(0, 0, &tlv), tlv.type,
                 tlv.length, vornhost_eventlog_tlv(0, 1, &scratch_tlv), vornhost_eventlog_get(2, &scratch)}),
              (V{7, kArg, kHandle, kArg, 2, 0, 4, 2, 3, 0, 0, 1, 0, 6, 7, -1, -1}));
    ASSERT_EQ(vornhost_eventlog_get(1, &second), 0);
    EXPECT_EQ((V{second.flags, second.status, second.tlvCount, second.fqdd == nullptr}), (V{1, 7, 0, 1}));
    EXPECT_EQ((Lines{e.msgId, e.fqdd, std::string(reinterpret_cast<const char *>(tlv.value), 7), second.msgId}),
              (Lines{"PDR16", "RAID.Slot.3-1", std::string("abc\0d\"", 7), "CTL\n97"}));
    // Single records: kind 2 is 16 bytes, other kinds only once given a size.
    const uint8_t record[16] = {16, 0, 0, 0, 0x29, 0x04, 2, 0};
    EXPECT_EQ(
        (V{QNIPCLSubmitSingle(record, 2, 0), QNIPCLSubmitSingle(record, 5, 0), vornhost_eventlog_set_single_size(5, 8),
           vornhost_eventlog_set_single_size(2, 8), QNIPCLSubmitSingle(nullptr, 2, 0)}),
        (V{0, kUnsupported, 0, kArg, kArg}));
    vornhost_eventlog_set_status(VORNHOST_EVT_SUBMIT_SINGLE, -9, 1);
    VornHostSingle s{};
    EXPECT_EQ(
        (V{QNIPCLSubmitSingle(record, 5, 1), vornhost_single_count(), vornhost_single_get(0, &s), s.kind, s.length,
           std::memcmp(s.bytes, record, 16), vornhost_single_get(1, &s), s.kind, s.length, s.status, s.flags}),
        (V{-9, 2, 0, 2, 16, 0, 0, 5, 8, -9, 1}));
    vornhost_eventlog_clear();
    EXPECT_EQ((V{vornhost_eventlog_count(), vornhost_single_count()}), (V{0, 0}));
    EXPECT_EQ(
        rtvox::test::split_lines(read_file(file)),
        (Lines{"{\"type\":\"event\",\"category\":4,\"source\":2,\"severity\":3,\"msgId\":\"PDR16\",\"flags\":0,"
               "\"fqdd\":\"RAID.Slot.3-1\",\"status\":0,\"tlvs\":[{\"type\":6,\"length\":7,"
               "\"hex\":\"61626300642200\",\"args\":[\"abc\",\"d\\\"\"]}]}",
               "{\"type\":\"event\",\"category\":4,\"source\":1,\"severity\":2,\"msgId\":\"CTL\\n97\",\"flags\":1,"
               "\"fqdd\":null,\"status\":7,\"tlvs\":[]}",
               "{\"type\":\"single\",\"kind\":2,\"flags\":0,\"status\":0,\"length\":16,"
               "\"hex\":\"10000000290402000000000000000000\"}",
               "{\"type\":\"single\",\"kind\":5,\"flags\":1,\"status\":-9,\"length\":8,"
               "\"hex\":\"1000000029040200\"}"}));
}

// ---- friendly names, IPMI ----------------------------------------------------------------

TEST_F(Vornhost, FriendlyNamesOfTheDocumentedFormsAndNullForTheRest)
{
    const std::pair<const char *, const char *> cases[] = {
        {"Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.3", "PCIe SSD in Slot 4 in Bay 1"},
        {"Enclosure.Internal.0-2", "Backplane 2"},
        {"Enclosure.Internal.0-1:PCIeExtender.Slot.3", "Backplane 1 on PCIe Extender in Slot 3"},
        {"PCIeExtender.Slot.5", "PCIe Extender in Slot 5"},
        {"RAID.Embedded.2-1", "Embedded RAID Controller 2"},  // the other controllers appear as [ctrl] below
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
        EXPECT_STREQ(name, expected) << fqdd;
        free(name);
    }
    const char *const unknown[] = {"",
                                   "RAID.Integrated.1",
                                   "raid.integrated.1-1",
                                   "RAID.Integrated.1-1:",
                                   "Disk.Bay.x",
                                   "Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1:extra",
                                   "Disk.Bay.1234567890:Enclosure.Internal.0-1",
                                   "Enclosure.Internal.0-1:Disk.Bay.1",
                                   "Enclosure.Internal.-1",
                                   "PCIeExtender.Slot.3 ",
                                   "CPU.Socket.1",
                                   nullptr};
    for (const char *fqdd : unknown) {
        EXPECT_EQ(ConvertFQDDToFriendlyName(fqdd), nullptr) << fqdd;
    }
    EXPECT_EQ(vornhost_call_count(VORNHOST_ConvertFQDDToFriendlyName), std::size(cases) + std::size(unknown));
}

TEST_F(Vornhost, IpmiJournalsRequestsAndAnswersTheScript)
{
    const uint8_t request[20] = {0, 0x14, 0x0E, 0, 0, 0, 0x0E, 0, 1, 5, 8, 0}, answer[3] = {0x00, 0xAA, 0xBB};
    uint8_t response[10] = {};
    uint32_t none = 0, two = 2, ten = 10;  // capacities; the library passes 0, so nothing may be written
    VornHostIpmiRequest r{};
    EXPECT_EQ((V{IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &none), none, vornhost_ipmi_count(),
                 vornhost_ipmi_get(0, &r), r.netFn, r.cmd, r.length, std::memcmp(r.data, request, 20)}),
              (V{0, 0, 1, 0, 0x30, 0xD5, 20, 0}));
    // A status whose low byte is 0 succeeds: min(capacity, scripted length) bytes are copied.
    ASSERT_EQ(vornhost_ipmi_set_result(0x100, answer, 3, 0), 0);
    EXPECT_EQ((V{IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &two), two, response[1], response[2],
                 IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &ten), ten}),
              (V{0x100, 2, 0xAA, 0, 0x100, 3}));
    // A failing status copies nothing and answers length 0; then the script is used up.
    ASSERT_EQ(vornhost_ipmi_set_result(0xC1, nullptr, 0, 1), 0);
    std::memset(response, 0xEE, sizeof response);
    ten = 10;
    EXPECT_EQ((V{IPMI_DoIPMICmd(0x30, 0xD5, request, 20, response, &ten), ten, response[0],
                 IPMI_DoIPMICmd(0x30, 0xD5, request, 20, nullptr, nullptr), vornhost_ipmi_get(3, &r), r.status,
                 IPMI_DoIPMICmd(0x30, 0xD5, nullptr, 5, nullptr, nullptr),
                 IPMI_DoIPMICmd(0x30, 0xD5, request, VORNHOST_IPMI_MAX_REQUEST + 1, nullptr, nullptr),
                 vornhost_ipmi_count(), vornhost_ipmi_set_result(0, nullptr, 4, 0)}),
              (V{0xC1, 0, 0xEE, 0, 0, 0xC1, kArg, kArg, 5, kArg}));
    vornhost_reset();
    EXPECT_EQ(vornhost_ipmi_count(), 0u);
}

}  // namespace

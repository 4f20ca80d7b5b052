// The event queue, one thread at a time (plus single blocked consumers):
// results, ownership of records, trace lines and every failure path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "rtvox/platform.h"
#include "rtvox/rt_evtq.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

using namespace std::chrono_literals;

MctpClientCallbackEvent record(uint32_t type, uint32_t size = 0, uint8_t first = 0)
{
    MctpClientCallbackEvent event{};
    event.callbackType = type;
    event.bufferSize = size;
    event.buffer[0] = first;
    return event;
}

// An endpoint-table record with `size` payload bytes 1, 2, 3 ..., on the heap
// (the queue takes it over).
MctpClientCallbackEvent *table_record(uint32_t size)
{
    auto *event = static_cast<MctpClientCallbackEvent *>(std::calloc(1, 8 + size));
    event->callbackType = MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE;
    event->bufferSize = size;
    for (uint32_t i = 0; i < size; ++i) {
        event->buffer[i] = static_cast<uint8_t>(i + 1);
    }
    return event;
}

// Marks the memory allocated while it lives as leaked on purpose (the queue
// loses it by design), so the leak checker of sanitizer builds accepts it.
#if defined(__SANITIZE_ADDRESS__)
using ExpectedLeaks = __lsan::ScopedDisabler;
#else
struct ExpectedLeaks {
    ExpectedLeaks() {}   // NOLINT: user-provided, so an unused guard draws no warning
    ~ExpectedLeaks() {}  // NOLINT
};
#endif

std::string bytes_of(const void *p, size_t n)
{
    return {static_cast<const char *>(p), n};
}

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

// Frees whatever a test left queued, without the library.
void abandon_queue()
{
    if (gpRtraid_EventQueue == nullptr) {
        return;
    }
    for (RtraidEventQueueNode *node = gpRtraid_EventQueue->head; node != nullptr;) {
        RtraidEventQueueNode *next = node->next;
        std::free(node->event);
        std::free(node);
        node = next;
    }
    gpRtraid_EventQueue->head = nullptr;
    rtraid_EventQueue_Destroy();
}

// A Get on its own thread; it must finish within the bound or the test fails
// (and a rescue Put releases the thread so the test never hangs).
class BackgroundGet {
public:
    BackgroundGet() : result_(std::async(std::launch::async, [] { return rtraid_EventQueue_Get(); })) {}
    ~BackgroundGet() { std::free(take(5s)); }
    BackgroundGet(const BackgroundGet &) = delete;
    BackgroundGet &operator=(const BackgroundGet &) = delete;

    bool finishes_within(std::chrono::milliseconds bound) const
    {
        return result_.wait_for(bound) == std::future_status::ready;
    }
    MctpClientCallbackEvent *take(std::chrono::milliseconds bound)
    {
        if (!result_.valid()) {
            return nullptr;
        }
        if (!finishes_within(bound)) {
            ADD_FAILURE() << "a Get stayed blocked; releasing it";
            MctpClientCallbackEvent rescue = record(0xDEAD);
            rtraid_EventQueue_Put(&rescue);
        }
        return result_.get();
    }

private:
    std::future<MctpClientCallbackEvent *> result_;
};

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

// Waits (bounded) until `n` threads are blocked on the queue's event.
bool waiters_reach(int n)
{
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (vornhost_event_waiters(gpRtraid_EventQueue->event) < n) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

class EventQueueTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        arm_watchdog(60);
        abandon_queue();
        vornhost_reset();
        alloc_reset();
        trace_start();
    }
    void TearDown() override
    {
        alarm(0);
        alloc_fail_clear();
        vornhost_fail_clear();
        abandon_queue();
    }
    TempRoot root;
};

// A READY queue, traces cleared.
class ReadyQueue : public EventQueueTest {
protected:
    void SetUp() override
    {
        EventQueueTest::SetUp();
        ASSERT_EQ(rtraid_EventQueue_Init(), 0);
        ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
        alloc_reset();  // the header does not count
        trace_start();
    }
};

// ---- life cycle -------------------------------------------------------------

TEST_F(EventQueueTest, EveryCallRefusesWithoutAQueue)
{
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON);
    EXPECT_EQ(rtraid_EventQueue_GetStatus(), -1);
    EXPECT_EQ(static_cast<uint32_t>(rtraid_EventQueue_GetStatus()), 0xFFFFFFFFu);
    EXPECT_EQ(rtraid_EventQueue_SetStatus(1), -1);
    EXPECT_EQ(rtraid_EventQueue_Put(&event), -1);
    EXPECT_EQ(rtraid_EventQueue_Get(), nullptr);
    EXPECT_EQ(rtraid_EventQueue_Destroy(), -1);
    EXPECT_EQ(gpRtraid_EventQueue, nullptr);
    EXPECT_EQ(alloc_calls(), 0u);

    const auto lines = traces();
    EXPECT_THAT(lines, ::testing::Contains("L4 rt_evtq.c:rtraid_EventQueue_Put:#:--> entry  rtraid_EventQueue_Put #"));
    EXPECT_THAT(lines, ::testing::Contains("L2 rt_evtq.c:rtraid_EventQueue_Put:#:<-- exit, EVTQ not initialized yet"));
    EXPECT_THAT(lines,
                ::testing::Contains("L2 rt_evtq.c:rtraid_EventQueue_Get:#:<-- exit, gpRtraid_EventQueue is NULL"));
}

TEST_F(EventQueueTest, InitCreatesAnEmptyQueueThatIsNotReady)
{
    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    ASSERT_NE(gpRtraid_EventQueue, nullptr);
    EXPECT_NE(gpRtraid_EventQueue->mutex, 0u);
    EXPECT_NE(gpRtraid_EventQueue->event, 0u);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
    EXPECT_EQ(rtraid_EventQueue_GetStatus(), 0);
    EXPECT_EQ(alloc_live_bytes(), 16);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexCreate), 1u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventCreate), 1u);

    // Not READY: Get answers at once, without waiting, even with entries queued.
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF);
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    trace_start();
    EXPECT_EQ(rtraid_EventQueue_Get(), nullptr);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventWait), 0u);
    EXPECT_THAT(traces(), ElementsAre("L4 rt_evtq.c:rtraid_EventQueue_Get:#:--> entry  rtraid_EventQueue_Get #",
                                      "L2 rt_evtq.c:rtraid_EventQueue_Get:#:check for the status",
                                      "L2 rt_evtq.c:rtraid_EventQueue_Get:#:<-- exit, EVTQ is not READY"));
}

TEST_F(EventQueueTest, InitFailuresLeaveNothingBehind)
{
    alloc_fail(0, 1);
    EXPECT_EQ(rtraid_EventQueue_Init(), -1);
    EXPECT_EQ(gpRtraid_EventQueue, nullptr);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexCreate), 0u);

    vornhost_fail(VORNHOST_SMMutexCreate, 0, 1);
    EXPECT_EQ(rtraid_EventQueue_Init(), -1);
    EXPECT_EQ(gpRtraid_EventQueue, nullptr);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventCreate), 0u);
    EXPECT_TRUE(trace_has(1, "<-- rtraid_EventQueue_Init failed to create mutex"));

    const uint32_t mutexes = vornhost_mutex_live_count();
    vornhost_fail(VORNHOST_SMEventCreate, 0, 1);
    EXPECT_EQ(rtraid_EventQueue_Init(), -1);
    EXPECT_EQ(gpRtraid_EventQueue, nullptr);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexDestroy), 1u);
    EXPECT_EQ(vornhost_mutex_live_count(), mutexes);
    EXPECT_TRUE(trace_has(1, "<-- rtraid_EventQueue_Init failed to create event"));

    // Nothing was half-made: a later Init works.
    EXPECT_EQ(rtraid_EventQueue_Init(), 0);
}

TEST_F(EventQueueTest, SecondInitReplacesTheQueueAndLeaksTheFirst)
{
    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    RtraidEventQueue *first = gpRtraid_EventQueue;
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON);
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);

    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    EXPECT_NE(gpRtraid_EventQueue, first);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
    EXPECT_EQ(alloc_live(), 4);  // first header, its node and record, the new header

    // Tidy up the abandoned queue by hand.
    std::free(first->head->event);
    std::free(first->head);
    SMMutexDestroy(first->mutex);
    SMEventDestroy(first->event);
    std::free(first);
}

TEST_F(EventQueueTest, DestroyAbandonsQueuedEntries)
{
    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET);
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    RtraidEventQueueNode *head = gpRtraid_EventQueue->head;

    EXPECT_EQ(rtraid_EventQueue_Destroy(), 0);
    EXPECT_EQ(gpRtraid_EventQueue, nullptr);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexDestroy), 1u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventDestroy), 1u);
    EXPECT_EQ(alloc_live(), 4);  // two nodes, two copies
    EXPECT_EQ(rtraid_EventQueue_GetStatus(), -1);

    for (RtraidEventQueueNode *node = head; node != nullptr;) {
        RtraidEventQueueNode *next = node->next;
        std::free(node->event);
        std::free(node);
        node = next;
    }
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(EventQueueTest, StatusIsStoredUnderTheMutexAndRefusedWithoutIt)
{
    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    vornhost_reset();
    EXPECT_EQ(rtraid_EventQueue_SetStatus(7), 0);
    EXPECT_EQ(rtraid_EventQueue_GetStatus(), 7);
    EXPECT_EQ(rtraid_EventQueue_SetStatus(-5), 0);
    EXPECT_EQ(rtraid_EventQueue_GetStatus(), -5);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexLock), 2u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexUnLock), 2u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventSet), 0u);  // a status change signals nobody

    trace_start();
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    EXPECT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), -1);
    EXPECT_EQ(rtraid_EventQueue_GetStatus(), -5);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexUnLock), 2u);
    EXPECT_THAT(traces(), ElementsAre("L1 rt_evtq.c:rtraid_EventQueue_SetStatus:#:<-- err mutex "
                                      "failrtraid_EventQueue_SetStatus"));
}

// ---- put and get ------------------------------------------------------------

TEST_F(ReadyQueue, RecordsComeOutInOrderAsCopiesOrAsTheTableItself)
{
    MctpClientCallbackEvent power_on = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 3, 0x11);
    MctpClientCallbackEvent *table = table_record(20);
    // A non-table record with a long payload: the copy keeps buffer[0] and the claimed size.
    auto *failed = static_cast<MctpClientCallbackEvent *>(std::calloc(1, 8 + 64));
    failed->callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED;
    failed->bufferSize = 64;
    std::memset(failed->buffer, 0x5A, 64);
    const std::string power_on_bytes = bytes_of(&power_on, 9);

    ASSERT_EQ(rtraid_EventQueue_Put(&power_on), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(table), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(failed), 0);
    std::free(failed);  // the caller still owns a non-table record
    // Live: the table (28 bytes) + three nodes + two 9-byte copies.
    EXPECT_EQ(alloc_live(), 6);
    EXPECT_EQ(alloc_live_bytes(), 28 + 3 * 8 + 2 * 9);
    // The caller's record is untouched and may be reused at once.
    EXPECT_EQ(bytes_of(&power_on, 9), power_on_bytes);
    power_on.buffer[0] = 0x99;

    MctpClientCallbackEvent *first = rtraid_EventQueue_Get();
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first, &power_on);
    EXPECT_EQ(bytes_of(first, 9), power_on_bytes);
    MctpClientCallbackEvent *second = rtraid_EventQueue_Get();
    EXPECT_EQ(second, table);
    MctpClientCallbackEvent *third = rtraid_EventQueue_Get();
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third->callbackType, static_cast<uint32_t>(MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED));
    EXPECT_EQ(third->bufferSize, 64u);
    EXPECT_EQ(third->buffer[0], 0x5A);

    std::free(first);
    std::free(second);
    std::free(third);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
}

TEST_F(ReadyQueue, PutAndGetTraceTheirSteps)
{
    MctpClientCallbackEvent power_on = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 3, 0x11);
    MctpClientCallbackEvent stopped = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED, 3, 0);
    ASSERT_EQ(rtraid_EventQueue_Put(&power_on), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(&stopped), 0);
    auto lines = traces();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], "L4 rt_evtq.c:rtraid_EventQueue_Put:#:--> entry  rtraid_EventQueue_Put #");
    EXPECT_EQ(lines[1], "L2 rt_evtq.c:rtraid_EventQueue_Put:#:pEvent->bufferSize:[3]");
    EXPECT_EQ(lines[2], "L4 rt_evtq.c:rtraid_EventQueue_Put:#:callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON");
    EXPECT_THAT(lines[3], StartsWith("L2 rt_evtq.c:rtraid_EventQueue_Put:#:Head of the node 0x"));
    EXPECT_EQ(lines[4], "L4 rt_evtq.c:rtraid_EventQueue_Put:#:<-- exit  rtraid_EventQueue_Put #");
    // Second put: a zero first payload byte means no size line, and the list is not empty.
    EXPECT_EQ(lines[5], "L4 rt_evtq.c:rtraid_EventQueue_Put:#:--> entry  rtraid_EventQueue_Put #");
    EXPECT_EQ(lines[6],
              "L4 rt_evtq.c:rtraid_EventQueue_Put:#:callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED");
    EXPECT_EQ(lines[7], "L4 rt_evtq.c:rtraid_EventQueue_Put:#:<-- exit  rtraid_EventQueue_Put #");

    trace_start();
    std::free(rtraid_EventQueue_Get());
    std::free(rtraid_EventQueue_Get());
    const char *get = "rt_evtq.c:rtraid_EventQueue_Get:#:";
    auto step = [get](int level, const std::string &text) { return "L" + std::to_string(level) + " " + get + text; };
    lines = traces();
    ASSERT_EQ(lines.size(), 18u);
    const std::vector<std::string> first(lines.begin(), lines.begin() + 9);
    EXPECT_THAT(first, ElementsAre(step(4, "--> entry  rtraid_EventQueue_Get #"), step(2, "check for the status"),
                                   step(2, "got the status"), step(2, "waitOnEvent"), step(2, "Lock the queue"),
                                   step(2, "get the entry of the queue"), step(2, "get the entry next of the queue"),
                                   step(2, "more events to process"), step(4, "<-- exit  rtraid_EventQueue_Get #")));
    EXPECT_EQ(lines[16], step(2, "no more events to process"));

    // The type lines and the entry/exit lines are copied to the log file.
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[rtraid_EventQueue_Put] callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON\n"));
    EXPECT_THAT(log, HasSubstr("[rtraid_EventQueue_Put] --> entry  rtraid_EventQueue_Put "));
    EXPECT_THAT(log, HasSubstr("[rtraid_EventQueue_Get] <-- exit  rtraid_EventQueue_Get "));
    EXPECT_THAT(log, ::testing::Not(HasSubstr("Head of the node")));
}

TEST_F(ReadyQueue, EveryCallbackTypeIsNamedAndUnknownOnesStillQueue)
{
    const std::vector<std::pair<uint32_t, std::string>> expected = {
        {1, "L4 callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON"},
        {2, "L4 callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF"},
        {3, "L4 callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET"},
        {6, "L4 callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED"},
        {8, "L4 callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED"},
        {0, "L2 callbackType:UNKNOWN"},
        {5, "L2 callbackType:UNKNOWN"},
        {7, "L2 callbackType:UNKNOWN"},
        {9, "L2 callbackType:UNKNOWN"},
        {0xFFFFFFFF, "L2 callbackType:UNKNOWN"},
    };
    for (const auto &[type, line] : expected) {
        trace_start();
        MctpClientCallbackEvent event = record(type, 1, 1);
        ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
        const auto lines = traces();
        ASSERT_GE(lines.size(), 3u);
        const std::string level = line.substr(0, 3);
        EXPECT_EQ(lines[2], level + "rt_evtq.c:rtraid_EventQueue_Put:#:" + line.substr(3)) << type;
        MctpClientCallbackEvent *out = rtraid_EventQueue_Get();
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(out->callbackType, type);
        std::free(out);
    }
    trace_start();
    MctpClientCallbackEvent *table = table_record(2);
    ASSERT_EQ(rtraid_EventQueue_Put(table), 0);
    EXPECT_TRUE(trace_has(4, "callbackType:MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE"));
    std::free(rtraid_EventQueue_Get());
}

TEST_F(ReadyQueue, PutRefusesANullRecordAndSurvivesAllocationFailures)
{
    EXPECT_EQ(rtraid_EventQueue_Put(nullptr), -1);
    EXPECT_THAT(traces(), ElementsAre("L4 rt_evtq.c:rtraid_EventQueue_Put:#:--> entry  rtraid_EventQueue_Put #",
                                      "L2 rt_evtq.c:rtraid_EventQueue_Put:#:<-- exit, the incoming event is NULL"));

    MctpClientCallbackEvent kept = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, 7);
    ASSERT_EQ(rtraid_EventQueue_Put(&kept), 0);
    const uint32_t signals = vornhost_call_count(VORNHOST_SMEventSet);

    // The node cannot be had: nothing is queued, nothing leaks.
    alloc_reset();
    alloc_fail(0, 1);
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF);
    EXPECT_EQ(rtraid_EventQueue_Put(&event), -1);
    EXPECT_EQ(alloc_live(), 0);

    // The copy cannot be had: the node leaks (8 bytes), nothing is queued.
    alloc_fail(1, 1);
    {
        const ExpectedLeaks leak;
        EXPECT_EQ(rtraid_EventQueue_Put(&event), -1);
    }
    EXPECT_EQ(alloc_live(), 1);
    EXPECT_EQ(alloc_live_bytes(), 8);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventSet), signals);  // failed puts signal nobody

    // A table record whose node cannot be had stays the caller's.
    alloc_fail_clear();
    MctpClientCallbackEvent *table = table_record(4);
    alloc_fail(0, 1);
    EXPECT_EQ(rtraid_EventQueue_Put(table), -1);
    alloc_fail_clear();
    std::free(table);

    // What was queued before the failures is intact.
    MctpClientCallbackEvent *out = rtraid_EventQueue_Get();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->buffer[0], 7);
    std::free(out);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
}

TEST_F(ReadyQueue, PutWithoutTheLockDropsTheEntryButStillSignals)
{
    vornhost_reset();
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET);
    {
        const ExpectedLeaks leak;
        EXPECT_EQ(rtraid_EventQueue_Put(&event), 0);
    }
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
    EXPECT_EQ(alloc_live(), 2);  // the unlinked node and its copy leak
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventSet), 1u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMMutexUnLock), 1u);
    EXPECT_EQ(vornhost_event_state(gpRtraid_EventQueue->event), 1);

    // The event is signalled over an empty list: a Get wakes at once, finds
    // nothing, clears the event and answers NULL.
    trace_start();
    EXPECT_EQ(rtraid_EventQueue_Get(), nullptr);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventReset), 1u);
    EXPECT_EQ(vornhost_event_state(gpRtraid_EventQueue->event), 0);
    EXPECT_TRUE(trace_has(2, "<-- exit, no entry"));

    // Cleared: the next Get waits for a Put.
    BackgroundGet waiting;
    EXPECT_TRUE(waiters_reach(1));
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    MctpClientCallbackEvent *out = waiting.take(5s);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->callbackType, static_cast<uint32_t>(MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET));
    std::free(out);
}

TEST_F(ReadyQueue, GetTakesTheListEvenWhenItsLockFails)
{
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, 3);
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    MctpClientCallbackEvent *out = rtraid_EventQueue_Get();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->buffer[0], 3);
    std::free(out);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
}

TEST_F(ReadyQueue, LeavingReadyHoldsEntriesBack)
{
    MctpClientCallbackEvent a = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, 1);
    MctpClientCallbackEvent b = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, 2);
    ASSERT_EQ(rtraid_EventQueue_Put(&a), 0);
    ASSERT_EQ(rtraid_EventQueue_SetStatus(0), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(&b), 0);  // Put queues whatever the status
    EXPECT_EQ(rtraid_EventQueue_Get(), nullptr);
    ASSERT_EQ(rtraid_EventQueue_SetStatus(2), 0);
    EXPECT_EQ(rtraid_EventQueue_Get(), nullptr);

    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
    MctpClientCallbackEvent *first = rtraid_EventQueue_Get();
    MctpClientCallbackEvent *second = rtraid_EventQueue_Get();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->buffer[0], 1);
    EXPECT_EQ(second->buffer[0], 2);
    std::free(first);
    std::free(second);
}

TEST_F(ReadyQueue, AGetOnAnEmptyQueueWaitsForTheNextPut)
{
    MctpClientCallbackEvent a = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, 1);
    MctpClientCallbackEvent b = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF, 1, 2);
    MctpClientCallbackEvent c = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET, 1, 3);
    ASSERT_EQ(rtraid_EventQueue_Put(&a), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(&b), 0);
    std::free(rtraid_EventQueue_Get());
    std::free(rtraid_EventQueue_Get());

    EXPECT_EQ(vornhost_event_state(gpRtraid_EventQueue->event), 0);  // cleared with the last entry
    BackgroundGet third;
    EXPECT_TRUE(waiters_reach(1));
    EXPECT_FALSE(third.finishes_within(50ms));
    std::thread producer([&c] { rtraid_EventQueue_Put(&c); });
    producer.join();
    MctpClientCallbackEvent *out = third.take(5s);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->buffer[0], 3);
    std::free(out);
}

TEST_F(ReadyQueue, OnePutWakesEveryWaiterAndOnlyOneGetsTheEntry)
{
    vornhost_reset();
    std::vector<std::unique_ptr<BackgroundGet>> consumers;
    for (int i = 0; i < 3; ++i) {
        consumers.push_back(std::make_unique<BackgroundGet>());
    }
    ASSERT_TRUE(waiters_reach(3));
    trace_start();
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventWait), 3u);
    MctpClientCallbackEvent event = record(MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, 9);
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);

    int delivered = 0;
    int empty = 0;
    for (auto &consumer : consumers) {
        MctpClientCallbackEvent *out = consumer->take(5s);
        if (out == nullptr) {
            ++empty;
        } else {
            ++delivered;
            EXPECT_EQ(out->buffer[0], 9);
            std::free(out);
        }
    }
    EXPECT_EQ(delivered, 1);
    EXPECT_EQ(empty, 2);
    EXPECT_EQ(trace_count("<-- exit, no entry"), 2);
}

}  // namespace

// The event queue: results, ownership of records, trace lines and the
// failure paths, then several producer and consumer threads. The
// *Concurrency suite also runs under drd (i386-valgrind preset), with
// smaller counts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rt_sync_fixtures.h"
#include "rtvox/platform.h"
#include "rtvox/rt_evtq.h"

namespace rtvox::test::sync {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Event = MctpClientCallbackEvent;

const std::string kPut = "rt_evtq.c:rtraid_EventQueue_Put:#:";
const std::string kGet = "rt_evtq.c:rtraid_EventQueue_Get:#:";

// An endpoint-table record with `size` payload bytes 0x5A, on the heap.
Event *table_record(uint32_t size)
{
    auto *event = static_cast<Event *>(std::calloc(1, 8 + size));
    *event = Event{MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE, size, {0}};
    std::memset(event->buffer, 0x5A, size);
    return event;
}

// Starts without a queue.
class EventQueueTest : public ReadyQueue {
protected:
    void SetUp() override { SyncFixture::SetUp(); }
};

// ---- life cycle and status -----------------------------------------------------

TEST_F(EventQueueTest, LifeCycleWithItsFailuresAndKeptLeaks)
{
    const struct {
        VornHostFunction fn;  // VORNHOST_FUNCTION_COUNT: the header allocation fails
        const char *traced;
        std::array<uint32_t, 3> calls;  // mutex creates, event creates, mutex destroys
    } failures[] = {
        {VORNHOST_FUNCTION_COUNT, "allocate the queue", {0, 0, 0}},
        {VORNHOST_SMMutexCreate, "create mutex", {1, 0, 0}},
        {VORNHOST_SMEventCreate, "create event", {1, 1, 1}},
    };
    for (const auto &c : failures) {
        SCOPED_TRACE(c.traced);
        vornhost_reset();
        trace_start();
        if (c.fn == VORNHOST_FUNCTION_COUNT) {
            alloc_fail(0, 1);
        } else {
            vornhost_fail(c.fn, 0, 1);
        }
        EXPECT_EQ((Codes{rtraid_EventQueue_Init(), gpRtraid_EventQueue != nullptr, alloc_live()}), (Codes{-1, 0, 0}));
        EXPECT_EQ((std::array{vornhost_call_count(VORNHOST_SMMutexCreate), vornhost_call_count(VORNHOST_SMEventCreate),
                              vornhost_call_count(VORNHOST_SMMutexDestroy)}),
                  c.calls);
        EXPECT_THAT(
            traces(),
            ElementsAre("L1 rt_evtq.c:rtraid_EventQueue_Init:#:<-- rtraid_EventQueue_Init failed to "s + c.traced));
    }
    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    RtraidEventQueue *first = gpRtraid_EventQueue;
    Event event{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF, 1, {1}};
    // A live, free mutex and a live, clear event. Put queues whatever the status.
    EXPECT_EQ((Codes{vornhost_mutex_state(first->mutex), vornhost_event_state(first->event), first->head != nullptr,
                     alloc_live_bytes(), rtraid_EventQueue_GetStatus(), rtraid_EventQueue_Put(&event)}),
              (Codes{0, 0, 0, 16, 0, 0}));

    // Any status but READY: Get answers at once and leaves the entry; a status change signals nobody.
    vornhost_reset();
    trace_start();
    for (int32_t status : {0, 7, -5}) {
        EXPECT_EQ((Codes{rtraid_EventQueue_SetStatus(status), rtraid_EventQueue_GetStatus(),
                         rtraid_EventQueue_Get() != nullptr, first->head != nullptr}),
                  (Codes{0, status, 0, 1}));
    }
    // Without the mutex the status is refused and stays.
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    EXPECT_EQ((Codes{vornhost_call_count(VORNHOST_SMEventSet), vornhost_call_count(VORNHOST_SMEventWait),
                     trace_count("<-- exit, EVTQ is not READY"), rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY),
                     rtraid_EventQueue_GetStatus(), vornhost_call_count(VORNHOST_SMMutexUnLock)}),
              (Codes{0, 0, 3, -1, -5, 3}));
    EXPECT_THAT(traces(),
                Contains("L1 rt_evtq.c:rtraid_EventQueue_SetStatus:#:<-- err mutex failrtraid_EventQueue_SetStatus"));

    // A second Init replaces the queue without looking at it; Destroy
    // abandons what is queued.
    ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    EXPECT_NE(gpRtraid_EventQueue, first);
    EXPECT_EQ((Codes{gpRtraid_EventQueue->head != nullptr, rtraid_EventQueue_Put(&event), rtraid_EventQueue_Put(&event),
                     alloc_live()}),
              (Codes{0, 0, 0, 8}));  // both headers, three nodes and their copies
    RtraidEventQueueNode *head = gpRtraid_EventQueue->head;
    vornhost_reset();
    trace_start();
    EXPECT_EQ((Codes{rtraid_EventQueue_Destroy(), gpRtraid_EventQueue != nullptr,
                     vornhost_call_count(VORNHOST_SMMutexDestroy), vornhost_call_count(VORNHOST_SMEventDestroy),
                     alloc_live()}),
              (Codes{0, 0, 1, 1, 7}));

    // Without a queue every call refuses.
    const uint32_t allocations = alloc_calls();
    EXPECT_EQ((Codes{rtraid_EventQueue_GetStatus(), rtraid_EventQueue_SetStatus(1), rtraid_EventQueue_Put(&event),
                     rtraid_EventQueue_Get() != nullptr, rtraid_EventQueue_Destroy(), alloc_calls() - allocations}),
              (Codes{-1, -1, -1, 0, -1, 0}));
    EXPECT_THAT(traces(), Contains("L2 " + kPut + "<-- exit, EVTQ not initialized yet"));
    EXPECT_THAT(traces(), Contains("L2 " + kGet + "<-- exit, gpRtraid_EventQueue is NULL"));

    free_list(head);
    free_list(first->head);
    SMMutexDestroy(first->mutex);
    SMEventDestroy(first->event);
    std::free(first);
    EXPECT_EQ(alloc_live(), 0);
}

// ---- put and get ------------------------------------------------------------

TEST_F(ReadyQueue, RecordsComeOutInOrderAsCopiesOrAsTheTableItself)
{
    Event power_on{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 3, {0x11}};
    Event *table = table_record(20);
    // A non-table record with a long payload: the copy keeps buffer[0] and the claimed size.
    Event *failed = table_record(64);
    failed->callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED;
    const std::string power_on_bytes = bytes_of(power_on);  // the copy's, though the caller reuses its record
    ASSERT_EQ(rtraid_EventQueue_Put(&power_on), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(table), 0);
    ASSERT_EQ(rtraid_EventQueue_Put(failed), 0);
    EXPECT_TRUE(trace_has(4, "callbackType:MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE"));
    std::free(failed);  // the caller still owns a non-table record
    // The table (28 bytes), three nodes, two 9-byte copies.
    EXPECT_EQ((Codes{alloc_live(), alloc_live_bytes()}), (Codes{6, 28 + 3 * 8 + 2 * 9}));
    power_on.buffer[0] = 0x99;

    trace_start();
    Event *first = rtraid_EventQueue_Get();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(bytes_of(*first), power_on_bytes);
    EXPECT_THAT(traces(), Contains("L2 " + kGet + "more events to process"));
    EXPECT_EQ(vornhost_event_state(gpRtraid_EventQueue->event), 1);
    Event *second = rtraid_EventQueue_Get();
    EXPECT_EQ(second, table);
    Event *third = rtraid_EventQueue_Get();
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(bytes_of(*third), "\x06\0\0\0\x40\0\0\0\x5A"s);
    EXPECT_THAT(traces(), Contains("L2 " + kGet + "no more events to process"));
    EXPECT_EQ(vornhost_event_state(gpRtraid_EventQueue->event), 0);  // cleared with the last entry
    for (Event *out : {first, second, third}) {
        std::free(out);
    }
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
}

TEST_F(ReadyQueue, PutTracesSizeTypeAndHeadAndQueuesUnknownTypes)
{
    const struct {
        uint32_t type, size;
        uint8_t first;
        const char *size_line;  // null: not traced (no size or a zero first byte)
        int level;
        const char *name;
    } cases[] = {
        {1, 3, 0x11, "[3]", 4, "MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON"},
        {2, 0, 0x11, nullptr, 4, "MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF"},
        {3, 5, 0, nullptr, 4, "MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET"},
        {6, 1, 1, "[1]", 4, "MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED"},
        {8, 0xFFFFFFFF, 2, "[4294967295]", 4, "MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED"},
        {0, 1, 1, "[1]", 2, "UNKNOWN"},
        {5, 1, 1, "[1]", 2, "UNKNOWN"},
        {7, 1, 1, "[1]", 2, "UNKNOWN"},
        {9, 1, 1, "[1]", 2, "UNKNOWN"},
        {0xFFFFFFFF, 1, 1, "[1]", 2, "UNKNOWN"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        trace_start();
        Event in{c.type, c.size, {c.first}};
        ASSERT_EQ(rtraid_EventQueue_Put(&in), 0);
        std::vector<std::string> want = {"L4 " + kPut + "--> entry  rtraid_EventQueue_Put #"};
        if (c.size_line != nullptr) {
            want.push_back("L2 " + kPut + "pEvent->bufferSize:" + c.size_line);
        }
        want.push_back("L" + std::to_string(c.level) + " " + kPut + "callbackType:" + c.name);
        auto lines = traces();
        ASSERT_EQ(lines.size(), want.size() + 2);
        EXPECT_THAT(lines[want.size()], StartsWith("L2 " + kPut + "Head of the node 0x"));
        EXPECT_EQ(lines.back(), "L4 " + kPut + "<-- exit  rtraid_EventQueue_Put #");
        lines.resize(want.size());
        EXPECT_EQ(lines, want);
        Event *out = rtraid_EventQueue_Get();
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(bytes_of(*out), bytes_of(in));
        std::free(out);
    }
    // The type lines and the entry/exit lines are copied to the log file.
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[rtraid_EventQueue_Put] callbackType:MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON\n"));
    EXPECT_THAT(log, HasSubstr("[rtraid_EventQueue_Put] --> entry  rtraid_EventQueue_Put "));
    EXPECT_THAT(log, HasSubstr("[rtraid_EventQueue_Get] <-- exit  rtraid_EventQueue_Get "));
    EXPECT_THAT(log, Not(HasSubstr("Head of the node")));
}

TEST_F(ReadyQueue, FaultsInPutLoseOnlyWhatTheyMustAndGetGoesOnWithoutItsLock)
{
    EXPECT_EQ(rtraid_EventQueue_Put(nullptr), -1);
    EXPECT_TRUE(trace_has(2, "<-- exit, the incoming event is NULL"));
    Event kept{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, {7}};
    ASSERT_EQ(rtraid_EventQueue_Put(&kept), 0);
    const uint32_t signals = vornhost_call_count(VORNHOST_SMEventSet);

    Event event{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF, 0, {0}};
    Event *table = table_record(4);
    const struct {
        Event *record;
        uint32_t skip;  // successful allocations before the failing one
        int64_t leaked;
        const char *traced;
    } cases[] = {
        {&event, 0, 0, "node"},
        {&event, 1, 8, "record"},  // the node is kept, as callers rely on
        {table, 0, 0, "node"},     // the table stays the caller's
    };
    for (const auto &c : cases) {
        alloc_reset();
        alloc_fail(c.skip, 1);
        trace_start();
        {
            const KeptLeak leak;
            EXPECT_EQ(rtraid_EventQueue_Put(c.record), -1);
        }
        EXPECT_EQ(alloc_live_bytes(), c.leaked);
        EXPECT_TRUE(trace_has(1, "<-- rtraid_EventQueue_Put failed to allocate a "s + c.traced));
    }
    alloc_fail_clear();
    std::free(table);
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventSet), signals);  // failed puts signal nobody

    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    Event *out = rtraid_EventQueue_Get();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(bytes_of(*out), bytes_of(kept));
    std::free(out);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);

    // Without the lock a Put drops its entry (node and copy leak) but still
    // signals: the next Get wakes, finds nothing, clears the event.
    vornhost_reset();
    alloc_reset();
    trace_start();
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    {
        const KeptLeak leak;
        EXPECT_EQ(rtraid_EventQueue_Put(&event), 0);
    }
    EXPECT_EQ((Codes{gpRtraid_EventQueue->head != nullptr, alloc_live(),
                     vornhost_event_state(gpRtraid_EventQueue->event), rtraid_EventQueue_Get() != nullptr,
                     vornhost_call_count(VORNHOST_SMEventReset), vornhost_event_state(gpRtraid_EventQueue->event)}),
              (Codes{0, 2, 1, 0, 1, 0}));
    EXPECT_TRUE(trace_has(2, "<-- exit, no entry"));
}

TEST_F(ReadyQueue, APutWakesEveryBlockedGetAndOnlyOneGetsTheEntry)
{
    vornhost_reset();
    std::vector<std::future<Event *>> consumers;
    for (int i = 0; i < 3; ++i) {
        consumers.push_back(std::async(std::launch::async, [] { return rtraid_EventQueue_Get(); }));
    }
    ASSERT_TRUE(eventually([] { return vornhost_event_waiters(gpRtraid_EventQueue->event) == 3; }));
    EXPECT_EQ(consumers[0].wait_for(50ms), std::future_status::timeout);
    trace_start();
    Event event{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, 1, {9}};
    ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    int delivered = 0;
    for (auto &consumer : consumers) {
        Event *out = consumer.get();  // bounded by the watchdog
        delivered += out != nullptr ? 1 : 0;
        EXPECT_TRUE(out == nullptr || bytes_of(*out) == bytes_of(event));
        std::free(out);
    }
    EXPECT_EQ((Codes{delivered, trace_count("<-- exit, no entry"), vornhost_call_count(VORNHOST_SMEventWait)}),
              (Codes{1, 2, 3}));
}

// ---- several threads ----------------------------------------------------------

constexpr uint32_t kStopType = 0x5709;  // an unknown type: tells one consumer to finish

// `count` consumer threads; each gets records until a stop record and hands
// the others' tags to take(consumer, tag). Records carry their tag in
// bufferSize, endpoint tables in their 4-byte payload. Empty wake-ups
// (another consumer won the entry) are passed over.
template <typename Take>
std::vector<std::thread> start_consumers(uint32_t count, Take take)
{
    std::vector<std::thread> consumers;
    for (uint32_t c = 0; c < count; ++c) {
        consumers.emplace_back([c, take] {
            Event *event = nullptr;
            do {
                std::free(event);
                event = rtraid_EventQueue_Get();
                uint32_t tag = event == nullptr ? 0 : event->bufferSize;
                if (event != nullptr && event->callbackType == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE) {
                    std::memcpy(&tag, event->buffer, sizeof tag);
                }
                if (event != nullptr && event->callbackType != kStopType) {
                    take(c, tag);
                }
            } while (event == nullptr || event->callbackType != kStopType);
            std::free(event);
        });
    }
    return consumers;
}

void stop_and_join(std::vector<std::thread> &consumers)
{
    Event stop{kStopType, 0, {0}};
    for (size_t i = 0; i < consumers.size(); ++i) {
        EXPECT_EQ(rtraid_EventQueue_Put(&stop), 0);
    }
    for (auto &consumer : consumers) {
        consumer.join();
    }
}

class EventQueueConcurrency : public ReadyQueue {
protected:
    void SetUp() override
    {
        // Thousands of lines per second: keep the log file and the capture out of it.
        root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");
        ReadyQueue::SetUp();
        vornhost_trace_capture(0);
        vornhost_trace_set_level(0);
    }
};

TEST_F(EventQueueConcurrency, ProducersAndConsumersMoveEveryRecordOnceAndInOrder)
{
    constexpr uint32_t kProducers = 4;
    const uint32_t per_producer = (valgrind_run() ? 3000 : 100000) / kProducers;
    // At most 256 records in flight, so the linear append stays cheap.
    std::mutex window_mutex;
    std::condition_variable window_cv;
    uint32_t in_flight = 0;
    std::vector<std::vector<uint32_t>> received(3);
    auto consumers = start_consumers(3, [&](uint32_t c, uint32_t tag) {
        received[c].push_back(tag);
        std::lock_guard lock(window_mutex);
        --in_flight;
        window_cv.notify_all();
    });
    std::vector<uint32_t> put_failures(kProducers, 0);
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            Event own{};  // reused: the queue copies it
            for (uint32_t seq = 0; seq < per_producer; ++seq) {
                std::unique_lock lock(window_mutex);
                window_cv.wait(lock, [&] { return in_flight < 256; });
                ++in_flight;
                lock.unlock();
                const uint32_t tag = p << 24 | seq;
                Event *event = &own;
                if (seq % 4 == 3) {  // an endpoint table, handed over
                    event = static_cast<Event *>(std::calloc(1, 8 + sizeof tag));
                    *event = Event{MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE, sizeof tag, {0}};
                    std::memcpy(event->buffer, &tag, sizeof tag);
                } else {
                    own = Event{1 + seq % 4, tag, {0}};  // power on, power off, LPC reset
                }
                put_failures[p] += rtraid_EventQueue_Put(event) != 0;
            }
        });
    }
    for (auto &producer : producers) {
        producer.join();
    }
    stop_and_join(consumers);

    // Every record exactly once; each consumer sees a producer's records in the order put.
    std::vector<uint32_t> all;
    uint32_t out_of_order = 0;
    for (const auto &tags : received) {
        EXPECT_FALSE(tags.empty()) << "a consumer never got a record";
        std::vector<int64_t> last(256, -1);
        for (const uint32_t tag : tags) {
            out_of_order += static_cast<int64_t>(tag & 0xFFFFFF) <= last[tag >> 24];
            last[tag >> 24] = tag & 0xFFFFFF;
        }
        all.insert(all.end(), tags.begin(), tags.end());
    }
    std::sort(all.begin(), all.end());
    std::vector<uint32_t> expected;
    for (uint32_t p = 0; p < kProducers; ++p) {
        for (uint32_t seq = 0; seq < per_producer; ++seq) {
            expected.push_back(p << 24 | seq);
        }
    }
    EXPECT_EQ(all, expected);
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(put_failures, std::vector<uint32_t>(kProducers, 0));
    // Every node, copy and table record was freed along the way.
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
    EXPECT_EQ(rtraid_EventQueue_Destroy(), 0);
    EXPECT_EQ(alloc_live(), 0);
}

}  // namespace
}  // namespace rtvox::test::sync

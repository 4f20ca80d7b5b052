// The event queue under several producer and consumer threads. These suites
// also run under drd (i386-valgrind preset), with smaller counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "rt_sync_fixtures.h"
#include "rtvox/rt_evtq.h"

namespace rtvox::test::sync {
namespace {

using Event = MctpClientCallbackEvent;
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
    const uint32_t per_producer = (under_valgrind() ? 3000 : 100000) / kProducers;
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

TEST_F(EventQueueConcurrency, BlockedConsumersAreWokenByAPutFromAnotherThread)
{
    const uint32_t rounds = under_valgrind() ? 40 : 400;
    std::mutex mutex;
    std::vector<uint32_t> order;
    auto consumers = start_consumers(2, [&](uint32_t, uint32_t tag) {
        std::lock_guard lock(mutex);
        order.push_back(tag);
    });
    // One record at a time, put only once the one before was taken and both
    // consumers are blocked on the empty queue.
    std::vector<uint32_t> expected;
    for (uint32_t seq = 0; seq < rounds; ++seq) {
        EXPECT_TRUE(eventually([&] {
            std::lock_guard lock(mutex);
            return order.size() == seq && vornhost_event_waiters(gpRtraid_EventQueue->event) == 2;
        })) << seq;
        Event event{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, seq, {1}};
        EXPECT_EQ(rtraid_EventQueue_Put(&event), 0);
        expected.push_back(seq);
    }
    stop_and_join(consumers);
    EXPECT_EQ(order, expected);
}

TEST_F(EventQueueConcurrency, ConsumersOfAQueueThatIsNotReadyTakeNothing)
{
    for (uint32_t seq = 0; seq < 100; ++seq) {
        Event event{MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF, seq, {1}};
        ASSERT_EQ(rtraid_EventQueue_Put(&event), 0);
    }
    // Away from READY: consumers on other threads answer at once and take nothing.
    ASSERT_EQ(rtraid_EventQueue_SetStatus(0), 0);
    std::vector<uint32_t> taken(4, 0);
    std::vector<std::thread> consumers;
    for (uint32_t c = 0; c < 4; ++c) {
        consumers.emplace_back([&taken, c] {
            for (int i = 0; i < 50; ++i) {
                taken[c] += rtraid_EventQueue_Get() != nullptr;
            }
        });
    }
    for (auto &consumer : consumers) {
        consumer.join();
    }
    EXPECT_EQ(taken, std::vector<uint32_t>(4, 0));
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventWait), 0u);
    // Back to READY, everything is still there, in order.
    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
    for (uint32_t seq = 0; seq < 100; ++seq) {
        Event *event = rtraid_EventQueue_Get();
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->bufferSize, seq);
        std::free(event);
    }
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
}

}  // namespace
}  // namespace rtvox::test::sync

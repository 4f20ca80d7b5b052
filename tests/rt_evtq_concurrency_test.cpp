// The event queue under several producer and consumer threads. These suites
// also run under helgrind and drd (i386-valgrind preset), with smaller counts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "rtvox/rt_evtq.h"
#include "rtvox/rtvox.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool under_valgrind()
{
    const char *flag = std::getenv("RTVOX_UNDER_VALGRIND");
    return flag != nullptr && flag[0] == '1';
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

// Records carry (producer, sequence): in the 9-byte copies as bufferSize =
// sequence and buffer[0] = producer + 1; endpoint tables carry both in their
// payload. A stop record (an unknown type) tells one consumer to finish.
constexpr uint32_t kStopType = 0x5709;
constexpr uint8_t kTypes[] = {MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON, MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF,
                              MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET, MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED,
                              MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED};

struct Tag {
    uint32_t producer;
    uint32_t sequence;
};

MctpClientCallbackEvent *table_record(Tag tag)
{
    auto *event = static_cast<MctpClientCallbackEvent *>(std::calloc(1, 8 + sizeof tag));
    event->callbackType = MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE;
    event->bufferSize = sizeof tag;
    std::memcpy(event->buffer, &tag, sizeof tag);
    return event;
}

Tag tag_of(const MctpClientCallbackEvent *event)
{
    Tag tag{};
    if (event->callbackType == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE) {
        std::memcpy(&tag, event->buffer, sizeof tag);
    } else {
        tag.producer = event->buffer[0] - 1u;
        tag.sequence = event->bufferSize;
    }
    return tag;
}

// Keeps at most `limit` records in flight, so the linear append stays cheap
// while producers run ahead of consumers.
class Window {
public:
    explicit Window(uint32_t limit) : limit_(limit) {}
    void acquire()
    {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return in_flight_ < limit_; });
        ++in_flight_;
    }
    void release()
    {
        std::lock_guard lock(mutex_);
        --in_flight_;
        cv_.notify_one();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    uint32_t limit_;
    uint32_t in_flight_ = 0;
};

class EventQueueConcurrency : public ::testing::Test {
protected:
    void SetUp() override
    {
        // Thousands of lines per second: keep the log file out of it.
        root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");
        vornhost_reset();
        vornhost_trace_set_level(0);
        alloc_reset();
        ASSERT_EQ(rtraid_EventQueue_Init(), 0);
    }
    void TearDown() override
    {
        alarm(0);
        if (gpRtraid_EventQueue != nullptr) {
            rtraid_EventQueue_Destroy();
        }
    }
    TempRoot root;
};

TEST_F(EventQueueConcurrency, ProducersAndConsumersMoveEveryRecordOnceAndInOrder)
{
    constexpr uint32_t kProducers = 4;
    constexpr uint32_t kConsumers = 3;
    const uint32_t total = under_valgrind() ? 3000 : 100000;
    const uint32_t per_producer = total / kProducers;
    arm_watchdog(under_valgrind() ? 500 : 90);
    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);

    Window window(256);
    std::vector<std::vector<Tag>> received(kConsumers);
    std::vector<uint32_t> empty_wakeups(kConsumers, 0);
    std::vector<std::thread> consumers;
    for (uint32_t c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&, c] {
            for (;;) {
                MctpClientCallbackEvent *event = rtraid_EventQueue_Get();
                if (event == nullptr) {
                    ++empty_wakeups[c];  // another consumer won the entry
                    continue;
                }
                const bool stop = event->callbackType == kStopType;
                if (!stop) {
                    received[c].push_back(tag_of(event));
                    window.release();
                }
                std::free(event);
                if (stop) {
                    return;
                }
            }
        });
    }
    std::vector<uint32_t> put_failures(kProducers, 0);
    std::vector<std::thread> producers;
    for (uint32_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            MctpClientCallbackEvent own{};  // reused: the queue copies it
            for (uint32_t seq = 0; seq < per_producer; ++seq) {
                window.acquire();
                int32_t rc = 0;
                if (seq % 5 == 4) {
                    rc = rtraid_EventQueue_Put(table_record({p, seq}));
                } else {
                    own.callbackType = kTypes[seq % 5];
                    own.bufferSize = seq;
                    own.buffer[0] = static_cast<uint8_t>(p + 1);
                    rc = rtraid_EventQueue_Put(&own);
                }
                if (rc != 0) {
                    ++put_failures[p];
                }
            }
        });
    }
    for (auto &producer : producers) {
        producer.join();
    }
    MctpClientCallbackEvent stop{};
    stop.callbackType = kStopType;
    for (uint32_t c = 0; c < kConsumers; ++c) {
        ASSERT_EQ(rtraid_EventQueue_Put(&stop), 0);
    }
    for (auto &consumer : consumers) {
        consumer.join();
    }

    for (uint32_t p = 0; p < kProducers; ++p) {
        EXPECT_EQ(put_failures[p], 0u);
    }
    std::vector<std::vector<bool>> seen(kProducers, std::vector<bool>(per_producer, false));
    uint32_t delivered = 0;
    uint32_t duplicates = 0;
    uint32_t out_of_order = 0;
    uint32_t foreign = 0;
    for (uint32_t c = 0; c < kConsumers; ++c) {
        std::vector<int64_t> last(kProducers, -1);
        for (const Tag &tag : received[c]) {
            if (tag.producer >= kProducers || tag.sequence >= per_producer) {
                ++foreign;
                continue;
            }
            ++delivered;
            if (seen[tag.producer][tag.sequence]) {
                ++duplicates;
            }
            seen[tag.producer][tag.sequence] = true;
            // FIFO: each consumer sees one producer's records in the order put.
            if (static_cast<int64_t>(tag.sequence) <= last[tag.producer]) {
                ++out_of_order;
            }
            last[tag.producer] = tag.sequence;
        }
    }
    EXPECT_EQ(foreign, 0u);
    EXPECT_EQ(duplicates, 0u);
    EXPECT_EQ(out_of_order, 0u);
    EXPECT_EQ(delivered, per_producer * kProducers);
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
    for (uint32_t c = 0; c < kConsumers; ++c) {
        EXPECT_FALSE(received[c].empty()) << "consumer " << c << " never got a record";
    }

    // Every node, copy and table record was freed along the way.
    EXPECT_EQ(rtraid_EventQueue_Destroy(), 0);
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(EventQueueConcurrency, BlockedConsumersAreWokenByAPutFromAnotherThread)
{
    constexpr uint32_t kConsumers = 2;
    const uint32_t rounds = under_valgrind() ? 40 : 400;
    arm_watchdog(under_valgrind() ? 300 : 60);
    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);

    // The producer puts one record at a time and waits until a consumer has
    // taken it, so every Put finds the consumers blocked on an empty queue.
    std::mutex mutex;
    std::condition_variable taken_cv;
    std::vector<uint32_t> order;
    std::vector<std::thread> consumers;
    for (uint32_t c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&] {
            for (;;) {
                MctpClientCallbackEvent *event = rtraid_EventQueue_Get();
                if (event == nullptr) {
                    continue;
                }
                const bool stop = event->callbackType == kStopType;
                {
                    std::lock_guard lock(mutex);
                    if (!stop) {
                        order.push_back(event->bufferSize);
                    }
                    taken_cv.notify_all();
                }
                std::free(event);
                if (stop) {
                    return;
                }
            }
        });
    }
    std::thread producer([&] {
        MctpClientCallbackEvent own{};
        own.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON;
        own.buffer[0] = 1;
        for (uint32_t seq = 0; seq < rounds; ++seq) {
            own.bufferSize = seq;
            rtraid_EventQueue_Put(&own);
            std::unique_lock lock(mutex);
            taken_cv.wait(lock, [&] { return order.size() == seq + 1; });
        }
        own.callbackType = kStopType;
        for (uint32_t c = 0; c < kConsumers; ++c) {
            rtraid_EventQueue_Put(&own);
        }
    });
    producer.join();
    for (auto &consumer : consumers) {
        consumer.join();
    }

    ASSERT_EQ(order.size(), rounds);
    for (uint32_t seq = 0; seq < rounds; ++seq) {
        EXPECT_EQ(order[seq], seq);
    }
    // Every record was waited for: at least one wait per Put.
    EXPECT_GE(vornhost_call_count(VORNHOST_SMEventWait), rounds);
}

TEST_F(EventQueueConcurrency, ConsumersOfAQueueThatIsNotReadyTakeNothing)
{
    constexpr uint32_t kEntries = 100;
    constexpr uint32_t kConsumers = 4;
    arm_watchdog(under_valgrind() ? 300 : 60);
    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
    MctpClientCallbackEvent own{};
    own.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF;
    own.buffer[0] = 1;
    for (uint32_t seq = 0; seq < kEntries; ++seq) {
        own.bufferSize = seq;
        ASSERT_EQ(rtraid_EventQueue_Put(&own), 0);
    }
    // Away from READY: consumers on other threads answer at once, take nothing.
    ASSERT_EQ(rtraid_EventQueue_SetStatus(0), 0);
    std::vector<uint32_t> answers(kConsumers, 0);
    std::vector<std::thread> consumers;
    for (uint32_t c = 0; c < kConsumers; ++c) {
        consumers.emplace_back([&answers, c] {
            for (int i = 0; i < 50; ++i) {
                if (rtraid_EventQueue_Get() != nullptr) {
                    ++answers[c];
                }
            }
        });
    }
    for (auto &consumer : consumers) {
        consumer.join();
    }
    for (uint32_t c = 0; c < kConsumers; ++c) {
        EXPECT_EQ(answers[c], 0u);
    }
    EXPECT_EQ(vornhost_call_count(VORNHOST_SMEventWait), 0u);

    // Back to READY, everything is still there, in order.
    ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
    for (uint32_t seq = 0; seq < kEntries; ++seq) {
        MctpClientCallbackEvent *event = rtraid_EventQueue_Get();
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->bufferSize, seq);
        std::free(event);
    }
    EXPECT_EQ(gpRtraid_EventQueue->head, nullptr);
}

}  // namespace

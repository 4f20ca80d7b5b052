// Event queue throughput: Put+Get pairs per second at fixed queue depths.
//
// "depth D" means the queue holds D entries once a Put has appended (D - 1
// are already queued when it walks the list). A producer thread and a
// consumer thread take turns, one record at a time, so the depth stays
// exact; the single-thread figures leave the hand-over out and show the
// linear append on its own, with its cost per queued entry.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include "bench.h"
#include "rtvox/rt_evtq.h"

namespace {

constexpr uint32_t kDepths[] = {1, 100, 10000};

// Hands the turn from one thread to the other. (A mutex and a condition
// variable: the atomic waits behind std::binary_semaphore in this standard
// library sometimes sleep for milliseconds after a release.)
class Turn {
public:
    explicit Turn(bool mine) : mine_(mine) {}
    void take()
    {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return mine_; });
        mine_ = false;
    }
    void give()
    {
        std::lock_guard lock(mutex_);
        mine_ = true;
        cv_.notify_one();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool mine_;
};

MctpClientCallbackEvent power_on()
{
    MctpClientCallbackEvent event{};
    event.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON;
    event.bufferSize = 1;
    event.buffer[0] = 1;
    return event;
}

// A READY queue holding `entries` records; false when it could not be made.
bool ready_queue(uint32_t entries)
{
    if (rtraid_EventQueue_Init() != 0 || rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY) != 0) {
        return false;
    }
    MctpClientCallbackEvent event = power_on();
    for (uint32_t i = 0; i < entries; ++i) {
        if (rtraid_EventQueue_Put(&event) != 0) {
            return false;
        }
    }
    return true;
}

// Takes what is left (Get would block on an empty queue) and destroys the queue.
void drain_and_destroy()
{
    while (gpRtraid_EventQueue != nullptr && gpRtraid_EventQueue->head != nullptr) {
        std::free(rtraid_EventQueue_Get());
    }
    rtraid_EventQueue_Destroy();
}

}  // namespace

RTVOX_BENCH(queue_put_get)
{
    for (const uint32_t depth : kDepths) {
        if (!ready_queue(depth - 1)) {
            std::fprintf(stderr, "queue_put_get: the queue could not be set up\n");
            return;
        }
        Turn may_put(true);
        Turn may_get(false);
        std::atomic<bool> stop{false};
        std::thread producer([&] {
            MctpClientCallbackEvent event = power_on();
            for (;;) {
                may_put.take();
                if (stop.load()) {
                    return;
                }
                rtraid_EventQueue_Put(&event);
                may_get.give();
            }
        });
        const double pairs = bench.rate([&] {
            may_get.take();
            std::free(rtraid_EventQueue_Get());
            may_put.give();
        });
        stop = true;
        may_put.give();
        producer.join();
        drain_and_destroy();
        bench.report("queue put+get depth=" + std::to_string(depth), pairs, "pairs/s");
    }
}

RTVOX_BENCH(queue_put_get_single_thread)
{
    constexpr uint32_t kSingleDepths[] = {1, 100, 1000, 10000};
    double first_pairs = 0;
    double last_pairs = 0;
    for (const uint32_t depth : kSingleDepths) {
        if (!ready_queue(depth - 1)) {
            std::fprintf(stderr, "queue_put_get_single_thread: the queue could not be set up\n");
            return;
        }
        MctpClientCallbackEvent event = power_on();
        const double pairs = bench.rate([&] {
            rtraid_EventQueue_Put(&event);
            std::free(rtraid_EventQueue_Get());
        });
        drain_and_destroy();
        bench.report("queue put+get single thread depth=" + std::to_string(depth), pairs, "pairs/s");
        first_pairs = first_pairs == 0 ? pairs : first_pairs;
        last_pairs = pairs;
    }
    // The append walks every queued entry: the extra time per pair between
    // the shallowest and the deepest queue, spread over the extra entries.
    if (first_pairs > 0 && last_pairs > 0) {
        const double extra_ns = (1e9 / last_pairs - 1e9 / first_pairs) / (10000 - 1);
        bench.report("queue append walk", extra_ns, "ns per queued entry");
    }
}

// Event queue throughput: Put+Get pairs per second, each beside the same
// records passed through a plain std::mutex + std::condition_variable queue
// (std::deque), the queue a user would write instead. Both copy a record's 9
// bytes into a heap block at Put and hand that block to the caller of Get,
// who frees it.
//
// Two threads at depth 1: the consumer blocks in Get until the producer's Put
// wakes it, then lets the producer put the next record; so each pair is one
// wake-up through the queue and one hand-back, the same for both queues. Both
// threads run on one CPU, where each hand-over is a context switch: across
// CPUs of a virtual machine a wake-up costs tens of microseconds or not,
// depending on where the scheduler put the threads, which drowns the queues'
// own work and does not repeat from one run to the next.
//
// One thread at depths 1, 100 and 10,000 ("depth D": D - 1 entries are
// already queued when Put appends): no hand-over, so the append shows on its
// own. The library's append walks the whole list, so its figures fall with
// the depth while the baseline's stay flat.
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "bench.h"
#include "rtvox/platform.h"
#include "rtvox/rt_evtq.h"

namespace {

using rtvox::bench::Bench;
using rtvox::bench::Comparison;

const char *const kBaselineName = "std::mutex + std::condition_variable + std::deque of the same records";
const char *const kAppendRule =
    "Put appends by walking the list from its head (the queue keeps no tail pointer and no count), so one Put "
    "costs time linear in the entries already queued; see \"queue append walk\"";

// Keeps the calling thread on one CPU while it lives, then restores its
// affinity. Does nothing when the affinity cannot be read or set.
class OnCpu {
public:
    explicit OnCpu(int cpu)
    {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        pinned_ = cpu >= 0 && sched_getaffinity(0, sizeof before_, &before_) == 0 &&
                  sched_setaffinity(0, sizeof one, &one) == 0;
    }
    ~OnCpu()
    {
        if (pinned_) {
            sched_setaffinity(0, sizeof before_, &before_);
        }
    }
    OnCpu(const OnCpu &) = delete;
    OnCpu &operator=(const OnCpu &) = delete;

private:
    cpu_set_t before_{};
    bool pinned_ = false;
};

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

// The library's queue, READY, made and destroyed with the object.
class LibraryQueue {
public:
    LibraryQueue() : ready_(rtraid_EventQueue_Init() == 0 && rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY) == 0) {}
    ~LibraryQueue()
    {
        // Get would block on an empty queue: take only what is there.
        while (gpRtraid_EventQueue != nullptr && gpRtraid_EventQueue->head != nullptr) {
            std::free(rtraid_EventQueue_Get());
        }
        rtraid_EventQueue_Destroy();
    }
    LibraryQueue(const LibraryQueue &) = delete;
    LibraryQueue &operator=(const LibraryQueue &) = delete;
    bool ready() const { return ready_; }
    bool put(MctpClientCallbackEvent *event) { return rtraid_EventQueue_Put(event) == 0; }
    MctpClientCallbackEvent *get() { return rtraid_EventQueue_Get(); }

private:
    bool ready_;
};

// The baseline: the same records through a plain locked deque. The consumer
// is notified after the mutex is released; with kNotifyFirst before, in the
// order the library's Put keeps (it signals its event, then unlocks), so the
// woken consumer first waits for the mutex.
template <bool kNotifyFirst>
class PlainQueue {
public:
    ~PlainQueue()
    {
        for (MctpClientCallbackEvent *event : entries_) {
            std::free(event);
        }
    }
    bool ready() const { return true; }
    bool put(const MctpClientCallbackEvent *event)
    {
        auto *copy = static_cast<MctpClientCallbackEvent *>(std::malloc(RTRAID_EVTQ_COPY_SIZE));
        if (copy == nullptr) {
            return false;
        }
        std::memcpy(copy, event, RTRAID_EVTQ_COPY_SIZE);
        std::unique_lock lock(mutex_);
        entries_.push_back(copy);
        if (kNotifyFirst) {
            cv_.notify_one();
        }
        lock.unlock();
        if (!kNotifyFirst) {
            cv_.notify_one();
        }
        return true;
    }
    MctpClientCallbackEvent *get()
    {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return !entries_.empty(); });
        MctpClientCallbackEvent *event = entries_.front();
        entries_.pop_front();
        return event;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<MctpClientCallbackEvent *> entries_;
};

// The library's protocol without the library: the same records in a deque
// behind the platform's mutex and manual-reset event, locked, signalled and
// reset in the library's order, but with no trace call and no list walk. What
// separates it from the baseline is the platform's primitives and that order;
// what separates the library from it is the library's own work.
class PlatformQueue {
public:
    PlatformQueue() : mutex_(SMMutexCreate(nullptr)), event_(SMEventCreate(nullptr, 1, 0)) {}
    ~PlatformQueue()
    {
        for (MctpClientCallbackEvent *event : entries_) {
            std::free(event);
        }
        SMEventDestroy(event_);
        SMMutexDestroy(mutex_);
    }
    PlatformQueue(const PlatformQueue &) = delete;
    PlatformQueue &operator=(const PlatformQueue &) = delete;
    bool ready() const { return mutex_ != 0 && event_ != 0; }
    bool put(const MctpClientCallbackEvent *event)
    {
        auto *copy = static_cast<MctpClientCallbackEvent *>(std::malloc(RTRAID_EVTQ_COPY_SIZE));
        if (copy == nullptr) {
            return false;
        }
        std::memcpy(copy, event, RTRAID_EVTQ_COPY_SIZE);
        SMMutexLock(mutex_, -1);
        entries_.push_back(copy);
        SMEventSet(event_);
        SMMutexUnLock(mutex_);
        return true;
    }
    MctpClientCallbackEvent *get()
    {
        SMEventWait(event_, -1);
        SMMutexLock(mutex_, -1);
        MctpClientCallbackEvent *event = nullptr;
        if (!entries_.empty()) {
            event = entries_.front();
            entries_.pop_front();
        }
        if (entries_.empty()) {
            SMEventReset(event_);
        } else {
            SMEventSet(event_);
        }
        SMMutexUnLock(mutex_);
        return event;
    }

private:
    uint32_t mutex_;
    uint32_t event_;
    std::deque<MctpClientCallbackEvent *> entries_;
};

// Pairs per second between a producer and a consumer thread at depth 1 over
// one round; 0 when the queue could not be made.
template <typename Queue>
double two_threads(const Bench &bench)
{
    Queue queue;
    if (!queue.ready()) {
        return 0;
    }
    const int cpu = sched_getcpu();
    const OnCpu consumer_cpu(cpu);
    Turn may_put(true);
    std::atomic<bool> stop{false};
    std::thread producer([&] {
        const OnCpu producer_cpu(cpu);
        MctpClientCallbackEvent event = power_on();
        for (;;) {
            may_put.take();
            if (stop.load()) {
                return;
            }
            queue.put(&event);
        }
    });
    auto pair = [&] {
        std::free(queue.get());  // blocks until the producer's Put
        may_put.give();
    };
    const double pairs = Bench::run_for(bench.round(), pair);
    stop = true;
    may_put.give();
    producer.join();
    return pairs;
}

// Pairs per second in one thread with depth - 1 entries queued; 0 when the
// queue could not be filled.
template <typename Queue>
double single_thread(const Bench &bench, uint32_t depth)
{
    Queue queue;
    MctpClientCallbackEvent event = power_on();
    if (!queue.ready()) {
        return 0;
    }
    for (uint32_t i = 1; i < depth; ++i) {
        if (!queue.put(&event)) {
            return 0;
        }
    }
    return bench.rate([&] {
        queue.put(&event);
        std::free(queue.get());
    });
}

}  // namespace

RTVOX_BENCH(queue_put_get)
{
    // Rounds of the queues by turns, so that all meet the same machine; the
    // best round of each counts.
    double library = 0;
    double plain = 0;
    double notify_first = 0;
    double platform = 0;
    for (int round = 0; round < Bench::kRounds; ++round) {
        library = std::max(library, two_threads<LibraryQueue>(bench));
        plain = std::max(plain, two_threads<PlainQueue<false>>(bench));
        notify_first = std::max(notify_first, two_threads<PlainQueue<true>>(bench));
        platform = std::max(platform, two_threads<PlatformQueue>(bench));
    }
    if (library == 0) {
        std::fprintf(stderr, "queue_put_get: the queue could not be set up\n");
        return;
    }
    bench.compare({.name = "queue put+get, two threads, depth 1",
                   .value = library,
                   .unit = "pairs/s",
                   .baseline = kBaselineName,
                   .baseline_value = plain,
                   .goal_percent = 50,
                   .rule = "the queue is the platform's mutex and manual-reset event, and Put signals the event "
                           "before it releases the mutex, so the consumer it wakes first waits for the mutex; see "
                           "the two figures below"});
    bench.report("queue put+get, two threads, depth 1, baseline notified before its unlock", notify_first, "pairs/s");
    bench.report(
        "queue put+get, two threads, depth 1, the library's protocol on the platform's mutex and event "
        "without the library",
        platform, "pairs/s");
}

RTVOX_BENCH(queue_put_get_single_thread)
{
    constexpr uint32_t kDepths[] = {1, 100, 10000};
    double shallow = 0;
    double deep = 0;
    for (const uint32_t depth : kDepths) {
        const double library = single_thread<LibraryQueue>(bench, depth);
        const double plain = single_thread<PlainQueue<false>>(bench, depth);
        if (library == 0) {
            std::fprintf(stderr, "queue_put_get_single_thread: the queue could not be set up\n");
            return;
        }
        bench.compare({.name = "queue put+get, one thread, depth " + std::to_string(depth),
                       .value = library,
                       .unit = "pairs/s",
                       .baseline = kBaselineName,
                       .baseline_value = plain,
                       .rule = depth > 1 ? kAppendRule : ""});
        shallow = shallow == 0 ? library : shallow;
        deep = library;
    }
    // What the walk costs: the extra time per pair between the shallowest and
    // the deepest queue, spread over the extra entries walked.
    const double per_entry_ns = (1e9 / deep - 1e9 / shallow) / (kDepths[2] - kDepths[0]);
    bench.report("queue append walk", per_entry_ns, "ns per queued entry");
}

// Fault injection, call counts and vornhost_reset.
//
// Every platform call passes through fault_hit (internal.h), so its common
// case takes no lock and no locked instruction:
//  - Call counts live in per-thread counter blocks. A thread gets a block at
//    its first platform call (under the registry's lock) and is the only
//    writer of it, so a count is a relaxed load and store. When the thread
//    exits, its counts are folded into the registry's totals and the block,
//    zeroed, waits for the next new thread. A count read is the totals plus
//    every block, less the baseline taken by the last reset (a reset cannot
//    store into blocks other threads write), all under the registry's lock;
//    it is exact for calls made before the read from any number of threads,
//    threads that have exited included. A call made after its thread's
//    exit began (thread_local destructors, exit handlers) is added to the
//    totals directly with a locked increment.
//  - Armed faults: one flag per function says a fault is pending; skip and
//    fail are only looked at, under the faults' lock, while it is set.
// Everything here is constant-initialised and trivially destructible, so it
// is there before the first platform call and still there after exit began.
#include <array>
#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "internal.h"

namespace vornhost::detail {

constinit thread_local CallCounters *tl_call_counters = nullptr;
constinit std::array<std::atomic<bool>, VORNHOST_FUNCTION_COUNT> g_fault_armed{};

namespace {

using Counts = std::array<uint32_t, VORNHOST_FUNCTION_COUNT>;

struct Registry {
    std::mutex lock;
    CallCounters *blocks = nullptr;  // never freed
    Counts totals{};                 // calls of exited threads and of threads without a block
    Counts baseline{};               // the sums at the last reset
};

constinit Registry g_registry;
static_assert(std::is_trivially_destructible_v<Registry>);

// Calls of every function since the start: totals plus every block. Under
// g_registry.lock.
Counts sums_locked()
{
    Counts sums = g_registry.totals;
    for (const CallCounters *block = g_registry.blocks; block != nullptr; block = block->next) {
        for (size_t i = 0; i < sums.size(); ++i) {
            sums[i] += block->calls[i].load(std::memory_order_relaxed);
        }
    }
    return sums;
}

// Set once this thread's counters have been handed back: calls made later in
// its exit count straight into the totals.
constinit thread_local bool tl_exited = false;

// Hands the thread's block back when the thread exits.
struct BlockReturn {
    ~BlockReturn()
    {
        CallCounters *block = std::exchange(tl_call_counters, nullptr);
        tl_exited = true;
        if (block == nullptr) {
            return;
        }
        std::lock_guard guard(g_registry.lock);
        for (size_t i = 0; i < block->calls.size(); ++i) {
            g_registry.totals[i] += block->calls[i].load(std::memory_order_relaxed);
            block->calls[i].store(0, std::memory_order_relaxed);
        }
        block->in_use = false;
    }
};

// A free block, or a new one; null when none can be had.
CallCounters *take_block()
{
    std::lock_guard guard(g_registry.lock);
    for (CallCounters *block = g_registry.blocks; block != nullptr; block = block->next) {
        if (!block->in_use) {
            block->in_use = true;
            return block;
        }
    }
    auto *block = new (std::nothrow) CallCounters;
    if (block != nullptr) {
        block->in_use = true;
        block->next = g_registry.blocks;
        g_registry.blocks = block;
    }
    return block;
}

struct Faults {
    std::mutex lock;
    std::array<uint32_t, VORNHOST_FUNCTION_COUNT> skip{};  // guarded by lock
    std::array<uint32_t, VORNHOST_FUNCTION_COUNT> fail{};  // guarded by lock

    // Sets skip and fail of one function; under lock.
    void arm(size_t index, uint32_t skip_calls, uint32_t fail_calls)
    {
        skip[index] = skip_calls;
        fail[index] = fail_calls;
        g_fault_armed[index].store(fail_calls > 0, std::memory_order_relaxed);
    }
};

constinit Faults g_faults;
static_assert(std::is_trivially_destructible_v<Faults>);

bool valid(VornHostFunction fn)
{
    const int index = static_cast<int>(fn);
    return index >= 0 && index < static_cast<int>(VORNHOST_FUNCTION_COUNT);
}

}  // namespace

void count_unregistered(uint32_t index)
{
    if (!tl_exited) {
        thread_local BlockReturn block_return;  // hands the block back at thread exit
        static_cast<void>(block_return);
        tl_call_counters = take_block();
        if (tl_call_counters != nullptr) {
            tl_call_counters->calls[index].store(1, std::memory_order_relaxed);
            return;
        }
    }
    std::lock_guard guard(g_registry.lock);
    ++g_registry.totals[index];
}

bool fault_fires(uint32_t index)
{
    std::lock_guard guard(g_faults.lock);
    if (g_faults.skip[index] > 0) {
        --g_faults.skip[index];
        return false;
    }
    if (g_faults.fail[index] > 0) {
        g_faults.arm(index, 0, g_faults.fail[index] - 1);
        return true;
    }
    return false;
}

void faults_reset()
{
    {
        std::lock_guard guard(g_registry.lock);
        g_registry.baseline = sums_locked();
    }
    vornhost_fail_clear();
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

void vornhost_fail(VornHostFunction fn, uint32_t skip, uint32_t count)
{
    if (!valid(fn)) {
        return;
    }
    std::lock_guard guard(g_faults.lock);
    g_faults.arm(static_cast<size_t>(fn), skip, count);
}

void vornhost_fail_clear(void)
{
    std::lock_guard guard(g_faults.lock);
    for (size_t i = 0; i < VORNHOST_FUNCTION_COUNT; ++i) {
        g_faults.arm(i, 0, 0);
    }
}

uint32_t vornhost_call_count(VornHostFunction fn)
{
    if (!valid(fn)) {
        return 0;
    }
    const auto index = static_cast<size_t>(fn);
    std::lock_guard guard(g_registry.lock);
    return sums_locked()[index] - g_registry.baseline[index];
}

void vornhost_reset(void)
{
    // The backplane first: it waits for hot-plug callbacks, which may still
    // trace or submit while they finish.
    bp_reset();
    trace_reset();
    shm_reset();
    eventlog_reset();
    ipmi_reset();
    faults_reset();
}

}  // extern "C"

// Fault injection, call counts and vornhost_reset.
#include <array>
#include <atomic>
#include <type_traits>

#include "internal.h"

namespace vornhost::detail {
namespace {

// Every platform call passes through here, so the common case (nothing armed)
// is two atomic operations and no lock; skip and fail are only looked at,
// under the lock, while `armed` says a fault is pending.
struct FaultSlot {
    std::atomic<uint32_t> calls{0};
    std::atomic<bool> armed{false};
    uint32_t skip = 0;  // guarded by Faults::lock
    uint32_t fail = 0;  // guarded by Faults::lock

    // Sets skip and fail; under Faults::lock.
    void arm(uint32_t skip_calls, uint32_t fail_calls)
    {
        skip = skip_calls;
        fail = fail_calls;
        armed.store(fail > 0, std::memory_order_relaxed);
    }
};

struct Faults {
    std::mutex lock;
    std::array<FaultSlot, VORNHOST_FUNCTION_COUNT> slots{};
};

// Constant-initialised and trivially destructible, so it is there before the
// first platform call and still there after exit has begun, and finding it
// costs no guard.
constinit Faults g_faults;
static_assert(std::is_trivially_destructible_v<Faults>);

Faults &faults()
{
    return g_faults;
}

bool valid(VornHostFunction fn)
{
    const int index = static_cast<int>(fn);
    return index >= 0 && index < static_cast<int>(VORNHOST_FUNCTION_COUNT);
}

}  // namespace

bool fault_hit(VornHostFunction fn)
{
    if (!valid(fn)) {
        return false;
    }
    Faults &f = faults();
    FaultSlot &slot = f.slots[static_cast<size_t>(fn)];
    slot.calls.fetch_add(1, std::memory_order_relaxed);
    if (!slot.armed.load(std::memory_order_relaxed)) {
        return false;
    }
    std::lock_guard guard(f.lock);
    if (slot.skip > 0) {
        --slot.skip;
        return false;
    }
    if (slot.fail > 0) {
        slot.arm(0, slot.fail - 1);
        return true;
    }
    return false;
}

void faults_reset()
{
    Faults &f = faults();
    std::lock_guard guard(f.lock);
    for (auto &slot : f.slots) {
        slot.calls.store(0, std::memory_order_relaxed);
        slot.arm(0, 0);
    }
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

void vornhost_fail(VornHostFunction fn, uint32_t skip, uint32_t count)
{
    if (!valid(fn)) {
        return;
    }
    Faults &f = faults();
    std::lock_guard guard(f.lock);
    f.slots[static_cast<size_t>(fn)].arm(skip, count);
}

void vornhost_fail_clear(void)
{
    Faults &f = faults();
    std::lock_guard guard(f.lock);
    for (auto &slot : f.slots) {
        slot.arm(0, 0);
    }
}

uint32_t vornhost_call_count(VornHostFunction fn)
{
    if (!valid(fn)) {
        return 0;
    }
    return faults().slots[static_cast<size_t>(fn)].calls.load(std::memory_order_relaxed);
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

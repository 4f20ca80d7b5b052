// Fault injection, call counts and vornhost_reset.
#include <array>

#include "internal.h"

namespace vornhost::detail {
namespace {

struct FaultSlot {
    uint32_t calls = 0;
    uint32_t skip = 0;
    uint32_t fail = 0;
};

struct Faults {
    std::mutex lock;
    std::array<FaultSlot, VORNHOST_FUNCTION_COUNT> slots{};
};

Faults &faults()
{
    static Faults *f = new Faults;  // never destroyed: platform calls may come during exit
    return *f;
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
    std::lock_guard guard(f.lock);
    FaultSlot &slot = f.slots[static_cast<size_t>(fn)];
    ++slot.calls;
    if (slot.skip > 0) {
        --slot.skip;
        return false;
    }
    if (slot.fail > 0) {
        --slot.fail;
        return true;
    }
    return false;
}

void faults_reset()
{
    Faults &f = faults();
    std::lock_guard guard(f.lock);
    f.slots.fill(FaultSlot{});
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
    FaultSlot &slot = f.slots[static_cast<size_t>(fn)];
    slot.skip = skip;
    slot.fail = count;
}

void vornhost_fail_clear(void)
{
    Faults &f = faults();
    std::lock_guard guard(f.lock);
    for (auto &slot : f.slots) {
        slot.skip = 0;
        slot.fail = 0;
    }
}

uint32_t vornhost_call_count(VornHostFunction fn)
{
    if (!valid(fn)) {
        return 0;
    }
    Faults &f = faults();
    std::lock_guard guard(f.lock);
    return f.slots[static_cast<size_t>(fn)].calls;
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

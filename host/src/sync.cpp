// SMMutex* and SMEvent* on POSIX threads (see vornhost.h for the semantics).
//
// Objects live in a fixed table of slots that is never freed, so finding the
// object of a handle takes no global lock and no reference count: the slot is
// the handle's low bits, and the slot's own state lock (a std::mutex) is the
// only lock a call takes. Under it the call checks that the slot still holds
// that very handle (and the right kind); a destroyed or never-created handle
// fails that check. Handles still come from one 28-bit counter, skipping
// values whose slot is taken, so a value is not reused until the counter
// wraps. At most kSlots objects are live at once; a create past that fails.
//
// A thread blocked in Lock or Wait waits on its slot's condition variable.
// Destroying the object clears the slot's handle and wakes the waiters, which
// see the handle gone and fail; the slot is only taken again by a create 4096
// counter values later, and a late waiter still sees a handle that is not
// its own. Notifications are only sent while someone waits (the waiter count
// is kept under the state lock), and always under the lock: drd reports
// signals sent without it.
#include <array>
#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>

#include "internal.h"

namespace vornhost::detail {
namespace {

enum class Kind { kMutex, kEvent };

constexpr uint32_t kSlotBits = 12;
constexpr uint32_t kSlots = 1u << kSlotBits;
constexpr uint32_t kCounterMask = 0x0FFFFFFFu;
constexpr uint32_t kKindBits = kSyncHandleKind << 28;

// One object's place; everything but the lock and the condition variable is
// guarded by `state`. Aligned so that objects used by different threads do
// not share a cache line.
struct alignas(64) Slot {
    std::mutex state;
    std::condition_variable changed;
    uint32_t handle = 0;  // the live object's handle, 0 when the slot is free
    Kind kind = Kind::kMutex;
    std::string name;
    uint32_t waiters = 0;  // threads blocked in Lock / Wait
    // mutex
    bool locked = false;
    std::thread::id owner;
    // event
    bool manual = false;
    bool signalled = false;
    uint64_t generation = 0;  // bumped by every Set of a manual event
};

struct Table {
    std::mutex lock;  // guards in_use and next: taken by create and destroy only
    uint32_t next = 0;
    std::array<bool, kSlots> in_use{};
    std::array<Slot, kSlots> slots;
};

Table &table()
{
    static auto *t = new Table;  // never destroyed: blocked threads may outlive exit
    return *t;
}

using Clock = std::chrono::steady_clock;
using Lock = std::unique_lock<std::mutex>;

Slot &slot_of(uint32_t h)
{
    return table().slots[h & (kSlots - 1)];
}

bool holds(const Slot &slot, uint32_t h, Kind kind)
{
    return slot.handle == h && slot.kind == kind;
}

// op(slot, lock) for the live object h of `kind`, with `lock` holding its
// state lock; VORNHOST_E_HANDLE when h is not one or it has been destroyed.
template <typename Op>
int32_t on_live(uint32_t h, Kind kind, Op op)
{
    if ((h & ~kCounterMask) != kKindBits) {
        return VORNHOST_E_HANDLE;
    }
    Slot &slot = slot_of(h);
    Lock lock(slot.state);
    if (!holds(slot, h, kind)) {
        return VORNHOST_E_HANDLE;
    }
    return op(slot, lock);
}

// f(slot) for the live object h of `kind` under its state lock; -1 when h
// is not one.
template <typename F>
int inspect(uint32_t h, Kind kind, F f)
{
    int result = -1;
    on_live(h, kind, [&result, &f](const Slot &slot, Lock &) {
        result = f(slot);
        return VORNHOST_OK;
    });
    return result;
}

uint32_t create(Kind kind, const char *name, bool manual, bool initial)
{
    Table &t = table();
    uint32_t h = 0;
    {
        std::lock_guard guard(t.lock);
        // kSlots consecutive counter values name every slot once.
        for (uint32_t tries = 0; tries < kSlots && h == 0; ++tries) {
            t.next = t.next >= kCounterMask ? 1 : t.next + 1;
            bool &in_use = t.in_use[t.next & (kSlots - 1)];
            if (!in_use) {
                in_use = true;
                h = kKindBits | t.next;
            }
        }
    }
    if (h == 0) {
        return 0;
    }
    Slot &slot = slot_of(h);
    std::lock_guard guard(slot.state);
    try {
        slot.name = name == nullptr ? "" : name;
    } catch (...) {
        std::lock_guard table_guard(t.lock);
        t.in_use[h & (kSlots - 1)] = false;
        return 0;
    }
    slot.kind = kind;
    slot.locked = false;
    slot.owner = std::thread::id();
    slot.manual = manual;
    slot.signalled = initial;
    slot.handle = h;
    return h;
}

int32_t destroy(uint32_t h, Kind kind)
{
    const int32_t rc = on_live(h, kind, [](Slot &slot, Lock &) {
        slot.handle = 0;
        if (slot.waiters > 0) {
            slot.changed.notify_all();
        }
        return VORNHOST_OK;
    });
    if (rc == VORNHOST_OK) {
        Table &t = table();
        std::lock_guard guard(t.lock);
        t.in_use[h & (kSlots - 1)] = false;
    }
    return rc;
}

// Wakes one waiter of `slot`, if any; under its state lock.
void wake_one(Slot &slot)
{
    if (slot.waiters > 0) {
        slot.changed.notify_one();
    }
}

bool valid_timeout(int32_t timeout)
{
    return timeout >= -1;
}

// Waits on `slot`, which holds h, until ready() or the timeout (0: no wait
// at all); `lock` holds slot.state. VORNHOST_OK when ready() holds,
// VORNHOST_E_HANDLE when the object was destroyed meanwhile, else
// VORNHOST_E_TIMEOUT.
template <typename Ready>
int32_t wait_for(Lock &lock, Slot &slot, uint32_t h, int32_t timeout, Ready ready)
{
    if (ready()) {
        return VORNHOST_OK;
    }
    if (timeout == 0) {
        return VORNHOST_E_TIMEOUT;
    }
    const auto done = [&slot, h, &ready] { return slot.handle != h || ready(); };
    ++slot.waiters;
    bool result = true;
    if (timeout < 0) {
        slot.changed.wait(lock, done);
    } else {
        result = slot.changed.wait_until(lock, Clock::now() + std::chrono::milliseconds(timeout), done);
    }
    --slot.waiters;
    if (slot.handle != h) {
        return VORNHOST_E_HANDLE;
    }
    return result ? VORNHOST_OK : VORNHOST_E_TIMEOUT;
}

// Live objects of `kind`.
uint32_t live_count(Kind kind)
{
    uint32_t n = 0;
    for (Slot &slot : table().slots) {
        std::lock_guard guard(slot.state);
        n += slot.handle != 0 && slot.kind == kind ? 1 : 0;
    }
    return n;
}

}  // namespace
}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

uint32_t SMMutexCreate(const char *name)
{
    if (fault_hit(VORNHOST_SMMutexCreate)) {
        return 0;
    }
    return create(Kind::kMutex, name, false, false);
}

int32_t SMMutexLock(uint32_t h, int32_t timeout)
{
    if (fault_hit(VORNHOST_SMMutexLock)) {
        return VORNHOST_E_INJECTED;
    }
    if (!valid_timeout(timeout)) {
        return VORNHOST_E_ARG;
    }
    return on_live(h, Kind::kMutex, [h, timeout](Slot &o, Lock &lock) {
        const std::thread::id self = std::this_thread::get_id();
        if (o.locked && o.owner == self) {
            return VORNHOST_E_DEADLOCK;
        }
        const int32_t rc = wait_for(lock, o, h, timeout, [&o] { return !o.locked; });
        if (rc == VORNHOST_OK) {
            o.locked = true;
            o.owner = self;
        }
        return rc;
    });
}

int32_t SMMutexUnLock(uint32_t h)
{
    if (fault_hit(VORNHOST_SMMutexUnLock)) {
        return VORNHOST_E_INJECTED;
    }
    return on_live(h, Kind::kMutex, [](Slot &o, Lock &) {
        if (!o.locked || o.owner != std::this_thread::get_id()) {
            return VORNHOST_E_NOT_OWNER;
        }
        o.locked = false;
        o.owner = std::thread::id();
        wake_one(o);
        return VORNHOST_OK;
    });
}

int32_t SMMutexDestroy(uint32_t h)
{
    if (fault_hit(VORNHOST_SMMutexDestroy)) {
        return VORNHOST_E_INJECTED;
    }
    return destroy(h, Kind::kMutex);
}

uint32_t SMEventCreate(const char *name, int32_t manualReset, int32_t initialState)
{
    if (fault_hit(VORNHOST_SMEventCreate)) {
        return 0;
    }
    return create(Kind::kEvent, name, manualReset != 0, initialState != 0);
}

int32_t SMEventSet(uint32_t h)
{
    if (fault_hit(VORNHOST_SMEventSet)) {
        return VORNHOST_E_INJECTED;
    }
    return on_live(h, Kind::kEvent, [](Slot &o, Lock &) {
        o.signalled = true;
        if (!o.manual) {
            wake_one(o);
            return VORNHOST_OK;
        }
        ++o.generation;
        if (o.waiters > 0) {
            o.changed.notify_all();
        }
        return VORNHOST_OK;
    });
}

int32_t SMEventReset(uint32_t h)
{
    if (fault_hit(VORNHOST_SMEventReset)) {
        return VORNHOST_E_INJECTED;
    }
    return on_live(h, Kind::kEvent, [](Slot &o, Lock &) {
        o.signalled = false;
        return VORNHOST_OK;
    });
}

int32_t SMEventWait(uint32_t h, int32_t timeout)
{
    if (fault_hit(VORNHOST_SMEventWait)) {
        return VORNHOST_E_INJECTED;
    }
    if (!valid_timeout(timeout)) {
        return VORNHOST_E_ARG;
    }
    return on_live(h, Kind::kEvent, [h, timeout](Slot &o, Lock &lock) {
        // A manual event releases everyone waiting at the time of a Set, even
        // when a Reset follows before this thread runs again.
        const uint64_t start = o.generation;
        const int32_t rc =
            wait_for(lock, o, h, timeout, [&o, start] { return o.signalled || (o.manual && o.generation != start); });
        if (rc == VORNHOST_OK && !o.manual) {
            o.signalled = false;  // an automatic event is consumed by the wait it releases
        }
        return rc;
    });
}

int32_t SMEventDestroy(uint32_t h)
{
    if (fault_hit(VORNHOST_SMEventDestroy)) {
        return VORNHOST_E_INJECTED;
    }
    return destroy(h, Kind::kEvent);
}

uint32_t vornhost_mutex_live_count(void)
{
    return live_count(Kind::kMutex);
}

uint32_t vornhost_event_live_count(void)
{
    return live_count(Kind::kEvent);
}

int vornhost_mutex_state(uint32_t h)
{
    return inspect(h, Kind::kMutex, [](const Slot &o) { return o.locked ? 1 : 0; });
}

int vornhost_mutex_waiters(uint32_t h)
{
    return inspect(h, Kind::kMutex, [](const Slot &o) { return static_cast<int>(o.waiters); });
}

int vornhost_event_waiters(uint32_t h)
{
    return inspect(h, Kind::kEvent, [](const Slot &o) { return static_cast<int>(o.waiters); });
}

int vornhost_event_state(uint32_t h)
{
    return inspect(h, Kind::kEvent, [](const Slot &o) { return o.signalled ? 1 : 0; });
}

}  // extern "C"

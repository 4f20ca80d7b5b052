// SMMutex* and SMEvent* on POSIX threads (see vornhost.h for the semantics).
//
// Each object is a std::mutex (the object's own state lock) and a condition
// variable; a thread blocked on an object holds a table reference to it, which
// keeps it alive while another thread destroys its handle.
#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>

#include "internal.h"

namespace vornhost::detail {
namespace {

enum class Kind { kMutex, kEvent };

struct SyncObject {
    SyncObject(Kind k, const char *n) : kind(k), name(n == nullptr ? "" : n) {}

    const Kind kind;
    const std::string name;
    std::mutex state;
    std::condition_variable changed;
    bool destroyed = false;
    uint32_t waiters = 0;  // threads blocked in Lock / Wait
    // mutex
    bool locked = false;
    std::thread::id owner;
    // event
    bool manual = false;
    bool signalled = false;
    uint64_t generation = 0;  // bumped by every Set of a manual event
};

using Clock = std::chrono::steady_clock;
using Lock = std::unique_lock<std::mutex>;

HandleTable<SyncObject> &table()
{
    static auto *t = new HandleTable<SyncObject>(kSyncHandleKind);
    return *t;
}

using Ref = HandleTable<SyncObject>::Ref;

Ref find(uint32_t h, Kind kind)
{
    Ref object = table().find(h);
    if (!object || object->kind != kind) {
        return Ref();
    }
    return object;
}

// op(object, lock) for the live object h of `kind`, with `lock` holding its
// state lock; VORNHOST_E_HANDLE when h is not one or it has been destroyed.
template <typename Op>
int32_t on_live(uint32_t h, Kind kind, Op op)
{
    const Ref object = find(h, kind);
    if (!object) {
        return VORNHOST_E_HANDLE;
    }
    Lock lock(object->state);
    if (object->destroyed) {
        return VORNHOST_E_HANDLE;
    }
    return op(*object, lock);
}

// f(object) for the live object h of `kind` under its state lock; -1 when h
// is not one.
template <typename F>
int inspect(uint32_t h, Kind kind, F f)
{
    int result = -1;
    on_live(h, kind, [&result, &f](const SyncObject &object, Lock &) {
        result = f(object);
        return VORNHOST_OK;
    });
    return result;
}

uint32_t create(Kind kind, const char *name, bool manual, bool initial)
{
    try {
        auto object = std::make_unique<SyncObject>(kind, name);
        object->manual = manual;
        object->signalled = initial;
        return table().add(std::move(object));
    } catch (...) {
        return 0;
    }
}

int32_t destroy(uint32_t h, Kind kind)
{
    if (!find(h, kind)) {
        return VORNHOST_E_HANDLE;
    }
    const Ref object = table().remove(h);
    if (!object) {  // destroyed by another thread meanwhile
        return VORNHOST_E_HANDLE;
    }
    // Notified under the lock: drd reports signals sent without it.
    std::lock_guard guard(object->state);
    object->destroyed = true;
    object->changed.notify_all();
    return VORNHOST_OK;
}

bool valid_timeout(int32_t timeout)
{
    return timeout >= -1;
}

// Waits on `object` until ready() or the timeout (0: no wait at all);
// `lock` holds object->state. VORNHOST_OK when ready() holds,
// VORNHOST_E_HANDLE when the object was destroyed meanwhile, else
// VORNHOST_E_TIMEOUT.
template <typename Ready>
int32_t wait_for(Lock &lock, SyncObject &object, int32_t timeout, Ready ready)
{
    if (ready()) {
        return VORNHOST_OK;
    }
    if (timeout == 0) {
        return VORNHOST_E_TIMEOUT;
    }
    const auto done = [&object, &ready] { return object.destroyed || ready(); };
    ++object.waiters;
    bool result = true;
    if (timeout < 0) {
        object.changed.wait(lock, done);
    } else {
        result = object.changed.wait_until(lock, Clock::now() + std::chrono::milliseconds(timeout), done);
    }
    --object.waiters;
    if (object.destroyed) {
        return VORNHOST_E_HANDLE;
    }
    return result ? VORNHOST_OK : VORNHOST_E_TIMEOUT;
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
    return on_live(h, Kind::kMutex, [timeout](SyncObject &o, Lock &lock) {
        const std::thread::id self = std::this_thread::get_id();
        if (o.locked && o.owner == self) {
            return VORNHOST_E_DEADLOCK;
        }
        const int32_t rc = wait_for(lock, o, timeout, [&o] { return !o.locked; });
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
    return on_live(h, Kind::kMutex, [](SyncObject &o, Lock &) {
        if (!o.locked || o.owner != std::this_thread::get_id()) {
            return VORNHOST_E_NOT_OWNER;
        }
        o.locked = false;
        o.owner = std::thread::id();
        o.changed.notify_one();
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
    return on_live(h, Kind::kEvent, [](SyncObject &o, Lock &) {
        o.signalled = true;
        if (o.manual) {
            ++o.generation;
            o.changed.notify_all();
        } else {
            o.changed.notify_one();
        }
        return VORNHOST_OK;
    });
}

int32_t SMEventReset(uint32_t h)
{
    if (fault_hit(VORNHOST_SMEventReset)) {
        return VORNHOST_E_INJECTED;
    }
    return on_live(h, Kind::kEvent, [](SyncObject &o, Lock &) {
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
    return on_live(h, Kind::kEvent, [timeout](SyncObject &o, Lock &lock) {
        // A manual event releases everyone waiting at the time of a Set, even
        // when a Reset follows before this thread runs again.
        const uint64_t start = o.generation;
        const int32_t rc =
            wait_for(lock, o, timeout, [&o, start] { return o.signalled || (o.manual && o.generation != start); });
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
    uint32_t n = 0;
    table().for_each([&n](uint32_t, const SyncObject &o) { n += o.kind == Kind::kMutex ? 1 : 0; });
    return n;
}

uint32_t vornhost_event_live_count(void)
{
    uint32_t n = 0;
    table().for_each([&n](uint32_t, const SyncObject &o) { n += o.kind == Kind::kEvent ? 1 : 0; });
    return n;
}

int vornhost_mutex_state(uint32_t h)
{
    return inspect(h, Kind::kMutex, [](const SyncObject &o) { return o.locked ? 1 : 0; });
}

int vornhost_mutex_waiters(uint32_t h)
{
    return inspect(h, Kind::kMutex, [](const SyncObject &o) { return static_cast<int>(o.waiters); });
}

int vornhost_event_waiters(uint32_t h)
{
    return inspect(h, Kind::kEvent, [](const SyncObject &o) { return static_cast<int>(o.waiters); });
}

int vornhost_event_state(uint32_t h)
{
    return inspect(h, Kind::kEvent, [](const SyncObject &o) { return o.signalled ? 1 : 0; });
}

}  // extern "C"

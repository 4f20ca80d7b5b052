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

HandleTable<SyncObject> &table()
{
    static auto *t = new HandleTable<SyncObject>(kSyncHandleKind);
    return *t;
}

using Ref = HandleTable<SyncObject>::Ref;

Ref find(uint32_t h, Kind kind)
{
    if (h == 0) {
        return Ref();
    }
    Ref object = table().find(h);
    if (!object || object->kind != kind) {
        return Ref();
    }
    return object;
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
    if (h == 0) {
        return VORNHOST_E_HANDLE;
    }
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

// Waits on `object` until ready() or the timeout; `lock` holds object->state.
// true when ready() holds at the end.
template <typename Ready>
bool wait_for(std::unique_lock<std::mutex> &lock, SyncObject &object, int32_t timeout, Ready ready)
{
    ++object.waiters;
    bool result = true;
    if (timeout < 0) {
        object.changed.wait(lock, ready);
    } else {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeout);
        result = object.changed.wait_until(lock, deadline, ready);
    }
    --object.waiters;
    return result;
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
    const Ref object = find(h, Kind::kMutex);
    if (!object) {
        return VORNHOST_E_HANDLE;
    }
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock lock(object->state);
    if (object->destroyed) {
        return VORNHOST_E_HANDLE;
    }
    if (object->locked && object->owner == self) {
        return VORNHOST_E_DEADLOCK;
    }
    if (object->locked) {
        if (timeout == 0) {
            return VORNHOST_E_TIMEOUT;
        }
        SyncObject &o = *object;
        const bool ready = wait_for(lock, o, timeout, [&o] { return o.destroyed || !o.locked; });
        if (o.destroyed) {
            return VORNHOST_E_HANDLE;
        }
        if (!ready) {
            return VORNHOST_E_TIMEOUT;
        }
    }
    object->locked = true;
    object->owner = self;
    return VORNHOST_OK;
}

int32_t SMMutexUnLock(uint32_t h)
{
    if (fault_hit(VORNHOST_SMMutexUnLock)) {
        return VORNHOST_E_INJECTED;
    }
    const Ref object = find(h, Kind::kMutex);
    if (!object) {
        return VORNHOST_E_HANDLE;
    }
    std::lock_guard guard(object->state);
    if (object->destroyed) {
        return VORNHOST_E_HANDLE;
    }
    if (!object->locked || object->owner != std::this_thread::get_id()) {
        return VORNHOST_E_NOT_OWNER;
    }
    object->locked = false;
    object->owner = std::thread::id();
    object->changed.notify_one();
    return VORNHOST_OK;
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
    const Ref object = find(h, Kind::kEvent);
    if (!object) {
        return VORNHOST_E_HANDLE;
    }
    std::lock_guard guard(object->state);
    if (object->destroyed) {
        return VORNHOST_E_HANDLE;
    }
    object->signalled = true;
    if (object->manual) {
        ++object->generation;
        object->changed.notify_all();
    } else {
        object->changed.notify_one();
    }
    return VORNHOST_OK;
}

int32_t SMEventReset(uint32_t h)
{
    if (fault_hit(VORNHOST_SMEventReset)) {
        return VORNHOST_E_INJECTED;
    }
    const Ref object = find(h, Kind::kEvent);
    if (!object) {
        return VORNHOST_E_HANDLE;
    }
    std::lock_guard guard(object->state);
    if (object->destroyed) {
        return VORNHOST_E_HANDLE;
    }
    object->signalled = false;
    return VORNHOST_OK;
}

int32_t SMEventWait(uint32_t h, int32_t timeout)
{
    if (fault_hit(VORNHOST_SMEventWait)) {
        return VORNHOST_E_INJECTED;
    }
    if (!valid_timeout(timeout)) {
        return VORNHOST_E_ARG;
    }
    const Ref object = find(h, Kind::kEvent);
    if (!object) {
        return VORNHOST_E_HANDLE;
    }
    SyncObject &o = *object;
    std::unique_lock lock(o.state);
    if (o.destroyed) {
        return VORNHOST_E_HANDLE;
    }
    if (!o.signalled) {
        if (timeout == 0) {
            return VORNHOST_E_TIMEOUT;
        }
        // A manual event releases everyone waiting at the time of a Set, even
        // when a Reset follows before this thread runs again.
        const uint64_t start = o.generation;
        const bool ready = wait_for(lock, o, timeout, [&o, start] {
            return o.destroyed || o.signalled || (o.manual && o.generation != start);
        });
        if (o.destroyed) {
            return VORNHOST_E_HANDLE;
        }
        if (!ready) {
            return VORNHOST_E_TIMEOUT;
        }
    }
    if (!o.manual) {
        o.signalled = false;  // an automatic event is consumed by the wait it releases
    }
    return VORNHOST_OK;
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
    const Ref object = find(h, Kind::kMutex);
    if (!object) {
        return -1;
    }
    std::lock_guard guard(object->state);
    return object->destroyed ? -1 : (object->locked ? 1 : 0);
}

int vornhost_mutex_waiters(uint32_t h)
{
    const Ref object = find(h, Kind::kMutex);
    if (!object) {
        return -1;
    }
    std::lock_guard guard(object->state);
    return static_cast<int>(object->waiters);
}

int vornhost_event_waiters(uint32_t h)
{
    const Ref object = find(h, Kind::kEvent);
    if (!object) {
        return -1;
    }
    std::lock_guard guard(object->state);
    return static_cast<int>(object->waiters);
}

int vornhost_event_state(uint32_t h)
{
    const Ref object = find(h, Kind::kEvent);
    if (!object) {
        return -1;
    }
    std::lock_guard guard(object->state);
    return object->destroyed ? -1 : (object->signalled ? 1 : 0);
}

}  // extern "C"

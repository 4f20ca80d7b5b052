// Internals shared by the parts of libvornhost.
//
// Nothing in vornhost may call calloc (see vornhost.h): storage comes from
// operator new (std containers, std::make_shared) and, for results handed to
// callers that free them, malloc.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "rtvox/platform.h"
#include "vornhost/vornhost.h"

namespace vornhost::detail {

// Call counting and fault injection (faults.cpp). Every platform call counts
// itself, so the common case is inline: a relaxed load and store of a counter
// only the calling thread writes, and one relaxed load of the function's
// armed flag.
struct CallCounters {
    std::array<std::atomic<uint32_t>, VORNHOST_FUNCTION_COUNT> calls{};
    CallCounters *next = nullptr;  // the registry's list; set once, under its lock
    bool in_use = false;           // guarded by the registry's lock
};

// The calling thread's counters; null until its first platform call and again
// once the thread has begun to exit.
extern constinit thread_local CallCounters *tl_call_counters;
// Per function: a fault is armed (skip and fail are then looked at under a lock).
extern constinit std::array<std::atomic<bool>, VORNHOST_FUNCTION_COUNT> g_fault_armed;

// Counts a call of the function at `index` by a thread without counters yet
// (or one that is exiting).
void count_unregistered(uint32_t index);
// Answers whether the armed fault of the function at `index` makes this call fail.
bool fault_fires(uint32_t index);

// Counts one call of `fn` and answers true when an armed fault makes it fail.
inline bool fault_hit(VornHostFunction fn)
{
    const auto index = static_cast<uint32_t>(fn);
    if (index >= VORNHOST_FUNCTION_COUNT) {
        return false;
    }
    if (CallCounters *counters = tl_call_counters; counters != nullptr) {
        // Only this thread writes its counter: no locked read-modify-write needed.
        std::atomic<uint32_t> &calls = counters->calls[index];
        calls.store(calls.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else {
        count_unregistered(index);
    }
    return g_fault_armed[index].load(std::memory_order_relaxed) && fault_fires(index);
}

// Start-state resets of each part, called by vornhost_reset.
void faults_reset();
void trace_reset();
void shm_reset();
void bp_reset();
void eventlog_reset();
void ipmi_reset();

// The value of an environment variable, empty when unset.
std::string env(const char *name);

// Writes all of `data` to `fd`, retrying after signals. false on an error.
bool write_all(int fd, const std::string &data);

// Appends `data` to the file named by the environment variable `variable`
// (read at each call; the file is opened O_APPEND|O_CREAT, 0644, each time).
// false when the variable is unset or empty, or the file cannot be written.
bool append_to_env_file(const char *variable, const std::string &data);

// Backplane and IPMI statuses fail when their low 8 bits are not 0 (all the
// library tests), so a scripted status such as 0x100 counts as success.
inline bool fails(uint32_t status)
{
    return (status & 0xFFu) != 0;
}

// A scripted status: the next `count` uses answer `status` (count 0: every
// use). Not locked: the owner guards it.
template <typename Status>
class Script {
public:
    void set(Status status, uint32_t count)
    {
        status_ = status;
        remaining_ = count;
        armed_ = !(status == 0 && count == 0);
    }
    void clear() { set(0, 0); }
    // The status for this use (0 when nothing is scripted), using it up.
    Status take()
    {
        if (!armed_) {
            return 0;
        }
        const Status s = status_;
        if (remaining_ > 0 && --remaining_ == 0) {
            armed_ = false;
        }
        return s;
    }

private:
    Status status_ = 0;
    uint32_t remaining_ = 0;
    bool armed_ = false;
};

// Record sizes by type: one built-in type of a fixed size, plus types given a
// size of 1..max bytes at run time. Not locked: the owner guards it.
class SizeTable {
public:
    SizeTable(uint32_t builtin_type, uint32_t builtin_size, uint32_t max)
        : builtin_type_(builtin_type), builtin_size_(builtin_size), max_(max)
    {
    }
    // The record size of `type`, 0 when it has none.
    uint32_t size(uint32_t type) const;
    // Gives `type` a size; 0 removes an added type. VORNHOST_OK, VORNHOST_E_ARG
    // (the built-in type, or a size past max) or VORNHOST_E_NOMEM.
    int set(uint32_t type, uint32_t size);
    // Removes every added type.
    void clear() { added_.clear(); }

private:
    const uint32_t builtin_type_;
    const uint32_t builtin_size_;
    const uint32_t max_;
    std::map<uint32_t, uint32_t> added_;
};

// The latest entries of a journal, index 0 the oldest kept: adding past `max`
// entries drops the oldest. Entries never move (a deque), so pointers into an
// entry stay valid until it is dropped or the journal cleared. Thread-safe.
template <typename T>
class Journal {
public:
    explicit Journal(size_t max = SIZE_MAX) : max_(max) {}

    // May throw std::bad_alloc.
    void add(T entry)
    {
        std::lock_guard guard(lock_);
        entries_.push_back(std::move(entry));
        while (entries_.size() > max_) {
            entries_.pop_front();
        }
    }

    void clear()
    {
        std::lock_guard guard(lock_);
        entries_.clear();
    }

    uint32_t count() const
    {
        std::lock_guard guard(lock_);
        return static_cast<uint32_t>(entries_.size());
    }

    // f(entry) for the entry at `index`, under the journal's lock; -1 when
    // there is no such entry.
    template <typename F>
    int with(uint32_t index, F &&f) const
    {
        std::lock_guard guard(lock_);
        return index < entries_.size() ? f(entries_[index]) : -1;
    }

    // 0 after fill(entry, *out) for the entry at `index`; -1, with *out
    // untouched, when out is NULL or there is no such entry.
    template <typename Out, typename Fill>
    int get(uint32_t index, Out *out, Fill &&fill) const
    {
        if (out == nullptr) {
            return -1;
        }
        return with(index, [out, &fill](const T &entry) {
            fill(entry, *out);
            return 0;
        });
    }

    // get() that copies the entry itself.
    int get(uint32_t index, T *out) const
    {
        return get(index, out, [](const T &entry, T &copy) { copy = entry; });
    }

private:
    mutable std::mutex lock_;
    std::deque<T> entries_;
    const size_t max_;
};

// A table of objects behind 32-bit handles. A handle is `kind << 28` plus a
// 28-bit counter value 1..0x0FFFFFFF; values are not reused until the counter
// wraps, and then only those not in use. Thread-safe.
//
// Lookups hand out a Ref that keeps the object alive after its handle was
// removed (a thread blocked on an object while another destroys it). The
// reference count is a plain integer guarded by the table's mutex rather
// than a shared_ptr: helgrind does not see atomic reference counts as
// synchronisation and reports the last release of a shared_ptr on another
// thread as a race.
template <typename T>
class HandleTable {
    struct Entry {
        std::unique_ptr<T> object;
        uint32_t refs = 0;
        bool removed = false;
    };

public:
    class Ref {
    public:
        Ref() = default;
        Ref(HandleTable *table, Entry *entry) : table_(table), entry_(entry) {}
        Ref(Ref &&other) noexcept : table_(other.table_), entry_(std::exchange(other.entry_, nullptr)) {}
        Ref(const Ref &) = delete;
        Ref &operator=(const Ref &) = delete;
        Ref &operator=(Ref &&) = delete;
        ~Ref()
        {
            if (entry_ != nullptr) {
                table_->release(entry_);
            }
        }
        explicit operator bool() const { return entry_ != nullptr; }
        T *operator->() const { return entry_->object.get(); }
        T &operator*() const { return *entry_->object; }

    private:
        HandleTable *table_ = nullptr;
        Entry *entry_ = nullptr;
    };

    explicit HandleTable(uint32_t kind) : kind_bits_(kind << 28) {}
    HandleTable(const HandleTable &) = delete;
    HandleTable &operator=(const HandleTable &) = delete;

    // The new handle, 0 when the table is full. May throw std::bad_alloc.
    uint32_t add(std::unique_ptr<T> object)
    {
        auto entry = std::make_unique<Entry>();
        entry->object = std::move(object);
        std::lock_guard guard(lock_);
        for (uint32_t tries = 0; tries < kCounterMask; ++tries) {
            next_ = next_ >= kCounterMask ? 1 : next_ + 1;
            const uint32_t handle = kind_bits_ | next_;
            if (items_.find(handle) == items_.end()) {
                items_.emplace(handle, entry.get());
                static_cast<void>(entry.release());  // now owned by items_
                return handle;
            }
        }
        return 0;
    }

    // A reference to the object of a live handle, empty when there is none
    // (0 is never a handle).
    Ref find(uint32_t handle)
    {
        std::lock_guard guard(lock_);
        const auto it = items_.find(handle);
        if (it == items_.end()) {
            return Ref();
        }
        ++it->second->refs;
        return Ref(this, it->second);
    }

    // Removes a handle; the returned reference (empty when the handle was not
    // live) keeps the object until it and every other reference are gone.
    Ref remove(uint32_t handle)
    {
        std::lock_guard guard(lock_);
        const auto it = items_.find(handle);
        if (it == items_.end()) {
            return Ref();
        }
        Entry *entry = it->second;
        items_.erase(it);
        entry->removed = true;
        ++entry->refs;
        return Ref(this, entry);
    }

    uint32_t size() const
    {
        std::lock_guard guard(lock_);
        return static_cast<uint32_t>(items_.size());
    }

    // Calls f(handle, object) for each live entry under the table's lock.
    template <typename F>
    void for_each(F &&f) const
    {
        std::lock_guard guard(lock_);
        for (const auto &[handle, entry] : items_) {
            f(handle, static_cast<const T &>(*entry->object));
        }
    }

private:
    void release(Entry *entry)
    {
        bool last = false;
        {
            std::lock_guard guard(lock_);
            last = --entry->refs == 0 && entry->removed;
        }
        if (last) {
            delete entry;
        }
    }

    static constexpr uint32_t kCounterMask = 0x0FFFFFFFu;
    mutable std::mutex lock_;
    std::unordered_map<uint32_t, Entry *> items_;  // owned; removed entries are owned by their last Ref
    uint32_t kind_bits_;
    uint32_t next_ = 0;
};

// Handle kinds (the high nibble).
inline constexpr uint32_t kSyncHandleKind = 1;
inline constexpr uint32_t kBpHandleKind = 2;
inline constexpr uint32_t kTlvHandleKind = 3;

}  // namespace vornhost::detail

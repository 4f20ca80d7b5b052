// The simulated backplane: API info record, sessions, write journal, hot plug.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <thread>
#include <vector>

#include "internal.h"

namespace vornhost::detail {
namespace {

using Record = std::array<uint8_t, VORNHOST_BP_INFO_SIZE>;
constexpr uint32_t kDriveStatusWriteType = 1;
constexpr uint32_t kDriveStatusWriteSize = 4;

struct Session {
    VornBpApiCallback callback = nullptr;
    uint32_t options = 0;
};

struct BpState {
    std::mutex lock;
    Record record{};
    std::array<Script<uint32_t>, VORNHOST_BP_OP_COUNT> scripts{};
    SizeTable write_sizes{kDriveStatusWriteType, kDriveStatusWriteSize, VORNHOST_BP_INFO_SIZE};
    Journal<VornHostBpWrite> writes{VORNHOST_BP_WRITE_JOURNAL_MAX};
    // hot plug
    std::condition_variable hotplug_changed;
    std::vector<std::thread> threads;
    uint32_t in_flight = 0;
    uint32_t done = 0;
    int32_t last_result = 0;
};

BpState &state()
{
    static auto *s = new BpState;  // never destroyed: callback threads may outlive main
    return *s;
}

HandleTable<Session> &sessions()
{
    static auto *t = new HandleTable<Session>(kBpHandleKind);
    return *t;
}

// What every call on a session checks first: an injected fault, then the
// handle. VORNHOST_OK when the call goes on.
uint32_t check_session(VornHostFunction fn, uint32_t h)
{
    if (fault_hit(fn)) {
        return VORNHOST_E_INJECTED;
    }
    return sessions().find(h) ? VORNHOST_OK : VORNHOST_E_HANDLE;
}

// One of the tables of entries in the info record.
struct EntryTable {
    uint32_t offset;
    uint32_t size;   // bytes per entry
    uint32_t count;  // entries
};
constexpr EntryTable kBays{VORNHOST_BP_BAY_OFFSET, VORNHOST_BP_BAY_SIZE, VORNHOST_BP_MAX_BAYS};
constexpr EntryTable kDrives{VORNHOST_BP_DRIVE_OFFSET, VORNHOST_BP_DRIVE_SIZE, VORNHOST_BP_MAX_DRIVES};
constexpr EntryTable kRisers{VORNHOST_BP_RISER_OFFSET, VORNHOST_BP_RISER_SIZE, VORNHOST_BP_MAX_RISERS};

// Entry `index` of `table` in `record`, zeroed for the caller to fill from
// `fields`; nullptr, with the record untouched, when record or fields is NULL
// or the index is past the table.
uint8_t *clear_entry(void *record, const EntryTable &table, uint32_t index, const void *fields)
{
    if (record == nullptr || fields == nullptr || index >= table.count) {
        return nullptr;
    }
    uint8_t *entry = static_cast<uint8_t *>(record) + table.offset + index * table.size;
    std::memset(entry, 0, table.size);
    return entry;
}

// Multi-byte fields of the record are little-endian and unaligned.
void put16(uint8_t *at, uint16_t v)
{
    at[0] = static_cast<uint8_t>(v & 0xFFu);
    at[1] = static_cast<uint8_t>(v >> 8);
}

void put32(uint8_t *at, uint32_t v)
{
    put16(at, static_cast<uint16_t>(v & 0xFFFFu));
    put16(at + 2, static_cast<uint16_t>(v >> 16));
}

// Waits (bounded unless timeout_ms is -1) for the running callbacks, then
// joins their threads. true when none is left.
bool wait_callbacks(int32_t timeout_ms)
{
    BpState &s = state();
    std::vector<std::thread> finished;
    bool idle = false;
    {
        std::unique_lock lock(s.lock);
        auto none_running = [&s] { return s.in_flight == 0; };
        if (timeout_ms < 0) {
            s.hotplug_changed.wait(lock, none_running);
            idle = true;
        } else {
            idle = s.hotplug_changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), none_running);
        }
        if (idle) {
            finished.swap(s.threads);
        }
    }
    for (std::thread &t : finished) {
        if (t.joinable()) {
            t.join();
        }
    }
    return idle;
}

}  // namespace

void bp_reset()
{
    wait_callbacks(5000);
    BpState &s = state();
    std::lock_guard guard(s.lock);
    s.record.fill(0);
    for (auto &script : s.scripts) {
        script.clear();
    }
    s.write_sizes.clear();
    s.writes.clear();
    s.done = 0;
    s.last_result = 0;
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

uint32_t VornBpApiOpenExec(VornBpApiCallback callback, uint32_t options, const char *file, const char *function,
                           uint32_t line, uint32_t reserved)
{
    (void)file;
    (void)function;
    (void)line;
    (void)reserved;
    if (fault_hit(VORNHOST_VornBpApiOpenExec)) {
        return 0;
    }
    BpState &s = state();
    {
        std::lock_guard guard(s.lock);
        if (fails(s.scripts[VORNHOST_BP_OPEN].take())) {
            return 0;
        }
    }
    try {
        auto session = std::make_unique<Session>();
        session->callback = callback;
        session->options = options;
        return sessions().add(std::move(session));
    } catch (...) {
        return 0;
    }
}

uint32_t VornBpApiReadExec(uint32_t h, void *apiInfo, const char *file, const char *function, uint32_t line)
{
    (void)file;
    (void)function;
    (void)line;
    if (const uint32_t rc = check_session(VORNHOST_VornBpApiReadExec, h); rc != VORNHOST_OK) {
        return rc;
    }
    if (apiInfo == nullptr) {
        return VORNHOST_E_ARG;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    const uint32_t status = s.scripts[VORNHOST_BP_READ].take();
    if (!fails(status)) {
        std::memcpy(apiInfo, s.record.data(), s.record.size());
    }
    return status;
}

uint32_t VornBpApiWriteExec(uint32_t h, uint32_t writeType, const void *record, const char *file, const char *function,
                            uint32_t line)
{
    (void)file;
    if (const uint32_t rc = check_session(VORNHOST_VornBpApiWriteExec, h); rc != VORNHOST_OK) {
        return rc;
    }
    if (record == nullptr) {
        return VORNHOST_E_ARG;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    const uint32_t size = s.write_sizes.size(writeType);
    uint32_t status = s.scripts[VORNHOST_BP_WRITE].take();
    if (size == 0 && !fails(status)) {
        status = VORNHOST_E_UNSUPPORTED;
    }
    try {
        VornHostBpWrite entry{};
        entry.handle = h;
        entry.writeType = writeType;
        entry.status = status;
        entry.length = size;
        std::memcpy(entry.bytes, record, size);
        entry.line = line;
        if (function != nullptr) {
            std::strncpy(entry.function, function, sizeof entry.function - 1);
        }
        s.writes.add(entry);
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return status;
}

uint32_t VornBpApiCloseExec(uint32_t h, const char *file, const char *function, uint32_t line)
{
    (void)file;
    (void)function;
    (void)line;
    if (const uint32_t rc = check_session(VORNHOST_VornBpApiCloseExec, h); rc != VORNHOST_OK) {
        return rc;
    }
    BpState &s = state();
    uint32_t status = 0;
    {
        std::lock_guard guard(s.lock);
        status = s.scripts[VORNHOST_BP_CLOSE].take();
    }
    if (fails(status)) {
        return status;
    }
    return sessions().remove(h) ? status : VORNHOST_E_HANDLE;
}

const char *VornBpApiError(uint32_t status)
{
    switch (status & 0xFFu) {
        case VORNHOST_OK:
            return "Success";
        case VORNHOST_E_HANDLE:
            return "Invalid session handle";
        case VORNHOST_E_TIMEOUT:
            return "Timed out";
        case VORNHOST_E_DEADLOCK:
            return "Resource deadlock avoided";
        case VORNHOST_E_NOT_OWNER:
            return "Operation not permitted";
        case VORNHOST_E_ARG:
            return "Invalid argument";
        case VORNHOST_E_RANGE:
            return "Out of range";
        case VORNHOST_E_NOSPACE:
            return "Buffer too small";
        case VORNHOST_E_NOMEM:
            return "Out of memory";
        case VORNHOST_E_SYS:
            return "System call failed";
        case VORNHOST_E_UNSUPPORTED:
            return "Unsupported write type";
        case VORNHOST_E_BUSY:
            return "Backplane busy";
        case VORNHOST_E_NODEV:
            return "No such backplane device";
        case VORNHOST_E_INJECTED:
            return "Fault injected (vornhost)";
        default:
            return "Unknown backplane API error";
    }
}

int vornhost_bp_info_set_counts(void *record, uint8_t bayCnt, uint8_t driveCnt, uint8_t slotCnt, uint8_t riserCnt)
{
    if (record == nullptr) {
        return VORNHOST_E_ARG;
    }
    auto *r = static_cast<uint8_t *>(record);
    r[2] = bayCnt;
    r[3] = driveCnt;
    r[4] = slotCnt;
    r[6] = riserCnt;
    return VORNHOST_OK;
}

int vornhost_bp_info_set_bay(void *record, uint32_t index, const VornHostBpBay *bay)
{
    uint8_t *e = clear_entry(record, kBays, index, bay);
    if (e == nullptr) {
        return VORNHOST_E_ARG;
    }
    e[0] = bay->inventory;
    put16(e + 1, bay->bpId);
    e[3] = bay->downstreamCnt;
    put32(e + 4, bay->pcieSlotMap);
    std::memcpy(e + 8, bay->downstreamBayIds, sizeof bay->downstreamBayIds);
    e[14] = bay->bayId;
    e[15] = bay->tech;
    e[16] = bay->size;
    e[27] = bay->priSec;
    e[28] = bay->primaryBayId;
    e[29] = bay->physSlotCnt;
    e[30] = bay->logicalSlotCnt;
    e[32] = bay->physDriveCnt;
    e[35] = bay->riserCnt;
    e[37] = bay->fwMajor;
    e[38] = bay->fwMinor;
    std::memcpy(e + 39, bay->compId, sizeof bay->compId);
    return VORNHOST_OK;
}

int vornhost_bp_info_set_drive(void *record, uint32_t index, const VornHostBpDrive *drive)
{
    uint8_t *e = clear_entry(record, kDrives, index, drive);
    if (e == nullptr) {
        return VORNHOST_E_ARG;
    }
    e[1] = drive->driveId;
    e[2] = drive->sensor;
    e[3] = drive->bayId;
    e[4] = drive->driveSlot;
    e[7] = drive->extenderSlot;
    e[11] = drive->tech;
    put16(e + 12, drive->state);
    return VORNHOST_OK;
}

int vornhost_bp_info_set_riser(void *record, uint32_t index, const VornHostBpRiser *riser)
{
    uint8_t *e = clear_entry(record, kRisers, index, riser);
    if (e == nullptr) {
        return VORNHOST_E_ARG;
    }
    e[0] = riser->present;
    e[1] = riser->bayId;
    e[2] = riser->type;
    e[3] = riser->slot;
    e[4] = riser->num;
    return VORNHOST_OK;
}

void vornhost_bp_set_info(const void *record)
{
    if (record == nullptr) {
        return;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    std::memcpy(s.record.data(), record, s.record.size());
}

void vornhost_bp_get_info(void *record)
{
    if (record == nullptr) {
        return;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    std::memcpy(record, s.record.data(), s.record.size());
}

void vornhost_bp_set_status(VornHostBpOp op, uint32_t status, uint32_t count)
{
    if (static_cast<int>(op) < 0 || op >= VORNHOST_BP_OP_COUNT) {
        return;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    s.scripts[op].set(status, count);
}

int vornhost_bp_set_write_size(uint32_t writeType, uint32_t size)
{
    BpState &s = state();
    std::lock_guard guard(s.lock);
    return s.write_sizes.set(writeType, size);
}

uint32_t vornhost_bp_session_count(void)
{
    return sessions().size();
}

int vornhost_bp_session_has_callback(uint32_t h)
{
    const auto session = sessions().find(h);
    if (!session) {
        return -1;
    }
    return session->callback != nullptr ? 1 : 0;
}

uint32_t vornhost_bp_write_count(void)
{
    return state().writes.count();
}

int vornhost_bp_write_get(uint32_t index, VornHostBpWrite *out)
{
    return state().writes.get(index, out);
}

int vornhost_bp_hotplug(const void *record)
{
    if (record == nullptr) {
        return -1;
    }
    std::vector<VornBpApiCallback> callbacks;
    try {
        sessions().for_each([&callbacks](uint32_t, const Session &session) {
            if (session.callback != nullptr) {
                callbacks.push_back(session.callback);
            }
        });
    } catch (...) {
        return -1;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    std::memcpy(s.record.data(), record, s.record.size());
    int started = 0;
    for (VornBpApiCallback callback : callbacks) {
        bool counted = false;
        try {
            // Moved into the thread: one owner only (see HandleTable on helgrind and shared_ptr).
            auto copy = std::make_unique<Record>(s.record);
            ++s.in_flight;
            counted = true;
            s.threads.emplace_back([callback, copy = std::move(copy)] {
                const int32_t result = callback(copy->data());
                BpState &st = state();
                std::lock_guard done_guard(st.lock);
                --st.in_flight;
                ++st.done;
                st.last_result = result;
                st.hotplug_changed.notify_all();
            });
            ++started;
        } catch (...) {
            if (counted) {
                --s.in_flight;
            }
            return -1;
        }
    }
    return started;
}

int vornhost_bp_hotplug_wait(int32_t timeout_ms)
{
    return wait_callbacks(timeout_ms) ? VORNHOST_OK : VORNHOST_E_TIMEOUT;
}

uint32_t vornhost_bp_hotplug_done(void)
{
    BpState &s = state();
    std::lock_guard guard(s.lock);
    return s.done;
}

int32_t vornhost_bp_hotplug_last_result(void)
{
    BpState &s = state();
    std::lock_guard guard(s.lock);
    return s.last_result;
}

}  // extern "C"

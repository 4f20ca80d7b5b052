// The simulated backplane: API info record, sessions, write journal, hot plug.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
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
    std::map<uint32_t, uint32_t> extra_write_sizes;
    std::deque<VornHostBpWrite> writes;
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

// Size of a write type's record, 0 when unknown. Under s.lock.
uint32_t write_size(const BpState &s, uint32_t writeType)
{
    if (writeType == kDriveStatusWriteType) {
        return kDriveStatusWriteSize;
    }
    const auto it = s.extra_write_sizes.find(writeType);
    return it == s.extra_write_sizes.end() ? 0 : it->second;
}

bool fails(uint32_t status)
{
    return (status & 0xFFu) != 0;
}

void put8(void *record, uint32_t offset, uint8_t v)
{
    static_cast<uint8_t *>(record)[offset] = v;
}

void put16(void *record, uint32_t offset, uint16_t v)
{
    put8(record, offset, static_cast<uint8_t>(v & 0xFFu));
    put8(record, offset + 1, static_cast<uint8_t>(v >> 8));
}

void put32(void *record, uint32_t offset, uint32_t v)
{
    put16(record, offset, static_cast<uint16_t>(v & 0xFFFFu));
    put16(record, offset + 2, static_cast<uint16_t>(v >> 16));
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
    s.extra_write_sizes.clear();
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
    if (fault_hit(VORNHOST_VornBpApiReadExec)) {
        return VORNHOST_E_INJECTED;
    }
    if (h == 0 || !sessions().find(h)) {
        return VORNHOST_E_HANDLE;
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
    if (fault_hit(VORNHOST_VornBpApiWriteExec)) {
        return VORNHOST_E_INJECTED;
    }
    if (h == 0 || !sessions().find(h)) {
        return VORNHOST_E_HANDLE;
    }
    if (record == nullptr) {
        return VORNHOST_E_ARG;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    const uint32_t size = write_size(s, writeType);
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
        s.writes.push_back(entry);
        while (s.writes.size() > VORNHOST_BP_WRITE_JOURNAL_MAX) {
            s.writes.pop_front();
        }
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
    if (fault_hit(VORNHOST_VornBpApiCloseExec)) {
        return VORNHOST_E_INJECTED;
    }
    if (h == 0 || !sessions().find(h)) {
        return VORNHOST_E_HANDLE;
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
    put8(record, 2, bayCnt);
    put8(record, 3, driveCnt);
    put8(record, 4, slotCnt);
    put8(record, 6, riserCnt);
    return VORNHOST_OK;
}

int vornhost_bp_info_set_bay(void *record, uint32_t index, const VornHostBpBay *bay)
{
    if (record == nullptr || bay == nullptr || index >= VORNHOST_BP_MAX_BAYS) {
        return VORNHOST_E_ARG;
    }
    const uint32_t o = VORNHOST_BP_BAY_OFFSET + index * VORNHOST_BP_BAY_SIZE;
    std::memset(static_cast<uint8_t *>(record) + o, 0, VORNHOST_BP_BAY_SIZE);
    put8(record, o + 0, bay->inventory);
    put16(record, o + 1, bay->bpId);
    put8(record, o + 3, bay->downstreamCnt);
    put32(record, o + 4, bay->pcieSlotMap);
    for (uint32_t i = 0; i < 6; ++i) {
        put8(record, o + 8 + i, bay->downstreamBayIds[i]);
    }
    put8(record, o + 14, bay->bayId);
    put8(record, o + 15, bay->tech);
    put8(record, o + 16, bay->size);
    put8(record, o + 27, bay->priSec);
    put8(record, o + 28, bay->primaryBayId);
    put8(record, o + 29, bay->physSlotCnt);
    put8(record, o + 30, bay->logicalSlotCnt);
    put8(record, o + 32, bay->physDriveCnt);
    put8(record, o + 35, bay->riserCnt);
    put8(record, o + 37, bay->fwMajor);
    put8(record, o + 38, bay->fwMinor);
    for (uint32_t i = 0; i < 3; ++i) {
        put8(record, o + 39 + i, bay->compId[i]);
    }
    return VORNHOST_OK;
}

int vornhost_bp_info_set_drive(void *record, uint32_t index, const VornHostBpDrive *drive)
{
    if (record == nullptr || drive == nullptr || index >= VORNHOST_BP_MAX_DRIVES) {
        return VORNHOST_E_ARG;
    }
    const uint32_t o = VORNHOST_BP_DRIVE_OFFSET + index * VORNHOST_BP_DRIVE_SIZE;
    std::memset(static_cast<uint8_t *>(record) + o, 0, VORNHOST_BP_DRIVE_SIZE);
    put8(record, o + 1, drive->driveId);
    put8(record, o + 2, drive->sensor);
    put8(record, o + 3, drive->bayId);
    put8(record, o + 4, drive->driveSlot);
    put8(record, o + 7, drive->extenderSlot);
    put8(record, o + 11, drive->tech);
    put16(record, o + 12, drive->state);
    return VORNHOST_OK;
}

int vornhost_bp_info_set_riser(void *record, uint32_t index, const VornHostBpRiser *riser)
{
    if (record == nullptr || riser == nullptr || index >= VORNHOST_BP_MAX_RISERS) {
        return VORNHOST_E_ARG;
    }
    const uint32_t o = VORNHOST_BP_RISER_OFFSET + index * VORNHOST_BP_RISER_SIZE;
    std::memset(static_cast<uint8_t *>(record) + o, 0, VORNHOST_BP_RISER_SIZE);
    put8(record, o + 0, riser->present);
    put8(record, o + 1, riser->bayId);
    put8(record, o + 2, riser->type);
    put8(record, o + 3, riser->slot);
    put8(record, o + 4, riser->num);
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
    if (writeType == kDriveStatusWriteType || size > VORNHOST_BP_INFO_SIZE) {
        return VORNHOST_E_ARG;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    try {
        if (size == 0) {
            s.extra_write_sizes.erase(writeType);
        } else {
            s.extra_write_sizes[writeType] = size;
        }
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return VORNHOST_OK;
}

uint32_t vornhost_bp_session_count(void)
{
    return sessions().size();
}

int vornhost_bp_session_has_callback(uint32_t h)
{
    const auto session = sessions().find(h);
    if (h == 0 || !session) {
        return -1;
    }
    return session->callback != nullptr ? 1 : 0;
}

uint32_t vornhost_bp_write_count(void)
{
    BpState &s = state();
    std::lock_guard guard(s.lock);
    return static_cast<uint32_t>(s.writes.size());
}

int vornhost_bp_write_get(uint32_t index, VornHostBpWrite *out)
{
    if (out == nullptr) {
        return -1;
    }
    BpState &s = state();
    std::lock_guard guard(s.lock);
    if (index >= s.writes.size()) {
        return -1;
    }
    *out = s.writes[index];
    return 0;
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

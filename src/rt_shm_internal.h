// Private pieces of the rt_shm module shared by its source files: the
// drive-state tables, the single-access helpers for the tables the backplane
// API's thread shares with the service, reads of the API info record that stay
// inside its 738 bytes, and the bound check of the NVMe tables.
#pragma once

#include <atomic>
#include <cstdint>

#include "rtvox/rt_shm.h"

namespace rtvox::shm {

// Current drive states (by bay id, slot) and the pending states hot plug
// reported; both zeroed by rtshm_BpApiInit.
extern uint16_t au16DriveState[RTSHM_NVME_BAYS][RTSHM_NVME_SLOTS];
extern uint16_t au16PendingDriveState[RTSHM_NVME_BAYS][RTSHM_NVME_SLOTS];

// sNVMeSSDBPInfo and the drive-state tables are read and written by the
// service's threads and the hot-plug callback without a lock. Every access
// goes through these two: one access of the field's width, relaxed on load;
// the store is sequentially consistent (a locked exchange on x86), which the
// race checkers recognise as atomic.
template <typename T>
T shared_load(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}

template <typename T>
void shared_store(T &field, T value)
{
    std::atomic_ref<T>(field).store(value);
}

// The entry `index` of the record's table that starts at `offset`, or nullptr
// when the entry would pass the record's end. Entries beyond the laid-out
// ones are read where the record has them.
template <typename Entry>
const Entry *record_entry(const RtShmBpApiInfo *info, uint32_t offset, uint32_t index)
{
    if (offset + (index + 1) * sizeof(Entry) > RTSHM_BP_INFO_SIZE) {
        return nullptr;
    }
    return reinterpret_cast<const Entry *>(reinterpret_cast<const uint8_t *>(info) + offset + index * sizeof(Entry));
}

inline const RtShmBpBay *bay_entry(const RtShmBpApiInfo *info, uint32_t index)
{
    return record_entry<RtShmBpBay>(info, RTSHM_BP_BAY_OFFSET, index);
}

inline const RtShmBpDrive *drive_entry(const RtShmBpApiInfo *info, uint32_t index)
{
    return record_entry<RtShmBpDrive>(info, RTSHM_BP_DRIVE_OFFSET, index);
}

inline const RtShmBpRiser *riser_entry(const RtShmBpApiInfo *info, uint32_t index)
{
    return record_entry<RtShmBpRiser>(info, RTSHM_BP_RISER_OFFSET, index);
}

// Little-endian fields of the record, at any byte.
inline uint16_t le16(const uint8_t (&bytes)[2])
{
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

inline uint32_t le32(const uint8_t (&bytes)[4])
{
    return static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
           (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

// Only the low byte of a backplane status is meaningful; 0 is success.
inline bool bp_failed(uint32_t status)
{
    return (status & 0xFFu) != 0;
}

inline bool is_nvme(uint8_t tech)
{
    return tech == RTSHM_TECH_NVME || tech == RTSHM_TECH_NVME_ALT;
}

// True when `index` lies inside a table of `rows`; otherwise traces, in the
// name of `function`, the level-2 line "<-- error <what> <index> is out of
// range" and answers false.
bool in_table(const char *function, const char *what, uint32_t index, uint32_t rows);

// True when `pointer` is NULL, after the level-2 line "<-- err null inputs"
// in the name of `function`.
bool null_input(const char *function, const void *pointer);

// Both indices of a drive-state table or slot entry.
inline bool slot_in_table(const char *function, uint32_t bay, uint32_t slot)
{
    return in_table(function, "bay id", bay, RTSHM_NVME_BAYS) && in_table(function, "slot", slot, RTSHM_NVME_SLOTS);
}

// The traced walk end of a record table whose count passes the record:
// "<-- error %s entries past the record's end are not read" at level 2.
void trace_record_end(const char *function, const char *what, uint32_t index);

}  // namespace rtvox::shm

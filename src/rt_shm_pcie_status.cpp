// PCIe SSD drive status in region 20, and the simulation that fills regions
// 20 and 26 from two files so that their consumers can run without PCIe SSD
// hardware.
#define RT_MODULE_FILE "rt_shm.c"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "paths.h"
#include "rt_shm_pcie.h"
#include "rtvox/rt_shm.h"
#include "trace.h"

using rtvox::detail::region_offset;
using rtvox::detail::shm_read;
using rtvox::detail::shm_write;

namespace {

constexpr uint32_t kDone = 0;
constexpr uint32_t kFailed = 3;

constexpr uint32_t kBp = RTSHM_PCIESSD_BP_REGION;
constexpr uint32_t kFru = RTSHM_PCIESSD_FRU_REGION;
constexpr uint32_t kCounter = offsetof(RtShmPcieSsdBp, u8StatusCounter);
constexpr uint32_t kStatusArea = offsetof(RtShmPcieSsdBp, asDriveStatus);
constexpr uint32_t kStatusWord = offsetof(RtShmPcieSsdBp, asDriveStatus[0].u16DriveStatus);
constexpr uint32_t kEntry = sizeof(RtShmPcieSsdDriveStatus);

using StatusArea = std::array<RtShmPcieSsdDriveStatus, RTSHM_PCIESSD_SLOTS>;
static_assert(sizeof(StatusArea) == 128);

// What the simulation fills unused entries and records with.
constexpr uint8_t kSimFill = 0xFE;
constexpr int kFruFileBytes = RTSHM_PCIESSD_FRU_BYTES;
constexpr int kStatusLineChars = 9;

// The simulation's process-wide state. It runs on the service's poller; the
// atomics only keep a stray second caller from racing on plain bytes.
std::atomic<uint32_t> g_last_status{0xFFFFFFFF};
std::atomic<uint8_t> g_last_sequence{0};
std::atomic<uint8_t> g_status_counter{0x80};
std::atomic<uint8_t> g_fru_counter{0x80};

constexpr auto kRelaxed = std::memory_order_relaxed;

std::array<uint8_t, 2> le16(uint32_t value)
{
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

void set_entry(RtShmPcieSsdDriveStatus &entry, const RtShmPcieSsdSlot &slot, uint32_t status)
{
    entry.u8BayID = slot.u8BayID;
    entry.u8SlotNumInBay = slot.u8SlotNumInBay;
    const auto bytes = le16(status);
    std::memcpy(reinterpret_cast<unsigned char *>(&entry) + offsetof(RtShmPcieSsdDriveStatus, u16DriveStatus),
                bytes.data(), bytes.size());
}

struct FileCloser {
    void operator()(FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Opens a simulation input for `function`, only as a regular file: /tmp is
// world-writable and the service runs as root, so a link planted there must
// not redirect the read.
File open_input(const char *function, const char *absolute, const char *mode)
{
    bool refused = false;
    File file(rtvox::detail::open_regular_file(rtvox::detail::resolve_path(absolute), mode, &refused));
    if (!file && refused) {
        RT_TRACE_AS(function, 2, "%s is not a regular file, not read", absolute);
    }
    return file;
}

// Advances the drive-status update counter (byte 10; 255 wraps to 0).
uint32_t bump_status_counter(const char *function)
{
    uint8_t counter = 0;
    if (!shm_read(function, kBp, &counter, kCounter, 1)) {
        return kFailed;
    }
    ++counter;
    return shm_write(function, kBp, &counter, kCounter, 1) ? kDone : kFailed;
}

// The simulation ignores the results of its region accesses: it is a test
// aid, and the next change of the inputs writes everything again.
void sim_write(uint32_t region, const void *data, uint32_t offset, uint32_t length)
{
    (void)Vorn_shm_memwrite(region, data, offset, length);
}

// Every entry first reads 0xFE, then the described slots get `status`.
void simulate_status(const char *function, const RtShmPcieSsdBp &bp, uint32_t slots, uint32_t status)
{
    StatusArea area;
    std::memset(area.data(), kSimFill, sizeof area);
    sim_write(kBp, area.data(), kStatusArea, sizeof area);
    for (uint32_t g = 0; g < slots; ++g) {
        set_entry(area[g], bp.asSlot[g], status);
        RT_TRACE_AS(function, 4, "u8BayID=%u\tu8SlotNumInBay=%u", unsigned{bp.asSlot[g].u8BayID},
                    unsigned{bp.asSlot[g].u8SlotNumInBay});
    }
    sim_write(kBp, area.data(), kStatusArea, sizeof area);
    const uint8_t counter = g_status_counter.fetch_add(1, kRelaxed);  // the value before the increment
    sim_write(kBp, &counter, kCounter, 1);
}

// The whole region first reads 0xFE, then the described slots get their
// record with the file's FRU image.
void simulate_fru(const char *function, RtShmPcieSsdFru &image, const RtShmPcieSsdBp &bp, uint32_t slots)
{
    std::memset(&image, kSimFill, sizeof image);
    sim_write(kFru, &image, 0, sizeof image);
    std::array<uint8_t, RTSHM_PCIESSD_FRU_BYTES> fru{};  // zero past the end of a short file
    ReadFRUFile(fru.data());
    for (uint32_t g = 0; g < slots; ++g) {
        RtShmPcieSsdFruRecord &record = image.asBay[g];
        record.u8Slot = static_cast<uint8_t>(g);
        record.u8Present = bp.asSlot[g].u8DrivePresence;
        std::memcpy(record.au8FRU, fru.data(), fru.size());
        RT_TRACE_AS(function, 4, "u8SlotNum=%u\tPresent=%u", g, unsigned{record.u8Present});
    }
    image.u8FRUCounter = g_fru_counter.fetch_add(1, kRelaxed);
    sim_write(kFru, &image, 0, sizeof image);
}

}  // namespace

extern "C" {

uint32_t RTSHM_readPciessdDriveStatusFromShm(uint16_t *status, int32_t slot)
{
    if (status == nullptr) {
        return kDone;  // callers take 0 here as "nothing to report"
    }
    const auto s16 = static_cast<int16_t>(slot);
    const uint32_t offset = region_offset(kStatusWord, kEntry, s16);
    std::array<uint8_t, 2> bytes{};
    if (!shm_read(__func__, kBp, bytes.data(), offset, bytes.size())) {
        return kFailed;
    }
    *status = static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
    RT_TRACE(4, " After Read u16DriveStatus:=%d u8Slot = %d offset = %d  u8Slot=%d ", *status, s16,
             static_cast<int>(offset), s16);
    return kDone;
}

uint32_t updatePciessdDriveStatusToShm(uint32_t status, uint32_t slot)
{
    const uint32_t offset = region_offset(kStatusWord, kEntry, slot);
    const auto bytes = le16(status);
    if (!shm_write(__func__, kBp, bytes.data(), offset, bytes.size())) {
        return kFailed;  // the counter stays: nothing changed
    }
    RT_TRACE(4, " After Update  u16DriveStatus:=%d u8Slot = %d offset = %d ", static_cast<uint16_t>(status),
             static_cast<int>(slot), static_cast<int>(offset));
    return bump_status_counter(__func__);
}

uint32_t updatePciessdiBCDDataToShm(const RtShmPcieSsdBp *image)
{
    if (image == nullptr) {
        return kDone;
    }
    // The size printed is 4 although the whole 128-byte area is written;
    // the line is read as it has always been.
    RT_TRACE(4, " Before Update DriveStatusInfo offset: %d size = %d ", static_cast<int>(kStatusArea), 4);
    const auto *area = reinterpret_cast<const unsigned char *>(image) + kStatusArea;
    return shm_write(__func__, kBp, area, kStatusArea, sizeof(StatusArea)) ? kDone : kFailed;
}

int32_t ReadStatusFile(void)
{
    const File file = open_input(__func__, RTSHM_PCIESSD_STATUS_FILE, "r");
    if (!file) {
        return 0;
    }
    char line[kStatusLineChars + 1] = {};
    int32_t status = 0;
    if (std::fgets(line, sizeof line, file.get()) != nullptr) {
        status = static_cast<int32_t>(std::strtol(line, nullptr, 10));
    }
    RT_TRACE(4, "Status=%d \t offset=%d ", status, static_cast<int>(kStatusArea));
    return status;
}

int32_t ReadFRUFile(uint8_t *buffer)
{
    if (buffer == nullptr) {
        RT_TRACE(2, "<-- %s error", "NULL FRU buffer");
        return -1;
    }
    const File file = open_input(__func__, RTSHM_PCIESSD_FRU_FILE, "rb");
    if (!file) {
        return 0;
    }
    const auto read = static_cast<int>(std::fread(buffer, 1, kFruFileBytes, file.get()));
    if (read > 0) {
        RT_TRACE(4, "FRU bytes read=%d ", read);
    }
    return read;
}

void RTSHM_PCIeSSDSimulate(void)
{
    const rtvox::detail::FruImage image = rtvox::detail::new_fru_image(__func__);
    if (!image) {
        return;
    }
    RtShmPcieSsdBp bp{};
    (void)Vorn_shm_memread(kBp, &bp, 0, sizeof bp);
    const uint32_t slots = std::min<uint32_t>(bp.u8SlotCount, RTSHM_PCIESSD_SLOTS);

    if (static_cast<uint32_t>(ReadStatusFile()) != g_last_status.load(kRelaxed) ||
        bp.u8PresenceSeq != g_last_sequence.load(kRelaxed)) {
        g_last_sequence.store(bp.u8PresenceSeq, kRelaxed);
        // Read again: the slots get the file's value as of now.
        g_last_status.store(static_cast<uint32_t>(ReadStatusFile()), kRelaxed);
        simulate_status(__func__, bp, slots, g_last_status.load(kRelaxed));
        simulate_fru(__func__, *image, bp, slots);
    }

    RT_TRACE(4, "Slots=%d \t Counters: %d / %d ", bp.u8SlotCount, bp.u8PresenceSeq, g_status_counter.load(kRelaxed));
    for (uint32_t g = 0; g < bp.u8SlotCount; ++g) {
        if (g == RTSHM_PCIESSD_SLOTS) {
            RT_TRACE(2, "Slots=%d: only %u slot entries exist, the rest not shown", bp.u8SlotCount,
                     RTSHM_PCIESSD_SLOTS);
            break;
        }
        const RtShmPcieSsdSlot &slot = bp.asSlot[g];
        RT_TRACE(4, "u8BayID=%u\tu8SlotNumInBay=%u\tu8BPType=%u\t", unsigned{slot.u8BayID},
                 unsigned{slot.u8SlotNumInBay}, unsigned{slot.u8BPType});
        RT_TRACE(4, "u8DrivePresence=%u\tu16DriveStatus=%u", unsigned{slot.u8DrivePresence},
                 g_last_status.load(kRelaxed) & 0xFFFFu);
    }
}

}  // extern "C"

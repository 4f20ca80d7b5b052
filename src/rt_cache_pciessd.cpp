// The FQDD of a PCIe SSD in a backplane bay, from its global slot number
// (cache module).
#define RT_MODULE_FILE "rt_cache.c"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "trace.h"

namespace {

constexpr uint32_t kDirRegion = RTSHM_PCIESSD_FRUDIR_REGION;
// Only the first sizeof(RtShmPcieSsdFruDir) bytes are read into it.
constexpr uint32_t kDirBufferSize = 65668;
constexpr uint32_t kFqddSize = 60;
constexpr uint32_t kEntries = 256;  // what the walk's 8-bit counter reaches
constexpr uint8_t kNoExtender = 255;

using Entry = RtShmPcieSsdFruDirEntry;
static_assert(offsetof(RtShmPcieSsdFruDir, asEntry) + kEntries * sizeof(Entry) <= kDirBufferSize,
              "every entry the walk reaches lies inside the buffer");

struct BlockFree {
    void operator()(void *block) const { rtvox_free(block); }
};
using Block = std::unique_ptr<uint8_t, BlockFree>;

uint16_t le16(const uint8_t *bytes)
{
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

bool read_directory(void *buffer, uint32_t offset, uint32_t length)
{
    const int32_t rc = Vorn_shm_memread(kDirRegion, buffer, offset, length);
    if (rc != 0) {
        RT_TRACE_AS("rtvox_GetPCIeSSDFQDD", 2, "%s retVal=%d %d", "error, SHM read", rc, static_cast<int>(offset));
    }
    return rc == 0;
}

// The PCIe slot of the first bay record of `bay` in the directory held by
// `dir`, kNoExtender when none; false when a record could not be read.
bool extender_slot(const uint8_t *dir, uint8_t slot, uint8_t bay, uint8_t *pcieSlot)
{
    constexpr const char *kFunction = "rtvox_GetPCIeSSDFQDD";
    const uint16_t count = le16(dir + offsetof(RtShmPcieSsdFruDir, u16Count));
    *pcieSlot = kNoExtender;
    for (uint32_t i = 0; i < count; ++i) {
        if (i == kEntries) {
            RT_TRACE_AS(kFunction, 2, "entry count %d passes the %u entries the walk reaches", count, kEntries);
            break;
        }
        const uint8_t *entry = dir + offsetof(RtShmPcieSsdFruDir, asEntry) + i * sizeof(Entry);
        if (entry[offsetof(Entry, u8Kind)] != RTSHM_PCIESSD_FRUDIR_BAY_ENTRY) {
            continue;
        }
        std::array<uint8_t, 4> record{};
        if (!read_directory(record.data(), le16(entry + offsetof(Entry, u16RecordOffset)), record.size())) {
            return false;
        }
        const uint8_t fruBay = record[1];
        RT_TRACE_AS(kFunction, 4, "u8FruBayID=%d u8Slot=%d u8bayId=%d ", fruBay, slot, bay);
        if (fruBay == bay) {
            *pcieSlot = entry[offsetof(Entry, u8PCIeSlotNo)];
            RT_TRACE_AS(kFunction, 4, "u8PCIeSlotNo=%d, u8bayId=%d ", *pcieSlot, bay);
            return true;
        }
        RT_TRACE_AS(kFunction, 4, "BayID is not Matching u8Iter = %d", static_cast<int>(i));
    }
    return true;
}

}  // namespace

extern "C" {

char *rtvox_GetPCIeSSDFQDD(uint32_t u32GlobalSlotNumber)
{
    const auto global = static_cast<uint8_t>(u32GlobalSlotNumber);
    uint8_t slot = 0;
    if (RTSHM_readSSDSlotNumFromGblSlotNum(&slot, global) != 0) {
        RT_TRACE(2, "%s line%d", "Failed while getting slot", __LINE__);
        return nullptr;
    }
    uint8_t bay = 0;
    if (RTSHM_readBayIDInfoFromGblSlotNum(&bay, global) != 0) {
        RT_TRACE(2, "Failed while getting bayID");
        return nullptr;
    }
    const Block dir(static_cast<uint8_t *>(rtvox_alloc(kDirBufferSize)));
    if (!dir) {
        RT_TRACE(2, "Failed to allocate memory");
        return nullptr;
    }
    if (!read_directory(dir.get(), 0, sizeof(RtShmPcieSsdFruDir))) {
        return nullptr;
    }
    RT_TRACE(4, "u32GlobalSlotNumber=%d u8Slot=%d u8bayId=%d ", global, slot, bay);
    uint8_t pcieSlot = kNoExtender;
    if (!extender_slot(dir.get(), slot, bay, &pcieSlot)) {
        return nullptr;
    }
    auto *fqdd = static_cast<char *>(rtvox_alloc(kFqddSize));
    if (fqdd == nullptr) {
        RT_TRACE(2, "%s Failed while constructing FQDD", __func__);
        return nullptr;
    }
    // Three numbers of at most three digits: the longest text fills all 60 bytes.
    std::snprintf(fqdd, kFqddSize, "Disk.Bay.%d:Enclosure.Internal.0-%d:PCIeExtender.Slot.%d", slot, bay, pcieSlot);
    RT_TRACE(4, "%s FQDD=%s", "PCIeSSD FQDD:", fqdd);
    return fqdd;
}

}  // extern "C"

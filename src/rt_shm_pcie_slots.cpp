// PCIe SSD slot mapping: global slots to bays and slots in a bay (region 20
// and the NVMe view), EIDs to bay and slot, the presence sequence, the SPLIT-mode
// area, the backplane firmware version, and the reset of the FRU region.
#define RT_MODULE_FILE "rt_shm.c"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "rt_shm_internal.h"
#include "rt_shm_pcie.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_kwlogwrp.h"
#include "trace.h"

using namespace rtvox::shm;
using rtvox::detail::region_offset;
using rtvox::detail::shm_read;
using rtvox::detail::shm_write;

namespace {

constexpr uint32_t kDone = 0;
constexpr uint32_t kNull = 2;
constexpr uint32_t kFailed = 3;
constexpr uint32_t kNoChange = 5;

constexpr uint32_t kBp = RTSHM_PCIESSD_BP_REGION;
constexpr uint32_t kSlotEntry = sizeof(RtShmPcieSsdSlot);

// The last presence sequence the service's reads saw. The simulation keeps
// its own (see rt_shm.h).
std::atomic<uint8_t> g_presence_sequence{0};

// Region-20 offset of one byte of global slot `index`'s entry.
uint32_t slot_byte_offset(size_t field, int64_t index)
{
    return region_offset(static_cast<uint32_t>(offsetof(RtShmPcieSsdBp, asSlot) + field), kSlotEntry, index);
}

// One byte of region 20 into *out, which stays as it was when the read fails.
bool read_byte(const char *function, uint8_t *out, uint32_t offset)
{
    uint8_t byte = 0;
    if (!shm_read(function, kBp, &byte, offset, 1)) {
        return false;
    }
    *out = byte;
    return true;
}

}  // namespace

extern "C" {

uint32_t RTSHM_readBackplaneSharedMem(uint8_t *pSplitMode)
{
    if (pSplitMode == nullptr) {
        RT_TRACE(2, "<--SPLIT  %s error", __func__);
        return kNull;
    }
    std::memset(pSplitMode, 0, RTSHM_PCIESSD_SPLIT_MODE_SIZE);
    if (Vorn_shm_memread(kBp, pSplitMode, offsetof(RtShmPcieSsdBp, au8SplitMode), RTSHM_PCIESSD_SPLIT_MODE_SIZE) != 0) {
        RT_TRACE(2, "Failed to Read BackPlane SPLIT modeShared Memory");
        return kFailed;
    }
    RT_TRACE(6, "Successfully Read BackPlane SPLIT mode Shared Memory");
    return kDone;
}

uint32_t RTSHM_InitPCIeSSDSharedMem(void)
{
    const rtvox::detail::FruImage image = rtvox::detail::new_fru_image(__func__);
    if (!image) {
        return kFailed;
    }
    std::memset(image.get(), 0xFF, sizeof(RtShmPcieSsdFru));
    const bool written = shm_write(__func__, RTSHM_PCIESSD_FRU_REGION, image.get(), 0, sizeof(RtShmPcieSsdFru));
    // The event log hears of it even when the write failed.
    rt_SubMitSingle(RT_KWLOG_SINGLE_PCIESSD);
    return written ? kDone : kFailed;
}

uint32_t RTSHM_GetPCIeSSDGlobalSlotNumberBase(uint8_t *pu8BaseSlotNumber)
{
    if (pu8BaseSlotNumber == nullptr) {
        RT_TRACE(2, "<-- %s error", __func__);
        return kNull;
    }
    RT_TRACE(4, " u8BayCount=%d ", shared_load(sNVMeSSDBPInfo.u8BayCount));
    for (int bay = 0; bay < RTSHM_NVME_BAYS; ++bay) {
        for (int slot = 0; slot < RTSHM_NVME_SLOTS; ++slot) {
            const uint8_t type = shared_load(sNVMeSSDBPInfo.slot[bay][slot].u8BpType);
            RT_TRACE(5, " s8BayNo:%d u8SlotNo:%d u8BpType:%d", bay, slot, type);
            if (is_nvme(type)) {
                // The slot within its bay, not a global number.
                *pu8BaseSlotNumber = static_cast<uint8_t>(slot);
                RT_TRACE(4, " pu8BaseSlotNumber:%d u8SlotNo:%d ", slot, slot);
                RT_TRACE(4, "%s SSD Found!! u8BpType:%d GlobaSlot=%d", "NVMeBP:", type, slot);
                return kDone;
            }
            RT_TRACE(5, " BayID MissMatch, Hence skipping s8BayNo=%d u8SlotNo=%d ", bay, slot);
        }
    }
    return kNoChange;
}

uint32_t RTSHM_ReadPCIeSSDPresenceSharedMem(RtShmPcieSsdBp *pPresence)
{
    if (pPresence == nullptr) {
        RT_TRACE(2, "<-- %s error", __func__);
        return kNull;
    }
    if (!shm_read(__func__, kBp, pPresence, 0, sizeof(RtShmPcieSsdBp), "error, SHM read")) {
        return kFailed;
    }
    const uint8_t sequence = pPresence->u8PresenceSeq;
    // Starts at 0: a first read that finds sequence 0 reports no change.
    return g_presence_sequence.exchange(sequence, std::memory_order_relaxed) == sequence ? kNoChange : kDone;
}

uint32_t RTSHM_ReadBpFwVersion(uint32_t u32BayIndex, char *bpFwRev)
{
    if (bpFwRev == nullptr) {
        RT_TRACE(2, "<-- %d error", __LINE__);
        return kNull;
    }
    if (!in_table(__func__, "bay index", u32BayIndex, RTSHM_NVME_BAYS)) {
        return kNull;
    }
    const RtShmNVMeBay &bay = sNVMeSSDBPInfo.bay[u32BayIndex];
    const uint8_t major = shared_load(bay.u8FwMajor);
    const uint8_t minor = shared_load(bay.u8FwMinor);
    // The minor number is printed twice; log readers know the line so.
    RT_TRACE(4, "Fw Version:   %x.%x", minor, minor);
    std::array<char, RTSHM_PCIESSD_FW_REV_SIZE + 1> text{};
    if (std::snprintf(text.data(), text.size(), "%x.%02x", major, minor) < 0) {
        text.fill('\0');
    }
    // Exactly four bytes, without a terminator of their own.
    std::memcpy(bpFwRev, text.data(), RTSHM_PCIESSD_FW_REV_SIZE);
    // bpFwRev is shown from the terminated copy: the caller's four bytes may
    // hold no NUL to stop at.
    RT_TRACE(4, "bpFwRev:%s tmpBuf=%s", text.data(), text.data());
    return kDone;
}

uint32_t RTSHM_readSSDSlotNumFromGblSlotNum(uint8_t *pu8SlotNumInBay, int32_t s32GlobalSlot)
{
    if (pu8SlotNumInBay == nullptr) {
        return kDone;  // callers take 0 here as "nothing to report"
    }
    const uint32_t offset =
        slot_byte_offset(offsetof(RtShmPcieSsdSlot, u8SlotNumInBay), static_cast<int16_t>(s32GlobalSlot));
    if (!read_byte(__func__, pu8SlotNumInBay, offset)) {
        return kFailed;
    }
    RT_TRACE(4, " After Read offset = %d  u8SlotNumInBay=%d ", static_cast<int>(offset), *pu8SlotNumInBay);
    return kDone;
}

uint32_t RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum(uint8_t *pu8BayId, uint32_t u32GlobalSlot)
{
    if (pu8BayId == nullptr) {
        return kDone;
    }
    const uint32_t offset = slot_byte_offset(offsetof(RtShmPcieSsdSlot, u8BayID), u32GlobalSlot);
    if (!read_byte(__func__, pu8BayId, offset)) {
        return kFailed;
    }
    RT_TRACE(4, " After Read offset = %d  u8BayId=%d ", static_cast<int>(offset), *pu8BayId);
    return kDone;
}

uint32_t RTSHM_readBayIDInfoFromGblSlotNum(uint8_t *pu8BayId, uint32_t u32Slot)
{
    if (null_input(__func__, pu8BayId) || !in_table(__func__, "slot index", u32Slot, RTSHM_NVME_SLOTS)) {
        return kNull;
    }
    uint32_t result = kFailed;
    for (int bay = 0; bay < RTSHM_NVME_BAYS; ++bay) {
        const RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[bay][u32Slot];
        const uint8_t type = shared_load(slot.u8BpType);
        RT_TRACE(4, " Entry u8BpType:%d ", type);
        if (!is_nvme(type)) {
            RT_TRACE(2, "%s s8BayNo=%d %d", "error!!, Not a NVMe Backplane", bay, type);
            continue;
        }
        *pu8BayId = shared_load(slot.u8BayID);  // every bay is looked at: the last match wins
        result = kDone;
    }
    return result;
}

uint32_t RTSHM_readBayIDAndSlotNoFromEID(uint8_t *pu8BayId, uint8_t *pu8SSDSlotNo, int32_t EID)
{
    RT_TRACE(4, " Entry u8EID:%d ", EID);
    if (null_input(__func__, pu8BayId) || null_input(__func__, pu8SSDSlotNo)) {
        return kNull;
    }
    uint8_t type = 0;
    // Without the cache lock: the registry changes only while the service
    // fills it at discovery.
    if (rtcache_GetStorageEIDTypeNoLock(static_cast<uint32_t>(EID), &type) != 0) {
        RT_TRACE(2, "%s line%d", "Failed while getting slot", __LINE__);
        return 1;
    }
    uint32_t result = kDone;
    if (type != RTSHM_PCIESSD_TYPE_BAY) {
        RT_TRACE(4, "%s EID= %d It is a PCIeSSD Add-in card ", __func__, EID);
    } else {
        result = kFailed;
        for (int bay = 0; bay < RTSHM_NVME_BAYS; ++bay) {
            for (int slot = 0; slot < RTSHM_NVME_SLOTS; ++slot) {
                if (shared_load(sNVMeSSDBPInfo.slot[bay][slot].u8EID) != EID) {
                    continue;
                }
                // Every slot is looked at: the last match wins.
                *pu8BayId = static_cast<uint8_t>(bay);
                *pu8SSDSlotNo = static_cast<uint8_t>(slot);
                RT_TRACE(5, "s8BayNo:%d, s8SlotNo:%d, u8EID:%d", bay, slot, EID);
                result = kDone;
            }
        }
    }
    RT_TRACE(4, "--> Exits u8BayId:%d, u8SSDSlotNo:%d, u8Type:%d", *pu8BayId, *pu8SSDSlotNo, type);
    return result;
}

}  // extern "C"

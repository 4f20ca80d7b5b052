// The backplane API session and its data: opening the long-lived session,
// reading and tracing the API info record and condensing its NVMe part into
// sNVMeSSDBPInfo and the current drive-state table.
#define RT_MODULE_FILE "rt_shm.c"

#include <memory>

#include "rt_shm_internal.h"
#include "rtvox/platform.h"
#include "rtvox/rtvox.h"
#include "trace.h"

using namespace rtvox::shm;

extern "C" {
uint32_t bpAPIHandler;
RtShmNVMeSSDBPInfo sNVMeSSDBPInfo;
}

namespace rtvox::shm {

uint16_t au16DriveState[RTSHM_NVME_BAYS][RTSHM_NVME_SLOTS];
uint16_t au16PendingDriveState[RTSHM_NVME_BAYS][RTSHM_NVME_SLOTS];

bool in_table(const char *function, const char *what, uint32_t index, uint32_t rows)
{
    if (index < rows) {
        return true;
    }
    RT_TRACE_AS(function, 2, "<-- error %s %d is out of range", what, static_cast<int>(index));
    return false;
}

bool null_input(const char *function, const void *pointer)
{
    if (pointer != nullptr) {
        return false;
    }
    RT_TRACE_AS(function, 2, "<-- err null inputs");
    return true;
}

void trace_record_end(const char *function, const char *what, uint32_t index)
{
    RT_TRACE_AS(function, 2, "<-- error %s entries from %d on pass the record's end and are not read", what,
                static_cast<int>(index));
}

}  // namespace rtvox::shm

namespace {

// The helpers trace in the name of the exported function they serve.
constexpr const char *kPrint = "VornBpPrintApiInfo";
constexpr const char *kUpdate = "rtshm_BpDataUpdate";

struct FreeBlock {
    void operator()(void *block) const { rtvox_free(block); }
};

// The downstream bay ids of a bay, printed from the bay's byte 8 on for as
// many as its downstream count says, never past the record's end.
void print_downstream_ids(const RtShmBpApiInfo *info, const RtShmBpBay *bay)
{
    const auto *record = reinterpret_cast<const uint8_t *>(info);
    const auto first = static_cast<uint32_t>(bay->downstreamBayIds - record);
    for (uint32_t k = 0; k < bay->downstreamCnt; ++k) {
        if (first + k >= RTSHM_BP_INFO_SIZE) {
            trace_record_end(kPrint, "downstream bay id", k);
            return;
        }
        RT_TRACE_AS(kPrint, 4, "Downstream Bay Ids :%d ", record[first + k]);
    }
}

void print_bay(const RtShmBpApiInfo *info, const RtShmBpBay *bay)
{
    RT_TRACE_AS(kPrint, 4, "Bay Id: %d %s", bay->bayId, bay->inventory != 0 ? "Inventory" : "No Inventory");
    RT_TRACE_AS(kPrint, 4, "Comp Id:      0x%02x%02x%02x", bay->compId[2], bay->compId[1], bay->compId[0]);
    RT_TRACE_AS(kPrint, 4, "Fw Version:   %x.%x", bay->fwMajor, bay->fwMinor);
    RT_TRACE_AS(kPrint, 4, "Technology:   %d", bay->tech);
    RT_TRACE_AS(kPrint, 4, "bpId:   %d size:%d", le16(bay->bpId), bay->size);
    RT_TRACE_AS(kPrint, 4, "pcieSlotMap:   %d", static_cast<int>(le32(bay->pcieSlotMap)));
    RT_TRACE_AS(kPrint, 4, "Carrier          :%d", bay->size);
    RT_TRACE_AS(kPrint, 4, "Pri/Sec          :%d", bay->priSec);
    RT_TRACE_AS(kPrint, 4, "Physical Slot Cnt:%d", bay->physSlotCnt);
    RT_TRACE_AS(kPrint, 4, "Logical Slot Cnt :%d", bay->logicalSlotCnt);
    RT_TRACE_AS(kPrint, 4, "Physical Drve Cnt:%d", bay->physDriveCnt);
    RT_TRACE_AS(kPrint, 4, "Downstream Cnt   :%d", bay->downstreamCnt);
    if (bay->priSec == 0) {
        RT_TRACE_AS(kPrint, 4, "Primary Bay Id:%d", bay->primaryBayId);
    } else if (bay->downstreamCnt != 0) {
        // The firmware reports both downstream counts in the primary-bay byte.
        RT_TRACE_AS(kPrint, 4, "Downstream Slot Cnt:%d", bay->primaryBayId);
        RT_TRACE_AS(kPrint, 4, "Downstream Drive Cnt:%d", bay->primaryBayId);
        print_downstream_ids(info, bay);
    }

    RT_TRACE_AS(kPrint, 4, "Drive Info, %d drives:", bay->physDriveCnt);
    for (uint32_t d = 0; d < info->driveCnt; ++d) {
        const RtShmBpDrive *drive = drive_entry(info, d);
        if (drive == nullptr) {
            trace_record_end(kPrint, "drive", d);
            break;
        }
        if (drive->bayId == bay->bayId) {
            RT_TRACE_AS(kPrint, 4, "NVMe SSD Slot:%d with an extenderSlot %d:", drive->driveSlot, drive->extenderSlot);
            RT_TRACE_AS(kPrint, 4, "Drive %2d, Sensor 0x%02x, Bay %d, State:%d", drive->driveId, drive->sensor,
                        drive->bayId, le16(drive->state));
        }
    }

    RT_TRACE_AS(kPrint, 4, "Riser Info, %d risers:", bay->riserCnt);
    for (uint32_t r = 0; r < info->riserCnt; ++r) {
        const RtShmBpRiser *riser = riser_entry(info, r);
        if (riser == nullptr) {
            trace_record_end(kPrint, "riser", r);
            break;
        }
        if (riser->present != 0 && riser->bayId == bay->bayId) {
            RT_TRACE_AS(kPrint, 4, "Number: %d, Type: 0x%02x, Slot %d", riser->num, riser->type, riser->Slot);
        }
    }
}

// The drive entries of an NVMe bay among the first slotCnt: each one of this
// bay fills its slot entry and its current drive state.
void update_slots(const RtShmBpApiInfo *info, const RtShmBpBay *bay)
{
    const uint8_t bayId = bay->bayId;
    for (uint32_t d = 0; d < info->slotCnt; ++d) {
        const RtShmBpDrive *drive = drive_entry(info, d);
        if (drive == nullptr) {
            trace_record_end(kUpdate, "drive", d);
            return;
        }
        RT_TRACE_AS(kUpdate, 4, " u8SlotNo:%d, drive->bayId:%d, bayId:%d, driveSlot:%d ", static_cast<int>(d),
                    drive->bayId, bayId, drive->driveSlot);
        if (drive->bayId != bayId || !in_table(kUpdate, "slot", drive->driveSlot, RTSHM_NVME_SLOTS)) {
            continue;
        }
        const uint16_t state = le16(drive->state);
        RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[bayId][drive->driveSlot];
        shared_store(slot.u8BayID, bayId);
        shared_store(slot.u8SlotNumInBay, drive->driveSlot);
        shared_store(slot.u8DriveId, drive->driveId);
        shared_store(slot.u16DriveState, state);
        shared_store(slot.u8BpType, bay->tech);
        shared_store(slot.u8DriveTech, drive->tech);
        shared_store(slot.u8ExtenderSlot, drive->extenderSlot);
        shared_store(au16DriveState[bayId][drive->driveSlot], state);
        RT_TRACE_AS(kUpdate, 4, " drive->driveId:%d drive->state:%d baySlot:%d ", drive->driveId, state,
                    drive->driveSlot);
        RT_TRACE_AS(kUpdate, 5, " drive->extenderSlot:%d drive->tech:%d ", drive->extenderSlot, drive->tech);
    }
}

// The risers of an NVMe bay become extender entries, by riser index.
void update_extenders(const RtShmBpApiInfo *info, uint8_t bayId)
{
    for (uint32_t r = 0; r < info->riserCnt; ++r) {
        const RtShmBpRiser *riser = riser_entry(info, r);
        if (riser == nullptr) {
            trace_record_end(kUpdate, "riser", r);
            return;
        }
        RT_TRACE_AS(kUpdate, 4, "Riser details :riser->Slot=%d, riser->bayId:%d riser->num:%d", riser->Slot,
                    riser->bayId, riser->num);
        if (riser->bayId != bayId) {
            continue;
        }
        RT_TRACE_AS(kUpdate, 4, "Extern Found, @PCIe Slot =%d, Type:%d", riser->Slot, riser->type);
        if (!in_table(kUpdate, "riser index", r, RTSHM_NVME_EXTENDERS)) {
            continue;
        }
        RtShmNVMeExtender &extender = sNVMeSSDBPInfo.extender[r];
        shared_store(extender.u8BayID, bayId);
        shared_store(extender.u8PciSlot, riser->Slot);
        shared_store(extender.u8RiserType, static_cast<uint8_t>(RTSHM_RISER_TYPE_EXTENDER));
        shared_store(extender.u8RiserNum, riser->num);
    }
}

void update_bay(const RtShmBpApiInfo *info, const RtShmBpBay *bay, uint32_t bayNo)
{
    const uint8_t bayId = bay->bayId;
    RT_TRACE_AS(kUpdate, 4, " Bay Id: %d u8BayNo: %d bay->tech:%d u8BayCount:%d ", bayId, static_cast<int>(bayNo),
                bay->tech, shared_load(sNVMeSSDBPInfo.u8BayCount));
    if (!is_nvme(bay->tech)) {
        RT_TRACE_AS(kUpdate, 4, " Not a NVMe BP, Hence skipping bpType=%d u8BayNo=%d ", bay->tech,
                    static_cast<int>(bayNo));
        return;
    }
    if (!in_table(kUpdate, "bay id", bayId, RTSHM_NVME_BAYS)) {
        return;
    }
    RtShmNVMeBay &entry = sNVMeSSDBPInfo.bay[bayId];
    shared_store(entry.u8BayID, bayId);
    shared_store(entry.u8SlotCount, bay->physSlotCnt);
    shared_store(entry.u8FwMajor, bay->fwMajor);
    shared_store(entry.u8FwMinor, bay->fwMinor);
    RT_TRACE_AS(kUpdate, 4, "Fw Version:   %x.%x", bay->fwMajor, bay->fwMinor);
    RT_TRACE_AS(kUpdate, 4, "u8BayNo:%d bayId=%d: slotCnt=%d slotCnt:%d", static_cast<int>(bayNo), bayId,
                bay->physSlotCnt, info->slotCnt);
    update_slots(info, bay);
    update_extenders(info, bayId);
}

}  // namespace

extern "C" {

uint32_t rtshm_BpApiInit(void)
{
    for (uint32_t bay = 0; bay < RTSHM_NVME_BAYS; ++bay) {
        for (uint32_t slot = 0; slot < RTSHM_NVME_SLOTS; ++slot) {
            shared_store(au16DriveState[bay][slot], uint16_t{0});
            shared_store(au16PendingDriveState[bay][slot], uint16_t{0});
        }
    }
    if (bpAPIHandler != 0) {
        RT_TRACE(4, "--> %s BPApi is already Open", __func__);
    } else {
        RT_TRACE(4, "--> %s Calling BPAPIOpen", __func__);
        bpAPIHandler = VornBpApiOpenExec(NVMeHotPlugCallback, 0, RT_MODULE_FILE, __func__, __LINE__, 0);
    }
    if (bpAPIHandler == 0) {
        RT_TRACE(2, "%s %d", "Failed to get Open bpAPI", __LINE__);
        return 1;
    }
    RT_TRACE(4, " Updating the BPData Line:%d", __LINE__);
    if (rtshm_BpDataUpdate() != 0) {
        RT_TRACE(2, "Error, Failed to get BPData %s", __func__);
    }
    RT_TRACE(4, "<-- SUCCESS %s", __func__);
    return 0;
}

uint32_t rtshm_BpDataUpdate(void)
{
    RT_TRACE_ENTRY(4);
    if (bpAPIHandler == 0) {
        RT_TRACE(2, "<-- error:bpAPIHandler is NULL!!");
        return 0;
    }
    std::unique_ptr<RtShmBpApiInfo, FreeBlock> info(static_cast<RtShmBpApiInfo *>(rtvox_alloc(RTSHM_BP_INFO_SIZE)));
    if (!info) {
        RT_TRACE(1, "<-- error:malloc to BP_Info is Failed!!");
        return 5;
    }
    if (bp_failed(VornBpApiReadExec(bpAPIHandler, info.get(), RT_MODULE_FILE, __func__, __LINE__))) {
        RT_TRACE(2, "<-- error:BPRead Failed!!");
        return 0;  // the view keeps what it had
    }
    VornBpPrintApiInfo(info.get());
    shared_store(sNVMeSSDBPInfo.u8BayCount, info->bayCnt);
    for (uint32_t b = 0; b < info->bayCnt; ++b) {
        const RtShmBpBay *bay = bay_entry(info.get(), b);
        if (bay == nullptr) {
            trace_record_end(__func__, "bay", b);
            break;
        }
        update_bay(info.get(), bay, b);
    }
    RT_TRACE_EXIT(4);
    return 0;
}

void VornBpPrintApiInfo(const RtShmBpApiInfo *pInfo)
{
    if (pInfo == nullptr) {
        return;
    }
    RT_TRACE(4, "=========================%s", "");
    RT_TRACE(4, "API Info bayCnt:%d bays", pInfo->bayCnt);
    for (uint32_t b = 0; b < pInfo->bayCnt; ++b) {
        const RtShmBpBay *bay = bay_entry(pInfo, b);
        if (bay == nullptr) {
            trace_record_end(__func__, "bay", b);
            break;
        }
        print_bay(pInfo, bay);
    }
}

uint32_t ReadNVMeBPInfo(RtShmBpApiInfo *pInfo)
{
    RT_TRACE_ENTRY(4);
    if (bpAPIHandler == 0) {
        RT_TRACE(2, "<-- error:BPAPI Handler is NULL!!!");
        return 1;
    }
    // No read into a missing buffer: it fails like a read that failed.
    const uint32_t status =
        pInfo != nullptr ? VornBpApiReadExec(bpAPIHandler, pInfo, RT_MODULE_FILE, __func__, __LINE__) : 0;
    if (bp_failed(status) || pInfo == nullptr) {
        RT_TRACE(2, "%s %d u8Ret:%d", "<-- error Reading BPAPI Failed!", __LINE__, static_cast<int>(status & 0xFFu));
        return 1;
    }
    RT_TRACE_EXIT(4);
    return 0;
}

}  // extern "C"

// NVMe drive state: the hot-plug callback the backplane API calls on its own
// thread, and the accessors of single slots.
#define RT_MODULE_FILE "rt_shm.c"

#include "rt_shm_internal.h"
#include "trace.h"

using namespace rtvox::shm;

namespace {

// The helpers trace in the callback's name.
constexpr const char *kCallback = "NVMeHotPlugCallback";

// The reported state of every NVMe drive among the first slotCnt goes to the
// pending table; its slot entry takes the bay id and drive technology.
void collect_pending(const RtShmBpApiInfo *info)
{
    for (uint32_t d = 0; d < info->slotCnt; ++d) {
        const RtShmBpDrive *drive = drive_entry(info, d);
        if (drive == nullptr) {
            trace_record_end(kCallback, "drive", d);
            return;
        }
        if (!is_nvme(drive->tech) || !slot_in_table(kCallback, drive->bayId, drive->driveSlot)) {
            continue;
        }
        shared_store(au16PendingDriveState[drive->bayId][drive->driveSlot], le16(drive->state));
        RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[drive->bayId][drive->driveSlot];
        shared_store(slot.u8BayID, drive->bayId);
        shared_store(slot.u8DriveTech, drive->tech);
    }
}

// Commits every slot whose pending state differs from the current one and
// clears its pending state. A slot whose pending state equals the current one
// keeps it: a later report without the drive then changes nothing there.
// Other firmware relies on that asymmetry.
void commit_changes()
{
    for (uint32_t bay = 0; bay < RTSHM_NVME_BAYS; ++bay) {
        for (uint32_t slot = 0; slot < RTSHM_NVME_SLOTS; ++slot) {
            const uint16_t pending = shared_load(au16PendingDriveState[bay][slot]);
            const uint16_t current = shared_load(au16DriveState[bay][slot]);
            if (pending == current) {
                continue;
            }
            RT_TRACE_AS(kCallback, 4, "%s bayID:%d, slot:%d, NewState:0x%x, OldState:0x%x", "HotPlug:NVMe DriveStatus",
                        static_cast<int>(bay), static_cast<int>(slot), pending, current);
            shared_store(au16DriveState[bay][slot], pending);
            shared_store(au16PendingDriveState[bay][slot], uint16_t{0});
            shared_store(sNVMeSSDBPInfo.slot[bay][slot].u16DriveState, pending);
            RT_TRACE_AS(kCallback, 4, "baySlot:%d, au16DriveStatus:%d", static_cast<int>(slot), pending);
        }
    }
}

// The slot entry an accessor works on, or nullptr (traced) when the indices
// leave the tables.
RtShmNVMeSlot *accessed_slot(const char *function, uint8_t bay, uint8_t slot)
{
    return slot_in_table(function, bay, slot) ? &sNVMeSSDBPInfo.slot[bay][slot] : nullptr;
}

}  // namespace

extern "C" {

int32_t NVMeHotPlugCallback(void *pApiInfo)
{
    RT_TRACE(4, "--> Entry");
    if (pApiInfo == nullptr) {
        RT_TRACE(2, "info is NULL");
        return 0;
    }
    collect_pending(static_cast<const RtShmBpApiInfo *>(pApiInfo));
    commit_changes();
    RT_TRACE(4, "<-- Exit");
    return 0;
}

uint32_t rtshm_getDriveTechFromBpInfo(uint8_t *pu8DriveTech, uint8_t u8BayID, uint8_t u8Slot)
{
    if (null_input(__func__, pu8DriveTech)) {
        return 2;
    }
    const RtShmNVMeSlot *slot = accessed_slot(__func__, u8BayID, u8Slot);
    if (slot == nullptr) {
        return 2;
    }
    *pu8DriveTech = shared_load(slot->u8DriveTech);
    RT_TRACE(4, "DriveTech for Bay:%d Slot:%d, u8DriveTech:%d", u8BayID, u8Slot, *pu8DriveTech);
    return 0;
}

uint32_t rtshm_getNVMeDriveState(uint16_t *pu16DriveState, uint8_t u8BayID, uint8_t u8Slot)
{
    if (null_input(__func__, pu16DriveState) || accessed_slot(__func__, u8BayID, u8Slot) == nullptr) {
        return 2;
    }
    *pu16DriveState = shared_load(au16DriveState[u8BayID][u8Slot]);
    RT_TRACE(4, "DriveState for Slot:%d, u6DriveState:%d", u8Slot, *pu16DriveState);
    return 0;
}

uint32_t rtshm_SetNVMeDriveState(uint8_t u8BayID, uint16_t u16DriveState, uint8_t u8Slot)
{
    RtShmNVMeSlot *slot = accessed_slot(__func__, u8BayID, u8Slot);
    if (slot == nullptr) {
        return 2;
    }
    const uint16_t previous = shared_load(au16DriveState[u8BayID][u8Slot]);
    shared_store(au16DriveState[u8BayID][u8Slot], u16DriveState);
    shared_store(slot->u16DriveState, u16DriveState);
    RT_TRACE(4, "DriveState for Slot:%d, u6DriveState:%d CurrentDriveState:%d", u8Slot, u16DriveState, previous);
    return 0;
}

uint32_t rtshm_UpdateNVMeSSDSlotToEID(uint8_t u8BayID, uint8_t u8Slot, uint32_t EID)
{
    RT_TRACE(4, "--> u8BayID:%d u8Slot:%d, u8EID:%d ", u8BayID, u8Slot, static_cast<int>(EID & 0xFFu));
    RtShmNVMeSlot *slot = accessed_slot(__func__, u8BayID, u8Slot);
    if (slot == nullptr) {
        return 2;
    }
    shared_store(slot->u8EID, static_cast<uint8_t>(EID & 0xFFu));
    return 0;
}

}  // extern "C"

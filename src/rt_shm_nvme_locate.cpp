// NVMe locate and drive status: one 4-byte drive-status record written to the
// backplane, over a short session of its own or over the long-lived one.
#define RT_MODULE_FILE "rt_shm.c"

#include <optional>

#include "rt_shm_internal.h"
#include "rtvox/platform.h"
#include "trace.h"

using namespace rtvox::shm;

namespace {

RtShmDriveStatusRecord drive_status_record(uint8_t bay, uint8_t slot, uint16_t status)
{
    return {bay, slot, {static_cast<uint8_t>(status), static_cast<uint8_t>(status >> 8)}};
}

// The one write of a drive-status record; answers the API's status.
uint32_t write_record(const char *function, uint32_t handle, const RtShmDriveStatusRecord &record)
{
    return VornBpApiWriteExec(handle, RTSHM_BP_WRITE_DRIVE_STATUS, &record, RT_MODULE_FILE, function, __LINE__);
}

// A session opened for one write, without a hot-plug callback. close() ends
// it (a failed close is only traced); keep_open() leaves it open, which the
// status update does after a failed write. Otherwise it closes when it goes.
class ShortSession {
public:
    explicit ShortSession(const char *function) : function_(function)
    {
        RT_TRACE_AS(function_, 4, "--> %s Calling BPAPIOpen", function_);
        handle_ = VornBpApiOpenExec(nullptr, 0, RT_MODULE_FILE, function_, __LINE__, 0);
    }
    ~ShortSession() { close(); }
    ShortSession(const ShortSession &) = delete;
    ShortSession &operator=(const ShortSession &) = delete;

    uint32_t handle() const { return handle_; }
    void close()
    {
        if (handle_ != 0 && bp_failed(VornBpApiCloseExec(handle_, RT_MODULE_FILE, function_, __LINE__))) {
            RT_TRACE_AS(function_, 4, "--> Failed to Close to BPAPI @ %d", __LINE__);
        }
        handle_ = 0;
    }
    void keep_open() { handle_ = 0; }

private:
    const char *function_;
    uint32_t handle_ = 0;
};

constexpr uint16_t unblinked(uint16_t state)
{
    return static_cast<uint16_t>(state & ~RTSHM_NVME_LOCATE_BIT);
}

// Blink (no state: only the locate bit is written, whatever else the drive
// showed) and unblink (the state with the locate bit cleared): open, write,
// close. 1 when the session cannot be opened or the write fails, else 0.
uint32_t locate(const char *function, uint8_t bay, uint8_t slot, std::optional<uint16_t> unblink)
{
    if (unblink) {
        RT_TRACE_AS(function, 4, "-->UnBlink NVMe SSD:u8Slot:%d u8bayId:%d", slot, bay);
    } else {
        RT_TRACE_AS(function, 4, "-->Blink NVMe SSD:u8Slot:%d u8bayId:%d", slot, bay);
    }
    ShortSession session(function);
    if (session.handle() == 0) {
        RT_TRACE_AS(function, 4, "%s u8SSDSlotNum:%d,BPAPIOpen: Error:%s", "<-- unable to Open backplaneApi.", slot,
                    VornBpApiError(session.handle()));
        return 1;
    }
    if (unblink) {
        RT_TRACE_AS(function, 4, "UnBlink NVMe SSD:u8Slot:%d u8bayId:%d u6NVMeDriveState:%d", slot, bay, *unblink);
    } else {
        RT_TRACE_AS(function, 4, "Blink NVMe SSD:u8Slot:%d u8bayId:%d", slot, bay);
    }
    const uint16_t status = unblink ? unblinked(*unblink) : RTSHM_NVME_LOCATE_BIT;
    const uint32_t rc = write_record(function, session.handle(), drive_status_record(bay, slot, status));
    if (bp_failed(rc)) {
        RT_TRACE_AS(function, 4, "%s u8Ret:%d,%s: Error:%s", "<-- unable to write backplaneApi.",
                    static_cast<int>(rc & 0xFFu), unblink ? "NVMeSSDUnBlink" : "NVMeSSDBlink", VornBpApiError(rc));
        return 1;
    }
    session.close();
    RT_TRACE_AS(function, 4, "<-- Exit %s", function);
    return 0;
}

}  // namespace

extern "C" {

uint32_t BlinkNVMeSSD(uint8_t u8bayId, uint8_t u8Slot)
{
    return locate(__func__, u8bayId, u8Slot, std::nullopt);
}

uint32_t UnBlinkNVMeSSD(uint8_t u8bayId, uint8_t u8Slot, uint16_t u6NVMeDriveState)
{
    return locate(__func__, u8bayId, u8Slot, u6NVMeDriveState);
}

uint32_t UnBlinkAllNVMeSSDS(uint32_t EID, uint8_t u8bayId, uint8_t u8Slot, uint16_t u6NVMeDriveState)
{
    RT_TRACE(4, "-->UnBlink NVMe SSD:u8Slot:%d u8bayId:%d", u8Slot, u8bayId);
    if (bpAPIHandler == 0) {
        RT_TRACE(4, "%s u8bayId:%d Slot:%d", "Error:bpAPIHandler is NULL", u8bayId, u8Slot);
        return 1;
    }
    RT_TRACE(4, "UnBlink NVMe SSD:u8Slot:%d u8bayId:%d u6NVMeDriveState:%d", u8Slot, u8bayId, u6NVMeDriveState);
    if (u6NVMeDriveState != RTSHM_NVME_STATE_UNKNOWN) {
        const uint32_t rc =
            write_record(__func__, bpAPIHandler, drive_status_record(u8bayId, u8Slot, unblinked(u6NVMeDriveState)));
        if (bp_failed(rc)) {
            RT_TRACE(4, "%s u8Ret:%d,NVMeSSDUnBlink: Error:%s", "<-- unable to write backplaneApi.",
                     static_cast<int>(rc & 0xFFu), VornBpApiError(rc));
            RT_TRACE(4, "--> Failed to Write to BPAPI @ %d", __LINE__);
            return 1;  // the long-lived session stays open
        }
    }
    RT_TRACE(4, "<-- Unblink Sucess for EID:%d", static_cast<int>(EID));
    return 0;
}

uint32_t updateNVMeSSDDriveStatusToBP(uint16_t u16DriveStatus, uint8_t u8Slot, int32_t EID)
{
    ShortSession session(__func__);
    if (session.handle() == 0) {
        // Not an error for the caller: the next status change tries again.
        RT_TRACE(4, "<--NVMeSSDDriveStatus update Done!! u16DriveStatus:%d", u16DriveStatus);
        return 0;
    }
    // Bay and slot stay 0 for an EID that is not a PCIe SSD in a backplane.
    uint8_t bay = 0;
    uint8_t slot = 0;
    if (const uint32_t rc = RTSHM_readBayIDAndSlotNoFromEID(&bay, &slot, EID); rc != 0) {
        RT_TRACE(4, "%s Slot:%d u8Ret:%d", "Failed to Get the BayID for the slot:", u8Slot, static_cast<int>(rc));
    } else {
        // The table is indexed by the caller's slot, the record by the EID's.
        rtshm_SetNVMeDriveState(bay, u16DriveStatus, u8Slot);
        RT_TRACE(4, "Updating NVMe SSD Status:u16DriveStatus:%d u8SSDSlotNum:%d u8bayId:%d", u16DriveStatus, slot, bay);
        const uint32_t written =
            u16DriveStatus == RTSHM_NVME_STATE_UNKNOWN
                ? 0
                : write_record(__func__, session.handle(), drive_status_record(bay, slot, u16DriveStatus));
        if (bp_failed(written)) {
            RT_TRACE(4, "%s u8Ret:%d, Error:%s", "<-- unable to write backplane api info.",
                     static_cast<int>(written & 0xFFu), VornBpApiError(written));
            session.keep_open();  // left open on this path; the service has always lived with it
            return 1;
        }
    }
    session.close();
    RT_TRACE(4, "<--NVMeSSDDriveStatus update Done!! u16DriveStatus:%d", u16DriveStatus);
    return 0;
}

}  // extern "C"

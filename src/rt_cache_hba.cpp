// The HBA communication status table and the polling sleep (cache module).
#define RT_MODULE_FILE "rt_cache.c"

#include <chrono>
#include <thread>

#include "rtvox/rt_cache.h"
#include "trace.h"

extern "C" {
RtHbaCommStatus g_rtpil_HBA_Communication_Status[RTVOX_HBA_TABLE_DECLARED];
}

namespace {
constexpr uint32_t kNotFound = static_cast<uint32_t>(-1);
}

extern "C" {

uint32_t rtmpi2_GetHBACommunicationStatus(RtHbaCommStatus *record)
{
    RT_TRACE(5, "-->  %s", __func__);
    if (record == nullptr) {
        // The repeated entry line is the only sign of a null argument.
        RT_TRACE_LOG(4, "-->  %s", __func__);
        return kNotFound;
    }
    for (uint32_t slot = 0; slot < RTVOX_HBA_TABLE_USED; ++slot) {
        const RtHbaCommStatus &entry = g_rtpil_HBA_Communication_Status[slot];
        if (entry.u8CtrlNum == record->u8CtrlNum) {
            record->u8CommStatus = entry.u8CommStatus;
            RT_TRACE(5, "Read HBA I2C Comm status:%d for ctrl:%d at index:%d", record->u8CommStatus, record->u8CtrlNum,
                     static_cast<int>(slot));
            return 0;
        }
    }
    RT_TRACE_LOG(4, "Unable to get HBA Comm status for ctrl:%d", record->u8CtrlNum);
    RT_TRACE(5, "<--  %s", __func__);
    return kNotFound;
}

uint32_t rtmpi2_SetHBACommunicationStatus(uint32_t record)
{
    const auto ctrl = static_cast<uint8_t>(record & 0xFF);
    const auto status = static_cast<uint8_t>((record >> 8) & 0xFF);
    RT_TRACE(5, "-->  %s", __func__);

    for (uint32_t slot = 0; slot < RTVOX_HBA_TABLE_USED; ++slot) {
        RtHbaCommStatus &entry = g_rtpil_HBA_Communication_Status[slot];
        if (entry.u8CtrlNum == ctrl) {
            entry.u8CommStatus = status;
            RT_TRACE(5, "Set HBA I2C Comm status:%d for ctrl:%d at index:%d", status, ctrl, static_cast<int>(slot));
            RT_TRACE(5, "<--  %s", __func__);
            return 0;
        }
    }
    for (uint32_t slot = 0; slot < RTVOX_HBA_TABLE_USED; ++slot) {
        RtHbaCommStatus &entry = g_rtpil_HBA_Communication_Status[slot];
        if (entry.u8CtrlNum == 0) {
            entry.u8CtrlNum = ctrl;
            entry.u8CommStatus = status;
            RT_TRACE(5, "First time Set HBA I2C Comm status:%d for ctrl:%d at index:%d", status, ctrl,
                     static_cast<int>(slot));
            RT_TRACE(5, "<--  %s", __func__);
            return 0;
        }
    }
    RT_TRACE_LOG(4, "Unable to set HBA Comm status for ctrl:%d", ctrl);
    RT_TRACE(5, "<--  %s", __func__);
    return kNotFound;
}

void rtvox_sleep(uint32_t seconds, uint32_t count, int32_t (*predicate)(void))
{
    for (uint32_t round = 0; round < count; ++round) {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        if (predicate != nullptr && predicate() == 0) {
            return;
        }
    }
}

}  // extern "C"

// Synchronisation: the global status and poll state, the worker-thread
// starter and the per-controller state table.
#define RT_MODULE_FILE "rt_sync.c"

#include "rtvox/rt_sync.h"

#include <pthread.h>

#include <cerrno>
#include <ctime>

#include "rtvox/platform.h"
#include "trace.h"

extern "C" {
RTSyncStatus grtsync_Status;
uint32_t rtsync_mutex;
RTSyncThreadInfo gRTThreadInfo;

RTSyncTavoState gTAVOState[RTSYNC_TAVO_ENTRIES];
uint32_t rtraid_tavo_state_mutex;
}

namespace {

constexpr int32_t kWaitForever = -1;

// Holds a platform mutex for a scope; the caller checks locked() first.
class PlatformLock {
public:
    explicit PlatformLock(uint32_t handle) : handle_(handle), locked_(SMMutexLock(handle, kWaitForever) == 0) {}
    ~PlatformLock()
    {
        if (locked_) {
            SMMutexUnLock(handle_);
        }
    }
    PlatformLock(const PlatformLock &) = delete;
    PlatformLock &operator=(const PlatformLock &) = delete;

    bool locked() const { return locked_; }

private:
    uint32_t handle_;
    bool locked_;
};

}  // namespace

extern "C" {

// ---- global status and poll state ------------------------------------------

uint32_t RTSync_Init(void)
{
    rtsync_mutex = SMMutexCreate(nullptr);
    if (rtsync_mutex == 0) {
        RT_TRACE_LOG(1, "<-- %s failed to create mutex", __func__);
        return 1;
    }
    grtsync_Status.statusFlags = 0;
    grtsync_Status.phaseFlags = 0;
    return 0;
}

uint32_t RTSync_SetGlobalStatus(RTSyncStatus status)
{
    // The flag writers take no lock: readers needing a consistent record hold
    // rtsync_mutex, and the service writes the flags from one thread.
    grtsync_Status = status;
    return 0;
}

uint32_t RTSync_SetGlobalPoll(RTSyncStatus status)
{
    const PlatformLock lock(rtsync_mutex);
    if (!lock.locked()) {
        RT_TRACE_LOG(1, "%s%s", "<-- err mutex fail", __func__);
        return 1;
    }
    grtsync_Status.pollState = status.pollState;
    grtsync_Status.pollTime = status.pollTime;
    grtsync_Status.pollUpdateTime = status.pollUpdateTime;
    return 0;
}

uint32_t RTSync_updateGlobalPoll(RTSyncStatus /*status*/)
{
    // The time is read before the lock is taken, so a writer that waited for
    // the lock stores the moment it was asked for.
    const auto now = static_cast<uint32_t>(time(nullptr));
    const PlatformLock lock(rtsync_mutex);
    if (!lock.locked()) {
        RT_TRACE_LOG(1, "%s%s", "<-- err mutex fail", __func__);
        return 1;
    }
    grtsync_Status.pollTime = now;
    grtsync_Status.pollUpdateTime = now;
    return 0;
}

uint32_t RTSync_GetGlobalStatus(RTSyncStatus *status)
{
    if (status == nullptr) {
        return 2;
    }
    *status = grtsync_Status;
    return 0;
}

uint32_t RTSync_LockGlobalStatus(void)
{
    if (SMMutexLock(rtsync_mutex, kWaitForever) != 0) {
        RT_TRACE_LOG(1, "%s%s", "<-- err mutex fail", __func__);
        return 1;
    }
    return 0;
}

int32_t RTSync_UnLockGlobalStatus(void)
{
    return SMMutexUnLock(rtsync_mutex);
}

void RTSync_Destroy(void)
{
    if (rtsync_mutex != 0) {
        SMMutexDestroy(rtsync_mutex);
        rtsync_mutex = 0;
    }
}

// ---- worker threads ------------------------------------------------------------

uint32_t RTSync_FFThreadStart(RTSyncThreadRoutine routine, void *argument)
{
    if (routine == nullptr) {
        RT_TRACE_LOG(1, "%s%s %d", "<-- err pthread", __func__, EINVAL);
        return 0;
    }
    pthread_attr_t attr;
    int rc = pthread_attr_init(&attr);
    if (rc != 0) {
        RT_TRACE_LOG(1, "%s%s %d", "<-- err pthread", __func__, rc);
        return 0;
    }
    // The attribute object is destroyed only after a successful start: the
    // failure exits below leave it as it is (it holds no memory of its own
    // with these settings).
    (void)pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    rc = pthread_attr_setstacksize(&attr, RTSYNC_THREAD_STACK_SIZE);
    if (rc != 0) {
        RT_TRACE_LOG(1, "%s%s %d", "<-- err pthread", __func__, rc);
        return 0;
    }
    pthread_t thread;
    rc = pthread_create(&thread, &attr, routine, argument);
    if (rc != 0) {
        RT_TRACE_LOG(1, "%s%s %d", "<-- err pthread", __func__, rc);
        return 0;
    }
    pthread_attr_destroy(&attr);
    return 1;
}

// ---- controller state ------------------------------------------------------------

uint32_t RTSync_TavoStateInit(void)
{
    rtraid_tavo_state_mutex = SMMutexCreate(nullptr);
    if (rtraid_tavo_state_mutex == 0) {
        RT_TRACE_LOG(1, "<-- %s failed to create mutex", __func__);
        return 1;
    }
    for (RTSyncTavoState &entry : gTAVOState) {
        entry.u8CtrlId = RTSYNC_TAVO_FREE;
        entry.u8State = 0;
    }
    return 0;
}

uint32_t RTSync_SetTavoStatus(uint8_t ctrlId, uint8_t state)
{
    if (rtraid_tavo_state_mutex == 0) {
        return 1;
    }
    const PlatformLock lock(rtraid_tavo_state_mutex);
    if (!lock.locked()) {
        RT_TRACE_LOG(1, "%s%s", "<-- err mutex fail", __func__);
        return 1;
    }
    // The first entry that is free or already this controller's wins. With
    // twelve other controllers in the table nothing is stored, and that is
    // not reported: callers treat the call as done.
    for (RTSyncTavoState &entry : gTAVOState) {
        if (entry.u8CtrlId == RTSYNC_TAVO_FREE || entry.u8CtrlId == ctrlId) {
            entry.u8CtrlId = ctrlId;
            entry.u8State = state;
            break;
        }
    }
    return 0;
}

uint32_t RTSync_GetTavoStatus(uint8_t ctrlId, uint8_t *state)
{
    if (rtraid_tavo_state_mutex == 0) {
        return 1;
    }
    if (state == nullptr) {
        RT_TRACE(2, "<-- err null inputs");
        return 2;
    }
    const PlatformLock lock(rtraid_tavo_state_mutex);
    if (!lock.locked()) {
        RT_TRACE_LOG(1, "%s%s", "<-- err mutex fail", __func__);
        return 1;
    }
    *state = 0;
    // Free entries hold RTSYNC_TAVO_FREE, so a lookup of 255 matches the
    // first free entry: callers rely on that answering 0 with state 0.
    for (const RTSyncTavoState &entry : gTAVOState) {
        if (entry.u8CtrlId == ctrlId) {
            *state = entry.u8State;
            return 0;
        }
    }
    return RTSYNC_TAVO_UNKNOWN;
}

void RTSync_TavoStateDestroy(void)
{
    if (rtraid_tavo_state_mutex != 0) {
        SMMutexDestroy(rtraid_tavo_state_mutex);
        rtraid_tavo_state_mutex = 0;
    }
}

}  // extern "C"

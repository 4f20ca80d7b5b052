/*
 * rtvox synchronisation: the monitoring service's global status and poll
 * state, the starter of its detached worker threads, and the per-controller
 * state table.
 *
 * Global status
 *   grtsync_Status is one process-wide record: the service's status and phase
 *   bits and its poll state. RTSync_SetGlobalStatus writes it whole without a
 *   lock; the poll setters write the three poll fields under rtsync_mutex.
 *   Readers that need all five fields consistent bracket RTSync_GetGlobalStatus
 *   with RTSync_LockGlobalStatus / RTSync_UnLockGlobalStatus (the reader takes
 *   no lock of its own).
 *
 *   Layout (16 bytes, little-endian, pinned below):
 *     offset  0  u16  statusFlags     bit 5 (0x20): past-event processing after
 *                                     a controller reset is over
 *     offset  2  u16  phaseFlags      bit 6 (0x40): inventory phase running
 *     offset  4  u16  pollState       the service's poll state, stored unchanged
 *     offset  6  u16  u16Reserved     alignment padding, never read or written
 *                                     on its own (whole-record copies carry it)
 *     offset  8  u32  pollTime        seconds since the epoch
 *     offset 12  u32  pollUpdateTime  seconds since the epoch
 *   The padding keeps the two time words on a 4-byte boundary, as the
 *   board's compiler lays out the record, so the first 32-bit word holds
 *   statusFlags in its low half and phaseFlags in its high half (the
 *   inventory bit is bit 22 of that word).
 *
 *   Before RTSync_Init (and after RTSync_Destroy) rtsync_mutex is 0: the
 *   setter without a lock works, the poll setters and the lock fail against
 *   the 0 handle with "<-- err mutex fail".
 *
 * Worker threads
 *   RTSync_FFThreadStart starts a detached thread with a 102400-byte stack and
 *   answers 1 when it started, 0 otherwise (unlike the rest of the library).
 *   Nobody joins these threads; their routines must not use large stack
 *   buffers.
 *
 * Controller state
 *   gTAVOState holds one byte of state for up to 12 controllers under
 *   rtraid_tavo_state_mutex. An entry is claimed by the first
 *   RTSync_SetTavoStatus for its controller and kept for the life of the
 *   process; a 13th controller is silently not stored. Id 255 marks a free
 *   entry, so a lookup of 255 finds the first free entry (state 0).
 *
 * Result codes: 0 success, 1 lock missing or not taken, 2 null pointer;
 * RTSync_GetTavoStatus answers 255 for a controller it does not hold.
 */
#ifndef RTVOX_RT_SYNC_H
#define RTVOX_RT_SYNC_H

#include <stdint.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- global status and poll state ------------------------------------------ */

#define RTSYNC_STATUS_PAST_EVENTS_DONE 0x0020u /* statusFlags: past-event processing is over */
#define RTSYNC_PHASE_INVENTORY 0x0040u         /* phaseFlags: inventory phase running */

typedef struct RTVOX_PACKED RTSyncStatus {
    uint16_t statusFlags;
    uint16_t phaseFlags;
    uint16_t pollState;
    uint16_t u16Reserved;
    uint32_t pollTime;
    uint32_t pollUpdateTime;
} RTSyncStatus;
RTVOX_ASSERT_SIZE(RTSyncStatus, 16);
RTVOX_ASSERT_OFFSET(RTSyncStatus, statusFlags, 0);
RTVOX_ASSERT_OFFSET(RTSyncStatus, phaseFlags, 2);
RTVOX_ASSERT_OFFSET(RTSyncStatus, pollState, 4);
RTVOX_ASSERT_OFFSET(RTSyncStatus, u16Reserved, 6);
RTVOX_ASSERT_OFFSET(RTSyncStatus, pollTime, 8);
RTVOX_ASSERT_OFFSET(RTSyncStatus, pollUpdateTime, 12);

/* Reserved for the service's thread bookkeeping; the library never touches it. */
typedef struct RTVOX_PACKED RTSyncThreadInfo {
    uint8_t au8Reserved[12];
} RTSyncThreadInfo;
RTVOX_ASSERT_SIZE(RTSyncThreadInfo, 12);

extern RTSyncStatus grtsync_Status;    /* zero-initialised */
extern uint32_t rtsync_mutex;          /* platform mutex handle; 0 when none exists */
extern RTSyncThreadInfo gRTThreadInfo; /* zero-initialised, never used by the library */

/* Creates rtsync_mutex and clears statusFlags and phaseFlags (the poll fields
 * keep their values). 0 = done, 1 = the mutex could not be created. */
uint32_t RTSync_Init(void);
/* Copies the whole record into grtsync_Status without taking the lock. 0 always. */
uint32_t RTSync_SetGlobalStatus(RTSyncStatus status);
/* Under the lock, copies pollState, pollTime and pollUpdateTime; the two flag
 * fields stay as they are. 0 = done, 1 = the lock could not be taken. */
uint32_t RTSync_SetGlobalPoll(RTSyncStatus status);
/* Under the lock, sets pollTime and pollUpdateTime to the current time; the
 * argument is not used. 0 = done, 1 = the lock could not be taken. */
uint32_t RTSync_updateGlobalPoll(RTSyncStatus status);
/* Copies the whole record to *status without locking. 0 = copied, 2 = NULL. */
uint32_t RTSync_GetGlobalStatus(RTSyncStatus *status);
/* Takes rtsync_mutex, waiting without limit. 0 = held, 1 = not taken. */
uint32_t RTSync_LockGlobalStatus(void);
/* Releases rtsync_mutex; answers the platform unlock's result. */
int32_t RTSync_UnLockGlobalStatus(void);
/* Destroys rtsync_mutex if it exists and sets it to 0. */
void RTSync_Destroy(void);

/* A worker thread's routine. */
typedef void *(*RTSyncThreadRoutine)(void *argument);
/* Starts routine(argument) on a detached thread with a 102400-byte stack.
 * 1 = started, 0 = not started (the failure is traced with its error number;
 * a NULL routine is refused as EINVAL before anything is set up). */
uint32_t RTSync_FFThreadStart(RTSyncThreadRoutine routine, void *argument);

#define RTSYNC_THREAD_STACK_SIZE 102400u

/* ---- controller state ------------------------------------------------------- */

#define RTSYNC_TAVO_ENTRIES 12
#define RTSYNC_TAVO_FREE 0xFFu   /* u8CtrlId of a free entry */
#define RTSYNC_TAVO_UNKNOWN 255u /* RTSync_GetTavoStatus: controller not in the table */

typedef struct RTVOX_PACKED RTSyncTavoState {
    uint8_t u8CtrlId;       /* RTSYNC_TAVO_FREE when the entry is free */
    uint8_t u8State;        /* the service's value, stored unchanged */
    uint8_t au8Reserved[2]; /* never read or written */
} RTSyncTavoState;
RTVOX_ASSERT_SIZE(RTSyncTavoState, 4);
RTVOX_ASSERT_OFFSET(RTSyncTavoState, u8CtrlId, 0);
RTVOX_ASSERT_OFFSET(RTSyncTavoState, u8State, 1);
RTVOX_ASSERT_OFFSET(RTSyncTavoState, au8Reserved, 2);

extern RTSyncTavoState gTAVOState[RTSYNC_TAVO_ENTRIES];
extern uint32_t rtraid_tavo_state_mutex; /* platform mutex handle; 0 when none exists */

/* Creates the mutex and marks all 12 entries free. 0 = done, 1 = the mutex
 * could not be created (the table is left as it was). */
uint32_t RTSync_TavoStateInit(void);
/* Stores the state of a controller, claiming the first free entry for a new
 * one. 0 = done (also when all 12 entries belong to other controllers and
 * nothing was stored), 1 = no mutex or it could not be taken. */
uint32_t RTSync_SetTavoStatus(uint8_t ctrlId, uint8_t state);
/* 0 = found (*state filled), 255 = not in the table (*state set to 0),
 * 1 = no mutex or it could not be taken (*state untouched), 2 = state is NULL
 * (nothing is locked or written). */
uint32_t RTSync_GetTavoStatus(uint8_t ctrlId, uint8_t *state);
/* Destroys the mutex if it exists and sets the handle to 0. */
void RTSync_TavoStateDestroy(void);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_SYNC_H */

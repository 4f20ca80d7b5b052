/*
 * vornhost: host-only control of the platform emulation, for tests and tools.
 *
 * libvornhost implements the platform interface (rtvox/platform.h) on a
 * workstation. This header adds what a test or tool needs on top: capture of
 * trace lines, fault injection per platform function, and inspection of the
 * emulated shared memory, backplane, event log and IPMI journals.
 * Never included by the library itself.
 *
 * General rules of the emulation
 * ------------------------------
 *  - Every function here and in rtvox/platform.h is thread-safe.
 *  - libvornhost never calls calloc (nor frees what it did not malloc), so the
 *    tests' --wrap=calloc/--wrap=free allocation hooks only ever see the
 *    library's own allocations. Its internal storage comes from operator new.
 *  - Handles (mutexes, events, backplane sessions, TLV lists) are 32-bit ids
 *    looked up in a table, never pointers. Ids are not reused (until the
 *    28-bit counter of a table wraps), so a handle that was never created or
 *    was already destroyed is recognised and refused with VORNHOST_E_HANDLE;
 *    0 is never a valid handle. The high nibble tells the kind:
 *    0x1....... mutexes and events, 0x2....... backplane sessions,
 *    0x3....... TLV lists. A handle of the wrong kind is refused too.
 *  - Status results of the platform functions use the codes below (0 is
 *    success). Backplane and IPMI statuses are 32-bit, the rest signed 32-bit;
 *    all codes have a non-zero low byte, so the library's "low 8 bits"
 *    tests see them as failures.
 *  - A call that fails (fault injected, refused, scripted) has no side effect
 *    unless its description says otherwise.
 */
#ifndef VORNHOST_VORNHOST_H
#define VORNHOST_VORNHOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes -------------------------------------------------------- */

#define VORNHOST_OK 0
#define VORNHOST_E_HANDLE 1       /* handle 0, never created, destroyed, or of another kind */
#define VORNHOST_E_TIMEOUT 2      /* lock or wait timed out (also: try-lock found it held) */
#define VORNHOST_E_DEADLOCK 3     /* the owning thread tried to lock its mutex again */
#define VORNHOST_E_NOT_OWNER 4    /* unlock by a thread that does not hold the mutex */
#define VORNHOST_E_ARG 5          /* null pointer, bad timeout, unknown kind/type, ... */
#define VORNHOST_E_RANGE 6        /* shared-memory access outside the region */
#define VORNHOST_E_NOSPACE 7      /* caller's buffer too small */
#define VORNHOST_E_NOMEM 8        /* the emulation ran out of memory */
#define VORNHOST_E_SYS 9          /* a system call failed (shm_open, mmap, ...) */
#define VORNHOST_E_UNSUPPORTED 10 /* unknown backplane write type / single-record kind */
#define VORNHOST_E_BUSY 11        /* only ever scripted: "device busy" */
#define VORNHOST_E_NODEV 12       /* unknown shared-memory region; or scripted "no device" */
#define VORNHOST_E_INJECTED 126   /* the call failed through vornhost_fail */

/* Puts every part of the emulation back to its start state: capture off and
 * cleared, no faults armed, call counts zero, journals empty, regions zeroed,
 * backplane record reset. Handles created before stay valid. */
void vornhost_reset(void);
/* In detail, vornhost_reset also: drops the trace level override
 * (vornhost_trace_set_level(-1)); clears every scripted status and response
 * (backplane, event log, IPMI) and the extra backplane write-type and
 * single-record sizes; zeroes the 738-byte backplane record; waits (at most
 * 5 s) for hot-plug callbacks still running. It keeps: mutexes, events,
 * backplane sessions and TLV lists (all stay valid), the shared-memory mode
 * and prefix (the regions of the current mode are zeroed; in POSIX mode this
 * creates the objects that do not exist yet). */

/* ---- Synchronisation (SMMutex*, SMEvent*) ---------------------------------
 *
 * Built on POSIX threads (a std::mutex and a condition variable per object).
 * At most 4096 mutexes and events are live at once; a create past that
 * answers 0.
 *
 * Mutex: never recursive, error-checking.
 *  - SMMutexCreate(name): a new unlocked mutex; name may be NULL (it is only
 *    kept for debugging). 0 on failure.
 *  - SMMutexLock(h, timeout): timeout -1 waits without limit, 0 tries once,
 *    > 0 waits at most that many milliseconds; any other negative value is
 *    refused (VORNHOST_E_ARG). 0 = held by the caller; VORNHOST_E_TIMEOUT when
 *    the time ran out (or, for 0, the mutex was held); VORNHOST_E_HANDLE for an
 *    invalid handle or when the mutex is destroyed while the caller waits.
 *    Relocking by the owning thread is refused at once with
 *    VORNHOST_E_DEADLOCK whatever the timeout, -1 included: it never blocks
 *    and the mutex stays held once, by its owner.
 *  - SMMutexUnLock(h): 0, or VORNHOST_E_NOT_OWNER when the calling thread does
 *    not hold it (not locked, or locked by another thread).
 *  - SMMutexDestroy(h): 0; the handle becomes invalid at once. Destroying a
 *    held mutex is allowed: threads waiting in SMMutexLock return
 *    VORNHOST_E_HANDLE and the owner's later unlock is refused the same way.
 *
 * Event (what the event queue relies on):
 *  - SMEventCreate(name, manualReset, initialState): non-zero manualReset makes
 *    a manual-reset event, non-zero initialState makes it start signalled.
 *  - SMEventSet(h): manual: the event becomes signalled, stays so until
 *    SMEventReset, and every thread waiting at the time of the Set is released
 *    (even when a Reset follows before it ran). Automatic: releases one waiter
 *    and clears itself; with no waiter the event stays signalled until one
 *    wait consumes it. Setting a signalled event changes nothing (no count).
 *  - SMEventReset(h): clears the signal.
 *  - SMEventWait(h, timeout): -1 without limit, 0 polls, > 0 milliseconds;
 *    other negative values are refused (VORNHOST_E_ARG). 0 when signalled
 *    (returns at once if it already is; an automatic event is cleared by the
 *    wait that consumes it), VORNHOST_E_TIMEOUT on timeout, VORNHOST_E_HANDLE
 *    for an invalid handle or when the event is destroyed during the wait.
 *  - SMEventDestroy(h): 0; waiters are released with VORNHOST_E_HANDLE.
 */

/* Live (created, not destroyed) mutexes and events. */
uint32_t vornhost_mutex_live_count(void);
uint32_t vornhost_event_live_count(void);
/* -1 when h is not a live mutex, 0 when it is free, 1 when some thread holds it. */
int vornhost_mutex_state(uint32_t h);
/* -1 when h is not a live event, 0 when clear, 1 when signalled. */
int vornhost_event_state(uint32_t h);
/* Threads blocked right now in SMMutexLock / SMEventWait on h (-1 when h is
 * not a live mutex / event); lets tests wait until a waiter is really waiting. */
int vornhost_mutex_waiters(uint32_t h);
int vornhost_event_waiters(uint32_t h);

/* ---- Trace capture ----------------------------------------------------- */

typedef struct VornHostTraceLine {
    int32_t level;
    int32_t category;
    const char *text; /* the formatted line exactly as the caller built it, newline included;
                         valid until vornhost_trace_clear or vornhost_reset */
} VornHostTraceLine;

/* While capture is on, every vornprintf call is kept in memory whatever its
 * level (the VORN_TRACE_LEVEL filter only applies to what is written out). */
void vornhost_trace_capture(int enable);
void vornhost_trace_clear(void);
uint32_t vornhost_trace_count(void);
/* 0 and *out filled when index < count, -1 otherwise. */
int vornhost_trace_get(uint32_t index, VornHostTraceLine *out);
/* Overrides VORN_TRACE_LEVEL for what is written to stderr / VORN_TRACE_FILE;
 * a negative level returns to the environment's setting, reading the
 * variable again. Takes effect at the next vornprintf call, in every thread. */
void vornhost_trace_set_level(int32_t level);

/* Trace output of vornprintf(level, category, format, ...):
 *  - Level filter: the line is written out when level <= the effective level:
 *    the vornhost_trace_set_level override when one is set, else the
 *    environment variable VORN_TRACE_LEVEL (a decimal integer; unset, empty
 *    or not a number gives the default, 2). The variable is read once, at the
 *    first use of the trace service, and again by every
 *    vornhost_trace_set_level with a negative level and by vornhost_reset;
 *    changing it in between has no effect until then. Level 0 writes none of
 *    the library's lines (their levels are 1..6).
 *  - Cost: the level and the capture switch are decided before anything
 *    else. A line that is neither written out nor captured is not formatted
 *    (its arguments are never read) and takes no lock shared with other
 *    threads. A line that is kept is formatted once (vasprintf, no length
 *    limit).
 *  - Destination: the file named by VORN_TRACE_FILE (read, and the file
 *    opened with O_APPEND|O_CREAT, mode 0644, for each line written) when set
 *    and not empty, stderr otherwise or when that file cannot be opened.
 *  - Format, one write per call:
 *        "[L<level> C<category>] <text>"
 *    where <text> is the formatted text; a newline is appended when the text
 *    does not end with one. Example, for vornprintf(4, 15, "%s:%s:%u:--> entry\n",
 *    "rt_evtq.c", "rtraid_EventQueue_Put", 120u):
 *        [L4 C15] rt_evtq.c:rtraid_EventQueue_Put:120:--> entry
 *  - Result: the length in bytes of the formatted text when the line was
 *    written out or captured. A line dropped unformatted answers the length
 *    of its format when the format holds no '%' (the text is the format
 *    itself), else 0. -1 for a NULL format, a formatting error of a kept line
 *    or an injected fault (then nothing is captured or written).
 */
/* The effective output level as vornprintf would use it now. */
int32_t vornhost_trace_effective_level(void);

/* ---- Fault injection ----------------------------------------------------- */

typedef enum VornHostFunction {
    VORNHOST_SMMutexCreate,
    VORNHOST_SMMutexLock,
    VORNHOST_SMMutexUnLock,
    VORNHOST_SMMutexDestroy,
    VORNHOST_SMEventCreate,
    VORNHOST_SMEventSet,
    VORNHOST_SMEventReset,
    VORNHOST_SMEventWait,
    VORNHOST_SMEventDestroy,
    VORNHOST_vornprintf,
    VORNHOST_Vorn_shm_memread,
    VORNHOST_Vorn_shm_memwrite,
    VORNHOST_VornBpApiOpenExec,
    VORNHOST_VornBpApiReadExec,
    VORNHOST_VornBpApiWriteExec,
    VORNHOST_VornBpApiCloseExec,
    VORNHOST_QNIPCLBuildMsgArgsBuffer,
    VORNHOST_QNIPCLCreateTLVList,
    VORNHOST_QNIPCLAddTLVToList,
    VORNHOST_QNIPCLFreeTLVList,
    VORNHOST_QNIPCLSubmitEvent,
    VORNHOST_QNIPCLSubmitSingle,
    VORNHOST_ConvertFQDDToFriendlyName,
    VORNHOST_IPMI_DoIPMICmd,
    VORNHOST_FUNCTION_COUNT
} VornHostFunction;

/* After `skip` further calls of `fn` that behave normally, the next `count`
 * calls fail (create calls answer 0 / NULL, status calls a non-zero status)
 * without side effects. A new call replaces what was armed for `fn`. */
void vornhost_fail(VornHostFunction fn, uint32_t skip, uint32_t count);
/* Disarms every fault. */
void vornhost_fail_clear(void);
/* Calls of `fn` since the last reset, failed ones included. */
uint32_t vornhost_call_count(VornHostFunction fn);

/* What an injected failure answers: SMMutexCreate, SMEventCreate and
 * VornBpApiOpenExec 0; ConvertFQDDToFriendlyName NULL; vornprintf -1; every
 * other function VORNHOST_E_INJECTED (126). Out parameters (*list, *length,
 * buffers) are left untouched and nothing is journaled. Calls with an invalid
 * `fn` are ignored (count 0). Every call is counted, including those refused
 * for bad arguments. */

/* ---- Shared memory (Vorn_shm_memread / Vorn_shm_memwrite) -----------------
 *
 * Regions and sizes: 3: 5342 bytes, 15: 65536, 20: 325,
 * 26: 11444, 55: 526. Any other region id fails with VORNHOST_E_NODEV.
 * Each access is bound-checked before any byte moves: offset + length must
 * not exceed the region's size (computed without overflow), else
 * VORNHOST_E_RANGE. A NULL buffer is refused (VORNHOST_E_ARG); length 0 with
 * offset <= size succeeds and moves nothing. Accesses of this process are
 * serialised by one lock, so a read never sees half of a write of this
 * process (other processes of the POSIX mode are not locked out).
 *
 * Modes:
 *  - VORNHOST_SHM_PRIVATE (the default): each region is a zero-filled buffer
 *    private to the process. Tests use it; nothing outside the process is
 *    touched.
 *  - VORNHOST_SHM_POSIX: each region is a POSIX shared-memory object, mapped
 *    MAP_SHARED on first use, named "/<prefix>-<region id>" (for example
 *    "/vornhost-1000-20"), created when missing with mode 0600 and grown to
 *    the region's size when smaller (existing content is kept). Another
 *    process opens the same name with shm_open to read or write it.
 * The initial mode comes from the environment variable VORN_SHM_MODE
 * ("posix" selects POSIX, anything else or unset PRIVATE) and the prefix from
 * VORN_SHM_PREFIX (default "vornhost-<uid>"), both read at the first access
 * or configuration. Parallel processes that use the POSIX mode must use
 * distinct prefixes (tests put their pid and a counter in it).
 * Private buffers live as long as the process and keep their contents across
 * mode switches; POSIX mappings are dropped on a switch (the objects stay).
 */
typedef enum VornHostShmMode { VORNHOST_SHM_PRIVATE = 0, VORNHOST_SHM_POSIX = 1 } VornHostShmMode;

#define VORNHOST_SHM_ALL 0xFFFFFFFFu

/* Selects the mode and, when prefix is not NULL, the name prefix (1 to 200
 * characters, no '/'). 0, or VORNHOST_E_ARG for a bad mode or prefix. */
int vornhost_shm_set_mode(VornHostShmMode mode, const char *prefix);
VornHostShmMode vornhost_shm_get_mode(void);
/* Size of a region, 0 for an unknown one. */
uint32_t vornhost_shm_size(uint32_t region);
/* The POSIX object name of a region under the current prefix, NUL-terminated
 * in buf. 0, VORNHOST_E_NODEV, VORNHOST_E_ARG (NULL buf) or VORNHOST_E_NOSPACE. */
int vornhost_shm_object_name(uint32_t region, char *buf, size_t size);
/* Direct pointer to the bytes of a region in the current mode (created and
 * mapped if needed), for inspection and for planting test data; valid until
 * the mode or prefix changes or vornhost_shm_unlink. NULL for an unknown
 * region or when the POSIX object cannot be created. Not locked. */
uint8_t *vornhost_shm_bytes(uint32_t region);
/* Zeroes one region, or all with VORNHOST_SHM_ALL. 0 or an error code. */
int vornhost_shm_zero(uint32_t region);
/* POSIX mode: unmaps and removes (shm_unlink) the objects of every region
 * under the current prefix; the next access creates them afresh. 0 also when
 * some did not exist. */
int vornhost_shm_unlink(void);

/* ---- Backplane API (VornBpApi*) -------------------------------------------
 *
 * One simulated backplane holds the 738-byte API info record,
 * all zero at start and after vornhost_reset. Layout (kept as raw bytes;
 * multi-byte fields little-endian and unaligned):
 *   0..1 unused; 2 bayCnt; 3 driveCnt; 4 slotCnt; 5 unused; 6 riserCnt; 7 unused;
 *   8 + 51*b   bay entry b (b < 4; bytes 212..239 unused)
 *   240 + 15*d drive entry d (d < 32)
 *   720 + 6*r  riser entry r (r < 3)
 * Bay entry: 0 inventory flag; 1 bpId (16-bit); 3 downstream count;
 *   4 pcieSlotMap (32-bit); 8..13 downstream bay ids; 14 bayId; 15 tech;
 *   16 size/carrier; 27 pri/sec; 28 primary bay id; 29 physical slot count;
 *   30 logical slot count; 32 physical drive count; 35 riser count;
 *   37 firmware major; 38 firmware minor; 39..41 component id.
 * Drive entry: 1 driveId; 2 sensor; 3 bayId; 4 driveSlot; 7 extenderSlot;
 *   11 tech; 12 state (16-bit).
 * Riser entry: 0 present; 1 bayId; 2 type; 3 PCIe slot; 4 number.
 *
 * Platform functions:
 *  - VornBpApiOpenExec(callback, options, file, function, line, reserved):
 *    a new session handle (0 on failure); the callback (may be NULL) is the
 *    session's hot-plug callback. file/function may be NULL.
 *  - VornBpApiReadExec(h, apiInfo, ...): copies the 738-byte record into
 *    apiInfo. VORNHOST_E_HANDLE / VORNHOST_E_ARG (NULL apiInfo).
 *  - VornBpApiWriteExec(h, writeType, record, ...): copies the write type's
 *    size of bytes from record into the write journal (the info record itself
 *    is not changed). Write type 1 (drive-status record) is 4
 *    bytes; other types are refused with VORNHOST_E_UNSUPPORTED (journaled
 *    with length 0) unless given a size with vornhost_bp_set_write_size.
 *    VORNHOST_E_HANDLE / VORNHOST_E_ARG (NULL record) are not journaled.
 *  - VornBpApiCloseExec(h, ...): ends the session; VORNHOST_E_HANDLE when it
 *    is not open.
 *  - VornBpApiError(status): a static text for the low 8 bits of status,
 *    never NULL:
 *      0 "Success"                      1 "Invalid session handle"
 *      2 "Timed out"                    3 "Resource deadlock avoided"
 *      4 "Operation not permitted"      5 "Invalid argument"
 *      6 "Out of range"                 7 "Buffer too small"
 *      8 "Out of memory"                9 "System call failed"
 *     10 "Unsupported write type"      11 "Backplane busy"
 *     12 "No such backplane device"   126 "Fault injected (vornhost)"
 *     any other value "Unknown backplane API error"
 * Scripted statuses (vornhost_bp_set_status): a scripted status whose low 8
 * bits are 0 counts as success (the operation is carried out and that status
 * returned, as the library only tests the low byte); a failing one returns
 * the status with no side effect, except that a write is still journaled
 * (with that status). A scripted failing open returns 0.
 */
#define VORNHOST_BP_INFO_SIZE 738u
#define VORNHOST_BP_BAY_OFFSET 8u
#define VORNHOST_BP_BAY_SIZE 51u
#define VORNHOST_BP_MAX_BAYS 4u
#define VORNHOST_BP_DRIVE_OFFSET 240u
#define VORNHOST_BP_DRIVE_SIZE 15u
#define VORNHOST_BP_MAX_DRIVES 32u
#define VORNHOST_BP_RISER_OFFSET 720u
#define VORNHOST_BP_RISER_SIZE 6u
#define VORNHOST_BP_MAX_RISERS 3u
/* Write journal: the latest writes kept. */
#define VORNHOST_BP_WRITE_JOURNAL_MAX 256u

typedef struct VornHostBpBay {
    uint8_t inventory;
    uint16_t bpId;
    uint8_t downstreamCnt;
    uint32_t pcieSlotMap;
    uint8_t downstreamBayIds[6];
    uint8_t bayId;
    uint8_t tech; /* 1 and 4: NVMe backplane */
    uint8_t size;
    uint8_t priSec;
    uint8_t primaryBayId;
    uint8_t physSlotCnt;
    uint8_t logicalSlotCnt;
    uint8_t physDriveCnt;
    uint8_t riserCnt;
    uint8_t fwMajor;
    uint8_t fwMinor;
    uint8_t compId[3]; /* bytes 39, 40, 41 */
} VornHostBpBay;

typedef struct VornHostBpDrive {
    uint8_t driveId;
    uint8_t sensor;
    uint8_t bayId;
    uint8_t driveSlot;
    uint8_t extenderSlot;
    uint8_t tech; /* 1 and 4: NVMe drive */
    uint16_t state;
} VornHostBpDrive;

typedef struct VornHostBpRiser {
    uint8_t present;
    uint8_t bayId;
    uint8_t type; /* 4: PCIe extender */
    uint8_t slot;
    uint8_t num;
} VornHostBpRiser;

/* Helpers that pack fields into a caller's 738-byte record buffer (they do
 * not touch the simulated backplane). 0, or VORNHOST_E_ARG for a NULL
 * pointer or an index past the maximum. */
int vornhost_bp_info_set_counts(void *record, uint8_t bayCnt, uint8_t driveCnt, uint8_t slotCnt, uint8_t riserCnt);
int vornhost_bp_info_set_bay(void *record, uint32_t index, const VornHostBpBay *bay);
int vornhost_bp_info_set_drive(void *record, uint32_t index, const VornHostBpDrive *drive);
int vornhost_bp_info_set_riser(void *record, uint32_t index, const VornHostBpRiser *riser);

/* Replace / copy out the simulated backplane's record (738 bytes). NULL is ignored. */
void vornhost_bp_set_info(const void *record);
void vornhost_bp_get_info(void *record);

typedef enum VornHostBpOp {
    VORNHOST_BP_OPEN,
    VORNHOST_BP_READ,
    VORNHOST_BP_WRITE,
    VORNHOST_BP_CLOSE,
    VORNHOST_BP_OP_COUNT
} VornHostBpOp;

/* The next `count` calls of `op` (count 0: every call until changed) answer
 * `status`; status 0 with count 0 removes the script. Calls refused for a bad
 * handle or argument, or failed by vornhost_fail, do not use up the script. */
void vornhost_bp_set_status(VornHostBpOp op, uint32_t status, uint32_t count);
/* Gives write type `writeType` a record size of 1..738 bytes (0 removes an
 * added type; type 1 cannot be changed). 0 or VORNHOST_E_ARG. */
int vornhost_bp_set_write_size(uint32_t writeType, uint32_t size);

/* Open sessions. */
uint32_t vornhost_bp_session_count(void);
/* 1 when the open session h has a hot-plug callback, 0 when not, -1 when h is not open. */
int vornhost_bp_session_has_callback(uint32_t h);

typedef struct VornHostBpWrite {
    uint32_t handle;
    uint32_t writeType;
    uint32_t status; /* what the call answered */
    uint32_t length; /* bytes copied into `bytes` */
    uint8_t bytes[VORNHOST_BP_INFO_SIZE];
    uint32_t line;     /* the caller's line argument */
    char function[64]; /* the caller's function argument, cut to 63 characters ("" for NULL) */
} VornHostBpWrite;

/* Journaled writes (at most VORNHOST_BP_WRITE_JOURNAL_MAX, oldest dropped),
 * index 0 being the oldest kept. get: 0 and *out filled, -1 otherwise. */
uint32_t vornhost_bp_write_count(void);
int vornhost_bp_write_get(uint32_t index, VornHostBpWrite *out);

/* Hot plug as the firmware does it: stores `record` (738 bytes) as the new
 * backplane record, then, for every open session with a callback, starts a
 * thread of its own that calls the callback with a pointer to a private copy
 * of the record (valid during the call). Returns the number of callbacks
 * started (0 when no session has one), or -1 (NULL record, thread creation
 * failed: callbacks already started still run). */
int vornhost_bp_hotplug(const void *record);
/* Waits until every callback started by vornhost_bp_hotplug has returned and
 * its thread is joined: timeout in ms, -1 without limit. 0 when none is left,
 * VORNHOST_E_TIMEOUT otherwise. Must not be called from a callback. */
int vornhost_bp_hotplug_wait(int32_t timeout_ms);
/* Callbacks that have returned since the last reset, and the value the last
 * one returned (0 before any). */
uint32_t vornhost_bp_hotplug_done(void);
int32_t vornhost_bp_hotplug_last_result(void);

/* ---- Event log (QNIPCL*) ---------------------------------------------------
 *
 * Message-arguments format of QNIPCLBuildMsgArgsBuffer(args, count, buffer,
 * length): the `count` strings one after the other, each followed by its NUL
 * terminator: "abc" and "de" give the 7 bytes  a b c \0 d e \0.  *length is
 * the capacity of buffer on input and the number of bytes used on output
 * (sum of strlen + 1; 0 for count 0). Errors: VORNHOST_E_ARG for a NULL
 * length, a NULL buffer, a NULL args with count > 0 or a NULL string (nothing
 * changed); VORNHOST_E_NOSPACE when the capacity is too small: *length is set
 * to the bytes needed and the buffer is left untouched (never overflowed).
 *
 * TLV lists: QNIPCLCreateTLVList(&list) stores a new handle (VORNHOST_E_ARG
 * for NULL); QNIPCLAddTLVToList(type, length, value, list) appends a copy of
 * the `length` bytes (value may be NULL only when length is 0);
 * QNIPCLFreeTLVList(list) frees it. Bad handles: VORNHOST_E_HANDLE.
 *
 * QNIPCLSubmitEvent(category, source, severity, msgId, flags, fqdd, list)
 * journals category, source, severity, msgId, flags, fqdd (NULL allowed) and
 * copies of the TLVs the list holds at that moment (list 0: none). msgId NULL
 * is refused (VORNHOST_E_ARG), a non-zero invalid list too (VORNHOST_E_HANDLE);
 * refused calls are not journaled.
 *
 * QNIPCLSubmitSingle(record, kind, flags) journals kind, flags and a copy of
 * the record: the size depends on the kind: kind 2 (the single event record) is
 * 16 bytes; other kinds are refused with VORNHOST_E_UNSUPPORTED (not
 * journaled) unless given a size with vornhost_eventlog_set_single_size.
 * A NULL record is refused (VORNHOST_E_ARG).
 *
 * Scripted statuses (vornhost_eventlog_set_status) work as for the backplane:
 * the call is journaled with the scripted status, which it returns.
 *
 * JSON lines: when the environment variable VORN_EVENTLOG_FILE (read at each
 * submit) is set and not empty, every journaled submission is also appended
 * to that file as one line (the file is opened O_APPEND|O_CREAT, 0644, per
 * line; a failure to write is ignored). Keys in this order:
 *   {"type":"event","category":4,"source":2,"severity":3,"msgId":"PDR16",
 *    "flags":0,"fqdd":"Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1",
 *    "status":0,"tlvs":[{"type":6,"length":7,"hex":"61626300646500",
 *    "args":["abc","de"]}]}
 *   {"type":"single","kind":2,"flags":0,"status":0,"length":16,
 *    "hex":"1000000029040200..."}
 * (each on one line). "fqdd" is null when none was given. "hex" is lowercase,
 * two digits per byte. "args" is present for TLV type 6 only: the value split
 * at its NUL bytes (the message-arguments format; a last part without NUL is
 * included). Strings are JSON-escaped: " \ and control characters as \" \\
 * \n \r \t \b \f or \u00XX; bytes >= 0x80 as \u00XX (read as Latin-1).
 */
#define VORNHOST_EVENTLOG_JOURNAL_MAX 1024u
#define VORNHOST_SINGLE_MAX 256u

typedef enum VornHostEventLogOp { VORNHOST_EVT_SUBMIT_EVENT, VORNHOST_EVT_SUBMIT_SINGLE } VornHostEventLogOp;

/* The next `count` journaled calls of `op` (count 0: every call) answer
 * `status` (0 with count 0 removes the script). */
void vornhost_eventlog_set_status(VornHostEventLogOp op, int32_t status, uint32_t count);
/* Gives single-record kind `kind` a size of 1..VORNHOST_SINGLE_MAX bytes (0
 * removes an added kind; kind 2 cannot be changed). 0 or VORNHOST_E_ARG. */
int vornhost_eventlog_set_single_size(uint32_t kind, uint32_t size);
/* Live TLV lists (created and not freed). */
uint32_t vornhost_tlv_list_count(void);
/* Number of TLVs in a live list, -1 when list is not live. */
int32_t vornhost_tlv_list_size(uint32_t list);

typedef struct VornHostEvent {
    uint32_t category;
    uint32_t source;
    uint32_t severity;
    uint32_t flags;
    int32_t status;    /* what the submit answered */
    const char *msgId; /* never NULL */
    const char *fqdd;  /* NULL when submitted without one */
    uint32_t tlvCount;
} VornHostEvent;

typedef struct VornHostTlv {
    uint32_t type;
    uint16_t length;
    const uint8_t *value; /* `length` bytes; NULL when length is 0 */
} VornHostTlv;

typedef struct VornHostSingle {
    uint32_t kind;
    uint32_t flags;
    int32_t status;
    uint32_t length; /* bytes copied */
    uint8_t bytes[VORNHOST_SINGLE_MAX];
} VornHostSingle;

/* Journaled events (the latest VORNHOST_EVENTLOG_JOURNAL_MAX, index 0 the
 * oldest kept). Pointers handed out stay valid until vornhost_eventlog_clear,
 * vornhost_reset or until the entry is dropped by the cap.
 * get / tlv / single_get: 0 and *out filled, -1 otherwise. */
uint32_t vornhost_eventlog_count(void);
int vornhost_eventlog_get(uint32_t index, VornHostEvent *out);
int vornhost_eventlog_tlv(uint32_t index, uint32_t tlvIndex, VornHostTlv *out);
uint32_t vornhost_single_count(void);
int vornhost_single_get(uint32_t index, VornHostSingle *out);
/* Empties the event and single-record journals (nothing else). */
void vornhost_eventlog_clear(void);

/* ---- Friendly names (ConvertFQDDToFriendlyName) ----------------------------
 *
 * The FQDD must match one of the forms below exactly (case-sensitive; every
 * <n> a decimal number of 1 to 9 digits, printed back as its value: "07"
 * gives 7); anything else, and NULL, gives NULL. The result is malloc'd; the
 * caller frees it with free. <ctrl> is a controller FQDD and [ctrl] its name:
 *
 *   RAID.Integrated.<a>-<b>      Integrated RAID Controller <a>
 *   RAID.Embedded.<a>-<b>        Embedded RAID Controller <a>
 *   RAID.Slot.<a>-<b>            RAID Controller in Slot <a>
 *   RAID.Mezzanine.<a>-<b>       RAID Controller in Mezzanine <a>
 *   NonRAID.Integrated.<a>-<b>   Integrated Non-RAID Controller <a>
 *   NonRAID.Embedded.<a>-<b>     Embedded Non-RAID Controller <a>
 *   NonRAID.Slot.<a>-<b>         Non-RAID Controller in Slot <a>
 *   NonRAID.Mezzanine.<a>-<b>    Non-RAID Controller in Mezzanine <a>
 *   PCIeExtender.Slot.<s>        PCIe Extender in Slot <s>
 *   Enclosure.Internal.<c>-<e>   Backplane <e>
 *   Enclosure.External.<c>-<e>   Enclosure <e> on Connector <c>
 *   Enclosure.Internal.<c>-<e>:PCIeExtender.Slot.<s>
 *                                Backplane <e> on PCIe Extender in Slot <s>
 *   Enclosure.Internal.<c>-<e>:<ctrl>
 *                                Backplane <e> on Connector <c> of [ctrl]
 *   Enclosure.External.<c>-<e>:<ctrl>
 *                                Enclosure <e> on Connector <c> of [ctrl]
 *   Disk.Bay.<d>:Enclosure.Internal.<c>-<e>:PCIeExtender.Slot.<s>
 *                                PCIe SSD in Slot <d> in Bay <e>
 *   Disk.Bay.<d>:Enclosure.Internal.<c>-<e>
 *                                Disk <d> in Backplane <e>
 *   Disk.Bay.<d>:Enclosure.Internal.<c>-<e>:<ctrl>
 *                                Disk <d> in Backplane <e> of [ctrl]
 *   Disk.Bay.<d>:Enclosure.External.<c>-<e>:<ctrl>
 *                                Disk <d> in Enclosure <e> of [ctrl]
 *   Disk.Virtual.<v>:<ctrl>      Virtual Disk <v> on [ctrl]
 *   Battery.Integrated.<n>:<ctrl>
 *                                Battery on [ctrl]
 *
 * Examples: "Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.3" ->
 * "PCIe SSD in Slot 4 in Bay 1"; "Disk.Bay.4:Enclosure.Internal.0-1:RAID.Integrated.1-1"
 * -> "Disk 4 in Backplane 1 of Integrated RAID Controller 1";
 * "Enclosure.Internal.0-1:RAID.Integrated.1-1" -> "Backplane 1 on Connector 0
 * of Integrated RAID Controller 1"; "NonRAID.Slot.2-1" -> "Non-RAID
 * Controller in Slot 2".
 */

/* ---- IPMI (IPMI_DoIPMICmd) -------------------------------------------------
 *
 * IPMI_DoIPMICmd(netFn, cmd, request, requestLength, response, responseLength)
 * journals netFn, cmd and a copy of the request bytes, then answers the
 * scripted status (default 0) and response (default empty):
 *  - *responseLength is the capacity of `response` on input and the number of
 *    bytes written on output: min(capacity, scripted response length) bytes
 *    are copied when the status's low 8 bits are 0; on a failing status
 *    nothing is copied and *responseLength is set to 0. response or
 *    responseLength may be NULL: then nothing is copied or stored.
 *  - Refused (VORNHOST_E_ARG, not journaled): request NULL with
 *    requestLength > 0, or requestLength > VORNHOST_IPMI_MAX_REQUEST.
 */
#define VORNHOST_IPMI_MAX_REQUEST 256u
#define VORNHOST_IPMI_MAX_RESPONSE 256u
#define VORNHOST_IPMI_JOURNAL_MAX 1024u

/* The next `count` calls (count 0: every call until changed) answer `status`
 * and, when its low 8 bits are 0, the first `length` bytes of `response`
 * (at most VORNHOST_IPMI_MAX_RESPONSE; NULL or 0 for none). status 0, no
 * response and count 0 restores the default. 0 or VORNHOST_E_ARG. */
int vornhost_ipmi_set_result(uint32_t status, const uint8_t *response, uint32_t length, uint32_t count);

typedef struct VornHostIpmiRequest {
    uint8_t netFn;
    uint8_t cmd;
    uint32_t status; /* what the call answered */
    uint32_t length; /* request bytes */
    uint8_t data[VORNHOST_IPMI_MAX_REQUEST];
} VornHostIpmiRequest;

/* Journaled requests (latest VORNHOST_IPMI_JOURNAL_MAX, index 0 oldest kept).
 * get: 0 and *out filled, -1 otherwise. */
uint32_t vornhost_ipmi_count(void);
int vornhost_ipmi_get(uint32_t index, VornHostIpmiRequest *out);

#ifdef __cplusplus
}
#endif

#endif /* VORNHOST_VORNHOST_H */

/*
 * rtvox runtime support: the diagnostic log, the allocation pair, the
 * two-dimensional array, the marker-file switches and PCIe SSD locate.
 *
 * Every other public header of the library includes this one for the
 * layout macros below.
 *
 * The diagnostic log
 *   Every trace line goes to the platform trace service (vornprintf, category
 *   15, head "%s:%s:%u:" with the module's file name, the function and the
 *   line). Selected lines are also appended to pRTLogPath with the prefix
 *   "(T:%08X) %02d-%02d %02d:%02d:%02d [%s] " (thread id, month, day, time,
 *   function). The file is created afresh by rt_log_init (the previous run's
 *   file is renamed to pRTBakLogPath), holds at most 1000 lines (the 1001st
 *   truncates it and becomes its first line) and is switched off for the life
 *   of the process when "/flash/data0/oem_ps/rt_vox_log_disabled" exists at
 *   the first look.
 *
 * Host builds resolve every fixed absolute path under $RTVOX_ROOT when that
 * variable is set; firmware builds (RTVOX_FIXED_PATHS) use them as they stand.
 */
#ifndef RTVOX_RTVOX_H
#define RTVOX_RTVOX_H

#include <pthread.h>
#include <stdint.h>
#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- layout helpers for the byte-packed records of every module ---------- */

#define RTVOX_PACKED __attribute__((packed))
#ifdef __cplusplus
#define RTVOX_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define RTVOX_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
/* Pins a record's size and the offset of a field, on every build leg. */
#define RTVOX_ASSERT_SIZE(type, size) RTVOX_STATIC_ASSERT(sizeof(type) == (size), #type " size")
#define RTVOX_ASSERT_OFFSET(type, field, offset) \
    RTVOX_STATIC_ASSERT(__builtin_offsetof(type, field) == (offset), #type "." #field " offset")

/* ---- diagnostic log ------------------------------------------------------ */

extern const char *pRTLogPath;           /* "/var/log/rtvox.log" */
extern const char *pRTBakLogPath;        /* "/var/log/rtvox.log.bak" */
extern const char *pMUtexName;           /* "RTVOX", published for the service; never read here */
extern const int32_t MAX_LOG_ENTRY_SIZE; /* 511, published limit; never consulted here */
extern pthread_mutex_t logmutex;         /* serialises writes to the log file */

/* Renames the old log to the backup, creates a new empty one, sets up logmutex.
 * Its result is not meaningful; callers ignore it. */
int32_t rt_log_init(void);
/* Destroys what rt_log_init set up. Call it last. */
void rt_log_Exit(void);
/* Traces "[tag] text" (text is wide) and copies it to the log file, once
 * rt_log_init has run; silent with a null tag or text. */
void rtvox_wlog(uint32_t unused, const char *tag, const wchar_t *text);
/* Appends a hex dump of `length` bytes to the log file, 16 bytes a row. */
int32_t hexdump(const void *data, int32_t length);
/* Counts one more log line: 1 (and the count restarts at 1) once it passes `limit`, else 0. */
uint32_t hasLogDepthExceeded(int32_t limit);
/* 2 = copies to the log file are on, 1 = off; decided once per process. */
uint32_t IsrtvoxLogDisabled(void);

/* ---- memory ---------------------------------------------------------------- */

/* A zero-filled block of `size` bytes, or NULL. */
void *rtvox_alloc(uint32_t size);
/* Frees a block from rtvox_alloc; NULL is harmless. */
void rtvox_free(void *p);
/* A rows x cols array of `size`-byte elements: a row table over one
 * zero-filled data block (row 0 is the data block itself). The allocations
 * are not checked, and with rows < 1 the data block is lost. */
void **rtvox_alloc_2darray(int32_t rows, int32_t cols, int32_t size);
/* Frees an array from rtvox_alloc_2darray; `rows` is not used. */
void rtvox_free_2darray(void **table, uint32_t rows);

/* ---- marker-file switches (read by the service, never by the library) ------ */

/* 0 when "/flash/data0/oem_ps/rt_vox_sashba_disabled" exists, 1 when it does not. */
uint32_t IsrtvoxHBAInventoryDisabled(void);
/* 0 when "/flash/data0/oem_ps/rt_vox_miru_disabled" exists, 1 when it does not. */
uint32_t IsrtvoxMIRUInventoryDisabled(void);
/* 1 when "/flash/data0/oem_ps/rt_vox_miru_poll" exists: its two numbers go to
 * first and second (0 and 3 when it does not hold two); 0 otherwise, outputs untouched. */
uint32_t IsstressMIRUPollEnabled(int32_t *first, int32_t *second);
/* 1 once per request: "/tmp/rtdump" exists and was removed; 0 otherwise.
 * A symbolic link there is no request: it is left in place (the target is
 * never touched) and refused with a level-2 trace line at every call. */
uint32_t IsDumpEnabled(void);

/* ---- PCIe SSD locate over IPMI --------------------------------------------- */

/* One OEM request (network function 0x30, command 0xD5, 20 data bytes) makes
 * the LED of a PCIe SSD in a backplane bay blink (status word 0x0008) or show
 * `u16DriveStatus` again. The request is hex-dumped to the log file first.
 * 0 = sent (the low 8 bits of the IPMI status are 0), 1 = failed; no retry.
 * Bay and slot are taken as bytes and not checked. */
#define RTVOX_IPMI_NETFN_OEM 0x30u
#define RTVOX_IPMI_CMD_PCIESSD_LOCATE 0xD5u
#define RTVOX_IPMI_LOCATE_REQUEST_SIZE 20u
#define RTVOX_IPMI_LOCATE_BLINK 0x0008u
uint32_t BlinkPCIeSSD(int32_t u8bayId, int32_t u8SSDSlotNum);
uint32_t UnBlinkPCIeSSD(int32_t u8bayId, int32_t u8SSDSlotNum, int32_t u16DriveStatus);

/* ---- friendly names ---------------------------------------------------------- */

/* The platform's friendly name for a wide FQDD, newly allocated (the caller
 * frees it with free), or NULL for a NULL or unknown FQDD. */
char *getFriendlyFQDDName(const wchar_t *fqdd);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RTVOX_H */

/*
 * rtvox platform interface.
 *
 * Everything the library needs from the controller's firmware goes through
 * the functions declared here, and nothing else. On the board they come from
 * the firmware's own platform libraries; on a workstation the host emulation
 * (libvornhost) provides them. The library links unchanged against either.
 *
 * Conventions: handles are opaque 32-bit values, 0 meaning "no handle" on
 * create; statuses are 0 for success unless a comment says otherwise.
 */
#ifndef RTVOX_PLATFORM_H
#define RTVOX_PLATFORM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__) || defined(__clang__)
#define RTVOX_PRINTF_LIKE(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define RTVOX_PRINTF_LIKE(fmt, first)
#endif

/* ---- Synchronisation ------------------------------------------------- */

/* A non-recursive mutex. Lock timeout: -1 waits without limit, 0 tries once,
 * >0 waits that many milliseconds. Lock answers 0 when the mutex is held. */
uint32_t SMMutexCreate(const char *name);
int32_t SMMutexLock(uint32_t h, int32_t timeout); /* 0 = held; -1 waits without limit */
int32_t SMMutexUnLock(uint32_t h);
int32_t SMMutexDestroy(uint32_t h);

/* An event object. A manual-reset event stays signalled until SMEventReset
 * and wakes every waiter; an automatic-reset event releases one waiter and
 * clears itself. Wait answers 0 once the event is signalled. */
uint32_t SMEventCreate(const char *name, int32_t manualReset, int32_t initialState);
int32_t SMEventSet(uint32_t h);
int32_t SMEventReset(uint32_t h);
int32_t SMEventWait(uint32_t h, int32_t timeout);
int32_t SMEventDestroy(uint32_t h);

/* ---- Trace ------------------------------------------------------------ */

int32_t vornprintf(int32_t level, int32_t category, const char *format, ...) RTVOX_PRINTF_LIKE(3, 4);

/* ---- Shared memory ------------------------------------------------------ */

int32_t Vorn_shm_memread(uint32_t region, void *buffer, uint32_t offset, uint32_t length);
int32_t Vorn_shm_memwrite(uint32_t region, const void *buffer, uint32_t offset, uint32_t length);

/* ---- Backplane API ------------------------------------------------------ */

/* Only the low 8 bits of a backplane status are meaningful; 0 is success. */
typedef int32_t (*VornBpApiCallback)(void *apiInfo);
uint32_t VornBpApiOpenExec(VornBpApiCallback callback, uint32_t options, const char *file, const char *function,
                           uint32_t line, uint32_t reserved);
uint32_t VornBpApiReadExec(uint32_t h, void *apiInfo, const char *file, const char *function, uint32_t line);
uint32_t VornBpApiWriteExec(uint32_t h, uint32_t writeType, const void *record, const char *file, const char *function,
                            uint32_t line);
uint32_t VornBpApiCloseExec(uint32_t h, const char *file, const char *function, uint32_t line);
const char *VornBpApiError(uint32_t status);

/* ---- Event log ---------------------------------------------------------- */

int32_t QNIPCLBuildMsgArgsBuffer(char **args, uint32_t count, void *buffer, uint32_t *length);
int32_t QNIPCLCreateTLVList(uint32_t *list);
int32_t QNIPCLAddTLVToList(uint32_t type, uint16_t length, const void *value, uint32_t list);
int32_t QNIPCLFreeTLVList(uint32_t list);
int32_t QNIPCLSubmitEvent(uint32_t category, uint32_t source, uint32_t severity, const char *msgId, uint32_t flags,
                          const char *fqdd, uint32_t list);
int32_t QNIPCLSubmitSingle(const void *record, uint32_t kind, uint32_t flags);

/* A malloc'd friendly name for an FQDD, which the caller frees, or NULL. */
char *ConvertFQDDToFriendlyName(const char *fqdd);

/* ---- IPMI --------------------------------------------------------------- */

/* The low 8 bits of the result are 0 on success. */
uint32_t IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLength, uint8_t *response,
                        uint32_t *responseLength);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_PLATFORM_H */

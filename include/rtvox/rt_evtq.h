/*
 * rtvox event queue: a process-wide, unbounded FIFO of management-transport
 * notifications, from the thread that receives the transport's callbacks to
 * the service thread that handles them.
 *
 * The queue (gpRtraid_EventQueue, NULL until rtraid_EventQueue_Init succeeds
 * and again after rtraid_EventQueue_Destroy) is a singly linked list under a
 * platform mutex, with a manual-reset platform event that is signalled while
 * the list holds entries. A status word gates the consumer side: only a READY
 * queue (status 1) hands out entries. Init leaves the status at 0; the service
 * makes the queue READY with rtraid_EventQueue_SetStatus(1). Put queues
 * whatever the status is.
 *
 * Records and who owns them
 *   Type 4 (endpoint table, variable payload): the queue keeps the caller's
 *   own pointer. From a successful Put on the record belongs to the queue and
 *   then to whoever gets it; the producer must not free or reuse it.
 *   Any other type: Put queues a fresh 9-byte copy (callbackType, bufferSize
 *   and the first payload byte); the caller keeps its own record. The copy's
 *   bufferSize may claim more bytes than the copy holds: consumers of these
 *   types read only buffer[0]. Every record passed to Put must have at least
 *   its first 9 bytes readable.
 *   Whatever its type, the caller of Get frees the record it receives with
 *   free().
 *
 * Behaviour callers rely on
 *   - Appending walks the list from the head (there is no tail pointer), so a
 *     Put costs time linear in the queue's length.
 *   - Get blocks without limit while the queue is READY and empty. Several
 *     blocked consumers all wake on a Put; those that find the list empty
 *     return NULL. A status change does not wake anybody.
 *   - Put returns 0 once it got as far as signalling: if the queue mutex
 *     cannot be taken the entry is dropped (and its memory leaks) but the
 *     event is still signalled. If the record copy cannot be allocated, the
 *     node allocated just before it leaks.
 *   - A second Init replaces the queue without freeing the first one; Destroy
 *     abandons queued entries without freeing them.
 *   - Init, Destroy must not run concurrently with any other call. The status
 *     word is written under the mutex but read without it.
 *
 * Choices of this implementation
 *   - SetStatus refuses with -1 (status unchanged, "<-- err mutex fail" at
 *     level 1) when the queue mutex cannot be taken.
 *   - Destroy on an absent queue does nothing and answers -1.
 *   - Init failures and allocation failures in Put are traced at level 1.
 */
#ifndef RTVOX_RT_EVTQ_H
#define RTVOX_RT_EVTQ_H

#include <stdint.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- transport notification record ------------------------------------------ */

/* Notification types of the management transport's client callbacks. */
typedef enum MctpClientCallbackType {
    MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON = 1,
    MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF = 2,
    MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET = 3,
    MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE = 4,
    MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED = 6,
    MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED = 8
} MctpClientCallbackType;

/* The transport's callback record: a 32-bit type, the payload length and the
 * payload. Only the endpoint table carries more than buffer[0]; its record is
 * allocated with room for bufferSize payload bytes. */
typedef struct RTVOX_PACKED MctpClientCallbackEvent {
    uint32_t callbackType; /* an MctpClientCallbackType; other values are queued as well */
    uint32_t bufferSize;   /* payload bytes starting at buffer */
    uint8_t buffer[1];
} MctpClientCallbackEvent;
RTVOX_ASSERT_SIZE(MctpClientCallbackEvent, 9);
RTVOX_ASSERT_OFFSET(MctpClientCallbackEvent, callbackType, 0);
RTVOX_ASSERT_OFFSET(MctpClientCallbackEvent, bufferSize, 4);
RTVOX_ASSERT_OFFSET(MctpClientCallbackEvent, buffer, 8);

/* Bytes of a non-table record that the queue copies. */
#define RTRAID_EVTQ_COPY_SIZE 9u
/* The queue's status word: READY hands out entries. */
#define RTRAID_EVTQ_READY 1

/* ---- the queue ---------------------------------------------------------------- */

/* In-memory structures of the running process, not exchanged records: they
 * keep the natural layout (which has no padding on the 32-bit targets) so
 * that the status word can be read atomically without the mutex. */
typedef struct RtraidEventQueueNode {
    MctpClientCallbackEvent *event;
    struct RtraidEventQueueNode *next; /* NULL at the end */
} RtraidEventQueueNode;
RTVOX_ASSERT_SIZE(RtraidEventQueueNode, 8);
RTVOX_ASSERT_OFFSET(RtraidEventQueueNode, event, 0);
RTVOX_ASSERT_OFFSET(RtraidEventQueueNode, next, 4);

typedef struct RtraidEventQueue {
    uint32_t mutex;             /* platform mutex: guards head, the list and status writes */
    uint32_t event;             /* platform manual-reset event: signalled while entries are queued */
    int32_t status;             /* RTRAID_EVTQ_READY, 0 after Init, -1 while Init runs */
    RtraidEventQueueNode *head; /* oldest entry, NULL when empty; no tail, no count */
} RtraidEventQueue;
RTVOX_ASSERT_SIZE(RtraidEventQueue, 16);
RTVOX_ASSERT_OFFSET(RtraidEventQueue, mutex, 0);
RTVOX_ASSERT_OFFSET(RtraidEventQueue, event, 4);
RTVOX_ASSERT_OFFSET(RtraidEventQueue, status, 8);
RTVOX_ASSERT_OFFSET(RtraidEventQueue, head, 12);

extern RtraidEventQueue *gpRtraid_EventQueue;

/* Creates the queue (status 0, not READY). 0, or -1 when the header, the
 * mutex or the event could not be had (then nothing is left behind and
 * gpRtraid_EventQueue is NULL). */
int32_t rtraid_EventQueue_Init(void);
/* Destroys the mutex and event, frees the header and sets gpRtraid_EventQueue
 * to NULL; queued entries are abandoned. 0, or -1 when there is no queue. */
int32_t rtraid_EventQueue_Destroy(void);
/* Queues a notification and signals the event. 0 when the call got as far as
 * signalling; -1 when there is no queue, pEvent is NULL or memory ran out. */
int32_t rtraid_EventQueue_Put(MctpClientCallbackEvent *pEvent);
/* The oldest record, which the caller frees with free(); blocks while the
 * queue is READY and empty. NULL when there is no queue, it is not READY, or
 * the list was empty when this caller woke. */
MctpClientCallbackEvent *rtraid_EventQueue_Get(void);
/* The status word, read without the mutex; -1 (0xFFFFFFFF) when there is no queue. */
int32_t rtraid_EventQueue_GetStatus(void);
/* Stores the status word under the mutex; does not signal the event.
 * 0, or -1 when there is no queue or the mutex could not be taken. */
int32_t rtraid_EventQueue_SetStatus(int32_t status);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_EVTQ_H */

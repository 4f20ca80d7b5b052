// The event queue: transport notifications from the callback thread to the
// service thread, in a locked FIFO with a manual-reset wake-up event.
#define RT_MODULE_FILE "rt_evtq.c"

#include "rtvox/rt_evtq.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "rtvox/platform.h"
#include "trace.h"

extern "C" {
RtraidEventQueue *gpRtraid_EventQueue;
}

namespace {

constexpr int32_t kWaitForever = -1;
constexpr int32_t kStatusCreating = -1;
constexpr int32_t kStatusIdle = 0;

// The status word is written under the queue mutex but read without it by Get
// and GetStatus; every access goes through an atomic view of the field.
std::atomic_ref<int32_t> status_of(RtraidEventQueue &queue)
{
    return std::atomic_ref<int32_t>(queue.status);
}

// The name the trace gives a notification type, or null for an unknown type.
// Only the endpoint table changes what Put does; the other names are for the reader.
const char *callback_type_name(uint32_t type)
{
    switch (type) {
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON:
            return "MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF:
            return "MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET:
            return "MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET";
        case MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE:
            return "MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED:
            return "MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED:
            return "MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED";
        default:
            return nullptr;
    }
}

}  // namespace

extern "C" {

int32_t rtraid_EventQueue_Init(void)
{
    // No check for an existing queue: a second Init replaces the pointer and
    // the first queue (header, handles, entries) is lost. Callers rely on Init
    // never looking at what was there.
    auto *queue = static_cast<RtraidEventQueue *>(std::calloc(1, sizeof(RtraidEventQueue)));
    gpRtraid_EventQueue = queue;
    if (queue == nullptr) {
        RT_TRACE_LOG(1, "<-- %s failed to allocate the queue", __func__);
        return -1;
    }
    status_of(*queue).store(kStatusCreating);

    queue->mutex = SMMutexCreate(nullptr);
    if (queue->mutex == 0) {
        RT_TRACE_LOG(1, "<-- %s failed to create mutex", __func__);
        std::free(queue);
        gpRtraid_EventQueue = nullptr;
        return -1;
    }
    queue->event = SMEventCreate(nullptr, 1, 0);  // manual reset, initially clear
    if (queue->event == 0) {
        RT_TRACE_LOG(1, "<-- %s failed to create event", __func__);
        SMMutexDestroy(queue->mutex);
        std::free(queue);
        gpRtraid_EventQueue = nullptr;
        return -1;
    }
    status_of(*queue).store(kStatusIdle);
    queue->head = nullptr;
    return 0;
}

int32_t rtraid_EventQueue_Destroy(void)
{
    RtraidEventQueue *queue = gpRtraid_EventQueue;
    if (queue == nullptr) {
        RT_TRACE(2, "<-- exit, EVTQ not initialized yet");
        return -1;
    }
    status_of(*queue).store(kStatusIdle);
    if (queue->mutex != 0) {
        SMMutexDestroy(queue->mutex);
    }
    if (queue->event != 0) {
        SMEventDestroy(queue->event);
    }
    // Entries still queued are abandoned, not freed (nodes and records alike):
    // callers rely on Destroy leaving them alone.
    std::free(queue);
    gpRtraid_EventQueue = nullptr;
    return 0;
}

int32_t rtraid_EventQueue_Put(MctpClientCallbackEvent *pEvent)
{
    RT_TRACE_ENTRY(4);
    RtraidEventQueue *queue = gpRtraid_EventQueue;
    if (queue == nullptr) {
        RT_TRACE(2, "<-- exit, EVTQ not initialized yet");
        return -1;
    }
    if (pEvent == nullptr) {
        RT_TRACE(2, "<-- exit, the incoming event is NULL");
        return -1;
    }
    const uint32_t type = pEvent->callbackType;
    const uint32_t size = pEvent->bufferSize;
    if (size != 0 && pEvent->buffer[0] != 0) {
        RT_TRACE(2, "pEvent->bufferSize:[%u]", size);
    }
    if (const char *name = callback_type_name(type); name != nullptr) {
        RT_TRACE_LOG(4, "callbackType:%s", name);
    } else {
        RT_TRACE_LOG(2, "callbackType:UNKNOWN");
    }

    auto *node = static_cast<RtraidEventQueueNode *>(std::calloc(1, sizeof(RtraidEventQueueNode)));
    if (node == nullptr) {
        RT_TRACE_LOG(1, "<-- %s failed to allocate a node", __func__);
        return -1;
    }
    if (type == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE) {
        // The endpoint table's payload has no fixed length: the queue takes
        // the caller's record itself.
        node->event = pEvent;
    } else {
        auto *copy = static_cast<MctpClientCallbackEvent *>(rtvox_alloc(RTRAID_EVTQ_COPY_SIZE));
        if (copy == nullptr) {
            // The node is deliberately not freed: callers rely on this path as
            // it stands, and the 8 bytes leak.
            RT_TRACE_LOG(1, "<-- %s failed to allocate a record", __func__);
            return -1;
        }
        std::memcpy(copy, pEvent, RTRAID_EVTQ_COPY_SIZE);
        node->event = copy;
    }
    node->next = nullptr;

    if (SMMutexLock(queue->mutex, kWaitForever) == 0) {
        if (queue->head == nullptr) {
            queue->head = node;
            RT_TRACE(2, "Head of the node %p", static_cast<void *>(queue->head));
        } else {
            // No tail pointer: the append walks the whole list.
            RtraidEventQueueNode *last = queue->head;
            while (last->next != nullptr) {
                last = last->next;
            }
            last->next = node;
        }
    }
    // Without the lock the node is never linked (it and its record leak) but
    // the call goes on: the event is signalled and the mutex released as
    // usual, and the caller is told 0.
    SMEventSet(queue->event);
    SMMutexUnLock(queue->mutex);
    RT_TRACE_EXIT(4);
    return 0;
}

MctpClientCallbackEvent *rtraid_EventQueue_Get(void)
{
    RT_TRACE_ENTRY(4);
    RtraidEventQueue *queue = gpRtraid_EventQueue;
    if (queue == nullptr) {
        RT_TRACE(2, "<-- exit, gpRtraid_EventQueue is NULL");
        return nullptr;
    }
    RT_TRACE(2, "check for the status");
    if (status_of(*queue).load(std::memory_order_relaxed) != RTRAID_EVTQ_READY) {
        RT_TRACE(2, "<-- exit, EVTQ is not READY");
        return nullptr;
    }
    RT_TRACE(2, "got the status");
    RT_TRACE(2, "waitOnEvent");
    SMEventWait(queue->event, kWaitForever);

    RT_TRACE(2, "Lock the queue");
    // The lock's result is not looked at: the list is taken either way.
    SMMutexLock(queue->mutex, kWaitForever);
    RT_TRACE(2, "get the entry of the queue");
    RtraidEventQueueNode *node = queue->head;
    if (node == nullptr) {
        // Another consumer woken by the same signal took the entry.
        SMEventReset(queue->event);
        SMMutexUnLock(queue->mutex);
        RT_TRACE(2, "<-- exit, no entry");
        return nullptr;
    }
    RT_TRACE(2, "get the entry next of the queue");
    queue->head = node->next;
    if (queue->head != nullptr) {
        RT_TRACE(2, "more events to process");
        SMEventSet(queue->event);
    } else {
        RT_TRACE(2, "no more events to process");
        SMEventReset(queue->event);
    }
    SMMutexUnLock(queue->mutex);

    MctpClientCallbackEvent *record = node->event;
    std::free(node);
    RT_TRACE_EXIT(4);
    return record;
}

int32_t rtraid_EventQueue_GetStatus(void)
{
    RtraidEventQueue *queue = gpRtraid_EventQueue;
    if (queue == nullptr) {
        return -1;
    }
    return status_of(*queue).load(std::memory_order_relaxed);
}

int32_t rtraid_EventQueue_SetStatus(int32_t status)
{
    RtraidEventQueue *queue = gpRtraid_EventQueue;
    if (queue == nullptr) {
        RT_TRACE(2, "<-- exit, EVTQ not initialized yet");
        return -1;
    }
    if (SMMutexLock(queue->mutex, kWaitForever) != 0) {
        RT_TRACE_LOG(1, "%s%s", "<-- err mutex fail", __func__);
        return -1;
    }
    // Storing a status wakes nobody: a consumer already waiting stays so
    // until the next Put.
    status_of(*queue).store(status, std::memory_order_relaxed);
    SMMutexUnLock(queue->mutex);
    return 0;
}

}  // extern "C"

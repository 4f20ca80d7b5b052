// Demo step for synchronisation and the event queue: a simulated transport
// thread hands notifications to a service thread through the queue; the
// service's global status and controller states are set and read.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "demo.h"
#include "names.h"
#include "rtvox/rt_evtq.h"
#include "rtvox/rt_sync.h"

namespace rtvoxctl {
namespace {

// What the service thread took from the queue, in order.
struct ServiceLog {
    static constexpr int kExpected = 3;
    std::mutex mutex;
    std::condition_variable done_cv;
    std::vector<std::string> taken;
    bool done = false;
};

void *service_thread(void *argument)
{
    auto *log = static_cast<ServiceLog *>(argument);
    for (int i = 0; i < ServiceLog::kExpected; ++i) {
        MctpClientCallbackEvent *event = rtraid_EventQueue_Get();  // blocks until the transport puts
        std::string line;
        if (event == nullptr) {
            line = "(nothing: the queue answered NULL)";
        } else {
            line = notification_name(event->callbackType);
            if (event->callbackType == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE) {
                line += ", the transport's own record, endpoints";
                for (uint32_t k = 0; k < event->bufferSize; ++k) {
                    line += " " + std::to_string(event->buffer[k]);
                }
            } else {
                line += ", a 9-byte copy, first payload byte " + std::to_string(event->buffer[0]);
            }
            std::free(event);  // whoever takes a record frees it
        }
        std::lock_guard lock(log->mutex);
        log->taken.push_back(line);
    }
    std::lock_guard lock(log->mutex);
    log->done = true;
    log->done_cv.notify_all();
    return nullptr;
}

void transport_thread()
{
    MctpClientCallbackEvent event{};
    event.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON;
    event.bufferSize = 1;
    event.buffer[0] = 1;
    rtraid_EventQueue_Put(&event);  // copied: the transport keeps its record

    event.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET;
    event.buffer[0] = 2;
    rtraid_EventQueue_Put(&event);

    // The endpoint table travels as it is: the queue takes the record over.
    const uint8_t endpoints[] = {8, 9, 10};
    auto *table = static_cast<MctpClientCallbackEvent *>(std::calloc(1, 8 + sizeof endpoints));
    if (table == nullptr) {
        return;
    }
    table->callbackType = MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE;
    table->bufferSize = sizeof endpoints;
    std::memcpy(table->buffer, endpoints, sizeof endpoints);
    if (rtraid_EventQueue_Put(table) != 0) {
        std::free(table);
    }
}

void demo_queue(Demo &demo)
{
    demo.section("Event queue: transport notifications to the service thread");
    if (rtraid_EventQueue_Init() != 0) {
        demo.say("rtraid_EventQueue_Init failed");
        demo.traces();
        return;
    }
    demo.say("queue created; status %d (not READY)", rtraid_EventQueue_GetStatus());
    demo.say("a Get before READY answers at once: %s",
             rtraid_EventQueue_Get() == nullptr ? "NULL" : "a record (unexpected)");
    rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY);
    demo.say("status set to %d (READY)", rtraid_EventQueue_GetStatus());
    demo.traces();

    auto *log = new ServiceLog;  // stays valid even if the detached thread outlives the step
    if (RTSync_FFThreadStart(service_thread, log) != 1) {
        demo.say("the service thread could not be started");
        demo.traces();
        rtraid_EventQueue_Destroy();
        return;
    }
    demo.say("service thread started (RTSync_FFThreadStart answered 1); it blocks in rtraid_EventQueue_Get");
    std::thread transport(transport_thread);
    transport.join();
    demo.say("transport thread put: power on, LPC reset, endpoint table");

    bool finished = false;
    {
        std::unique_lock lock(log->mutex);
        finished = log->done_cv.wait_for(lock, std::chrono::seconds(5), [log] { return log->done; });
        for (size_t i = 0; i < log->taken.size(); ++i) {
            demo.say("service thread took #%zu: %s", i + 1, log->taken[i].c_str());
        }
    }
    if (!finished) {
        demo.say("the service thread did not finish within 5 seconds");
    } else {
        delete log;
    }
    demo.traces();

    rtraid_EventQueue_SetStatus(0);
    MctpClientCallbackEvent power_off{};
    power_off.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF;
    rtraid_EventQueue_Put(&power_off);
    MctpClientCallbackEvent *held = rtraid_EventQueue_Get();
    demo.say("status 0, a power off put: Get answers %s at once and the entry stays queued (%s)",
             held == nullptr ? "NULL" : "a record (unexpected)", gpRtraid_EventQueue->head != nullptr ? "yes" : "no");
    std::free(held);
    rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY);
    MctpClientCallbackEvent *released = rtraid_EventQueue_Get();
    demo.say("READY again: Get hands out the %s",
             released != nullptr ? notification_name(released->callbackType) : "nothing");
    std::free(released);
    rtraid_EventQueue_Destroy();
    demo.say("queue destroyed; rtraid_EventQueue_GetStatus now answers 0x%08X",
             static_cast<uint32_t>(rtraid_EventQueue_GetStatus()));
    demo.traces();
}

void demo_status(Demo &demo)
{
    demo.section("Global status, poll state and controller states");
    // The cache's initialisation normally sets these up; the step makes its
    // own when it runs without it and removes them again.
    const bool own_status = rtsync_mutex == 0 && RTSync_Init() == 0;
    const bool own_tavo = rtraid_tavo_state_mutex == 0 && RTSync_TavoStateInit() == 0;

    RTSyncStatus status{};
    status.phaseFlags = RTSYNC_PHASE_INVENTORY;
    RTSync_SetGlobalStatus(status);
    demo.say("inventory phase: phaseFlags 0x%04X (bit 22 of the status word)", status.phaseFlags);
    status.statusFlags = RTSYNC_STATUS_PAST_EVENTS_DONE;
    status.phaseFlags = 0;
    RTSync_SetGlobalStatus(status);
    status.pollState = 3;
    RTSync_SetGlobalPoll(status);
    RTSync_updateGlobalPoll(status);

    RTSyncStatus seen{};
    if (RTSync_LockGlobalStatus() == 0) {
        RTSync_GetGlobalStatus(&seen);
        RTSync_UnLockGlobalStatus();
    }
    demo.say("read under the lock: statusFlags 0x%04X, phaseFlags 0x%04X, pollState %u, poll times %u / %u",
             seen.statusFlags, seen.phaseFlags, seen.pollState, seen.pollTime, seen.pollUpdateTime);

    RTSync_SetTavoStatus(0, 2);
    RTSync_SetTavoStatus(1, 5);
    RTSync_SetTavoStatus(0, 3);  // controller 0 keeps its entry, with a new state
    demo.say("controller states set: 0 -> 2, 1 -> 5, then 0 -> 3");
    for (const uint8_t ctrl : {0, 1, 7}) {
        uint8_t state = 0;
        const uint32_t rc = RTSync_GetTavoStatus(ctrl, &state);
        if (rc == 0) {
            demo.say("controller %u: state %u", ctrl, state);
        } else {
            demo.say("controller %u: not in the table (answer %u, state %u)", ctrl, rc, state);
        }
    }
    demo.traces();

    if (own_tavo) {
        RTSync_TavoStateDestroy();
    }
    if (own_status) {
        RTSync_Destroy();
    }
}

}  // namespace

void demo_sync(Demo &demo)
{
    demo_status(demo);
    demo_queue(demo);
}

}  // namespace rtvoxctl

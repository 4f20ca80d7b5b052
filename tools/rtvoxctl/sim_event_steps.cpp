// Steps of the service's event side: controller events recorded in the event
// cache (or parked while a controller command is outstanding, and purged
// when it is done), the fetch of a controller's batch, the change of the
// service's phase, and transport notifications through the event queue.
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "names.h"
#include "rtvox/rt_evtq.h"
#include "rtvox/rt_kwlogwrp.h"
#include "rtvox/rt_sync.h"
#include "simulation.h"
#include "vornhost/vornhost.h"

#if defined(__SANITIZE_ADDRESS__) && __has_include(<sanitizer/lsan_interface.h>)
#include <sanitizer/lsan_interface.h>
#define RTVOXCTL_LEAK_CHECKED 1
#endif

namespace rtvoxctl::sim {
namespace {

constexpr uint32_t kEventRecordSize = 32;  // the head the cache knows and the submission's part
constexpr size_t kListedEvents = 8;

// The cache drops some records without releasing them (an overwritten ring
// entry, for one): the service lives with that, and so does the leak checker.
void dropped_by_design(const void *block)
{
#ifdef RTVOXCTL_LEAK_CHECKED
    __lsan_ignore_object(block);
#else
    (void)block;
#endif
}

std::string object_name(uint32_t object, uint32_t key)
{
    const std::string k = " " + std::to_string(key);
    switch (object) {
        case RTCACHE_OBJKIND_CONTROLLER:
            return "controller";
        case RTCACHE_OBJKIND_ENCLOSURE:
            return "enclosure" + k;
        case RTCACHE_OBJKIND_PHYSICALDISK:
            return "disk" + k;
        case RTCACHE_OBJKIND_VIRTUALDISK:
            return "virtual disk" + k;
        case RTCACHE_OBJKIND_BATTERY:
            return "battery";
        case RTCACHE_OBJKIND_EMM:
            return "EMM" + k;
        case RTCACHE_OBJKIND_ENCL_ELEMENT:
            return "enclosure element" + k;
        default:
            return "object type " + std::to_string(object) + k;
    }
}

std::string event_name(uint32_t type)
{
    return type == RAID_MGMT_EVENT_CHANGE_OBJECT ? "change-object event" : "event type " + std::to_string(type);
}

const char *message_of(const void *record)
{
    const auto *head = static_cast<const RtCacheEventRecord *>(record);
    return head != nullptr && head->messageId != nullptr ? head->messageId : "no record";
}

uint32_t adapter_index(uint8_t eid)
{
    const int32_t index = GetIndexFromEID(eid);
    return index >= 0 ? static_cast<uint32_t>(index) : max_adapters;
}

// Why an event that did not reach the event log stayed back, as the library traced it.
std::string held_back_because(int32_t rc, uint32_t first_trace)
{
    bool past_events = false;
    for (uint32_t i = first_trace; i < vornhost_trace_count(); ++i) {
        VornHostTraceLine line{};
        if (vornhost_trace_get(i, &line) != 0) {
            continue;
        }
        if (std::strstr(line.text, "suppress it") != nullptr) {
            return "inventory phase";
        }
        past_events = past_events || std::strstr(line.text, "past event processing") != nullptr;
    }
    return past_events && rc == -1 ? "past-event processing" : "refused, answer " + std::to_string(rc);
}

}  // namespace

void release_event_record(RtCacheEventRecord *record)
{
    rtvox_free(record->messageId);
    rtvox_free(record->pData);
    rtvox_free(record);
}

RtCacheEventRecord *Simulation::make_record(const EventStep &event)
{
    auto *record = static_cast<RtCacheEventRecord *>(rtvox_alloc(kEventRecordSize));
    auto *message = static_cast<char *>(rtvox_alloc(static_cast<uint32_t>(event.message.size() + 1)));
    auto *data = static_cast<uint32_t *>(rtvox_alloc(16));
    if (record == nullptr || message == nullptr || data == nullptr) {
        rtvox_free(record);
        rtvox_free(message);
        rtvox_free(data);
        return nullptr;
    }
    std::memcpy(message, event.message.c_str(), event.message.size());
    *data = static_cast<uint32_t>(events_.size());  // what the record stands for, for the submission
    events_.push_back(event);
    record->messageId = message;
    record->pData = data;
    for (const void *block :
         {static_cast<const void *>(record), static_cast<const void *>(message), static_cast<const void *>(data)}) {
        dropped_by_design(block);
    }
    return record;
}

void Simulation::event(const Step &step, StepReport &report)
{
    const auto &e = std::get<EventStep>(step.body);
    const auto window = command_.find(e.eid);
    uint32_t taken = 0;
    for (uint32_t n = 0; n < e.repeat; ++n) {
        const CacheLock lock(report);
        if (!lock.held()) {
            continue;
        }
        uint32_t rc = 0;
        if (window != command_.end()) {
            rc = called(report, "rtcache_SetDelayedCachedEvent",
                        rtcache_SetDelayedCachedEvent(e.eid, e.object, e.type, e.key));
        } else if (e.message.empty()) {
            rc = called(report, "rtcache_SetCachedEvent", rtcache_SetCachedEvent(e.eid, e.object, e.type, e.key));
        } else {
            RtCacheEventRecord *record = make_record(e);
            rc = called(report, "rtcache_SetCachedEvent_roll_up",
                        rtcache_SetCachedEvent_roll_up(e.eid, e.object, e.type, e.key, record));
            if (rc != 0 && record != nullptr) {
                release_event_record(record);  // refused: still ours
            }
        }
        taken += rc == 0 ? 1 : 0;
    }
    const std::string what = object_name(e.object, e.key) + ", " + event_name(e.type) +
                             (e.message.empty() ? "" : " " + e.message) +
                             (e.repeat > 1 ? " x" + std::to_string(e.repeat) : "");
    if (window != command_.end()) {
        report.line("EID %u: %s: %u parked while command 0x%08X is outstanding", e.eid, what.c_str(), taken,
                    window->second);
    } else {
        report.line("EID %u: %s: %u recorded", e.eid, what.c_str(), taken);
    }
}

void Simulation::take_events(uint8_t eid, StepReport &report, bool list)
{
    RtCacheEventBlock *events = nullptr;
    RtCachePdChObjBlock *changes = nullptr;
    const uint32_t rc = called(report, "rtcache_GetCachedEvents", rtcache_GetCachedEvents(eid, &events, &changes));
    if (rc != 0) {
        if (list) {
            report.line("EID %u: nothing fetched (rtcache_GetCachedEvents answered %u)", eid, rc);
        }
        return;
    }
    std::string disks;
    size_t changed = 0;
    for (uint32_t k = 0; k < max_physicaldevices && k / 8 < RTCACHE_PDCHOBJ_BITMAP_BYTES; ++k) {
        if ((changes->au8Bitmap[k / 8] >> (k % 8) & 1) != 0) {
            ++changed;
            const void *record = k < RTCACHE_PDCHOBJ_SLOTS ? changes->apRecords[k] : nullptr;
            disks += " " + std::to_string(k) + (record != nullptr ? std::string(" (") + message_of(record) + ")" : "");
        }
    }
    const uint32_t count = events->u32Count;
    if (list) {
        report.line("EID %u: fetched %u events and %zu changed disks", eid, count, changed);
        for (uint32_t i = 0; i < count && i < kListedEvents; ++i) {
            const RtCacheEventEntry &entry = events->entries[i];
            report.line("  event %u: %s, %s (%s)", i + 1, object_name(entry.objType, entry.objKey).c_str(),
                        event_name(entry.eventType).c_str(), message_of(entry.event_data));
        }
        if (count > kListedEvents) {
            report.line("  ... and %u more events", count - static_cast<uint32_t>(kListedEvents));
        }
        if (changed != 0) {
            report.line("  changed disks:%s", disks.c_str());
        }
    } else if (count != 0 || changed != 0) {
        report.line("EID %u: %u events and %zu changed disks were still cached: fetched", eid, count, changed);
    }
    // The batch is what the service submits: the events up to the count, then
    // the changed disks' records. Every record the blocks point to is the
    // service's now, those of older ring entries beyond the count included.
    std::set<void *> seen;
    auto take = [&](void *record, bool in_batch) {
        if (record != nullptr && seen.insert(record).second) {
            fetched_.push_back(static_cast<RtCacheEventRecord *>(record));
            if (in_batch) {
                batch_.push_back(fetched_.back());
            }
        }
    };
    for (uint32_t i = 0; i < count && i < RTCACHE_EVENTCACHE_DEPTH; ++i) {
        take(events->entries[i].event_data, true);
    }
    for (uint32_t k = 0; k < RTCACHE_PDCHOBJ_SLOTS; ++k) {
        take(changes->apRecords[k], (changes->au8Bitmap[k / 8] >> (k % 8) & 1) != 0);
    }
    for (const RtCacheEventEntry &entry : events->entries) {
        take(entry.event_data, false);
    }
    rtvox_free(events);
    rtvox_free(changes);
}

void Simulation::fetch(const Step &step, StepReport &report)
{
    for (const uint8_t eid : std::get<FetchStep>(step.body).controllers) {
        take_events(eid, report, true);
    }
    report.line("event records to submit: %zu; held by the service: %zu", batch_.size(), fetched_.size());
}

void Simulation::release_fetched()
{
    for (RtCacheEventRecord *record : fetched_) {
        release_event_record(record);
    }
    fetched_.clear();
    batch_.clear();
}

void Simulation::submit_event(const EventStep &event, StepReport &report)
{
    const std::wstring fqdd = wide(event.fqdd);
    std::vector<std::string> args = event.args;
    std::vector<char *> argv;
    for (std::string &arg : args) {
        argv.push_back(arg.data());
    }
    const uint32_t submits = vornhost_call_count(VORNHOST_QNIPCLSubmitEvent);
    const uint32_t first_trace = vornhost_trace_count();
    const int32_t rc =
        called(report, "rt_KWLOGCMNSubmitEvent",
               rt_KWLOGCMNSubmitEvent(event.severity, event.message.c_str(), fqdd.c_str(),
                                      argv.empty() ? nullptr : argv.data(), static_cast<uint8_t>(argv.size())));
    if (vornhost_call_count(VORNHOST_QNIPCLSubmitEvent) != submits) {
        return;  // the event log's journal tells the rest
    }
    std::string reason = held_back_because(rc, first_trace);
    if (!report.suppressed.empty() && report.suppressed.back().message == event.message &&
        report.suppressed.back().reason == reason) {
        ++report.suppressed.back().times;
    } else {
        report.suppressed.push_back({event.message, std::move(reason)});
    }
}

void Simulation::submit(const Step &, StepReport &report)
{
    for (RtCacheEventRecord *record : batch_) {
        submit_event(events_[*static_cast<const uint32_t *>(record->pData)], report);
    }
    report.line("event records submitted or held back: %zu; released: %zu", batch_.size(), fetched_.size());
    release_fetched();
}

void Simulation::set_phase(Phase phase, StepReport &report)
{
    RTSyncStatus status{};
    RTSync_GetGlobalStatus(&status);
    const bool inventory = phase == Phase::Inventory;
    const bool past_events_done = phase == Phase::Normal;
    status.phaseFlags = static_cast<uint16_t>(inventory ? status.phaseFlags | RTSYNC_PHASE_INVENTORY
                                                        : status.phaseFlags & ~RTSYNC_PHASE_INVENTORY);
    status.statusFlags = static_cast<uint16_t>(past_events_done ? status.statusFlags | RTSYNC_STATUS_PAST_EVENTS_DONE
                                                                : status.statusFlags & ~RTSYNC_STATUS_PAST_EVENTS_DONE);
    called(report, "RTSync_SetGlobalStatus", RTSync_SetGlobalStatus(status));
    report.line("phase %s: statusFlags 0x%04X, phaseFlags 0x%04X", phase_name(phase), status.statusFlags,
                status.phaseFlags);
}

void Simulation::phase(const Step &step, StepReport &report)
{
    set_phase(std::get<PhaseStep>(step.body).phase, report);
}

void Simulation::command_begin(const Step &step, StepReport &report)
{
    const auto &begin = std::get<CommandBeginStep>(step.body);
    command_[begin.eid] = begin.opcode;
    report.line("EID %u: command 0x%08X outstanding: its events are parked until it is done", begin.eid, begin.opcode);
}

void Simulation::command_end(const Step &step, StepReport &report)
{
    const uint8_t eid = std::get<CommandEndStep>(step.body).eid;
    const uint32_t opcode = command_[eid];
    command_.erase(eid);
    const CacheLock lock(report);
    if (!lock.held()) {
        return;
    }
    const uint32_t index = adapter_index(eid);
    const bool tables = index < max_adapters && cache_Events_delayed != nullptr && cache_Events != nullptr;
    const uint32_t parked = tables ? cache_Events_delayed[index].u32Count : 0;
    const uint32_t rc =
        called(report, "rtcache_PurgeDelayedCachedEvents", rtcache_PurgeDelayedCachedEvents(eid, opcode));
    report.line("EID %u: command 0x%08X done: %u parked events purged into the cache (answer %u), %u events cached now",
                eid, opcode, parked, rc, tables ? cache_Events[index].u32Count : 0);
}

void Simulation::notify(const Step &step, StepReport &report)
{
    const auto &n = std::get<NotifyStep>(step.body);
    auto *record = static_cast<MctpClientCallbackEvent *>(std::calloc(1, 8 + n.payload.size()));
    if (record == nullptr) {
        return;
    }
    record->callbackType = n.type;
    record->bufferSize = static_cast<uint32_t>(n.payload.size());
    std::memcpy(record->buffer, n.payload.data(), n.payload.size());
    const int32_t put = called(report, "rtraid_EventQueue_Put", rtraid_EventQueue_Put(record));
    // The queue copies every notification but the endpoint table, which it takes over.
    if (n.type != MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE || put != 0) {
        std::free(record);
    }
    report.line("the transport queued a notification: %s (answer %d)", notification_name(n.type), put);
    // The service thread takes what is queued; a Get on an empty READY queue would wait for ever.
    while (gpRtraid_EventQueue != nullptr && gpRtraid_EventQueue->head != nullptr) {
        MctpClientCallbackEvent *got = rtraid_EventQueue_Get();
        if (got == nullptr) {
            report.line("the service thread found the queue not READY");
            break;
        }
        std::string payload;
        const uint32_t shown = got->callbackType == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE ? got->bufferSize : 1;
        for (uint32_t i = 0; i < shown; ++i) {
            payload += " " + std::to_string(got->buffer[i]);
        }
        report.line("the service thread took a notification: %s, payload%s", notification_name(got->callbackType),
                    payload.c_str());
        std::free(got);
    }
}

}  // namespace rtvoxctl::sim

// Demo step for event-log submission: in each of the service's three phases
// (inventory, past-event processing after a controller reset, normal
// operation) four events are recorded in the cache, the batch is fetched and
// each event is submitted as the service does it, with the friendly name of
// its component as the argument string. The account shows what the host's
// event log received and which events were held back, and why.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "rtvox/rt_kwlogwrp.h"
#include "rtvox/rt_sync.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {
namespace {

constexpr uint8_t kEid = 0x11;
constexpr uint32_t kPlainEvent = 9;  // a ring event, not a change-object one

struct Event {
    uint32_t objType;
    uint32_t key;
    const char *msgId;
    const wchar_t *fqdd;
    bool argument;  // the friendly name goes out as the argument string
};
constexpr Event kEvents[] = {
    {RTRAID_OBJTYPE_ADAPTER, kEid, "CTL97", L"RAID.Integrated.1-1", false},
    {RTRAID_OBJTYPE_PHYSICALDISK, 1, "PDR16", L"Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1", true},
    {RTRAID_OBJTYPE_PHYSICALDISK, 2, "PDR1", L"Disk.Bay.2:Enclosure.Internal.0-1:RAID.Integrated.1-1", true},
    {RTRAID_OBJTYPE_ENCLOSURE, 32, "ENC28", L"Enclosure.Internal.0-1:RAID.Integrated.1-1", true},
};

// The event record as the service builds it: message id, and here the
// component's FQDD as the second buffer.
RtCacheEventRecord *event_record(const Event &event)
{
    auto *made = static_cast<RtCacheEventRecord *>(rtvox_alloc(sizeof(RtCacheEventRecord)));
    made->messageId = static_cast<char *>(rtvox_alloc(static_cast<uint32_t>(std::strlen(event.msgId) + 1)));
    std::strcpy(made->messageId, event.msgId);
    const size_t bytes = (std::wcslen(event.fqdd) + 1) * sizeof(wchar_t);
    made->pData = rtvox_alloc(static_cast<uint32_t>(bytes));
    std::memcpy(made->pData, event.fqdd, bytes);
    return made;
}

void release_event_record(RtCacheEventRecord *made)
{
    rtvox_free(made->messageId);
    rtvox_free(made->pData);
    rtvox_free(made);
}

bool traced(const char *needle)
{
    for (uint32_t i = 0; i < vornhost_trace_count(); ++i) {
        VornHostTraceLine line{};
        if (vornhost_trace_get(i, &line) == 0 && std::strstr(line.text, needle) != nullptr) {
            return true;
        }
    }
    return false;
}

// The latest entry of the host's event log, argument strings decoded.
std::string received()
{
    VornHostEvent e{};
    const uint32_t last = vornhost_eventlog_count() - 1;
    if (vornhost_eventlog_get(last, &e) != 0) {
        return "(journal unreadable)";
    }
    std::string text = "category " + std::to_string(e.category) + ", source " + std::to_string(e.source) +
                       ", severity " + std::to_string(e.severity) + ", " + e.msgId + " on " +
                       (e.fqdd != nullptr ? e.fqdd : "(no FQDD)");
    VornHostTlv tlv{};
    for (uint32_t t = 0; vornhost_eventlog_tlv(last, t, &tlv) == 0; ++t) {
        text += ", TLV " + std::to_string(tlv.type) + " args";
        // The arguments one after the other, each with its terminator.
        const std::string value(reinterpret_cast<const char *>(tlv.value), tlv.length);
        for (size_t at = 0; at < value.size();) {
            const size_t end = std::min(value.find('\0', at), value.size());
            text += " \"" + value.substr(at, end - at) + "\"";
            at = end + 1;
        }
    }
    return text;
}

// Submits one fetched event as the service does and tells what became of it.
void submit(Demo &demo, const RtCacheEventRecord *record)
{
    const auto *fqdd = static_cast<const wchar_t *>(record->pData);
    bool argument = false;
    for (const Event &e : kEvents) {
        argument = argument || (e.argument && std::strcmp(e.msgId, record->messageId) == 0);
    }
    char *name = argument ? getFriendlyFQDDName(fqdd) : nullptr;
    char *args[] = {name};
    const uint32_t before = vornhost_eventlog_count();
    const int32_t rc = rt_KWLOGCMNSubmitEvent(2, record->messageId, fqdd, args, name != nullptr ? 1 : 0);
    if (vornhost_eventlog_count() > before) {
        demo.say("%s: answered %d, the event log received: %s", record->messageId, rc, received().c_str());
    } else if (traced("No logging KW alert during invenotry phase")) {
        demo.say("%s: answered %d, suppressed: only ENC28, PDR16 and SSD0001 are logged during inventory",
                 record->messageId, rc);
    } else if (traced("QNIPCLSubmitEvent() failed with return code:-1")) {
        demo.say("%s: answered %d, dropped: held back during past-event processing (it has arguments)",
                 record->messageId, rc);
    } else {
        demo.say("%s: answered %d, not submitted", record->messageId, rc);
    }
    std::free(name);
    demo.traces();
}

void run_phase(Demo &demo, const char *title, uint16_t statusFlags, uint16_t phaseFlags)
{
    demo.section(std::string("Event log: ") + title);
    const RTSyncStatus status{statusFlags, phaseFlags, 0, 0, 0, 0};
    RTSync_SetGlobalStatus(status);
    demo.say("global status: statusFlags 0x%04x, phaseFlags 0x%04x", status.statusFlags, status.phaseFlags);
    rtcache_GetLock();
    for (const Event &event : kEvents) {
        rtcache_SetCachedEvent_roll_up(kEid, event.objType, kPlainEvent, event.key, event_record(event));
    }
    SMMutexUnLock(mutexRtCache);
    RtCacheEventBlock *events = nullptr;
    RtCachePdChObjBlock *chObj = nullptr;
    if (rtcache_GetCachedEvents(kEid, &events, &chObj) != 0) {
        demo.say("rtcache_GetCachedEvents failed");
        demo.traces();
        return;
    }
    demo.say("%u events recorded in the cache and fetched as one batch", events->u32Count);
    vornhost_trace_clear();  // recording and fetching are shown in the event-cache step
    for (uint32_t i = 0; i < events->u32Count; ++i) {
        auto *record = static_cast<RtCacheEventRecord *>(events->entries[i].event_data);
        if (record != nullptr) {
            submit(demo, record);
            release_event_record(record);
        }
    }
    rtvox_free(events);
    rtvox_free(chObj);
}

}  // namespace

void demo_eventlog(Demo &demo)
{
    demo.section("Event log: friendly names");
    const wchar_t *disk = kEvents[1].fqdd;
    char *name = getFriendlyFQDDName(disk);
    demo.say("getFriendlyFQDDName(%ls) = \"%s\"", disk, name != nullptr ? name : "(null)");
    std::free(name);
    char buffer[64];
    const int32_t fits = rt_Buildmsgstring(0, disk, buffer, sizeof buffer);
    demo.say("rt_Buildmsgstring into 64 bytes answered %d%s%s", fits, fits == 0 ? ": " : "", fits == 0 ? buffer : "");
    demo.say("rt_Buildmsgstring into 16 bytes answered %d", rt_Buildmsgstring(0, disk, buffer, 16));
    demo.traces();

    if (rtcache_Init() != 0) {
        demo.say("rtcache_Init failed");
        demo.traces();
        rtcache_Destroy();
        return;
    }
    uint8_t eid = kEid;
    rtcache_GetLock();
    rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, kEid, 0, &eid);
    SMMutexUnLock(mutexRtCache);
    vornhost_trace_clear();
    vornhost_eventlog_clear();

    run_phase(demo, "during the inventory phase", RTSYNC_STATUS_PAST_EVENTS_DONE, RTSYNC_PHASE_INVENTORY);
    run_phase(demo, "during past-event processing after a controller reset", 0, 0);
    run_phase(demo, "in normal operation", RTSYNC_STATUS_PAST_EVENTS_DONE, 0);

    demo.section("Event log: the single record sent once the PCIe SSD region is set up");
    const int32_t single = rt_SubMitSingle(RT_KWLOG_SINGLE_PCIESSD);
    demo.say("rt_SubMitSingle(%u) answered %d; the event log holds %u events and %u single record(s)",
             RT_KWLOG_SINGLE_PCIESSD, single, vornhost_eventlog_count(), vornhost_single_count());
    demo.traces();

    rtcache_Destroy();
    vornhost_trace_clear();
}

}  // namespace rtvoxctl

// Demo step for the event cache: a controller with disks, a backplane and a
// virtual disk is cached; disk and controller events are recorded, events
// are parked while a controller command is pending and purged into the
// cache, the batch is fetched and listed by object type, the FQDDs of the
// controller and its backplane are looked up, and the cache is dumped.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {

void demo_events(Demo &demo);

namespace {

constexpr uint8_t kEid = 0x10;
constexpr uint32_t kDisks = 4;
constexpr uint32_t kBackplaneKey = 32;
constexpr uint32_t kControllerObject = 0;  // object type of a controller event
constexpr uint32_t kVirtualDiskObject = 4;
constexpr uint32_t kStateChange = 9;  // a plain event type
constexpr uint32_t kPendingOpcode = 0x03010000;
constexpr const wchar_t *kController = L"RAID.Slot.3-1";
constexpr const wchar_t *kBackplane = L"Enclosure.Internal.0-1:RAID.Slot.3-1";

wchar_t *wide(const std::wstring &text)
{
    auto *copy = static_cast<wchar_t *>(rtvox_alloc(static_cast<uint32_t>((text.size() + 1) * sizeof(wchar_t))));
    std::wcscpy(copy, text.c_str());
    return copy;
}

// A 512-byte record with its name and FQDD, as the copy functions leave it.
template <typename Record>
Record *record(uint32_t objType, const std::wstring &name, const std::wstring &fqdd)
{
    auto *made = static_cast<Record *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    made->objType = objType;
    made->NAME = wide(name);
    made->hdr.VERSION = 1;
    made->hdr.FQDD = wide(fqdd);
    return made;
}

// An event record as the service builds it for the submission.
RtCacheEventRecord *event_record(const char *messageId)
{
    auto *made = static_cast<RtCacheEventRecord *>(rtvox_alloc(32));
    made->messageId = static_cast<char *>(rtvox_alloc(static_cast<uint32_t>(std::strlen(messageId) + 1)));
    std::strcpy(made->messageId, messageId);
    made->pData = rtvox_alloc(16);
    return made;
}

void release_event_record(void *event_data)
{
    auto *made = static_cast<RtCacheEventRecord *>(event_data);
    rtvox_free(made->messageId);
    rtvox_free(made->pData);
    rtvox_free(made);
}

const char *message_of(const void *event_data)
{
    const auto *made = static_cast<const RtCacheEventRecord *>(event_data);
    return made != nullptr && made->messageId != nullptr ? made->messageId : "-";
}

void skip_traces(Demo &demo, const char *what)
{
    demo.say("(%s traced %u lines, not shown)", what, vornhost_trace_count());
    vornhost_trace_clear();
}

// Caches the controller, its disks, its backplane and one virtual disk.
void cache_controller()
{
    uint8_t eid = kEid;
    rtcache_GetLock();
    rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, kEid, 0, &eid);
    auto *node = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    node->u32NodeType = RTCACHE_NODE_CONTROLLER;
    node->pAdapter = record<RtAdapter>(RTRAID_OBJTYPE_ADAPTER, L"RAID Controller in Slot 3", kController);
    node->pBattery = record<RtBattery>(5, L"Battery", std::wstring(L"Battery.Integrated.1:") + kController);
    rtcache_SetCachedObject(RTCACHE_KEY_ADAPTER, kEid, kEid, node);
    for (uint32_t key = 0; key < kDisks; ++key) {
        auto *disk = record<RtPhysicalDisk>(RTRAID_OBJTYPE_PHYSICALDISK, L"Physical Disk 0:1:" + std::to_wstring(key),
                                            L"Disk.Bay." + std::to_wstring(key) + L":" + kBackplane);
        rtcache_SetCachedObject(RTCACHE_KEY_PD, kEid, key, new_pd_node(RTCACHE_PDNODE_PHYSICALDISK, disk));
    }
    RtEnclosure *enclosure = record<RtEnclosure>(RTRAID_OBJTYPE_ENCLOSURE, L"Backplane", kBackplane);
    enclosure->Position = 1;
    rtcache_SetCachedObject(RTCACHE_KEY_PD, kEid, kBackplaneKey, new_pd_node(RTCACHE_PDNODE_BACKPLANE, enclosure));
    rtcache_SetCachedObject(RTCACHE_KEY_VD, kEid, 0,
                            record<RtVirtualDisk>(RTRAID_OBJTYPE_LOGICALDISK, L"Virtual Disk 0",
                                                  std::wstring(L"Disk.Virtual.0:") + kController));
    SMMutexUnLock(mutexRtCache);
    rtcache_SetStorageEIDType(kEid, RTCACHE_EIDTYPE_TAVO);
}

uint32_t record_event(uint32_t objType, uint32_t eventType, uint32_t key, RtCacheEventRecord *event_data)
{
    rtcache_GetLock();
    const uint32_t rc = rtcache_SetCachedEvent_roll_up(kEid, objType, eventType, key, event_data);
    SMMutexUnLock(mutexRtCache);
    return rc;
}

// Lists the fetched batch: the ring by object type, then the changed disks.
void list_batch(Demo &demo, const RtCacheEventBlock *events, const RtCachePdChObjBlock *chObj)
{
    demo.say("the batch holds %u ring entries:", events->u32Count);
    for (uint32_t i = 0; i < events->u32Count; ++i) {
        const RtCacheEventEntry &entry = events->entries[i];
        demo.say("  entry %u: objType %u, eventType %u, objKey %u, record %s", i + 1, entry.objType, entry.eventType,
                 entry.objKey, message_of(entry.event_data));
    }
    for (uint32_t type = 0; type <= 9; ++type) {
        uint16_t count = 0;
        uint32_t *keys = nullptr;
        if (rtcache_GetEventsByObjType(events, type, &count, &keys) == 0 && count > 0) {
            std::string list;
            for (uint16_t i = 0; i < count; ++i) {
                list += (i != 0 ? ", " : "") + std::to_string(keys[i]);
            }
            demo.say("  object type %u: %u event(s), keys %s", type, count, list.c_str());
        }
        rtvox_free(keys);
    }
    for (uint32_t disk = 0; disk < RTCACHE_PDCHOBJ_SLOTS; ++disk) {
        if (((chObj->au8Bitmap[disk >> 3] >> (disk & 7)) & 1) != 0) {
            demo.say("  disk %u changed, latest record %s", disk, message_of(chObj->apRecords[disk]));
        }
    }
    vornhost_trace_clear();  // the listing's own lines add nothing
}

}  // namespace

void demo_events(Demo &demo)
{
    demo.section("Event cache: a controller with four disks, a backplane and a virtual disk is cached");
    // Four adapter slots instead of 30 keep the dump short; the limit holds
    // from rtcache_Init to rtcache_Destroy and is put back afterwards.
    const uint32_t adapters = max_adapters;
    max_adapters = 4;
    demo.say("max_adapters is set to %u for this step", max_adapters);
    if (rtcache_Init() != 0) {
        demo.say("rtcache_Init failed");
        demo.traces();
        rtcache_Destroy();
        max_adapters = adapters;
        return;
    }
    cache_controller();
    skip_traces(demo, "setting up the cache");

    demo.section("Event cache: disk events and a controller event are recorded");
    record_event(PHYSICALDISK, RAID_MGMT_EVENT_CHANGE_OBJECT, 1, event_record("PDR3"));
    record_event(PHYSICALDISK, RAID_MGMT_EVENT_CHANGE_OBJECT, 1, event_record("PDR5"));
    demo.say("disk 1: PDR3, then PDR5 (which releases the PDR3 record)");
    demo.traces();
    record_event(PHYSICALDISK, RAID_MGMT_EVENT_CHANGE_OBJECT, 2, event_record("PDR4"));
    record_event(kControllerObject, kStateChange, kEid, event_record("CTL48"));
    demo.say("disk 2: PDR4; the controller: CTL48 as a plain event");
    demo.traces();

    demo.section("Event cache: a controller command is pending, so events are parked and purged afterwards");
    rtcache_GetLock();
    rtcache_SetDelayedCachedEvent(kEid, kVirtualDiskObject, kStateChange, 0);
    rtcache_SetDelayedCachedEvent(kEid, PHYSICALDISK, RAID_MGMT_EVENT_CHANGE_OBJECT, 3);
    demo.say("parked: a virtual-disk event and a change of disk 3; delayed count %u, actual count %u",
             cache_Events_delayed[0].u32Count, cache_Events[0].u32Count);
    demo.traces();
    rtcache_PurgeDelayedCachedEvents(kEid, kPendingOpcode);
    demo.say("after the purge: delayed count %u, actual count %u", cache_Events_delayed[0].u32Count,
             cache_Events[0].u32Count);
    SMMutexUnLock(mutexRtCache);
    demo.traces();

    demo.section("Event cache: the service fetches the batch and lists it by object type");
    RtCacheEventBlock *events = nullptr;
    RtCachePdChObjBlock *chObj = nullptr;
    const uint32_t rc = rtcache_GetCachedEvents(kEid, &events, &chObj);
    demo.say("rtcache_GetCachedEvents answered %u; the cache's blocks are empty again (count %u)", rc,
             cache_Events[0].u32Count);
    demo.traces();
    if (rc == 0) {
        list_batch(demo, events, chObj);
        // The batch and its records are the service's now.
        for (uint32_t i = 0; i < events->u32Count; ++i) {
            if (events->entries[i].event_data != nullptr) {
                release_event_record(events->entries[i].event_data);
            }
        }
        for (void *event_data : chObj->apRecords) {
            if (event_data != nullptr) {
                release_event_record(event_data);
            }
        }
        rtvox_free(events);
        rtvox_free(chObj);
    }

    demo.section("Event cache: FQDDs of the controller and of its backplane");
    rtcache_GetLock();
    const wchar_t *adapter = rtcache_GetAdapterFQDD(kEid);
    demo.say("adapter FQDD: %ls", adapter != nullptr ? adapter : L"(none)");
    wchar_t *enclosure = nullptr;
    const uint32_t position = rtcache_GetEnclosureFQDD(kEid, kBackplaneKey, &enclosure);
    demo.say("enclosure %u: FQDD %ls, position %u", kBackplaneKey, enclosure != nullptr ? enclosure : L"(none)",
             position);
    SMMutexUnLock(mutexRtCache);
    rtvox_free(enclosure);
    demo.traces();

    demo.section("Event cache: the cache dump, switched on by creating /tmp/rtvox_cache.log");
    demo.touch("/tmp/rtvox_cache.log");
    demo.say("rtcache_PrintCache answered %d", static_cast<int>(rtcache_PrintCache()));
    demo.traces();
    demo.show_file("/tmp/rtvox_cache.log", "the dump");

    rtcache_Destroy();  // the disks' and the backplane's nodes go with everything they hold
    max_adapters = adapters;
    skip_traces(demo, "rtcache_Destroy");
}

}  // namespace rtvoxctl

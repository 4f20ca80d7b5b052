// Demo step for the object cache: two controllers are registered, their
// records copied and cached as a poll pass does, the registry and the cache's
// contents shown, one disk replaced, and the cache destroyed.
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>

#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {
namespace {

constexpr uint8_t kEids[] = {0x10, 0x21};
constexpr uint32_t kDisks = 8;
constexpr uint32_t kVirtualDisks = 2;

const wchar_t *text(const wchar_t *value)
{
    return value != nullptr ? value : L"(none)";
}

std::wstring controller_fqdd(uint32_t index)
{
    return L"RAID.Slot." + std::to_wstring(index + 3) + L"-1";
}

// Source records as the controller layer hands them over; the cache keeps copies.
RtAdapter *copy_adapter(uint32_t index)
{
    std::wstring name = L"RAID Controller in Slot " + std::to_wstring(index + 3);
    std::wstring fqdd = controller_fqdd(index);
    RtAdapter source{};
    source.objType = RTRAID_OBJTYPE_ADAPTER;
    source.NAME = name.data();
    source.hdr.VERSION = 1;
    source.hdr.FQDD = fqdd.data();
    return DupAdapter(&source);
}

RtBattery *copy_battery(uint32_t index)
{
    std::wstring name = L"Battery";
    std::wstring fqdd = L"Battery.Integrated.1:" + controller_fqdd(index);
    RtBattery source{};
    source.objType = 5;
    source.NAME = name.data();
    source.hdr.VERSION = 1;
    source.hdr.FQDD = fqdd.data();
    return rtraid_DupBattery(&source);
}

RtPhysicalDisk *copy_disk(uint32_t index, uint32_t key, const std::wstring &state)
{
    std::wstring name = L"Physical Disk 0:1:" + std::to_wstring(key) + state;
    std::wstring fqdd = L"Disk.Bay." + std::to_wstring(key) + L":Enclosure.Internal.0-1:" + controller_fqdd(index);
    char keyId[RTRAID_KEYID_SIZE] = {};
    std::snprintf(keyId, sizeof keyId, "KEY-%u-%u", index, key);
    uint32_t list[2] = {key, key + 100};
    RtPhysicalDisk source{};
    source.objType = RTRAID_OBJTYPE_PHYSICALDISK;
    source.NAME = name.data();
    source.hdr.VERSION = 1;
    source.hdr.FQDD = fqdd.data();
    source.id = key;
    source.keyId = keyId;
    source.listCount = 2;
    source.listEntries = list;
    auto *copy = static_cast<RtPhysicalDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    rtraid_dupPD(&source, copy);
    return copy;
}

RtVirtualDisk *copy_virtual_disk(uint32_t index, uint32_t key)
{
    std::wstring name = L"Virtual Disk " + std::to_wstring(key);
    std::wstring fqdd = L"Disk.Virtual." + std::to_wstring(key) + L":" + controller_fqdd(index);
    int32_t targets[2] = {static_cast<int32_t>(2 * key), static_cast<int32_t>(2 * key + 1)};
    RtVirtualDisk source{};
    source.objType = RTRAID_OBJTYPE_LOGICALDISK;
    source.NAME = name.data();
    source.hdr.VERSION = 1;
    source.hdr.FQDD = fqdd.data();
    source.targetCount = 2;
    source.targetIDs = targets;
    auto *copy = static_cast<RtVirtualDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    rtraid_DupVD(&source, copy);
    return copy;
}

// Drops the trace lines of a bulk step, saying how many there were.
void skip_traces(Demo &demo, const char *what)
{
    demo.say("(%s traced %u lines, not shown)", what, vornhost_trace_count());
    vornhost_trace_clear();
}

void show_registry(Demo &demo)
{
    StorageEIDInfo registry{};
    rtcache_GetStorageEIDs(&registry);
    demo.say("registry: %u slots in use", registry.u8EIDCount);
    for (uint32_t slot = 0; slot < registry.u8EIDCount; ++slot) {
        const uint8_t eid = registry.pEIDs[slot];
        StorageEIDInfoEntry entry{};
        rtcache_GetStorageEIDStatus(eid, &entry);
        uint8_t type = 0;
        rtcache_GetStorageEIDType(eid, &type);
        demo.say("  slot %u: EID 0x%02X, status [%u-%u], type %u, modular id %u, adapter index %d", slot, eid,
                 entry.u8StatusA, entry.u8StatusB, type, entry.u8TypeAndModularId >> 4,
                 static_cast<int>(GetIndexFromEID(eid)));
    }
}

void show_row(Demo &demo, uint8_t eid, const char *kind, uint32_t key, const RtRecord *record)
{
    demo.say("  0x%02X  %-8s %3u  %-55ls %ls", eid, kind, key, text(record->hdr.FQDD), text(record->NAME));
}

void show_contents(Demo &demo)
{
    demo.say("what the cache holds:");
    demo.say("  EID   object   key  %-55s %s", "FQDD", "name");
    rtcache_GetLock();
    for (const uint8_t eid : kEids) {
        void *object = nullptr;
        rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, &object);
        if (const auto *node = static_cast<const RtCacheCtrlNode *>(object); node != nullptr) {
            show_row(demo, eid, "adapter", eid, reinterpret_cast<const RtRecord *>(node->pAdapter));
            if (node->pBattery != nullptr) {
                show_row(demo, eid, "battery", eid, reinterpret_cast<const RtRecord *>(node->pBattery));
            }
        }
        for (uint32_t key = 0; key < max_physicaldevices; ++key) {
            if (rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &object) == 0 && object != nullptr) {
                const RtCachePdEntry *entry = static_cast<const RtCachePdNode *>(object)->enclObj;
                show_row(demo, eid, "disk", key, reinterpret_cast<const RtRecord *>(entry->enclType.physicalDisk.Obj));
            }
        }
        for (uint32_t key = 0; key < max_logicaldevices; ++key) {
            if (rtcache_GetCachedObject(RTCACHE_KEY_VD, eid, key, &object) == 0 && object != nullptr) {
                show_row(demo, eid, "virtual", key, static_cast<const RtRecord *>(object));
            }
        }
    }
    SMMutexUnLock(mutexRtCache);
    vornhost_trace_clear();  // the fetches' own lines add nothing here
}

}  // namespace

void demo_cache(Demo &demo)
{
    demo.section("Object cache: start");
    const uint32_t rc = rtcache_Init();
    demo.say("rtcache_Init answered %u: %u registry slots, %u disk and %u virtual-disk slots per controller", rc,
             max_adapters, max_physicaldevices, max_logicaldevices);
    demo.traces();
    if (rc != 0) {
        rtcache_Destroy();
        return;
    }

    demo.section("Object cache: two controllers are registered");
    for (uint32_t index = 0; index < 2; ++index) {
        uint8_t eid = kEids[index];
        rtcache_GetLock();
        rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, index, &eid);
        SMMutexUnLock(mutexRtCache);
        rtcache_SetStorageEIDType(eid, RTCACHE_EIDTYPE_TAVO);
        rtcache_SetModularId(eid, static_cast<uint8_t>(index));
        rtcache_SetStorageEIDStatus(eid, StorageEIDStatus{1, static_cast<uint8_t>(index + 2)});
    }
    demo.traces();
    show_registry(demo);
    vornhost_trace_clear();

    demo.section("Object cache: a poll pass copies and caches each controller's records");
    for (uint32_t index = 0; index < 2; ++index) {
        const uint8_t eid = kEids[index];
        rtcache_GetLock();  // one critical section per controller, as the poller holds it
        auto *node = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
        node->u32NodeType = RTCACHE_NODE_CONTROLLER;
        node->pAdapter = copy_adapter(index);
        node->pBattery = copy_battery(index);
        rtcache_SetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, node);
        for (uint32_t key = 0; key < kDisks; ++key) {
            rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key,
                                    new_pd_node(RTCACHE_PDNODE_PHYSICALDISK, copy_disk(index, key, L"")));
        }
        for (uint32_t key = 0; key < kVirtualDisks; ++key) {
            rtcache_SetCachedObject(RTCACHE_KEY_VD, eid, key, copy_virtual_disk(index, key));
        }
        SMMutexUnLock(mutexRtCache);
    }
    skip_traces(demo, "copying and storing 2 adapters, 2 batteries, 16 disks and 4 virtual disks");
    show_contents(demo);

    demo.section("Object cache: disk 3 of EID 0x10 is replaced (copy, swap into its node, free the old copy)");
    rtcache_GetLock();
    RtPhysicalDisk *fresh = copy_disk(0, 3, L" (rebuilt)");
    void *node = nullptr;
    rtcache_GetCachedObject(RTCACHE_KEY_PD, kEids[0], 3, &node);
    RtPhysicalDisk *&record = static_cast<RtCachePdNode *>(node)->enclObj->enclType.physicalDisk.Obj;
    RtPhysicalDisk *old = record;
    record = fresh;
    rtcache_FreeRMObjects(old, 1);
    SMMutexUnLock(mutexRtCache);
    demo.traces();
    show_contents(demo);

    demo.section("Object cache: destroy");
    rtcache_Destroy();
    demo.traces();
    demo.say("after rtcache_Destroy: %u registry slots, lock handle %u, disk table %s", cache_StorageEIDInfo.u8EIDCount,
             mutexRtCache, cache_PDs == nullptr ? "released" : "still there");
    vornhost_trace_clear();
}

}  // namespace rtvoxctl

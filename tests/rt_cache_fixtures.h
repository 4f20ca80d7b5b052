// Shared pieces of the cache tests: a cache set up on a private root, EID
// registration, and cached copies of records made by the copy functions
// (so that the release walks free exactly what a poll pass would store).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace rtvox::test::cache {

// Calls `fn` under the cache lock, as the service does.
template <typename Fn, typename... Args>
auto locked(Fn fn, Args... args)
{
    EXPECT_EQ(rtcache_GetLock(), 0u);
    const auto rc = fn(args...);
    SMMutexUnLock(mutexRtCache);
    return rc;
}

inline uint32_t store(RtCacheKeyType keyType, uint32_t eid, uint32_t key, void *object)
{
    return locked(rtcache_SetCachedObject, keyType, eid, key, object);
}

inline uint32_t fetch(RtCacheKeyType keyType, uint32_t eid, uint32_t key, void **object)
{
    return locked(rtcache_GetCachedObject, keyType, eid, key, object);
}

// Registers `eid` in registry slot `slot` with an EID type.
inline void add_eid(uint8_t slot, uint8_t eid, uint8_t type = RTCACHE_EIDTYPE_TAVO)
{
    ASSERT_EQ(store(RTCACHE_KEY_STORAGEEID, eid, slot, &eid), 0u);
    ASSERT_EQ(rtcache_SetStorageEIDType(eid, type), 0u);
}

// ---- cached copies, as a poll pass makes them ------------------------------------

// A source record of any kind with its object type, NAME and hdr.FQDD
// (version 1); the texts must outlive it.
template <typename Rec = RtRecord>
Rec head_source(const wchar_t *name, const wchar_t *fqdd, uint32_t objType = 9)
{
    Rec source{};
    source.objType = objType;
    source.NAME = const_cast<wchar_t *>(name);
    source.hdr.VERSION = 1;
    source.hdr.FQDD = const_cast<wchar_t *>(fqdd);
    return source;
}

// A physical disk with name, FQDD, key id and a two-entry list.
inline RtPhysicalDisk *cached_pd(uint32_t id, const std::wstring &name = L"Physical Disk 0:1:0")
{
    const std::wstring fqdd = L"Disk.Bay." + std::to_wstring(id) + L":Enclosure.Internal.0-1:RAID.Slot.1-1";
    uint32_t list[2] = {id, id + 1};
    char keyId[RTRAID_KEYID_SIZE] = {};
    std::snprintf(keyId, sizeof keyId, "KEY-%u", id);
    auto source = head_source<RtPhysicalDisk>(name.c_str(), fqdd.c_str(), RTRAID_OBJTYPE_PHYSICALDISK);
    source.id = id;
    source.listCount = 2;
    source.listEntries = list;
    source.keyId = keyId;
    auto *copy = static_cast<RtPhysicalDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    EXPECT_EQ(rtraid_dupPD(&source, copy), 0);
    return copy;
}

// A node of the physical-disk table with its cache entry (none when withEntry
// is false), as the service builds it: two blocks.
inline RtCachePdNode *pd_node(uint32_t objType, bool withEntry = true)
{
    auto *node = static_cast<RtCachePdNode *>(rtvox_alloc(sizeof(RtCachePdNode)));
    node->objType = objType;
    if (withEntry) {
        node->enclObj = static_cast<RtCachePdEntry *>(rtvox_alloc(sizeof(RtCachePdEntry)));
    }
    return node;
}

// A physical-disk node holding `record`.
inline RtCachePdNode *disk_node(RtPhysicalDisk *record)
{
    RtCachePdNode *node = pd_node(RTCACHE_PDNODE_PHYSICALDISK);
    node->enclObj->enclType.physicalDisk.Obj = record;
    return node;
}

inline RtCachePdNode *cached_pd_node(uint32_t id, const std::wstring &name = L"Physical Disk 0:1:0")
{
    return disk_node(cached_pd(id, name));
}

// The disk record behind a node of cache_PDs, or NULL.
inline RtPhysicalDisk *disk_of(const void *node)
{
    const auto *pd = static_cast<const RtCachePdNode *>(node);
    return pd != nullptr && pd->enclObj != nullptr ? pd->enclObj->enclType.physicalDisk.Obj : nullptr;
}

inline RtVirtualDisk *cached_vd(uint32_t id)
{
    const std::wstring name = L"Virtual Disk " + std::to_wstring(id);
    const std::wstring fqdd = L"Disk.Virtual." + std::to_wstring(id) + L":RAID.Slot.1-1";
    int32_t targets[2] = {0, 1};
    auto source = head_source<RtVirtualDisk>(name.c_str(), fqdd.c_str(), RTRAID_OBJTYPE_LOGICALDISK);
    source.targetCount = 2;
    source.targetIDs = targets;
    auto *copy = static_cast<RtVirtualDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    rtraid_DupVD(&source, copy);
    return copy;
}

// An adapter with all three texts, eight slot texts and three entries.
inline RtAdapter *cached_adapter(const std::wstring &fqdd = L"RAID.Slot.1-1")
{
    const std::wstring name = L"RAID Controller in Slot 1", extra = L"extra", slotText = L"slot";
    uint8_t entries[3 * 60] = {};
    auto source = head_source<RtAdapter>(name.c_str(), fqdd.c_str(), RTRAID_OBJTYPE_ADAPTER);
    source.EXTRA = const_cast<wchar_t *>(extra.c_str());
    source.entryMask = 0x7;
    source.entryArray = reinterpret_cast<RtAdapterEntry *>(entries);
    for (RtAdapterTextSlot &slot : source.textSlots) {
        slot.pText = const_cast<wchar_t *>(slotText.c_str());
    }
    return DupAdapter(&source);
}

inline RtBattery *cached_battery()
{
    const auto source = head_source<RtBattery>(L"Battery", L"Battery.Integrated.1:RAID.Slot.1-1");
    return rtraid_DupBattery(&source);
}

// A controller node with every member the release walks know about.
inline RtCacheCtrlNode *cached_node(uint32_t nodeType = RTCACHE_NODE_CONTROLLER)
{
    auto *node = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    node->u32NodeType = nodeType;
    node->pAdapter = cached_adapter();
    node->pBattery = cached_battery();
    const RtRecord driver = head_source(L"Driver", L"Driver.1");
    node->pDriver = rtraid_DupDriver(&driver);
    RtAdapterKey key{};
    node->pAdapterKey = rtraid_DupAdapterKey(&key);
    const RtRecord probe = head_source(L"Controller temperature", L"Temperature.1");
    node->pTempProbe = static_cast<RtTempProbe *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    rtraid_dupTEMPPROBE(&probe, node->pTempProbe);
    node->pPciInfo = static_cast<RtCachePciInfo *>(rtvox_alloc(sizeof(RtCachePciInfo)));
    node->pServiceData = rtvox_alloc(32);
    return node;
}

// ---- event records, as the service builds them ------------------------------------------

// A record of 32 bytes (the cache's three fields and the submission's own)
// with its message id and second buffer: three live blocks.
inline RtCacheEventRecord *event_record(const char *messageId)
{
    auto *record = static_cast<RtCacheEventRecord *>(rtvox_alloc(32));
    const size_t length = std::strlen(messageId) + 1;
    record->messageId = static_cast<char *>(rtvox_alloc(static_cast<uint32_t>(length)));
    std::memcpy(record->messageId, messageId, length);
    record->pData = rtvox_alloc(16);
    return record;
}

// Releases a record as its owner does: message id, second buffer, record.
inline void release_event_record(void *event_data)
{
    auto *record = static_cast<RtCacheEventRecord *>(event_data);
    rtvox_free(record->messageId);
    rtvox_free(record->pData);
    rtvox_free(record);
}

// Records one event under the lock, as an event thread does.
inline uint32_t record_event(uint32_t eid, uint32_t objType, uint32_t eventType, uint32_t key, void *record = nullptr)
{
    return locked(rtcache_SetCachedEvent_roll_up, eid, objType, eventType, key, record);
}

// A cache set up on a private root with trace capture on, destroyed after
// the test. Blocks are counted from before rtcache_Init.
class CacheTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        alloc_reset();
        ASSERT_EQ(rtcache_Init(), 0u);
        trace_start();
    }
    void TearDown() override
    {
        vornhost_fail_clear();
        rtcache_Destroy();
    }

    TempRoot root;
};

}  // namespace rtvox::test::cache

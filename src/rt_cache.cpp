// The object cache: its tables and limits, the storage-element registry, the
// cache's life (init and destroy) and the store and fetch of cached objects.
#define RT_MODULE_FILE "rt_cache.c"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "rt_cache_lock.h"
#include "rt_cache_rows.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_sync.h"
#include "trace.h"

using rtvox::cache::CacheLock;

extern "C" {

uint32_t max_adapters = 30;
uint32_t max_physicaldevices = 512;
uint32_t max_logicaldevices = 254;
uint32_t max_enclosures_attached_to_tavo = 20;
uint32_t max_pciessd_backplanes = 4;
uint32_t max_pciessd_extndrs = 16;
uint32_t max_pciessds = 26;

StorageEIDInfo cache_StorageEIDInfo;
RtCacheCtrlNode *cache_AllEIDs[RTCACHE_ALLEIDS_SLOTS];
void ***cache_PDs;
void ***cache_VDs;
RtCacheBackplane *cache_Bkplanes[RTCACHE_BKPLANE_SLOTS];
RtCacheExtender *cache_Extndrs[RTCACHE_EXTNDR_SLOTS];
uint32_t cache_CMDsCount[RTCACHE_CMDSCOUNT_SLOTS];
uint8_t sIDToValueMap[RTCACHE_ID_SLOTS];

RtCacheEventBlock *cache_Events;
RtCachePdChObjBlock *cache_Events_PD_ChObj;
RtCacheDelayedEventBlock *cache_Events_delayed;
RtCacheDelayedPdChObjBlock *cache_Events_PD_ChObj_delayed;

uint16_t gRTCache_EventCount;
uint32_t mutexRtCache;

}  // extern "C"

static_assert(sizeof cache_AllEIDs == 1020 && sizeof cache_Bkplanes == 20 && sizeof cache_Extndrs == 68);
static_assert(sizeof cache_CMDsCount == 1020 && sizeof sIDToValueMap == 16);

namespace {

constexpr uint8_t kTypeMask = 0x0F;
constexpr unsigned kModularIdShift = 4;
constexpr uint32_t kCounterSlots = 256;  // what an 8-bit slot counter can reach
constexpr const char *kPcieSsdTag = "PCIeSSD Cache";

// The filled registry slots: those a search looks at.
uint8_t filled_slots()
{
    const StorageEIDInfo &registry = cache_StorageEIDInfo;
    return (registry.pEIDs != nullptr && registry.pEIDInfo != nullptr) ? registry.u8EIDCount : 0;
}

// The first of the `count` registry slots that holds the EID, or -1. Every
// event looks its EID up, so this is one memchr rather than a loop; slots
// hold bytes, so an EID above 255 is in none.
int first_slot(uint32_t count, uint32_t EID)
{
    const uint8_t *eids = cache_StorageEIDInfo.pEIDs;
    if (eids == nullptr || count == 0 || EID > UINT8_MAX) {
        return -1;
    }
    const auto *found = static_cast<const uint8_t *>(std::memchr(eids, static_cast<int>(EID), count));
    return found == nullptr ? -1 : static_cast<int>(found - eids);
}

// The first filled slot holding the EID, or -1.
int first_filled_slot(uint32_t EID)
{
    return first_slot(filled_slots(), EID);
}

uint8_t type_of(const StorageEIDInfoEntry &entry)
{
    return entry.u8TypeAndModularId & kTypeMask;
}

uint8_t modular_id_of(const StorageEIDInfoEntry &entry)
{
    return static_cast<uint8_t>(entry.u8TypeAndModularId >> kModularIdShift);
}

// A table made by rtvox_alloc_2darray whose data block exists as well.
bool table_usable(void ***table)
{
    return table != nullptr && (max_adapters == 0 || table[0] != nullptr);
}

// The slot of disk or virtual disk `key` in the row of EID's adapter, for the
// store and the fetch: 1 for an unregistered EID or a missing table, 2 for a
// key not below `limit`. `function` is the caller the trace lines name; the
// store also traces the limit under its global's name (`limit_name`).
uint32_t adapter_row_slot(void ***table, uint32_t limit, const char *limit_name, uint32_t EID, uint32_t key,
                          const char *function, void ***slot)
{
    const int32_t index = GetIndexFromEID(EID);
    if (index < 0 || static_cast<uint32_t>(index) >= max_adapters) {
        RT_TRACE_AS(function, 5, "<-- %s error s32Temp %d", function, index);
        return 1;
    }
    if (limit_name != nullptr) {
        RT_TRACE_AS(function, 5, "--> %s:%d", limit_name, static_cast<int>(limit));
    }
    if (key >= limit) {
        return 2;
    }
    if (!table_usable(table)) {
        return 1;
    }
    *slot = &table[index][key];
    return 0;
}

// A value slot handed out through the fetch's pointer argument.
void *value_as_pointer(uint32_t value)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(value));  // NOLINT(performance-no-int-to-ptr)
}

template <typename T>
T *alloc_blocks(uint32_t count)
{
    return static_cast<T *>(rtvox_alloc(static_cast<uint32_t>(sizeof(T)) * count));
}

void ***alloc_table(uint32_t cols)
{
    return reinterpret_cast<void ***>(
        rtvox_alloc_2darray(static_cast<int32_t>(max_adapters), static_cast<int32_t>(cols), 4));
}

// Sets one nibble of the type/modular-id byte of the first slot holding EID
// (the type at shift 0, the modular id at kModularIdShift), keeping the other.
// An unregistered EID changes nothing.
void set_nibble(uint32_t EID, uint8_t value, unsigned shift)
{
    const int slot = first_filled_slot(EID);
    if (slot >= 0) {
        uint8_t &byte = cache_StorageEIDInfo.pEIDInfo[slot].u8TypeAndModularId;
        const unsigned mask = static_cast<unsigned>(kTypeMask) << shift;
        byte = static_cast<uint8_t>((byte & ~mask) | ((value & kTypeMask) << shift));
    }
}

}  // namespace

namespace rtvox::cache {

DiskRow pd_row(uint32_t EID)
{
    const int32_t index = GetIndexFromEID(EID);
    if (EID > RTCACHE_MAX_EID || index < 0 || static_cast<uint32_t>(index) >= max_adapters ||
        !table_usable(cache_PDs)) {
        return {};
    }
    return {cache_PDs[index], max_physicaldevices};
}

}  // namespace rtvox::cache

extern "C" {

// ---- life of the cache ---------------------------------------------------------

uint32_t rtcache_Init(void)
{
    RT_TRACE_ENTRY(4);
    std::memset(cache_AllEIDs, 0, sizeof cache_AllEIDs);

    StorageEIDInfo &registry = cache_StorageEIDInfo;
    registry.pEIDs = alloc_blocks<uint8_t>(max_adapters);
    registry.pEIDInfo = alloc_blocks<StorageEIDInfoEntry>(max_adapters);
    cache_Events = alloc_blocks<RtCacheEventBlock>(max_adapters);
    cache_Events_PD_ChObj = alloc_blocks<RtCachePdChObjBlock>(max_adapters);
    cache_Events_delayed = alloc_blocks<RtCacheDelayedEventBlock>(max_adapters);
    cache_Events_PD_ChObj_delayed = alloc_blocks<RtCacheDelayedPdChObjBlock>(max_adapters);
    cache_PDs = alloc_table(max_physicaldevices);
    cache_VDs = alloc_table(max_logicaldevices);
    RT_TRACE_LOG(4, "tables for max_adapters=%u max_physicaldevices=%u max_logicaldevices=%u", max_adapters,
                 max_physicaldevices, max_logicaldevices);

    std::memset(cache_Extndrs, 0, sizeof cache_Extndrs);
    std::memset(cache_Bkplanes, 0, sizeof cache_Bkplanes);
    std::memset(cache_CMDsCount, 0, sizeof cache_CMDsCount);
    std::memset(sIDToValueMap, 0, sizeof sIDToValueMap);

    const bool allocated = registry.pEIDs != nullptr && registry.pEIDInfo != nullptr && cache_Events != nullptr &&
                           cache_Events_PD_ChObj != nullptr && cache_Events_delayed != nullptr &&
                           cache_Events_PD_ChObj_delayed != nullptr && table_usable(cache_PDs) &&
                           table_usable(cache_VDs);
    if (!allocated) {
        // The blocks obtained stay where they are: callers (and the release
        // walk at destroy) rely on finding them, nothing is rolled back.
        RT_TRACE_LOG(1, "<-- %s allocation failed", __func__);
        return 3;
    }

    std::memset(registry.pEIDs, RTCACHE_EID_NONE, max_adapters);

    mutexRtCache = SMMutexCreate(nullptr);
    if (mutexRtCache == 0) {
        RT_TRACE_LOG(1, "<-- %s failed to create mutex", __func__);
        return 1;
    }

    // Both are set up whatever the first answers; the lock stays created.
    const uint32_t status = RTSync_Init();
    const uint32_t tavo = RTSync_TavoStateInit();
    if (status != 0 || tavo != 0) {
        RT_TRACE_LOG(1, "<-- %s synchronisation init failed %u %u", __func__, status, tavo);
        return 1;
    }
    RT_TRACE_EXIT(4);
    return 0;
}

void rtcache_Destroy(void)
{
    RT_TRACE_ENTRY(4);
    rtcache_FreeMem();
    cache_StorageEIDInfo.u8EIDCount = 0;
    std::memset(cache_StorageEIDInfo.au8Reserved, 0, sizeof cache_StorageEIDInfo.au8Reserved);
    if (mutexRtCache != 0) {
        SMMutexDestroy(mutexRtCache);
        mutexRtCache = 0;
    }
    RTSync_Destroy();
    RTSync_TavoStateDestroy();
    RT_TRACE_EXIT(4);
}

uint32_t rtcache_GetLock(void)
{
    if (SMMutexLock(mutexRtCache, -1) != 0) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    return 0;
}

// ---- registry --------------------------------------------------------------------

uint32_t rtcache_GetStorageEIDCount(void)
{
    RT_TRACE(4, "--> %s", __func__);
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    const uint32_t count = cache_StorageEIDInfo.u8EIDCount;
    RT_TRACE(4, "<-- %s count=%u", __func__, count);
    return count;
}

uint32_t rtcache_GetStorageEIDs(StorageEIDInfo *out)
{
    RT_TRACE(4, "--> %s", __func__);
    if (out == nullptr) {
        return 2;
    }
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    *out = cache_StorageEIDInfo;
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

uint32_t rtcache_GetStorageEIDStatus(uint32_t EID, StorageEIDInfoEntry *out)
{
    RT_TRACE(4, "--> %s", __func__);
    if (out == nullptr) {
        RT_TRACE(2, "<-- err null inputs");
        return 2;
    }
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    const uint8_t count = filled_slots();
    for (uint8_t slot = 0; slot < count; ++slot) {
        if (cache_StorageEIDInfo.pEIDs[slot] == EID) {
            *out = cache_StorageEIDInfo.pEIDInfo[slot];  // every match: the last one wins
        }
    }
    RT_TRACE(4, "EID=%d [%d-%d]", static_cast<int>(EID), out->u8StatusA, out->u8StatusB);
    return 0;
}

uint32_t rtcache_SetStorageEIDStatus(uint32_t EID, StorageEIDStatus status)
{
    RT_TRACE(4, "--> %s EID=%d [%d-%d]", __func__, static_cast<int>(EID), status.u8StatusA, status.u8StatusB);
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    const uint8_t count = filled_slots();
    for (uint8_t slot = 0; slot < count; ++slot) {
        if (cache_StorageEIDInfo.pEIDs[slot] == EID) {
            cache_StorageEIDInfo.pEIDInfo[slot].u8StatusA = status.u8StatusA;
            cache_StorageEIDInfo.pEIDInfo[slot].u8StatusB = status.u8StatusB;
        }
    }
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

uint32_t rtcache_GetStorageEIDType(uint32_t EID, uint8_t *out)
{
    RT_TRACE(4, "--> %s", __func__);
    if (out == nullptr) {
        return 2;
    }
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    const int slot = first_filled_slot(EID);
    if (slot >= 0) {
        *out = type_of(cache_StorageEIDInfo.pEIDInfo[slot]);
    }
    RT_TRACE(5, "<-- %s EID=%d u8Type=%d", __func__, static_cast<int>(EID), *out);
    return 0;
}

uint32_t rtcache_GetStorageEIDTypeNoLock(uint32_t EID, uint8_t *out)
{
    if (out == nullptr) {
        return 2;
    }
    const int slot = first_filled_slot(EID);
    if (slot < 0) {
        RT_TRACE(6, "<-- %s EID=%d not registered", __func__, static_cast<int>(EID));
        return 1;
    }
    *out = type_of(cache_StorageEIDInfo.pEIDInfo[slot]);
    RT_TRACE(6, "<-- %s EID=%d u8Type=%d", __func__, static_cast<int>(EID), *out);
    return 0;
}

uint32_t rtcache_SetStorageEIDType(uint32_t EID, uint8_t type)
{
    RT_TRACE(4, "--> %s EID=%d type=%d", __func__, static_cast<int>(EID), type);
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    set_nibble(EID, type, 0);
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

uint32_t rtcache_GetModularIdNoLock(uint32_t EID, uint8_t *out)
{
    RT_TRACE(6, "%s%d", "---> Entry Max EIDs= ", cache_StorageEIDInfo.u8EIDCount);
    if (out == nullptr) {
        return 2;
    }
    *out = 0;
    const int slot = first_filled_slot(EID);
    if (slot < 0) {
        return 1;
    }
    *out = modular_id_of(cache_StorageEIDInfo.pEIDInfo[slot]);
    RT_TRACE(6, "<-- %s EID=%d id=%d", __func__, static_cast<int>(EID), *out);
    return 0;
}

uint32_t rtcache_SetModularId(uint32_t EID, uint8_t id)
{
    RT_TRACE(4, "--> %s EID=%d id=%d", __func__, static_cast<int>(EID), id);
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    set_nibble(EID, id, kModularIdShift);
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

int32_t GetIndexFromEID(uint32_t EID)
{
    // Every slot, filled or not, up to the reach of an 8-bit counter.
    const int slot = first_slot(std::min(max_adapters, kCounterSlots), EID);
    return slot < 0 ? RTCACHE_INVALID_INDEX : slot;
}

uint32_t rtcache_SetID(uint32_t id, uint32_t value)
{
    if (id >= RTCACHE_ID_SLOTS) {
        return 1;
    }
    sIDToValueMap[id] = static_cast<uint8_t>(value);
    return 0;
}

uint32_t rtcache_GetID(uint32_t id, uint8_t *out)
{
    if (out == nullptr || id >= RTCACHE_ID_SLOTS) {
        return 1;
    }
    *out = sIDToValueMap[id];
    return 0;
}

// ---- cached objects ------------------------------------------------------------------

uint32_t rtcache_SetCachedObject(RtCacheKeyType keyType, uint32_t EID, uint32_t u16ObjKey, void *pObjectToBeCached)
{
    const uint16_t key = static_cast<uint16_t>(u16ObjKey);
    RT_TRACE(5, "--> enter with EID:%d, u16ObjKey:%d, pObjectToBeCached:%p", static_cast<int>(EID), key,
             pObjectToBeCached);
    if (keyType == 0 || EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err null inputs");
        return 2;
    }
    switch (keyType) {
        case RTCACHE_KEY_STORAGEEID: {
            if (pObjectToBeCached == nullptr) {
                RT_TRACE(2, "<-- err null pObjectToBeCached");
                return 2;
            }
            if (key >= max_adapters) {
                return 2;
            }
            StorageEIDInfo &registry = cache_StorageEIDInfo;
            if (registry.pEIDs == nullptr) {
                return 1;
            }
            // The object is the EID byte itself: read here, not kept.
            registry.pEIDs[key] = *static_cast<const uint8_t *>(pObjectToBeCached);
            if (key >= registry.u8EIDCount) {
                registry.u8EIDCount = static_cast<uint8_t>(key + 1);
            }
            return 0;
        }
        case RTCACHE_KEY_ADAPTER:
            if (key > RTCACHE_MAX_EID) {
                return 2;
            }
            cache_AllEIDs[key] = static_cast<RtCacheCtrlNode *>(pObjectToBeCached);
            return 0;
        case RTCACHE_KEY_PD: {
            void **slot = nullptr;
            const uint32_t status =
                adapter_row_slot(cache_PDs, max_physicaldevices, "max_physicaldevices", EID, key, __func__, &slot);
            if (status == 0) {
                *slot = pObjectToBeCached;
            }
            return status;
        }
        case RTCACHE_KEY_VD: {
            void **slot = nullptr;
            const uint32_t status =
                adapter_row_slot(cache_VDs, max_logicaldevices, "max_logicaldevices", EID, key, __func__, &slot);
            if (status == 0) {
                *slot = pObjectToBeCached;
            }
            return status;
        }
        case RTCACHE_KEY_PCIESSD_BACKPLANE:
            RT_TRACE(4, "%s max_pciessd_backplanes=%d u16ObjKey=%d %d", kPcieSsdTag,
                     static_cast<int>(max_pciessd_backplanes), key, __LINE__);
            if (key >= RTCACHE_BKPLANE_SLOTS) {
                return 2;  // would land outside the table
            }
            cache_Bkplanes[key] = static_cast<RtCacheBackplane *>(pObjectToBeCached);
            return 0;
        case RTCACHE_KEY_PCIESSD_EXTENDER:
            // The line names the backplane limit but carries the extender limit.
            RT_TRACE(4, "%s max_pciessd_backplanes=%d u16ObjKey=%d %d", kPcieSsdTag,
                     static_cast<int>(max_pciessd_extndrs), key, __LINE__);
            if (key >= RTCACHE_EXTNDR_SLOTS) {
                return 2;  // would land outside the table
            }
            cache_Extndrs[key] = static_cast<RtCacheExtender *>(pObjectToBeCached);
            return 0;
        case RTCACHE_KEY_CMDSCOUNT:
            if (key >= RTCACHE_CMDSCOUNT_SLOTS) {
                return 2;  // would land outside the table
            }
            cache_CMDsCount[key] = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pObjectToBeCached));
            return 0;
        default:
            RT_TRACE(2, "%s%s %d", "<-- err wrong keytype", "", static_cast<int>(keyType));
            return 2;
    }
}

uint32_t rtcache_GetCachedObject(RtCacheKeyType keyType, uint32_t EID, uint32_t u16ObjKey, void **ppObject)
{
    const uint16_t key = static_cast<uint16_t>(u16ObjKey);
    if (ppObject == nullptr || keyType == 0 || EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err null inputs");
        return 2;
    }
    switch (keyType) {
        case RTCACHE_KEY_STORAGEEID:
            if (key >= max_adapters) {
                return 2;
            }
            if (cache_StorageEIDInfo.pEIDs == nullptr) {
                return 1;
            }
            // The registry byte itself, so the caller can read or change it in place.
            *ppObject = &cache_StorageEIDInfo.pEIDs[key];
            return 0;
        case RTCACHE_KEY_ADAPTER:
            if (key > RTCACHE_MAX_EID) {
                return 2;
            }
            *ppObject = cache_AllEIDs[key];
            return 0;
        case RTCACHE_KEY_PD: {
            void **slot = nullptr;
            const uint32_t status =
                adapter_row_slot(cache_PDs, max_physicaldevices, nullptr, EID, key, __func__, &slot);
            if (status == 0) {
                *ppObject = *slot;
            }
            return status;
        }
        case RTCACHE_KEY_VD: {
            void **slot = nullptr;
            const uint32_t status = adapter_row_slot(cache_VDs, max_logicaldevices, nullptr, EID, key, __func__, &slot);
            if (status == 0) {
                *ppObject = *slot;
            }
            return status;
        }
        case RTCACHE_KEY_PCIESSD_BACKPLANE: {
            RT_TRACE(4, "%s max_pciessd_backplanes=%d u16ObjKey=%d %d", kPcieSsdTag,
                     static_cast<int>(max_pciessd_backplanes), key, __LINE__);
            uint32_t status = 2;
            // The limit itself is a valid key: the table has one slot more.
            if (key <= max_pciessd_backplanes && key < RTCACHE_BKPLANE_SLOTS) {
                *ppObject = cache_Bkplanes[key];
                status = 0;
            }
            RT_TRACE(4, "%s u16ObjKey=%d %d", kPcieSsdTag, key, __LINE__);
            return status;
        }
        case RTCACHE_KEY_PCIESSD_EXTENDER:
            RT_TRACE(4, "%s max_pciessd_extndrs=%d u16ObjKey=%d %d", kPcieSsdTag, static_cast<int>(max_pciessd_extndrs),
                     key, __LINE__);
            // A fixed bound, whatever max_pciessd_extndrs says.
            if (key > RTCACHE_EXTNDR_FETCH_MAX) {
                return 2;
            }
            *ppObject = cache_Extndrs[key];
            return 0;
        case RTCACHE_KEY_CMDSCOUNT:
            if (key <= RTCACHE_MAX_EID) {
                *ppObject = value_as_pointer(cache_CMDsCount[key]);
            }
            RT_TRACE(4, "%s u16ObjKey=%d %d", kPcieSsdTag, key, __LINE__);
            return 0;
        default:
            RT_TRACE(2, "%s%s %d", "<-- err wrong keytype", "", static_cast<int>(keyType));
            return 2;
    }
}

}  // extern "C"

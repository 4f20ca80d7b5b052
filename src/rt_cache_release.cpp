// Release of cached records: one run of records, one level of one
// controller's objects, or the whole cache at shutdown.
#define RT_MODULE_FILE "rt_cache.c"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rt_cache_lock.h"
#include "rt_cache_release.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "trace.h"

using rtvox::cache::CacheLock;

namespace {

// objType of a block that is not a run of records.
constexpr uint32_t kNotARecordRun = static_cast<uint32_t>(-2);

// Frees one owned block; the caller clears the field that held it (fields of
// the packed records cannot be bound to references).
void release(void *block)
{
    if (block != nullptr) {
        rtvox_free(block);
    }
}

// The members an adapter record owns besides its head texts. The record is
// freed right after, so the fields are left as they are.
void release_adapter_members(const RtAdapter &adapter)
{
    release(adapter.EXTRA);
    release(adapter.entryArray);
    for (const RtAdapterTextSlot &slot : adapter.textSlots) {
        release(slot.pText);
    }
}

// A run held by a node word: freed as a run of one record, the word cleared.
template <typename Record>
void release_run(Record *&word)
{
    if (word != nullptr) {
        rtcache_FreeRMObjects(word, 1);
        word = nullptr;
    }
}

template <typename Block>
void release_block(Block *&word)
{
    release(word);
    word = nullptr;
}

void release_node_runs(RtCacheCtrlNode &node)
{
    release_run(node.pAdapter);
    release_run(node.pBattery);
    release_run(node.pDriver);
    release_run(node.pTempProbe);
}

void release_node_blocks(RtCacheCtrlNode &node)
{
    release_block(node.pAdapterKey);
    release_block(node.pPciInfo);
    release_block(node.pServiceData);
}

// Frees the node of the EID with everything it owns and clears its slot.
void release_node(uint32_t EID)
{
    RtCacheCtrlNode *&node = cache_AllEIDs[EID];
    if (node != nullptr) {
        release_node_runs(*node);
        release_node_blocks(*node);
        rtvox_free(node);
        node = nullptr;
    }
}

template <typename Record, size_t N>
void release_runs(Record *(&words)[N])
{
    for (Record *&word : words) {
        release_run(word);
    }
}

bool is_enclosure_node(uint32_t objType)
{
    return objType == RTCACHE_PDNODE_EXTERNAL || objType == RTCACHE_PDNODE_BACKPLANE;
}

// Frees a node of the physical-disk table with everything the cache owns
// through it (the entry's record, an enclosure's element records, the entry)
// and clears its slot. Only the node's and the entry's own bytes are read.
void release_pd_node(void *&slot)
{
    auto *node = static_cast<RtCachePdNode *>(slot);
    if (RtCachePdEntry *entry = node->enclObj; entry != nullptr) {
        release_run(entry->enclType.physicalDisk.Obj);  // one word for every kind: the entry's record
        if (is_enclosure_node(node->objType)) {
            release_runs(entry->apEMM);
            release_runs(entry->apFan);
            release_runs(entry->apPSU);
            release_runs(entry->apTempProbe);
        }
        rtvox_free(entry);
    }
    rtvox_free(node);
    slot = nullptr;
}

// A slot of cache_VDs holds the record itself.
void release_vd_slot(void *&slot)
{
    rtcache_FreeRMObjects(slot, 1);
    slot = nullptr;
}

// Frees every set slot of one row of a disk table.
void release_row(void ***table, uint32_t index, uint32_t columns, void (*release_slot)(void *&))
{
    for (uint32_t key = 0; key < columns; ++key) {
        if (void *&slot = table[index][key]; slot != nullptr) {
            release_slot(slot);
        }
    }
}

bool disk_table_usable(void ***table)
{
    return table != nullptr && (max_adapters == 0 || table[0] != nullptr);
}

bool is_pciessd_type(uint8_t type)
{
    return type == RTCACHE_EIDTYPE_PCIESSD || type == RTCACHE_EIDTYPE_NVME;
}

}  // namespace

namespace rtvox::cache {

void release_extender(RtCacheExtender *&extender)
{
    if (extender != nullptr) {
        release_block(extender->pName);
        release_block(extender->pFQDD);
        release_block(extender);
    }
}

void release_enclosure(RtEnclosure *&enclosure)
{
    if (enclosure != nullptr) {
        release(enclosure->hdr.FQDD);
        enclosure->hdr.FQDD = nullptr;
        release(enclosure->NAME);
        enclosure->NAME = nullptr;
        release_block(enclosure);
    }
}

void release_backplane(RtCacheBackplane *&backplane)
{
    if (backplane != nullptr) {
        release_enclosure(backplane->pEnclosure);
        release_block(backplane);
    }
}

}  // namespace rtvox::cache

extern "C" {

int32_t rtcache_FreeRMObjects(void *pObjects, uint32_t count)
{
    RT_TRACE_LOG(4, "%s %p", "--> enter with obj addr:", pObjects);
    if (pObjects == nullptr) {
        return 0;
    }
    auto *records = static_cast<RtRecord *>(pObjects);
    if (records[0].objType == kNotARecordRun) {
        RT_TRACE(2, "<-- %s objType=%d: not a record run", __func__, static_cast<int32_t>(kNotARecordRun));
        return 2;
    }
    // Only the owned blocks are freed: the run goes as a whole just after, so
    // its records' fields are not cleared first (that would only dirty
    // memory being given back).
    for (uint32_t i = 0; i < count; ++i) {
        const RtRecord &record = records[i];
        release(record.NAME);
        release(record.hdr.FQDD);
        switch (record.objType) {
            case RTRAID_OBJTYPE_ADAPTER:
                release_adapter_members(reinterpret_cast<const RtAdapter &>(record));
                break;
            case RTRAID_OBJTYPE_ENCLOSURE:
                RT_TRACE(5, "OBJTYPE is ENCLOSURE");
                break;
            case RTRAID_OBJTYPE_PHYSICALDISK: {
                RT_TRACE(5, "OBJTYPE is PHYSICALDISK");
                const auto &disk = reinterpret_cast<const RtPhysicalDisk &>(record);
                release(disk.listEntries);
                release(disk.keyId);
                break;
            }
            case RTRAID_OBJTYPE_LOGICALDISK:
                RT_TRACE(5, "OBJTYPE is LOGICALDISK");
                release(reinterpret_cast<const RtVirtualDisk &>(record).targetIDs);
                break;
            default:
                break;  // battery, driver, enclosure elements: the head texts only
        }
    }
    rtvox_free(pObjects);  // the run is one block
    RT_TRACE(4, "<-- exit");
    return 0;
}

uint32_t rtcache_FreeObjectLevel(uint32_t EID, uint32_t level)
{
    RT_TRACE_LOG(4, "--> %s EID=%d level=%d", __func__, static_cast<int>(EID), static_cast<int>(level));
    if (EID > RTCACHE_MAX_EID || level < RTCACHE_LEVEL_CONTROLLER || level > RTCACHE_LEVEL_PDS_RUNS) {
        RT_TRACE(2, "<-- err null inputs");
        return 2;
    }
    const CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    uint8_t type = 0;
    const uint32_t typeStatus = rtcache_GetStorageEIDTypeNoLock(EID, &type);
    if (typeStatus != 0) {
        RT_TRACE(2, "<-- %s error s32Temp %d", __func__, static_cast<int>(typeStatus));
        return 1;
    }
    if (type != RTCACHE_EIDTYPE_TAVO) {
        RT_TRACE(4, "Ignoring non-TAVOs");
        return 1;
    }

    RtCacheCtrlNode *node = cache_AllEIDs[EID];
    uint32_t status = 0;
    switch (level) {
        case RTCACHE_LEVEL_CONTROLLER:
            release_node(EID);
            break;
        case RTCACHE_LEVEL_BATTERY:
            if (node != nullptr) {
                release_run(node->pBattery);
            }
            break;
        case RTCACHE_LEVEL_PDS:
        case RTCACHE_LEVEL_VDS:
        case RTCACHE_LEVEL_PDS_RUNS: {
            const int32_t index = GetIndexFromEID(EID);
            const bool known = index >= 0 && static_cast<uint32_t>(index) < max_adapters;
            const bool pds = level != RTCACHE_LEVEL_VDS;
            void ***table = pds ? cache_PDs : cache_VDs;
            if (!known || !disk_table_usable(table)) {
                status = 1;
                if (level != RTCACHE_LEVEL_PDS_RUNS) {
                    RT_TRACE(2, "<-- %s error s32Temp %d", __func__, index);
                    return status;
                }
                RT_TRACE(2, "%s error s32Temp %d", __func__, index);  // the runs are freed all the same
            } else {
                if (pds) {
                    release_row(table, static_cast<uint32_t>(index), max_physicaldevices, release_pd_node);
                } else {
                    release_row(table, static_cast<uint32_t>(index), max_logicaldevices, release_vd_slot);
                }
            }
            if (level == RTCACHE_LEVEL_PDS_RUNS && node != nullptr) {
                release_node_runs(*node);
            }
            break;
        }
        default:
            break;
    }
    RT_TRACE_LOG(4, "<-- %s %u", __func__, status);
    return status;
}

int32_t rtcache_FreeMem(void)
{
    RT_TRACE_ENTRY(4);
    {
        const CacheLock lock;
        if (!lock.held()) {
            RTCACHE_TRACE_MUTEX_FAIL();
            return 3;
        }

        // 1. Controller nodes.
        for (uint32_t eid = 0; eid < RTCACHE_ALLEIDS_SLOTS; ++eid) {
            RtCacheCtrlNode *node = cache_AllEIDs[eid];
            if (node == nullptr) {
                continue;
            }
            RT_TRACE(5, "%s EID=%d line:%d", "FreeingMemory", static_cast<int>(eid), __LINE__);
            RT_TRACE(4, "Adapter/battery EID=%d ", static_cast<int>(eid));
            if (node->u32NodeType != RTCACHE_NODE_HBA) {
                uint8_t type = 0;
                if (rtcache_GetStorageEIDTypeNoLock(eid, &type) != 0) {
                    // Its members cannot be trusted without a type: only the node goes.
                    RT_TRACE(1, "<-- error get Storage EID Fail");
                    rtvox_free(node);
                    cache_AllEIDs[eid] = nullptr;
                    continue;
                }
                if (is_pciessd_type(type)) {
                    // Left in place: the PCIe SSD inventory keeps its own nodes.
                    RT_TRACE(2, "It is a PCIeSSD EID, continue");
                    continue;
                }
            }
            release_node(eid);
        }

        // 2. Disks and virtual disks of every adapter.
        const uint8_t *eids = cache_StorageEIDInfo.pEIDs;
        for (uint32_t index = 0; index < max_adapters; ++index) {
            const int eid = eids != nullptr ? eids[index] : static_cast<int>(RTCACHE_EID_NONE);
            if (disk_table_usable(cache_PDs)) {
                for (uint32_t key = 0; key < max_physicaldevices; ++key) {
                    if (void *&slot = cache_PDs[index][key]; slot != nullptr) {
                        RT_TRACE(5, "EID=%d physical device=%d ", eid, static_cast<int>(key));
                        release_pd_node(slot);
                    }
                }
            }
            if (disk_table_usable(cache_VDs)) {
                for (uint32_t key = 0; key < max_logicaldevices; ++key) {
                    if (void *&slot = cache_VDs[index][key]; slot != nullptr) {
                        RT_TRACE(5, "EID=%d logical device=%d", eid, static_cast<int>(key));
                        release_vd_slot(slot);
                    }
                }
            }
        }

        // 3. PCIe SSD extenders.
        RT_TRACE(4, "Freeing PCIeSSD extenders");
        for (RtCacheExtender *&extender : cache_Extndrs) {
            rtvox::cache::release_extender(extender);
        }

        // 4. PCIe SSD backplanes, the limit included, each with its enclosure record.
        RT_TRACE(4, "Freeing PCIeSSD BPs");
        const uint32_t lastBackplane = std::min<uint32_t>(max_pciessd_backplanes, RTCACHE_BKPLANE_SLOTS - 1);
        for (uint32_t key = 0; key <= lastBackplane; ++key) {
            RtCacheBackplane *&backplane = cache_Bkplanes[key];
            if (backplane == nullptr) {
                continue;
            }
            if (backplane->pEnclosure != nullptr) {
                RT_TRACE(5, "Freeing Enclosure FQDD");
                RT_TRACE(5, "Freeing Enclosure NAME");
            }
            rtvox::cache::release_backplane(backplane);
        }

        // 5. Value slots: every non-zero value is a block.
        for (uint32_t value : cache_CMDsCount) {
            release(reinterpret_cast<void *>(static_cast<uintptr_t>(value)));  // NOLINT(performance-no-int-to-ptr)
        }
        std::memset(cache_CMDsCount, 0, sizeof cache_CMDsCount);

        // 6. The disk tables.
        if (cache_PDs != nullptr) {
            rtvox_free_2darray(reinterpret_cast<void **>(cache_PDs), max_adapters);
            cache_PDs = nullptr;
        }
        if (cache_VDs != nullptr) {
            rtvox_free_2darray(reinterpret_cast<void **>(cache_VDs), max_adapters);
            cache_VDs = nullptr;
        }

        // 7. The registry arrays (the count is reset by rtcache_Destroy).
        release_block(cache_StorageEIDInfo.pEIDs);
        release_block(cache_StorageEIDInfo.pEIDInfo);

        // 8. The event blocks; event records they still hold are not released.
        release_block(cache_Events);
        release_block(cache_Events_PD_ChObj);
        release_block(cache_Events_delayed);
        release_block(cache_Events_PD_ChObj_delayed);
    }
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

}  // extern "C"

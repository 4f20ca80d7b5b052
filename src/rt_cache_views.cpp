// Views over the cache: the FQDDs of a controller, its battery and its
// enclosures; the keys of one object type in an event block; a synthetic
// event block listing everything cached for a controller; and the dump of
// the cache to a file.
#define RT_MODULE_FILE "rt_cache.c"

#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>

#include "paths.h"
#include "rt_cache_lock.h"
#include "rtvox/rt_cache.h"
#include "trace.h"

using rtvox::cache::CacheLock;
using rtvox::detail::resolve_path;

namespace {

constexpr const char *kCacheDumpPath = "/tmp/rtvox_cache.log";
constexpr uint32_t kMaxObjType = 9;

// Marks on the records of a synthetic change-object event (byte offsets).
constexpr size_t kAdapterFlagsOffset = 96;
constexpr uint32_t kAdapterChangedBit = 0x20000;  // bit 17
constexpr size_t kBatteryClearOffset = 64;
constexpr size_t kDiskStateOffset = 100;
constexpr size_t kVirtualDiskClearOffset = 84;
constexpr size_t kElementClearOffset = 72;
constexpr size_t kClearBytes = 8;

// ---- record fields by byte offset ------------------------------------------------------

uint32_t load_u32(const void *record, size_t offset)
{
    uint32_t value = 0;
    std::memcpy(&value, static_cast<const uint8_t *>(record) + offset, sizeof value);
    return value;
}

void store_u32(void *record, size_t offset, uint32_t value)
{
    std::memcpy(static_cast<uint8_t *>(record) + offset, &value, sizeof value);
}

void clear_bytes(void *record, size_t offset)
{
    std::memset(static_cast<uint8_t *>(record) + offset, 0, kClearBytes);
}

const wchar_t *printable(const wchar_t *text)
{
    return text != nullptr ? text : L"(null)";
}

// ---- nodes of the physical-disk table ---------------------------------------------------

bool is_enclosure_node(uint32_t objType)
{
    return objType == RTCACHE_PDNODE_EXTERNAL || objType == RTCACHE_PDNODE_BACKPLANE;
}

// The enclosure record behind an enclosure node, or NULL.
RtEnclosure *enclosure_record(const RtCachePdNode &node)
{
    const RtCachePdEntry *entry = node.enclObj;
    if (entry == nullptr) {
        return nullptr;
    }
    return node.objType == RTCACHE_PDNODE_EXTERNAL ? entry->enclType.extEncl.Obj : entry->enclType.backPlane.Obj;
}

// The disk record behind a physical-disk node, or NULL.
RtPhysicalDisk *disk_record(const RtCachePdNode &node)
{
    return node.enclObj != nullptr ? node.enclObj->enclType.physicalDisk.Obj : nullptr;
}

// The record whose FQDD stands for a node of the physical-disk table: the
// disk's or the enclosure's record; NULL for other nodes.
const RtRecord *node_record(const RtCachePdNode &node)
{
    if (node.objType == RTCACHE_PDNODE_PHYSICALDISK) {
        return reinterpret_cast<const RtRecord *>(disk_record(node));
    }
    if (is_enclosure_node(node.objType)) {
        return reinterpret_cast<const RtRecord *>(enclosure_record(node));
    }
    return nullptr;
}

bool table_usable(void ***table)
{
    return table != nullptr && (max_adapters == 0 || table[0] != nullptr);
}

// ---- the snapshot of a disk table ------------------------------------------------------------

// A private table of the shape of cache_PDs or cache_VDs, released with the
// array's own release.
class SnapshotTable {
public:
    explicit SnapshotTable(uint32_t columns) : columns_(columns) {}
    ~SnapshotTable()
    {
        if (table_ != nullptr) {
            rtvox_free_2darray(reinterpret_cast<void **>(table_), max_adapters);
        }
    }
    SnapshotTable(const SnapshotTable &) = delete;
    SnapshotTable &operator=(const SnapshotTable &) = delete;

    // Answers whether the table (row table and data block) could be had.
    bool allocate()
    {
        if (max_adapters == 0) {
            return true;  // nothing to hold
        }
        table_ = reinterpret_cast<void ***>(
            rtvox_alloc_2darray(static_cast<int32_t>(max_adapters), static_cast<int32_t>(columns_), 4));
        return table_ != nullptr && table_[0] != nullptr;
    }
    void copy_from(void ***live)
    {
        if (max_adapters > 0 && table_usable(live)) {
            std::memcpy(table_[0], live[0], static_cast<size_t>(max_adapters) * columns_ * sizeof(void *));
        }
    }
    void *at(uint32_t index, uint32_t key) const { return table_[index][key]; }

private:
    uint32_t columns_;
    void ***table_ = nullptr;
};

// ---- the synthetic list ----------------------------------------------------------------------

// Walks one group of enclosure element slots up to its first empty slot.
template <typename Record, size_t N>
void add_elements(RtCacheEventNode **list, Record *const (&slots)[N], uint32_t kind, uint32_t eventType)
{
    for (Record *record : slots) {
        if (record == nullptr) {
            return;
        }
        clear_bytes(record, kElementClearOffset);  // whatever the event type
        AddNode(list, kind, 0, eventType);
    }
}

void add_disk_node(RtCacheEventNode **list, const RtCachePdNode &node, uint32_t eventType)
{
    if (node.objType == RTCACHE_PDNODE_PHYSICALDISK) {
        // A node without its record is still listed; there is just nothing to mark.
        if (RtPhysicalDisk *disk = disk_record(node); disk != nullptr && eventType == RAID_MGMT_EVENT_CHANGE_OBJECT) {
            clear_bytes(disk, kDiskStateOffset);
        }
        AddNode(list, RTCACHE_OBJKIND_PHYSICALDISK, 0, eventType);
    } else if (node.objType == RTCACHE_PDNODE_BACKPLANE) {
        if (enclosure_record(node) != nullptr) {
            AddNode(list, RTCACHE_OBJKIND_ENCLOSURE, 0, eventType);
        }
    } else if (node.objType == RTCACHE_PDNODE_EXTERNAL) {
        if (enclosure_record(node) != nullptr) {
            AddNode(list, RTCACHE_OBJKIND_ENCLOSURE, 0, eventType);
            const RtCachePdEntry &entry = *node.enclObj;
            add_elements(list, entry.apEMM, RTCACHE_OBJKIND_EMM, eventType);
            add_elements(list, entry.apFan, RTCACHE_OBJKIND_ENCL_ELEMENT, eventType);
            add_elements(list, entry.apPSU, RTCACHE_OBJKIND_ENCL_ELEMENT, eventType);
            add_elements(list, entry.apTempProbe, RTCACHE_OBJKIND_ENCL_ELEMENT, eventType);
        }
    }
}

uint32_t list_length(const RtCacheEventNode *list)
{
    uint32_t length = 0;
    for (; list != nullptr; list = list->pNext) {
        ++length;
    }
    return length;
}

void write_header(FILE *file, const char *title)
{
    std::fprintf(file, " >>>> %s >>>>\n", title);
}

}  // namespace

extern "C" {

// ---- FQDD lookups ------------------------------------------------------------------------

wchar_t *rtcache_GetAdapterFQDD(uint32_t EID)
{
    RT_TRACE(4, "--> %s", __func__);
    void *object = nullptr;
    if (rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, EID, EID, &object) != 0) {
        RT_TRACE(2, "<-- error1");
        return nullptr;
    }
    const auto *node = static_cast<const RtCacheCtrlNode *>(object);
    if (node == nullptr) {
        RT_TRACE(2, "<-- error2");
        return nullptr;
    }
    RT_TRACE(4, "<-- %s type=%d", __func__, static_cast<int>(node->u32NodeType));
    if (node->u32NodeType == RTCACHE_NODE_CONTROLLER) {
        if (node->pAdapter == nullptr) {
            RT_TRACE(2, "<-- error3");
            return nullptr;
        }
        return node->pAdapter->hdr.FQDD;
    }
    if (node->u32NodeType == RTCACHE_NODE_HBA) {
        if (node->pAdapter == nullptr) {
            RT_TRACE(2, "<-- error4");
            return nullptr;
        }
        return node->pAdapter->hdr.FQDD;
    }
    return nullptr;
}

wchar_t *rtcache_GetBatteryFQDD(uint32_t EID)
{
    RT_TRACE(4, "--> %s", __func__);
    void *object = nullptr;
    if (rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, EID, EID, &object) != 0) {
        RT_TRACE(2, "<-- error1");
        return nullptr;
    }
    const auto *node = static_cast<const RtCacheCtrlNode *>(object);
    if (node == nullptr) {
        RT_TRACE(2, "<-- error2");
        return nullptr;
    }
    if (node->u32NodeType != RTCACHE_NODE_CONTROLLER) {
        RT_TRACE(2, "<-- error4");  // only controller nodes carry batteries
        return nullptr;
    }
    RT_TRACE(4, "<--%s", __func__);
    if (node->pBattery == nullptr) {
        RT_TRACE(2, "<-- error3");
        return nullptr;
    }
    return node->pBattery->hdr.FQDD;
}

uint32_t rtcache_GetEnclosureFQDD(uint16_t EID, uint16_t EnclId, wchar_t **ppFQDD)
{
    RT_TRACE(4, "--> %s", __func__);
    RT_TRACE(4, "Fetching FQDD of enclosure with EID:%hu and EnclId:%hu", EID, EnclId);
    if (ppFQDD == nullptr) {
        RT_TRACE(2, "<-- err null inputs");
        return 0;
    }
    void *object = nullptr;
    if (rtcache_GetCachedObject(RTCACHE_KEY_PD, EID, EnclId, &object) != 0) {
        RT_TRACE(4, "<--Failed to fetch the FQDD of enclosure with EID:%hu and EnclId:%hu", EID, EnclId);
        return 0;
    }
    if (object == nullptr) {
        RT_TRACE(4, "<--pPdCache is NULL");
        return 0;
    }
    const auto *node = static_cast<const RtCachePdNode *>(object);
    const uint32_t objType = node->objType;
    if (!is_enclosure_node(objType)) {
        RT_TRACE(4, "<--pPdCache->objType is not ENCLOSURE");
        return 0;
    }
    const RtCachePdEntry *enclObj = node->enclObj;
    if (enclObj == nullptr) {
        RT_TRACE(4, "<--pPdCache->enclObj is NULL");
        return 0;
    }
    const bool external = objType == RTCACHE_PDNODE_EXTERNAL;
    const RtEnclosure *record = nullptr;
    if (external) {
        RT_TRACE(4, "Requesting enclosure FQDD is EXTERNAL");
        record = enclObj->enclType.extEncl.Obj;
        if (record == nullptr) {
            RT_TRACE(4, "<--pPdCache->enclObj->enclType.extEncl.Obj is NULL");
            return 0;
        }
    } else {
        RT_TRACE(4, "Requesting enclosure FQDD is BACKPLANE");
        record = enclObj->enclType.backPlane.Obj;
        if (record == nullptr) {
            RT_TRACE(4, "<--pPdCache->enclObj->enclType.backPlane.Obj is NULL");
            return 0;
        }
    }
    const wchar_t *fqdd = record->hdr.FQDD;
    if (fqdd != nullptr) {
        if (external) {
            RT_TRACE(4, "ENCL FQDD:%ls", fqdd);
        } else {
            RT_TRACE(4, "ENCL FQDD:%ls\n", fqdd);
        }
        *ppFQDD = nullptr;
        const size_t length = std::wcslen(fqdd);
        auto *copy = static_cast<wchar_t *>(rtvox_alloc(static_cast<uint32_t>((length + 1) * sizeof(wchar_t))));
        if (copy != nullptr) {
            *ppFQDD = copy;
            std::wmemcpy(copy, fqdd, length + 1);  // the text and its terminator
        }
    }
    RT_TRACE(4, "<--ENCL Position:%d", record->Position);
    return record->Position;
}

// ---- event views ----------------------------------------------------------------------------

uint32_t rtcache_GetEventsByObjType(const RtCacheEventBlock *pEvents, uint32_t objType, uint16_t *pCount,
                                    uint32_t **ppKeys)
{
    RT_TRACE(4, "--> %s", __func__);
    // pCount is checked as well: it is written below whatever is found.
    if (pEvents == nullptr || ppKeys == nullptr || pCount == nullptr || objType > kMaxObjType) {
        RT_TRACE(3, "<-- warning1 %s", __func__);
        return 2;
    }
    const auto count = static_cast<uint16_t>(pEvents->u32Count);
    if (count == 0) {
        RT_TRACE(3, "<-- warning2 %s", __func__);
        return 2;
    }
    auto *scratch = static_cast<uint32_t *>(rtvox_alloc(count * static_cast<uint32_t>(sizeof(uint32_t))));
    if (scratch == nullptr) {
        RT_TRACE(2, "<-- error1 %s", __func__);
        return 3;
    }
    // A converted block may hold more entries than a fetched one: read them
    // through the entry array's address, not its declared bound.
    const RtCacheEventEntry *entries = pEvents->entries;
    uint16_t found = 0;
    for (uint16_t i = 0; i < count; ++i) {
        RtCacheEventEntry entry;
        std::memcpy(&entry, entries + i, sizeof entry);
        if (entry.objType == objType) {
            scratch[found++] = entry.objKey;
        }
    }
    *pCount = found;
    *ppKeys = static_cast<uint32_t *>(rtvox_alloc(found * static_cast<uint32_t>(sizeof(uint32_t))));
    if (*ppKeys != nullptr) {
        std::memcpy(*ppKeys, scratch, found * sizeof(uint32_t));
    }
    rtvox_free(scratch);
    RT_TRACE(4, "<-- %s", __func__);
    return *ppKeys != nullptr ? 0 : 3;
}

void AddNode(RtCacheEventNode **ppHead, uint32_t objType, uint32_t /*key*/, uint32_t eventType)
{
    if (ppHead == nullptr) {
        return;
    }
    // Plain malloc, not rtvox_alloc: the node is never freed, and its fourth
    // word is left as malloc gives it.
    auto *node = static_cast<RtCacheEventNode *>(std::malloc(sizeof(RtCacheEventNode)));
    if (node == nullptr) {
        return;
    }
    node->objType = objType;
    node->eventType = eventType;
    node->objKey = 0;
    node->pNext = *ppHead;
    *ppHead = node;
    ++gRTCache_EventCount;  // no lock, as its readers expect
}

uint32_t rtcache_ConvertCacheToEvent(uint32_t EID, uint32_t eventType, RtCacheEventBlock **ppEvents)
{
    RT_TRACE(4, "-->  %s", __func__);
    if (ppEvents == nullptr || EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err null inputs");
        return 2;
    }

    RtCacheCtrlNode *nodes[RTCACHE_ALLEIDS_SLOTS];
    SnapshotTable pds(max_physicaldevices);
    SnapshotTable vds(max_logicaldevices);
    int32_t index = RTCACHE_INVALID_INDEX;
    {
        const CacheLock lock;
        if (!lock.held()) {
            RTCACHE_TRACE_MUTEX_FAIL();
            return 3;
        }
        const bool pdsMade = pds.allocate();
        const bool vdsMade = vds.allocate();
        if (!pdsMade || !vdsMade) {
            // What was obtained is released on the way out.
            RT_TRACE(1, "<-- error malloc fail");
            return 3;
        }
        std::memcpy(nodes, cache_AllEIDs, sizeof nodes);
        pds.copy_from(cache_PDs);
        vds.copy_from(cache_VDs);
        index = GetIndexFromEID(EID);
    }
    // The records are read and marked from here on without the lock.

    RtCacheEventNode *list = nullptr;
    const bool change = eventType == RAID_MGMT_EVENT_CHANGE_OBJECT;
    if (RtCacheCtrlNode *node = nodes[EID]; node != nullptr) {
        if (node->pAdapter != nullptr) {
            if (change) {
                store_u32(node->pAdapter, kAdapterFlagsOffset,
                          load_u32(node->pAdapter, kAdapterFlagsOffset) | kAdapterChangedBit);
            }
            AddNode(&list, RTCACHE_OBJKIND_CONTROLLER, 0, eventType);
        }
        if (node->pBattery != nullptr) {
            if (change) {
                clear_bytes(node->pBattery, kBatteryClearOffset);
            }
            AddNode(&list, RTCACHE_OBJKIND_BATTERY, 0, eventType);
        }
    }
    if (index < 0 || static_cast<uint32_t>(index) >= max_adapters) {
        RT_TRACE(5, "<-- %s error s32Temp %d", __func__, index);
        return 1;
    }
    const auto adapter = static_cast<uint32_t>(index);
    for (uint32_t key = 0; key < max_physicaldevices; ++key) {
        if (const auto *node = static_cast<const RtCachePdNode *>(pds.at(adapter, key)); node != nullptr) {
            add_disk_node(&list, *node, eventType);
        }
    }
    uint32_t walked = 0;
    for (; walked < max_logicaldevices; ++walked) {
        void *record = vds.at(adapter, walked);
        if (record == nullptr) {
            break;
        }
        if (change) {
            clear_bytes(record, kVirtualDiskClearOffset);
        }
        AddNode(&list, RTCACHE_OBJKIND_VIRTUALDISK, 0, eventType);
    }

    // Entry n onward, n being the virtual disks walked, under a count that
    // covers every node ever added: both are what readers expect. The block
    // is made large enough for every entry written.
    const uint32_t count = gRTCache_EventCount;
    const uint32_t written = list_length(list);
    const uint32_t entries = std::max(count, walked + written);
    auto *block = static_cast<uint8_t *>(rtvox_alloc(4 + entries * static_cast<uint32_t>(sizeof(RtCacheEventEntry))));
    if (block == nullptr) {
        RT_TRACE(1, "<-- error malloc fail");
        return 3;
    }
    std::memcpy(block, &count, sizeof count);
    uint8_t *entry = block + 4 + walked * sizeof(RtCacheEventEntry);
    // The nodes stay allocated: the list is never freed.
    for (const RtCacheEventNode *node = list; node != nullptr; node = node->pNext) {
        std::memcpy(entry, node, sizeof(RtCacheEventEntry));
        entry += sizeof(RtCacheEventEntry);
    }
    *ppEvents = reinterpret_cast<RtCacheEventBlock *>(block);
    RT_TRACE(4, "<-- %s count=%u", __func__, count);
    return 0;
}

// ---- the dump -------------------------------------------------------------------------------

int32_t rtcache_PrintCache(void)
{
    const std::string path = resolve_path(kCacheDumpPath);
    struct stat st {};
    const int found = stat(path.c_str(), &st);
    if (found != 0) {
        return found;  // the dump is switched on by creating the file
    }
    RT_TRACE(4, "--> %s", __func__);
    // /tmp is writable by anyone: only a regular file is written, never the
    // target of a link planted there.
    bool refused = false;
    FILE *file = rtvox::detail::open_regular_file(path, "w", &refused);
    if (file == nullptr) {
        if (refused) {
            RT_TRACE(2, "<-- %s refused: %s is not a regular file", __func__, kCacheDumpPath);
        } else {
            RT_TRACE(2, "<-- %s cannot open %s", __func__, kCacheDumpPath);
        }
        return -1;
    }
    write_header(file, "Controllers");
    for (uint32_t eid = 0; eid < RTCACHE_ALLEIDS_SLOTS; ++eid) {
        if (const RtCacheCtrlNode *node = cache_AllEIDs[eid]; node != nullptr) {
            const wchar_t *fqdd = node->pAdapter != nullptr ? node->pAdapter->hdr.FQDD : nullptr;
            std::fprintf(file, "EID=%d %ls\n", static_cast<int>(eid), printable(fqdd));
        }
    }
    if (max_adapters == 0) {
        return std::fclose(file);
    }
    write_header(file, "PDs");
    for (uint32_t index = 0; index < max_adapters; ++index) {
        if (table_usable(cache_PDs)) {
            for (uint32_t key = 0; key < max_physicaldevices; ++key) {
                const auto *node = static_cast<const RtCachePdNode *>(cache_PDs[index][key]);
                if (const RtRecord *record = node != nullptr ? node_record(*node) : nullptr; record != nullptr) {
                    std::fprintf(file, "Index=%d DeviceID=%d %ls\n", static_cast<int>(index), static_cast<int>(key),
                                 printable(record->hdr.FQDD));
                }
            }
        }
        write_header(file, "VDs");
        if (table_usable(cache_VDs)) {
            for (uint32_t key = 0; key < max_logicaldevices; ++key) {
                if (const auto *record = static_cast<const RtRecord *>(cache_VDs[index][key]); record != nullptr) {
                    std::fprintf(file, "Index=%d TargetID=%d %ls\n", static_cast<int>(index), static_cast<int>(key),
                                 printable(record->hdr.FQDD));
                }
            }
        }
        if (index + 1 < max_adapters) {
            write_header(file, "PDs");
        }
    }
    RT_TRACE(4, "<-- %s", __func__);
    return std::fclose(file);
}

}  // extern "C"

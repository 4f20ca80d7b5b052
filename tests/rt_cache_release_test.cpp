// The release walks: one run of records, one level of one controller, and the
// whole cache at destroy.
#include <algorithm>
#include <cwchar>
#include <vector>

#include "rt_cache_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

// Results of several calls, made in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

wchar_t *heap_text(const wchar_t *text)
{
    const size_t length = std::wcslen(text) + 1;
    return std::wmemcpy(static_cast<wchar_t *>(rtvox_alloc(static_cast<uint32_t>(length * sizeof(wchar_t)))), text,
                        length);
}

// A record owning only its two head texts: three blocks.
RtRecord *text_record(uint32_t objType)
{
    auto *record = static_cast<RtRecord *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    record->objType = objType;
    record->NAME = heap_text(L"name");
    record->hdr.FQDD = heap_text(L"fqdd");
    return record;
}

int32_t free_run(void *records, uint32_t count)
{
    return locked(rtcache_FreeRMObjects, records, count);
}

// ---- one run of records ---------------------------------------------------------------

using CacheReleaseRun = CacheTest;

TEST_F(CacheReleaseRun, EachRecordGivesBackWhatItsKindOwns)
{
    // Each kind gives back the blocks it owns (the copy tests count them per kind) and is traced.
    const int64_t empty = alloc_live();
    for (void *record : {static_cast<void *>(cached_pd(4)), static_cast<void *>(cached_vd(1)),
                         static_cast<void *>(text_record(RTRAID_OBJTYPE_ENCLOSURE))}) {
        EXPECT_EQ(free_run(record, 1), 0);
    }
    EXPECT_EQ(alloc_live(), empty);
    EXPECT_TRUE(trace_has(5, "OBJTYPE is PHYSICALDISK") && trace_has(5, "OBJTYPE is LOGICALDISK") &&
                trace_has(5, "OBJTYPE is ENCLOSURE"));
    EXPECT_TRUE(trace_has(4, "--> enter with obj addr:") && trace_has(4, "<-- exit"));

    // A disk copied from a version-0 source shares the source's FQDD and takes it along.
    std::wstring name = L"Physical Disk 0:1:4";
    char keyId[RTRAID_KEYID_SIZE] = "KEY";
    uint32_t list[3] = {1, 2, 3};
    RtPhysicalDisk source{};
    source.objType = RTRAID_OBJTYPE_PHYSICALDISK;
    source.NAME = name.data();
    source.hdr.FQDD = heap_text(L"Disk.Bay.4:Enclosure.Internal.0-1:RAID.Slot.1-1");
    source.listCount = 3;
    source.listEntries = list;
    source.keyId = keyId;
    const int64_t before = alloc_live();
    auto *copy = static_cast<RtPhysicalDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    ASSERT_EQ(rtraid_dupPD(&source, copy), 0);
    EXPECT_EQ(copy->hdr.FQDD, source.hdr.FQDD);
    EXPECT_EQ(alloc_live(), before + 4);  // record, name, list, key id
    EXPECT_EQ(free_run(copy, 1), 0);
    EXPECT_EQ(alloc_live(), before - 1);  // the source's FQDD went too

    // A run is one block and every record is walked by its own kind: the
    // middle one is no disk, so the word where a disk keeps its key id is not freed.
    auto *run = static_cast<RtPhysicalDisk *>(rtvox_alloc(3 * RTRAID_RECORD_SIZE));
    for (int i = 0; i < 3; ++i) {
        run[i].objType = i == 1 ? 7 : RTRAID_OBJTYPE_PHYSICALDISK;
        run[i].NAME = heap_text(L"disk");
        run[i].keyId = i == 1 ? keyId : static_cast<char *>(rtvox_alloc(RTRAID_KEYID_SIZE));
    }
    EXPECT_EQ(alloc_live(), before + 5);
    EXPECT_EQ(free_run(run, 3), 0);
    EXPECT_EQ(alloc_live(), before - 1);

    // A block marked -2 is no run of records: nothing is freed. Null: nothing to free.
    RtRecord *marked = text_record(static_cast<uint32_t>(-2));
    EXPECT_EQ((Codes{free_run(marked, 1), free_run(nullptr, 4), alloc_live() - before}), (Codes{2, 0, 2}));
    EXPECT_STREQ(marked->NAME, L"name");
    marked->objType = 9;
    EXPECT_EQ(free_run(marked, 1), 0);
    EXPECT_EQ(alloc_live(), before - 1);
}

// ---- one level of one controller ----------------------------------------------------------

using CacheReleaseLevel = CacheTest;

// A node, four disks and two virtual disks for the EID.
void fill(uint8_t eid)
{
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, eid, eid, cached_node()), 0u);
    for (uint32_t key : {0u, 1u, 300u, 511u}) {
        ASSERT_EQ(store(RTCACHE_KEY_PD, eid, key, cached_pd_node(key)), 0u);
    }
    for (uint32_t key : {0u, 253u}) {
        ASSERT_EQ(store(RTCACHE_KEY_VD, eid, key, cached_vd(key)), 0u);
    }
}

int64_t filled(void ***table, int index, uint32_t columns)
{
    return std::count_if(table[index], table[index] + columns, [](void *slot) { return slot != nullptr; });
}

// The node words still set as bits 0-6: adapter, battery, driver, probe, PCI
// information, adapter key, service data; -1 when there is no node.
int64_t node_words(const RtCacheCtrlNode *node)
{
    if (node == nullptr) {
        return -1;
    }
    const void *words[] = {node->pAdapter, node->pBattery,    node->pDriver,     node->pTempProbe,
                           node->pPciInfo, node->pAdapterKey, node->pServiceData};
    int64_t bits = 0;
    for (int i = 0; i < 7; ++i) {
        bits |= words[i] != nullptr ? 1 << i : 0;
    }
    return bits;
}

TEST_F(CacheReleaseLevel, EachLevelFreesItsShareOfATavoController)
{
    // level, node words left, disks left, virtual disks left
    const int64_t cases[][4] = {{1, -1, 4, 2}, {2, 0x7D, 4, 2}, {3, 0x7F, 0, 2}, {4, 0x7F, 4, 0}, {5, 0x70, 0, 2}};
    add_eid(0, 7);  // a TAVO controller
    const int64_t empty = alloc_live();
    for (const auto &c : cases) {
        SCOPED_TRACE(c[0]);
        fill(7);
        EXPECT_EQ(rtcache_FreeObjectLevel(7, c[0]), 0u);
        EXPECT_EQ((Codes{node_words(cache_AllEIDs[7]), filled(cache_PDs, 0, 512), filled(cache_VDs, 0, 254)}),
                  (Codes{c[1], c[2], c[3]}));
        // Empty the controller again: nothing may be left over.
        EXPECT_EQ((Codes{rtcache_FreeObjectLevel(7, 1), rtcache_FreeObjectLevel(7, 3), rtcache_FreeObjectLevel(7, 4)}),
                  (Codes{0, 0, 0}));
        EXPECT_EQ(alloc_live(), empty);
    }
}

TEST_F(CacheReleaseLevel, RefusalsFreeNothing)
{
    add_eid(0, 7);
    add_eid(1, 9, RTCACHE_EIDTYPE_HBA);
    add_eid(2, 12, RTCACHE_EIDTYPE_PCIESSD);
    fill(7);
    fill(9);
    const int64_t live = alloc_live();
    for (uint32_t level = 1; level <= 5; ++level) {  // only TAVO controllers are freed
        EXPECT_EQ((Codes{rtcache_FreeObjectLevel(9, level), rtcache_FreeObjectLevel(12, level)}), (Codes{1, 1}));
    }
    EXPECT_EQ((Codes{trace_count("Ignoring non-TAVOs"), rtcache_FreeObjectLevel(255, 1), rtcache_FreeObjectLevel(7, 0),
                     rtcache_FreeObjectLevel(7, 6), trace_count("<-- err null inputs"), rtcache_FreeObjectLevel(8, 1)}),
              (Codes{10, 2, 2, 2, 3, 1}));
    EXPECT_TRUE(trace_has(2, "<-- rtcache_FreeObjectLevel error s32Temp 1"));
    vornhost_fail(VORNHOST_SMMutexLock, 0, 2);
    EXPECT_EQ((Codes{rtcache_FreeObjectLevel(7, 1), rtcache_FreeMem()}), (Codes{3, 3}));
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_FreeObjectLevel:") && trace_has(1, "rt_cache.c:rtcache_FreeMem:"));
    EXPECT_EQ(alloc_live(), live);
}

// ---- the whole cache ------------------------------------------------------------------------

using CacheReleaseAll = CacheTest;

// An external enclosure node owning its record and element records, one
// behind an empty slot: all of it is the cache's.
RtCachePdNode *enclosure_node()
{
    RtCachePdNode *node = pd_node(RTCACHE_PDNODE_EXTERNAL);
    RtCachePdEntry &entry = *node->enclObj;
    entry.enclType.extEncl.Obj = reinterpret_cast<RtEnclosure *>(text_record(RTRAID_OBJTYPE_ENCLOSURE));
    for (RtRecord **slot : {&entry.apEMM[1], &entry.apFan[0], &entry.apPSU[0], &entry.apTempProbe[7]}) {
        *slot = text_record(9);
    }
    return node;
}

TEST_F(CacheReleaseAll, DestroyGivesBackEverythingButPcieSsdNodesAndTheMembersOfUntypedNodes)
{
    add_eid(0, 7);
    add_eid(5, 20, RTCACHE_EIDTYPE_MIRU);
    add_eid(6, 11, RTCACHE_EIDTYPE_PCIESSD);
    add_eid(7, 12, RTCACHE_EIDTYPE_NVME);
    auto *extender = static_cast<RtCacheExtender *>(rtvox_alloc(sizeof(RtCacheExtender)));
    extender->pName = heap_text(L"PCIe Extender 3");
    extender->pFQDD = heap_text(L"PCIeExtender.Slot.3");
    auto *backplane = static_cast<RtCacheBackplane *>(rtvox_alloc(sizeof(RtCacheBackplane)));
    backplane->pEnclosure = reinterpret_cast<RtEnclosure *>(text_record(RTRAID_OBJTYPE_ENCLOSURE));
    auto *pcie = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    auto *nvme = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    auto *untyped = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    void *member = untyped->pPciInfo = static_cast<RtCachePciInfo *>(rtvox_alloc(sizeof(RtCachePciInfo)));
    EXPECT_EQ(
        (Codes{store(RTCACHE_KEY_ADAPTER, 7, 7, cached_node()), store(RTCACHE_KEY_ADAPTER, 20, 20, cached_node()),
               store(RTCACHE_KEY_ADAPTER, 30, 30, cached_node(RTCACHE_NODE_HBA)),  // needs no registry entry
               store(RTCACHE_KEY_ADAPTER, 11, 11, pcie), store(RTCACHE_KEY_ADAPTER, 12, 12, nvme),
               store(RTCACHE_KEY_ADAPTER, 40, 40, untyped),  // EID 40 is not registered
               store(RTCACHE_KEY_PD, 20, 511, cached_pd_node(511)), store(RTCACHE_KEY_PD, 20, 0, enclosure_node()),
               store(RTCACHE_KEY_PD, 20, 1, pd_node(RTCACHE_PDNODE_BACKPLANE)),           // no record
               store(RTCACHE_KEY_PD, 7, 2, pd_node(RTCACHE_PDNODE_PHYSICALDISK, false)),  // no entry
               store(RTCACHE_KEY_VD, 7, 253, cached_vd(253)), store(RTCACHE_KEY_PCIESSD_EXTENDER, 3, 16, extender),
               store(RTCACHE_KEY_PCIESSD_BACKPLANE, 4, 4, backplane),  // the limit itself
               store(RTCACHE_KEY_CMDSCOUNT, 0, 0, rtvox_alloc(4))}),
        (Codes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    rtcache_Destroy();
    EXPECT_EQ(alloc_live(), 3);  // the two PCIe SSD nodes left in place and the untyped node's member
    EXPECT_TRUE(cache_AllEIDs[11] == pcie && cache_AllEIDs[12] == nvme && cache_AllEIDs[40] == nullptr);
    EXPECT_TRUE(cache_CMDsCount[0] == 0 && cache_Extndrs[16] == nullptr && cache_Bkplanes[4] == nullptr);
    EXPECT_TRUE(trace_has(4, "Adapter/battery EID=30 ") && trace_has(5, "EID=20 physical device=511 "));
    EXPECT_TRUE(trace_has(5, "Freeing Enclosure FQDD") && trace_has(5, "Freeing Enclosure NAME"));
    EXPECT_EQ(trace_count("It is a PCIeSSD EID, continue"), 2);
    EXPECT_TRUE(trace_has(1, "<-- error get Storage EID Fail"));
    for (void *block : {static_cast<void *>(pcie), static_cast<void *>(nvme), member}) {
        rtvox_free(block);
    }
    cache_AllEIDs[11] = cache_AllEIDs[12] = nullptr;
}

}  // namespace

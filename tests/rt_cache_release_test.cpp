// The release walks: one run of records, one level of one controller, and the
// whole cache at destroy.
#include <gtest/gtest.h>

#include <cstdint>
#include <cwchar>
#include <string>

#include "rt_cache_fixtures.h"
#include "rtvox/rt_cache.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;

namespace {

wchar_t *heap_text(const wchar_t *text)
{
    const size_t length = std::wcslen(text) + 1;
    auto *copy = static_cast<wchar_t *>(rtvox_alloc(static_cast<uint32_t>(length * sizeof(wchar_t))));
    std::wmemcpy(copy, text, length);
    return copy;
}

int32_t free_run(void *records, uint32_t count)
{
    EXPECT_EQ(rtcache_GetLock(), 0u);
    const int32_t rc = rtcache_FreeRMObjects(records, count);
    SMMutexUnLock(mutexRtCache);
    return rc;
}

// ---- one run of records ---------------------------------------------------------------

using CacheReleaseRun = CacheTest;

TEST_F(CacheReleaseRun, AdapterCopyGivesBackEverythingAndTheSourceStaysIntact)
{
    std::wstring name = L"RAID Controller in Slot 2";
    std::wstring fqdd = L"RAID.Slot.2-1";
    std::wstring slotText = L"slot text";
    uint8_t entries[2 * 60] = {};
    RtAdapter source{};
    source.NAME = name.data();
    source.hdr.FQDD = fqdd.data();
    source.EXTRA = fqdd.data();
    source.entryMask = 0x81;
    source.entryArray = reinterpret_cast<RtAdapterEntry *>(entries);
    for (RtAdapterTextSlot &slot : source.textSlots) {
        slot.pText = slotText.data();
    }
    const int64_t before = alloc_live();
    RtAdapter *copy = DupAdapter(&source);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(alloc_live(), before + 13);  // record, 3 texts, 8 slot texts, entries
    trace_start();
    EXPECT_EQ(free_run(copy, 1), 0);
    EXPECT_EQ(alloc_live(), before);
    EXPECT_TRUE(trace_has(4, "--> enter with obj addr:"));
    EXPECT_TRUE(trace_has(4, "<-- exit"));
    EXPECT_EQ(name, L"RAID Controller in Slot 2");
    EXPECT_EQ(source.textSlots[7].pText, slotText.data());
    EXPECT_EQ(slotText, L"slot text");
}

TEST_F(CacheReleaseRun, DiskCopiedFromVersionZeroTakesTheSharedFqddWithIt)
{
    std::wstring name = L"Physical Disk 0:1:4";
    char keyId[RTRAID_KEYID_SIZE] = "KEY";
    uint32_t list[3] = {1, 2, 3};
    RtPhysicalDisk source{};
    source.objType = RTRAID_OBJTYPE_PHYSICALDISK;
    source.NAME = name.data();
    source.hdr.FQDD = heap_text(L"Disk.Bay.4:Enclosure.Internal.0-1:RAID.Slot.1-1");  // version 0
    source.listCount = 3;
    source.listEntries = list;
    source.keyId = keyId;
    const int64_t before = alloc_live();
    auto *copy = static_cast<RtPhysicalDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    ASSERT_EQ(rtraid_dupPD(&source, copy), 0);
    EXPECT_EQ(copy->hdr.FQDD, source.hdr.FQDD);
    EXPECT_EQ(alloc_live(), before + 4);  // record, name, list, key id
    trace_start();
    EXPECT_EQ(free_run(copy, 1), 0);
    EXPECT_EQ(alloc_live(), before - 1);  // the source's FQDD went too
    EXPECT_TRUE(trace_has(5, "OBJTYPE is PHYSICALDISK"));
    EXPECT_EQ(list[2], 3u);
}

TEST_F(CacheReleaseRun, VirtualDiskAndEnclosureReleaseTheirOwnMembers)
{
    const int64_t before = alloc_live();
    RtVirtualDisk *disk = cached_vd(1);
    EXPECT_EQ(alloc_live(), before + 4);  // record, name, FQDD, target ids
    EXPECT_EQ(free_run(disk, 1), 0);
    EXPECT_TRUE(trace_has(5, "OBJTYPE is LOGICALDISK"));

    std::wstring name = L"Backplane";
    std::wstring fqdd = L"Enclosure.Internal.0-1";
    RtEnclosure source{};
    source.objType = RTRAID_OBJTYPE_ENCLOSURE;
    source.NAME = name.data();
    source.hdr.VERSION = 1;
    source.hdr.FQDD = fqdd.data();
    auto *enclosure = static_cast<RtEnclosure *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    ASSERT_EQ(rtraid_dupEnclosure(&source, enclosure), 0);
    EXPECT_EQ(free_run(enclosure, 1), 0);
    EXPECT_TRUE(trace_has(5, "OBJTYPE is ENCLOSURE"));
    EXPECT_EQ(alloc_live(), before);
}

TEST_F(CacheReleaseRun, ARunOfRecordsIsOneBlockAndEveryRecordIsWalked)
{
    const int64_t before = alloc_live();
    auto *run = static_cast<RtPhysicalDisk *>(rtvox_alloc(3 * RTRAID_RECORD_SIZE));
    for (int i = 0; i < 3; ++i) {
        run[i].objType = RTRAID_OBJTYPE_PHYSICALDISK;
        run[i].NAME = heap_text(L"disk");
        run[i].keyId = static_cast<char *>(rtvox_alloc(RTRAID_KEYID_SIZE));
    }
    run[1].objType = 7;  // a record of another kind in the middle: head texts only
    rtvox_free(run[1].keyId);
    run[1].keyId = nullptr;
    EXPECT_EQ(alloc_live(), before + 6);
    EXPECT_EQ(free_run(run, 3), 0);
    EXPECT_EQ(alloc_live(), before);
}

TEST_F(CacheReleaseRun, MarkedBlockIsRefusedAndNullIsHarmless)
{
    auto *record = static_cast<RtRecord *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    record->objType = static_cast<uint32_t>(-2);
    record->NAME = heap_text(L"kept");
    const int64_t before = alloc_live();
    EXPECT_EQ(free_run(record, 1), 2);
    EXPECT_EQ(alloc_live(), before);
    EXPECT_STREQ(record->NAME, L"kept");
    EXPECT_EQ(free_run(nullptr, 4), 0);
    record->objType = 9;
    EXPECT_EQ(free_run(record, 1), 0);
    EXPECT_EQ(alloc_live(), before - 2);
}

// ---- one level of one controller ----------------------------------------------------------

class CacheReleaseLevel : public CacheTest {
protected:
    void SetUp() override
    {
        CacheTest::SetUp();
        add_eid(0, 7);                            // a TAVO controller in slot 0
        add_eid(1, 9, RTCACHE_EIDTYPE_HBA);       // an HBA in slot 1
        add_eid(2, 12, RTCACHE_EIDTYPE_PCIESSD);  // a PCIe SSD subsystem in slot 2
    }
    // A node, four disks and two virtual disks for the EID.
    static void fill(uint8_t eid)
    {
        ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, eid, eid, cached_node()), 0u);
        for (uint32_t key : {0u, 1u, 300u, 511u}) {
            ASSERT_EQ(store(RTCACHE_KEY_PD, eid, key, cached_pd(key)), 0u);
        }
        for (uint32_t key : {0u, 253u}) {
            ASSERT_EQ(store(RTCACHE_KEY_VD, eid, key, cached_vd(key)), 0u);
        }
    }
    static int pds(int index)
    {
        int n = 0;
        for (uint32_t key = 0; key < max_physicaldevices; ++key) {
            n += cache_PDs[index][key] != nullptr;
        }
        return n;
    }
    static int vds(int index)
    {
        int n = 0;
        for (uint32_t key = 0; key < max_logicaldevices; ++key) {
            n += cache_VDs[index][key] != nullptr;
        }
        return n;
    }
};

struct LevelCase {
    uint32_t level;
    bool node, adapter, battery, blocks;
    int pds, vds;
};

TEST_F(CacheReleaseLevel, EachLevelFreesItsShareOfATavoController)
{
    const LevelCase cases[] = {
        {RTCACHE_LEVEL_CONTROLLER, false, false, false, false, 4, 2},
        {RTCACHE_LEVEL_BATTERY, true, true, false, true, 4, 2},
        {RTCACHE_LEVEL_PDS, true, true, true, true, 0, 2},
        {RTCACHE_LEVEL_VDS, true, true, true, true, 4, 0},
        {RTCACHE_LEVEL_PDS_RUNS, true, false, false, true, 0, 2},
    };
    const int64_t empty = alloc_live();
    for (const LevelCase &c : cases) {
        SCOPED_TRACE(c.level);
        fill(7);
        EXPECT_EQ(rtcache_FreeObjectLevel(7, c.level), 0u);
        RtCacheCtrlNode *node = cache_AllEIDs[7];
        ASSERT_EQ(node != nullptr, c.node);
        if (node != nullptr) {
            EXPECT_EQ(node->pAdapter != nullptr, c.adapter);
            EXPECT_EQ(node->pBattery != nullptr, c.battery);
            EXPECT_EQ(node->pDriver != nullptr, c.adapter);  // the runs go together
            EXPECT_EQ(node->pTempProbe != nullptr, c.adapter);
            EXPECT_EQ(node->pPciInfo != nullptr, c.blocks);
            EXPECT_EQ(node->pAdapterKey != nullptr, c.blocks);
        }
        EXPECT_EQ(pds(0), c.pds);
        EXPECT_EQ(vds(0), c.vds);
        // Empty the controller again: nothing may be left over.
        for (uint32_t level : {1u, 3u, 4u}) {
            EXPECT_EQ(rtcache_FreeObjectLevel(7, level), 0u);
        }
        EXPECT_EQ(alloc_live(), empty);
    }
}

TEST_F(CacheReleaseLevel, OnlyTavoControllersAreFreed)
{
    fill(9);
    fill(12);
    const int64_t live = alloc_live();
    for (uint32_t eid : {9u, 12u}) {
        for (uint32_t level = 1; level <= 5; ++level) {
            EXPECT_EQ(rtcache_FreeObjectLevel(eid, level), 1u);
        }
    }
    EXPECT_EQ(trace_count("Ignoring non-TAVOs"), 10);
    EXPECT_EQ(alloc_live(), live);
    EXPECT_EQ(pds(1), 4);
    // The PCIe SSD node would outlive destroy: free it as a TAVO's.
    ASSERT_EQ(rtcache_SetStorageEIDType(12, RTCACHE_EIDTYPE_TAVO), 0u);
    EXPECT_EQ(rtcache_FreeObjectLevel(12, RTCACHE_LEVEL_CONTROLLER), 0u);
}

TEST_F(CacheReleaseLevel, BadArgumentsUnknownEidsAndLockFailure)
{
    fill(7);
    const int64_t live = alloc_live();
    EXPECT_EQ(rtcache_FreeObjectLevel(255, 1), 2u);
    EXPECT_EQ(rtcache_FreeObjectLevel(7, 0), 2u);
    EXPECT_EQ(rtcache_FreeObjectLevel(7, 6), 2u);
    EXPECT_EQ(trace_count("<-- err null inputs"), 3);
    EXPECT_EQ(rtcache_FreeObjectLevel(8, 1), 1u);
    EXPECT_TRUE(trace_has(2, "<-- rtcache_FreeObjectLevel error s32Temp 1"));
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    EXPECT_EQ(rtcache_FreeObjectLevel(7, 1), 3u);
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_FreeObjectLevel:"));
    EXPECT_EQ(alloc_live(), live);
}

// ---- the whole cache ------------------------------------------------------------------------

using CacheReleaseAll = CacheTest;

TEST_F(CacheReleaseAll, DestroyGivesBackEveryKindOfCachedObject)
{
    add_eid(0, 7);
    add_eid(5, 20, RTCACHE_EIDTYPE_MIRU);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 7, 7, cached_node()), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 20, 20, cached_node()), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 30, 30, cached_node(RTCACHE_NODE_HBA)), 0u);  // no registry entry needed
    ASSERT_EQ(store(RTCACHE_KEY_PD, 20, 511, cached_pd(511)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_VD, 7, 253, cached_vd(253)), 0u);
    auto *extender = static_cast<RtCacheExtender *>(rtvox_alloc(sizeof(RtCacheExtender)));
    extender->pName = heap_text(L"PCIe Extender 3");
    extender->pFQDD = heap_text(L"PCIeExtender.Slot.3");
    ASSERT_EQ(store(RTCACHE_KEY_PCIESSD_EXTENDER, 3, 16, extender), 0u);
    auto *backplane = static_cast<RtCacheBackplane *>(rtvox_alloc(sizeof(RtCacheBackplane)));
    backplane->pEnclosure = static_cast<RtEnclosure *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    backplane->pEnclosure->NAME = heap_text(L"PCIe SSD BP 1");
    backplane->pEnclosure->hdr.FQDD = heap_text(L"Enclosure.Internal.0-1");
    ASSERT_EQ(store(RTCACHE_KEY_PCIESSD_BACKPLANE, 4, 4, backplane), 0u);  // the limit itself
    ASSERT_EQ(store(RTCACHE_KEY_CMDSCOUNT, 0, 0, rtvox_alloc(4)), 0u);

    rtcache_Destroy();
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_TRUE(trace_has(5, "FreeingMemory EID=7 line:"));
    EXPECT_TRUE(trace_has(4, "Adapter/battery EID=30 "));
    EXPECT_TRUE(trace_has(5, "EID=20 physical device=511 "));
    EXPECT_TRUE(trace_has(5, "EID=7 logical device=253"));
    EXPECT_TRUE(trace_has(4, "Freeing PCIeSSD extenders"));
    EXPECT_TRUE(trace_has(4, "Freeing PCIeSSD BPs"));
    EXPECT_TRUE(trace_has(5, "Freeing Enclosure FQDD"));
    EXPECT_TRUE(trace_has(5, "Freeing Enclosure NAME"));
    for (uint32_t value : cache_CMDsCount) {
        ASSERT_EQ(value, 0u);
    }
    EXPECT_EQ(cache_Extndrs[16], nullptr);
    EXPECT_EQ(cache_Bkplanes[4], nullptr);
    EXPECT_EQ(cache_Events_PD_ChObj_delayed, nullptr);
}

TEST_F(CacheReleaseAll, PcieSsdNodesStayAndUntypedNodesLoseOnlyTheNode)
{
    add_eid(0, 11, RTCACHE_EIDTYPE_PCIESSD);
    add_eid(1, 12, RTCACHE_EIDTYPE_NVME);
    auto *pcie = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    auto *nvme = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    auto *untyped = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    void *member = rtvox_alloc(16);
    untyped->pPciInfo = member;
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 11, 11, pcie), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 12, 12, nvme), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 40, 40, untyped), 0u);  // EID 40 is not registered

    rtcache_Destroy();
    EXPECT_EQ(trace_count("It is a PCIeSSD EID, continue"), 2);
    EXPECT_TRUE(trace_has(1, "<-- error get Storage EID Fail"));
    EXPECT_EQ(cache_AllEIDs[11], pcie);
    EXPECT_EQ(cache_AllEIDs[12], nvme);
    EXPECT_EQ(cache_AllEIDs[40], nullptr);
    EXPECT_EQ(alloc_live(), 3);  // the two nodes left in place and the untyped node's member
    rtvox_free(pcie);
    rtvox_free(nvme);
    rtvox_free(member);
    cache_AllEIDs[11] = nullptr;
    cache_AllEIDs[12] = nullptr;
}

TEST_F(CacheReleaseAll, LockFailureFreesNothing)
{
    add_eid(0, 7);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 7, 7, cached_node()), 0u);
    const int64_t live = alloc_live();
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    EXPECT_EQ(rtcache_FreeMem(), 3);
    EXPECT_TRUE(trace_has(1, "rt_cache.c:rtcache_FreeMem:"));
    EXPECT_EQ(alloc_live(), live);
    EXPECT_NE(cache_AllEIDs[7], nullptr);
}

}  // namespace

// Views over the cache: the FQDD lookups, the keys of one object type, the
// synthetic event block of a controller, and the dump file.
#include <gmock/gmock.h>

#include <algorithm>
#include <cwchar>
#include <tuple>

#include "rt_cache_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;
using ::testing::ElementsAre;

namespace {

// Results of several calls, made in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

constexpr uint8_t kEid = 0x21;  // RAID controller, adapter index 2
constexpr uint8_t kHba = 0x22;  // host bus adapter, adapter index 0
constexpr uint32_t kIndex = 2;

uint32_t word_at(const void *record, size_t offset)
{
    uint32_t value = 0;
    std::memcpy(&value, static_cast<const uint8_t *>(record) + offset, sizeof value);
    return value;
}

bool bytes_are(const void *record, size_t offset, size_t count, uint8_t value)
{
    const auto *p = static_cast<const uint8_t *>(record) + offset;
    return std::all_of(p, p + count, [value](uint8_t b) { return b == value; });
}

void fill(void *record, size_t offset, size_t count, uint8_t value)
{
    std::memset(static_cast<uint8_t *>(record) + offset, value, count);
}

// One synthetic entry as (objType, eventType, objKey); the fourth word is not a record.
struct Entry {
    uint32_t objType, eventType, objKey;
    bool operator==(const Entry &) const = default;
};

std::vector<Entry> entries_of(const RtCacheEventBlock *block, uint32_t count)
{
    std::vector<Entry> out;
    const auto *bytes = reinterpret_cast<const uint8_t *>(block) + 4;
    for (uint32_t i = 0; i < count; ++i) {
        out.push_back({word_at(bytes, 16 * i), word_at(bytes, 16 * i + 4), word_at(bytes, 16 * i + 8)});
    }
    return out;
}

class Views : public CacheTest {
protected:
    void SetUp() override
    {
        CacheTest::SetUp();
        add_eid(0, kHba, RTCACHE_EIDTYPE_HBA);
        add_eid(kIndex, kEid);
        gRTCache_EventCount = 0;
        trace_start();
    }
    static RtEnclosure *enclosure_record(uint8_t position, const std::wstring &fqdd)
    {
        auto *record = static_cast<RtEnclosure *>(rtvox_alloc(RTRAID_RECORD_SIZE));
        record->objType = RTRAID_OBJTYPE_ENCLOSURE;
        record->hdr.VERSION = 1;
        if (!fqdd.empty()) {
            record->hdr.FQDD =
                static_cast<wchar_t *>(rtvox_alloc(static_cast<uint32_t>((fqdd.size() + 1) * sizeof(wchar_t))));
            std::wcscpy(record->hdr.FQDD, fqdd.c_str());
        }
        record->Position = position;
        return record;
    }
    // A 512-byte element record whose bytes 72 to 79 are 0xEE.
    RtRecord *element()
    {
        auto *record = static_cast<RtRecord *>(rtvox_alloc(RTRAID_RECORD_SIZE));
        record->objType = 9;
        fill(record, 72, 8, 0xEE);
        elements_.push_back(record);
        return record;
    }
    static RtCachePdNode *enclosure_node(uint32_t objType, RtEnclosure *record, bool withEntry = true)
    {
        RtCachePdNode *node = pd_node(objType, withEntry);
        if (withEntry) {
            node->enclObj->enclType.backPlane.Obj = record;
        }
        return node;
    }
    static RtCacheCtrlNode *controller(uint32_t nodeType, bool battery)
    {
        auto *node = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
        node->u32NodeType = nodeType;
        node->pAdapter = cached_adapter(nodeType == RTCACHE_NODE_HBA ? L"SAS.Slot.4-1" : L"RAID.Slot.1-1");
        node->pBattery = battery ? cached_battery() : nullptr;
        return node;
    }
    static uint32_t convert(uint32_t eid, uint32_t eventType, RtCacheEventBlock **block)
    {
        const KeptLeak kept;  // the list nodes are never freed
        return rtcache_ConvertCacheToEvent(eid, eventType, block);
    }

    std::vector<RtRecord *> elements_;  // owned by the cache once stored
};

// ---- FQDD lookups ----------------------------------------------------------------------------

TEST_F(Views, ControllerAndBatteryLookupsReturnTheCachesOwnStrings)
{
    RtCacheCtrlNode *raid = controller(RTCACHE_NODE_CONTROLLER, true);
    RtCacheCtrlNode *hba = controller(RTCACHE_NODE_HBA, true);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, kEid, kEid, raid), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, kHba, kHba, hba), 0u);
    ASSERT_EQ(rtcache_GetLock(), 0u);

    EXPECT_EQ(rtcache_GetAdapterFQDD(kEid), raid->pAdapter->hdr.FQDD);  // the cache's own string
    EXPECT_EQ(rtcache_GetBatteryFQDD(kEid), raid->pBattery->hdr.FQDD);
    EXPECT_STREQ(rtcache_GetAdapterFQDD(kHba), L"SAS.Slot.4-1");
    EXPECT_TRUE(trace_has(4, "<-- rtcache_GetAdapterFQDD type=0") && trace_has(4, "<-- rtcache_GetAdapterFQDD type=3"));

    // Type 3 has no battery, even when one is set.
    const auto misses = [](auto... calls) {
        trace_start();
        EXPECT_EQ((std::vector<const wchar_t *>{calls()...}), std::vector<const wchar_t *>(sizeof...(calls)));
        return Codes{trace_count("<-- error1"), trace_count("<-- error2"), trace_count("<-- error3"),
                     trace_count("<-- error4"), trace_count("<-- error")};
    };
    EXPECT_EQ(misses([] { return rtcache_GetBatteryFQDD(kHba); }, [] { return rtcache_GetAdapterFQDD(0x23); },
                     [] { return rtcache_GetBatteryFQDD(0x23); }, [] { return rtcache_GetAdapterFQDD(300); }),
              (Codes{1, 2, 0, 1, 4}));
    EXPECT_TRUE(trace_has(2, "<-- error1"));
    rtcache_FreeRMObjects(std::exchange(raid->pBattery, nullptr), 1);
    RtAdapter *hbaAdapter = std::exchange(hba->pAdapter, nullptr);
    EXPECT_EQ(misses([] { return rtcache_GetBatteryFQDD(kEid); }, [] { return rtcache_GetAdapterFQDD(kHba); }),
              (Codes{0, 0, 1, 1, 2}));
    EXPECT_TRUE(trace_has(2, "<-- error3"));
    hba->u32NodeType = 5;  // neither kind: null without a message
    EXPECT_EQ(misses([] { return rtcache_GetAdapterFQDD(kHba); }), (Codes{0, 0, 0, 0, 0}));
    SMMutexUnLock(mutexRtCache);
    hba->pAdapter = hbaAdapter;
}

TEST_F(Views, EnclosureLookupCopiesTheFqddAndAnswersThePosition)
{
    const std::wstring text = L"Enclosure.Internal.0-1:RAID.Slot.1-1";
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 40, enclosure_node(RTCACHE_PDNODE_BACKPLANE, enclosure_record(2, text))), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 41,
                    enclosure_node(RTCACHE_PDNODE_EXTERNAL, enclosure_record(0, L"Enclosure.External.0-0"))),
              0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 42, enclosure_node(RTCACHE_PDNODE_EXTERNAL, nullptr)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 43, enclosure_node(RTCACHE_PDNODE_BACKPLANE, nullptr, false)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 44, cached_pd_node(44)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 45, enclosure_node(RTCACHE_PDNODE_BACKPLANE, enclosure_record(7, L""))), 0u);
    ASSERT_EQ(rtcache_GetLock(), 0u);

    // Position 0 is a success too: told by the output.
    for (auto [key, position, fqdd] :
         {std::tuple{40, 2u, text}, std::tuple{41, 0u, std::wstring(L"Enclosure.External.0-0")},
          std::tuple{40, 2u, text}}) {
        wchar_t *copy = nullptr;
        EXPECT_EQ(rtcache_GetEnclosureFQDD(kEid, key, &copy), position);
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy, fqdd);  // the second lookup of 40 proves the cache's own string intact
        rtvox_free(copy);
    }
    EXPECT_TRUE(trace_has(4, "Requesting enclosure FQDD is BACKPLANE"));
    EXPECT_TRUE(trace_has(4, "Requesting enclosure FQDD is EXTERNAL"));
    EXPECT_TRUE(trace_has(4, "ENCL FQDD:Enclosure.Internal.0-1:RAID.Slot.1-1\n"));
    EXPECT_TRUE(trace_has(4, "<--ENCL Position:2"));

    struct Miss {
        uint16_t eid, key;
        const char *line;
    };
    for (const Miss &miss :
         {Miss{kEid, 42, "<--pPdCache->enclObj->enclType.extEncl.Obj is NULL"},
          Miss{kEid, 43, "<--pPdCache->enclObj is NULL"}, Miss{kEid, 44, "<--pPdCache->objType is not ENCLOSURE"},
          Miss{kEid, 46, "<--pPdCache is NULL"},
          Miss{0x40, 40, "<--Failed to fetch the FQDD of enclosure with EID:64 and EnclId:40"},
          Miss{kEid, 45, "<--ENCL Position:7"}}) {
        SCOPED_TRACE(miss.line);
        trace_start();
        wchar_t sentinel = L'?';
        wchar_t *out = &sentinel;
        EXPECT_EQ(rtcache_GetEnclosureFQDD(miss.eid, miss.key, &out), miss.key == 45 ? 7u : 0u);
        EXPECT_EQ(out, &sentinel);
        EXPECT_TRUE(trace_has(4, miss.line));
    }

    alloc_fail(0, 1);
    wchar_t sentinel = L'?';
    wchar_t *copy = &sentinel;
    EXPECT_EQ(rtcache_GetEnclosureFQDD(kEid, 40, &copy), 2u);
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(rtcache_GetEnclosureFQDD(kEid, 40, nullptr), 0u);
    SMMutexUnLock(mutexRtCache);
}

// ---- keys by object type -------------------------------------------------------------------

TEST_F(Views, EventsByObjTypePicksTheKeysInOrder)
{
    const int64_t base = alloc_live();
    RtCacheEventBlock block{};
    block.u32Count = 0x10003;  // only the low 16 bits count
    block.entries[0] = {3, 3, 7, nullptr};
    block.entries[1] = {4, 3, 1, nullptr};
    block.entries[2] = {3, 3, 9, nullptr};
    block.entries[3] = {3, 3, 11, nullptr};  // beyond the count
    uint16_t count = 99;
    uint32_t *keys = nullptr;
    ASSERT_EQ((Codes{rtcache_GetEventsByObjType(&block, 3, &count, &keys), count}), (Codes{0, 2}));
    EXPECT_THAT(std::vector<uint32_t>(keys, keys + 2), ElementsAre(7u, 9u));
    rtvox_free(keys);
    EXPECT_EQ((Codes{rtcache_GetEventsByObjType(&block, 5, &count, &keys), count, keys != nullptr}), (Codes{0, 0, 1}));
    rtvox_free(keys);
    EXPECT_EQ(alloc_live(), base);

    EXPECT_EQ((Codes{rtcache_GetEventsByObjType(&block, 10, &count, &keys),
                     rtcache_GetEventsByObjType(nullptr, 3, &count, &keys),
                     rtcache_GetEventsByObjType(&block, 3, nullptr, &keys),
                     trace_count("<-- warning1 rtcache_GetEventsByObjType")}),
              (Codes{2, 2, 2, 3}));
    block.u32Count = 0x10000;
    EXPECT_EQ(rtcache_GetEventsByObjType(&block, 3, &count, &keys), 2u);
    EXPECT_TRUE(trace_has(3, "<-- warning2 rtcache_GetEventsByObjType"));

    block.u32Count = 3;
    alloc_fail(0, 1);
    EXPECT_EQ(rtcache_GetEventsByObjType(&block, 3, &count, &keys), 3u);
    EXPECT_TRUE(trace_has(2, "<-- error1 rtcache_GetEventsByObjType"));
    alloc_fail(1, 1);
    EXPECT_EQ(
        (Codes{rtcache_GetEventsByObjType(&block, 3, &count, &keys), keys == nullptr, count, alloc_live() - base}),
        (Codes{3, 1, 2, 0}));
}

// ---- the synthetic event block -------------------------------------------------------------

TEST_F(Views, ControllerWithDisksEnclosuresAndVirtualDisksEntryByEntry)
{
    RtCacheCtrlNode *node = controller(RTCACHE_NODE_CONTROLLER, true);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, kEid, kEid, node), 0u);
    RtPhysicalDisk *disk0 = cached_pd(0);
    disk0->state = ~0ull;
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 0, disk_node(disk0)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 2, cached_pd_node(2)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 5, enclosure_node(RTCACHE_PDNODE_BACKPLANE, enclosure_record(1, L"BP"))), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 6, enclosure_node(RTCACHE_PDNODE_BACKPLANE, nullptr)), 0u);
    RtCachePdNode *external = enclosure_node(RTCACHE_PDNODE_EXTERNAL, enclosure_record(3, L"EXT"));
    RtCachePdEntry &object = *external->enclObj;
    for (RtRecord **slot : {&object.apEMM[0], &object.apEMM[1], &object.apFan[0], &object.apFan[1], &object.apFan[2],
                            &object.apFan[4],  // behind an empty slot: not visited
                            &object.apPSU[1],  // slot 15 without slot 14: not visited
                            &object.apTempProbe[0]}) {
        *slot = element();
    }
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 8, external), 0u);
    RtCachePdNode *other = pd_node(9);
    other->enclObj->enclType.physicalDisk.Obj = cached_pd(9);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 9, other), 0u);
    std::vector<RtVirtualDisk *> vds{cached_vd(0), cached_vd(1), cached_vd(3)};
    for (uint32_t key : {0u, 1u, 3u}) {  // 3 is after the gap at 2: not walked
        ASSERT_EQ(store(RTCACHE_KEY_VD, kEid, key, vds[key == 3 ? 2 : key]), 0u);
    }
    auto mark_all = [&] {
        fill(node->pAdapter, 96, 4, 0);
        fill(node->pAdapter, 96, 1, 0x05);
        fill(node->pBattery, 64, 8, 0xFF);
        for (RtVirtualDisk *vd : vds) {
            fill(vd, 84, 8, 0xAB);
        }
        for (RtRecord *record : elements_) {
            fill(record, 72, 8, 0xEE);
        }
    };

    mark_all();
    const int64_t bytes = alloc_live_bytes();
    const int64_t blocks = alloc_live();
    RtCacheEventBlock *block = nullptr;
    ASSERT_EQ(convert(kEid, RAID_MGMT_EVENT_CHANGE_OBJECT, &block), 0u);
    // 14 nodes, written from entry 2 (two virtual disks walked): 16 entries.
    EXPECT_EQ(alloc_live(), blocks + 1);
    EXPECT_EQ(alloc_live_bytes(), bytes + 4 + 16 * 16);
    EXPECT_EQ(block->u32Count, 14u);
    EXPECT_THAT(entries_of(block, 16), ElementsAre(Entry{0, 0, 0}, Entry{0, 0, 0}, Entry{4, 3, 0}, Entry{4, 3, 0},
                                                   Entry{8, 3, 0}, Entry{8, 3, 0}, Entry{8, 3, 0}, Entry{8, 3, 0},
                                                   Entry{7, 3, 0}, Entry{7, 3, 0}, Entry{2, 3, 0}, Entry{2, 3, 0},
                                                   Entry{3, 3, 0}, Entry{3, 3, 0}, Entry{5, 3, 0}, Entry{0, 3, 0}));
    // Change events mark what they visit.
    EXPECT_EQ((Codes{word_at(node->pAdapter, 96), disk0->state == 0, bytes_are(node->pBattery, 64, 8, 0),
                     bytes_are(vds[0], 84, 8, 0), bytes_are(vds[1], 84, 8, 0), bytes_are(vds[2], 84, 8, 0xAB),
                     bytes_are(object.apEMM[0], 72, 8, 0), bytes_are(object.apFan[2], 72, 8, 0),
                     bytes_are(object.apTempProbe[0], 72, 8, 0), bytes_are(object.apFan[4], 72, 8, 0xEE),
                     bytes_are(object.apPSU[1], 72, 8, 0xEE)}),
              (Codes{0x20005, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
    rtvox_free(block);

    // A second conversion counts on: 28 entries, the list again from entry 2.
    mark_all();
    ASSERT_EQ(convert(kEid, 7, &block), 0u);
    EXPECT_EQ((Codes{alloc_live_bytes() - bytes, block->u32Count}), (Codes{4 + 28 * 16, 28}));
    const std::vector<Entry> second = entries_of(block, 28);
    EXPECT_THAT(std::vector(second.begin() + 14, second.begin() + 17),
                ElementsAre(Entry{5, 7, 0}, Entry{0, 7, 0}, Entry{0, 0, 0}));
    EXPECT_EQ(second[2], (Entry{4, 7, 0}));
    // Elements are marked whatever the event type; the controller, battery and
    // virtual disks for change events only.
    EXPECT_EQ((Codes{bytes_are(object.apEMM[1], 72, 8, 0), word_at(node->pAdapter, 96),
                     bytes_are(node->pBattery, 64, 8, 0xFF), bytes_are(vds[1], 84, 8, 0xAB)}),
              (Codes{1, 0x05, 1, 1}));
    rtvox_free(block);
}

TEST_F(Views, ConversionFailuresAnswerTheirCodesAndLeaveNoBlockBehind)
{
    // A node under an EID that is not registered (the release walk would not
    // free its members: it is taken back below).
    RtCacheCtrlNode *stray = controller(RTCACHE_NODE_CONTROLLER, false);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 0x40, 0x40, stray), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, kEid, kEid, controller(RTCACHE_NODE_CONTROLLER, false)), 0u);
    RtCacheEventBlock *block = nullptr;
    const int64_t live = alloc_live();

    EXPECT_EQ(convert(kEid, 3, nullptr), 2u);
    EXPECT_EQ(convert(255, 3, &block), 2u);
    EXPECT_EQ(trace_count("<-- err null inputs"), 2);
    // Not registered: the controller's own node is counted, no block is made.
    EXPECT_EQ(convert(0x40, 3, &block), 1u);
    EXPECT_TRUE(trace_has(5, "<-- rtcache_ConvertCacheToEvent error s32Temp 255"));
    EXPECT_EQ(gRTCache_EventCount, 1u);
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    EXPECT_EQ(convert(kEid, 3, &block), 3u);
    EXPECT_TRUE(trace_has(1, "<-- err mutex fail"));
    for (uint32_t failing : {1u, 3u, 4u}) {  // either snapshot table's data block, then the block itself
        SCOPED_TRACE(failing);
        trace_start();
        alloc_fail(failing, 1);
        EXPECT_EQ(convert(kEid, 3, &block), 3u);
        EXPECT_TRUE(trace_has(1, "<-- error malloc fail"));
        EXPECT_EQ(alloc_live(), live);
    }
    EXPECT_EQ(block, nullptr);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 0x40, 0x40, nullptr), 0u);
    rtcache_FreeRMObjects(stray->pAdapter, 1);
    rtvox_free(stray);
}

// ---- the dump ----------------------------------------------------------------------------------

TEST_F(Views, PrintCacheWritesTheDumpOnlyWhenItsFileExists)
{
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, kEid, kEid, controller(RTCACHE_NODE_CONTROLLER, true)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, kHba, kHba, controller(RTCACHE_NODE_HBA, false)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, 0x30, 0x30, rtvox_alloc(RTCACHE_CTRL_NODE_SIZE)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 0, cached_pd_node(0)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 5, enclosure_node(RTCACHE_PDNODE_BACKPLANE, enclosure_record(1, L"BP.5"))),
              0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kEid, 6, enclosure_node(RTCACHE_PDNODE_EXTERNAL, nullptr)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kHba, 1, cached_pd_node(1)), 0u);
    ASSERT_EQ(store(RTCACHE_KEY_PD, kHba, 2, pd_node(RTCACHE_PDNODE_PHYSICALDISK)), 0u);  // no record: not listed
    ASSERT_EQ(store(RTCACHE_KEY_VD, kEid, 3, cached_vd(3)), 0u);

    EXPECT_NE(rtcache_PrintCache(), 0);
    EXPECT_FALSE(root.exists("/tmp/rtvox_cache.log"));

    root.touch("/tmp/rtvox_cache.log", "an older dump that is replaced\n");
    EXPECT_EQ(rtcache_PrintCache(), 0);
    std::string expected = " >>>> Controllers >>>>\nEID=33 RAID.Slot.1-1\nEID=34 SAS.Slot.4-1\nEID=48 (null)\n";
    for (uint32_t index = 0; index < max_adapters; ++index) {
        expected += " >>>> PDs >>>>\n";
        if (index == 0) {
            expected += "Index=0 DeviceID=1 Disk.Bay.1:Enclosure.Internal.0-1:RAID.Slot.1-1\n";
        }
        if (index == kIndex) {
            expected += "Index=2 DeviceID=0 Disk.Bay.0:Enclosure.Internal.0-1:RAID.Slot.1-1\nIndex=2 DeviceID=5 BP.5\n";
        }
        expected += " >>>> VDs >>>>\n";
        if (index == kIndex) {
            expected += "Index=2 TargetID=3 Disk.Virtual.3:RAID.Slot.1-1\n";
        }
    }
    EXPECT_EQ(root.read("/tmp/rtvox_cache.log"), expected);
}

}  // namespace

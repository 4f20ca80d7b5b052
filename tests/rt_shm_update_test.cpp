// The inventory region: its initialisation, the drive-polling flag of region
// 55, the update from the cache and the dump. Records are built and the region
// is read back by byte offset, never through the library's structs.
#include <gmock/gmock.h>

#include <algorithm>
#include <tuple>

#include "rt_shm_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;
using namespace rtvox::test::shm;
using ::testing::ElementsAre;
using Values = std::vector<uint64_t>;

namespace {

constexpr uint8_t TAVO = RTCACHE_EIDTYPE_TAVO;
constexpr uint8_t HBA = RTCACHE_EIDTYPE_HBA;
constexpr uint8_t MIRU = RTCACHE_EIDTYPE_MIRU;
constexpr uint64_t kNone = 0xFFFFFFFFu;
constexpr const char *kMarker = "/flash/data0/oem_ps/pdthermaldisabled";

void *record(uint32_t objType)
{
    void *made = rtvox_alloc(RTRAID_RECORD_SIZE);
    poke(made, 0, 4, objType);
    return made;
}

// A controller node whose values derive from the EID: temperatures 40 + EID
// and 60 + EID, PCI slot 0x80 | EID, battery state 0x34 + EID.
void add_controller(uint8_t slot, uint8_t eid, uint8_t type, uint16_t subDevice = 0x1F38, uint8_t modularId = 0,
                    bool withPci = true)
{
    add_eid(slot, eid, type);
    rtcache_SetModularId(eid, modularId);
    auto *node = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
    node->pAdapter = static_cast<RtAdapter *>(record(RTRAID_OBJTYPE_ADAPTER));
    poke(node->pAdapter, 120, 4, 40 + eid);
    poke(node->pAdapter, 124, 4, 60 + eid);
    poke(node->pAdapter, 128, 8, 0x1122334455667700u + eid);
    poke(node->pAdapter, 136, 8, 0x8877665544332200 + eid);
    poke(node->pAdapter, 144, 1, 0xA0 + eid);
    poke(node->pAdapter, 145, 1, eid & 1);
    if (withPci) {
        node->pPciInfo = static_cast<RtCachePciInfo *>(rtvox_alloc(16));
        poke(node->pPciInfo, 0, 8, 0x0000'1028'005F'1000 | uint64_t{subDevice} << 48);
        poke(node->pPciInfo, 8, 2, 0x0100 | (2 * eid + 1));  // the low bit of the first byte is dropped
    }
    node->pBattery = static_cast<RtBattery *>(record(5));
    poke(node->pBattery, 64, 8, 0x1234 + eid);
    ASSERT_EQ(store(RTCACHE_KEY_ADAPTER, eid, eid, node), 0u);
}

// A physical-disk record: slot, protocol 6, solid state, form factor 3,
// 15000 rpm, 931 GiB, the enclosure id and description; its entry:
// temperature 33, status 0x10, impedance 2, enclosure type 9.
RtCachePdNode *drive(uint8_t slot, uint16_t enclId = 0xFFFF, const wchar_t *description = nullptr)
{
    void *disk = record(RTRAID_OBJTYPE_PHYSICALDISK);
    poke(disk, 76, 8, (uint64_t{931} << 30) + 12345);
    poke(disk, 121, 1, slot);
    poke(disk, 123, 3, 0x030206);
    poke(disk, 126, 2, enclId);
    poke(disk, 128, 4, 15000);
    poke(disk, 132, 4, reinterpret_cast<uintptr_t>(description));
    RtCachePdNode *node = disk_node(static_cast<RtPhysicalDisk *>(disk));
    poke(node->enclObj, 100, 5, 0x09'02'21'0010);
    return node;
}

enum class Encl { None, Backplane, BackplaneNoEntry, BackplaneNoInner, External, ExternalFlagged, ExternalNoInner };

// An enclosure node whose record has bay id 0x21 and whose entry enclosure type 5.
RtCachePdNode *enclosure(Encl kind)
{
    const bool backplane = kind == Encl::Backplane || kind == Encl::BackplaneNoEntry || kind == Encl::BackplaneNoInner;
    RtCachePdNode *node =
        pd_node(backplane ? RTCACHE_PDNODE_BACKPLANE : RTCACHE_PDNODE_EXTERNAL, kind != Encl::BackplaneNoEntry);
    if (node->enclObj != nullptr) {
        poke(node->enclObj, 104, 2, kind == Encl::ExternalFlagged ? 0x0105 : 0x0005);
        if (kind != Encl::BackplaneNoInner && kind != Encl::ExternalNoInner) {
            node->enclObj->enclType.extEncl.Obj = static_cast<RtEnclosure *>(record(RTRAID_OBJTYPE_ENCLOSURE));
            poke(node->enclObj->enclType.extEncl.Obj, 71, 1, 0x21);
        }
    }
    return node;
}

// Entry k of tables in region 3, given as pairs of table offset and element width.
Values entry(size_t k, std::initializer_list<size_t> tables)
{
    Values out;
    for (const size_t *t = tables.begin(); t != tables.end(); t += 2) {
        out.push_back(le(kInventory, t[0] + t[1] * k, t[1]));
    }
    return out;
}

// Drive entry k as published: count, slot, protocol, media, form factor,
// temperature, rpm, status, capacity, impedance, bay, chassis slot, enclosure type.
Values drive_entry(size_t k)
{
    const size_t d = kDrives;
    Values out = entry(k, {d + 259,  1, d + 514,  1, d + 769,  1, d + 1024, 1, d + 1279, 1, d + 1534, 4,
                           d + 2809, 2, d + 3319, 2, d + 3829, 1, d + 4,    1, d + 4084, 1, d + 4339, 1});
    out.insert(out.begin(), le(kInventory, d, 4));
    return out;
}

// Controller entry i: slot, temperature, battery temperature, the four ids,
// card location, address 1, kind, flag, thermal-poll byte, address 2.
Values controller_entry(size_t i)
{
    return entry(i,
                 {4, 1, 20, 4, 84, 4, 148, 4, 212, 4, 276, 4, 340, 4, 404, 1, 420, 8, 548, 1, 564, 1, 580, 1, 596, 8});
}

class Update : public CacheTest {
protected:
    // Empties the cache (everything it holds goes) and starts afresh with
    // `disks` physical-disk slots per controller.
    static void restart(uint32_t disks = 512)
    {
        rtcache_Destroy();
        ASSERT_EQ(alloc_live(), 0);
        max_physicaldevices = disks;
        ASSERT_EQ(rtcache_Init(), 0u);
        vornhost_shm_zero(VORNHOST_SHM_ALL);
        trace_start();
    }
    static void update()
    {
        ASSERT_EQ(rtcache_GetLock(), 0u);
        EXPECT_EQ(RTSHM_UpdateSharedMem(), 0);
        SMMutexUnLock(mutexRtCache);
    }
};

TEST_F(Update, ControllersOfEachKindAndTheirBatteries)
{
    add_controller(0, 2, TAVO);
    add_controller(1, 3, HBA);
    add_controller(2, 5, MIRU);
    add_controller(3, 7, TAVO, 8006);  // excluded (and without battery temperature): nothing else of it
    ASSERT_EQ(store(RTCACHE_KEY_PD, 7, 0, drive(1)), 0u);
    add_controller(4, 8, TAVO, 8011);       // no battery temperature
    add_controller(5, 9, TAVO, 0x1F38, 3);  // modular: no battery
    add_eid(6, 10, 7);
    add_eid(7, 11, TAVO);  // no node
    add_controller(8, 12, TAVO, 0x1F38, 0, false);
    for (bool pollingOff : {false, true}) {
        SCOPED_TRACE(pollingOff);
        vornhost_shm_bytes(kPolling)[522] = pollingOff ? 0x01 : 0x00;
        trace_start();
        update();
        auto row = [&](uint8_t eid, uint64_t temp, uint64_t batteryTemp, uint16_t subDevice, uint8_t location,
                       uint8_t kind, uint8_t thermal) {
            const bool off = pollingOff && kind == 0;
            return Values({0x80u | eid, off ? kNone : temp, off ? kNone : batteryTemp, 0x1000, 0x5F, 0x1028, subDevice,
                           location, 0x1122334455667700u + eid, kind, 0xA0u + eid, thermal, 0x8877665544332200u + eid});
        };
        const uint8_t other = pollingOff ? 1 : 0;  // HBA and MIRU follow the platform flag
        EXPECT_EQ(le(kInventory, 0, 4), 6u);
        EXPECT_EQ(controller_entry(0), row(2, 42, 62, 0x1F38, 0, 0, 0));
        EXPECT_EQ(controller_entry(1), row(3, kNone, kNone, 0x1F38, 0, 1, other));
        EXPECT_EQ(controller_entry(2), row(5, kNone, kNone, 0x1F38, 0, 2, other));
        EXPECT_EQ(controller_entry(3), row(7, 47, kNone, 8006, 0, 0, 254));
        EXPECT_EQ(controller_entry(4), row(8, 48, kNone, 8011, 0, 0, 0));
        EXPECT_EQ(controller_entry(5), row(9, 49, 69, 0x1F38, 3, 0, 1));
        EXPECT_EQ(le(kInventory, 4 + 6, 1), 0xFFu);  // beyond the count
        // Batteries: slot and state of EIDs 2 and 8, then the published mark.
        EXPECT_EQ(entry(0, {kBatteries, 4, kBatteries + 4, 2, kBatteries + 12, 3, kBatteries + 20, 4}),
                  (Values{2, 0x8882, 0xFF3C36, 1}));
        EXPECT_EQ(le(kInventory, kDrives, 4), 0u);  // EID 7's drive is not published
        EXPECT_THAT(texts(6, "RTSHM_UpdateSharedMem"),
                    ElementsAre("ControllerStruct 724 PDStruct 4594 BatteryStruct 24", "NOT AN INTEGRATED CONTROLLER",
                                "IS A MODULAR CONTROLLER", " contiue2 11", " contiue2 12"));
        EXPECT_TRUE(trace_has(4, "UpdateSHM: ctrlId=10 u8Type=7") &&
                    trace_has(4, "Not TAVO or HBA or MIRU, ignoring 7"));
        EXPECT_TRUE(
            trace_has(2, std::string("TermalPollingState.u8DisableDrivePolling ") + (pollingOff ? "1 " : "0 ")));
    }
}

TEST_F(Update, DrivesDownEveryBranchOfTheEnclosureDecision)
{
    // The controller type, the drive's enclosure id and description, the enclosure
    // cached; what is published; a line traced at a level (none when null).
    using Case =
        std::tuple<uint8_t, uint16_t, Encl, const wchar_t *, uint64_t, uint64_t, uint64_t, uint64_t, int, const char *>;
    const Case cases[] = {
        {TAVO, 0xFFFF, Encl::None, L"Tape drive", 1, 2, 0, 9, 0, nullptr},
        {TAVO, 0xFFFF, Encl::None, L"Direct attached", 1, 1, 0, 9, 2, "u16EnclDeviceID is not proper 65535"},
        {TAVO, 0xFFFF, Encl::None, nullptr, 1, 1, 0, 9, 2, "u16EnclDeviceID is not proper 65535"},
        {TAVO, 0xFFFF, Encl::None, L"Expander", 0, 1, 0, 9, 2, "Disk attached to an enclosure, so continue"},
        {MIRU, 5, Encl::None, L"Expander", 0, 1, 0, 9, 2, "Failed to get the enclosure object"},
        {TAVO, 5, Encl::None, L"Integrated", 1, 1, 0, 9, 2, "Failed to get the enclosure object"},
        {TAVO, 5, Encl::Backplane, L"Expander", 1, 1, 0x21, 5, 0, nullptr},
        {TAVO, 5, Encl::BackplaneNoEntry, nullptr, 1, 1, 0, 9, 6, " pPDCache->enclObj is NULL"},
        {TAVO, 5, Encl::BackplaneNoInner, nullptr, 1, 1, 0, 9, 2, " pPDCache->enclObj->enclType.backPlane.Obj is NULL"},
        {TAVO, 5, Encl::ExternalFlagged, L"SAS", 1, 1, 0x21, 1, 6, "enclosure is not of type BACKPLANE"},
        {TAVO, 5, Encl::External, L"Direct", 1, 1, 0, 9, 6, "enclosure is not of type BACKPLANE"},
        {TAVO, 5, Encl::External, L"SAS", 0, 1, 0, 9, 6, "Disk attached to an enclosure, so continue"},
        {HBA, 5, Encl::Backplane, L"SAS", 1, 1, 0x21, 9, 0, nullptr},
        {HBA, 5, Encl::ExternalFlagged, L"SAS", 1, 1, 0x21, 9, 0, nullptr},
        {HBA, 5, Encl::External, nullptr, 1, 1, 0, 9, 6, "enclosure is not of type BACKPLANE 5"},
        {HBA, 5, Encl::External, L"SAS", 0, 1, 0, 9, 6, "Disk attached to an enclosure, so continue"},
        {HBA, 5, Encl::BackplaneNoEntry, L"SAS", 1, 1, 0, 9, 6, " pPDCache->enclObj is NULL"},
        {HBA, 5, Encl::ExternalNoInner, L"SAS", 1, 1, 0, 9, 2, " pPDCache->enclObj->enclType.extEncl.Obj is NULL"},
        {MIRU, 5, Encl::Backplane, nullptr, 1, 1, 0, 9, 0, nullptr},
    };
    for (const auto &[type, enclId, encl, description, count, media, bay, enclType, level, line] : cases) {
        SCOPED_TRACE(testing::Message() << int{type} << " " << enclId << " " << static_cast<int>(encl));
        restart();
        add_controller(0, 1, type);
        ASSERT_EQ(store(RTCACHE_KEY_PD, 1, 0, drive(4, enclId, description)), 0u);
        if (encl != Encl::None) {
            ASSERT_EQ(store(RTCACHE_KEY_PD, 1, 5, enclosure(encl)), 0u);
        }
        update();
        // A skipped drive's values stay in entry 0 beyond the count.
        EXPECT_EQ(drive_entry(0),
                  (Values{count, 4, 6, media, 3, 33, 15000, type == HBA ? 0x11u : 0x10u, 931, 2, bay, bay, enclType}));
        if (line != nullptr) {
            EXPECT_TRUE(trace_has(level, line));
        }
    }
}

TEST_F(Update, MultipathAndIncompleteNodesAreSkipped)
{
    add_controller(0, 1, TAVO);
    RtCachePdNode *secondary = drive(10);
    RtCachePdNode *primary = drive(11);
    for (RtCachePdNode *path : {secondary, primary}) {
        poke(path->enclObj, 106, 4, 0x0001'00'01);  // multipath, primary at key 1
    }
    RtCachePdNode *noRecord = pd_node(RTCACHE_PDNODE_PHYSICALDISK);
    for (auto [key, node] : {std::pair{0u, secondary},
                             {1u, primary},
                             {2u, enclosure(Encl::Backplane)},
                             {3u, pd_node(RTCACHE_PDNODE_PHYSICALDISK, false)},
                             {4u, noRecord},
                             {6u, drive(16, 0xFFFF, L"Expander")}}) {
        ASSERT_EQ(store(RTCACHE_KEY_PD, 1, key, node), 0u);
    }
    update();
    EXPECT_EQ((Values{drive_entry(0)[0], drive_entry(0)[1], drive_entry(1)[1]}), (Values{1, 11, 16}));
    EXPECT_THAT(texts(6, "RTSHM_UpdateSharedMem"),
                ElementsAre("ControllerStruct 724 PDStruct 4594 BatteryStruct 24",
                            " Not of type PHYSICALDISK, so continue", " pPDCache->enclObj is NULL, so continue",
                            " pPDCache->enclObj->enclType.physicalDisk.Obj is NULL, so continue"));
    EXPECT_TRUE(trace_has(4, " drive:0x0 is in multipath but not primary"));
}

TEST_F(Update, ControllerDriveAndIndexLimits)
{
    // 17 controllers: the walk stops at 16, before EID 16 is looked at.
    for (uint8_t eid = 0; eid < 17; ++eid) {
        add_controller(eid, eid, HBA);
    }
    update();
    EXPECT_EQ(le(kInventory, 0, 4), 16u);
    EXPECT_FALSE(trace_has(4, "ctrlId=16 "));

    // EID 254 is the last one examined; 255 drives at most, over two controllers.
    restart();
    add_controller(0, 200, TAVO);
    add_controller(1, 254, TAVO);
    for (uint16_t key = 0; key < 200; ++key) {
        ASSERT_EQ(store(RTCACHE_KEY_PD, 200, key, drive(static_cast<uint8_t>(key))), 0u);
        ASSERT_EQ(store(RTCACHE_KEY_PD, 254, key, drive(static_cast<uint8_t>(key + 50))), 0u);
    }
    update();
    EXPECT_EQ((Values{le(kInventory, 0, 4), drive_entry(0)[0], drive_entry(199)[1], drive_entry(254)[1]}),
              (Values{2, 255, 199, 104}));

    // Per controller the keys below max_physicaldevices - 1; none with a limit of 1.
    for (uint32_t limit : {4u, 1u}) {
        restart(limit);
        add_controller(0, 1, TAVO);
        for (uint32_t key = 0; key < limit; ++key) {
            ASSERT_EQ(store(RTCACHE_KEY_PD, 1, key, drive(static_cast<uint8_t>(key))), 0u);
        }
        update();
        EXPECT_EQ(le(kInventory, kDrives, 4), limit - 1);
    }
    restart();
}

TEST_F(Update, FailuresOfTheRegionsStopNothing)
{
    add_controller(0, 1, TAVO);
    ASSERT_EQ(store(RTCACHE_KEY_PD, 1, 0, drive(4)), 0u);
    vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1);  // the polling flag: polling stays on
    vornhost_shm_bytes(kPolling)[522] = 0x01;
    update();
    EXPECT_TRUE(trace_has(2, "Unable to read Thermal flag from  Shared memeory"));
    EXPECT_EQ((Values{le(kInventory, 20, 4), drive_entry(0)[5]}), (Values{41, 33}));

    // Every write fails after the partial init: the tables stay 0xFF, the dump still runs.
    vornhost_shm_bytes(kPolling)[522] = 0;
    const uint32_t writes = vornhost_call_count(VORNHOST_Vorn_shm_memwrite);
    vornhost_fail(VORNHOST_Vorn_shm_memwrite, 2, 3);
    trace_start();
    update();
    EXPECT_EQ(vornhost_call_count(VORNHOST_Vorn_shm_memwrite), writes + 5);
    EXPECT_EQ((Values{le(kInventory, 0, 4), le(kInventory, kDrives, 4), le(kInventory, kBatteries, 4)}),
              (Values{kNone, kNone, 1}));
    EXPECT_TRUE(trace_has(6, "*********** dumping sharedm memory contents ***********"));
}

using Regions = CacheTest;

// Bytes [from, to) of region 3 all hold `value`.
bool all_bytes(size_t from, size_t to, uint8_t value)
{
    const uint8_t *bytes = vornhost_shm_bytes(kInventory);
    return std::all_of(bytes + from, bytes + to, [&](uint8_t b) { return b == value; });
}

TEST_F(Regions, InitFillsTheTablesAndAnswersTheLastWrite)
{
    EXPECT_EQ(RTSHM_InitSharedMem(), 0);
    EXPECT_TRUE(all_bytes(0, 5342, 0xFF));  // the battery count at 5318 included

    put_le(kInventory, kBatteries, 4, 2);  // a published battery table survives the partial init
    put_le(kInventory, kBatteries + 20, 4, 1);
    put_le(kInventory, 0, 4, 3);
    put_le(kInventory, kDrives + 1534, 4, 7200);
    EXPECT_EQ(RTSHM_InitPartialSharedMem(), 0);
    EXPECT_TRUE(all_bytes(0, kBatteries, 0xFF));
    EXPECT_EQ(le(kInventory, kBatteries, 4) + le(kInventory, kBatteries + 20, 4), 3u);

    // Only the last write's result counts: failing the first writes changes nothing in it.
    const std::tuple<int32_t (*)(), uint32_t, int32_t> cases[] = {{RTSHM_InitSharedMem, 0, 0},
                                                                  {RTSHM_InitSharedMem, 2, VORNHOST_E_INJECTED},
                                                                  {RTSHM_InitPartialSharedMem, 0, 0},
                                                                  {RTSHM_InitPartialSharedMem, 1, VORNHOST_E_INJECTED}};
    for (const auto &[init, skip, result] : cases) {
        vornhost_fail(VORNHOST_Vorn_shm_memwrite, skip, 1);
        EXPECT_EQ(init(), result);
    }
}

TEST_F(Regions, ThermalPollingFlagFromThePlatformOrTheMarkerFile)
{
    // platform byte, marker present, byte read back
    const std::tuple<uint8_t, bool, uint8_t> cases[] = {
        {0x00, false, 0x00}, {0x03, false, 0x03}, {0x04, true, 0x05}, {0x01, true, 0x01}};
    for (const auto &[platform, marker, flags] : cases) {
        SCOPED_TRACE(static_cast<int>(platform));
        vornhost_shm_bytes(kPolling)[522] = platform;
        vornhost_shm_bytes(kPolling)[525] = 0xA5;
        if (marker) {
            root.touch(kMarker);
        }
        trace_start();
        sVOXTAVODrivePolling polling{};
        EXPECT_EQ(RTSHM_ReadSharedThermalPolling(&polling), 0u);
        EXPECT_EQ((std::vector<int>{polling.u8DisableDrivePolling, polling.au8Other[2]}),
                  (std::vector<int>{flags, 0xA5}));
        EXPECT_EQ(trace_has(2, "RTSHM_ReadSharedThermalPolling  /flash/data0/oem_ps/pdthermaldisabled"), marker);
        EXPECT_TRUE(trace_has(6, "Successfully Read sVOXTAVODrivePolling Shared Memory"));
    }

    sVOXTAVODrivePolling polling{0x40, {1, 2, 3}};
    vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1);
    EXPECT_EQ(RTSHM_ReadSharedThermalPolling(&polling), 3u);  // the marker is not looked at
    EXPECT_EQ(polling.u8DisableDrivePolling, 0x40);
    EXPECT_TRUE(trace_has(2, "Failed to Read sVOXTAVODrivePolling Shared Memory"));
    EXPECT_EQ(RTSHM_ReadSharedThermalPolling(nullptr), 2u);
    EXPECT_TRUE(trace_has(2, "<--  RTSHM_ReadSharedThermalPolling error"));
}

TEST_F(Regions, DumpPrintsEveryFieldOfEveryCountedEntryInOrder)
{
    RTSHM_InitSharedMem();
    trace_start();
    RTSHM_DumpSharedMem();  // counts of -1: no entries
    EXPECT_EQ(texts(6, "RTSHM_DumpSharedMem").size(), 3u);
    EXPECT_TRUE(texts(2, "RTSHM_DumpSharedMem").empty());

    // One controller, one drive, one battery, planted as (offset, width, value) triples.
    const size_t d = kDrives, b = kBatteries;
    const uint64_t planted[] = {0,        4, 1,      4,        1, 3,      20,       4, 45,     148,      4, 0x1000,
                                212,      4, 0x1001, 276,      4, 0x1002, 340,      4, 0x1003, 404,      1, 2,
                                580,      1, 254,    d,        4, 1,      d + 1534, 4, 15000,  d + 2809, 2, 0xBEEF,
                                d + 3319, 2, 931,    d + 3829, 1, 5,      d + 4084, 1, 6,      d + 4339, 1, 7,
                                b,        4, 1,      b + 4,    1, 3,      b + 12,   1, 9,      b + 20,   4, 1};
    for (size_t i = 0; i < std::size(planted); i += 3) {
        put_le(kInventory, planted[i], planted[i + 1], planted[i + 2]);
    }
    for (size_t field = 0; field < 6; ++field) {  // bay, slot, protocol, media, form factor, temperature
        put_le(kInventory, kDrives + 4 + 255 * field, 1, 10 + field);
    }
    vornhost_shm_bytes(kPolling)[522] = 0xFF;
    trace_start();
    RTSHM_DumpSharedMem();
    EXPECT_THAT(
        texts(6, "RTSHM_DumpSharedMem"),
        ElementsAre("*********** dumping sharedm memory contents ***********",
                    "sVOXTavoInventory:724 sVOXSASSATAInventory:4594 sVOXTAVOBatteryInventory:24 "
                    "sVOXTAVODrivePolling:4 VOX_TAVO_DRIVE_POLLING_OFFSET:522",
                    "controller struct 0 of 1", "au8PCISlot=3 ", "au32Temp=45 ", "au32BatteryTemp=-1 ",
                    "PCI IDs.=[4096-4097-4098-4099]", "au8CardLocation=2 ", "thermalPDPollDisable=254 ",
                    "PD struct 0 of 1", "au8DriveBayID=10 ", "au8DriveOccupiedSlot=11 ", "au8DriveProtocolType=12 ",
                    "au8DriveMediaType=13 ", "au8DriveFormFactor=14 ", "au8Temp=15 ", "au32NominalRPM=15000 ",
                    "pdShmStatus beef ", "au16DriveCapacity 931 ", "au8DriveImpendance 5 ", "au8ChassisSlot 6 ",
                    "au8EnclosureTyoe 7 ", "Battery struct 0 of 1", "au8Slot=3", "au8State=9", "rtvox_inventory=1",
                    "sVOXTAVODrivePolling.u8DisableDrivePolling = 1"));

    // Counts beyond a table print what it holds; a table that cannot be read prints as empty.
    put_le(kInventory, 0, 4, 17);
    put_le(kInventory, kDrives, 4, 1000);
    put_le(kInventory, kBatteries, 4, 0);
    vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1);
    trace_start();
    RTSHM_DumpSharedMem();
    EXPECT_EQ(trace_count("controller struct"), 0);
    EXPECT_EQ(trace_count("PD struct"), 255);
    EXPECT_THAT(texts(2, "RTSHM_DumpSharedMem"), ElementsAre("count 1000 is beyond the 255 entries of the table"));
}

}  // namespace

// The inventory regions: initialisation of region 3, the drive-polling flag
// of region 55 and the dump.
#include <gmock/gmock.h>

#include "rt_shm_region_fixtures.h"
#include "rtvox/rt_shm.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;
using ::testing::ElementsAre;

namespace {

constexpr const char *kMarker = "/flash/data0/oem_ps/pdthermaldisabled";

class Regions : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        trace_start();
    }
    TempRoot root;
};

bool all_bytes(uint32_t region, size_t from, size_t to, uint8_t value)
{
    for (size_t i = from; i < to; ++i) {
        if (vornhost_shm_bytes(region)[i] != value) {
            return false;
        }
    }
    return true;
}

TEST_F(Regions, InitFillsTheTablesAndAnswersTheLastWrite)
{
    EXPECT_EQ(RTSHM_InitSharedMem(), 0);
    EXPECT_TRUE(all_bytes(kInventory, 0, 5342, 0xFF));
    EXPECT_EQ(static_cast<int32_t>(le(kInventory, kBatteries, 4)), -1);

    put_le(kInventory, kBatteries, 4, 2);  // a published battery table survives the partial init
    put_le(kInventory, kBatteries + 20, 4, 1);
    put_le(kInventory, 0, 4, 3);
    put_le(kInventory, kDrives + 1534, 4, 7200);
    EXPECT_EQ(RTSHM_InitPartialSharedMem(), 0);
    EXPECT_TRUE(all_bytes(kInventory, 0, kBatteries, 0xFF));
    EXPECT_EQ(le(kInventory, kBatteries, 4) + le(kInventory, kBatteries + 20, 4), 3u);

    // Only the last write's result counts: failing the first writes changes nothing in it.
    const struct {
        int32_t (*init)();
        uint32_t skip;
        int32_t result;
    } cases[] = {{RTSHM_InitSharedMem, 0, 0},
                 {RTSHM_InitSharedMem, 2, VORNHOST_E_INJECTED},
                 {RTSHM_InitPartialSharedMem, 0, 0},
                 {RTSHM_InitPartialSharedMem, 1, VORNHOST_E_INJECTED}};
    for (const auto &c : cases) {
        vornhost_fail(VORNHOST_Vorn_shm_memwrite, c.skip, 1);
        EXPECT_EQ(c.init(), c.result);
    }
}

TEST_F(Regions, ThermalPollingFlagFromThePlatformOrTheMarkerFile)
{
    // platform byte, marker present, result, byte read back
    const struct {
        uint8_t platform;
        bool marker;
        uint32_t result;
        uint8_t flags;
    } cases[] = {{0x00, false, 0, 0x00}, {0x03, false, 0, 0x03}, {0x04, true, 0, 0x05}, {0x01, true, 0, 0x01}};
    for (const auto &c : cases) {
        SCOPED_TRACE(static_cast<int>(c.platform));
        vornhost_shm_bytes(kPolling)[522] = c.platform;
        vornhost_shm_bytes(kPolling)[525] = 0xA5;
        if (c.marker) {
            root.touch(kMarker);
        }
        trace_start();
        sVOXTAVODrivePolling polling{};
        EXPECT_EQ(RTSHM_ReadSharedThermalPolling(&polling), c.result);
        EXPECT_EQ((std::vector<int>{polling.u8DisableDrivePolling, polling.au8Other[2]}),
                  (std::vector<int>{c.flags, 0xA5}));
        EXPECT_EQ(trace_has(2, "RTSHM_ReadSharedThermalPolling  /flash/data0/oem_ps/pdthermaldisabled"), c.marker);
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

    // One controller, one drive, one battery, planted by offset.
    put_le(kInventory, 0, 4, 1);
    put_le(kInventory, 4, 1, 3);
    put_le(kInventory, 20, 4, 45);
    for (size_t id = 0; id < 4; ++id) {
        put_le(kInventory, 148 + 64 * id, 4, 0x1000 + id);
    }
    put_le(kInventory, 404, 1, 2);
    put_le(kInventory, 580, 1, 254);
    put_le(kInventory, kDrives, 4, 1);
    for (size_t field = 0; field < 6; ++field) {  // bay, slot, protocol, media, form factor, temperature
        put_le(kInventory, kDrives + 4 + 255 * field, 1, 10 + field);
    }
    put_le(kInventory, kDrives + 1534, 4, 15000);
    put_le(kInventory, kDrives + 2809, 2, 0xBEEF);
    put_le(kInventory, kDrives + 3319, 2, 931);
    put_le(kInventory, kDrives + 3829, 1, 5);
    put_le(kInventory, kDrives + 4084, 1, 6);
    put_le(kInventory, kDrives + 4339, 1, 7);
    put_le(kInventory, kBatteries, 4, 1);
    put_le(kInventory, kBatteries + 4, 1, 3);
    put_le(kInventory, kBatteries + 12, 1, 9);
    put_le(kInventory, kBatteries + 20, 4, 1);
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

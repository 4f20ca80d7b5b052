// PCIe SSD slot mapping: region-20 reads by offset, the presence sequence,
// the firmware version, the scans of the NVMe view, the PCIe SSD FQDD over
// the region-15 directory, and the reset of region 26. Region bytes are
// planted and read back through the host by offset.
#include <functional>
#include <numeric>
#include <tuple>

#include "rt_shm_fixtures.h"
#include "rtvox/rt_kwlogwrp.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;
using Bytes = std::vector<uint8_t>;

namespace {

uint8_t *region(uint32_t id)
{
    return vornhost_shm_bytes(id);
}

// Slot s of bay b in the NVMe view: bay id (byte 0), bay type (6), EID (9).
void nvme_slot(uint32_t b, uint32_t s, int bayId, int type, int eid = 0)
{
    uint8_t *at = view() + slot_at(b, s);
    at[0] = static_cast<uint8_t>(bayId);
    at[6] = static_cast<uint8_t>(type);
    at[9] = static_cast<uint8_t>(eid);
}

using ShmSlots = ShmTest;

TEST_F(ShmSlots, GlobalSlotsReadTheirRegion20EntryByOffset)
{
    std::iota(region(20), region(20) + 325, 0);  // every byte holds its offset (mod 256)
    // The slot-number read takes the global slot as signed 16 bits, the bay-id
    // read all 32; 0xEE: the output was left as it was.
    const std::tuple<bool, int32_t, uint32_t, int> cases[] = {{false, 3, 0, 27},        {false, 0x10003, 0, 27},
                                                              {false, -1, 0, 11},       {true, 3, 0, 26},
                                                              {true, 0x10003, 3, 0xEE}, {true, 0x7FFFFFFF, 3, 0xEE}};
    for (const auto &[bayId, global, result, value] : cases) {
        uint8_t out = 0xEE;
        EXPECT_EQ(bayId ? RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum(&out, static_cast<uint32_t>(global))
                        : RTSHM_readSSDSlotNumFromGblSlotNum(&out, global),
                  result);
        EXPECT_EQ(out, value);
    }
    EXPECT_TRUE(trace_has(4, " After Read offset = 11  u8SlotNumInBay=11 ") &&
                trace_has(4, " After Read offset = 26  u8BayId=26 ") &&
                trace_has(2, "error, SHM Read retVal=6 262170") && trace_has(2, "error, SHM Read retVal=6 -1"));
    const uint32_t reads = vornhost_call_count(VORNHOST_Vorn_shm_memread);
    EXPECT_EQ(
        (Codes{RTSHM_readSSDSlotNumFromGblSlotNum(nullptr, 0), RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum(nullptr, 0),
               vornhost_call_count(VORNHOST_Vorn_shm_memread) - reads}),
        (Codes{0, 0, 0}));

    // The SPLIT-mode area: 40 bytes from 285, over a buffer zeroed first.
    Bytes split(41, 0x55);
    EXPECT_EQ(RTSHM_readBackplaneSharedMem(split.data()), 0u);
    EXPECT_EQ(Bytes(split.begin(), split.begin() + 40), Bytes(region(20) + 285, region(20) + 325));
    EXPECT_EQ(split[40], 0x55);
    vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1);
    EXPECT_EQ((Codes{RTSHM_readBackplaneSharedMem(split.data()), split[0], split[39], split[40],
                     RTSHM_readBackplaneSharedMem(nullptr)}),
              (Codes{3, 0, 0, 0x55, 2}));
    EXPECT_TRUE(trace_has(2, "Failed to Read BackPlane SPLIT modeShared Memory") &&
                trace_has(6, "Successfully Read BackPlane SPLIT mode Shared Memory") &&
                trace_has(2, "<--SPLIT  RTSHM_readBackplaneSharedMem error"));
}

TEST_F(ShmSlots, PresenceReadsReportOnlyAChangedSequence)
{
    RtShmPcieSsdBp bp{};
    region(20)[2] = 9;
    EXPECT_EQ(RTSHM_ReadPCIeSSDPresenceSharedMem(&bp), 5u);  // sequence 0 at the start: no change
    EXPECT_EQ(bp.u8SlotCount, 9);
    region(20)[6] = 7;
    RTSHM_PCIeSSDSimulate();  // the simulation remembers its own sequence
    EXPECT_EQ((Codes{RTSHM_ReadPCIeSSDPresenceSharedMem(&bp), RTSHM_ReadPCIeSSDPresenceSharedMem(&bp)}), (Codes{0, 5}));
    EXPECT_EQ(std::memcmp(&bp, region(20), 325), 0);
    region(20)[6] = 0;
    vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1);
    EXPECT_EQ((Codes{RTSHM_ReadPCIeSSDPresenceSharedMem(&bp), RTSHM_ReadPCIeSSDPresenceSharedMem(&bp),
                     RTSHM_ReadPCIeSSDPresenceSharedMem(nullptr)}),
              (Codes{3, 0, 2}));
    EXPECT_TRUE(trace_has(2, "error, SHM read retVal=126 0"));
}

TEST_F(ShmSlots, FirmwareVersionIsExactlyFourBytes)
{
    // Bay b's major and minor version, and the four bytes copied over "#####".
    const std::tuple<uint8_t, uint8_t, const char *> bays[] = {
        {1, 2, "1.02#"}, {0x1A, 3, "1a.0#"}, {0xAB, 0xCD, "ab.c#"}};
    for (uint32_t b = 0; b < 3; ++b) {
        const auto &[major, minor, copied] = bays[b];
        view()[10 + 8 * b] = major;
        view()[11 + 8 * b] = minor;
        char text[6] = "#####";
        EXPECT_EQ(RTSHM_ReadBpFwVersion(b, text), 0u);
        EXPECT_STREQ(text, copied);
    }
    EXPECT_TRUE(trace_has(4, "Fw Version:   2.2") && trace_has(4, "Fw Version:   cd.cd") &&
                trace_has(4, "bpFwRev:1a.0 tmpBuf=1a.0"));
    char text[6] = "#####";
    EXPECT_EQ((Codes{RTSHM_ReadBpFwVersion(3, text), RTSHM_ReadBpFwVersion(0xFFFFFFFF, text),
                     RTSHM_ReadBpFwVersion(0, nullptr)}),
              (Codes{2, 2, 2}));
    EXPECT_STREQ(text, "#####");
    EXPECT_TRUE(trace_has(2, "<-- error bay index 3 is out of range") && trace_has(2, " error"));
}

TEST_F(ShmSlots, NvmeViewScansLetTheLastMatchWin)
{
    nvme_slot(0, 5, 7, 4, 20);
    nvme_slot(1, 5, 8, 2);
    nvme_slot(2, 5, 9, 1);
    nvme_slot(1, 3, 8, 4, 20);
    nvme_slot(2, 7, 9, 1, 20);
    cache::add_eid(0, 20, 7);
    cache::add_eid(1, 21, 11);
    cache::add_eid(2, 23, 7);

    uint8_t bay = 0xEE, slot = 0xEE;
    EXPECT_EQ((Codes{RTSHM_readBayIDInfoFromGblSlotNum(&bay, 5), bay}), (Codes{0, 9}));
    EXPECT_EQ(trace_count("error!!, Not a NVMe Backplane s8BayNo=1 2"), 1);
    EXPECT_EQ((Codes{RTSHM_readBayIDInfoFromGblSlotNum(&bay, 6), RTSHM_readBayIDInfoFromGblSlotNum(&bay, 32),
                     RTSHM_readBayIDInfoFromGblSlotNum(nullptr, 5), bay}),
              (Codes{3, 2, 2, 9}));
    EXPECT_TRUE(trace_has(2, "<-- error slot index 32 is out of range"));

    EXPECT_EQ((Codes{RTSHM_readBayIDAndSlotNoFromEID(&bay, &slot, 20), bay, slot}), (Codes{0, 2, 7}));
    bay = slot = 0xEE;
    EXPECT_EQ((Codes{RTSHM_readBayIDAndSlotNoFromEID(&bay, &slot, 21), RTSHM_readBayIDAndSlotNoFromEID(&bay, &slot, 22),
                     RTSHM_readBayIDAndSlotNoFromEID(&bay, &slot, 23),
                     RTSHM_readBayIDAndSlotNoFromEID(nullptr, &slot, 20), bay, slot}),
              (Codes{0, 1, 3, 2, 0xEE, 0xEE}));
    EXPECT_TRUE(trace_has(4, "RTSHM_readBayIDAndSlotNoFromEID EID= 21 It is a PCIeSSD Add-in card ") &&
                trace_has(2, "Failed while getting slot line") &&
                trace_has(4, "--> Exits u8BayId:238, u8SSDSlotNo:238, u8Type:7"));

    uint8_t base = 0xEE;
    EXPECT_EQ((Codes{RTSHM_GetPCIeSSDGlobalSlotNumberBase(&base), base}), (Codes{0, 5}));
    EXPECT_TRUE(trace_has(4, "NVMeBP: SSD Found!! u8BpType:4 GlobaSlot=5"));
    std::memset(view(), 0, sizeof sNVMeSSDBPInfo);
    EXPECT_EQ((Codes{RTSHM_GetPCIeSSDGlobalSlotNumberBase(&base), RTSHM_GetPCIeSSDGlobalSlotNumberBase(nullptr), base}),
              (Codes{5, 2, 5}));
}

class ShmFqdd : public ShmTest {
protected:
    void SetUp() override
    {
        ShmTest::SetUp();
        plant_global_slot_5();
        alloc_reset();
    }
    static std::string fqdd(uint32_t global)
    {
        char *text = rtvox_GetPCIeSSDFQDD(global);
        const std::string out = text != nullptr ? text : "(null)";
        rtvox_free(text);
        return out;
    }
};

TEST_F(ShmFqdd, TakesTheExtenderSlotOfTheFirstMatchingDirectoryEntry)
{
    EXPECT_EQ(fqdd(5), "Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.3");
    EXPECT_EQ(fqdd(256 + 5), "Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.3");
    EXPECT_TRUE(trace_has(4, "BayID is not Matching u8Iter = 1") && trace_has(4, "u8PCIeSlotNo=3, u8bayId=1 ") &&
                trace_has(4, "rt_cache.c:rtvox_GetPCIeSSDFQDD:") && trace_has(4, "PCIeSSD FQDD: FQDD=Disk.Bay.4:"));
    region(15)[301] = 9;
    EXPECT_EQ(fqdd(5), "Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.255");
    region(15)[2] = 0x2C;  // 300 entries: the walk stops after 256
    region(15)[3] = 1;
    EXPECT_EQ(fqdd(5), "Disk.Bay.4:Enclosure.Internal.0-1:PCIeExtender.Slot.255");
    EXPECT_TRUE(trace_has(2, "entry count 300 passes the 256 entries the walk reaches"));
    EXPECT_EQ((Codes{alloc_live(), alloc_calls()}), (Codes{0, 8}));  // 65668 and 60 bytes each time
    EXPECT_EQ(alloc_total_bytes(), 4u * (65668 + 60));
}

TEST_F(ShmFqdd, EachFailureInTurnGivesNull)
{
    // What fails, the global slot asked for, the line traced at level 2.
    const std::tuple<std::function<void()>, uint32_t, const char *> cases[] = {
        {[] { vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1); }, 5, "Failed while getting slot line"},
        {[] {}, 6, "Failed while getting bayID"},
        {[] { alloc_fail(0, 1); }, 5, "Failed to allocate memory"},
        {[] { vornhost_fail(VORNHOST_Vorn_shm_memread, 1, 1); }, 5, "error, SHM read retVal=126 0"},
        {[] { vornhost_fail(VORNHOST_Vorn_shm_memread, 2, 1); }, 5, "error, SHM read retVal=126 200"},
        {[] { region(15)[16] = 0xFE, region(15)[17] = 0xFF; }, 5, "error, SHM read retVal=6 65534"},
        {[] { alloc_fail(1, 1); }, 5, "rtvox_GetPCIeSSDFQDD Failed while constructing FQDD"},
    };
    for (const auto &[arm, global, line] : cases) {
        SCOPED_TRACE(line);
        vornhost_reset();
        trace_start();
        plant_global_slot_5();
        alloc_reset();
        arm();
        EXPECT_EQ(fqdd(global), "(null)");
        EXPECT_TRUE(trace_has(2, line));
        EXPECT_EQ(alloc_live(), 0);
        alloc_fail_clear();
    }
}

TEST_F(ShmSlots, InitFillsRegion26ThenAnnouncesItWith1065)
{
    EXPECT_EQ(RTSHM_InitPCIeSSDSharedMem(), 0u);
    EXPECT_EQ(Bytes(region(26), region(26) + 11444), Bytes(11444, 0xFF));
    VornHostSingle single{};
    EXPECT_EQ(vornhost_single_get(0, &single), 0);
    EXPECT_EQ(Bytes(single.bytes, single.bytes + single.length),
              (Bytes{16, 0, 0, 0, 0x29, 0x04, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    // Without its buffer nothing is written or announced; a failed write is still announced.
    vornhost_reset();
    trace_start();
    alloc_reset();
    alloc_fail(0, 1);
    EXPECT_EQ((Codes{RTSHM_InitPCIeSSDSharedMem(), vornhost_call_count(VORNHOST_Vorn_shm_memwrite),
                     vornhost_single_count(), region(26)[0]}),
              (Codes{3, 0, 0, 0}));
    EXPECT_TRUE(trace_has(2, "rt_shm.c:RTSHM_InitPCIeSSDSharedMem:") && trace_has(2, "Failed to allocate memory"));
    vornhost_fail(VORNHOST_Vorn_shm_memwrite, 0, 1);
    EXPECT_EQ((Codes{RTSHM_InitPCIeSSDSharedMem(), vornhost_single_count(), region(26)[0], alloc_live()}),
              (Codes{3, 1, 0, 0}));
    EXPECT_TRUE(trace_has(2, "error, SHM Write retVal=126 0"));
}

}  // namespace

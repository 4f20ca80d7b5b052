// PCIe SSDs: FRU and temperature records (region 26), drive status and the
// simulation (regions 20 and 26), locate over IPMI; the slot mapping (region-20
// reads by offset, the presence sequence, the firmware version, the scans of
// the NVMe view, the FQDD over the region-15 directory) and the reset of region
// 26. Region bytes are planted and read back through the host by offset, never
// through the library's structs.
#include <filesystem>
#include <functional>
#include <numeric>
#include <tuple>

#include "rt_shm_fixtures.h"
#include "rtvox/rtvox.h"

using namespace rtvox::test;
using namespace rtvox::test::shm;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint8_t kOld = 0xAA;  // what a region holds before a call

class PcieSsd : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        std::memset(vornhost_shm_bytes(20), kOld, 325);
        std::memset(vornhost_shm_bytes(26), kOld, 11444);
        trace_start();
    }
    static Bytes at(uint32_t region, uint32_t offset, uint32_t length)
    {
        const uint8_t *base = vornhost_shm_bytes(region) + offset;
        return Bytes(base, base + length);
    }
    static uint32_t writes() { return vornhost_call_count(VORNHOST_Vorn_shm_memwrite); }
    TempRoot root;
};

Bytes fru_image(uint8_t seed)
{
    Bytes fru(256);
    std::iota(fru.begin(), fru.end(), seed);
    return fru;
}

Bytes record(std::initializer_list<uint8_t> head, const Bytes &fru)
{
    Bytes bytes(head);
    bytes.insert(bytes.end(), fru.begin(), fru.end());
    return bytes;
}

// ---- FRU and temperature records ---------------------------------------------

TEST_F(PcieSsd, FruStoresWriteTheirRecordBytesThenTheCounterLast)
{
    const Bytes fru = fru_image(0x40);
    const Bytes cleared = record({0xFF, 0, 0xFF, 0}, Bytes(256, 0));
    const Bytes present = {9, 1, kOld, 4, kOld};  // byte 2 (the temperature) is left alone
    // The store; the offset and the bytes that land there (kOld where a byte is
    // left alone); the region writes, the counter's included; the counter (one per row).
    const std::tuple<std::function<uint32_t()>, uint32_t, Bytes, uint32_t, uint8_t> cases[] = {
        {[] { return RTSHM_StoreFRUDrivePresentStatus(7, 2, 9, 4, 1, 0x11); }, 524, present, 4, 0x11},
        {[] { return RTSHM_StoreFRUTemp(7, 3, 0x12D, 0x102); }, 786, {0x2D}, 2, 0x02},
        {[] { return RTSHM_StoreFRUTemp(11, 1, 0xF6, 3); }, 8586, {0xF6}, 2, 3},
        {[] { return RTSHM_StoreFRUTemp_Pelko(11, 1, 0x30, 4); }, 266, {0x30}, 2, 4},
        {[] { return RTSHM_ClearFRU(7, 5, 0x105); }, 1304, cleared, 2, 5},
        {[] { return RTSHM_ClearFRU(11, 0, 6); }, 8324, cleared, 2, 6},
        {[&] { return RTSHM_StoreFRU(7, 31, 0x105, 3, fru.data(), 7, 40); }, 8064, record({5, 1, 40, 3}, fru), 2, 7},
        {[&] { return RTSHM_StoreFRU(11, 2, 6, 3, fru.data(), 8, 0xFB); }, 8844, record({6, 1, 0xFB, 0}, fru), 2, 8},
        {[&] { return RTSHM_StoreFRU_Pelko(7, 0, 1, fru.data(), 9, 35); }, 8324, record({1, 1, 35, 0}, fru), 2, 9},
    };
    for (const auto &[store, offset, data, writeCount, counter] : cases) {
        SCOPED_TRACE(int{counter});
        SetUp();
        EXPECT_EQ(store(), 0u);
        EXPECT_EQ(at(26, offset, static_cast<uint32_t>(data.size())), data);
        EXPECT_EQ(at(26, offset - 1, 1)[0], kOld);
        EXPECT_EQ(at(26, offset + static_cast<uint32_t>(data.size()), 1)[0], kOld);
        EXPECT_EQ(at(26, 0, 4), (Bytes{counter, kOld, kOld, kOld}));
        EXPECT_EQ(writes(), writeCount);

        // The last write is the counter's: fail it and the data is still there.
        SetUp();
        vornhost_fail(VORNHOST_Vorn_shm_memwrite, writeCount - 1, 1);
        EXPECT_EQ(store(), 3u);
        EXPECT_EQ(at(26, offset, static_cast<uint32_t>(data.size())), data);
        EXPECT_EQ(at(26, 0, 1)[0], kOld);
        EXPECT_TRUE(trace_has(2, "error, SHM Write retVal=126 0"));
    }
    EXPECT_TRUE(trace_has(4, "rt_shm.c:RTSHM_StoreFRU_Pelko:"));
}

TEST_F(PcieSsd, PresentStatusWritesSlotPresentBayInThatOrder)
{
    const Bytes without[] = {{kOld, 1, kOld, 4}, {9, kOld, kOld, 4}, {9, 1, kOld, kOld}};
    for (uint32_t k = 0; k < 3; ++k) {
        SetUp();
        vornhost_fail(VORNHOST_Vorn_shm_memwrite, k, 1);
        EXPECT_EQ(RTSHM_StoreFRUDrivePresentStatus(7, 2, 9, 4, 1, 0x11), 3u);
        EXPECT_EQ(at(26, 524, 4), without[k]) << "write " << k << " failed";
        EXPECT_EQ(at(26, 0, 1)[0], 0x11);
    }
}

TEST_F(PcieSsd, FruStoresRefuseIndex255AndBadInputWithoutWriting)
{
    const Bytes fru = fru_image(0);
    const std::pair<std::function<uint32_t()>, const char *> refused[] = {
        {[] { return RTSHM_StoreFRUDrivePresentStatus(7, 255, 1, 1, 1, 1); }, "Invalid index 255"},
        {[] { return RTSHM_StoreFRUDrivePresentStatus(11, 0, 1, 1, 1, 1); }, "Invalid EID Type 11"},
        {[] { return RTSHM_StoreFRUTemp(7, 255, 1, 1); }, "Invalid index 255"},
        {[] { return RTSHM_StoreFRUTemp_Pelko(7, 255, 1, 1); }, "Invalid index 255"},
        {[] { return RTSHM_ClearFRU(11, 255, 1); }, "Invalid index 255"},
        {[&] { return RTSHM_StoreFRU(7, 255, 12, 1, fru.data(), 1, 1); }, "Invalid index for slot 12"},
        {[&] { return RTSHM_StoreFRU_Pelko(7, 255, 13, fru.data(), 1, 1); }, "Invalid index for slot 13"},
        {[] { return RTSHM_StoreFRU(7, 0, 1, 1, nullptr, 1, 1); }, "NULL FRU data"},
    };
    for (const auto &[store, line] : refused) {
        EXPECT_EQ(store(), 2u) << line;
        EXPECT_TRUE(trace_has(2, line)) << line;
    }
    EXPECT_EQ(writes(), 0u);

    // Past the region the platform refuses; an offset past 4 GiB must not
    // wrap back into it (16519105 * 260 + 4 would wrap to 8).
    for (uint32_t index : {44u, 16519105u}) {
        EXPECT_EQ(RTSHM_StoreFRU(7, index, 1, 1, fru.data(), 1, 1), 3u);
    }
    EXPECT_EQ(at(26, 1, 300), Bytes(300, kOld));
    EXPECT_EQ(at(26, 0, 1)[0], 1);  // the counter is still written
}

// ---- drive status words and the status area (region 20) -----------------------

TEST_F(PcieSsd, StatusWordsAreLittleEndianAtTheirSlotAndAdvanceTheWrappingCounter)
{
    vornhost_shm_bytes(20)[10] = 254;
    const uint32_t slots[] = {0, 5, 31};
    const uint8_t counters[] = {255, 0, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(updatePciessdDriveStatusToShm(0x1234ABCD, slots[i]), 0u);
        EXPECT_EQ(at(20, 142 + 4 * slots[i], 4), (Bytes{kOld, kOld, 0xCD, 0xAB}));
        EXPECT_EQ(at(20, 10, 1)[0], counters[i]);
    }
    // Reads take the slot as a signed 16-bit value: 0x10005 is slot 5, -1 reads offset 140.
    uint16_t words[] = {0, 0, 0x5555};
    EXPECT_EQ(RTSHM_readPciessdDriveStatusFromShm(&words[0], 0x10005), 0u);
    EXPECT_EQ(RTSHM_readPciessdDriveStatusFromShm(&words[1], -1), 0u);
    EXPECT_EQ(RTSHM_readPciessdDriveStatusFromShm(nullptr, 0), 0u);
    EXPECT_EQ(vornhost_call_count(VORNHOST_Vorn_shm_memread), 5u);  // three counters, two words
    EXPECT_EQ(std::vector<uint16_t>(words, words + 2), (std::vector<uint16_t>{0xABCD, 0xAAAA}));
    EXPECT_TRUE(trace_has(4, ": After Read u16DriveStatus:=43981 u8Slot = 5 offset = 164  u8Slot=5 "));
    vornhost_fail(VORNHOST_Vorn_shm_memread, 0, 1);
    EXPECT_EQ(RTSHM_readPciessdDriveStatusFromShm(&words[2], 2), 3u);
    EXPECT_EQ(words[2], 0x5555);
    EXPECT_TRUE(trace_has(2, "error, SHM Read retVal=126 152"));

    // 0x3FFFFFFF * 4 + 144 would wrap to 140: refused instead.
    EXPECT_EQ(updatePciessdDriveStatusToShm(7, 0x3FFFFFFF), 3u);
    EXPECT_EQ(at(20, 140, 2), (Bytes{kOld, kOld}));
    EXPECT_EQ(at(20, 10, 1)[0], 1);
}

TEST_F(PcieSsd, StatusWriteFailuresLeaveTheCounter)
{
    // The status write, the counter read, the counter write.
    const std::tuple<VornHostFunction, uint32_t, const char *> cases[] = {
        {VORNHOST_Vorn_shm_memwrite, 0, "rt_shm.c:updatePciessdDriveStatusToShm:"},
        {VORNHOST_Vorn_shm_memwrite, 0, "error, SHM Write retVal=126 144"},
        {VORNHOST_Vorn_shm_memread, 0, "error, SHM Read retVal=126 10"},
        {VORNHOST_Vorn_shm_memwrite, 1, "error, SHM Write retVal=126 10"}};
    for (const auto &[fn, skip, line] : cases) {
        SetUp();
        vornhost_fail(fn, skip, 1);
        EXPECT_EQ(updatePciessdDriveStatusToShm(7, 0), 3u) << line;
        EXPECT_TRUE(trace_has(2, line)) << line;
        EXPECT_EQ(at(20, 10, 1)[0], kOld);
    }
}

TEST_F(PcieSsd, StatusAreaWriteCopiesBytes142To269AndLeavesTheCounter)
{
    Bytes image(325);
    std::iota(image.begin(), image.end(), 0);
    const auto *bp = reinterpret_cast<const RtShmPcieSsdBp *>(image.data());
    EXPECT_EQ(updatePciessdiBCDDataToShm(bp), 0u);
    EXPECT_EQ(updatePciessdiBCDDataToShm(nullptr), 0u);
    Bytes expected(image.begin() + 141, image.begin() + 271);
    expected.front() = kOld;
    expected.back() = kOld;
    EXPECT_EQ(at(20, 141, 130), expected);
    EXPECT_EQ(at(20, 10, 1)[0], kOld);
    EXPECT_EQ(writes(), 1u);
    EXPECT_TRUE(trace_has(4, ": Before Update DriveStatusInfo offset: 142 size = 4 "));
    vornhost_fail(VORNHOST_Vorn_shm_memwrite, 0, 1);
    EXPECT_EQ(updatePciessdiBCDDataToShm(bp), 3u);
    EXPECT_TRUE(trace_has(2, "error, SHM Write retVal=126 142"));
}

// ---- the simulation -----------------------------------------------------------------

class Simulation : public PcieSsd {
protected:
    // `slots` announced at byte 2; slot table entry g: bay 1 + g / 8, slot g, type 4, presence g % 2.
    static void announce(uint8_t slots, uint8_t sequence)
    {
        uint8_t *r20 = vornhost_shm_bytes(20);
        r20[2] = slots;
        r20[6] = sequence;
        for (uint8_t g = 0; g < 32; ++g) {
            const uint8_t entry[] = {static_cast<uint8_t>(1 + g / 8), g, 4, static_cast<uint8_t>(g % 2)};
            std::memcpy(r20 + 14 + 4 * g, entry, sizeof entry);
        }
    }
    void write_fru(const Bytes &fru) const { root.touch("/tmp/ssdfru.bin", std::string(fru.begin(), fru.end())); }
};

TEST_F(Simulation, WritesOnlyWhenStatusOrPresenceChanged)
{
    const Bytes fru = fru_image(0x10);
    announce(3, 5);
    root.touch("/tmp/ssdstatus.txt", "300\nignored");
    write_fru(fru);
    RTSHM_PCIeSSDSimulate();
    for (uint8_t g = 0; g < 3; ++g) {
        EXPECT_EQ(at(20, 142 + 4 * g, 4), (Bytes{1, g, 0x2C, 0x01}));  // 300 little-endian
        EXPECT_EQ(at(26, 4 + 260 * g, 260), record({g, static_cast<uint8_t>(g % 2), 0xFE, 0xFE}, fru));
    }
    EXPECT_EQ(at(20, 154, 116), Bytes(116, 0xFE));
    EXPECT_EQ(at(20, 10, 1)[0], 0x80);
    EXPECT_EQ(at(20, 270, 55), Bytes(55, kOld));
    EXPECT_EQ(at(26, 0, 4), (Bytes{0x80, 0xFE, 0xFE, 0xFE}));
    EXPECT_EQ(at(26, 784, 11444 - 784), Bytes(11444 - 784, 0xFE));
    EXPECT_EQ(writes(), 5u);  // status area twice, its counter, region 26 twice
    EXPECT_TRUE(trace_has(4, "rt_shm.c:RTSHM_PCIeSSDSimulate:"));
    EXPECT_TRUE(trace_has(4, ":Slots=3 \t Counters: 5 / 129 "));
    EXPECT_TRUE(trace_has(4, ":u8DrivePresence=1\tu16DriveStatus=300"));

    RTSHM_PCIeSSDSimulate();
    EXPECT_EQ(writes(), 5u);

    root.touch("/tmp/ssdstatus.txt", "7");
    RTSHM_PCIeSSDSimulate();
    EXPECT_EQ(at(20, 144, 2), (Bytes{7, 0}));
    EXPECT_EQ(at(20, 10, 1)[0], 0x81);
    EXPECT_EQ(at(26, 0, 1)[0], 0x81);

    vornhost_shm_bytes(20)[6] = 6;
    RTSHM_PCIeSSDSimulate();
    EXPECT_EQ(writes(), 15u);
    EXPECT_EQ(at(26, 0, 1)[0], 0x82);
}

TEST_F(Simulation, FortySlotsFillThirtyTwoAndMissingFilesGiveZeros)
{
    announce(40, 1);
    alloc_reset();
    alloc_fail(0, 1);
    RTSHM_PCIeSSDSimulate();  // without its image nothing is written
    EXPECT_TRUE(trace_has(2, "Failed to allocate memory"));
    EXPECT_EQ(writes(), 0u);
    EXPECT_EQ(ReadFRUFile(nullptr), -1);

    RTSHM_PCIeSSDSimulate();
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(at(20, 142 + 4 * 31, 4), (Bytes{4, 31, 0, 0}));
    EXPECT_EQ(at(20, 270, 15), Bytes(15, kOld));
    EXPECT_EQ(at(26, 4 + 260 * 31, 260), record({31, 1, 0xFE, 0xFE}, Bytes(256, 0)));
    EXPECT_EQ(at(26, 8324, 260), Bytes(260, 0xFE));
    EXPECT_EQ(trace_count("u8DrivePresence="), 32);
    EXPECT_TRUE(trace_has(2, "Slots=40: only 32 slot entries exist, the rest not shown"));
}

TEST_F(Simulation, LinkedInputsAreNotFollowedAndAShortFruFileIsZeroPadded)
{
    announce(1, 0);
    root.touch("/elsewhere/status", "55\n");
    root.touch("/elsewhere/fru", "FRU");
    std::filesystem::create_symlink(root.path("/elsewhere/status"), root.path("/tmp/ssdstatus.txt"));
    std::filesystem::create_symlink(root.path("/elsewhere/fru"), root.path("/tmp/ssdfru.bin"));
    RTSHM_PCIeSSDSimulate();
    EXPECT_EQ(at(20, 144, 2), (Bytes{0, 0}));
    EXPECT_EQ(at(26, 8, 256), Bytes(256, 0));
    EXPECT_EQ(trace_count("/tmp/ssdstatus.txt is not a regular file, not read"), 2);  // read twice on a change
    EXPECT_TRUE(trace_has(2, "/tmp/ssdfru.bin is not a regular file, not read"));
    EXPECT_EQ(root.read("/elsewhere/status"), "55\n");
    EXPECT_EQ(root.read("/elsewhere/fru"), "FRU");

    std::filesystem::remove(root.path("/tmp/ssdstatus.txt"));
    std::filesystem::remove(root.path("/tmp/ssdfru.bin"));
    root.touch("/tmp/ssdstatus.txt", "5");
    write_fru(Bytes{1, 2, 3});
    RTSHM_PCIeSSDSimulate();
    Bytes padded(256, 0);
    std::copy_n(Bytes{1, 2, 3}.begin(), 3, padded.begin());
    EXPECT_EQ(at(26, 8, 256), padded);
    EXPECT_TRUE(trace_has(4, "rt_shm.c:ReadFRUFile:"));
    EXPECT_TRUE(trace_has(4, ":FRU bytes read=3 "));
}

// ---- locate over IPMI -----------------------------------------------------------------

TEST_F(PcieSsd, LocateRequestsCarryBaySlotAndStatusWordAndTestTheLowEightBitsOfTheStatus)
{
    EXPECT_EQ(BlinkPCIeSSD(1, 5), 0u);
    EXPECT_EQ(UnBlinkPCIeSSD(0x102, 0x1FF, 0x51234), 0u);  // each taken as a byte or a 16-bit word
    const Bytes expected[] = {{0, 0x14, 0x0E, 0, 0, 0, 0x0E, 0, 1, 5, 0x08, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                              {0, 0x14, 0x0E, 0, 0, 0, 0x0E, 0, 2, 0xFF, 0x34, 0x12, 0, 0, 0, 0, 0, 0, 0, 0}};
    for (uint32_t i = 0; i < 2; ++i) {
        VornHostIpmiRequest request{};
        ASSERT_EQ(vornhost_ipmi_get(i, &request), 0);
        EXPECT_EQ(request.netFn, 0x30);
        EXPECT_EQ(request.cmd, 0xD5);
        EXPECT_EQ(Bytes(request.data, request.data + request.length), expected[i]);
    }
    EXPECT_NE(root.read("/var/log/rtvox.log").find("000000: 00 14 0e 00 00 00 0e 00 01 05 08 00 00 00 00 00 "),
              std::string::npos);
    EXPECT_TRUE(trace_has(4, ":-->Blink u8bayId=1 u8SSDSlotNum=5"));
    EXPECT_TRUE(trace_has(4, ":-->UnBlink u8bayId=2 u8SSDSlotNum=255 u16DriveStatus=4660"));
    EXPECT_EQ(trace_count("rtvox.c:UnBlinkPCIeSSD:"), 4);  // entry, two around the dump, the status
    EXPECT_EQ(trace_count("IMPMICmd rc=0 LINE="), 2);

    // Only the low eight bits of the IPMI status count.
    vornhost_ipmi_set_result(0x7700, nullptr, 0, 1);
    EXPECT_EQ(BlinkPCIeSSD(1, 5), 0u);
    vornhost_ipmi_set_result(0x7701, nullptr, 0, 1);
    EXPECT_EQ(BlinkPCIeSSD(1, 5), 1u);
    EXPECT_TRUE(trace_has(2, "rtvox.c:BlinkPCIeSSD:"));
    EXPECT_TRUE(trace_has(2, ":Failed While Sending Blink Command u8SSDSlotNum=5"));
    vornhost_fail(VORNHOST_IPMI_DoIPMICmd, 0, 1);
    EXPECT_EQ(UnBlinkPCIeSSD(1, 6, 0), 1u);
    EXPECT_TRUE(trace_has(4, "IMPMICmd rc=126 LINE="));
    EXPECT_TRUE(trace_has(2, ":Failed While Sending UnBlink Command u8SSDSlotNum=6"));
}

// ---- the slot mapping ------------------------------------------------------------

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
    EXPECT_TRUE(trace_has(2, "error!!, Not a NVMe Backplane s8BayNo=1 2"));
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

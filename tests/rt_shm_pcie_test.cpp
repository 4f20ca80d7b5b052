// PCIe SSDs: FRU and temperature records (region 26), drive status and the
// simulation (regions 20 and 26), locate over IPMI. Region bytes are read
// back from the host by offset, never through the library's structs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "rtvox/rt_shm.h"
#include "rtvox/rtvox.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
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

}  // namespace

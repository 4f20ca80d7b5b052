// PCIe SSDs: FRU and temperature records (region 26). Region bytes are read
// back from the host by offset, never through the library's structs.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "rtvox/rt_shm.h"
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

struct FruCase {
    const char *name;
    std::function<uint32_t()> store;
    uint32_t offset;
    Bytes data;       // what lands at offset (kOld where a byte is left alone)
    uint32_t writes;  // region writes, the counter's included
    uint8_t counter;
};

TEST_F(PcieSsd, FruStoresWriteTheirRecordBytesThenTheCounterLast)
{
    const Bytes fru = fru_image(0x40);
    const Bytes cleared = record({0xFF, 0, 0xFF, 0}, Bytes(256, 0));
    const Bytes present = {9, 1, kOld, 4, kOld};  // byte 2 (the temperature) is left alone
    const FruCase cases[] = {
        {"present", [] { return RTSHM_StoreFRUDrivePresentStatus(7, 2, 9, 4, 1, 0x11); }, 524, present, 4, 0x11},
        {"temp bay", [] { return RTSHM_StoreFRUTemp(7, 3, 0x12D, 0x102); }, 786, {0x2D}, 2, 0x02},
        {"temp card", [] { return RTSHM_StoreFRUTemp(11, 1, 0xF6, 3); }, 8586, {0xF6}, 2, 3},
        {"temp pelko", [] { return RTSHM_StoreFRUTemp_Pelko(11, 1, 0x30, 4); }, 266, {0x30}, 2, 4},
        {"clear bay", [] { return RTSHM_ClearFRU(7, 5, 0x105); }, 1304, cleared, 2, 5},
        {"clear card", [] { return RTSHM_ClearFRU(11, 0, 6); }, 8324, cleared, 2, 6},
        {"fru bay", [&] { return RTSHM_StoreFRU(7, 31, 0x105, 3, fru.data(), 7, 40); }, 8064,
         record({5, 1, 40, 3}, fru), 2, 7},
        {"fru card", [&] { return RTSHM_StoreFRU(11, 2, 6, 3, fru.data(), 8, 0xFB); }, 8844,
         record({6, 1, 0xFB, 0}, fru), 2, 8},
        {"fru pelko", [&] { return RTSHM_StoreFRU_Pelko(7, 0, 1, fru.data(), 9, 35); }, 8324,
         record({1, 1, 35, 0}, fru), 2, 9},
    };
    for (const FruCase &c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        EXPECT_EQ(c.store(), 0u);
        EXPECT_EQ(at(26, c.offset, static_cast<uint32_t>(c.data.size())), c.data);
        EXPECT_EQ(at(26, c.offset - 1, 1)[0], kOld);
        EXPECT_EQ(at(26, c.offset + static_cast<uint32_t>(c.data.size()), 1)[0], kOld);
        EXPECT_EQ(at(26, 0, 4), (Bytes{c.counter, kOld, kOld, kOld}));
        EXPECT_EQ(writes(), c.writes);

        // The last write is the counter's: fail it and the data is still there.
        SetUp();
        vornhost_fail(VORNHOST_Vorn_shm_memwrite, c.writes - 1, 1);
        EXPECT_EQ(c.store(), 3u);
        EXPECT_EQ(at(26, c.offset, static_cast<uint32_t>(c.data.size())), c.data);
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

}  // namespace

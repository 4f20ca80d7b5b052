// Shared pieces of the shared-memory, backplane and NVMe tests: region bytes
// and API info records built and read back byte by byte at their own offsets
// (never through the library's structs, so a layout mistake cannot hide), byte
// views of the NVMe tables, the trace lines of one function, and a fixture
// with a cache on a private root.
#pragma once

#include <algorithm>
#include <array>
#include <initializer_list>
#include <vector>

#include "rt_cache_fixtures.h"  // gtest, the cache, the test support and the host
#include "rt_shm_internal.h"
#include "rtvox/rt_shm.h"

namespace rtvox::test::shm {

using Codes = std::vector<int64_t>;
using Ints = std::vector<int>;

constexpr uint32_t kInventory = 3;
constexpr uint32_t kPolling = 55;
constexpr size_t kDrives = 724;      // the drive table in region 3
constexpr size_t kBatteries = 5318;  // the battery table in region 3

// `width` bytes at `offset` of `bytes`, little-endian.
inline uint64_t peek(const void *bytes, size_t offset, size_t width)
{
    uint64_t value = 0;
    for (size_t i = width; i-- > 0;) {
        value = value << 8 | static_cast<const uint8_t *>(bytes)[offset + i];
    }
    return value;
}

inline void poke(void *bytes, size_t offset, size_t width, uint64_t value)
{
    for (size_t i = 0; i < width; ++i) {
        static_cast<uint8_t *>(bytes)[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

inline uint64_t le(uint32_t region, size_t offset, size_t width)
{
    return peek(vornhost_shm_bytes(region), offset, width);
}

inline void put_le(uint32_t region, size_t offset, size_t width, uint64_t value)
{
    poke(vornhost_shm_bytes(region), offset, width, value);
}

// The captured lines of one function as "L<level> <text>", without the head.
inline std::vector<std::string> lines_of(const std::string &function)
{
    std::vector<std::string> out;
    const std::string head = "rt_shm.c:" + function + ":";
    for (const std::string &line : trace_lines()) {
        if (const size_t at = line.find(head); at != std::string::npos) {
            out.push_back(line.substr(0, 3) + line.substr(line.find(':', at + head.size()) + 1));
        }
    }
    return out;
}

// The texts of the captured lines at `level` that `function` emitted, in order.
inline std::vector<std::string> texts(int level, const std::string &function)
{
    std::vector<std::string> out;
    for (const std::string &line : lines_of(function)) {
        if (line.starts_with("L" + std::to_string(level) + " ")) {
            out.push_back(line.substr(3));
        }
    }
    return out;
}

// An API info record: counts at 2, 3, 4, 6; bay b at 8 + 51 b (id 14, tech 15,
// slots 29, firmware 37 and 38); drive d at 240 + 15 d (id 1, bay 3, slot 4,
// extender slot 7, tech 11, state 12 little-endian); riser r at 720 + 6 r
// (present, bay, type, PCIe slot, number).
struct ApiInfo {
    std::array<uint8_t, 738> bytes{};

    ApiInfo &put(uint32_t offset, std::initializer_list<int> values)
    {
        for (int value : values) {
            bytes.at(offset++) = static_cast<uint8_t>(value);
        }
        return *this;
    }
    ApiInfo &counts(int bays, int drives, int slots, int risers)
    {
        return put(2, {bays, drives, slots}).put(6, {risers});
    }
    ApiInfo &bay(uint32_t b, int id, int tech, int slots, int fwMajor = 0, int fwMinor = 0)
    {
        return put(8 + 51 * b + 14, {id, tech}).put(8 + 51 * b + 29, {slots}).put(8 + 51 * b + 37, {fwMajor, fwMinor});
    }
    ApiInfo &drive(uint32_t d, int bay, int slot, int tech, int state, int extender = 0, int id = 0)
    {
        return put(240 + 15 * d + 1, {id, 0, bay, slot, 0, 0, extender, 0, 0, 0, tech, state, state >> 8});
    }
    ApiInfo &riser(uint32_t r, int bay, int pcieSlot, int number, int type = 4, int present = 1)
    {
        return put(720 + 6 * r, {present, bay, type, pcieSlot, number});
    }
    uint8_t *data() { return bytes.data(); }
};

// ---- sNVMeSSDBPInfo by bytes: bay b at 4 + 8 b, slot s of bay b at 36 + 448 b + 14 s ----

inline uint8_t *view()
{
    return reinterpret_cast<uint8_t *>(&sNVMeSSDBPInfo);
}

inline uint32_t slot_at(uint32_t b, uint32_t s)
{
    return 36 + 448 * b + 14 * s;
}

// {bay id, slot, drive id, state, bay tech, drive tech, extender slot, EID}
inline Ints slot_bytes(uint32_t b, uint32_t s)
{
    const uint8_t *at = view() + slot_at(b, s);
    return {at[0], at[1], at[3], at[4] | (at[5] << 8), at[6], at[7], at[8], at[9]};
}

// {current, pending} drive state of a slot.
inline Ints states(uint32_t b, uint32_t s)
{
    return {rtvox::shm::au16DriveState[b][s], rtvox::shm::au16PendingDriveState[b][s]};
}

// The NVMe view and both drive-state tables, to show that nothing changed.
inline std::string snapshot()
{
    std::string bytes(reinterpret_cast<const char *>(view()), sizeof sNVMeSSDBPInfo);
    bytes.append(reinterpret_cast<const char *>(rtvox::shm::au16DriveState), sizeof rtvox::shm::au16DriveState);
    return bytes.append(reinterpret_cast<const char *>(rtvox::shm::au16PendingDriveState),
                        sizeof rtvox::shm::au16PendingDriveState);
}

// Waits for a hot plug in flight and closes the library's backplane session,
// so that nothing of one test calls back into the next.
inline void close_session()
{
    vornhost_bp_hotplug_wait(5000);
    if (bpAPIHandler != 0) {
        VornBpApiCloseExec(bpAPIHandler, "test", "close", 0);
        bpAPIHandler = 0;
    }
}

// Global slot 5 as slot 4 of bay 1 (region 20 and the NVMe view), and a
// region-15 FRU directory listing a card entry, a bay record of bay 2 (PCIe
// slot 6) and two of bay 1 (PCIe slots 3 and 7).
inline void plant_global_slot_5()
{
    vornhost_shm_bytes(20)[15 + 4 * 5] = 4;
    view()[slot_at(1, 5)] = 1;
    view()[slot_at(1, 5) + 6] = 4;
    const uint8_t head[] = {0, 0, 4, 0, 9, 2, 0,    0, 0, 1, 0, 0, 6, 3, 0,    0, 200, 0,
                            0, 0, 3, 3, 0, 0, 0x2C, 1, 0, 0, 7, 3, 0, 0, 0x2C, 1, 0,   0};
    uint8_t *dir = vornhost_shm_bytes(15);
    std::copy(std::begin(head), std::end(head), dir);
    dir[201] = 2;
    dir[301] = 1;
}

// A cache on a private root and the library's NVMe state reset; open() puts a
// record on the simulated backplane and opens the session over it.
class ShmTest : public cache::CacheTest {
protected:
    void SetUp() override
    {
        std::memset(view(), 0, sizeof sNVMeSSDBPInfo);
        std::memset(rtvox::shm::au16DriveState, 0, sizeof rtvox::shm::au16DriveState);
        std::memset(rtvox::shm::au16PendingDriveState, 0, sizeof rtvox::shm::au16PendingDriveState);
        CacheTest::SetUp();
    }
    void TearDown() override
    {
        vornhost_fail_clear();
        close_session();
        CacheTest::TearDown();
    }
    static void open(ApiInfo &record)
    {
        vornhost_bp_set_info(record.data());
        ASSERT_EQ(rtshm_BpApiInit(), 0u);
        trace_start();
    }
    // Delivers `record` through the host's hot-plug injection, on its thread.
    static void hotplug(ApiInfo &record)
    {
        ASSERT_EQ(vornhost_bp_hotplug(record.data()), 1);
        ASSERT_EQ(vornhost_bp_hotplug_wait(5000), 0);
    }
};

}  // namespace rtvox::test::shm

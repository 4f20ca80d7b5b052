// Shared pieces of the backplane and NVMe tests: API info records built byte
// by byte at the backplane's own offsets (never through the library's structs,
// so a layout mistake cannot hide), byte views of the NVMe tables, and a
// fixture with a cache, a private root and an open backplane session.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "rt_shm_internal.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace rtvox::test::shm {

// An API info record: counts at 2, 3, 4, 6; bay b at 8 + 51 b; drive d at
// 240 + 15 d; riser r at 720 + 6 r; 16-bit fields little-endian.
class ApiInfo {
public:
    ApiInfo &counts(uint8_t bays, uint8_t drives, uint8_t slots, uint8_t risers)
    {
        bytes_[2] = bays;
        bytes_[3] = drives;
        bytes_[4] = slots;
        bytes_[6] = risers;
        return *this;
    }
    // A bay entry: bay id, technology, physical slot count, firmware.
    ApiInfo &bay(uint32_t b, uint8_t bayId, uint8_t tech, uint8_t slots, uint8_t fwMajor = 0, uint8_t fwMinor = 0)
    {
        const uint32_t at = 8 + 51 * b;
        bytes_[at + 14] = bayId;
        bytes_[at + 15] = tech;
        bytes_[at + 29] = slots;
        bytes_[at + 37] = fwMajor;
        bytes_[at + 38] = fwMinor;
        return *this;
    }
    ApiInfo &drive(uint32_t d, uint8_t bayId, uint8_t slot, uint8_t tech, uint16_t state, uint8_t extenderSlot = 0,
                   uint8_t driveId = 0)
    {
        const uint32_t at = 240 + 15 * d;
        bytes_[at + 1] = driveId;
        bytes_[at + 3] = bayId;
        bytes_[at + 4] = slot;
        bytes_[at + 7] = extenderSlot;
        bytes_[at + 11] = tech;
        put16(at + 12, state);
        return *this;
    }
    ApiInfo &riser(uint32_t r, uint8_t bayId, uint8_t pcieSlot, uint8_t number, uint8_t type = 4, uint8_t present = 1)
    {
        const uint32_t at = 720 + 6 * r;
        bytes_[at] = present;
        bytes_[at + 1] = bayId;
        bytes_[at + 2] = type;
        bytes_[at + 3] = pcieSlot;
        bytes_[at + 4] = number;
        return *this;
    }
    ApiInfo &set(uint32_t offset, uint8_t value)
    {
        bytes_.at(offset) = value;
        return *this;
    }
    ApiInfo &put16(uint32_t offset, uint16_t value)
    {
        bytes_.at(offset) = static_cast<uint8_t>(value & 0xFF);
        bytes_.at(offset + 1) = static_cast<uint8_t>(value >> 8);
        return *this;
    }
    uint8_t *data() { return bytes_.data(); }
    RtShmBpApiInfo *info() { return reinterpret_cast<RtShmBpApiInfo *>(bytes_.data()); }

private:
    std::array<uint8_t, 738> bytes_{};
};

// ---- byte views of sNVMeSSDBPInfo (bay b at 4 + 8 b, slot s of bay b at
// 36 + 448 b + 14 s, extender r at 1380 + 4 r) -----------------------------------

inline const uint8_t *view()
{
    return reinterpret_cast<const uint8_t *>(&sNVMeSSDBPInfo);
}

inline uint32_t slot_at(uint32_t b, uint32_t s)
{
    return 36 + 448 * b + 14 * s;
}

// One slot entry as {bay id, slot, drive id, state, bay tech, drive tech, extender slot, EID}.
inline std::vector<int> slot_bytes(uint32_t b, uint32_t s)
{
    const uint8_t *at = view() + slot_at(b, s);
    return {at[0], at[1], at[3], at[4] | (at[5] << 8), at[6], at[7], at[8], at[9]};
}

// Current and pending drive state of a slot.
inline std::vector<int> states(uint32_t b, uint32_t s)
{
    return {rtvox::shm::au16DriveState[b][s], rtvox::shm::au16PendingDriveState[b][s]};
}

// The whole NVMe view and both drive-state tables, to show that nothing changed.
inline std::string snapshot()
{
    std::string bytes(reinterpret_cast<const char *>(view()), sizeof sNVMeSSDBPInfo);
    bytes.append(reinterpret_cast<const char *>(rtvox::shm::au16DriveState), sizeof rtvox::shm::au16DriveState);
    bytes.append(reinterpret_cast<const char *>(rtvox::shm::au16PendingDriveState),
                 sizeof rtvox::shm::au16PendingDriveState);
    return bytes;
}

// The texts of the captured lines emitted by one function, without the
// "rt_shm.c:<function>:<line>:" head, each as "L<level> <text>".
inline std::vector<std::string> lines_of(const std::string &function)
{
    std::vector<std::string> out;
    const std::string head = "rt_shm.c:" + function + ":";
    for (const std::string &line : trace_lines()) {
        const size_t at = line.find(head);
        if (at == std::string::npos) {
            continue;
        }
        const size_t text = line.find(':', at + head.size());
        out.push_back(line.substr(0, 3) + line.substr(text + 1));
    }
    return out;
}

// A cache on a private root, the NVMe state of the library reset, the
// simulated backplane holding `record()`, and (after open()) a session.
class ShmTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        alloc_reset();
        bpAPIHandler = 0;
        std::memset(&sNVMeSSDBPInfo, 0, sizeof sNVMeSSDBPInfo);
        std::memset(rtvox::shm::au16DriveState, 0, sizeof rtvox::shm::au16DriveState);
        std::memset(rtvox::shm::au16PendingDriveState, 0, sizeof rtvox::shm::au16PendingDriveState);
        ASSERT_EQ(rtcache_Init(), 0u);
        trace_start();
    }
    void TearDown() override
    {
        vornhost_fail_clear();
        vornhost_bp_hotplug_wait(5000);
        if (bpAPIHandler != 0) {  // no session of this test may call back into the next one
            VornBpApiCloseExec(bpAPIHandler, "test", "TearDown", 0);
            bpAPIHandler = 0;
        }
        rtcache_Destroy();
    }
    // Puts `record` on the simulated backplane and opens the session over it.
    void open(ApiInfo &record)
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

    TempRoot root;
};

}  // namespace rtvox::test::shm

// Shared pieces of the inventory-region tests: the region bytes read back by
// offset (never through the library's own structs, so a layout mistake
// cannot hide) and the texts of the trace lines one function emitted.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace rtvox::test::shm {

constexpr uint32_t kInventory = 3;
constexpr uint32_t kPolling = 55;
constexpr size_t kDrives = 724;      // the drive table in region 3
constexpr size_t kBatteries = 5318;  // the battery table in region 3

// `width` bytes of a region at `offset`, little-endian.
inline uint64_t le(uint32_t region, size_t offset, size_t width)
{
    const uint8_t *bytes = vornhost_shm_bytes(region);
    uint64_t value = 0;
    for (size_t i = width; i-- > 0;) {
        value = value << 8 | bytes[offset + i];
    }
    return value;
}

inline void put_le(uint32_t region, size_t offset, size_t width, uint64_t value)
{
    uint8_t *bytes = vornhost_shm_bytes(region);
    for (size_t i = 0; i < width; ++i) {
        bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// The texts (after "file:function:line:") of the captured lines at `level`
// that `function` emitted, in order.
inline std::vector<std::string> texts(int level, const std::string &function)
{
    const std::string head = "L" + std::to_string(level) + " rt_shm.c:" + function + ":";
    std::vector<std::string> out;
    for (const std::string &line : trace_lines()) {
        if (line.rfind(head, 0) == 0) {
            out.push_back(line.substr(line.find(':', head.size()) + 1));
        }
    }
    return out;
}

}  // namespace rtvox::test::shm

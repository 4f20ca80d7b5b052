// Byte-wise access to the little-endian fields of the region images, shared
// by the shared-memory initialisation, dump and update. Private to the
// module.
//
// The images are the packed wire layouts of rtvox/rt_shm.h. Their multi-byte
// fields stand at any byte (the drive table's 32- and 16-bit arrays start at
// odd offsets), so they are never read or written through a typed pointer:
// a field is named by its offset in the image, and each element moves as
// little-endian bytes (see le_get and le_put).
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rtvox/rt_shm.h"

namespace rtvox::shm {

// `width` (at most 8) bytes at `offset` of an image, least significant first.
// On a little-endian machine (the board and the hosts) the bytes are the
// value's own: one unaligned copy moves them; elsewhere they move one by one.
inline uint64_t le_get(const void *image, size_t offset, size_t width)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(image) + offset;
    if constexpr (std::endian::native == std::endian::little) {
        // The widths the tables use, each a copy of fixed size: the dump
        // reads thousands of fields per update.
        switch (width) {
            case 1:
                return bytes[0];
            case 2: {
                uint16_t value = 0;
                std::memcpy(&value, bytes, sizeof value);
                return value;
            }
            case 4: {
                uint32_t value = 0;
                std::memcpy(&value, bytes, sizeof value);
                return value;
            }
            default:
                break;
        }
    }
    uint64_t value = 0;
    for (size_t i = width; i-- > 0;) {
        value = value << 8 | bytes[i];
    }
    return value;
}

inline void le_put(void *image, size_t offset, size_t width, uint64_t value)
{
    uint8_t *bytes = static_cast<uint8_t *>(image) + offset;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(bytes, &value, width);  // the low `width` bytes, least significant first
    } else {
        for (size_t i = 0; i < width; ++i) {
            bytes[i] = static_cast<uint8_t>(value >> (8 * i));
        }
    }
}

// An array of T-wide little-endian elements starting at `offset` of an image
// (a single field is the array's element 0).
template <typename T>
struct LeArray {
    size_t offset;

    void set(void *image, uint32_t index, T value) const
    {
        le_put(image, offset + size_t{index} * sizeof(T), sizeof(T), static_cast<uint64_t>(value));
    }
    T get(const void *image, uint32_t index) const
    {
        return static_cast<T>(le_get(image, offset + size_t{index} * sizeof(T), sizeof(T)));
    }
};

// The multi-byte fields of the three tables of region 3.
namespace ctrl {
inline constexpr LeArray<int32_t> kCount{offsetof(sVOXTavoInventory, s32Count)};
inline constexpr LeArray<uint32_t> kTemp{offsetof(sVOXTavoInventory, au32Temp)};
inline constexpr LeArray<uint32_t> kBatteryTemp{offsetof(sVOXTavoInventory, au32BatteryTemp)};
inline constexpr LeArray<uint32_t> kVendorID{offsetof(sVOXTavoInventory, au32PCIVendorID)};
inline constexpr LeArray<uint32_t> kDeviceID{offsetof(sVOXTavoInventory, au32PCIDeviceID)};
inline constexpr LeArray<uint32_t> kSubVendorID{offsetof(sVOXTavoInventory, au32PCISubVendorID)};
inline constexpr LeArray<uint32_t> kSubDeviceID{offsetof(sVOXTavoInventory, au32PCISubDeviceID)};
inline constexpr LeArray<uint64_t> kAddress1{offsetof(sVOXTavoInventory, au64CtrlAddress1)};
inline constexpr LeArray<uint64_t> kAddress2{offsetof(sVOXTavoInventory, au64CtrlAddress2)};
}  // namespace ctrl

namespace drive {
inline constexpr LeArray<int32_t> kCount{offsetof(sVOXSASSATAInventory, s32Count)};
inline constexpr LeArray<uint32_t> kNominalRPM{offsetof(sVOXSASSATAInventory, au32NominalRPM)};
inline constexpr LeArray<uint16_t> kStatus{offsetof(sVOXSASSATAInventory, pdShmStatus)};
inline constexpr LeArray<uint16_t> kCapacity{offsetof(sVOXSASSATAInventory, au16DriveCapacity)};
}  // namespace drive

namespace battery {
inline constexpr LeArray<int32_t> kCount{offsetof(sVOXTAVOBatteryInventory, s32Count)};
inline constexpr LeArray<uint32_t> kInventory{offsetof(sVOXTAVOBatteryInventory, rtvox_inventory)};
}  // namespace battery

}  // namespace rtvox::shm

// Region access shared by the PCIe SSD operations (regions 20, 26 and 15).
#pragma once

#include <cstdint>
#include <memory>

#include "rtvox/rt_shm.h"

namespace rtvox::detail {

// base + stride * index as a region offset, for a 32-bit index (signed or
// not). One that comes out negative or does not fit in 32 bits becomes
// 0xFFFFFFFF, which the platform refuses, instead of wrapping back to an
// offset inside the region.
uint32_t region_offset(uint32_t base, uint32_t stride, int64_t index);

// Vorn_shm_memread / Vorn_shm_memwrite on behalf of the exported `function`:
// false after a level-2 line "<message> retVal=<platform status> <offset>"
// ("error, SHM Read" / "error, SHM Write") when the platform refuses. A few
// readers have always written their message in lower case ("error, SHM
// read"); they pass it.
bool shm_read(const char *function, uint32_t region, void *buffer, uint32_t offset, uint32_t length,
              const char *message = "error, SHM Read");
bool shm_write(const char *function, uint32_t region, const void *buffer, uint32_t offset, uint32_t length);

struct BlockFree {
    void operator()(void *block) const;
};
using FruImage = std::unique_ptr<RtShmPcieSsdFru, BlockFree>;

// A zero-filled image of region 26 (rtvox_alloc), or null after the level-2
// line "Failed to allocate memory" in the name of `function`.
FruImage new_fru_image(const char *function);

}  // namespace rtvox::detail

// Region access shared by the PCIe SSD operations.
#define RT_MODULE_FILE "rt_shm.c"

#include "rt_shm_pcie.h"

#include <limits>

#include "rtvox/platform.h"
#include "trace.h"

namespace rtvox::detail {

uint32_t region_offset(uint32_t base, uint32_t stride, int64_t index)
{
    constexpr int64_t kRefused = std::numeric_limits<uint32_t>::max();
    // Callers pass a 32-bit index, so the product stays far inside 64 bits.
    const int64_t offset = int64_t{base} + int64_t{stride} * index;
    return static_cast<uint32_t>(offset < 0 || offset > kRefused ? kRefused : offset);
}

bool shm_read(const char *function, uint32_t region, void *buffer, uint32_t offset, uint32_t length,
              const char *message)
{
    const int32_t rc = Vorn_shm_memread(region, buffer, offset, length);
    if (rc != 0) {
        RT_TRACE_AS(function, 2, "%s retVal=%d %d", message, rc, static_cast<int>(offset));
    }
    return rc == 0;
}

bool shm_write(const char *function, uint32_t region, const void *buffer, uint32_t offset, uint32_t length)
{
    const int32_t rc = Vorn_shm_memwrite(region, buffer, offset, length);
    if (rc != 0) {
        RT_TRACE_AS(function, 2, "%s retVal=%d %d", "error, SHM Write", rc, static_cast<int>(offset));
    }
    return rc == 0;
}

void BlockFree::operator()(void *block) const
{
    rtvox_free(block);
}

FruImage new_fru_image(const char *function)
{
    FruImage image(static_cast<RtShmPcieSsdFru *>(rtvox_alloc(sizeof(RtShmPcieSsdFru))));
    if (!image) {
        RT_TRACE_AS(function, 2, "Failed to allocate memory");
    }
    return image;
}

}  // namespace rtvox::detail

// Where the library's fixed absolute paths land.
//
// The library names its files by absolute paths ("/var/log/rtvox.log",
// marker files under "/flash/data0/oem_ps", "/tmp" inputs). Firmware builds
// (RTVOX_FIXED_PATHS) use them exactly as they stand. Host builds look up the
// environment variable RTVOX_ROOT at every use and, when it is set and not
// empty, resolve the path under that directory, so tests and tools never
// touch the real /var, /flash or /tmp.
#pragma once

#include <string>

namespace rtvox::detail {
std::string resolve_path(const char *path);
}  // namespace rtvox::detail

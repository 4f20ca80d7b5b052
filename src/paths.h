// Where the library's fixed absolute paths land, and how they are opened.
//
// The library names its files by absolute paths ("/var/log/rtvox.log",
// marker files under "/flash/data0/oem_ps", "/tmp" inputs). Firmware builds
// (RTVOX_FIXED_PATHS) use them exactly as they stand. Host builds look up the
// environment variable RTVOX_ROOT at every use and, when it is set and not
// empty, resolve the path under that directory, so tests and tools never
// touch the real /var, /flash or /tmp.
#pragma once

#include <cstdio>
#include <string>

namespace rtvox::detail {
std::string resolve_path(const char *path);

// Opens an already resolved path like fopen with one of the modes "r", "rb",
// "w", "wb", "a", "a+", but only when the path names a regular file: a
// symbolic link at the path is never followed and a FIFO, device or directory
// there is refused (nullptr, errno ELOOP or EINVAL), so a file planted in a
// world-writable directory cannot redirect what the library (running as root)
// reads or writes. "w" truncates only after the check. A created file gets
// mode 0600. The caller traces a refusal; `refused` (may be null) tells a
// refusal apart from a plain failure such as a missing file.
FILE *open_regular_file(const std::string &path, const char *mode, bool *refused = nullptr);
}  // namespace rtvox::detail

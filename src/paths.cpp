#include "paths.h"

#include <cstdlib>

namespace rtvox::detail {

std::string resolve_path(const char *path)
{
    if (path == nullptr) {
        return {};
    }
#ifndef RTVOX_FIXED_PATHS
    const char *root = std::getenv("RTVOX_ROOT");
    if (root != nullptr && root[0] != '\0' && path[0] == '/') {
        return std::string(root) + path;
    }
#endif
    return path;
}

}  // namespace rtvox::detail

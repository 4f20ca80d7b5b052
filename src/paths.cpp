#include "paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

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

FILE *open_regular_file(const std::string &path, const char *mode, bool *refused)
{
    if (refused != nullptr) {
        *refused = false;
    }
    const std::string m = mode == nullptr ? std::string() : std::string(mode);
    int flags = 0;
    bool truncate = false;
    if (m == "r" || m == "rb") {
        flags = O_RDONLY;
    } else if (m == "w" || m == "wb") {
        flags = O_WRONLY | O_CREAT;
        truncate = true;
    } else if (m == "a") {
        flags = O_WRONLY | O_CREAT | O_APPEND;
    } else if (m == "a+") {
        flags = O_RDWR | O_CREAT | O_APPEND;
    } else {
        errno = EINVAL;
        return nullptr;
    }
    // O_NONBLOCK keeps a planted FIFO from blocking the open; it is cleared
    // again once the descriptor is known to be a regular file.
    const int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (errno == ELOOP && refused != nullptr) {
            *refused = true;
        }
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        if (refused != nullptr) {
            *refused = true;
        }
        errno = EINVAL;
        return nullptr;
    }
    if (::fcntl(fd, F_SETFL, flags & O_APPEND) != 0 || (truncate && ::ftruncate(fd, 0) != 0)) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return nullptr;
    }
    FILE *file = ::fdopen(fd, mode);
    if (file == nullptr) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
    }
    return file;
}

}  // namespace rtvox::detail

// Small helpers shared by the parts of libvornhost (see internal.h).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "internal.h"

namespace vornhost::detail {

std::string env(const char *name)
{
    const char *value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

bool write_all(int fd, const std::string &data)
{
    const char *p = data.data();
    size_t left = data.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

bool append_to_env_file(const char *variable, const std::string &data)
{
    const std::string path = env(variable);
    if (path.empty()) {
        return false;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    const bool ok = write_all(fd, data);
    ::close(fd);
    return ok;
}

uint32_t SizeTable::size(uint32_t type) const
{
    if (type == builtin_type_) {
        return builtin_size_;
    }
    const auto it = added_.find(type);
    return it == added_.end() ? 0 : it->second;
}

int SizeTable::set(uint32_t type, uint32_t size)
{
    if (type == builtin_type_ || size > max_) {
        return VORNHOST_E_ARG;
    }
    try {
        if (size == 0) {
            added_.erase(type);
        } else {
            added_[type] = size;
        }
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return VORNHOST_OK;
}

}  // namespace vornhost::detail

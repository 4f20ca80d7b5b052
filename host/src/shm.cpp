// Vorn_shm_memread / Vorn_shm_memwrite over private buffers or POSIX
// shared-memory objects (see vornhost.h).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "internal.h"

namespace vornhost::detail {
namespace {

struct Region {
    uint32_t id;
    uint32_t size;
    std::vector<uint8_t> priv;  // private mode, allocated on first use
    uint8_t *mapped = nullptr;  // POSIX mode mapping, `size` bytes
};

struct ShmState {
    std::mutex lock;
    bool configured = false;
    VornHostShmMode mode = VORNHOST_SHM_PRIVATE;
    std::string prefix;
    std::array<Region, 5> regions{{{3, 5342, {}, nullptr},
                                   {15, 65536, {}, nullptr},
                                   {20, 325, {}, nullptr},
                                   {26, 11444, {}, nullptr},
                                   {55, 526, {}, nullptr}}};
};

ShmState &state()
{
    static auto *s = new ShmState;  // never destroyed
    return *s;
}

bool valid_prefix(const char *prefix)
{
    const size_t n = std::strlen(prefix);
    return n >= 1 && n <= 200 && std::strchr(prefix, '/') == nullptr;
}

// Reads the environment once, under s.lock.
void configure_from_env(ShmState &s)
{
    if (s.configured) {
        return;
    }
    s.configured = true;
    s.mode = env("VORN_SHM_MODE") == "posix" ? VORNHOST_SHM_POSIX : VORNHOST_SHM_PRIVATE;
    const std::string prefix = env("VORN_SHM_PREFIX");
    if (!prefix.empty() && valid_prefix(prefix.c_str())) {
        s.prefix = prefix;
    } else {
        s.prefix = "vornhost-" + std::to_string(static_cast<unsigned long>(::getuid()));
    }
}

Region *find_region(ShmState &s, uint32_t id)
{
    for (Region &r : s.regions) {
        if (r.id == id) {
            return &r;
        }
    }
    return nullptr;
}

std::string object_name(const ShmState &s, const Region &r)
{
    return "/" + s.prefix + "-" + std::to_string(r.id);
}

void unmap_all(ShmState &s)
{
    for (Region &r : s.regions) {
        if (r.mapped != nullptr) {
            ::munmap(r.mapped, r.size);
            r.mapped = nullptr;
        }
    }
}

// The bytes of a region in the current mode, created on first use; nullptr
// when the POSIX object cannot be opened or mapped. Under s.lock.
uint8_t *materialise(ShmState &s, Region &r)
{
    if (s.mode == VORNHOST_SHM_PRIVATE) {
        if (r.priv.size() != r.size) {
            r.priv.assign(r.size, 0);
        }
        return r.priv.data();
    }
    if (r.mapped != nullptr) {
        return r.mapped;
    }
    const std::string name = object_name(s, r);
    const int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        return nullptr;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 ||
        (st.st_size < static_cast<off_t>(r.size) && ::ftruncate(fd, static_cast<off_t>(r.size)) != 0)) {
        ::close(fd);
        return nullptr;
    }
    void *p = ::mmap(nullptr, r.size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED) {
        return nullptr;
    }
    r.mapped = static_cast<uint8_t *>(p);
    return r.mapped;
}

// materialise() as a status: VORNHOST_OK with *base set, VORNHOST_E_NOMEM or
// VORNHOST_E_SYS. Under s.lock.
int32_t region_bytes(ShmState &s, Region &r, uint8_t **base)
{
    try {
        *base = materialise(s, r);
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return *base == nullptr ? VORNHOST_E_SYS : VORNHOST_OK;
}

// Vorn_shm_memread and Vorn_shm_memwrite: counts the call of `fn` (which an
// injected fault fails), checks the access of `length` bytes at `offset`
// before any byte moves, then calls move(the region's bytes at offset) when
// there is anything to move.
template <typename Move>
int32_t checked_access(VornHostFunction fn, uint32_t region, const void *buffer, uint32_t offset, uint32_t length,
                       Move move)
{
    if (fault_hit(fn)) {
        return VORNHOST_E_INJECTED;
    }
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    Region *r = find_region(s, region);
    if (r == nullptr) {
        return VORNHOST_E_NODEV;
    }
    if (buffer == nullptr) {
        return VORNHOST_E_ARG;
    }
    // offset + length <= size, without overflow.
    if (offset > r->size || length > r->size - offset) {
        return VORNHOST_E_RANGE;
    }
    uint8_t *base = nullptr;
    const int32_t rc = region_bytes(s, *r, &base);
    if (rc == VORNHOST_OK && length > 0) {
        move(base + offset);
    }
    return rc;
}

int zero_locked(ShmState &s, Region &r)
{
    uint8_t *base = nullptr;
    const int32_t rc = region_bytes(s, r, &base);
    if (rc == VORNHOST_OK) {
        std::memset(base, 0, r.size);
    }
    return rc;
}

}  // namespace

void shm_reset()
{
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    for (Region &r : s.regions) {
        // In private mode a region never used is still all zero: leave it unallocated.
        if (s.mode == VORNHOST_SHM_POSIX || !r.priv.empty()) {
            zero_locked(s, r);
        }
    }
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

int32_t Vorn_shm_memread(uint32_t region, void *buffer, uint32_t offset, uint32_t length)
{
    return checked_access(VORNHOST_Vorn_shm_memread, region, buffer, offset, length,
                          [buffer, length](const uint8_t *bytes) { std::memcpy(buffer, bytes, length); });
}

int32_t Vorn_shm_memwrite(uint32_t region, const void *buffer, uint32_t offset, uint32_t length)
{
    return checked_access(VORNHOST_Vorn_shm_memwrite, region, buffer, offset, length,
                          [buffer, length](uint8_t *bytes) { std::memmove(bytes, buffer, length); });
}

int vornhost_shm_set_mode(VornHostShmMode mode, const char *prefix)
{
    if (mode != VORNHOST_SHM_PRIVATE && mode != VORNHOST_SHM_POSIX) {
        return VORNHOST_E_ARG;
    }
    if (prefix != nullptr && !valid_prefix(prefix)) {
        return VORNHOST_E_ARG;
    }
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    try {
        configure_from_env(s);
        if (mode != s.mode || (prefix != nullptr && s.prefix != prefix)) {
            unmap_all(s);
        }
        s.mode = mode;
        if (prefix != nullptr) {
            s.prefix = prefix;
        }
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return VORNHOST_OK;
}

VornHostShmMode vornhost_shm_get_mode(void)
{
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    return s.mode;
}

uint32_t vornhost_shm_size(uint32_t region)
{
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    const Region *r = find_region(s, region);
    return r == nullptr ? 0 : r->size;
}

int vornhost_shm_object_name(uint32_t region, char *buf, size_t size)
{
    if (buf == nullptr) {
        return VORNHOST_E_ARG;
    }
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    const Region *r = find_region(s, region);
    if (r == nullptr) {
        return VORNHOST_E_NODEV;
    }
    const std::string name = object_name(s, *r);
    if (name.size() + 1 > size) {
        return VORNHOST_E_NOSPACE;
    }
    std::memcpy(buf, name.c_str(), name.size() + 1);
    return VORNHOST_OK;
}

uint8_t *vornhost_shm_bytes(uint32_t region)
{
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    Region *r = find_region(s, region);
    uint8_t *base = nullptr;
    return r != nullptr && region_bytes(s, *r, &base) == VORNHOST_OK ? base : nullptr;
}

int vornhost_shm_zero(uint32_t region)
{
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    if (region == VORNHOST_SHM_ALL) {
        int rc = VORNHOST_OK;
        for (Region &r : s.regions) {
            const int one = zero_locked(s, r);
            rc = rc == VORNHOST_OK ? one : rc;
        }
        return rc;
    }
    Region *r = find_region(s, region);
    if (r == nullptr) {
        return VORNHOST_E_NODEV;
    }
    return zero_locked(s, *r);
}

int vornhost_shm_unlink(void)
{
    ShmState &s = state();
    std::lock_guard guard(s.lock);
    configure_from_env(s);
    unmap_all(s);
    for (const Region &r : s.regions) {
        ::shm_unlink(object_name(s, r).c_str());
    }
    return VORNHOST_OK;
}

}  // extern "C"

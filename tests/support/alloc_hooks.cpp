// calloc/free wrappers for the test binaries (linked with --wrap=calloc,--wrap=free).
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <numeric>
#include <unordered_map>

#include "testsupport.h"

#if defined(__has_include)
#if __has_include(<sanitizer/lsan_interface.h>) && defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define RTVOX_TEST_HAVE_LSAN 1
#endif
#endif

extern "C" {
void *__real_calloc(size_t n, size_t size);
void __real_free(void *p);
void *__wrap_calloc(size_t n, size_t size);
void __wrap_free(void *p);
}

namespace {

struct Hooks {
    std::mutex lock;
    std::unordered_map<void *, size_t> live;  // block -> bytes
    uint32_t calls = 0;
    uint32_t skip = 0;
    uint32_t fail = 0;
    uint64_t total_bytes = 0;
};

Hooks &hooks()
{
    static Hooks *h = new Hooks;  // never destroyed: frees may arrive during exit
    return *h;
}

}  // namespace

extern "C" void *__wrap_calloc(size_t n, size_t size)
{
    Hooks &h = hooks();
    std::lock_guard guard(h.lock);
    ++h.calls;
    if (h.skip > 0) {
        --h.skip;
    } else if (h.fail > 0) {
        --h.fail;
        return nullptr;
    }
    void *p = __real_calloc(n, size);
    if (p != nullptr) {
        h.live[p] = n * size;
        h.total_bytes += n * size;
    }
    return p;
}

extern "C" void __wrap_free(void *p)
{
    if (p != nullptr) {
        Hooks &h = hooks();
        std::lock_guard guard(h.lock);
        h.live.erase(p);
    }
    __real_free(p);
}

namespace rtvox::test {

#ifdef RTVOX_TEST_HAVE_LSAN
KeptLeak::KeptLeak()
{
    __lsan_disable();
}
KeptLeak::~KeptLeak()
{
    __lsan_enable();
}
#else
KeptLeak::KeptLeak() = default;
KeptLeak::~KeptLeak() = default;
#endif

// Runs `f` on the hooks under their lock and returns what it returns.
template <class F>
auto with_hooks(F f)
{
    Hooks &h = hooks();
    std::lock_guard guard(h.lock);
    return f(h);
}

void alloc_fail(uint32_t skip, uint32_t count)
{
    with_hooks([&](Hooks &h) {
        h.skip = skip;
        h.fail = count;
    });
}

void alloc_fail_clear()
{
    alloc_fail(0, 0);
}

void alloc_reset()
{
    with_hooks([](Hooks &h) {
        h.live.clear();
        h.calls = h.skip = h.fail = 0;
        h.total_bytes = 0;
    });
}

uint32_t alloc_calls()
{
    return with_hooks([](Hooks &h) { return h.calls; });
}

int64_t alloc_live()
{
    return with_hooks([](Hooks &h) { return static_cast<int64_t>(h.live.size()); });
}

int64_t alloc_live_bytes()
{
    return with_hooks([](Hooks &h) {
        return std::accumulate(h.live.begin(), h.live.end(), int64_t{0},
                               [](int64_t sum, const auto &entry) { return sum + static_cast<int64_t>(entry.second); });
    });
}

uint64_t alloc_total_bytes()
{
    return with_hooks([](Hooks &h) { return h.total_bytes; });
}

}  // namespace rtvox::test

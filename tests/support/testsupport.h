// Test support shared by every test executable.
//
//  * Allocation hooks: the test binaries are linked with --wrap=calloc and
//    --wrap=free, so every calloc/free made by the library (rtvox_alloc and
//    rtvox_free) passes through here. Tests count live blocks and make the
//    n-th allocation fail.
//  * TempRoot: a private directory that RTVOX_ROOT points at for the life of
//    the object, so the library's absolute paths land inside it.
//  * Trace helpers over the host emulation's capture.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rtvox::test {

// ---- allocation hooks -------------------------------------------------------

// After `skip` further callocs succeed, the next `count` callocs return null.
void alloc_fail(uint32_t skip, uint32_t count);
void alloc_fail_clear();
// Forgets everything counted so far and disarms failures.
void alloc_reset();
// calloc calls since alloc_reset (failed ones included).
uint32_t alloc_calls();
// Blocks handed out by calloc since alloc_reset that were not freed yet, and their bytes.
int64_t alloc_live();
int64_t alloc_live_bytes();
// Total bytes handed out by calloc since alloc_reset.
uint64_t alloc_total_bytes();

// While one of these lives, blocks allocated by this thread are not reported
// by the leak checker. For the leaks the library keeps on purpose (a
// half-done init, abandoned queue entries): wrap the call that leaks.
class KeptLeak {
public:
    KeptLeak();
    ~KeptLeak();
    KeptLeak(const KeptLeak &) = delete;
    KeptLeak &operator=(const KeptLeak &) = delete;
};

// ---- a private root for the library's fixed paths -----------------------------

class TempRoot {
public:
    // Creates a fresh directory with var/log, flash/data0/oem_ps and tmp below
    // it and points RTVOX_ROOT at it.
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    const std::string &dir() const { return dir_; }
    // The real location of one of the library's absolute paths.
    std::string path(const std::string &absolute) const { return dir_ + absolute; }
    void touch(const std::string &absolute, const std::string &content = {}) const;
    bool exists(const std::string &absolute) const;
    std::string read(const std::string &absolute) const;

private:
    std::string dir_;
};

std::string read_file(const std::string &path);
std::vector<std::string> split_lines(const std::string &text);

// ---- trace capture --------------------------------------------------------------

// Starts a fresh capture of every trace line (all levels).
void trace_start();
// The lines captured so far as "L<level> <text without newline>", category checked to be 15.
std::vector<std::string> trace_lines();
// True when a captured line at `level` contains `needle`.
bool trace_has(int level, const std::string &needle);
// Number of captured lines that contain `needle`, at any level.
int trace_count(const std::string &needle);

// ---- concurrency tests ------------------------------------------------------------

// True when the test runs under valgrind (RTVOX_UNDER_VALGRIND=1): use smaller counts.
bool valgrind_run();

// Ends the process (exit status 3) when the test overruns `seconds`, so that a
// lock never given back cannot leave a thread waiting for ever. One at a time.
class TimeBound {
public:
    explicit TimeBound(unsigned seconds);
    ~TimeBound();
    TimeBound(const TimeBound &) = delete;
    TimeBound &operator=(const TimeBound &) = delete;
};

}  // namespace rtvox::test

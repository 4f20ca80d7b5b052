// vornprintf: level filter, output to stderr or VORN_TRACE_FILE, capture.
//
// Most lines the library emits are neither written out nor captured, so that
// case is decided first and costs no formatting, no lock and no locked
// instruction: the call count is per thread (faults.cpp), and the effective
// level and the capture switch are constant-initialised atomics read relaxed,
// with no static-initialisation guard on the way. The level is read from
// VORN_TRACE_LEVEL at the first line (under the state's lock) and again
// whenever the override is set or dropped. A line that is kept is formatted
// once.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "internal.h"

namespace vornhost::detail {
namespace {

constexpr int32_t kDefaultLevel = 2;

struct Line {
    int32_t level;
    int32_t category;
    std::string text;
};

int32_t env_level()
{
    const std::string value = env("VORN_TRACE_LEVEL");
    if (value.empty()) {
        return kDefaultLevel;
    }
    char *end = nullptr;
    errno = 0;
    const long parsed = std::strtol(value.c_str(), &end, 10);
    if (errno != 0 || end == value.c_str() || *end != '\0' || parsed < INT32_MIN || parsed > INT32_MAX) {
        return kDefaultLevel;
    }
    return static_cast<int32_t>(parsed);
}

// What every line looks at first. Constant-initialised and trivially
// destructible: no guard to pass, and still there after exit has begun.
struct Switches {
    std::mutex lock;                 // serialises output and changes of the level
    int32_t override_level = -1;     // guarded by lock
    std::atomic<bool> known{false};  // level has been set (release, under lock)
    std::atomic<int32_t> level{0};   // the override, else the environment's
    std::atomic<bool> capture{false};
};

constinit Switches g_switches;
static_assert(std::is_trivially_destructible_v<Switches>);

// Sets the override (negative: none) and the effective level with it; the
// environment is read again when there is no override. Under g_switches.lock.
void set_level_locked(int32_t override_level)
{
    Switches &s = g_switches;
    s.override_level = override_level < 0 ? -1 : override_level;
    s.level.store(s.override_level >= 0 ? s.override_level : env_level(), std::memory_order_relaxed);
    s.known.store(true, std::memory_order_release);
}

// Reads the level from the environment, once.
[[gnu::noinline]] void read_level_once()
{
    std::lock_guard guard(g_switches.lock);
    if (!g_switches.known.load(std::memory_order_relaxed)) {
        set_level_locked(-1);
    }
}

// The effective level, read from the environment by the first caller.
int32_t effective_level()
{
    if (!g_switches.known.load(std::memory_order_acquire)) [[unlikely]] {
        read_level_once();
    }
    return g_switches.level.load(std::memory_order_relaxed);
}

// Like every first use of the trace service, the first look at the captured
// lines reads the level.
Journal<Line> *new_journal()
{
    static_cast<void>(effective_level());
    return new Journal<Line>;
}

// The captured lines; entries never move, so text pointers stay valid.
Journal<Line> &lines()
{
    static auto *j = new_journal();  // never destroyed: traces may come during exit
    return *j;
}

// What a dropped line answers without being formatted: a format without a
// conversion is its own text, so its length; 0 otherwise.
int32_t unformatted_length(const char *format)
{
    if (format[0] == '%') {  // how the library's lines start
        return 0;
    }
    const char *stop = strchrnul(format, '%');
    return *stop == '\0' ? static_cast<int32_t>(stop - format) : 0;
}

}  // namespace

void trace_reset()
{
    lines().clear();
    std::lock_guard guard(g_switches.lock);
    g_switches.capture.store(false, std::memory_order_relaxed);
    set_level_locked(-1);
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

int32_t vornprintf(int32_t level, int32_t category, const char *format, ...)
{
    if (fault_hit(VORNHOST_vornprintf) || format == nullptr) {
        return -1;
    }
    const bool print = level <= effective_level();
    const bool keep = g_switches.capture.load(std::memory_order_relaxed);
    if (!print && !keep) {
        return unformatted_length(format);
    }
    char *formatted = nullptr;
    va_list args;
    va_start(args, format);
    const int length = vasprintf(&formatted, format, args);  // one formatting pass
    va_end(args);
    if (length < 0) {
        return -1;
    }
    try {
        std::string text(formatted, static_cast<size_t>(length));
        std::free(formatted);
        formatted = nullptr;
        if (print) {
            std::string line = "[L" + std::to_string(level) + " C" + std::to_string(category) + "] " + text;
            if (line.back() != '\n') {
                line.push_back('\n');
            }
            std::lock_guard guard(g_switches.lock);
            if (!append_to_env_file("VORN_TRACE_FILE", line)) {
                write_all(STDERR_FILENO, line);
            }
        }
        if (keep) {
            lines().add(Line{level, category, std::move(text)});
        }
        return length;
    } catch (...) {
        std::free(formatted);
        return -1;
    }
}

void vornhost_trace_capture(int enable)
{
    static_cast<void>(lines());
    g_switches.capture.store(enable != 0, std::memory_order_relaxed);
}

void vornhost_trace_clear(void)
{
    lines().clear();
}

uint32_t vornhost_trace_count(void)
{
    return lines().count();
}

int vornhost_trace_get(uint32_t index, VornHostTraceLine *out)
{
    return lines().get(index, out, [](const Line &line, VornHostTraceLine &o) {
        o.level = line.level;
        o.category = line.category;
        o.text = line.text.c_str();
    });
}

void vornhost_trace_set_level(int32_t level)
{
    std::lock_guard guard(g_switches.lock);
    set_level_locked(level);
}

int32_t vornhost_trace_effective_level(void)
{
    return effective_level();
}

}  // extern "C"

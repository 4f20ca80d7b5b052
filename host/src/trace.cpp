// vornprintf: level filter, output to stderr or VORN_TRACE_FILE, capture.
//
// Most lines the library emits are neither written out nor captured, so that
// case is decided first from two atomics and costs no formatting and no lock:
// the effective level is cached (VORN_TRACE_LEVEL is read when the state is
// first used and again whenever the override is set or dropped), and the
// capture switch is a flag of its own. A line that is kept is formatted once.
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

struct TraceState {
    std::mutex lock;                          // serialises output and changes of the level
    int32_t override_level = -1;              // guarded by lock
    std::atomic<int32_t> level{env_level()};  // the override, else the environment's
    std::atomic<bool> capture{false};
    Journal<Line> lines;  // entries never move, so text pointers stay valid
};

TraceState &state()
{
    static auto *s = new TraceState;  // never destroyed: traces may come during exit
    return *s;
}

// Sets the override (negative: none) and the effective level with it; the
// environment is read again when there is no override. Under s.lock.
void set_level_locked(TraceState &s, int32_t override_level)
{
    s.override_level = override_level < 0 ? -1 : override_level;
    s.level.store(s.override_level >= 0 ? s.override_level : env_level(), std::memory_order_relaxed);
}

// What a dropped line answers without being formatted: a format without a
// conversion is its own text, so its length; 0 otherwise.
int32_t unformatted_length(const char *format)
{
    // The library's lines start with a conversion: this usually stops at once.
    const char *stop = strchrnul(format, '%');
    return *stop == '\0' ? static_cast<int32_t>(stop - format) : 0;
}

}  // namespace

void trace_reset()
{
    TraceState &s = state();
    std::lock_guard guard(s.lock);
    s.capture.store(false, std::memory_order_relaxed);
    s.lines.clear();
    set_level_locked(s, -1);
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

int32_t vornprintf(int32_t level, int32_t category, const char *format, ...)
{
    if (fault_hit(VORNHOST_vornprintf) || format == nullptr) {
        return -1;
    }
    TraceState &s = state();
    const bool print = level <= s.level.load(std::memory_order_relaxed);
    const bool keep = s.capture.load(std::memory_order_relaxed);
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
            std::lock_guard guard(s.lock);
            if (!append_to_env_file("VORN_TRACE_FILE", line)) {
                write_all(STDERR_FILENO, line);
            }
        }
        if (keep) {
            s.lines.add(Line{level, category, std::move(text)});
        }
        return length;
    } catch (...) {
        std::free(formatted);
        return -1;
    }
}

void vornhost_trace_capture(int enable)
{
    state().capture.store(enable != 0, std::memory_order_relaxed);
}

void vornhost_trace_clear(void)
{
    state().lines.clear();
}

uint32_t vornhost_trace_count(void)
{
    return state().lines.count();
}

int vornhost_trace_get(uint32_t index, VornHostTraceLine *out)
{
    return state().lines.get(index, out, [](const Line &line, VornHostTraceLine &o) {
        o.level = line.level;
        o.category = line.category;
        o.text = line.text.c_str();
    });
}

void vornhost_trace_set_level(int32_t level)
{
    TraceState &s = state();
    std::lock_guard guard(s.lock);
    set_level_locked(s, level);
}

int32_t vornhost_trace_effective_level(void)
{
    return state().level.load(std::memory_order_relaxed);
}

}  // extern "C"

// vornprintf: level filter, output to stderr or VORN_TRACE_FILE, capture.
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "internal.h"

namespace vornhost::detail {
namespace {

constexpr int32_t kDefaultLevel = 2;

struct Line {
    int32_t level;
    int32_t category;
    std::string text;
};

struct TraceState {
    std::mutex lock;
    bool capture = false;
    Journal<Line> lines;  // entries never move, so text pointers stay valid
    int32_t override_level = -1;
};

TraceState &state()
{
    static auto *s = new TraceState;  // never destroyed: traces may come during exit
    return *s;
}

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

// The formatted text, false on a formatting error.
bool format_text(const char *format, va_list args, std::string &out)
{
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed < 0) {
        return false;
    }
    std::vector<char> buffer(static_cast<size_t>(needed) + 1);
    const int written = std::vsnprintf(buffer.data(), buffer.size(), format, args);
    if (written < 0) {
        return false;
    }
    out.assign(buffer.data(), static_cast<size_t>(written));
    return true;
}

}  // namespace

void trace_reset()
{
    TraceState &s = state();
    std::lock_guard guard(s.lock);
    s.capture = false;
    s.lines.clear();
    s.override_level = -1;
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

int32_t vornprintf(int32_t level, int32_t category, const char *format, ...)
{
    if (fault_hit(VORNHOST_vornprintf) || format == nullptr) {
        return -1;
    }
    try {
        std::string text;
        va_list args;
        va_start(args, format);
        const bool ok = format_text(format, args, text);
        va_end(args);
        if (!ok) {
            return -1;
        }
        TraceState &s = state();
        std::lock_guard guard(s.lock);
        const int32_t limit = s.override_level >= 0 ? s.override_level : env_level();
        if (level <= limit) {
            std::string line = "[L" + std::to_string(level) + " C" + std::to_string(category) + "] " + text;
            if (line.back() != '\n') {
                line.push_back('\n');
            }
            if (!append_to_env_file("VORN_TRACE_FILE", line)) {
                write_all(STDERR_FILENO, line);
            }
        }
        const auto length = static_cast<int32_t>(text.size());
        if (s.capture) {
            s.lines.add(Line{level, category, std::move(text)});
        }
        return length;
    } catch (...) {
        return -1;
    }
}

void vornhost_trace_capture(int enable)
{
    TraceState &s = state();
    std::lock_guard guard(s.lock);
    s.capture = enable != 0;
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
    s.override_level = level < 0 ? -1 : level;
}

int32_t vornhost_trace_effective_level(void)
{
    TraceState &s = state();
    std::lock_guard guard(s.lock);
    return s.override_level >= 0 ? s.override_level : env_level();
}

}  // extern "C"

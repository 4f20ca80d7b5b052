// Trace convention shared by every module of the library.
//
// A trace line goes to the platform trace service as
//     vornprintf(level, 15, "%s:%s:%u:" <text> "\n", <module file>, <function>, <line>, ...)
// where <module file> is the name log readers on the controller have always
// seen for the module ("rtvox.c", "rt_cache.c", ...). Each module defines
// RT_MODULE_FILE before it includes this header.
//
// Some lines are also copied to the diagnostic log file; RT_TRACE_LOG does
// both: the trace call first, then the file copy with the same text but
// without the "%s:%s:%u:" head.
#pragma once

#include <atomic>
#include <cstdint>

#include "rtvox/platform.h"

#ifndef RT_MODULE_FILE
#error "define RT_MODULE_FILE (the module's file name as log readers know it) before including trace.h"
#endif

// The library's fixed trace category at the platform log service.
inline constexpr int32_t RT_TRACE_CATEGORY = 15;

namespace rtvox::detail {
// Appends one time-stamped line to the diagnostic log file when copies are on.
void log_copy(const char *function, const char *format, ...) RTVOX_PRINTF_LIKE(2, 3);

// IsrtvoxLogDisabled's answer once looked at: 0 = not yet, then 1 (copies
// off) or 2 (copies on) for the life of the process.
extern std::atomic<uint32_t> g_log_switch;

// False when copies are known to be off, so that a line whose copy is off
// costs one load and no call (log_copy decides every other case itself).
inline bool log_copy_wanted()
{
    return g_log_switch.load(std::memory_order_relaxed) != 1;
}
}  // namespace rtvox::detail

#define RT_TRACE(level, fmt, ...) RT_TRACE_AS(__func__, level, fmt __VA_OPT__(, ) __VA_ARGS__)
#define RT_TRACE_LOG(level, fmt, ...) RT_TRACE_LOG_AS(__func__, level, fmt __VA_OPT__(, ) __VA_ARGS__)

// The same, on behalf of an exported function whose body is shared with
// others: `function` is the name the line carries.
#define RT_TRACE_AS(function, level, fmt, ...) \
    RT_TRACE_FORMATTED_AS(function, level, RT_TRACE_FORMAT(fmt) __VA_OPT__(, ) __VA_ARGS__)

// A line whose text is chosen at run time (from a table of lines, say):
// each candidate is written as RT_TRACE_FORMAT("text %d") where the text is
// known, and the chosen one is traced with RT_TRACE_FORMATTED_AS, so that
// the line is still formatted once, by the trace service.
#define RT_TRACE_FORMAT(fmt) "%s:%s:%u:" fmt "\n"
#define RT_TRACE_FORMATTED_AS(function, level, format, ...)                      \
    vornprintf((level), RT_TRACE_CATEGORY, (format), RT_MODULE_FILE, (function), \
               static_cast<unsigned>(__LINE__) __VA_OPT__(, ) __VA_ARGS__)

#define RT_TRACE_LOG_AS(function, level, fmt, ...)                                 \
    do {                                                                           \
        RT_TRACE_AS(function, level, fmt __VA_OPT__(, ) __VA_ARGS__);              \
        if (::rtvox::detail::log_copy_wanted()) {                                  \
            ::rtvox::detail::log_copy((function), fmt __VA_OPT__(, ) __VA_ARGS__); \
        }                                                                          \
    } while (0)

// Entry and exit lines in the "%s %s %d" form, traced and copied to the file.
#define RT_TRACE_ENTRY(level) RT_TRACE_LOG(level, "%s %s %d", "--> entry ", __func__, __LINE__)
#define RT_TRACE_EXIT(level) RT_TRACE_LOG(level, "%s %s %d", "<-- exit ", __func__, __LINE__)

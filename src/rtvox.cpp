// Runtime support: the diagnostic log, the allocation pair, the
// two-dimensional array and the marker-file switches.
#define RT_MODULE_FILE "rtvox.c"

#include "rtvox/rtvox.h"

#include <sys/stat.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <string>

#include "paths.h"
#include "trace.h"

using rtvox::detail::resolve_path;

extern "C" {
const char *pRTLogPath = "/var/log/rtvox.log";
const char *pRTBakLogPath = "/var/log/rtvox.log.bak";
const char *pMUtexName = "RTVOX";
const int32_t MAX_LOG_ENTRY_SIZE = 511;
// Zero-filled until rt_log_init: glibc takes that as a default mutex, so file
// copies made before rt_log_init already work.
pthread_mutex_t logmutex;
}

namespace {

constexpr const char *kLogDisabledFlag = "/flash/data0/oem_ps/rt_vox_log_disabled";
constexpr const char *kHbaDisabledFlag = "/flash/data0/oem_ps/rt_vox_sashba_disabled";
constexpr const char *kMiruDisabledFlag = "/flash/data0/oem_ps/rt_vox_miru_disabled";
constexpr const char *kMiruPollFile = "/flash/data0/oem_ps/rt_vox_miru_poll";
constexpr const char *kDumpRequest = "/tmp/rtdump";

// The log file never holds more lines than this.
constexpr int32_t kLogDepth = 1000;

// Log state: 0 before rt_log_init, 1 when the log file could not be created,
// 4 once set up. rt_log_Exit reads "above 2" as "the attribute object was
// initialised" and "above 3" as "the mutex was"; 2 and 3 are never stored.
enum : uint8_t { kLogNotInit = 0, kLogNoFile = 1, kLogReady = 4 };
std::atomic<uint8_t> g_log_state{kLogNotInit};
pthread_mutexattr_t g_log_attr;

// Lines written since the last truncation; only touched under logmutex.
int32_t g_log_lines = 0;

bool file_exists(const char *absolute)
{
    struct stat st {};
    return stat(resolve_path(absolute).c_str(), &st) == 0;
}

// The time-stamped prefix of every line copied to the log file.
void write_prefix(FILE *file, const char *function)
{
    const time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    fprintf(file, "(T:%08X) %02d-%02d %02d:%02d:%02d [%s] ", static_cast<unsigned>(pthread_self()), local.tm_mon + 1,
            local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, function);
}

}  // namespace

namespace rtvox::detail {

std::atomic<uint32_t> g_log_switch{0};

void log_copy(const char *function, const char *format, ...)
{
    if (IsrtvoxLogDisabled() != 2) {
        return;
    }
    if (pthread_mutex_lock(&logmutex) != 0) {
        return;  // a failed lock silently loses this line's copy
    }
    // The line counter decides the mode before the open, so a line whose
    // open fails still counts.
    const char *mode = hasLogDepthExceeded(kLogDepth) == 1 ? "w" : "a+";
    FILE *file = fopen(resolve_path(pRTLogPath).c_str(), mode);
    if (file != nullptr) {
        write_prefix(file, function);
        va_list args;
        va_start(args, format);
        vfprintf(file, format, args);
        va_end(args);
        fputc('\n', file);
        fclose(file);
    }
    pthread_mutex_unlock(&logmutex);
}

}  // namespace rtvox::detail

extern "C" {

int32_t rt_log_init(void)
{
    const std::string log_path = resolve_path(pRTLogPath);
    // The previous run's log replaces any older backup; a missing log is no error.
    (void)rename(log_path.c_str(), resolve_path(pRTBakLogPath).c_str());

    FILE *file = fopen(log_path.c_str(), "w");
    if (file == nullptr) {
        const int32_t traced = RT_TRACE(1, "Failed to create log file %s", pRTLogPath);
        g_log_state = kLogNoFile;
        return traced;
    }
    fclose(file);

    int32_t result = pthread_mutexattr_init(&g_log_attr);
    if (result != 0) {
        result = RT_TRACE(1, "pthread_mutexattr_init failed with %d", result);
    } else {
        result = pthread_mutex_init(&logmutex, &g_log_attr);
        if (result != 0) {
            result = RT_TRACE(1, "pthread_mutex_init  failed with %d", result);
        }
    }
    // Set up even when an initialisation failed: later copies use the mutex as it stands.
    g_log_state = kLogReady;
    return result;
}

void rt_log_Exit(void)
{
    const uint8_t state = g_log_state;
    if (state > 2) {
        const int result = pthread_mutexattr_destroy(&g_log_attr);
        if (result != 0) {
            RT_TRACE(1, "pthread_mutexattr_destroy failed with %d", result);
        }
    }
    if (state > 3) {
        const int result = pthread_mutex_destroy(&logmutex);
        if (result != 0) {
            RT_TRACE(1, "pthread_mutex_destroy  failed with %d", result);
        }
    }
    // The state is left as it was: the service calls this last.
}

void rtvox_wlog(uint32_t /*unused*/, const char *tag, const wchar_t *text)
{
    const uint8_t state = g_log_state;
    if (tag == nullptr || text == nullptr || state != kLogReady) {
        return;
    }
    // The state value doubles as the trace level.
    RT_TRACE_LOG(state, "[%s] %ls", tag, text);
}

int32_t hexdump(const void *data, int32_t length)
{
    if (IsrtvoxLogDisabled() != 2) {
        return 0;
    }
    // Opened before the lock is taken, and always appended to: the dump
    // neither consults nor advances the line counter.
    FILE *file = fopen(resolve_path(pRTLogPath).c_str(), "a+");
    if (file == nullptr) {
        return 0;
    }
    if (pthread_mutex_lock(&logmutex) != 0) {
        fclose(file);
        return 0;
    }
    const auto *bytes = static_cast<const unsigned char *>(data);
    if (bytes != nullptr) {
        for (int32_t row = 0; row < length; row += 16) {
            fprintf(file, "%06x: ", static_cast<unsigned>(row));
            for (int32_t i = row; i < row + 16; ++i) {
                if (i < length) {
                    fprintf(file, "%02x ", bytes[i]);
                } else {
                    fputs("   ", file);
                }
            }
            fputc(' ', file);
            for (int32_t i = row; i < row + 16 && i < length; ++i) {
                fputc(isprint(bytes[i]) ? bytes[i] : '.', file);
            }
            fputc('\n', file);
        }
    }
    fclose(file);
    pthread_mutex_unlock(&logmutex);
    return 0;
}

uint32_t hasLogDepthExceeded(int32_t limit)
{
    const int32_t next = g_log_lines + 1;
    if (next <= limit) {
        g_log_lines = next;
        return 0;
    }
    g_log_lines = 1;
    return 1;
}

uint32_t IsrtvoxLogDisabled(void)
{
    using rtvox::detail::g_log_switch;
    uint32_t cached = g_log_switch.load(std::memory_order_relaxed);
    if (cached != 0) {
        return cached;
    }
    // Looked at once per process; two first callers may both stat, harmlessly.
    cached = file_exists(kLogDisabledFlag) ? 1 : 2;
    // A locked exchange rather than a plain store: the race checkers then
    // accept the lock-free reads of every trace line (log_copy_wanted).
    g_log_switch.exchange(cached, std::memory_order_seq_cst);
    return cached;
}

void *rtvox_alloc(uint32_t size)
{
    return calloc(1, size);
}

void rtvox_free(void *p)
{
    free(p);
}

void **rtvox_alloc_2darray(int32_t rows, int32_t cols, int32_t size)
{
    // Sizes are computed in 32-bit unsigned arithmetic, as on the board.
    const uint32_t row_bytes = static_cast<uint32_t>(cols) * static_cast<uint32_t>(size);
    auto **table = static_cast<void **>(rtvox_alloc(static_cast<uint32_t>(rows) * sizeof(void *)));
    void *data = rtvox_alloc(static_cast<uint32_t>(rows) * row_bytes);
    if (rows < 1) {
        // The data block is lost here; callers never pass an empty array
        // and the leak is kept as the array's known behaviour.
        return table;
    }
    if (table == nullptr) {
        // Nothing to fill: answer null rather than write through it, and give
        // the data block back since no caller could ever free it.
        free(data);
        return nullptr;
    }
    // Filled even when the data block could not be had (the row pointers are
    // then small offsets from null), as callers of this array expect.
    const auto base = reinterpret_cast<uintptr_t>(data);
    for (int32_t i = 0; i < rows; ++i) {
        table[i] = reinterpret_cast<void *>(base + static_cast<uint32_t>(i) * row_bytes);
    }
    return table;
}

void rtvox_free_2darray(void **table, uint32_t /*rows*/)
{
    RT_TRACE_ENTRY(4);
    if (table != nullptr) {
        free(table[0]);  // row 0 is the data block itself
        free(table);
    }
    RT_TRACE_EXIT(4);
}

uint32_t IsrtvoxHBAInventoryDisabled(void)
{
    return file_exists(kHbaDisabledFlag) ? 0 : 1;
}

uint32_t IsrtvoxMIRUInventoryDisabled(void)
{
    return file_exists(kMiruDisabledFlag) ? 0 : 1;
}

uint32_t IsstressMIRUPollEnabled(int32_t *first, int32_t *second)
{
    FILE *file = fopen(resolve_path(kMiruPollFile).c_str(), "r");
    if (file == nullptr) {
        return 0;
    }
    int values[2] = {0, 0};
    if (fscanf(file, "%d %d", &values[0], &values[1]) < 2) {
        values[0] = 0;  // the defaults of a stress poll
        values[1] = 3;
    }
    fclose(file);
    if (first != nullptr) {
        *first = values[0];
    }
    if (second != nullptr) {
        *second = values[1];
    }
    return 1;
}

uint32_t IsDumpEnabled(void)
{
    const std::string path = resolve_path(kDumpRequest);
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return 0;
    }
    // Anyone may plant a link in /tmp. It is no request and stays where it
    // is: removing it would consume a request nobody made, and the line
    // below, repeated at every call, shows that it is there.
    if (S_ISLNK(st.st_mode)) {
        RT_TRACE(2, "<-- %s refused: %s is a symbolic link", __func__, kDumpRequest);
        return 0;
    }
    // The first caller to see the request consumes it; one that cannot
    // remove it reports no dump and the request stays pending. remove()
    // never follows a link, so a link swapped in meanwhile loses only itself.
    return remove(path.c_str()) == 0 ? 1 : 0;
}

char *getFriendlyFQDDName(const wchar_t *fqdd)
{
    if (fqdd == nullptr) {
        return nullptr;
    }
    const size_t length = wcslen(fqdd);
    auto *text = static_cast<char *>(calloc(length + 1, 1));
    if (text == nullptr) {
        // The line shows the null buffer as glibc prints a null string,
        // without handing printf a null pointer for %s.
        RT_TRACE_LOG(4, "Failed to allocate memory for fqdd %s", "(null)");
        return nullptr;
    }
    // "%ls" is the standard spelling of "%S"; characters that do not fit in
    // one byte cut the text short, and the last byte stays the terminator.
    snprintf(text, length + 1, "%ls", fqdd);
    text[length] = '\0';
    RT_TRACE(4, "converting to friendly fqdd:%s", text);
    char *name = ConvertFQDDToFriendlyName(text);
    if (name != nullptr) {
        RT_TRACE(4, "converted friendly fqdd is %s", name);
    } else {
        RT_TRACE_LOG(4, "Failed to convert to friendly fqdd line:%d", __LINE__);
    }
    free(text);
    return name;
}

}  // extern "C"

// Event-log submission: storage events with their argument strings, message
// ids alone, the single record, and friendly names into a caller's buffer.
#define RT_MODULE_FILE "rt_kwlogwrp.c"

#include "rtvox/rt_kwlogwrp.h"

#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string_view>

#include "rtvox/platform.h"
#include "rtvox/rt_sync.h"
#include "trace.h"

static_assert(std::endian::native == std::endian::little, "the single record goes out in host order");

namespace {

// Bits of the status word: statusFlags in the low half, phaseFlags in the high half.
constexpr uint32_t kPastEventsDone = RTSYNC_STATUS_PAST_EVENTS_DONE;
constexpr uint32_t kInventoryPhase = RTSYNC_PHASE_INVENTORY << 16;

struct FreeBlock {
    void operator()(void *p) const { rtvox_free(p); }
};
template <typename T>
using Block = std::unique_ptr<T, FreeBlock>;

// A TLV list handle, freed on every way out.
class TlvList {
public:
    TlvList() = default;
    ~TlvList() { reset(); }
    TlvList(const TlvList &) = delete;
    TlvList &operator=(const TlvList &) = delete;

    int32_t create() { return QNIPCLCreateTLVList(&handle_); }
    void reset()
    {
        if (handle_ != 0) {
            QNIPCLFreeTLVList(handle_);
            handle_ = 0;
        }
    }
    uint32_t handle() const { return handle_; }

private:
    uint32_t handle_ = 0;
};

// Message ids are matched on their first strlen(prefix) characters only, so
// "PDR16" also covers "PDR160".
bool begins_with(const char *msgId, std::string_view prefix)
{
    return std::strncmp(msgId, prefix.data(), prefix.size()) == 0;
}

// The messages still logged during the inventory phase.
bool logged_during_inventory(const char *msgId)
{
    return begins_with(msgId, "ENC28") || begins_with(msgId, "PDR16") || begins_with(msgId, "SSD0001");
}

// The messages not held back during past-event processing: an ENC28 only
// when it concerns a non-RAID controller.
bool logged_during_past_events(const char *msgId, const wchar_t *fqdd)
{
    return begins_with(msgId, "CTL97") || begins_with(msgId, "PDR16") || begins_with(msgId, "SSD0001") ||
           (begins_with(msgId, "ENC28") && std::wcsstr(fqdd, L"NonRAID") != nullptr);
}

bool valid_input(uint32_t severity, const char *msgId, const wchar_t *fqdd, char **args, uint8_t count)
{
    if (count > RT_KWLOG_MAX_ARGS || msgId == nullptr || fqdd == nullptr || severity < 1 || severity > 3) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    if (args == nullptr) {
        return false;
    }
    // A missing string would be read by the traces and the packing below.
    for (uint8_t i = 0; i < count; ++i) {
        if (args[i] == nullptr) {
            return false;
        }
    }
    return true;
}

// Packs the strings into `buffer` and puts them, as the only TLV, into a new
// list. 0, or the code of the platform call that failed (the list is then freed).
int32_t pack_arguments(char **strings, uint8_t count, uint8_t *buffer, TlvList &list)
{
    uint32_t length = RT_KWLOG_MSGARGS_SIZE;
    int32_t rc = QNIPCLBuildMsgArgsBuffer(strings, count, buffer, &length);
    if (rc != 0) {
        RT_TRACE_LOG_AS("rt_KWLOGCMNSubmitEvent", 2, "Error: QNIPCLBuildMsgArgsBuffer failed [%d]", rc);
        return rc;
    }
    // The platform never reports more than the capacity it was given; the
    // bound keeps one that does from having us hand out bytes past the buffer.
    length = length < RT_KWLOG_MSGARGS_SIZE ? length : RT_KWLOG_MSGARGS_SIZE;
    RT_TRACE_AS("rt_KWLOGCMNSubmitEvent", 4, "msgArgsBuf:'%.*s'", static_cast<int>(length),
                reinterpret_cast<const char *>(buffer));
    rc = list.create();
    if (rc != 0) {
        RT_TRACE_LOG_AS("rt_KWLOGCMNSubmitEvent", 2, "Error: QNKWLWRAPCreateTLVList failed [%d]", rc);
        return rc;
    }
    rc = QNIPCLAddTLVToList(RT_KWLOG_TLV_MSGARGS, static_cast<uint16_t>(length & 0xFFFF), buffer, list.handle());
    if (rc != 0) {
        RT_TRACE_LOG_AS("rt_KWLOGCMNSubmitEvent", 2, "Error: QNIPCLAddTLVToList failed [%d]", rc);
        list.reset();
    }
    return rc;
}

}  // namespace

extern "C" {

int32_t rt_KWLOGCMNSubmitEvent(uint32_t severity, const char *msgId, const wchar_t *fqdd, char **args, uint8_t count)
{
    RT_TRACE_ENTRY(4);
    if (!valid_input(severity, msgId, fqdd, args, count)) {
        // All four lines, whichever check failed.
        RT_TRACE_LOG(2, "Error: Inappropriate severity level received:%d", static_cast<int>(severity));
        RT_TRACE_LOG(2, "Error: Number of strings input count:%d", count);
        RT_TRACE_LOG(2, "Error: args string pointer address:%p", static_cast<void *>(args));
        RT_TRACE_LOG(2, "Error: MessageID pointer received:%p FQDD %p", static_cast<const void *>(msgId),
                     static_cast<const void *>(fqdd));
        return 2;
    }

    // Without the lock the status is not read and no rule holds the event back.
    bool held_back = false;
    if (RTSync_LockGlobalStatus() == 0) {
        RTSyncStatus status{};
        const uint32_t read = RTSync_GetGlobalStatus(&status);
        RTSync_UnLockGlobalStatus();
        if (read != 0) {
            RT_TRACE(4, "<-- return, RTSync_GetGlobalStatus failed!!");
            return -1;
        }
        const uint32_t word = status.statusFlags | (static_cast<uint32_t>(status.phaseFlags) << 16);
        if ((word & kInventoryPhase) != 0 && !logged_during_inventory(msgId)) {
            RT_TRACE(4, "No logging KW alert during invenotry phase, suppress it");
            return 0;
        }
        if ((word & kPastEventsDone) == 0) {
            RT_TRACE(4, "We are in past event processing after tavo reset");
            held_back = !logged_during_past_events(msgId, fqdd);
        }
    }

    // Only the path with argument strings looks at held_back: an event
    // without strings is submitted even during past-event processing, which
    // the service relies on.
    Block<uint8_t> msgArgs;
    TlvList list;
    if (count > 0) {
        RT_TRACE(4, "count received:%d", count);
        char *strings[RT_KWLOG_MAX_ARGS] = {};
        for (uint8_t i = 0; i < count; ++i) {
            // Each line carries the count, not the string's index.
            RT_TRACE(4, "length of [%d] argument string received:%d", count, static_cast<int>(std::strlen(args[i])));
            RT_TRACE(4, "count [%d], string:'%s'", count, args[i]);
            strings[i] = args[i];
        }
        msgArgs.reset(static_cast<uint8_t *>(rtvox_alloc(RT_KWLOG_MSGARGS_SIZE)));
        if (!msgArgs) {
            RT_TRACE_LOG(2, "Error: rtvox_alloc failed, msgArgsBuf is NULL");
            return -1;
        }
        const int32_t rc = held_back ? -1 : pack_arguments(strings, count, msgArgs.get(), list);
        if (rc != 0) {
            RT_TRACE_LOG(2, "Error: QNIPCLSubmitEvent() failed with return code:%d", rc);
            return -1;
        }
    }

    Block<char> fqddText(static_cast<char *>(rtvox_alloc(RT_KWLOG_FQDD_SIZE)));
    if (!fqddText) {
        RT_TRACE_LOG(2, "fqdd pointer allocated as NULL.");
    } else {
        // "%ls" is the standard spelling of "%S". At most 99 bytes and the
        // terminator; the buffer's last byte stays 0 whatever the conversion does.
        std::snprintf(fqddText.get(), RT_KWLOG_FQDD_LIMIT, "%ls", fqdd);
    }
    const int32_t rc =
        QNIPCLSubmitEvent(RT_KWLOG_CATEGORY, RT_KWLOG_SOURCE_RAID, severity, msgId, 0, fqddText.get(), list.handle());
    list.reset();
    msgArgs.reset();
    fqddText.reset();
    if (rc != 0) {
        RT_TRACE_LOG(2, "Error: call to QNIPCLSubmitEvent() failed with return code:%d", rc);
        return -1;
    }
    // The arrow points inwards on the way out too; log readers search for this text.
    RT_TRACE_LOG(4, "%s %s %d", "--> exit ", __func__, __LINE__);
    return 0;
}

int32_t rt_KWLOGCMNSubmitEvent_nonRaid(uint32_t /*first*/, uint32_t /*second*/, uint32_t severity, const char *msgId)
{
    RT_TRACE_ENTRY(4);
    if (msgId == nullptr || msgId[0] == '\0') {
        RT_TRACE_LOG(2, "<-- exit, msgid is not valid");
        return -1;
    }
    const int32_t rc = QNIPCLSubmitEvent(RT_KWLOG_CATEGORY, RT_KWLOG_SOURCE_NONRAID, severity, msgId, 0, nullptr, 0);
    if (rc != 0) {
        RT_TRACE_LOG(2, "Error: call to QNIPCLSubmitEvent() failed with return code:%d", rc);
        return -1;
    }
    RT_TRACE_EXIT(4);
    return 0;
}

int32_t rt_SubMitSingle(uint16_t value)
{
    RT_TRACE_ENTRY(4);
    RtKwlogSingleRecord record{};
    record.u32Length = sizeof record;
    record.u16Value = value;
    record.u8Type = 2;
    const int32_t rc = QNIPCLSubmitSingle(&record, RT_KWLOG_SINGLE_KIND, 0);
    RT_TRACE(4, "QNIPCLSubmitSingle returned = %d", rc);
    RT_TRACE_EXIT(4);
    return rc;
}

int32_t rt_Buildmsgstring(uint32_t /*first*/, const wchar_t *fqdd, char *msgstr, int32_t bufSize)
{
    if (msgstr == nullptr || fqdd == nullptr) {
        RT_TRACE_LOG(2, "err1:fqdd or msgstr is NULL");
        return -1;
    }
    // The size is kept in 16 bits, as the event log keeps it. An FQDD of
    // 65535 characters or more wraps it; such an FQDD is refused below
    // before anything is converted into the (then too small) buffer.
    const size_t length = std::wcslen(fqdd);
    const uint16_t n = static_cast<uint16_t>(length + 1);
    Block<char> text(static_cast<char *>(rtvox_alloc(n)));
    if (!text) {
        RT_TRACE_LOG(2, "err2:failed to get memory");
        return -1;
    }
    // Every character must become exactly one byte; the terminator comes from
    // the zero fill. At most n - 1 bytes are written.
    const bool fits = length + 1 == n;
    if (!fits || static_cast<uint16_t>(std::wcstombs(text.get(), fqdd, length)) != n - 1) {
        RT_TRACE_LOG(2, "err3:failed to convert fqdd to multibytes");
        return -1;
    }
    RT_TRACE(2, "%s%s", "FQDD string to be passed to ConvertFQDDToFriendlyName() : ", text.get());

    Block<char> name(ConvertFQDDToFriendlyName(text.get()));
    if (!name) {
        RT_TRACE_LOG(2, "err5 failed to get friendlyName");
        return -1;
    }
    // A name of 65536 characters or more wraps m and is cut, never overrun.
    const uint16_t m = static_cast<uint16_t>(std::strlen(name.get()));
    if (m >= bufSize) {
        // The wording is the reverse of the condition; log readers know it so.
        RT_TRACE_LOG(2, "err4:bufSize is > the friendlyfqdd name len");
        return -1;
    }
    std::memset(msgstr, 0, static_cast<size_t>(bufSize));
    std::memcpy(msgstr, name.get(), m);
    return 0;
}

}  // extern "C"

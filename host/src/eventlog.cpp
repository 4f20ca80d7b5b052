// Event log: message-arguments buffer, TLV lists, submit journals, JSON lines.
#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "internal.h"

namespace vornhost::detail {
namespace {

constexpr uint32_t kSingleKind = 2;
constexpr uint32_t kSingleSize = 16;
constexpr uint32_t kMsgArgsTlvType = 6;

struct Tlv {
    uint32_t type;
    std::vector<uint8_t> value;
};

struct TlvList {
    std::mutex lock;
    std::vector<Tlv> tlvs;
};

struct Event {
    uint32_t category = 0;
    uint32_t source = 0;
    uint32_t severity = 0;
    uint32_t flags = 0;
    int32_t status = 0;
    std::string msg_id;
    bool has_fqdd = false;
    std::string fqdd;
    std::vector<Tlv> tlvs;
};

struct Single {
    uint32_t kind = 0;
    uint32_t flags = 0;
    int32_t status = 0;
    std::vector<uint8_t> bytes;
};

struct EventLogState {
    std::mutex lock;
    Journal<Event> events{VORNHOST_EVENTLOG_JOURNAL_MAX};
    Journal<Single> singles{VORNHOST_EVENTLOG_JOURNAL_MAX};
    std::array<Script<int32_t>, 2> scripts{};
    SizeTable single_sizes{kSingleKind, kSingleSize, VORNHOST_SINGLE_MAX};
};

EventLogState &state()
{
    static auto *s = new EventLogState;  // never destroyed
    return *s;
}

HandleTable<TlvList> &lists()
{
    static auto *t = new HandleTable<TlvList>(kTlvHandleKind);
    return *t;
}

// ---- JSON lines ----

constexpr char kHex[] = "0123456789abcdef";

void json_string(std::string &out, const char *text, size_t length)
{
    out.push_back('"');
    for (size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            default:
                if (c < 0x20 || c >= 0x7F) {
                    out += "\\u00";
                    out.push_back(kHex[c >> 4]);
                    out.push_back(kHex[c & 0xF]);
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    out.push_back('"');
}

void json_string(std::string &out, const std::string &text)
{
    json_string(out, text.data(), text.size());
}

void json_hex(std::string &out, const uint8_t *bytes, size_t length)
{
    out.push_back('"');
    for (size_t i = 0; i < length; ++i) {
        out.push_back(kHex[bytes[i] >> 4]);
        out.push_back(kHex[bytes[i] & 0xF]);
    }
    out.push_back('"');
}

void json_args(std::string &out, const std::vector<uint8_t> &value)
{
    out += ",\"args\":[";
    size_t start = 0;
    bool first = true;
    while (start < value.size()) {
        size_t end = start;
        while (end < value.size() && value[end] != 0) {
            ++end;
        }
        if (!first) {
            out.push_back(',');
        }
        first = false;
        json_string(out, reinterpret_cast<const char *>(value.data()) + start, end - start);
        start = end + 1;
    }
    out.push_back(']');
}

std::string json_line(const Event &e)
{
    std::string out = "{\"type\":\"event\",\"category\":" + std::to_string(e.category) +
                      ",\"source\":" + std::to_string(e.source) + ",\"severity\":" + std::to_string(e.severity) +
                      ",\"msgId\":";
    json_string(out, e.msg_id);
    out += ",\"flags\":" + std::to_string(e.flags) + ",\"fqdd\":";
    if (e.has_fqdd) {
        json_string(out, e.fqdd);
    } else {
        out += "null";
    }
    out += ",\"status\":" + std::to_string(e.status) + ",\"tlvs\":[";
    for (size_t i = 0; i < e.tlvs.size(); ++i) {
        const Tlv &t = e.tlvs[i];
        if (i > 0) {
            out.push_back(',');
        }
        out += "{\"type\":" + std::to_string(t.type) + ",\"length\":" + std::to_string(t.value.size()) + ",\"hex\":";
        json_hex(out, t.value.data(), t.value.size());
        if (t.type == kMsgArgsTlvType) {
            json_args(out, t.value);
        }
        out.push_back('}');
    }
    out += "]}\n";
    return out;
}

std::string json_line(const Single &s)
{
    std::string out = "{\"type\":\"single\",\"kind\":" + std::to_string(s.kind) +
                      ",\"flags\":" + std::to_string(s.flags) + ",\"status\":" + std::to_string(s.status) +
                      ",\"length\":" + std::to_string(s.bytes.size()) + ",\"hex\":";
    json_hex(out, s.bytes.data(), s.bytes.size());
    out += "}\n";
    return out;
}

// Journals a submission with the scripted status of `op` and appends its JSON
// line to VORN_EVENTLOG_FILE; returns that status. Called under s.lock, so the
// file keeps the journal's order. May throw std::bad_alloc.
template <typename Entry>
int32_t submit(EventLogState &s, VornHostEventLogOp op, Journal<Entry> &journal, Entry entry)
{
    entry.status = s.scripts[op].take();
    const int32_t status = entry.status;
    const std::string line = json_line(entry);
    journal.add(std::move(entry));
    append_to_env_file("VORN_EVENTLOG_FILE", line);
    return status;
}

}  // namespace

void eventlog_reset()
{
    EventLogState &s = state();
    std::lock_guard guard(s.lock);
    s.events.clear();
    s.singles.clear();
    for (auto &script : s.scripts) {
        script.clear();
    }
    s.single_sizes.clear();
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

int32_t QNIPCLBuildMsgArgsBuffer(char **args, uint32_t count, void *buffer, uint32_t *length)
{
    if (fault_hit(VORNHOST_QNIPCLBuildMsgArgsBuffer)) {
        return VORNHOST_E_INJECTED;
    }
    if (length == nullptr || buffer == nullptr || (args == nullptr && count > 0)) {
        return VORNHOST_E_ARG;
    }
    uint64_t needed = 0;
    for (uint32_t i = 0; i < count; ++i) {
        if (args[i] == nullptr) {
            return VORNHOST_E_ARG;
        }
        needed += std::strlen(args[i]) + 1;
        if (needed > UINT32_MAX) {
            return VORNHOST_E_ARG;
        }
    }
    if (needed > *length) {
        *length = static_cast<uint32_t>(needed);
        return VORNHOST_E_NOSPACE;
    }
    auto *out = static_cast<uint8_t *>(buffer);
    for (uint32_t i = 0; i < count; ++i) {
        const size_t n = std::strlen(args[i]) + 1;
        std::memcpy(out, args[i], n);
        out += n;
    }
    *length = static_cast<uint32_t>(needed);
    return VORNHOST_OK;
}

int32_t QNIPCLCreateTLVList(uint32_t *list)
{
    if (fault_hit(VORNHOST_QNIPCLCreateTLVList)) {
        return VORNHOST_E_INJECTED;
    }
    if (list == nullptr) {
        return VORNHOST_E_ARG;
    }
    try {
        const uint32_t handle = lists().add(std::make_unique<TlvList>());
        if (handle == 0) {
            return VORNHOST_E_NOMEM;
        }
        *list = handle;
        return VORNHOST_OK;
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
}

int32_t QNIPCLAddTLVToList(uint32_t type, uint16_t length, const void *value, uint32_t list)
{
    if (fault_hit(VORNHOST_QNIPCLAddTLVToList)) {
        return VORNHOST_E_INJECTED;
    }
    const auto tlvs = lists().find(list);
    if (!tlvs) {
        return VORNHOST_E_HANDLE;
    }
    if (value == nullptr && length > 0) {
        return VORNHOST_E_ARG;
    }
    try {
        const auto *bytes = static_cast<const uint8_t *>(value);
        Tlv tlv{type, length > 0 ? std::vector<uint8_t>(bytes, bytes + length) : std::vector<uint8_t>()};
        std::lock_guard guard(tlvs->lock);
        tlvs->tlvs.push_back(std::move(tlv));
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return VORNHOST_OK;
}

int32_t QNIPCLFreeTLVList(uint32_t list)
{
    if (fault_hit(VORNHOST_QNIPCLFreeTLVList)) {
        return VORNHOST_E_INJECTED;
    }
    if (!lists().remove(list)) {
        return VORNHOST_E_HANDLE;
    }
    return VORNHOST_OK;
}

int32_t QNIPCLSubmitEvent(uint32_t category, uint32_t source, uint32_t severity, const char *msgId, uint32_t flags,
                          const char *fqdd, uint32_t list)
{
    if (fault_hit(VORNHOST_QNIPCLSubmitEvent)) {
        return VORNHOST_E_INJECTED;
    }
    if (msgId == nullptr) {
        return VORNHOST_E_ARG;
    }
    const auto tlvs = lists().find(list);
    if (list != 0 && !tlvs) {
        return VORNHOST_E_HANDLE;
    }
    try {
        Event e;
        e.category = category;
        e.source = source;
        e.severity = severity;
        e.flags = flags;
        e.msg_id = msgId;
        e.has_fqdd = fqdd != nullptr;
        e.fqdd = fqdd != nullptr ? fqdd : "";
        if (tlvs) {
            std::lock_guard guard(tlvs->lock);
            e.tlvs = tlvs->tlvs;
        }
        EventLogState &s = state();
        std::lock_guard guard(s.lock);
        return submit(s, VORNHOST_EVT_SUBMIT_EVENT, s.events, std::move(e));
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
}

int32_t QNIPCLSubmitSingle(const void *record, uint32_t kind, uint32_t flags)
{
    if (fault_hit(VORNHOST_QNIPCLSubmitSingle)) {
        return VORNHOST_E_INJECTED;
    }
    if (record == nullptr) {
        return VORNHOST_E_ARG;
    }
    EventLogState &s = state();
    try {
        std::lock_guard guard(s.lock);
        const uint32_t size = s.single_sizes.size(kind);
        if (size == 0) {
            return VORNHOST_E_UNSUPPORTED;
        }
        Single single;
        single.kind = kind;
        single.flags = flags;
        const auto *bytes = static_cast<const uint8_t *>(record);
        single.bytes.assign(bytes, bytes + size);
        return submit(s, VORNHOST_EVT_SUBMIT_SINGLE, s.singles, std::move(single));
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
}

void vornhost_eventlog_set_status(VornHostEventLogOp op, int32_t status, uint32_t count)
{
    if (op != VORNHOST_EVT_SUBMIT_EVENT && op != VORNHOST_EVT_SUBMIT_SINGLE) {
        return;
    }
    EventLogState &s = state();
    std::lock_guard guard(s.lock);
    s.scripts[op].set(status, count);
}

int vornhost_eventlog_set_single_size(uint32_t kind, uint32_t size)
{
    EventLogState &s = state();
    std::lock_guard guard(s.lock);
    return s.single_sizes.set(kind, size);
}

uint32_t vornhost_tlv_list_count(void)
{
    return lists().size();
}

int32_t vornhost_tlv_list_size(uint32_t list)
{
    const auto tlvs = lists().find(list);
    if (!tlvs) {
        return -1;
    }
    std::lock_guard guard(tlvs->lock);
    return static_cast<int32_t>(tlvs->tlvs.size());
}

uint32_t vornhost_eventlog_count(void)
{
    return state().events.count();
}

int vornhost_eventlog_get(uint32_t index, VornHostEvent *out)
{
    return state().events.get(index, out, [](const Event &e, VornHostEvent &o) {
        o.category = e.category;
        o.source = e.source;
        o.severity = e.severity;
        o.flags = e.flags;
        o.status = e.status;
        o.msgId = e.msg_id.c_str();
        o.fqdd = e.has_fqdd ? e.fqdd.c_str() : nullptr;
        o.tlvCount = static_cast<uint32_t>(e.tlvs.size());
    });
}

int vornhost_eventlog_tlv(uint32_t index, uint32_t tlvIndex, VornHostTlv *out)
{
    if (out == nullptr) {
        return -1;
    }
    return state().events.with(index, [tlvIndex, out](const Event &e) {
        if (tlvIndex >= e.tlvs.size()) {
            return -1;
        }
        const Tlv &t = e.tlvs[tlvIndex];
        out->type = t.type;
        out->length = static_cast<uint16_t>(t.value.size());
        out->value = t.value.empty() ? nullptr : t.value.data();
        return 0;
    });
}

uint32_t vornhost_single_count(void)
{
    return state().singles.count();
}

int vornhost_single_get(uint32_t index, VornHostSingle *out)
{
    return state().singles.get(index, out, [](const Single &single, VornHostSingle &o) {
        o = VornHostSingle{};
        o.kind = single.kind;
        o.flags = single.flags;
        o.status = single.status;
        o.length = static_cast<uint32_t>(single.bytes.size());
        std::memcpy(o.bytes, single.bytes.data(), single.bytes.size());
    });
}

void vornhost_eventlog_clear(void)
{
    EventLogState &s = state();
    std::lock_guard guard(s.lock);
    s.events.clear();
    s.singles.clear();
}

}  // extern "C"

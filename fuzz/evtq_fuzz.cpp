// Event-queue records with any callbackType and bufferSize. The input is a
// list of operations: an odd first byte takes the oldest queued record (when
// there is one) and checks that it is the one put first, with its type, size
// and first payload byte; an even one puts a record (u32 callbackType, u32
// bufferSize, then one payload byte, or for an endpoint table a payload of
// up to 64 bytes whose length becomes its bufferSize, as the transport
// allocates them). The queue is emptied at the end of every input.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "fuzz_support.h"
#include "rtvox/rt_evtq.h"

namespace {

struct Expected {
    uint32_t callbackType;
    uint32_t bufferSize;
    uint8_t first;
};

MctpClientCallbackEvent *make_record(rtvox::fuzz::Input &in)
{
    const auto type = in.take<uint32_t>();
    auto size = in.take<uint32_t>();
    const uint8_t *payload = nullptr;
    size_t length = 0;
    if (type == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE) {
        length = in.take_bytes(&payload, 64);
        size = static_cast<uint32_t>(length);
    } else {
        length = in.take_bytes(&payload, 1);
    }
    auto *record = static_cast<MctpClientCallbackEvent *>(std::calloc(1, sizeof(MctpClientCallbackEvent) + length));
    record->callbackType = type;
    record->bufferSize = size;
    if (length != 0) {
        std::memcpy(record->buffer, payload, length);
    }
    return record;
}

void get_and_check(std::deque<Expected> &expected)
{
    MctpClientCallbackEvent *record = rtraid_EventQueue_Get();
    const Expected want = expected.front();
    expected.pop_front();
    if (record == nullptr || record->callbackType != want.callbackType || record->bufferSize != want.bufferSize ||
        record->buffer[0] != want.first) {
        std::fputs("evtq_fuzz: the queue handed out another record than the one put first\n", stderr);
        std::abort();
    }
    std::free(record);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rtvox::fuzz::private_root();
    if (rtraid_EventQueue_Init() != 0 || rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY) != 0) {
        std::fputs("evtq_fuzz: no queue\n", stderr);
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rtvox::fuzz::Input in(data, size);
    std::deque<Expected> expected;
    while (in.remaining() != 0) {
        if ((in.take<uint8_t>() & 1) != 0) {
            if (!expected.empty()) {
                get_and_check(expected);
            }
            continue;
        }
        MctpClientCallbackEvent *record = make_record(in);
        expected.push_back({record->callbackType, record->bufferSize, record->buffer[0]});
        const bool kept = record->callbackType == MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE;
        if (rtraid_EventQueue_Put(record) != 0) {
            std::fputs("evtq_fuzz: Put refused a record\n", stderr);
            std::abort();
        }
        if (!kept) {
            std::free(record);  // the queue holds its own copy
        }
    }
    while (!expected.empty()) {
        get_and_check(expected);
    }
    return 0;
}

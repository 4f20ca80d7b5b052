// IPMI_DoIPMICmd: request journal with a scripted status and response.
#include <algorithm>
#include <cstring>
#include <vector>

#include "internal.h"

namespace vornhost::detail {
namespace {

struct IpmiState {
    std::mutex lock;
    Journal<VornHostIpmiRequest> requests{VORNHOST_IPMI_JOURNAL_MAX};
    uint32_t status = 0;
    std::vector<uint8_t> response;
    uint32_t remaining = 0;  // scripted calls left; 0 = the script holds for every call
    bool scripted = false;
};

IpmiState &state()
{
    static auto *s = new IpmiState;  // never destroyed
    return *s;
}

void clear_script(IpmiState &s)
{
    s.status = 0;
    s.response.clear();
    s.remaining = 0;
    s.scripted = false;
}

}  // namespace

void ipmi_reset()
{
    IpmiState &s = state();
    std::lock_guard guard(s.lock);
    s.requests.clear();
    clear_script(s);
}

}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" {

uint32_t IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLength, uint8_t *response,
                        uint32_t *responseLength)
{
    if (fault_hit(VORNHOST_IPMI_DoIPMICmd)) {
        return VORNHOST_E_INJECTED;
    }
    if ((request == nullptr && requestLength > 0) || requestLength > VORNHOST_IPMI_MAX_REQUEST) {
        return VORNHOST_E_ARG;
    }
    IpmiState &s = state();
    std::lock_guard guard(s.lock);
    const uint32_t status = s.scripted ? s.status : 0;
    try {
        VornHostIpmiRequest entry{};
        entry.netFn = netFn;
        entry.cmd = cmd;
        entry.status = status;
        entry.length = requestLength;
        if (requestLength > 0) {
            std::memcpy(entry.data, request, requestLength);
        }
        s.requests.add(entry);
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    if (response != nullptr && responseLength != nullptr) {
        uint32_t copied = 0;
        if (!fails(status) && s.scripted) {
            copied = std::min(*responseLength, static_cast<uint32_t>(s.response.size()));
            if (copied > 0) {
                std::memcpy(response, s.response.data(), copied);
            }
        }
        *responseLength = copied;
    }
    if (s.scripted && s.remaining > 0 && --s.remaining == 0) {
        clear_script(s);
    }
    return status;
}

int vornhost_ipmi_set_result(uint32_t status, const uint8_t *response, uint32_t length, uint32_t count)
{
    if ((response == nullptr && length > 0) || length > VORNHOST_IPMI_MAX_RESPONSE) {
        return VORNHOST_E_ARG;
    }
    IpmiState &s = state();
    std::lock_guard guard(s.lock);
    try {
        if (status == 0 && length == 0 && count == 0) {
            clear_script(s);
            return VORNHOST_OK;
        }
        s.status = status;
        if (length > 0) {
            s.response.assign(response, response + length);
        } else {
            s.response.clear();
        }
        s.remaining = count;
        s.scripted = true;
    } catch (...) {
        return VORNHOST_E_NOMEM;
    }
    return VORNHOST_OK;
}

uint32_t vornhost_ipmi_count(void)
{
    return state().requests.count();
}

int vornhost_ipmi_get(uint32_t index, VornHostIpmiRequest *out)
{
    return state().requests.get(index, out);
}

}  // extern "C"

// PCIe SSD locate: one OEM IPMI request to the controller's own IPMI stack.
#define RT_MODULE_FILE "rtvox.c"

#include <array>
#include <cstddef>
#include <cstdint>

#include "rtvox/rtvox.h"
#include "trace.h"

namespace {

// Request bytes that are not fixed zeros.
constexpr std::size_t kLengthByte = 1;
constexpr std::size_t kSelectorByte = 2;
constexpr std::size_t kSubSelectorByte = 6;
constexpr uint8_t kSelector = 0x0E;
constexpr std::size_t kBayByte = 8;
constexpr std::size_t kSlotByte = 9;
constexpr std::size_t kStatusByte = 10;  // little-endian status word, bytes 10 and 11

constexpr uint32_t kResponseSize = 10;

using Request = std::array<uint8_t, RTVOX_IPMI_LOCATE_REQUEST_SIZE>;

Request locate_request(uint8_t bay, uint8_t slot, uint16_t status)
{
    Request request{};
    request[kLengthByte] = RTVOX_IPMI_LOCATE_REQUEST_SIZE;
    request[kSelectorByte] = kSelector;
    request[kSubSelectorByte] = kSelector;
    request[kBayByte] = bay;
    request[kSlotByte] = slot;
    request[kStatusByte] = static_cast<uint8_t>(status);
    request[kStatusByte + 1] = static_cast<uint8_t>(status >> 8);
    return request;
}

// Sends a built request on behalf of `function`; 0 when the low 8 bits of
// the IPMI status are 0, else 1 after tracing `failure`. The response is
// neither sized nor examined.
uint32_t send_locate(const char *function, const Request &request, uint8_t slot, const char *failure)
{
    std::array<uint8_t, kResponseSize> response{};
    uint32_t response_length = 0;
    const uint8_t rc =
        static_cast<uint8_t>(IPMI_DoIPMICmd(RTVOX_IPMI_NETFN_OEM, RTVOX_IPMI_CMD_PCIESSD_LOCATE, request.data(),
                                            RTVOX_IPMI_LOCATE_REQUEST_SIZE, response.data(), &response_length));
    RT_TRACE_AS(function, 4, "IMPMICmd rc=%d LINE=%d", rc, __LINE__);
    if (rc != 0) {
        RT_TRACE_AS(function, 2, "%s u8SSDSlotNum=%d", failure, slot);
        return 1;
    }
    return 0;
}

}  // namespace

extern "C" {

uint32_t BlinkPCIeSSD(int32_t u8bayId, int32_t u8SSDSlotNum)
{
    const auto bay = static_cast<uint8_t>(u8bayId);
    const auto slot = static_cast<uint8_t>(u8SSDSlotNum);
    RT_TRACE(4, "-->Blink u8bayId=%d u8SSDSlotNum=%d", bay, slot);
    const Request request = locate_request(bay, slot, RTVOX_IPMI_LOCATE_BLINK);
    hexdump(request.data(), RTVOX_IPMI_LOCATE_REQUEST_SIZE);
    return send_locate(__func__, request, slot, "Failed While Sending Blink Command");
}

uint32_t UnBlinkPCIeSSD(int32_t u8bayId, int32_t u8SSDSlotNum, int32_t u16DriveStatus)
{
    const auto bay = static_cast<uint8_t>(u8bayId);
    const auto slot = static_cast<uint8_t>(u8SSDSlotNum);
    const auto status = static_cast<uint16_t>(u16DriveStatus);
    RT_TRACE(4, "-->UnBlink u8bayId=%d u8SSDSlotNum=%d u16DriveStatus=%d", bay, slot, status);
    const Request request = locate_request(bay, slot, status);
    RT_TRACE(4, "IMPMICmd LINE=%d", __LINE__);
    hexdump(request.data(), RTVOX_IPMI_LOCATE_REQUEST_SIZE);
    RT_TRACE(4, "IMPMICmd LINE=%d", __LINE__);
    return send_locate(__func__, request, slot, "Failed While Sending UnBlink Command");
}

}  // extern "C"

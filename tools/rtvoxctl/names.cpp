#include "names.h"

#include "rtvox/rt_evtq.h"

namespace rtvoxctl {

const char *notification_name(uint32_t type)
{
    switch (type) {
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON:
            return "power on";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF:
            return "power off";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET:
            return "LPC reset";
        case MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE:
            return "endpoint table";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED:
            return "transport start failed";
        case MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED:
            return "transport daemon stopped";
        default:
            return "unknown";
    }
}

}  // namespace rtvoxctl

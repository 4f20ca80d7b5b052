// Display names that several rtvoxctl commands share.
#pragma once

#include <cstdint>

namespace rtvoxctl {

// "power on", "endpoint table", ... for a transport notification type; "unknown" for others.
const char *notification_name(uint32_t type);

}  // namespace rtvoxctl

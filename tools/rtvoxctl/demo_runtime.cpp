// Demo steps for the service's start and stop and the runtime support.
#include <cstdint>
#include <cwchar>

#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rtvox.h"

namespace rtvoxctl {

void demo_start(Demo &demo)
{
    demo.section("Service start: the diagnostic log");
    demo.touch("/var/log/rtvox.log", "a line from the previous run\n");
    demo.say("a log from a previous run exists; rt_log_init keeps it as the backup and starts a new one");
    rt_log_init();
    demo.traces();
    demo.show_file("/var/log/rtvox.log.bak", "backup of the previous run");
}

void demo_runtime(Demo &demo)
{
    demo.section("Runtime support: log copies and hex dumps");
    demo.say("copies to the log file are %s", IsrtvoxLogDisabled() == 2 ? "on" : "off");
    rtvox_wlog(0, "DEMO", L"monitoring service started");
    const char sample[] = "rtvox demo bytes\x01\x02";
    hexdump(sample, static_cast<int32_t>(sizeof sample - 1));
    demo.traces();

    demo.section("Marker files");
    demo.say("no markers: HBA inventory switch %u, MIRU inventory switch %u", IsrtvoxHBAInventoryDisabled(),
             IsrtvoxMIRUInventoryDisabled());
    demo.touch("/flash/data0/oem_ps/rt_vox_sashba_disabled");
    demo.say("with rt_vox_sashba_disabled present the HBA switch reads %u", IsrtvoxHBAInventoryDisabled());
    demo.touch("/flash/data0/oem_ps/rt_vox_miru_poll", "5 7\n");
    int32_t first = -1;
    int32_t second = -1;
    const uint32_t poll = IsstressMIRUPollEnabled(&first, &second);
    demo.say("stress poll file \"5 7\": enabled %u, values %d and %d", poll, first, second);
    demo.touch("/tmp/rtdump");
    const uint32_t dump1 = IsDumpEnabled();
    const uint32_t dump2 = IsDumpEnabled();
    demo.say("a dump request is consumed by its first reader: %u, then %u", dump1, dump2);

    demo.section("HBA communication status");
    rtmpi2_SetHBACommunicationStatus(0x0101);  // controller 1, status 1
    rtmpi2_SetHBACommunicationStatus(0x0002);  // controller 2, status 0
    rtmpi2_SetHBACommunicationStatus(0x0301);  // controller 1 again, status 3
    for (uint8_t ctrl = 1; ctrl <= 3; ++ctrl) {
        RtHbaCommStatus record{ctrl, 0};
        const uint32_t rc = rtmpi2_GetHBACommunicationStatus(&record);
        if (rc == 0) {
            demo.say("controller %u: status %u", ctrl, record.u8CommStatus);
        } else {
            demo.say("controller %u: not in the table (0x%08X)", ctrl, rc);
        }
    }
    demo.traces();

    demo.section("Two-dimensional array");
    void **array = rtvox_alloc_2darray(3, 4, 2);
    demo.say("3 rows of 4 two-byte elements: rows at +%d, +%d, +%d bytes from the data block",
             static_cast<int>(static_cast<char *>(array[0]) - static_cast<char *>(array[0])),
             static_cast<int>(static_cast<char *>(array[1]) - static_cast<char *>(array[0])),
             static_cast<int>(static_cast<char *>(array[2]) - static_cast<char *>(array[0])));
    rtvox_free_2darray(array, 3);
    demo.traces();
}

void demo_stop(Demo &demo)
{
    demo.section("Service stop");
    rt_log_Exit();
    demo.traces();
    demo.show_file("/var/log/rtvox.log", "the diagnostic log");
}

}  // namespace rtvoxctl

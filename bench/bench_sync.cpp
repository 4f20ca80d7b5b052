// Global status reads: the locked read that event submission makes for every
// event, and the bare copy for comparison.
#include <cstdio>

#include "bench.h"
#include "rtvox/rt_sync.h"

RTVOX_BENCH(sync_global_status)
{
    if (RTSync_Init() != 0) {
        std::fprintf(stderr, "sync_global_status: RTSync_Init failed\n");
        return;
    }
    RTSyncStatus status{};
    const double locked = bench.rate([&] {
        RTSync_LockGlobalStatus();
        RTSync_GetGlobalStatus(&status);
        RTSync_UnLockGlobalStatus();
    });
    bench.report("RTSync_GetGlobalStatus under the lock", locked, "reads/s");
    const double bare = bench.rate([&] { RTSync_GetGlobalStatus(&status); });
    bench.report("RTSync_GetGlobalStatus without the lock", bare, "reads/s");
    const double poll = bench.rate([&] { RTSync_SetGlobalPoll(status); });
    bench.report("RTSync_SetGlobalPoll", poll, "writes/s");
    RTSync_Destroy();
}

/* Uses the installed headers and shared library from plain C. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "rtvox/rt_evtq.h"
#include "rtvox/rt_kwlogwrp.h"
#include "rtvox/rt_shm.h"
#include "rtvox/rt_sync.h"
#include "rtvox/rtvox.h"

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: consumer ROOT\n");
        return 2;
    }
    setenv("RTVOX_ROOT", argv[1], 1);
    rt_log_init(); /* the root has no var/log: the library traces and goes on */
    unsigned char *block = rtvox_alloc(16);
    if (block == NULL || block[15] != 0) {
        return 1;
    }
    rtvox_free(block);
    if (rtmpi2_SetHBACommunicationStatus(0x0102u) != 0) {
        return 1;
    }
    RtHbaCommStatus record = {2, 0};
    if (rtmpi2_GetHBACommunicationStatus(&record) != 0 || record.u8CommStatus != 1) {
        return 1;
    }
    rt_log_Exit();
    printf("consumer ok\n");
    return 0;
}

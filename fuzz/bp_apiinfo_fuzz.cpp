// Arbitrary 738-byte API info records, put on the simulated backplane and fed
// to the update of the NVMe view, to the hot-plug callback (through the host's
// injection, on its own thread), to the extender and backplane inventory, to
// the record trace and to the single-slot accessors. Shorter inputs are padded
// with zeros. Each input starts from an empty view and an empty inventory, so
// a finding reproduces from its input alone.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "fuzz_support.h"
#include "rt_cache_release.h"
#include "rt_shm_internal.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "vornhost/vornhost.h"

namespace {

void empty_inventory()
{
    for (RtCacheExtender *&extender : cache_Extndrs) {
        rtvox::cache::release_extender(extender);
    }
    for (RtCacheBackplane *&backplane : cache_Bkplanes) {
        rtvox::cache::release_backplane(backplane);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rtvox::fuzz::private_root();
    if (rtcache_Init() != 0 || rtshm_BpApiInit() != 0) {
        std::fputs("bp_apiinfo_fuzz: no cache or no backplane session\n", stderr);
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::array<uint8_t, RTSHM_BP_INFO_SIZE> record{};
    std::memcpy(record.data(), data, std::min(size, record.size()));
    std::memset(&sNVMeSSDBPInfo, 0, sizeof sNVMeSSDBPInfo);
    empty_inventory();
    vornhost_bp_set_info(record.data());

    rtshm_BpApiInit();  // zeroes the drive states, reuses the session, updates
    if (vornhost_bp_hotplug(record.data()) == 1) {
        vornhost_bp_hotplug_wait(-1);
    }
    rtshm_getNVMeExtcard();
    rtshm_getNVMeBPs();
    VornBpPrintApiInfo(reinterpret_cast<const RtShmBpApiInfo *>(record.data()));

    // The accessors with indices taken from the record's unused head bytes.
    const uint8_t bay = record[0];
    const uint8_t slot = record[1];
    uint16_t state = 0;
    uint8_t value = 0;
    rtshm_getNVMeDriveState(&state, bay, slot);
    rtshm_SetNVMeDriveState(bay, static_cast<uint16_t>(state + 1), slot);
    rtshm_getDriveTechFromBpInfo(&value, bay, slot);
    rtshm_UpdateNVMeSSDSlotToEID(bay, slot, record[5]);
    rtshm_getExtenderSlotFromDriveSlot(bay, slot, &value);
    return 0;
}

// Region 15 and 20 contents under the PCIe SSD FQDD, the slot mapping and the
// simulation. The input: u32 global slot, u32 slot index, u8 EID, u32 bay
// index, u16 drive status, then region 20 (325 bytes), the NVMe view the
// mapping reads (1444 bytes) and region 15 from its first byte (the rest).
// Missing bytes are zeros. The regions are written through the platform, as
// the processes that own them do; every input starts from zeroed regions.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "vornhost/vornhost.h"

namespace {

constexpr uint8_t kSsdEid = 0x30;  // a registered PCIe SSD element

void write_region(uint32_t region, rtvox::fuzz::Input &in, size_t limit)
{
    const uint8_t *bytes = nullptr;
    const size_t n = in.take_bytes(&bytes, std::min<size_t>(limit, vornhost_shm_size(region)));
    if (n != 0 && Vorn_shm_memwrite(region, bytes, 0, static_cast<uint32_t>(n)) != 0) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rtvox::fuzz::private_root();
    static const uint8_t kStatus[] = "1\n";
    rtvox::fuzz::write_file(RTSHM_PCIESSD_STATUS_FILE, kStatus, sizeof kStatus - 1);
    static const uint8_t kFru[16] = {1, 0, 1, 2};
    rtvox::fuzz::write_file(RTSHM_PCIESSD_FRU_FILE, kFru, sizeof kFru);
    uint8_t eid = kSsdEid;
    if (rtcache_Init() != 0 || rtcache_GetLock() != 0) {
        std::fputs("pciessd_fuzz: no cache\n", stderr);
        std::abort();
    }
    const uint32_t rc = rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, 0, &eid);
    SMMutexUnLock(mutexRtCache);
    if (rc != 0 || rtcache_SetStorageEIDType(eid, RTCACHE_EIDTYPE_PCIESSD) != 0) {
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rtvox::fuzz::Input in(data, size);
    const auto global = in.take<uint32_t>();
    const auto slotIndex = in.take<uint32_t>();
    const auto eid = in.take<uint8_t>();
    const auto bayIndex = in.take<uint32_t>();
    const auto status = in.take<uint16_t>();

    vornhost_shm_zero(RTSHM_PCIESSD_BP_REGION);
    vornhost_shm_zero(RTSHM_PCIESSD_FRUDIR_REGION);
    write_region(RTSHM_PCIESSD_BP_REGION, in, sizeof(RtShmPcieSsdBp));
    std::memset(&sNVMeSSDBPInfo, 0, sizeof sNVMeSSDBPInfo);
    const uint8_t *view = nullptr;
    const size_t viewBytes = in.take_bytes(&view, sizeof sNVMeSSDBPInfo);
    if (viewBytes != 0) {
        std::memcpy(&sNVMeSSDBPInfo, view, viewBytes);
    }
    write_region(RTSHM_PCIESSD_FRUDIR_REGION, in, SIZE_MAX);

    rtvox_free(rtvox_GetPCIeSSDFQDD(global));

    uint8_t split[RTSHM_PCIESSD_SPLIT_MODE_SIZE];
    RTSHM_readBackplaneSharedMem(split);
    uint8_t byte = 0;
    uint8_t other = 0;
    RTSHM_GetPCIeSSDGlobalSlotNumberBase(&byte);
    RtShmPcieSsdBp image{};
    RTSHM_ReadPCIeSSDPresenceSharedMem(&image);
    char fwRev[RTSHM_PCIESSD_FW_REV_SIZE];
    RTSHM_ReadBpFwVersion(bayIndex, fwRev);
    RTSHM_readSSDSlotNumFromGblSlotNum(&byte, static_cast<int32_t>(global));
    RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum(&byte, global);
    RTSHM_readBayIDInfoFromGblSlotNum(&byte, slotIndex);
    RTSHM_readBayIDAndSlotNoFromEID(&byte, &other, eid);
    RTSHM_readBayIDAndSlotNoFromEID(&byte, &other, kSsdEid);
    uint16_t driveStatus = 0;
    RTSHM_readPciessdDriveStatusFromShm(&driveStatus, static_cast<int32_t>(global));
    updatePciessdDriveStatusToShm(status, global);
    updatePciessdiBCDDataToShm(&image);
    RTSHM_PCIeSSDSimulate();
    return 0;
}

// Demo step for the shared-memory inventory: region 3 is initialised, a
// cache with a RAID controller (a battery, drives behind a backplane), a host
// bus adapter (drives in an external enclosure) and a boot-storage card is
// published into it, and the region is shown decoded as `rtvoxctl shm` shows
// it. In POSIX mode the regions stay for `rtvoxctl shm` in another process.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cmd_shm.h"
#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {
namespace {

constexpr uint8_t kRaid = 0x10;
constexpr uint8_t kHba = 0x21;
constexpr uint8_t kBoot = 0x30;
constexpr uint16_t kBackplaneKey = 32;
constexpr uint16_t kEnclosureKey = 40;

template <typename T>
T *block()
{
    return static_cast<T *>(rtvox_alloc(sizeof(T)));
}

// A controller node with its adapter record, PCI block (slot = location >> 1)
// and, when asked, a battery.
void add_controller(uint8_t index, uint8_t eid, uint8_t type, uint16_t subDevice, uint8_t slot, bool battery)
{
    uint8_t registered = eid;
    rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, index, &registered);
    auto *node = block<RtCacheCtrlNode>();
    node->u32NodeType = type == RTCACHE_EIDTYPE_HBA ? RTCACHE_NODE_HBA : RTCACHE_NODE_CONTROLLER;
    node->pAdapter = block<RtAdapter>();
    node->pAdapter->u32CtrlTemp = 52;
    node->pAdapter->u32BatteryTemp = 31;
    node->pAdapter->u64CtrlAddress1 = 0x5000000000000000ull | eid;
    node->pPciInfo = block<RtCachePciInfo>();
    *node->pPciInfo = RtCachePciInfo{0x1000, 0x0016, 0x1028, subDevice, {static_cast<uint8_t>(slot << 1), 0}, {}};
    if (battery) {
        node->pBattery = block<RtBattery>();
        node->pBattery->state = 2;
    }
    rtcache_SetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, node);
}

void add_enclosure(uint8_t eid, uint16_t key, uint32_t objType, uint8_t bay)
{
    auto *enclosure = block<RtEnclosure>();
    enclosure->objType = RTRAID_OBJTYPE_ENCLOSURE;
    enclosure->u8BayID = bay;
    RtCachePdNode *node = new_pd_node(objType, enclosure);
    node->enclObj->u8EnclType = 1;
    node->enclObj->u8IsBackplane = objType == RTCACHE_PDNODE_BACKPLANE ? 1 : 0;
    rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key, node);
}

void add_drive(uint8_t eid, uint16_t key, uint16_t enclId, const wchar_t *description, uint8_t temperature)
{
    auto *disk = block<RtPhysicalDisk>();
    disk->objType = RTRAID_OBJTYPE_PHYSICALDISK;
    disk->Slot = static_cast<uint8_t>(key);
    disk->Size = uint64_t{1920} << 30;
    disk->u8BusProtocol = 6;
    disk->u8MediaFlags = key % 2 == 0 ? 0x02 : 0x00;
    disk->u8FormFactor = 2;
    disk->u16EnclDeviceID = enclId;
    disk->u32NominalRPM = key % 2 == 0 ? 1 : 10000;
    disk->pDescription = description;
    RtCachePdNode *node = new_pd_node(RTCACHE_PDNODE_PHYSICALDISK, disk);
    node->enclObj->u8Temp = temperature;
    node->enclObj->u16PDStatus = 0x0100;
    rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key, node);
}

void fill_cache()
{
    rtcache_GetLock();
    add_controller(0, kRaid, RTCACHE_EIDTYPE_TAVO, 0x1FE0, 3, true);
    add_enclosure(kRaid, kBackplaneKey, RTCACHE_PDNODE_BACKPLANE, 1);
    for (uint16_t key = 0; key < 4; ++key) {
        add_drive(kRaid, key, kBackplaneKey, L"Backplane", static_cast<uint8_t>(30 + key));
    }
    add_controller(1, kHba, RTCACHE_EIDTYPE_HBA, 0x1FD1, 4, false);
    add_enclosure(kHba, kEnclosureKey, RTCACHE_PDNODE_EXTERNAL, 2);
    for (uint16_t key = 0; key < 2; ++key) {
        add_drive(kHba, key, kEnclosureKey, L"Direct", 35);
    }
    add_controller(2, kBoot, RTCACHE_EIDTYPE_MIRU, 0x1FD2, 5, false);
    add_drive(kBoot, 0, 0xFFFF, L"Direct", 28);
    SMMutexUnLock(mutexRtCache);
    rtcache_SetStorageEIDType(kRaid, RTCACHE_EIDTYPE_TAVO);
    rtcache_SetStorageEIDType(kHba, RTCACHE_EIDTYPE_HBA);
    rtcache_SetStorageEIDType(kBoot, RTCACHE_EIDTYPE_MIRU);
}

}  // namespace

void show_region(Demo &demo, uint32_t id)
{
    std::vector<uint8_t> bytes(vornhost_shm_size(id));
    if (Vorn_shm_memread(id, bytes.data(), 0, static_cast<uint32_t>(bytes.size())) != 0) {
        demo.say("region %u cannot be read", id);
        return;
    }
    std::fflush(stdout);
    print_region(stdout, id, bytes);
}

void demo_shm(Demo &demo)
{
    demo.section("Shared memory: region 3 is initialised");
    demo.say("RTSHM_InitSharedMem answered %d", static_cast<int>(RTSHM_InitSharedMem()));
    demo.traces();
    show_region(demo, RTSHM_REGION_INVENTORY);

    demo.section("Shared memory: a RAID controller, a host bus adapter and a boot card are published");
    if (rtcache_Init() != 0) {
        demo.say("rtcache_Init failed");
        demo.traces();
        rtcache_Destroy();
        return;
    }
    fill_cache();
    vornhost_trace_clear();
    demo.say(
        "cached: RAID controller 0x%02X (battery, 4 drives behind backplane %u), HBA 0x%02X (2 drives in "
        "external enclosure %u), boot card 0x%02X (1 drive)",
        kRaid, kBackplaneKey, kHba, kEnclosureKey, kBoot);
    rtcache_GetLock();
    RTSHM_UpdateSharedMem();
    SMMutexUnLock(mutexRtCache);
    demo.traces();
    show_region(demo, RTSHM_REGION_INVENTORY);
    show_region(demo, RTSHM_REGION_DRIVE_POLLING);
    rtcache_Destroy();
    vornhost_trace_clear();

    if (vornhost_shm_get_mode() == VORNHOST_SHM_POSIX) {
        char name[256] = "";
        vornhost_shm_object_name(RTSHM_REGION_INVENTORY, name, sizeof name);
        demo.say("the regions stay in place (region 3 is %s): `rtvoxctl shm` decodes them", name);
    } else {
        demo.say("run with VORN_SHM_MODE=posix to leave the regions for `rtvoxctl shm`");
    }
}

}  // namespace rtvoxctl

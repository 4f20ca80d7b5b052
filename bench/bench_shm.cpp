// One update of the inventory region from a full cache: 16 TAVO controllers
// with a battery and 255 drives each, every drive behind its controller's
// backplane (the update publishes the first 255 drives and stops there).
// The update runs under the cache lock as the service calls it, dump
// included; trace output is off but the trace calls are made.
//
// Beside it, in the same run, a floor: the same three tables filled from
// flat arrays of the values they publish (0xFF first, then each entry) and
// written to region 3 with three writes. The update is held to at most
// 200 % of the floor's time. A second floor reads every value where the
// cache keeps it (the pointer walk the flat arrays skip); the library's time
// beside the priced rules is set against both.
//
// It cannot come near that: every published drive is traced as it is
// entered (three lines at level 4) and printed by the dump that ends the
// update (thirteen lines at level 6), each line a call to the platform's
// trace service whatever level the service keeps, and those calls alone
// cost many times the floor. They are counted from a captured update and
// priced by one call whose level is filtered out, in the same rounds.
//
// What the update does besides its trace calls and the floor's work is
// priced too, each part by the call that does it, measured alone in the
// same rounds: the dump reads regions 3 and 55 back and reads every value it
// prints from that copy; the polling flag is read from region 55 and the
// marker file is looked at (a stat) on every update; the published tables
// are set to 0xFF before the images are built. What is left beside all that
// is held to the floor's goal.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "bench.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"

namespace {

constexpr uint32_t kControllers = RTSHM_MAX_CONTROLLERS;
constexpr uint32_t kDrives = RTSHM_MAX_DRIVES;
constexpr uint32_t kBackplaneKey = 300;

template <typename T>
T *block()
{
    return static_cast<T *>(rtvox_alloc(sizeof(T)));
}

RtCachePdNode *pd_node(uint32_t objType, void *record)
{
    auto *node = block<RtCachePdNode>();
    node->objType = objType;
    node->enclObj = block<RtCachePdEntry>();
    node->enclObj->enclType.physicalDisk.Obj = static_cast<RtPhysicalDisk *>(record);
    return node;
}

bool add_controller(uint8_t eid, uint8_t slot)
{
    auto *node = block<RtCacheCtrlNode>();
    node->pAdapter = block<RtAdapter>();
    node->pAdapter->u32CtrlTemp = 40 + slot;
    node->pAdapter->u32BatteryTemp = 30 + slot;
    node->pAdapter->u64CtrlAddress1 = 0x500000000000ull + eid;
    node->pPciInfo = block<RtCachePciInfo>();
    *node->pPciInfo = RtCachePciInfo{0x1000, 0x5F, 0x1028, 0x1F38, {static_cast<uint8_t>(2 * slot), 1}, {}};
    node->pBattery = block<RtBattery>();
    node->pBattery->state = 2;
    uint8_t registered = eid;
    bool stored = rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, slot, &registered) == 0 &&
                  rtcache_SetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, node) == 0;
    auto *enclosure = block<RtEnclosure>();
    enclosure->u8BayID = slot;
    stored = stored && rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, kBackplaneKey,
                                               pd_node(RTCACHE_PDNODE_BACKPLANE, enclosure)) == 0;
    for (uint32_t key = 0; key < kDrives && stored; ++key) {
        auto *disk = block<RtPhysicalDisk>();
        disk->objType = RTRAID_OBJTYPE_PHYSICALDISK;
        disk->Slot = static_cast<uint8_t>(key);
        disk->Size = uint64_t{960} << 30;
        disk->u16EnclDeviceID = kBackplaneKey;
        disk->u32NominalRPM = 7200;
        RtCachePdNode *drive = pd_node(RTCACHE_PDNODE_PHYSICALDISK, disk);
        drive->enclObj->u8Temp = 30;
        stored = rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key, drive) == 0;
    }
    return stored;
}

bool set_up_cache()
{
    if (rtcache_Init() != 0 || rtcache_GetLock() != 0) {
        return false;
    }
    bool ready = true;
    for (uint8_t slot = 0; slot < kControllers && ready; ++slot) {
        ready = add_controller(static_cast<uint8_t>(0x10 + slot), slot);
    }
    SMMutexUnLock(mutexRtCache);
    for (uint8_t slot = 0; slot < kControllers && ready; ++slot) {
        ready = rtcache_SetStorageEIDType(0x10 + slot, RTCACHE_EIDTYPE_TAVO) == 0;
    }
    return ready && RTSHM_InitSharedMem() == 0;
}

// ---- the floor -----------------------------------------------------------------------

// The values of the tables as flat arrays, one per field.
struct Flat {
    uint8_t slot[kControllers], kind[kControllers], thermal[kControllers], location[kControllers];
    uint32_t temp[kControllers], batteryTemp[kControllers], ids[4][kControllers];
    uint64_t address1[kControllers], address2[kControllers];
    uint8_t bay[kDrives], occupied[kDrives], protocol[kDrives], media[kDrives], formFactor[kDrives], driveTemp[kDrives],
        impedance[kDrives], enclType[kDrives];
    uint32_t rpm[kDrives];
    uint16_t status[kDrives], capacity[kDrives];
    uint8_t batterySlot[RTSHM_MAX_BATTERIES], batteryState[RTSHM_MAX_BATTERIES];
};

Flat flat_values()
{
    Flat flat{};
    for (uint32_t i = 0; i < kControllers; ++i) {
        flat.slot[i] = static_cast<uint8_t>(0x80 | i);
        flat.temp[i] = 40 + i;
        flat.batteryTemp[i] = 30 + i;
        flat.ids[0][i] = 0x1000;
        flat.ids[3][i] = 0x1F38;
    }
    for (uint32_t k = 0; k < kDrives; ++k) {
        flat.occupied[k] = static_cast<uint8_t>(k);
        flat.rpm[k] = 7200;
        flat.capacity[k] = 960;
        flat.driveTemp[k] = 30;
    }
    return flat;
}

// The three published tables, 0xFF first as the update leaves them, and
// their three writes to region 3.
struct Tables {
    sVOXTavoInventory controllers;
    sVOXSASSATAInventory drives;
    sVOXTAVOBatteryInventory batteries;

    Tables()
    {
        std::memset(&controllers, 0xFF, sizeof controllers);
        std::memset(&drives, 0xFF, sizeof drives);
        std::memset(&batteries, 0xFF, sizeof batteries);
    }
    void write() const
    {
        Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, &controllers, RTSHM_TAVO_INVENTORY_OFFSET, sizeof controllers);
        Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, &drives, RTSHM_SASSATA_INVENTORY_OFFSET, sizeof drives);
        Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, &batteries, RTSHM_BATTERY_INVENTORY_OFFSET, sizeof batteries);
    }
};

void floor_pass(const Flat &flat)
{
    Tables t;
    auto &[controllers, drives, batteries] = t;
    controllers.s32Count = kControllers;
    for (uint32_t i = 0; i < kControllers; ++i) {
        controllers.au8PCISlot[i] = flat.slot[i];
        controllers.au32Temp[i] = flat.temp[i];
        controllers.au32BatteryTemp[i] = flat.batteryTemp[i];
        controllers.au32PCIVendorID[i] = flat.ids[0][i];
        controllers.au32PCIDeviceID[i] = flat.ids[1][i];
        controllers.au32PCISubVendorID[i] = flat.ids[2][i];
        controllers.au32PCISubDeviceID[i] = flat.ids[3][i];
        controllers.au8CardLocation[i] = flat.location[i];
        controllers.au64CtrlAddress1[i] = flat.address1[i];
        controllers.au8CtrlKind[i] = flat.kind[i];
        controllers.au8AdapterFlag[i] = 0;
        controllers.thermalPDPollDisable[i] = flat.thermal[i];
        controllers.au64CtrlAddress2[i] = flat.address2[i];
    }
    drives.s32Count = kDrives;
    for (uint32_t k = 0; k < kDrives; ++k) {
        drives.au8DriveBayID[k] = flat.bay[k];
        drives.au8DriveOccupiedSlot[k] = flat.occupied[k];
        drives.au8DriveProtocolType[k] = flat.protocol[k];
        drives.au8DriveMediaType[k] = flat.media[k];
        drives.au8DriveFormFactor[k] = flat.formFactor[k];
        drives.au8Temp[k] = flat.driveTemp[k];
        drives.au32NominalRPM[k] = flat.rpm[k];
        drives.pdShmStatus[k] = flat.status[k];
        drives.au16DriveCapacity[k] = flat.capacity[k];
        drives.au8DriveImpendance[k] = flat.impedance[k];
        drives.au8ChassisSlot[k] = flat.bay[k];
        drives.au8EnclosureTyoe[k] = flat.enclType[k];
    }
    batteries.s32Count = RTSHM_MAX_BATTERIES;
    std::memcpy(batteries.au8Slot, flat.batterySlot, sizeof batteries.au8Slot);
    std::memcpy(batteries.au8State, flat.batteryState, sizeof batteries.au8State);
    batteries.rtvox_inventory = 1;
    t.write();
}

// One filtered trace call of the dump's shape (a field line: one value),
// which passes fewer arguments than the typical line the shared price uses.
double dump_line_rate(std::chrono::steady_clock::duration length)
{
    auto line = [] { vornprintf(6, 15, "%s:%s:%u:au8Temp=%d \n", "rt_shm.c", "RTSHM_DumpSharedMem", 100u, 30); };
    return rtvox::bench::Bench::run_for(length, line);
}

// A second floor that does the part of the job the flat arrays skip: every
// value read where the cache keeps it (each controller's node, adapter, PCI
// block and battery by EID; each drive's node, entry and record from the
// controller's row; the drive's backplane node and enclosure), with no
// lookups, checks or traces beyond following the pointers, and written.
// Under the cache lock, as the update runs.
void cache_floor_pass()
{
    Tables t;
    auto &[controllers, drives, batteries] = t;
    uint32_t k = 0;
    for (uint32_t i = 0; i < kControllers; ++i) {
        const RtCacheCtrlNode *node = cache_AllEIDs[0x10 + i];
        const RtCachePciInfo &pci = *node->pPciInfo;
        controllers.au8PCISlot[i] = static_cast<uint8_t>(pci.au8Location[1] << 7 | pci.au8Location[0] >> 1);
        controllers.au32Temp[i] = node->pAdapter->u32CtrlTemp;
        controllers.au32BatteryTemp[i] = node->pAdapter->u32BatteryTemp;
        controllers.au32PCIVendorID[i] = pci.u16VendorID;
        controllers.au32PCIDeviceID[i] = pci.u16DeviceID;
        controllers.au32PCISubVendorID[i] = pci.u16SubVendorID;
        controllers.au32PCISubDeviceID[i] = pci.u16SubDeviceID;
        controllers.au64CtrlAddress1[i] = node->pAdapter->u64CtrlAddress1;
        if (i < RTSHM_MAX_BATTERIES) {
            batteries.au8Slot[i] = static_cast<uint8_t>(i);
            batteries.au8State[i] = static_cast<uint8_t>(node->pBattery->state);
        }
        void *const *row = cache_PDs[i];
        for (uint32_t key = 0; key + 1 < max_physicaldevices && k < kDrives; ++key) {
            const auto *pd = static_cast<const RtCachePdNode *>(row[key]);
            if (pd == nullptr || pd->objType != RTCACHE_PDNODE_PHYSICALDISK) {
                continue;
            }
            const RtCachePdEntry &entry = *pd->enclObj;
            const RtPhysicalDisk &disk = *entry.enclType.physicalDisk.Obj;
            drives.au8DriveOccupiedSlot[k] = disk.Slot;
            drives.au8DriveProtocolType[k] = disk.u8BusProtocol;
            drives.au8DriveFormFactor[k] = disk.u8FormFactor;
            drives.au8Temp[k] = entry.u8Temp;
            drives.au32NominalRPM[k] = disk.u32NominalRPM;
            drives.pdShmStatus[k] = entry.u16PDStatus;
            drives.au16DriveCapacity[k] = static_cast<uint16_t>(disk.Size >> 30);
            drives.au8DriveImpendance[k] = entry.u8Impedance;
            const auto *enclosure = static_cast<const RtCachePdNode *>(row[disk.u16EnclDeviceID]);
            const RtEnclosure &bay = *enclosure->enclObj->enclType.backPlane.Obj;
            drives.au8DriveBayID[k] = bay.u8BayID;
            drives.au8ChassisSlot[k] = bay.u8BayID;
            drives.au8EnclosureTyoe[k] = enclosure->enclObj->u8EnclType;
            ++k;
        }
    }
    controllers.s32Count = kControllers;
    drives.s32Count = static_cast<int32_t>(k);
    batteries.s32Count = RTSHM_MAX_BATTERIES;
    batteries.rtvox_inventory = 1;
    t.write();
}

}  // namespace

RTVOX_BENCH(shm_update)
{
    using rtvox::bench::Bench;
    using rtvox::bench::ns_per;
    if (!set_up_cache()) {
        std::fprintf(stderr, "shm_update: the cache could not be set up\n");
        rtcache_Destroy();
        return;
    }
    auto update = [] { rtvox::bench::under_cache_lock(RTSHM_UpdateSharedMem); };
    // The three calls the update makes, alone; the dump reads the tables the
    // update before it (or the floor, with the same counts) left in region 3.
    auto dump = [] { RTSHM_DumpSharedMem(); };
    auto polling = [] {
        sVOXTAVODrivePolling flag{};
        RTSHM_ReadSharedThermalPolling(&flag);
    };
    auto clear = [] { RTSHM_InitPartialSharedMem(); };
    const Flat flat = flat_values();
    auto floor = [&flat] { floor_pass(flat); };
    auto cache_floor = [] { rtvox::bench::under_cache_lock(cache_floor_pass); };
    // By turns in the same rounds, so that every figure meets the same machine.
    double updates = 0;
    double floors = 0;
    double cacheFloors = 0;
    double traces = 0;
    double dumps = 0;
    double polls = 0;
    double clears = 0;
    double dumpLines = 0;
    for (int round = 0; round < Bench::kRounds; ++round) {
        updates = std::max(updates, Bench::run_for(bench.round(), update));
        dumps = std::max(dumps, Bench::run_for(bench.round() / 2, dump));
        polls = std::max(polls, Bench::run_for(bench.round() / 4, polling));
        clears = std::max(clears, Bench::run_for(bench.round() / 4, clear));
        floors = std::max(floors, Bench::run_for(bench.round(), floor));
        cacheFloors = std::max(cacheFloors, Bench::run_for(bench.round(), cache_floor));
        traces = std::max(traces, rtvox::bench::filtered_trace_rate(bench.round() / 4));
        dumpLines = std::max(dumpLines, dump_line_rate(bench.round() / 4));
    }
    const uint32_t calls = rtvox::bench::count_trace_calls(update);
    const uint32_t dumpCalls = rtvox::bench::count_trace_calls(dump);
    const uint32_t pollCalls = rtvox::bench::count_trace_calls(polling);
    const uint32_t clearCalls = rtvox::bench::count_trace_calls(clear);
    rtcache_Destroy();

    bench.compare({.name = "RTSHM_UpdateSharedMem, 16 controllers x 255 drives behind backplanes, dump included",
                   .value = updates,
                   .unit = "updates/s",
                   .baseline = "the same three tables filled from flat arrays and written",
                   .baseline_value = floors,
                   .against = rtvox::bench::Against::kFloor,
                   .goal_percent = 200,
                   .rule = "every published drive is traced as it is entered (3 lines at level 4) and printed by the "
                           "dump at the end of the update (13 lines at level 6), each line a call to the platform's "
                           "trace service whatever level it keeps; the calls are measured below and alone cost "
                           "more than the goal allows. Beside them the update ends with the dump, which reads "
                           "regions 3 and 55 back and every printed value from that copy, reads the polling flag "
                           "with a stat of its marker file, and sets the published tables to 0xFF first: each is "
                           "priced below"});
    const double trace_ns = ns_per(traces);
    const double dump_line_ns = ns_per(dumpLines);
    const double floor_ns = ns_per(floors);
    const uint32_t ownCalls = calls - dumpCalls;
    // Time of one call beside its own trace calls: differences of figures measured apart.
    const auto own_ns = [trace_ns](double rate, uint32_t lines) { return ns_per(rate) - lines * trace_ns; };
    const double poll_ns = own_ns(polls, pollCalls);
    const double clear_ns = own_ns(clears, clearCalls);
    // The update without its dump, beside its own trace calls.
    const double undumped_ns = ns_per(updates) - ns_per(dumps);
    bench.report("RTSHM_UpdateSharedMem, trace calls per update", calls, "calls/update");
    bench.report("one trace call whose level is filtered out (the platform's cost)", trace_ns, "ns");
    bench.report("RTSHM_UpdateSharedMem, library time per update", ns_per(updates), "ns");
    bench.report("RTSHM_UpdateSharedMem, time per update the goal allows (twice the floor's)", 2 * floor_ns, "ns");
    bench.report("RTSHM_UpdateSharedMem, trace calls per update priced", calls * trace_ns, "ns");
    bench.report("RTSHM_UpdateSharedMem, library time per update left beside the trace calls",
                 ns_per(updates) - calls * trace_ns, "ns");
    // The dump as a whole, then its lines at the price of their own shape
    // (a field line passes fewer arguments than the shared price's line).
    bench.report("RTSHM_DumpSharedMem, the update's last step: 4 region reads and its lines", ns_per(dumps), "ns");
    bench.report("RTSHM_DumpSharedMem, trace calls per dump", dumpCalls, "calls/dump");
    bench.report("one trace call of a dump line whose level is filtered out (the platform's cost)", dump_line_ns, "ns");
    bench.report("RTSHM_DumpSharedMem beside its trace calls (region reads, the values of its lines)",
                 ns_per(dumps) - dumpCalls * dump_line_ns, "ns");
    bench.report("RTSHM_UpdateSharedMem without its dump", undumped_ns, "ns");
    bench.report("RTSHM_UpdateSharedMem without its dump, its other trace calls priced", ownCalls * trace_ns, "ns");
    bench.report(
        "RTSHM_ReadSharedThermalPolling (the update's first step) beside its trace calls: a region read and "
        "a stat of the marker file",
        poll_ns, "ns");
    bench.report("RTSHM_InitPartialSharedMem (0xFF over the published tables) beside its trace calls", clear_ns, "ns");
    bench.compare({.name = "RTSHM_UpdateSharedMem, library time per update beside its trace calls, the dump, the "
                           "polling-flag read and the 0xFF fill",
                   .value = undumped_ns - ownCalls * trace_ns - poll_ns - clear_ns,
                   .unit = "ns",
                   .baseline = "the same three tables filled from flat arrays and written",
                   .baseline_value = floor_ns,
                   .against = rtvox::bench::Against::kFloor,
                   .rate = false,
                   .goal_percent = 200});
    bench.compare({.name = "RTSHM_UpdateSharedMem, library time per update beside its trace calls, the dump, the "
                           "polling-flag read and the 0xFF fill, against reading the cache",
                   .value = undumped_ns - ownCalls * trace_ns - poll_ns - clear_ns,
                   .unit = "ns",
                   .baseline = "the same three tables filled by following the cache's pointers to every record "
                               "under the cache lock, and written",
                   .baseline_value = ns_per(cacheFloors),
                   .against = rtvox::bench::Against::kFloor,
                   .rate = false,
                   .goal_percent = 200});
}

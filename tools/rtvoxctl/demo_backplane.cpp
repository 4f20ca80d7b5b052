// Demo step for the backplane: the simulated backplane reports two NVMe bays
// (one behind a PCIe extender) and a SAS bay; the library opens its backplane
// API session, traces the API info record and condenses it into the NVMe
// table; the extenders and backplanes are inventoried into the cache and
// listed; a drive is plugged in and pulled out through the host's hot-plug
// injection, which calls the library back on its own thread; the drive is
// located and its status pushed to the backplane, each a 4-byte record the
// backplane receives.
#include <cstdint>
#include <cwchar>

#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {

namespace {

constexpr uint8_t kNvme = 4;     // bay / drive technology: NVMe
constexpr uint8_t kNvmeAlt = 1;  // the other NVMe technology value
constexpr uint8_t kSas = 2;
constexpr uint8_t kExtenderSlot = 3;  // PCIe slot of the extender card behind bay 0

// Bay 0 (NVMe, behind the extender) with two drives, bay 1 (NVMe) with one
// drive, bay 2 (SAS) with one drive; with `plugged`, a second drive in bay 1
// slot 1.
void build_record(uint8_t *record, bool plugged)
{
    const VornHostBpBay bays[] = {
        {1, 0x0100, 0, 0x8, {}, 0, kNvme, 4, 0, 0, 4, 4, 2, 1, 2, 5, {0x01, 0x02, 0x03}},
        {1, 0x0101, 0, 0x0, {}, 1, kNvmeAlt, 2, 0, 0, 2, 2, 1, 0, 1, 0x12, {0x04, 0x05, 0x06}},
        {1, 0x0102, 0, 0x0, {}, 2, kSas, 8, 0, 0, 8, 8, 1, 0, 3, 0, {0x07, 0x08, 0x09}},
    };
    const VornHostBpDrive drives[] = {
        {1, 0x40, 0, 0, kExtenderSlot, kNvme, 0x0005}, {2, 0x41, 0, 1, kExtenderSlot, kNvme, 0x0005},
        {3, 0x42, 1, 0, 0, kNvmeAlt, 0x0005},          {4, 0x43, 2, 0, 0, kSas, 0x0005},
        {5, 0x44, 1, 1, 0, kNvmeAlt, 0x0005},
    };
    const uint8_t driveCount = plugged ? 5 : 4;
    vornhost_bp_info_set_counts(record, 3, driveCount, driveCount, 1);
    for (uint32_t b = 0; b < 3; ++b) {
        vornhost_bp_info_set_bay(record, b, &bays[b]);
    }
    for (uint32_t d = 0; d < driveCount; ++d) {
        vornhost_bp_info_set_drive(record, d, &drives[d]);
    }
    const VornHostBpRiser riser = {1, 0, 4, kExtenderSlot, 1};
    vornhost_bp_info_set_riser(record, 0, &riser);
}

void show_nvme_table(Demo &demo)
{
    const RtShmNVMeSSDBPInfo &info = sNVMeSSDBPInfo;
    demo.say("sNVMeSSDBPInfo: %u bays reported", info.u8BayCount);
    for (uint32_t b = 0; b < RTSHM_NVME_BAYS; ++b) {
        const RtShmNVMeBay &bay = info.bay[b];
        if (bay.u8SlotCount == 0) {
            demo.say("  bay %u: no NVMe entry", b);
            continue;
        }
        demo.say("  bay %u: %u slots, firmware %x.%02x", bay.u8BayID, bay.u8SlotCount, bay.u8FwMajor, bay.u8FwMinor);
        for (uint32_t s = 0; s < RTSHM_NVME_SLOTS; ++s) {
            const RtShmNVMeSlot &slot = info.slot[b][s];
            if (slot.u8DriveTech != 0) {
                demo.say(
                    "    slot %u: drive %u, state 0x%04x, bay technology %u, drive technology %u, extender slot %u",
                    slot.u8SlotNumInBay, slot.u8DriveId, slot.u16DriveState, slot.u8BpType, slot.u8DriveTech,
                    slot.u8ExtenderSlot);
            }
        }
    }
    for (uint32_t r = 0; r < RTSHM_NVME_EXTENDERS; ++r) {
        const RtShmNVMeExtender &extender = info.extender[r];
        if (extender.u8RiserType != 0) {
            demo.say("  extender entry %u: bay %u, PCIe slot %u, riser type %u, riser number %u", r, extender.u8BayID,
                     extender.u8PciSlot, extender.u8RiserType, extender.u8RiserNum);
        }
    }
}

const wchar_t *or_none(const wchar_t *text)
{
    return text != nullptr ? text : L"(none)";
}

void list_inventory(Demo &demo)
{
    rtcache_GetLock();
    for (uint32_t key = 0; key < RTCACHE_EXTNDR_SLOTS; ++key) {
        if (const RtCacheExtender *extender = cache_Extndrs[key]; extender != nullptr) {
            demo.say("extender key %u: FQDD %ls, name \"%ls\", bay %u", key, or_none(extender->pFQDD),
                     or_none(extender->pName), extender->u8BayID);
        }
    }
    for (uint32_t key = 0; key < RTCACHE_BKPLANE_SLOTS; ++key) {
        const RtCacheBackplane *backplane = cache_Bkplanes[key];
        if (backplane == nullptr) {
            continue;
        }
        const RtEnclosure *enclosure = backplane->pEnclosure;
        demo.say("backplane key %u: FQDD %ls, name \"%ls\", first NVMe slot %u, %u slots, drive status 0x%x", key,
                 or_none(enclosure != nullptr ? enclosure->hdr.FQDD : nullptr),
                 or_none(enclosure != nullptr ? enclosure->NAME : nullptr), backplane->u8SlotNumInBay,
                 backplane->u8SlotCount, backplane->au16DriveStatus);
    }
    SMMutexUnLock(mutexRtCache);
    vornhost_trace_clear();  // the fetches' own lines add nothing
}

void hotplug(Demo &demo, bool plugged, const char *what)
{
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {};
    build_record(record, plugged);
    uint16_t before = 0;
    rtshm_getNVMeDriveState(&before, 1, 1);
    const int started = vornhost_bp_hotplug(record);
    vornhost_bp_hotplug_wait(5000);
    uint16_t after = 0;
    rtshm_getNVMeDriveState(&after, 1, 1);
    demo.say("%s: %d callback(s) on the host's thread; bay 1 slot 1 went from state 0x%x to 0x%x", what, started,
             before, after);
    demo.traces();
}

// The records the backplane received since journal entry `from`.
void show_writes(Demo &demo, uint32_t from, const char *what, uint32_t result)
{
    demo.say("%s answered %u", what, result);
    VornHostBpWrite write{};
    for (uint32_t i = from; vornhost_bp_write_get(i, &write) == 0; ++i) {
        demo.say("  backplane received write type %u over %s: %02x %02x %02x %02x", write.writeType,
                 write.handle == bpAPIHandler ? "the long-lived session" : "a session of its own", write.bytes[0],
                 write.bytes[1], write.bytes[2], write.bytes[3]);
    }
    demo.traces();
}

void locate(Demo &demo)
{
    constexpr uint8_t kEid = 30;  // the NVMe drive in bay 1 slot 0, a PCIe SSD in a backplane (type 7)
    uint16_t state = 0;
    rtshm_getNVMeDriveState(&state, 1, 0);
    vornhost_trace_clear();
    uint32_t from = vornhost_bp_write_count();
    show_writes(demo, from, "BlinkNVMeSSD(1, 0)", BlinkNVMeSSD(1, 0));
    from = vornhost_bp_write_count();
    show_writes(demo, from, "UnBlinkNVMeSSD(1, 0, state 0x0005)", UnBlinkNVMeSSD(1, 0, state));
    from = vornhost_bp_write_count();
    show_writes(demo, from, "UnBlinkAllNVMeSSDS with state 0xFFFF (unknown: nothing written)",
                UnBlinkAllNVMeSSDS(kEid, 1, 0, RTSHM_NVME_STATE_UNKNOWN));

    uint8_t eid = kEid;
    rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, 0, 0, &eid);
    rtcache_SetStorageEIDType(kEid, RTSHM_PCIESSD_TYPE_BAY);
    rtshm_UpdateNVMeSSDSlotToEID(1, 0, kEid);
    vornhost_trace_clear();
    from = vornhost_bp_write_count();
    show_writes(demo, from, "updateNVMeSSDDriveStatusToBP(0x0021, slot 0, EID 30)",
                updateNVMeSSDDriveStatusToBP(0x0021, 0, kEid));
}

}  // namespace

void demo_backplane(Demo &demo)
{
    demo.section("Backplane: two NVMe bays (bay 0 behind a PCIe extender) and a SAS bay");
    if (rtcache_Init() != 0) {
        demo.say("rtcache_Init failed");
        demo.traces();
        rtcache_Destroy();
        return;
    }
    vornhost_trace_clear();
    uint8_t record[VORNHOST_BP_INFO_SIZE] = {};
    build_record(record, false);
    vornhost_bp_set_info(record);
    const uint32_t rc = rtshm_BpApiInit();
    demo.say("rtshm_BpApiInit answered %u; session 0x%08x, opened with the hot-plug callback: %s", rc, bpAPIHandler,
             vornhost_bp_session_has_callback(bpAPIHandler) == 1 ? "yes" : "no");
    demo.traces();

    demo.section("Backplane: the condensed NVMe table (the SAS bay is left out)");
    show_nvme_table(demo);

    demo.section("Backplane: extenders first, then backplanes, inventoried into the cache");
    demo.say("rtshm_getNVMeExtcard answered %u", rtshm_getNVMeExtcard());
    demo.say("rtshm_getNVMeBPs answered %u", rtshm_getNVMeBPs());
    demo.traces();
    list_inventory(demo);

    demo.section("Backplane: a drive is plugged into bay 1 slot 1 and pulled out again");
    hotplug(demo, true, "plugged in");
    hotplug(demo, false, "pulled out");

    demo.section("Backplane: the NVMe drive in bay 1 slot 0 is located, unlocated and given a new status");
    locate(demo);

    // The library keeps its session for the life of the service; the demo
    // closes it before the cache goes.
    VornBpApiCloseExec(bpAPIHandler, "rtvoxctl", "demo_backplane", __LINE__);
    bpAPIHandler = 0;
    rtcache_Destroy();
    vornhost_trace_clear();
}

}  // namespace rtvoxctl

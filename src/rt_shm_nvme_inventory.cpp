// NVMe backplane and extender inventory: the condensed backplane view
// becomes cached extender (key type 6) and backplane (key type 5) objects
// with their FQDDs and names.
#define RT_MODULE_FILE "rt_shm.c"

#include <cwchar>

#include "rt_cache_lock.h"
#include "rt_cache_release.h"
#include "rt_shm_internal.h"
#include "rtvox/rt_cache.h"
#include "trace.h"

using namespace rtvox::shm;
using rtvox::cache::CacheLock;

namespace {

// The helpers trace in the name of the exported function they serve.
constexpr const char *kBackplane = "processNVMeBackplaneInfo";

// Text buffers, in wide characters, terminator included.
constexpr size_t kExtenderFqddChars = 100 / sizeof(wchar_t);  // "PCIeExtender.Slot.%ld"
constexpr size_t kExtenderNameChars = 80 / sizeof(wchar_t);   // "PCIe Extender %d"
constexpr size_t kBackplaneFqddChars = sizeof "Enclosure.Internal.0-10:PCIeExtender.Slot.10";
constexpr size_t kPlainBackplaneFqddChars = sizeof "Enclosure.Internal.0-10";
constexpr size_t kBackplaneNameChars = sizeof "PCIe SSD BP 10";

// A zero-filled wide buffer, or nullptr. swprintf into it with the same
// count never removes the last terminator, so a cut text stays terminated.
wchar_t *wide_buffer(size_t chars)
{
    return static_cast<wchar_t *>(rtvox_alloc(static_cast<uint32_t>(chars * sizeof(wchar_t))));
}

// Puts a new text into an object's field; the text the field held is freed.
void replace_text(wchar_t *&field, wchar_t *text)
{
    rtvox_free(field);
    field = text;
}

// The cached object of a key type (the inventory passes the key as EID too).
template <typename Object>
uint32_t fetch(RtCacheKeyType keyType, uint8_t key, Object **object)
{
    void *found = nullptr;
    const uint32_t status = rtcache_GetCachedObject(keyType, key, key, &found);
    *object = static_cast<Object *>(found);
    return status;
}

// The object found in the cache, or a new zero-filled one (nullptr when it
// cannot be allocated).
template <typename Object>
Object *cached_or_new(Object *cached)
{
    return cached != nullptr ? cached : static_cast<Object *>(rtvox_alloc(sizeof(Object)));
}

// The FQDD of a backplane, or nullptr: nested in the FQDD of the cached
// extender when its first NVMe slot hangs on one, else the plain form. A
// missing extender leaves the backplane without an FQDD: no fallback.
wchar_t *backplane_fqdd(uint8_t bayId, uint8_t extenderSlot)
{
    if (extenderSlot == 0) {
        wchar_t *fqdd = wide_buffer(kPlainBackplaneFqddChars);
        if (fqdd == nullptr) {
            RT_TRACE_AS(kBackplane, 1, "%s rtvox_alloc Failed @No Extender, BayId=%d", "ProcessBP", bayId);
            return nullptr;
        }
        std::swprintf(fqdd, kPlainBackplaneFqddChars, L"Enclosure.Internal.0-%ld", static_cast<long>(bayId));
        RT_TRACE_AS(kBackplane, 4, "%s bpFQDD=%ls", "Framing FQDD w/o extndr Done!", fqdd);
        return fqdd;
    }
    RtCacheExtender *extender = nullptr;
    if (fetch(RTCACHE_KEY_PCIESSD_EXTENDER, extenderSlot, &extender) != 0 || extender == nullptr) {
        RT_TRACE_AS(kBackplane, 3, "Extender Read Error or Not Available");
        return nullptr;
    }
    if (extender->pFQDD == nullptr) {
        RT_TRACE_AS(kBackplane, 3, "Extender is not available in the server");
        return nullptr;
    }
    RT_TRACE_AS(kBackplane, 4, "%s u8ExtenderSlot:%d", "Extender Info Available", extenderSlot);
    wchar_t *fqdd = wide_buffer(kBackplaneFqddChars);
    if (fqdd == nullptr) {
        RT_TRACE_AS(kBackplane, 1, "%s rtvox_alloc Failed BayId=%d", "ProcessBP", bayId);
        return nullptr;
    }
    std::swprintf(fqdd, kBackplaneFqddChars, L"Enclosure.Internal.0-%ld:%ls", static_cast<long>(bayId),
                  extender->pFQDD);
    RT_TRACE_AS(kBackplane, 4, "%s bpFQDD=%ls", "Framing FQDD with Extndr Done!", fqdd);
    return fqdd;
}

wchar_t *backplane_name(uint8_t bayId)
{
    wchar_t *name = wide_buffer(kBackplaneNameChars);
    if (name == nullptr) {
        RT_TRACE_AS(kBackplane, 1, "%s rtvox_alloc Failed for NAME, BayId=%d", "ProcessBP", bayId);
        return nullptr;
    }
    std::swprintf(name, kBackplaneNameChars, L"PCIe SSD BP %d", bayId);
    RT_TRACE_AS(kBackplane, 4, "PCIeSSD BP NAME=%ls", name);
    return name;
}

}  // namespace

extern "C" {

uint32_t rtshm_getNVMeExtcard(void)
{
    RT_TRACE_ENTRY(4);
    for (uint32_t r = 0; r < RTSHM_NVME_EXTENDERS; ++r) {
        RT_TRACE(4, " s8Extender=%d ", static_cast<int>(r));
        const RtShmNVMeExtender &entry = sNVMeSSDBPInfo.extender[r];
        const uint8_t type = shared_load(entry.u8RiserType);
        if (type != RTSHM_RISER_TYPE_EXTENDER) {
            RT_TRACE(5, "--> %s s8Extender=%d u8RiserType=%d", "Not an Extender", static_cast<int>(r), type);
            continue;
        }
        const uint8_t bayId = shared_load(entry.u8BayID);
        const uint8_t pciSlot = shared_load(entry.u8PciSlot);
        RT_TRACE(4, "--> %s u8PciSlot:%d, u8RiserType:%d, u8BayID:%d", "Extender Found", pciSlot, type, bayId);
        if (processNVMeExtndrcardInfo(bayId, pciSlot) != 0) {
            RT_TRACE(2, "<-- Error, processPciessdExtndrcardInfo");
            return 3;
        }
    }
    RT_TRACE(4, "exit u32Ret=%d", 0);
    return 0;
}

uint32_t processNVMeExtndrcardInfo(uint8_t u8BayID, uint8_t u8PciSlot)
{
    RT_TRACE_ENTRY(4);
    CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    RtCacheExtender *cached = nullptr;
    if (const uint32_t status = fetch(RTCACHE_KEY_PCIESSD_EXTENDER, u8PciSlot, &cached); status != 0) {
        RT_TRACE(2, "%s u32Ret=%d %d", "<-- error", static_cast<int>(status), __LINE__);
    }
    RtCacheExtender *extender = cached_or_new(cached);
    if (extender == nullptr) {
        RT_TRACE(1, "<-- err extcardInfo is NULL");
        return 3;
    }
    extender->u8BayID = u8BayID;
    RT_TRACE(4, "%s extndrtempInfo->u8BayID=%d", "Extender FQDD", u8BayID);
    replace_text(extender->pFQDD, wide_buffer(kExtenderFqddChars));
    replace_text(extender->pName, wide_buffer(kExtenderNameChars));
    if (extender->pFQDD != nullptr) {
        std::swprintf(extender->pFQDD, kExtenderFqddChars, L"PCIeExtender.Slot.%ld", static_cast<long>(u8PciSlot));
        RT_TRACE(5, "Framing FQDD %d", u8PciSlot);
        RT_TRACE(1, "Inventory store %ls", extender->pFQDD);
        if (extender->pName != nullptr) {
            std::swprintf(extender->pName, kExtenderNameChars, L"PCIe Extender %d", u8PciSlot);
            RT_TRACE(4, "Framing NAME %d", u8PciSlot);
            RT_TRACE(4, "ExtenderNAME=%ls u8ExtenderSlot=%d", extender->pName, u8PciSlot);
        }
    }
    if (const uint32_t status = rtcache_SetCachedObject(RTCACHE_KEY_PCIESSD_EXTENDER, u8PciSlot, u8PciSlot, extender);
        status != 0) {
        RT_TRACE(1, "%s  %d", " Error Exit", static_cast<int>(status));
        if (extender != cached) {  // an object already in the cache stays there
            rtvox::cache::release_extender(extender);
        }
        return status;
    }
    RT_TRACE_EXIT(4);
    return 0;
}

uint32_t rtshm_getExtenderSlotFromDriveSlot(uint8_t u8BayID, uint8_t u8DriveSlot, uint8_t *pu8ExtenderSlot)
{
    RT_TRACE(4, "--> u8DriveSlot=%d", u8DriveSlot);
    if (u8DriveSlot > RTSHM_NVME_SLOTS - 1) {
        RT_TRACE(2, "Error!!, Invalid DriveSlot:%d", u8DriveSlot);
        return 2;
    }
    if (null_input(__func__, pu8ExtenderSlot) || !in_table(__func__, "bay id", u8BayID, RTSHM_NVME_BAYS)) {
        return 2;
    }
    *pu8ExtenderSlot = shared_load(sNVMeSSDBPInfo.slot[u8BayID][u8DriveSlot].u8ExtenderSlot);
    if (*pu8ExtenderSlot != 0) {
        RT_TRACE(4, "--> u8BayID:%d u8DriveSlot:%d, u8ExtenderSlot:%d", u8BayID, u8DriveSlot, *pu8ExtenderSlot);
    } else {
        RT_TRACE(4, "--> No Extender Found for u8BayID:%d u8DriveSlot:%d ", u8BayID, u8DriveSlot);
    }
    RT_TRACE(4, "Exit u32Ret=%d", 0);
    return 0;
}

uint32_t rtshm_getNVMeBPs(void)
{
    RT_TRACE_ENTRY(4);
    RT_TRACE(4, " u8BayCount=%d ", shared_load(sNVMeSSDBPInfo.u8BayCount));
    // All three bays, whatever the count says; each NVMe bay once, with its first NVMe slot.
    for (uint32_t b = 0; b < RTSHM_NVME_BAYS; ++b) {
        RtShmNVMeBay &bay = sNVMeSSDBPInfo.bay[b];
        const uint8_t bayId = shared_load(bay.u8BayID);
        const uint8_t slotCount = shared_load(bay.u8SlotCount);
        RT_TRACE(4, " s8BayNo=%d u8BayID=%d u8SlotCount=%d ", static_cast<int>(b), bayId, slotCount);
        bool done = false;
        for (uint32_t s = 0; s < slotCount && in_table(__func__, "slot", s, RTSHM_NVME_SLOTS); ++s) {
            RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[b][s];
            const uint8_t driveBayId = shared_load(slot.u8BayID);
            RT_TRACE(5, "u8SlotNo=%d bpBayID=%d DrvBayID=%d IsBPFQDDDone=%d", static_cast<int>(s), bayId, driveBayId,
                     done ? 1 : 0);
            if (driveBayId != bayId) {
                RT_TRACE(5, "%s BayID_bp:%d, BayID_drv:%d", "BayID missmatch", bayId, driveBayId);
                continue;
            }
            if (!is_nvme(shared_load(slot.u8BpType))) {
                continue;
            }
            const uint8_t slotNum = shared_load(slot.u8SlotNumInBay);
            if (done) {
                RT_TRACE(4, "BP FQDD is already constrructed u8BayID=%d: u8SlotNumInBay=%d", bayId, slotNum);
                continue;
            }
            processNVMeBackplaneInfo(&bay, &slot);
            RT_TRACE(4, " u8BayID=%d: u8SlotNumInBay=%d", bayId, slotNum);
            done = true;
        }
    }
    RT_TRACE_EXIT(4);
    return 0;
}

uint32_t processNVMeBackplaneInfo(RtShmNVMeBay *pBay, RtShmNVMeSlot *bpStatusInfo)
{
    RT_TRACE_ENTRY(4);
    if (null_input(__func__, pBay) || null_input(__func__, bpStatusInfo)) {
        return 2;
    }
    CacheLock lock;
    if (!lock.held()) {
        RTCACHE_TRACE_MUTEX_FAIL();
        return 3;
    }
    const uint8_t bayId = shared_load(bpStatusInfo->u8BayID);
    RT_TRACE(4, "%s bpStatusInfo->u8BayID = %d Line:%d", "get BP", bayId, __LINE__);
    RtCacheBackplane *cached = nullptr;
    fetch(RTCACHE_KEY_PCIESSD_BACKPLANE, bayId, &cached);
    RtCacheBackplane *backplane = cached_or_new(cached);
    if (backplane == nullptr) {
        RT_TRACE(1, "<-- err BackPlane is NULL");
        return 3;
    }
    backplane->u8BayID = bayId;
    backplane->u8SlotCount = shared_load(pBay->u8SlotCount);
    backplane->u8DriveCount = shared_load(pBay->u8DriveCount);
    backplane->u8SlotNumInBay = shared_load(bpStatusInfo->u8SlotNumInBay);
    backplane->au16DriveStatus = shared_load(bpStatusInfo->u16DriveState);
    RT_TRACE(4, "%s u8BayID:%d u8SlotNumInBay:%d au16DriveStatus:%x", "Process NVMe BP:", bayId,
             backplane->u8SlotNumInBay, backplane->au16DriveStatus);

    auto *enclosure = static_cast<RtEnclosure *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    if (enclosure == nullptr) {
        // The record is part of the object: no backplane is stored without one.
        RT_TRACE(1, "%s rtvox_alloc Failed for Enclosure, BayId=%d", "ProcessBP", bayId);
        if (backplane != cached) {
            rtvox_free(backplane);
        }
        return 3;
    }
    rtvox::cache::release_enclosure(backplane->pEnclosure);
    backplane->pEnclosure = enclosure;

    uint8_t extenderSlot = 0;
    rtshm_getExtenderSlotFromDriveSlot(bayId, backplane->u8SlotNumInBay, &extenderSlot);
    RT_TRACE(4, "%s :BayId=%d, u8ExtenderSlot=%d", "Get PCIe Slot", bayId, extenderSlot);
    enclosure->hdr.FQDD = backplane_fqdd(bayId, extenderSlot);
    enclosure->NAME = backplane_name(bayId);
    enclosure->u8SlotCount = backplane->u8SlotCount;
    enclosure->u8DriveCount = backplane->u8DriveCount;
    RT_TRACE(4, "%s driveCount=%d  slotCount=%d", "Process NVMe BP:", enclosure->u8DriveCount, enclosure->u8SlotCount);

    if (rtcache_SetCachedObject(RTCACHE_KEY_PCIESSD_BACKPLANE, bayId, bayId, backplane) != 0) {
        rtvox::cache::release_enclosure(backplane->pEnclosure);
        if (backplane != cached) {  // an object already in the cache stays there
            rtvox::cache::release_backplane(backplane);
        }
        RT_TRACE(2, "<-- error");
        return 3;
    }
    RT_TRACE_EXIT(4);
    return 0;
}

}  // extern "C"

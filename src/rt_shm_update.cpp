// The update of the inventory region from the object cache: up to 16
// controllers, 255 drives and 8 batteries, built in three local images and
// written to region 3 at the end.
#define RT_MODULE_FILE "rt_shm.c"

#include <cstdint>
#include <cstring>
#include <cwchar>

#include "rt_cache_rows.h"
#include "rt_shm_regions.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "trace.h"

using namespace rtvox::shm;

namespace {

constexpr const char *kFunction = "RTSHM_UpdateSharedMem";
constexpr uint32_t kLastEid = 254;
constexpr uint16_t kNoEnclosure = 0xFFFF;
constexpr uint8_t kMediaSolidState = 0x02;  // bit 1 of the disk's media flags

// Sub-device ids of controllers that are not integrated: their drives and
// batteries are not published (7981, 8001, 8006, 8137, 8162).
bool is_excluded(uint32_t subDevice)
{
    constexpr uint32_t kFirst = 7981;
    constexpr uint32_t kMask = 0x2100001;  // over 7981..8006
    if (subDevice >= kFirst && subDevice <= kFirst + 25) {
        return ((kMask >> (subDevice - kFirst)) & 1u) != 0;
    }
    return subDevice == 8137 || subDevice == 8162;
}

// Sub-device ids of TAVO controllers whose battery temperature is not
// published (8004-8006, 8011, 8012, 8014, 8016-8019).
bool has_no_battery_temperature(uint32_t subDevice)
{
    constexpr uint32_t kFirst = 8004;
    constexpr uint32_t kMask = 0xF587;  // over 8004..8019
    return subDevice >= kFirst && subDevice <= kFirst + 15 && ((kMask >> (subDevice - kFirst)) & 1u) != 0;
}

bool contains(const wchar_t *text, const wchar_t *word)
{
    return text != nullptr && std::wcsstr(text, word) != nullptr;
}

const RtCachePdNode *pd_node(uint32_t eid, uint32_t key)
{
    void *object = nullptr;
    if (rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &object) != 0) {
        return nullptr;
    }
    return static_cast<const RtCachePdNode *>(object);
}

// The three images and how far each is filled.
class Inventory {
public:
    explicit Inventory(bool pollingDisabled) : pollingDisabled_(pollingDisabled)
    {
        std::memset(&controllers_, 0xFF, sizeof controllers_);
        std::memset(&drives_, 0xFF, sizeof drives_);
        std::memset(&batteries_, 0xFF, sizeof batteries_);
    }

    bool full() const { return controllerCount_ == RTSHM_MAX_CONTROLLERS; }
    void add_controller(uint32_t eid);
    void publish();

private:
    void add_drive(uint32_t eid, uint8_t type, uint32_t key);
    bool place_in_enclosure(uint32_t eid, uint8_t type, const RtPhysicalDisk &disk, uint32_t k);
    bool place_behind_hba(const RtCachePdNode &enclosure, uint16_t enclId, const wchar_t *description, uint32_t k);
    bool place_behind_tavo(const RtCachePdNode &enclosure, const wchar_t *description, uint32_t k);
    void set_bay(uint32_t k, const RtEnclosure &inner)
    {
        drives_.au8DriveBayID[k] = inner.u8BayID;
        drives_.au8ChassisSlot[k] = inner.u8BayID;
    }

    // The drive or enclosure object `key` of the controller being entered.
    const RtCachePdNode *pd_object(uint32_t eid, uint32_t key) const
    {
        if (row_.slots != nullptr) {
            return static_cast<const RtCachePdNode *>(row_.at(key));
        }
        return pd_node(eid, key);
    }

    bool pollingDisabled_;
    rtvox::cache::DiskRow row_;  // of the controller being entered: its drives are read without a search each
    uint32_t controllerCount_ = 0;
    uint32_t driveCount_ = 0;
    uint32_t batteryCount_ = 0;
    sVOXTavoInventory controllers_;
    sVOXSASSATAInventory drives_;
    sVOXTAVOBatteryInventory batteries_;
};

void Inventory::add_controller(uint32_t eid)
{
    uint8_t type = 0;
    if (rtcache_GetStorageEIDTypeNoLock(eid, &type) != 0) {
        return;
    }
    RT_TRACE_AS(kFunction, 4, "%s ctrlId=%d u8Type=%d", "UpdateSHM:", static_cast<int>(eid), type);
    if (type != RTCACHE_EIDTYPE_TAVO && type != RTCACHE_EIDTYPE_HBA && type != RTCACHE_EIDTYPE_MIRU) {
        RT_TRACE_AS(kFunction, 4, "Not TAVO or HBA or MIRU, ignoring %d", type);
        return;
    }
    void *object = nullptr;
    const uint32_t fetched = rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, eid, eid, &object);
    const auto *node = static_cast<const RtCacheCtrlNode *>(object);
    // Without its adapter record a controller has nothing to publish either.
    if (fetched != 0 || node == nullptr || node->pPciInfo == nullptr || node->pAdapter == nullptr) {
        RT_TRACE_AS(kFunction, 6, " contiue2 %d", static_cast<int>(eid));
        return;
    }
    const RtCachePciInfo &pci = *node->pPciInfo;
    const RtAdapter &adapter = *node->pAdapter;
    const uint32_t i = controllerCount_;
    const auto slot = static_cast<uint8_t>(pci.au8Location[1] << 7 | pci.au8Location[0] >> 1);
    controllers_.au8PCISlot[i] = slot;
    if (type == RTCACHE_EIDTYPE_TAVO) {
        controllers_.au8CtrlKind[i] = RTSHM_CTRL_KIND_TAVO;
        if (!pollingDisabled_) {
            ctrl::kTemp.set(&controllers_, i, adapter.u32CtrlTemp);
            if (!has_no_battery_temperature(pci.u16SubDeviceID)) {
                ctrl::kBatteryTemp.set(&controllers_, i, adapter.u32BatteryTemp);
            }
        }
        controllers_.thermalPDPollDisable[i] = adapter.u8ThermalPDPollDisable;
    } else {
        // HBA and MIRU controllers report no temperatures of their own.
        controllers_.au8CtrlKind[i] = type == RTCACHE_EIDTYPE_MIRU ? RTSHM_CTRL_KIND_MIRU : RTSHM_CTRL_KIND_HBA;
        ctrl::kTemp.set(&controllers_, i, 0xFFFFFFFFu);
        ctrl::kBatteryTemp.set(&controllers_, i, 0xFFFFFFFFu);
        controllers_.thermalPDPollDisable[i] = pollingDisabled_ ? RTSHM_PDPOLL_DISABLED : 0;
    }
    ctrl::kAddress1.set(&controllers_, i, adapter.u64CtrlAddress1);
    ctrl::kAddress2.set(&controllers_, i, adapter.u64CtrlAddress2);
    ctrl::kVendorID.set(&controllers_, i, pci.u16VendorID);
    ctrl::kDeviceID.set(&controllers_, i, pci.u16DeviceID);
    ctrl::kSubVendorID.set(&controllers_, i, pci.u16SubVendorID);
    ctrl::kSubDeviceID.set(&controllers_, i, pci.u16SubDeviceID);
    controllers_.au8AdapterFlag[i] = adapter.u8AdapterFlag;
    uint8_t modularId = 0;
    if (rtcache_GetModularIdNoLock(eid, &modularId) != 0) {
        modularId = 0;
    }
    controllers_.au8CardLocation[i] = modularId;

    ++controllerCount_;
    if (is_excluded(pci.u16SubDeviceID)) {
        RT_TRACE_AS(kFunction, 6, "NOT AN INTEGRATED CONTROLLER");
        controllers_.thermalPDPollDisable[i] = RTSHM_PDPOLL_EXCLUDED;
        return;
    }
    if (type == RTCACHE_EIDTYPE_TAVO && batteryCount_ < RTSHM_MAX_BATTERIES && node->pBattery != nullptr) {
        if (modularId != 0) {
            RT_TRACE_AS(kFunction, 6, "IS A MODULAR CONTROLLER");
        } else {
            batteries_.au8Slot[batteryCount_] = slot;
            batteries_.au8State[batteryCount_] = static_cast<uint8_t>(node->pBattery->state);
            ++batteryCount_;
        }
    }
    // At most max_physicaldevices - 1 drive indices per controller, none with a limit of 1.
    row_ = rtvox::cache::pd_row(eid);
    for (uint32_t key = 0; key + 1 < max_physicaldevices && driveCount_ < RTSHM_MAX_DRIVES; ++key) {
        add_drive(eid, type, key);
    }
}

// Writes drive `key` into entry k = the drive count; only a counted drive
// advances k, so a skipped drive's values stay in the entry until the next
// drive overwrites them.
void Inventory::add_drive(uint32_t eid, uint8_t type, uint32_t key)
{
    const RtCachePdNode *node = pd_object(eid, key);
    if (node == nullptr) {
        return;
    }
    if (node->objType != RTCACHE_PDNODE_PHYSICALDISK) {
        RT_TRACE_AS(kFunction, 6, " Not of type PHYSICALDISK, so continue");
        return;
    }
    const RtCachePdEntry *entry = node->enclObj;
    if (entry == nullptr) {
        RT_TRACE_AS(kFunction, 6, " pPDCache->enclObj is NULL, so continue");
        return;
    }
    const RtPhysicalDisk *disk = entry->enclType.physicalDisk.Obj;
    if (disk == nullptr) {
        RT_TRACE_AS(kFunction, 6, " pPDCache->enclObj->enclType.physicalDisk.Obj is NULL, so continue");
        return;
    }
    if (entry->u8Multipath == 1 && entry->u16MultipathPrimary != key) {
        RT_TRACE_AS(kFunction, 4, " drive:0x%x is in multipath but not primary", static_cast<unsigned>(key));
        return;
    }

    const uint32_t k = driveCount_;
    drives_.au8DriveOccupiedSlot[k] = disk->Slot;
    drives_.au8DriveProtocolType[k] = disk->u8BusProtocol;
    drives_.au8DriveMediaType[k] = (disk->u8MediaFlags & kMediaSolidState) != 0 ? 1 : 0;
    drives_.au8DriveFormFactor[k] = disk->u8FormFactor;
    if (!pollingDisabled_) {
        drives_.au8Temp[k] = entry->u8Temp;
        RT_TRACE_AS(kFunction, 4, "shm:Updating temperature[%d]: %d", static_cast<int>(k), entry->u8Temp);
    }
    drive::kNominalRPM.set(&drives_, k, disk->u32NominalRPM);
    drives_.au8DriveBayID[k] = 0;
    drives_.au8ChassisSlot[k] = 0;
    drives_.au8EnclosureTyoe[k] = entry->u8EnclType;
    const auto status = static_cast<uint16_t>(entry->u16PDStatus | (type == RTCACHE_EIDTYPE_HBA ? 1u : 0u));
    drive::kStatus.set(&drives_, k, status);
    RT_TRACE_AS(kFunction, 4, "pdShmStatus %x Slot %d", static_cast<unsigned>(status), disk->Slot);
    const auto capacity = static_cast<uint16_t>(disk->Size >> 30);
    drive::kCapacity.set(&drives_, k, capacity);
    drives_.au8DriveImpendance[k] = entry->u8Impedance;
    RT_TRACE_AS(kFunction, 4, "Drive Capacity : %d & Impedance : %d", capacity, entry->u8Impedance);

    if (place_in_enclosure(eid, type, *disk, k)) {
        ++driveCount_;
    }
}

// The drive's enclosure data; answers whether the drive is counted.
bool Inventory::place_in_enclosure(uint32_t eid, uint8_t type, const RtPhysicalDisk &disk, uint32_t k)
{
    const uint16_t enclId = disk.u16EnclDeviceID;
    const wchar_t *description = disk.pDescription;
    if (enclId == kNoEnclosure) {
        if (contains(description, L"Tape")) {
            drives_.au8DriveMediaType[k] = RTSHM_MEDIA_TAPE;
            return true;
        }
        RT_TRACE_AS(kFunction, 2, "u16EnclDeviceID is not proper %d", enclId);
        if (description != nullptr && !contains(description, L"Direct")) {
            RT_TRACE_AS(kFunction, 2, "Disk attached to an enclosure, so continue");
            return false;
        }
        return true;
    }
    const RtCachePdNode *enclosure = pd_object(eid, enclId);
    if (enclosure == nullptr) {
        RT_TRACE_AS(kFunction, 2, "Failed to get the enclosure object");
        return description == nullptr || contains(description, L"Integrated");
    }
    if (type == RTCACHE_EIDTYPE_HBA) {
        return place_behind_hba(*enclosure, enclId, description, k);
    }
    if (type == RTCACHE_EIDTYPE_TAVO) {
        return place_behind_tavo(*enclosure, description, k);
    }
    return true;  // MIRU: no enclosure data
}

bool Inventory::place_behind_hba(const RtCachePdNode &enclosure, uint16_t enclId, const wchar_t *description,
                                 uint32_t k)
{
    const RtCachePdEntry *record = enclosure.enclObj;
    if (record == nullptr) {
        RT_TRACE_AS(kFunction, 6, " pPDCache->enclObj is NULL");
        return true;
    }
    const RtEnclosure *inner = record->enclType.extEncl.Obj;
    if (inner == nullptr) {
        RT_TRACE_AS(kFunction, 2, " pPDCache->enclObj->enclType.extEncl.Obj is NULL");
        return true;
    }
    if (enclosure.objType == RTCACHE_PDNODE_BACKPLANE || record->u8IsBackplane == 1) {
        set_bay(k, *inner);
        return true;
    }
    RT_TRACE_AS(kFunction, 6, "enclosure is not of type BACKPLANE %d", enclId);
    if (description == nullptr || contains(description, L"Direct")) {
        return true;
    }
    RT_TRACE_AS(kFunction, 6, "Disk attached to an enclosure, so continue");
    return false;
}

bool Inventory::place_behind_tavo(const RtCachePdNode &enclosure, const wchar_t *description, uint32_t k)
{
    const RtCachePdEntry *record = enclosure.enclObj;
    if (enclosure.objType != RTCACHE_PDNODE_BACKPLANE) {
        RT_TRACE_AS(kFunction, 6, "enclosure is not of type BACKPLANE");
        if (record != nullptr && record->enclType.extEncl.Obj != nullptr && record->u8IsBackplane == 1) {
            set_bay(k, *record->enclType.extEncl.Obj);
            drives_.au8EnclosureTyoe[k] = record->u8IsBackplane;
            return true;
        }
        if (description == nullptr || contains(description, L"Direct")) {
            return true;
        }
        RT_TRACE_AS(kFunction, 6, "Disk attached to an enclosure, so continue");
        return false;
    }
    if (record == nullptr) {
        RT_TRACE_AS(kFunction, 6, " pPDCache->enclObj is NULL");
        return true;
    }
    if (const RtEnclosure *inner = record->enclType.backPlane.Obj; inner != nullptr) {
        set_bay(k, *inner);
        drives_.au8EnclosureTyoe[k] = record->u8EnclType;
        return true;
    }
    RT_TRACE_AS(kFunction, 2, " pPDCache->enclObj->enclType.backPlane.Obj is NULL");
    return true;
}

// Counts and the published mark, then the three writes in order; their
// results do not stop anything.
void Inventory::publish()
{
    ctrl::kCount.set(&controllers_, 0, static_cast<int32_t>(controllerCount_));
    drive::kCount.set(&drives_, 0, static_cast<int32_t>(driveCount_));
    battery::kCount.set(&batteries_, 0, static_cast<int32_t>(batteryCount_));
    battery::kInventory.set(&batteries_, 0, 1);
    (void)Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, &controllers_, RTSHM_TAVO_INVENTORY_OFFSET, sizeof controllers_);
    (void)Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, &drives_, RTSHM_SASSATA_INVENTORY_OFFSET, sizeof drives_);
    (void)Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, &batteries_, RTSHM_BATTERY_INVENTORY_OFFSET, sizeof batteries_);
}

}  // namespace

extern "C" {

int32_t RTSHM_UpdateSharedMem(void)
{
    RT_TRACE(4, "--> %s", __func__);
    RT_TRACE(6, "ControllerStruct %d PDStruct %d BatteryStruct %d", static_cast<int>(sizeof(sVOXTavoInventory)),
             static_cast<int>(sizeof(sVOXSASSATAInventory)), static_cast<int>(sizeof(sVOXTAVOBatteryInventory)));
    sVOXTAVODrivePolling polling{};
    bool pollingDisabled = false;  // a flag that cannot be read leaves polling on
    if (RTSHM_ReadSharedThermalPolling(&polling) != 0) {
        RT_TRACE(2, "Unable to read Thermal flag from  Shared memeory");
    } else {
        pollingDisabled = (polling.u8DisableDrivePolling & RTSHM_DRIVE_POLLING_DISABLED) != 0;
        RT_TRACE(2, "TermalPollingState.u8DisableDrivePolling %d ", pollingDisabled ? 1 : 0);
    }
    // Readers see empty tables while the images are built.
    (void)RTSHM_InitPartialSharedMem();

    Inventory inventory(pollingDisabled);
    for (uint32_t eid = 0; eid <= kLastEid && !inventory.full(); ++eid) {
        inventory.add_controller(eid);
    }
    inventory.publish();
    RTSHM_DumpSharedMem();
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

}  // extern "C"

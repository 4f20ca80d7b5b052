// Steps that fill the object cache as the service's poller does: controller
// discovery at the start, poll passes, and single disks that come, go or
// change. Records are built as the controller layer hands them over, deep
// copied with the library's copy functions and stored under the cache lock;
// whatever a store replaces is released.
#include <cstdio>
#include <set>
#include <string>

#include "demo.h"
#include "rtvox/rt_dup.h"
#include "rtvox/rt_shm.h"
#include "simulation.h"

namespace rtvoxctl::sim {

std::wstring wide(const std::string &text)
{
    std::wstring result;
    for (const char c : text) {
        result += static_cast<wchar_t>(static_cast<unsigned char>(c));
    }
    return result;
}

namespace {

constexpr uint32_t kBatteryObject = 5;
constexpr uint8_t kSolidStateMedia = 0x02;  // bit 1 of the disk record's media flags
constexpr uint16_t kNoEnclosure = 0xFFFF;   // a directly attached drive

// What the controller reports for a drive besides its record, kept in its cache entry.
void fill_disk_entry(RtCachePdEntry &entry, const Controller &controller, const PhysicalDisk &disk)
{
    const Enclosure *enclosure = disk.enclosure ? controller.enclosure(*disk.enclosure) : nullptr;
    entry.u16PDStatus = disk.status;
    entry.u8Temp = disk.temperature;
    entry.u8Impedance = disk.impedance;
    entry.u8EnclType = enclosure != nullptr ? enclosure->type : 0;
    entry.u8Multipath = disk.multipath_primary ? 1 : 0;
    entry.u16MultipathPrimary = disk.multipath_primary ? static_cast<uint16_t>(*disk.multipath_primary) : 0;
}

// The controller layer's descriptions are constant texts that outlive every
// record (copies share them); these live as long as the process. NULL for "".
const wchar_t *constant_text(const std::string &text)
{
    static std::set<std::wstring> texts;
    return text.empty() ? nullptr : texts.insert(wide(text)).first->c_str();
}

// The controller's PCI information block, as the controller layer reports it.
RtCachePciInfo *make_pci_info(const Pci &pci)
{
    auto *info = static_cast<RtCachePciInfo *>(rtvox_alloc(sizeof(RtCachePciInfo)));
    if (info != nullptr) {
        *info = RtCachePciInfo{
            pci.vendor_id, pci.device_id, pci.subvendor_id, pci.subdevice_id, {pci.location[0], pci.location[1]}, {}};
    }
    return info;
}

// A 512-byte record of the controller layer with its head filled in; the
// texts live in `name` and `fqdd` for as long as the source is used.
template <typename Record>
Record source_record(uint32_t objType, std::wstring &name, std::wstring &fqdd)
{
    Record source{};
    source.objType = objType;
    source.NAME = name.data();
    source.hdr.VERSION = 1;
    source.hdr.FQDD = fqdd.data();
    return source;
}

RtAdapter *copy_adapter(const Controller &controller)
{
    std::wstring name = wide(controller.name);
    std::wstring fqdd = wide(controller.fqdd);
    auto source = source_record<RtAdapter>(RTRAID_OBJTYPE_ADAPTER, name, fqdd);
    source.u32CtrlTemp = controller.temperature;
    source.u32BatteryTemp = controller.battery ? controller.battery->temperature : kNotReported32;
    source.u64CtrlAddress1 = controller.addresses[0];
    source.u64CtrlAddress2 = controller.addresses[1];
    source.u8AdapterFlag = controller.flag;
    source.u8ThermalPDPollDisable = controller.thermal_poll_disable;
    return DupAdapter(&source);
}

RtBattery *copy_battery(const Battery &battery)
{
    std::wstring name = wide(battery.name);
    std::wstring fqdd = wide(battery.fqdd);
    auto source = source_record<RtBattery>(kBatteryObject, name, fqdd);
    source.state = battery.state;
    return rtraid_DupBattery(&source);
}

RtPhysicalDisk *copy_disk(const PhysicalDisk &disk)
{
    std::wstring name = wide(disk.name);
    std::wstring fqdd = wide(disk.fqdd);
    char keyId[RTRAID_KEYID_SIZE] = {};
    std::snprintf(keyId, sizeof keyId, "%s", disk.fqdd.c_str());
    auto source = source_record<RtPhysicalDisk>(RTRAID_OBJTYPE_PHYSICALDISK, name, fqdd);
    source.id = disk.key;
    source.Size = disk.size_gib << 30;
    source.state = disk.state;
    source.Slot = disk.slot;
    source.Hotspare = disk.hotspare ? 1 : 0;
    source.u8BusProtocol = disk.protocol;
    source.u8MediaFlags = disk.ssd ? kSolidStateMedia : 0;
    source.u8FormFactor = disk.form_factor;
    source.u16EnclDeviceID = disk.enclosure ? static_cast<uint16_t>(*disk.enclosure) : kNoEnclosure;
    source.u32NominalRPM = disk.rpm;
    source.pDescription = constant_text(disk.description);
    source.keyId = keyId;
    auto *copy = static_cast<RtPhysicalDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    if (copy != nullptr) {
        rtraid_dupPD(&source, copy);
    }
    return copy;
}

RtVirtualDisk *copy_virtual_disk(const VirtualDisk &vd)
{
    std::wstring name = wide(vd.name);
    std::wstring fqdd = wide(vd.fqdd);
    std::vector<int32_t> targets(vd.members.begin(), vd.members.end());
    auto source = source_record<RtVirtualDisk>(RTRAID_OBJTYPE_LOGICALDISK, name, fqdd);
    source.Size = vd.size_gib << 30;
    source.targetCount = static_cast<uint32_t>(targets.size());
    source.targetIDs = targets.data();
    auto *copy = static_cast<RtVirtualDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    if (copy != nullptr) {
        rtraid_DupVD(&source, copy);
    }
    return copy;
}

template <typename Record, typename Copy>
Record *copy_into_new(Copy copy, uint32_t objType, const std::string &name, const std::string &fqdd)
{
    std::wstring wide_name = wide(name);
    std::wstring wide_fqdd = wide(fqdd);
    const auto source = source_record<Record>(objType, wide_name, wide_fqdd);
    auto *record = static_cast<Record *>(rtvox_alloc(RTRAID_RECORD_SIZE));
    if (record != nullptr) {
        copy(&source, record);
    }
    return record;
}

// The element records of an enclosure, group by group: EMMs, fans, power supplies, temperature probes.
struct ElementGroup {
    const char *name;
    const char *fqdd;
    uint32_t objType;
    int32_t (*copy)(const RtRecord *, RtRecord *);
};
const ElementGroup kElementGroups[] = {{"EMM", "EMM.Slot.", 7, rtraid_dupEMM},
                                       {"Fan", "Fan.Embedded.", 8, rtraid_dupFAN},
                                       {"Power Supply", "PSU.Slot.", 8, rtraid_dupPSU},
                                       {"Temperature Probe", "TempSensor.Embedded.", 8, rtraid_dupTEMPPROBE}};

RtRecord **element_slots(RtCachePdEntry &object, size_t group)
{
    RtRecord **slots[] = {object.apEMM, object.apFan, object.apPSU, object.apTempProbe};
    return slots[group];
}

constexpr size_t kElementSlots[] = {RTCACHE_ENCL_EMM_SLOTS, RTCACHE_ENCL_FAN_SLOTS, RTCACHE_ENCL_PSU_SLOTS,
                                    RTCACHE_ENCL_TEMPPROBE_SLOTS};

void release_cached(RtCacheKeyType type, void *object)
{
    if (type == RTCACHE_KEY_PD) {
        release_pd_node(object);
    } else {
        rtcache_FreeRMObjects(object, 1);
    }
}

uint8_t eid_type(ControllerKind kind)
{
    switch (kind) {
        case ControllerKind::Tavo:
            return RTCACHE_EIDTYPE_TAVO;
        case ControllerKind::Hba:
            return RTCACHE_EIDTYPE_HBA;
        case ControllerKind::Miru:
            break;
    }
    return RTCACHE_EIDTYPE_MIRU;
}

}  // namespace

void Simulation::discover(StepReport &report)
{
    for (size_t slot = 0; slot < scenario_.controllers.size(); ++slot) {
        const Controller &c = scenario_.controllers[slot];
        uint8_t eid = c.eid;
        {
            const CacheLock lock(report);
            if (lock.held()) {
                called(report, "rtcache_SetCachedObject",
                       rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, static_cast<uint32_t>(slot), &eid));
            }
        }
        called(report, "rtcache_SetStorageEIDType", rtcache_SetStorageEIDType(eid, eid_type(c.kind)));
        called(report, "rtcache_SetModularId", rtcache_SetModularId(eid, c.modular_id));
        called(report, "rtcache_SetStorageEIDStatus",
               rtcache_SetStorageEIDStatus(eid, StorageEIDStatus{c.status[0], c.status[1]}));
        report.line("registry slot %zu: EID %u, %s, modular id %u, status %u-%u", slot, eid,
                    controller_kind_name(c.kind), c.modular_id, c.status[0], c.status[1]);
    }
}

void Simulation::poll(const Step &step, StepReport &report)
{
    for (const uint8_t eid : std::get<PollStep>(step.body).controllers) {
        const CacheLock lock(report);
        if (!lock.held()) {
            report.line("EID %u: the cache lock could not be taken", eid);
            continue;
        }
        poll_controller(live(eid), report);
    }
}

void Simulation::poll_controller(const Controller &c, StepReport &report)
{
    store_node(c, report);
    std::set<uint32_t> filled;
    for (const Enclosure &enclosure : c.enclosures) {
        if (store(report, RTCACHE_KEY_PD, c.eid, enclosure.key, make_enclosure_node(enclosure))) {
            filled.insert(enclosure.key);
        }
    }
    for (const PhysicalDisk &disk : c.disks) {
        if (put_disk_record(report, c, disk)) {
            filled.insert(disk.key);
        }
    }
    size_t vanished = 0;
    for (const uint32_t key : stored_[c.eid]) {
        if (!filled.contains(key) && store(report, RTCACHE_KEY_PD, c.eid, key, nullptr)) {
            ++vanished;
        }
    }
    stored_[c.eid] = filled;
    for (const VirtualDisk &vd : c.virtual_disks) {
        store(report, RTCACHE_KEY_VD, c.eid, vd.key, copy_virtual_disk(vd));
    }
    report.line(
        "EID %u: adapter %s%s copied and stored with enclosures: %zu, disks: %zu, virtual disks: %zu; "
        "vanished and released: %zu",
        c.eid, c.fqdd.c_str(), c.battery ? " and its battery" : "", c.enclosures.size(), c.disks.size(),
        c.virtual_disks.size(), vanished);
}

void Simulation::store_node(const Controller &c, StepReport &report)
{
    void *object = nullptr;
    called(report, "rtcache_GetCachedObject", rtcache_GetCachedObject(RTCACHE_KEY_ADAPTER, c.eid, c.eid, &object));
    auto *node = static_cast<RtCacheCtrlNode *>(object);
    if (node == nullptr) {
        node = static_cast<RtCacheCtrlNode *>(rtvox_alloc(RTCACHE_CTRL_NODE_SIZE));
        if (node == nullptr) {
            return;
        }
        node->u32NodeType = c.kind == ControllerKind::Hba ? RTCACHE_NODE_HBA : RTCACHE_NODE_CONTROLLER;
        if (called(report, "rtcache_SetCachedObject",
                   rtcache_SetCachedObject(RTCACHE_KEY_ADAPTER, c.eid, c.eid, node)) != 0) {
            rtvox_free(node);
            return;
        }
    }
    RtAdapter *adapter = node->pAdapter;
    RtBattery *battery = node->pBattery;
    node->pAdapter = copy_adapter(c);
    node->pBattery = c.battery ? copy_battery(*c.battery) : nullptr;
    rtvox_free(node->pPciInfo);
    node->pPciInfo = make_pci_info(c.pci);
    called(report, "rtcache_FreeRMObjects", rtcache_FreeRMObjects(adapter, 1));
    called(report, "rtcache_FreeRMObjects", rtcache_FreeRMObjects(battery, 1));
}

bool Simulation::store(StepReport &report, RtCacheKeyType type, uint8_t eid, uint32_t key, void *fresh)
{
    void *old = nullptr;
    called(report, "rtcache_GetCachedObject", rtcache_GetCachedObject(type, eid, key, &old));
    if (called(report, "rtcache_SetCachedObject", rtcache_SetCachedObject(type, eid, key, fresh)) != 0) {
        release_cached(type, fresh);  // not stored: still ours
        return false;
    }
    if (old != fresh) {
        release_cached(type, old);
    }
    return true;
}

bool Simulation::put_disk_record(StepReport &report, const Controller &c, const PhysicalDisk &disk)
{
    const uint8_t eid = c.eid;
    const uint32_t key = disk.key;
    RtPhysicalDisk *record = copy_disk(disk);
    // A disk keeps its node and cache entry across polls: a new copy of its
    // record is swapped into the entry and the old copy released.
    void *object = nullptr;
    called(report, "rtcache_GetCachedObject", rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &object));
    auto *node = static_cast<RtCachePdNode *>(object);
    if (node != nullptr && node->objType == RTCACHE_PDNODE_PHYSICALDISK && node->enclObj != nullptr) {
        RtPhysicalDisk *old = node->enclObj->enclType.physicalDisk.Obj;
        node->enclObj->enclType.physicalDisk.Obj = record;
        fill_disk_entry(*node->enclObj, c, disk);
        called(report, "rtcache_FreeRMObjects", rtcache_FreeRMObjects(old, 1));
        return true;
    }
    RtCachePdNode *fresh = record != nullptr ? new_pd_node(RTCACHE_PDNODE_PHYSICALDISK, record) : nullptr;
    if (fresh == nullptr) {
        rtcache_FreeRMObjects(record, 1);
        return false;
    }
    if (fresh->enclObj != nullptr) {
        fill_disk_entry(*fresh->enclObj, c, disk);
    }
    return store(report, RTCACHE_KEY_PD, eid, key, fresh);
}

RtCachePdNode *Simulation::make_enclosure_node(const Enclosure &enclosure)
{
    RtEnclosure *record =
        copy_into_new<RtEnclosure>(rtraid_dupEnclosure, RTRAID_OBJTYPE_ENCLOSURE, enclosure.name, enclosure.fqdd);
    if (record != nullptr) {
        record->Position = enclosure.position;
        record->u8BayID = enclosure.bay_id;
    }
    RtCachePdNode *node = new_pd_node(enclosure.backplane ? RTCACHE_PDNODE_BACKPLANE : RTCACHE_PDNODE_EXTERNAL, record);
    if (node == nullptr) {
        rtcache_FreeRMObjects(record, 1);
        return nullptr;
    }
    node->enclObj->u8IsBackplane = enclosure.backplane ? 1 : 0;
    node->enclObj->u8EnclType = enclosure.type;
    for (size_t group = 0; group < std::size(kElementGroups); ++group) {
        const ElementGroup &g = kElementGroups[group];
        for (uint8_t n = 0; n < enclosure.elements[group] && n < kElementSlots[group]; ++n) {
            const std::string number = std::to_string(n + 1);
            element_slots(*node->enclObj, group)[n] = copy_into_new<RtRecord>(
                g.copy, g.objType, std::string(g.name) + " " + number, g.fqdd + number + ":" + enclosure.fqdd);
        }
    }
    return node;
}

void Simulation::put_disk(const Controller &c, const PhysicalDisk &disk, const char *what, StepReport &report)
{
    const CacheLock lock(report);
    if (!lock.held()) {
        report.line("EID %u: the cache lock could not be taken", c.eid);
        return;
    }
    if (put_disk_record(report, c, disk)) {
        stored_[c.eid].insert(disk.key);
        report.line("EID %u: disk %u %s: %s copied and stored", c.eid, disk.key, what, disk.fqdd.c_str());
    } else {
        report.line("EID %u: disk %u %s, but the cache did not take its copy", c.eid, disk.key, what);
    }
}

void Simulation::disk_added(const Step &step, StepReport &report)
{
    const auto &added = std::get<DiskAddedStep>(step.body);
    Controller &c = live(added.eid);
    c.disks.push_back(added.disk);
    put_disk(c, added.disk, "added", report);
}

void Simulation::disk_changed(const Step &step, StepReport &report)
{
    const auto &changed = std::get<DiskChangedStep>(step.body);
    Controller &c = live(changed.eid);
    for (PhysicalDisk &disk : c.disks) {
        if (disk.key == changed.disk.key) {
            disk = changed.disk;
        }
    }
    put_disk(c, changed.disk, "changed", report);
}

void Simulation::disk_removed(const Step &step, StepReport &report)
{
    const auto &removed = std::get<DiskRemovedStep>(step.body);
    Controller &c = live(removed.eid);
    std::erase_if(c.disks, [&](const PhysicalDisk &disk) { return disk.key == removed.key; });
    const CacheLock lock(report);
    if (lock.held() && store(report, RTCACHE_KEY_PD, c.eid, removed.key, nullptr)) {
        stored_[c.eid].erase(removed.key);
        report.line("EID %u: disk %u removed: its slot emptied and its record released", c.eid, removed.key);
    }
}

void Simulation::shm_update(const Step &, StepReport &report)
{
    // The service publishes after a poll pass, with the cache lock held.
    const CacheLock lock(report);
    if (!lock.held()) {
        report.line("the cache lock could not be taken: nothing published");
        return;
    }
    called(report, "RTSHM_UpdateSharedMem", RTSHM_UpdateSharedMem());
    report.line("the cache's controllers, drives and batteries published to region %u", RTSHM_REGION_INVENTORY);
}

}  // namespace rtvoxctl::sim

#include "topology.h"

#include <algorithm>
#include <cinttypes>
#include <set>

#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"

namespace rtvoxctl {
namespace {

std::string narrow(const wchar_t *text)
{
    std::string result;
    for (; text != nullptr && *text != 0; ++text) {
        result += *text < 0x80 ? static_cast<char>(*text) : '?';
    }
    return result;
}

std::string eid_type_name(uint8_t type)
{
    switch (type) {
        case RTCACHE_EIDTYPE_TAVO:
            return "TAVO";
        case RTCACHE_EIDTYPE_HBA:
            return "HBA";
        case RTCACHE_EIDTYPE_MIRU:
            return "MIRU";
        case RTCACHE_EIDTYPE_PCIESSD:
            return "PCIe SSD";
        case RTCACHE_EIDTYPE_NVME:
            return "NVMe";
        default:
            return "type " + std::to_string(type);
    }
}

std::string format(const char *pattern, auto... values)
{
    char text[160];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

// Whatever FQDD follows the first part of `fqdd`: "Disk.Bay.1:Enclosure.X" -> "Enclosure.X".
std::string parent_fqdd(const std::string &fqdd)
{
    const size_t colon = fqdd.find(':');
    return colon == std::string::npos ? "" : fqdd.substr(colon + 1);
}

// Adds `child` below the node of `nodes` whose FQDD its own FQDD nests, or to `nodes` itself.
void attach(std::vector<TopologyNode> &nodes, TopologyNode child)
{
    const std::string parent = parent_fqdd(child.fqdd);
    for (TopologyNode &node : nodes) {
        if (!parent.empty() && node.fqdd == parent) {
            node.children.push_back(std::move(child));
            return;
        }
    }
    nodes.push_back(std::move(child));
}

void *cached(RtCacheKeyType type, uint32_t eid, uint32_t key)
{
    void *object = nullptr;
    return rtcache_GetCachedObject(type, eid, key, &object) == 0 ? object : nullptr;
}

TopologyNode read_controller(uint8_t eid, const StorageEIDInfoEntry &info)
{
    TopologyNode controller{
        "controller EID " + std::to_string(eid) + " (" + eid_type_name(info.u8TypeAndModularId & 0x0F) + ")",
        "",
        format("status %u-%u, modular id %u", info.u8StatusA, info.u8StatusB, info.u8TypeAndModularId >> 4),
        {}};
    if (const auto *node = static_cast<const RtCacheCtrlNode *>(cached(RTCACHE_KEY_ADAPTER, eid, eid))) {
        controller.fqdd = node->pAdapter != nullptr ? narrow(node->pAdapter->hdr.FQDD) : "";
        if (node->pBattery != nullptr) {
            controller.children.push_back({"battery", narrow(node->pBattery->hdr.FQDD), "", {}});
        }
    }
    std::vector<TopologyNode> enclosures;
    std::vector<TopologyNode> disks;
    for (uint32_t key = 0; key < max_physicaldevices; ++key) {
        const void *object = cached(RTCACHE_KEY_PD, eid, key);
        if (object == nullptr) {
            continue;
        }
        const auto *node = static_cast<const RtCachePdNode *>(object);
        const uint32_t objType = node->objType;
        const RtCachePdEntry *entry = node->enclObj;
        if (entry == nullptr) {
            continue;
        }
        if (objType == RTCACHE_PDNODE_BACKPLANE || objType == RTCACHE_PDNODE_EXTERNAL) {
            const RtEnclosure *record = entry->enclType.backPlane.Obj;
            enclosures.push_back(
                {(objType == RTCACHE_PDNODE_BACKPLANE ? "backplane " : "enclosure ") + std::to_string(key),
                 record != nullptr ? narrow(record->hdr.FQDD) : "",
                 record != nullptr ? format("position %u", record->Position) : "",
                 {}});
        } else if (objType == RTCACHE_PDNODE_PHYSICALDISK && entry->enclType.physicalDisk.Obj != nullptr) {
            const RtPhysicalDisk *disk = entry->enclType.physicalDisk.Obj;
            const uint64_t state = disk->state;
            disks.push_back({"disk " + std::to_string(key),
                             narrow(disk->hdr.FQDD),
                             format("state 0x%" PRIx64 "%s", state, disk->Hotspare != 0 ? ", hot spare" : ""),
                             {}});
        }
    }
    for (TopologyNode &disk : disks) {
        attach(enclosures, std::move(disk));
    }
    for (TopologyNode &node : enclosures) {
        controller.children.push_back(std::move(node));
    }
    for (uint32_t key = 0; key < max_logicaldevices; ++key) {
        const auto *vd = static_cast<const RtVirtualDisk *>(cached(RTCACHE_KEY_VD, eid, key));
        if (vd == nullptr) {
            continue;
        }
        std::string members;
        for (uint32_t i = 0; vd->targetIDs != nullptr && i < vd->targetCount; ++i) {
            members += (members.empty() ? "members " : ", ") + std::to_string(vd->targetIDs[i]);
        }
        controller.children.push_back({"virtual disk " + std::to_string(key), narrow(vd->hdr.FQDD), members, {}});
    }
    return controller;
}

std::string nvme_slot_state(const RtShmNVMeSlot &slot)
{
    if (slot.u8DriveTech == 0 && slot.u16DriveState == 0) {
        return "empty";
    }
    std::string state =
        format("drive %u, state 0x%04X, technology %u", slot.u8DriveId, slot.u16DriveState, slot.u8DriveTech);
    if (slot.u8ExtenderSlot != 0) {
        state += format(", extender slot %u", slot.u8ExtenderSlot);
    }
    return slot.u8EID != 0 ? state + format(", EID %u", slot.u8EID) : state;
}

// The slots of an NVMe bay as the backplane tables hold them: every slot the
// bay counts, and any other that holds a drive.
std::vector<TopologyNode> nvme_slots(uint8_t bay)
{
    std::vector<TopologyNode> slots;
    for (uint32_t s = 0; s < RTSHM_NVME_SLOTS; ++s) {
        const RtShmNVMeSlot &slot = sNVMeSSDBPInfo.slot[bay][s];
        if (s < sNVMeSSDBPInfo.bay[bay].u8SlotCount || slot.u8DriveTech != 0 || slot.u16DriveState != 0) {
            slots.push_back({"NVMe slot " + std::to_string(s), "", nvme_slot_state(slot), {}});
        }
    }
    return slots;
}

// PCIe SSD slots as region 20 describes them, grouped by bay.
void read_pciessd_slots(std::vector<TopologyNode> &roots)
{
    RtShmPcieSsdBp area{};
    if (Vorn_shm_memread(RTSHM_PCIESSD_BP_REGION, &area, 0, sizeof area) != 0) {
        return;
    }
    std::vector<TopologyNode> bays;
    for (uint32_t g = 0; g < area.u8SlotCount && g < RTSHM_PCIESSD_SLOTS; ++g) {
        const RtShmPcieSsdSlot &slot = area.asSlot[g];
        const std::string label = "PCIe SSD bay " + std::to_string(slot.u8BayID);
        auto bay = std::find_if(bays.begin(), bays.end(), [&](const TopologyNode &n) { return n.label == label; });
        if (bay == bays.end()) {
            bays.push_back({label, "", "", {}});
            bay = bays.end() - 1;
        }
        char *fqdd = rtvox_GetPCIeSSDFQDD(g);
        bay->children.push_back(
            {"PCIe SSD slot " + std::to_string(g),
             fqdd != nullptr ? fqdd : "",
             format("slot %u in the bay, BP type %u, %s, drive status 0x%04X", slot.u8SlotNumInBay, slot.u8BPType,
                    slot.u8DrivePresence != 0 ? "present" : "absent", area.asDriveStatus[g].u16DriveStatus),
             {}});
        rtvox_free(fqdd);
    }
    roots.insert(roots.end(), bays.begin(), bays.end());
}

void read_nvme(std::vector<TopologyNode> &roots)
{
    std::vector<TopologyNode> nodes;
    // The tables themselves rather than the fetch, whose trace lines would
    // stand in the report of the step that shows this.
    for (uint32_t key = 0; key < RTCACHE_EXTNDR_SLOTS; ++key) {
        if (const RtCacheExtender *extender = cache_Extndrs[key]) {
            nodes.push_back({"PCIe extender " + std::to_string(key),
                             narrow(extender->pFQDD),
                             format("bay %u", extender->u8BayID),
                             {}});
        }
    }
    std::set<uint8_t> shown;
    for (uint32_t key = 0; key < RTCACHE_BKPLANE_SLOTS; ++key) {
        if (const RtCacheBackplane *bp = cache_Bkplanes[key]) {
            const RtEnclosure *enclosure = bp->pEnclosure;
            TopologyNode node{"PCIe SSD backplane " + std::to_string(key),
                              enclosure != nullptr ? narrow(enclosure->hdr.FQDD) : "",
                              format("%s, first NVMe slot %u, %u slots, drive status 0x%04X",
                                     enclosure != nullptr ? narrow(enclosure->NAME).c_str() : "no name",
                                     bp->u8SlotNumInBay, bp->u8SlotCount, bp->au16DriveStatus),
                              {}};
            if (key < RTSHM_NVME_BAYS) {
                node.children = nvme_slots(static_cast<uint8_t>(key));
                shown.insert(static_cast<uint8_t>(key));
            }
            attach(nodes, std::move(node));
        }
    }
    // Bays the backplane reports that are not inventoried (yet).
    for (uint8_t b = 0; b < RTSHM_NVME_BAYS; ++b) {
        const RtShmNVMeBay &bay = sNVMeSSDBPInfo.bay[b];
        if (bay.u8SlotCount != 0 && !shown.contains(b)) {
            nodes.push_back(
                {"NVMe bay " + std::to_string(b), "",
                 format("%u slots, firmware %x.%02x, not inventoried", bay.u8SlotCount, bay.u8FwMajor, bay.u8FwMinor),
                 nvme_slots(b)});
        }
    }
    roots.insert(roots.end(), nodes.begin(), nodes.end());
}

void render(const TopologyNode &node, const std::string &lead, const std::string &branch,
            std::vector<std::string> &lines)
{
    std::string line = lead + branch + node.label;
    if (!node.fqdd.empty()) {
        line += "  " + node.fqdd;
    }
    if (!node.state.empty()) {
        line += "  [" + node.state + "]";
    }
    lines.push_back(std::move(line));
    const std::string below = lead + (branch.empty() ? "" : branch == "`-- " ? "    " : "|   ");
    for (size_t i = 0; i < node.children.size(); ++i) {
        render(node.children[i], below, i + 1 == node.children.size() ? "`-- " : "|-- ", lines);
    }
}

std::string dot_text(const std::string &text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

int print_dot_node(const TopologyNode &node, int &next, FILE *out)
{
    const int id = next++;
    std::string label = dot_text(node.label);
    for (const std::string &part : {node.fqdd, node.state}) {
        if (!part.empty()) {
            label += "\\n" + dot_text(part);
        }
    }
    std::fprintf(out, "  n%d [label=\"%s\"];\n", id, label.c_str());
    for (const TopologyNode &child : node.children) {
        const int child_id = print_dot_node(child, next, out);
        std::fprintf(out, "  n%d -> n%d;\n", id, child_id);
    }
    return id;
}

}  // namespace

std::vector<TopologyNode> read_topology()
{
    std::vector<TopologyNode> roots;
    StorageEIDInfo registry{};
    if (rtcache_GetStorageEIDs(&registry) != 0 || registry.pEIDs == nullptr || rtcache_GetLock() != 0) {
        return roots;
    }
    for (uint32_t slot = 0; slot < registry.u8EIDCount && slot < max_adapters; ++slot) {
        if (registry.pEIDs[slot] != RTCACHE_EID_NONE) {
            roots.push_back(read_controller(registry.pEIDs[slot], registry.pEIDInfo[slot]));
        }
    }
    read_nvme(roots);
    SMMutexUnLock(mutexRtCache);
    read_pciessd_slots(roots);
    return roots;
}

std::vector<TopologyNode> read_nvme_topology()
{
    std::vector<TopologyNode> roots;
    if (rtcache_GetLock() == 0) {
        read_nvme(roots);
        SMMutexUnLock(mutexRtCache);
    }
    return roots;
}

std::vector<std::string> topology_lines(const std::vector<TopologyNode> &roots)
{
    std::vector<std::string> lines;
    for (const TopologyNode &root : roots) {
        render(root, "", "", lines);
    }
    return lines;
}

void print_topology_text(const std::vector<TopologyNode> &roots, FILE *out)
{
    if (roots.empty()) {
        std::fputs("the cache holds no storage objects\n", out);
    }
    for (const std::string &line : topology_lines(roots)) {
        std::fprintf(out, "%s\n", line.c_str());
    }
}

void print_topology_dot(const std::vector<TopologyNode> &roots, FILE *out)
{
    std::fputs("digraph rtvox {\n  rankdir=LR;\n  node [shape=box, fontname=\"monospace\", fontsize=10];\n", out);
    int next = 0;
    for (const TopologyNode &root : roots) {
        print_dot_node(root, next, out);
    }
    std::fputs("}\n", out);
}

}  // namespace rtvoxctl

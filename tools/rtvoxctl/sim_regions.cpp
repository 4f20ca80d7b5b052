#include "sim_regions.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <cstdio>

#include "rtvox/rt_shm.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl::sim {
namespace {

using Format = RegionField::Format;

constexpr uint32_t kInventory = 3;
constexpr uint32_t kPolling = 55;
constexpr uint32_t kPcieSsd = 20;
constexpr uint32_t kFru = 26;
constexpr uint32_t kFruDirectory = 15;
constexpr uint32_t kRegions[] = {kInventory, kPolling, kPcieSsd, kFru, kFruDirectory};

// Region 3 holds three tables end to end (controllers, drives, batteries);
// their fields take the names and offsets of the tables' structs.
#define SIM_COUNT(area, Table, base) \
    single(area ".s32Count", kInventory, (base) + offsetof(Table, s32Count), 4, Format::Signed)
#define SIM_ARRAY(area, Table, base, field)                                                       \
    array(area "." #field, kInventory, (base) + offsetof(Table, field), sizeof(Table{}.field[0]), \
          sizeof(Table{}.field) / sizeof(Table{}.field[0]))

RegionField array(const char *name, uint32_t region, uint32_t offset, uint16_t size, uint16_t count,
                  uint16_t stride = 0)
{
    return {name, region, offset, size, count, stride != 0 ? stride : size, Format::Unsigned};
}

RegionField single(const char *name, uint32_t region, uint32_t offset, uint16_t size, Format format = Format::Unsigned)
{
    return {name, region, offset, size, 1, size, format};
}

std::vector<RegionField> make_fields()
{
    return {
        SIM_COUNT("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au8PCISlot),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au32Temp),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au32BatteryTemp),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au32PCIVendorID),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au32PCIDeviceID),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au32PCISubVendorID),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au32PCISubDeviceID),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au8CardLocation),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au64CtrlAddress1),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au8CtrlKind),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au8AdapterFlag),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, thermalPDPollDisable),
        SIM_ARRAY("ctrl", sVOXTavoInventory, RTSHM_TAVO_INVENTORY_OFFSET, au64CtrlAddress2),
        SIM_COUNT("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8DriveBayID),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8DriveOccupiedSlot),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8DriveProtocolType),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8DriveMediaType),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8DriveFormFactor),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8Temp),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au32NominalRPM),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8Reserved),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, pdShmStatus),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au16DriveCapacity),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8DriveImpendance),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8ChassisSlot),
        SIM_ARRAY("pd", sVOXSASSATAInventory, RTSHM_SASSATA_INVENTORY_OFFSET, au8EnclosureTyoe),
        SIM_COUNT("battery", sVOXTAVOBatteryInventory, RTSHM_BATTERY_INVENTORY_OFFSET),
        SIM_ARRAY("battery", sVOXTAVOBatteryInventory, RTSHM_BATTERY_INVENTORY_OFFSET, au8Slot),
        SIM_ARRAY("battery", sVOXTAVOBatteryInventory, RTSHM_BATTERY_INVENTORY_OFFSET, au8State),
        single("battery.rtvox_inventory", kInventory,
               RTSHM_BATTERY_INVENTORY_OFFSET + offsetof(sVOXTAVOBatteryInventory, rtvox_inventory), 4),
        single("polling.sVOXTAVODrivePolling", kPolling, 522, 4),
        single("ssd.u8SlotCount", kPcieSsd, 2, 1),
        single("ssd.u8Sequence", kPcieSsd, 6, 1),
        single("ssd.u8StatusCounter", kPcieSsd, 10, 1),
        array("ssd.slot.u8BayID", kPcieSsd, 14, 1, 32, 4),
        array("ssd.slot.u8SlotNumInBay", kPcieSsd, 15, 1, 32, 4),
        array("ssd.slot.u8BPType", kPcieSsd, 16, 1, 32, 4),
        array("ssd.slot.u8DrivePresence", kPcieSsd, 17, 1, 32, 4),
        array("ssd.status.u8BayID", kPcieSsd, 142, 1, 32, 4),
        array("ssd.status.u8SlotNum", kPcieSsd, 143, 1, 32, 4),
        array("ssd.status.u16DriveStatus", kPcieSsd, 144, 2, 32, 4),
        {"ssd.split", kPcieSsd, 285, 40, 1, 40, Format::Bytes},
        single("fru.u8FRUCounter", kFru, 0, 1),
        array("fru.bay.u8Slot", kFru, 4, 1, 32, 260),
        array("fru.bay.u8Present", kFru, 5, 1, 32, 260),
        array("fru.bay.u8Temp", kFru, 6, 1, 32, 260),
        array("fru.bay.u8Bay", kFru, 7, 1, 32, 260),
        {"fru.bay.data", kFru, 8, 256, 32, 260, Format::Bytes},
        array("fru.card.u8Slot", kFru, 8324, 1, 12, 260),
        array("fru.card.u8Present", kFru, 8325, 1, 12, 260),
        array("fru.card.u8Temp", kFru, 8326, 1, 12, 260),
        array("fru.card.u8Bay", kFru, 8327, 1, 12, 260),
        {"fru.card.data", kFru, 8328, 256, 12, 260, Format::Bytes},
        single("frudir.u16Count", kFruDirectory, 2, 2),
        array("frudir.u8PCIeSlotNo", kFruDirectory, 4, 1, 16, 8),
        array("frudir.u8Kind", kFruDirectory, 5, 1, 16, 8),
        array("frudir.u16Offset", kFruDirectory, 8, 2, 16, 8),
    };
}

const uint8_t *element(const Snapshot &snapshot, const RegionField &field, uint32_t index)
{
    const auto found = snapshot.find(field.region);
    const size_t offset = field.offset + size_t{index} * field.stride;
    if (found == snapshot.end() || offset + field.size > found->second.size()) {
        return nullptr;
    }
    return found->second.data() + offset;
}

int64_t decode(const RegionField &field, const uint8_t *bytes)
{
    uint64_t value = 0;
    for (int i = field.size - 1; i >= 0; --i) {
        value = (value << 8) | bytes[i];
    }
    if (field.format == Format::Signed && field.size < 8 && (value >> (8 * field.size - 1)) != 0) {
        value |= ~uint64_t{0} << (8 * field.size);
    }
    return static_cast<int64_t>(value);
}

std::string show(const RegionField &field, const uint8_t *bytes)
{
    if (field.format != Format::Bytes) {
        const int64_t value = decode(field, bytes);
        return field.format == Format::Signed ? std::to_string(value) : std::to_string(static_cast<uint64_t>(value));
    }
    const int shown = std::min<int>(field.size, 8);
    const std::string text = hex_bytes({bytes, bytes + shown});
    return field.size > shown ? text + " ... (" + std::to_string(field.size) + " bytes)" : text;
}

std::string element_name(const RegionField &field, uint32_t first, uint32_t last)
{
    if (field.count == 1) {
        return field.name;
    }
    const std::string range =
        first == last ? std::to_string(first) : std::to_string(first) + ".." + std::to_string(last);
    return std::string(field.name) + "[" + range + "]";
}

// Elements of one field that changed, runs of neighbours with the same old
// and new values told as one change.
void diff_field(const RegionField &field, const Snapshot &before, const Snapshot &after,
                std::vector<FieldChange> &changes)
{
    std::optional<FieldChange> run;
    uint32_t first = 0;
    uint32_t last = 0;
    auto flush = [&] {
        if (run) {
            run->name = element_name(field, first, last);
            changes.push_back(*run);
            run.reset();
        }
    };
    for (uint32_t i = 0; i < field.count; ++i) {
        const uint8_t *old_bytes = element(before, field, i);
        const uint8_t *new_bytes = element(after, field, i);
        if (old_bytes == nullptr || new_bytes == nullptr || std::equal(old_bytes, old_bytes + field.size, new_bytes)) {
            flush();
            continue;
        }
        FieldChange change{"", show(field, old_bytes), show(field, new_bytes)};
        if (run && last + 1 == i && run->before == change.before && run->after == change.after) {
            last = i;
            continue;
        }
        flush();
        run = change;
        first = last = i;
    }
    flush();
}

// Changed bytes of a region that no named field covers, as ranges.
void diff_uncovered(uint32_t region, const std::vector<uint8_t> &before, const std::vector<uint8_t> &after,
                    std::vector<FieldChange> &changes)
{
    std::vector<bool> covered(after.size(), false);
    for (const RegionField &field : region_fields()) {
        if (field.region != region) {
            continue;
        }
        for (uint32_t i = 0; i < field.count; ++i) {
            const size_t offset = field.offset + size_t{i} * field.stride;
            for (size_t b = offset; b < offset + field.size && b < covered.size(); ++b) {
                covered[b] = true;
            }
        }
    }
    const size_t size = std::min(before.size(), after.size());
    for (size_t b = 0; b < size;) {
        if (covered[b] || before[b] == after[b]) {
            ++b;
            continue;
        }
        size_t end = b;
        while (end + 1 < size && !covered[end + 1] && before[end + 1] != after[end + 1]) {
            ++end;
        }
        const size_t shown = std::min<size_t>(end - b + 1, 8);
        const std::string more = end - b + 1 > shown ? " ..." : "";
        changes.push_back({"region " + std::to_string(region) + " bytes " + std::to_string(b) +
                               (end > b ? ".." + std::to_string(end) : ""),
                           hex_bytes({before.begin() + b, before.begin() + b + shown}) + more,
                           hex_bytes({after.begin() + b, after.begin() + b + shown}) + more});
        b = end + 1;
    }
}

}  // namespace

const std::vector<RegionField> &region_fields()
{
    static const std::vector<RegionField> fields = make_fields();
    return fields;
}

std::optional<FieldRef> find_field(const std::string &name)
{
    const size_t bracket = name.find('[');
    const std::string base = name.substr(0, bracket);
    for (const RegionField &field : region_fields()) {
        if (base != field.name) {
            continue;
        }
        if (bracket == std::string::npos) {
            return field.count == 1 ? std::optional(FieldRef{&field, 0}) : std::nullopt;
        }
        unsigned index = 0;
        char close = 0;
        int consumed = 0;
        if (std::sscanf(name.c_str() + bracket, "[%u%c%n", &index, &close, &consumed) != 2 || close != ']' ||
            bracket + static_cast<size_t>(consumed) != name.size() || field.count == 1 || index >= field.count) {
            return std::nullopt;
        }
        return FieldRef{&field, index};
    }
    return std::nullopt;
}

Snapshot take_snapshot()
{
    Snapshot snapshot;
    for (const uint32_t region : kRegions) {
        const uint8_t *bytes = vornhost_shm_bytes(region);
        if (bytes != nullptr) {
            snapshot[region].assign(bytes, bytes + vornhost_shm_size(region));
        }
    }
    return snapshot;
}

int64_t field_value(const Snapshot &snapshot, const FieldRef &ref)
{
    const uint8_t *bytes = element(snapshot, *ref.field, ref.index);
    return bytes != nullptr && ref.field->format != Format::Bytes ? decode(*ref.field, bytes) : 0;
}

std::string hex_bytes(const std::vector<uint8_t> &bytes)
{
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%s%02x", text.empty() ? "" : " ", byte);
        text += digits;
    }
    return text;
}

std::vector<FieldChange> diff(const Snapshot &before, const Snapshot &after)
{
    std::vector<FieldChange> changes;
    for (const RegionField &field : region_fields()) {
        diff_field(field, before, after, changes);
    }
    for (const auto &[region, bytes] : after) {
        const auto old = before.find(region);
        if (old != before.end()) {
            diff_uncovered(region, old->second, bytes, changes);
        }
    }
    return changes;
}

}  // namespace rtvoxctl::sim

// Scenario loader: JSON in, the model of scenario.h out, or one message that
// names the file, the place (line and column for JSON syntax, the JSON
// pointer of the value otherwise) and what was expected there.
//
// Every object is read with the list of keys it admits, so an unknown key is
// reported before anything else of that object; values are checked for type
// and range as they are read; references (a disk's enclosure, a step's
// controller and disk keys) are checked against the hardware as the timeline
// leaves it at that step.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "rtvox/rt_cache.h"
#include "rtvox/rt_evtq.h"
#include "scenario.h"
#include "sim_regions.h"

namespace rtvoxctl::sim {
namespace {

using json = nlohmann::json;

// Thrown while reading; the loader adds the file name.
struct Failure {
    std::string place;
    std::string message;
};

[[noreturn]] void fail(const std::string &path, const std::string &message)
{
    throw Failure{path.empty() ? "/" : path, message};
}

std::string in_quotes(const std::string &text)
{
    return "\"" + (text.size() > 40 ? text.substr(0, 40) + "..." : text) + "\"";
}

std::string found(const json &value)
{
    switch (value.type()) {
        case json::value_t::string:
            return "the string " + in_quotes(value.get<std::string>());
        case json::value_t::array:
            return "an array";
        case json::value_t::object:
            return "an object";
        default:
            return value.dump();
    }
}

std::string join(const std::vector<std::string> &items)
{
    std::string text;
    for (const std::string &item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

std::string range(uint64_t min, uint64_t max)
{
    return "an integer from " + std::to_string(min) + " to " + std::to_string(max);
}

class Object;

// One JSON value and its place in the document.
class Value {
public:
    Value(const json &value, std::string path) : value_(&value), path_(std::move(path)) {}

    const std::string &path() const { return path_; }
    const json &raw() const { return *value_; }

    [[noreturn]] void expected(const std::string &what) const
    {
        fail(path_, "expected " + what + ", found " + found(*value_));
    }

    uint64_t uint(uint64_t min, uint64_t max) const
    {
        if (!value_->is_number_integer() || (!value_->is_number_unsigned() && value_->get<int64_t>() < 0)) {
            expected(range(min, max));
        }
        const uint64_t number = value_->get<uint64_t>();
        if (number < min || number > max) {
            expected(range(min, max));
        }
        return number;
    }

    int64_t sint(int64_t min, int64_t max) const
    {
        const std::string what = "an integer from " + std::to_string(min) + " to " + std::to_string(max);
        if (!value_->is_number_integer() ||
            (value_->is_number_unsigned() && value_->get<uint64_t>() > static_cast<uint64_t>(max))) {
            expected(what);
        }
        const int64_t number = value_->get<int64_t>();
        if (number < min || number > max) {
            expected(what);
        }
        return number;
    }

    std::string text() const
    {
        if (!value_->is_string()) {
            expected("a string");
        }
        return value_->get<std::string>();
    }

    bool boolean() const
    {
        if (!value_->is_boolean()) {
            expected("true or false");
        }
        return value_->get<bool>();
    }

    template <typename T>
    T pick(std::initializer_list<std::pair<const char *, T>> choices) const
    {
        std::vector<std::string> names;
        for (const auto &[name, choice] : choices) {
            if (value_->is_string() && value_->get<std::string>() == name) {
                return choice;
            }
            names.push_back(in_quotes(name));
        }
        expected("one of " + join(names));
    }

    std::vector<Value> items(size_t max) const
    {
        if (!value_->is_array()) {
            expected("an array");
        }
        if (value_->size() > max) {
            fail(path_,
                 "expected at most " + std::to_string(max) + " entries, found " + std::to_string(value_->size()));
        }
        std::vector<Value> items;
        for (size_t i = 0; i < value_->size(); ++i) {
            items.emplace_back((*value_)[i], path_ + "/" + std::to_string(i));
        }
        return items;
    }

    // An array of exactly `count` integers from 0 to max.
    std::vector<uint64_t> numbers(size_t count, uint64_t max) const
    {
        if (!value_->is_array() || value_->size() != count) {
            expected("an array of " + std::to_string(count) + " integers");
        }
        std::vector<uint64_t> numbers;
        for (const Value &item : items(count)) {
            numbers.push_back(item.uint(0, max));
        }
        return numbers;
    }

    // Bytes written as hex digits, spaces allowed: "01 04 08 00".
    std::vector<uint8_t> hex(size_t max) const
    {
        const std::string what = "hex bytes such as \"01 04 08 00\" (at most " + std::to_string(max) + ")";
        std::string digits;
        for (const char c : text()) {
            if (std::isxdigit(static_cast<unsigned char>(c))) {
                digits += c;
            } else if (c != ' ') {
                expected(what);
            }
        }
        if (digits.empty() || digits.size() % 2 != 0 || digits.size() / 2 > max) {
            expected(what);
        }
        std::vector<uint8_t> bytes;
        for (size_t i = 0; i < digits.size(); i += 2) {
            bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
        }
        return bytes;
    }

    Object object(std::vector<std::string> keys) const;

private:
    const json *value_;
    std::string path_;
};

// A JSON object read with the keys it admits.
class Object {
public:
    Object(const json &value, std::string path, std::vector<std::string> keys)
        : value_(&value), path_(std::move(path)), keys_(std::move(keys))
    {
        for (const auto &[key, item] : value_->items()) {
            if (std::find(keys_.begin(), keys_.end(), key) == keys_.end()) {
                fail(path_ + "/" + key, "unknown key; expected one of: " + join(keys_));
            }
        }
    }

    const std::string &path() const { return path_; }
    bool has(const char *key) const { return value_->contains(key); }

    std::optional<Value> get(const char *key) const
    {
        const auto found_item = value_->find(key);
        if (found_item == value_->end()) {
            return std::nullopt;
        }
        return Value(*found_item, path_ + "/" + key);
    }

    Value need(const char *key, const std::string &what) const
    {
        std::optional<Value> value = get(key);
        if (!value) {
            fail(path_, "missing key \"" + std::string(key) + "\" (" + what + ")");
        }
        return *value;
    }

    template <typename T>
    T num(const char *key, T fallback, T min = std::numeric_limits<T>::min(),
          T max = std::numeric_limits<T>::max()) const
    {
        const std::optional<Value> value = get(key);
        return value ? static_cast<T>(value->uint(min, max)) : fallback;
    }

    std::string text(const char *key, const std::string &fallback = {}) const
    {
        const std::optional<Value> value = get(key);
        return value ? value->text() : fallback;
    }

    bool flag(const char *key, bool fallback) const
    {
        const std::optional<Value> value = get(key);
        return value ? value->boolean() : fallback;
    }

    std::vector<Value> items(const char *key, size_t max) const
    {
        const std::optional<Value> value = get(key);
        return value ? value->items(max) : std::vector<Value>{};
    }

private:
    const json *value_;
    std::string path_;
    std::vector<std::string> keys_;
};

Object Value::object(std::vector<std::string> keys) const
{
    if (!value_->is_object()) {
        expected("an object");
    }
    return Object(*value_, path_, std::move(keys));
}

template <size_t N>
std::array<uint8_t, N> byte_array(const Object &object, const char *key)
{
    std::array<uint8_t, N> bytes{};
    if (const std::optional<Value> value = object.get(key)) {
        const std::vector<uint64_t> numbers = value->numbers(N, 255);
        std::copy(numbers.begin(), numbers.end(), bytes.begin());
    }
    return bytes;
}

// ---- hardware --------------------------------------------------------------------

const char *const kDiskKeys[] = {"key",      "slot",        "enclosure", "size_gib",          "media",
                                 "protocol", "form_factor", "rpm",       "temperature",       "status",
                                 "state",    "impedance",   "hotspare",  "multipath_primary", "name",
                                 "fqdd",     "description"};

std::vector<std::string> keys_of(std::initializer_list<const char *> keys)
{
    return {keys.begin(), keys.end()};
}

std::vector<std::string> disk_keys(bool with_key)
{
    std::vector<std::string> keys(std::begin(kDiskKeys), std::end(kDiskKeys));
    if (!with_key) {
        keys.erase(keys.begin());
    }
    return keys;
}

uint32_t disk_table_key(const Value &value)
{
    return static_cast<uint32_t>(value.uint(0, max_physicaldevices - 1));
}

bool table_key_used(const Controller &controller, uint32_t key)
{
    return controller.disk(key) != nullptr || controller.enclosure(key) != nullptr;
}

void check_enclosure_ref(const Controller &controller, const Value &value, uint32_t key)
{
    if (controller.enclosure(key) == nullptr) {
        value.expected("the key of an enclosure of controller " + std::to_string(controller.eid));
    }
}

void check_disk_ref(const Controller &controller, const Value &value, uint32_t key)
{
    if (controller.disk(key) == nullptr) {
        value.expected("the key of a disk of controller " + std::to_string(controller.eid));
    }
}

// A disk: every key defaults to `base`; a newly defined disk also gets its
// name and FQDD from its slot and enclosure when they are not given.
PhysicalDisk parse_disk(const Object &o, const Controller &controller, PhysicalDisk disk, bool defining)
{
    if (defining) {
        const Value key = o.need("key", range(0, max_physicaldevices - 1));
        disk.key = disk_table_key(key);
        if (table_key_used(controller, disk.key)) {
            key.expected("a key no other disk or enclosure of controller " + std::to_string(controller.eid) + " uses");
        }
        disk.slot = static_cast<uint8_t>(disk.key);
    }
    disk.slot = o.num<uint8_t>("slot", disk.slot);
    if (const std::optional<Value> enclosure = o.get("enclosure")) {
        disk.enclosure = disk_table_key(*enclosure);
        check_enclosure_ref(controller, *enclosure, *disk.enclosure);
    }
    disk.size_gib = o.num<uint64_t>("size_gib", disk.size_gib, 0, uint64_t{1} << 33);
    if (const std::optional<Value> media = o.get("media")) {
        disk.ssd = media->pick<bool>({{"hdd", false}, {"ssd", true}});
    }
    disk.protocol = o.num<uint8_t>("protocol", disk.protocol);
    disk.form_factor = o.num<uint8_t>("form_factor", disk.form_factor);
    disk.rpm = o.num<uint32_t>("rpm", disk.rpm);
    disk.temperature = o.num<uint8_t>("temperature", disk.temperature);
    disk.status = o.num<uint16_t>("status", disk.status);
    disk.state = o.num<uint64_t>("state", disk.state);
    disk.impedance = o.num<uint8_t>("impedance", disk.impedance);
    disk.hotspare = o.flag("hotspare", disk.hotspare);
    if (const std::optional<Value> primary = o.get("multipath_primary")) {
        disk.multipath_primary = disk_table_key(*primary);
    }
    disk.description = o.text("description", disk.description);
    if (defining) {
        const Enclosure *enclosure = disk.enclosure ? controller.enclosure(*disk.enclosure) : nullptr;
        const std::string slot = std::to_string(disk.slot);
        disk.fqdd = enclosure != nullptr ? "Disk.Bay." + slot + ":" + enclosure->fqdd
                                         : "Disk.Direct." + slot + "-" + slot + ":" + controller.fqdd;
        disk.name = "Physical Disk " + slot;
    }
    disk.name = o.text("name", disk.name);
    disk.fqdd = o.text("fqdd", disk.fqdd);
    return disk;
}

// A multipath primary given in `o` names this disk or another disk of the controller.
void check_multipath(const Controller &controller, const Object &o, const PhysicalDisk &disk)
{
    const std::optional<Value> primary = o.get("multipath_primary");
    if (primary && *disk.multipath_primary != disk.key) {
        check_disk_ref(controller, *primary, *disk.multipath_primary);
    }
}

Enclosure parse_enclosure(const Value &value, const Controller &controller)
{
    const Object o = value.object(keys_of({"key", "kind", "position", "connector", "bay_id", "type", "emms", "fans",
                                           "psus", "temperature_probes", "name", "fqdd"}));
    Enclosure enclosure;
    const Value key = o.need("key", range(0, max_physicaldevices - 1));
    enclosure.key = disk_table_key(key);
    if (table_key_used(controller, enclosure.key)) {
        key.expected("a key no other enclosure of controller " + std::to_string(controller.eid) + " uses");
    }
    if (const std::optional<Value> kind = o.get("kind")) {
        enclosure.backplane = kind->pick<bool>({{"backplane", true}, {"external", false}});
    }
    enclosure.position = o.num<uint8_t>("position", 1);
    enclosure.connector = o.num<uint8_t>("connector", 0);
    enclosure.bay_id = o.num<uint8_t>("bay_id", enclosure.position);
    enclosure.type = o.num<uint8_t>("type", 0);
    enclosure.elements = {o.num<uint8_t>("emms", 0, 0, RTCACHE_ENCL_EMM_SLOTS),
                          o.num<uint8_t>("fans", 0, 0, RTCACHE_ENCL_FAN_SLOTS),
                          o.num<uint8_t>("psus", 0, 0, RTCACHE_ENCL_PSU_SLOTS),
                          o.num<uint8_t>("temperature_probes", 0, 0, RTCACHE_ENCL_TEMPPROBE_SLOTS)};
    const std::string position = std::to_string(enclosure.position);
    enclosure.name = o.text("name", (enclosure.backplane ? "Backplane " : "Enclosure ") + position);
    enclosure.fqdd = o.text("fqdd", enclosure.backplane ? "Enclosure.Internal.0-" + position + ":" + controller.fqdd
                                                        : "Enclosure.External." + std::to_string(enclosure.connector) +
                                                              "-" + position + ":" + controller.fqdd);
    return enclosure;
}

VirtualDisk parse_virtual_disk(const Value &value, const Controller &controller)
{
    const Object o = value.object(keys_of({"key", "size_gib", "members", "name", "fqdd"}));
    VirtualDisk vd;
    const Value key = o.need("key", range(0, max_logicaldevices - 1));
    vd.key = static_cast<uint32_t>(key.uint(0, max_logicaldevices - 1));
    for (const VirtualDisk &other : controller.virtual_disks) {
        if (other.key == vd.key) {
            key.expected("a key no other virtual disk of controller " + std::to_string(controller.eid) + " uses");
        }
    }
    vd.size_gib = o.num<uint64_t>("size_gib", 0, 0, uint64_t{1} << 33);
    for (const Value &member : o.items("members", 32)) {
        vd.members.push_back(disk_table_key(member));
        check_disk_ref(controller, member, vd.members.back());
    }
    vd.name = o.text("name", "Virtual Disk " + std::to_string(vd.key));
    vd.fqdd = o.text("fqdd", "Disk.Virtual." + std::to_string(vd.key) + ":" + controller.fqdd);
    return vd;
}

std::string default_controller_fqdd(ControllerKind kind, size_t position)
{
    const std::string n = std::to_string(position + 1);
    switch (kind) {
        case ControllerKind::Tavo:
            return "RAID.Slot." + n + "-1";
        case ControllerKind::Hba:
            return "NonRAID.Slot." + n + "-1";
        case ControllerKind::Miru:
            break;
    }
    return "NonRAID.Embedded." + n + "-1";
}

Controller parse_controller(const Value &value, size_t position, const std::vector<Controller> &earlier)
{
    const Object o =
        value.object(keys_of({"eid", "kind", "modular_id", "status", "name", "fqdd", "pci", "temperature", "battery",
                              "addresses", "flag", "thermal_poll_disable", "enclosures", "disks", "virtual_disks"}));
    Controller c;
    const Value eid = o.need("eid", range(0, RTCACHE_MAX_EID));
    c.eid = static_cast<uint8_t>(eid.uint(0, RTCACHE_MAX_EID));
    for (const Controller &other : earlier) {
        if (other.eid == c.eid) {
            eid.expected("an EID no other controller uses");
        }
    }
    c.kind = o.need("kind", "\"TAVO\", \"HBA\" or \"MIRU\"")
                 .pick<ControllerKind>(
                     {{"TAVO", ControllerKind::Tavo}, {"HBA", ControllerKind::Hba}, {"MIRU", ControllerKind::Miru}});
    c.modular_id = o.num<uint8_t>("modular_id", 0, 0, 15);
    c.status = byte_array<2>(o, "status");
    c.fqdd = o.text("fqdd", default_controller_fqdd(c.kind, position));
    c.name = o.text("name", std::string(controller_kind_name(c.kind)) + " controller " + std::to_string(c.eid));
    if (const std::optional<Value> pci = o.get("pci")) {
        const Object p = pci->object(keys_of({"location", "vendor_id", "device_id", "subvendor_id", "subdevice_id"}));
        c.pci.location = byte_array<2>(p, "location");
        c.pci.vendor_id = p.num<uint16_t>("vendor_id", 0);
        c.pci.device_id = p.num<uint16_t>("device_id", 0);
        c.pci.subvendor_id = p.num<uint16_t>("subvendor_id", 0);
        c.pci.subdevice_id = p.num<uint16_t>("subdevice_id", 0);
    }
    c.temperature = o.num<uint32_t>("temperature", kNotReported32);
    if (const std::optional<Value> battery = o.get("battery")) {
        if (c.kind == ControllerKind::Hba) {
            fail(battery->path(), "expected no battery: a host bus adapter carries none");
        }
        const Object b = battery->object(keys_of({"state", "temperature", "name", "fqdd"}));
        c.battery = Battery{b.text("name", "Battery"), b.text("fqdd", "Battery.Integrated.1:" + c.fqdd),
                            b.num<uint16_t>("state", 0), b.num<uint32_t>("temperature", kNotReported32)};
    }
    if (const std::optional<Value> addresses = o.get("addresses")) {
        const std::vector<uint64_t> numbers = addresses->numbers(2, std::numeric_limits<uint64_t>::max());
        c.addresses = {numbers[0], numbers[1]};
    }
    c.flag = o.num<uint8_t>("flag", 0);
    c.thermal_poll_disable = o.num<uint8_t>("thermal_poll_disable", 0);
    for (const Value &item : o.items("enclosures", max_physicaldevices)) {
        c.enclosures.push_back(parse_enclosure(item, c));
    }
    std::vector<std::pair<Object, size_t>> disks;
    for (const Value &item : o.items("disks", max_physicaldevices)) {
        const Object d = item.object(disk_keys(true));
        c.disks.push_back(parse_disk(d, c, PhysicalDisk{}, true));
        disks.emplace_back(d, c.disks.size() - 1);
    }
    for (const auto &[d, index] : disks) {
        check_multipath(c, d, c.disks[index]);
    }
    for (const Value &item : o.items("virtual_disks", max_logicaldevices)) {
        c.virtual_disks.push_back(parse_virtual_disk(item, c));
    }
    return c;
}

VornHostBpDrive parse_bp_drive(const Value &value, size_t index)
{
    const Object o = value.object(keys_of({"drive_id", "sensor", "bay_id", "slot", "extender_slot", "tech", "state"}));
    VornHostBpDrive drive{};
    drive.driveId = o.num<uint8_t>("drive_id", static_cast<uint8_t>(index));
    drive.sensor = o.num<uint8_t>("sensor", 0);
    drive.bayId = o.num<uint8_t>("bay_id", 0);
    drive.driveSlot = o.num<uint8_t>("slot", 0);
    drive.extenderSlot = o.num<uint8_t>("extender_slot", 0);
    drive.tech = o.num<uint8_t>("tech", 4);
    drive.state = o.num<uint16_t>("state", 0);
    return drive;
}

std::vector<VornHostBpDrive> parse_bp_drives(const Object &o)
{
    std::vector<VornHostBpDrive> drives;
    for (const Value &item : o.items("drives", VORNHOST_BP_MAX_DRIVES)) {
        drives.push_back(parse_bp_drive(item, drives.size()));
    }
    return drives;
}

BackplaneApi parse_backplane(const Value &value)
{
    const Object o = value.object(keys_of({"bays", "drives", "risers"}));
    BackplaneApi api;
    api.drives = parse_bp_drives(o);
    for (const Value &item : o.items("risers", VORNHOST_BP_MAX_RISERS)) {
        const Object r = item.object(keys_of({"present", "bay_id", "type", "slot", "number"}));
        api.risers.push_back(VornHostBpRiser{static_cast<uint8_t>(r.flag("present", true)), r.num<uint8_t>("bay_id", 0),
                                             r.num<uint8_t>("type", 4), r.num<uint8_t>("slot", 0),
                                             r.num<uint8_t>("number", 0)});
    }
    for (const Value &item : o.items("bays", VORNHOST_BP_MAX_BAYS)) {
        const Object b = item.object(
            keys_of({"bay_id", "bp_id", "tech", "inventory", "size", "pri_sec", "primary_bay", "slots", "logical_slots",
                     "drives", "risers", "downstream", "pcie_slot_map", "firmware", "component_id"}));
        VornHostBpBay bay{};
        bay.bayId = b.num<uint8_t>("bay_id", static_cast<uint8_t>(api.bays.size()));
        const auto on_bay = [&](const auto &entry) { return entry.bayId == bay.bayId; };
        bay.bpId = b.num<uint16_t>("bp_id", bay.bayId);
        bay.tech = b.num<uint8_t>("tech", 4);
        bay.inventory = static_cast<uint8_t>(b.flag("inventory", true));
        bay.size = b.num<uint8_t>("size", 0);
        bay.priSec = b.num<uint8_t>("pri_sec", 0);
        bay.primaryBayId = b.num<uint8_t>("primary_bay", bay.bayId);
        bay.physSlotCnt = b.num<uint8_t>("slots", 0);
        bay.logicalSlotCnt = b.num<uint8_t>("logical_slots", bay.physSlotCnt);
        bay.physDriveCnt =
            b.num<uint8_t>("drives", static_cast<uint8_t>(std::count_if(api.drives.begin(), api.drives.end(), on_bay)));
        bay.riserCnt =
            b.num<uint8_t>("risers", static_cast<uint8_t>(std::count_if(api.risers.begin(), api.risers.end(), on_bay)));
        for (const Value &id : b.items("downstream", sizeof bay.downstreamBayIds)) {
            bay.downstreamBayIds[bay.downstreamCnt++] = static_cast<uint8_t>(id.uint(0, 255));
        }
        bay.pcieSlotMap = b.num<uint32_t>("pcie_slot_map", 0);
        const std::array<uint8_t, 2> firmware = byte_array<2>(b, "firmware");
        bay.fwMajor = firmware[0];
        bay.fwMinor = firmware[1];
        const std::array<uint8_t, 3> component = byte_array<3>(b, "component_id");
        std::copy(component.begin(), component.end(), bay.compId);
        api.bays.push_back(bay);
    }
    return api;
}

PcieSsd parse_pciessd(const Value &value)
{
    const Object o = value.object(keys_of({"sequence", "slots", "fru_directory"}));
    PcieSsd ssd;
    ssd.sequence = o.num<uint8_t>("sequence", 0);
    for (const Value &item : o.items("slots", 32)) {
        const Object s = item.object(keys_of({"bay_id", "slot", "bp_type", "present"}));
        ssd.slots.push_back(PcieSsdSlot{s.num<uint8_t>("bay_id", 0), s.num<uint8_t>("slot", 0),
                                        s.num<uint8_t>("bp_type", 4), s.flag("present", true)});
    }
    for (const Value &item : o.items("fru_directory", 16)) {
        const Object e = item.object(keys_of({"extender_slot", "kind", "bay_id"}));
        ssd.fru_directory.push_back(FruDirectoryEntry{e.num<uint8_t>("extender_slot", 0), e.num<uint8_t>("kind", 3),
                                                      e.num<uint8_t>("bay_id", 0)});
    }
    return ssd;
}

Phase parse_phase(const Value &value)
{
    return value.pick<Phase>(
        {{"inventory", Phase::Inventory}, {"past_events", Phase::PastEvents}, {"normal", Phase::Normal}});
}

// ---- expectations ---------------------------------------------------------------

Expectation parse_expectation(const Value &value)
{
    using Kind = Expectation::Kind;
    static const std::vector<std::pair<const char *, Kind>> kinds = {
        {"result", Kind::Result},      {"field", Kind::Field},
        {"event_log", Kind::EventLog}, {"backplane_write", Kind::BackplaneWrite},
        {"ipmi", Kind::Ipmi},          {"trace", Kind::Trace}};
    std::vector<std::string> names;
    const char *chosen = nullptr;
    Expectation e;
    for (const auto &[name, kind] : kinds) {
        names.push_back(in_quotes(name));
        if (value.raw().is_object() && value.raw().contains(name)) {
            if (chosen != nullptr) {
                fail(value.path(), std::string("expected one kind of expectation, found both \"") + chosen +
                                       "\" and \"" + name + "\"");
            }
            chosen = name;
            e.kind = kind;
        }
    }
    if (chosen == nullptr) {
        value.expected("an object with one of the keys " + join(names));
    }
    switch (e.kind) {
        case Kind::Result: {
            const Object o = value.object(keys_of({"result", "is"}));
            e.subject = o.need("result", "a function name").text();
            e.value = o.need("is", "the result code").sint(std::numeric_limits<int32_t>::min(), 0xFFFFFFFFll);
            e.text = "result of " + e.subject + " is " + std::to_string(e.value);
            return e;
        }
        case Kind::Field: {
            const Object o = value.object(keys_of({"field", "is"}));
            const Value field = o.need("field", "a region field name");
            e.subject = field.text();
            const std::optional<FieldRef> ref = find_field(e.subject);
            if (!ref || ref->field->format == RegionField::Format::Bytes) {
                field.expected("a numeric region field such as \"ctrl.s32Count\" or \"pd.au8Temp[3]\"");
            }
            e.value = o.need("is", "the field's value")
                          .sint(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
            e.text = "field " + e.subject + " is " + std::to_string(e.value);
            return e;
        }
        case Kind::EventLog: {
            const Object o = value.object(keys_of({"event_log", "present", "fqdd", "args"}));
            e.subject = o.need("event_log", "a message id").text();
            e.present = o.flag("present", true);
            if (o.has("fqdd")) {
                e.fqdd = o.text("fqdd");
            }
            if (o.has("args")) {
                e.args.emplace();
                for (const Value &arg : o.items("args", 5)) {
                    e.args->push_back(arg.text());
                }
            }
            e.text = "event-log entry " + e.subject + (e.fqdd ? " for " + *e.fqdd : "");
            break;
        }
        case Kind::BackplaneWrite: {
            const Object o = value.object(keys_of({"backplane_write", "type", "present"}));
            e.bytes = o.need("backplane_write", "the record's bytes").hex(VORNHOST_BP_INFO_SIZE);
            e.write_type = o.num<uint32_t>("type", 1);
            e.present = o.flag("present", true);
            e.text = "backplane write (type " + std::to_string(e.write_type) + ") " + hex_bytes(e.bytes);
            break;
        }
        case Kind::Ipmi: {
            const Object o = value.object(keys_of({"ipmi", "netfn", "cmd", "present"}));
            e.bytes = o.need("ipmi", "the request's bytes").hex(VORNHOST_IPMI_MAX_REQUEST);
            e.ipmi_command = {o.num<uint8_t>("netfn", 0x30), o.num<uint8_t>("cmd", 0xD5)};
            e.present = o.flag("present", true);
            e.text = "IPMI request " + hex_bytes({e.ipmi_command[0], e.ipmi_command[1]}) + ": " + hex_bytes(e.bytes);
            break;
        }
        case Kind::Trace: {
            const Object o = value.object(keys_of({"trace", "present"}));
            e.subject = o.need("trace", "a text the trace line contains").text();
            e.present = o.flag("present", true);
            e.text = "trace line containing \"" + e.subject + "\"";
            break;
        }
    }
    e.text += e.present ? " present" : " absent";
    return e;
}

// ---- steps ------------------------------------------------------------------------

// The hardware as the timeline leaves it, for the checks of later steps.
struct Timeline {
    std::vector<Controller> controllers;
    std::map<uint8_t, bool> command_open;

    Controller &controller(const Value &value)
    {
        const auto eid = static_cast<uint8_t>(value.uint(0, RTCACHE_MAX_EID));
        for (Controller &c : controllers) {
            if (c.eid == eid) {
                return c;
            }
        }
        std::vector<std::string> eids;
        for (const Controller &c : controllers) {
            eids.push_back(std::to_string(c.eid));
        }
        value.expected("the EID of a controller of this scenario (" + (eids.empty() ? "none" : join(eids)) + ")");
    }

    std::vector<uint8_t> controller_list(const Object &o)
    {
        std::vector<uint8_t> eids;
        if (const std::optional<Value> list = o.get("controllers")) {
            for (const Value &item : list->items(max_adapters)) {
                eids.push_back(controller(item).eid);
            }
        } else {
            for (const Controller &c : controllers) {
                eids.push_back(c.eid);
            }
        }
        return eids;
    }
};

using StepParser = StepBody (*)(const Object &, Timeline &);

struct StepKind {
    const char *name;
    std::vector<std::string> keys;  // besides "do", "note" and "expect"
    StepParser parse;
};

StepBody parse_poll(const Object &o, Timeline &t)
{
    return PollStep{t.controller_list(o)};
}

StepBody parse_fetch(const Object &o, Timeline &t)
{
    return FetchStep{t.controller_list(o)};
}

StepBody parse_disk_added(const Object &o, Timeline &t)
{
    Controller &c = t.controller(o.need("controller", "an EID"));
    const Object d = o.need("disk", "the disk").object(disk_keys(true));
    PhysicalDisk disk = parse_disk(d, c, PhysicalDisk{}, true);
    c.disks.push_back(disk);
    check_multipath(c, d, disk);
    return DiskAddedStep{c.eid, disk};
}

PhysicalDisk &live_disk(Controller &c, const Value &key)
{
    const uint32_t k = disk_table_key(key);
    check_disk_ref(c, key, k);
    return *std::find_if(c.disks.begin(), c.disks.end(), [k](const PhysicalDisk &d) { return d.key == k; });
}

StepBody parse_disk_removed(const Object &o, Timeline &t)
{
    Controller &c = t.controller(o.need("controller", "an EID"));
    const uint32_t key = live_disk(c, o.need("key", "a disk key")).key;
    std::erase_if(c.disks, [key](const PhysicalDisk &d) { return d.key == key; });
    return DiskRemovedStep{c.eid, key};
}

StepBody parse_disk_changed(const Object &o, Timeline &t)
{
    Controller &c = t.controller(o.need("controller", "an EID"));
    PhysicalDisk &disk = live_disk(c, o.need("key", "a disk key"));
    const Object set = o.need("set", "the values that change").object(disk_keys(false));
    disk = parse_disk(set, c, disk, false);
    check_multipath(c, set, disk);
    return DiskChangedStep{c.eid, disk};
}

std::string object_fqdd(const Controller &c, uint32_t object, uint32_t key)
{
    if (const PhysicalDisk *disk = c.disk(key); object == RTCACHE_OBJKIND_PHYSICALDISK && disk != nullptr) {
        return disk->fqdd;
    }
    if (const Enclosure *enclosure = c.enclosure(key); object == RTCACHE_OBJKIND_ENCLOSURE && enclosure != nullptr) {
        return enclosure->fqdd;
    }
    for (const VirtualDisk &vd : c.virtual_disks) {
        if (object == RTCACHE_OBJKIND_VIRTUALDISK && vd.key == key) {
            return vd.fqdd;
        }
    }
    if (object == RTCACHE_OBJKIND_BATTERY && c.battery) {
        return c.battery->fqdd;
    }
    return c.fqdd;
}

StepBody parse_event(const Object &o, Timeline &t)
{
    const Controller &c = t.controller(o.need("controller", "an EID"));
    EventStep e;
    e.eid = c.eid;
    if (const std::optional<Value> object = o.get("object")) {
        e.object = object->raw().is_string()
                       ? object->pick<uint32_t>({{"controller", RTCACHE_OBJKIND_CONTROLLER},
                                                 {"enclosure", RTCACHE_OBJKIND_ENCLOSURE},
                                                 {"disk", RTCACHE_OBJKIND_PHYSICALDISK},
                                                 {"virtual_disk", RTCACHE_OBJKIND_VIRTUALDISK},
                                                 {"battery", RTCACHE_OBJKIND_BATTERY},
                                                 {"emm", RTCACHE_OBJKIND_EMM},
                                                 {"enclosure_element", RTCACHE_OBJKIND_ENCL_ELEMENT}})
                       : static_cast<uint32_t>(object->uint(0, 0xFFFF));
    }
    if (const std::optional<Value> type = o.get("type")) {
        e.type = type->raw().is_string() ? type->pick<uint32_t>({{"change", RAID_MGMT_EVENT_CHANGE_OBJECT}})
                                         : static_cast<uint32_t>(type->uint(0, 0xFFFF));
    }
    e.key = o.num<uint32_t>("key", 0, 0, 0xFFFF);
    e.message = o.text("message");
    e.severity = o.num<uint8_t>("severity", 3, 1, 3);
    for (const Value &arg : o.items("args", 5)) {
        e.args.push_back(arg.text());
    }
    e.fqdd = o.text("fqdd", object_fqdd(c, e.object, e.key));
    e.repeat = o.num<uint32_t>("repeat", 1, 1, 100000);
    return e;
}

StepBody parse_phase_step(const Object &o, Timeline &)
{
    return PhaseStep{parse_phase(o.need("phase", "\"inventory\", \"past_events\" or \"normal\""))};
}

StepBody parse_command_begin(const Object &o, Timeline &t)
{
    const Value controller = o.need("controller", "an EID");
    const uint8_t eid = t.controller(controller).eid;
    if (t.command_open[eid]) {
        controller.expected("a controller without an open command window");
    }
    t.command_open[eid] = true;
    return CommandBeginStep{eid, o.num<uint32_t>("opcode", 0)};
}

StepBody parse_command_end(const Object &o, Timeline &t)
{
    const Value controller = o.need("controller", "an EID");
    const uint8_t eid = t.controller(controller).eid;
    if (!t.command_open[eid]) {
        controller.expected("a controller whose command window a command_begin opened");
    }
    t.command_open[eid] = false;
    return CommandEndStep{eid};
}

StepBody parse_notify(const Object &o, Timeline &)
{
    NotifyStep n;
    n.type = o.need("type", "a notification type")
                 .pick<uint32_t>({{"power_on", MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON},
                                  {"power_off", MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWEROFF},
                                  {"lpc_reset", MCTP_CLIENT_CALLBACK_TYPE_EVENT_LPC_RESET},
                                  {"endpoint_table", MCTP_CLIENT_CALLBACK_TYPE_ENDPOINT_TABLE},
                                  {"init_failed", MCTP_CLIENT_CALLBACK_TYPE_EVENT_INIT_FAILED},
                                  {"daemon_stopped", MCTP_CLIENT_CALLBACK_TYPE_EVENT_MCTPD_STOPPED}});
    for (const Value &byte : o.items("payload", 255)) {
        n.payload.push_back(static_cast<uint8_t>(byte.uint(0, 255)));
    }
    if (n.payload.empty()) {
        n.payload.push_back(0);
    }
    return n;
}

StepBody parse_hotplug(const Object &o, Timeline &)
{
    o.need("drives", "the drive table the backplane reports now");
    return HotplugStep{parse_bp_drives(o)};
}

StepBody parse_locate(const Object &o, Timeline &)
{
    LocateStep l;
    l.nvme = o.need("target", "\"nvme\" or \"pciessd\"").pick<bool>({{"nvme", true}, {"pciessd", false}});
    l.on = o.flag("on", true);
    l.bay = o.num<uint8_t>("bay", 0);
    l.slot = o.num<uint8_t>("slot", 0);
    l.state = o.num<uint16_t>("state", 0);
    return l;
}

StepBody parse_pciessd_simulate(const Object &o, Timeline &)
{
    PcieSsdSimulateStep s;
    if (o.has("status")) {
        s.status = o.num<uint16_t>("status", 0);
    }
    if (const std::optional<Value> fru = o.get("fru")) {
        s.fru = fru->hex(256);
    }
    if (o.has("sequence")) {
        s.sequence = o.num<uint8_t>("sequence", 0);
    }
    return s;
}

StepBody parse_nothing_for_submit(const Object &, Timeline &)
{
    return SubmitStep{};
}
StepBody parse_nothing_for_shm(const Object &, Timeline &)
{
    return ShmUpdateStep{};
}
StepBody parse_nothing_for_nvme(const Object &, Timeline &)
{
    return NvmeInventoryStep{};
}

const std::vector<StepKind> &step_kinds()
{
    static const std::vector<StepKind> kinds = {
        {"poll", {"controllers"}, parse_poll},
        {"disk_added", {"controller", "disk"}, parse_disk_added},
        {"disk_removed", {"controller", "key"}, parse_disk_removed},
        {"disk_changed", {"controller", "key", "set"}, parse_disk_changed},
        {"event",
         {"controller", "object", "type", "key", "message", "severity", "args", "fqdd", "repeat"},
         parse_event},
        {"fetch", {"controllers"}, parse_fetch},
        {"submit", {}, parse_nothing_for_submit},
        {"phase", {"phase"}, parse_phase_step},
        {"command_begin", {"controller", "opcode"}, parse_command_begin},
        {"command_end", {"controller"}, parse_command_end},
        {"notify", {"type", "payload"}, parse_notify},
        {"shm_update", {}, parse_nothing_for_shm},
        {"nvme_inventory", {}, parse_nothing_for_nvme},
        {"hotplug", {"drives"}, parse_hotplug},
        {"locate", {"target", "on", "bay", "slot", "state"}, parse_locate},
        {"pciessd_simulate", {"status", "fru", "sequence"}, parse_pciessd_simulate},
    };
    return kinds;
}

Step parse_step(const Value &value, Timeline &timeline)
{
    if (!value.raw().is_object()) {
        value.expected("an object");
    }
    std::vector<std::string> names;
    const StepKind *kind = nullptr;
    const auto action = value.raw().find("do");
    for (const StepKind &candidate : step_kinds()) {
        names.push_back(in_quotes(candidate.name));
        if (action != value.raw().end() && action->is_string() && *action == candidate.name) {
            kind = &candidate;
        }
    }
    if (kind == nullptr) {
        const std::string what = "one of " + join(names);
        if (action == value.raw().end()) {
            fail(value.path(), "missing key \"do\" (" + what + ")");
        }
        Value(*action, value.path() + "/do").expected(what);
    }
    std::vector<std::string> keys = {"do", "note", "expect"};
    keys.insert(keys.end(), kind->keys.begin(), kind->keys.end());
    const Object o = value.object(keys);
    Step step;
    step.kind = kind->name;
    step.note = o.text("note");
    step.body = kind->parse(o, timeline);
    for (const Value &item : o.items("expect", 1000)) {
        step.expect.push_back(parse_expectation(item));
    }
    return step;
}

Scenario parse_document(const json &document, const std::string &file)
{
    const Object o =
        Value(document, "")
            .object(keys_of({"name", "description", "phase", "controllers", "backplane", "pciessd", "steps"}));
    Scenario scenario;
    scenario.file = file;
    const size_t slash = file.find_last_of('/');
    const std::string base = file.substr(slash == std::string::npos ? 0 : slash + 1);
    scenario.name = o.text("name", base.substr(0, base.rfind(".json")));
    scenario.description = o.text("description");
    if (const std::optional<Value> phase = o.get("phase")) {
        scenario.phase = parse_phase(*phase);
    }
    for (const Value &item : o.items("controllers", max_adapters)) {
        scenario.controllers.push_back(parse_controller(item, scenario.controllers.size(), scenario.controllers));
    }
    if (const std::optional<Value> backplane = o.get("backplane")) {
        scenario.backplane = parse_backplane(*backplane);
    }
    if (const std::optional<Value> pciessd = o.get("pciessd")) {
        scenario.pciessd = parse_pciessd(*pciessd);
    }
    Timeline timeline{scenario.controllers, {}};
    for (const Value &item : o.items("steps", 100000)) {
        scenario.steps.push_back(parse_step(item, timeline));
    }
    return scenario;
}

// "line L, column C" of a byte position (1-based, as the parser counts).
std::string line_and_column(const std::string &text, size_t byte)
{
    size_t line = 1;
    size_t column = 1;
    for (size_t i = 0; i + 1 < byte && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return std::to_string(line) + ":" + std::to_string(column);
}

}  // namespace

Scenario parse_scenario(const std::string &text, const std::string &file)
{
    json document;
    try {
        document = json::parse(text);
    } catch (const json::parse_error &error) {
        std::string detail = error.what();
        const size_t column = detail.find("column ");
        const size_t colon = detail.find(": ", column == std::string::npos ? 0 : column);
        if (colon != std::string::npos) {
            detail = detail.substr(colon + 2);
        }
        throw ScenarioError(file + ":" + line_and_column(text, error.byte) + ": not valid JSON: " + detail);
    } catch (const json::out_of_range &error) {
        // A number too large for any C++ type (1e400, say): the parser names
        // the number but not its place.
        std::string detail = error.what();
        const size_t bracket = detail.find("] ");
        throw ScenarioError(
            file + ": not valid JSON: " + (bracket == std::string::npos ? detail : detail.substr(bracket + 2)));
    }
    try {
        return parse_document(document, file);
    } catch (const Failure &failure) {
        throw ScenarioError(file + ": " + failure.place + ": " + failure.message);
    }
}

Scenario load_scenario(const std::string &file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw ScenarioError(file + ": cannot be read: " + std::strerror(errno));
    }
    std::ostringstream text;
    text << in.rdbuf();
    return parse_scenario(text.str(), file);
}

const Controller *Scenario::controller(uint8_t eid) const
{
    for (const Controller &c : controllers) {
        if (c.eid == eid) {
            return &c;
        }
    }
    return nullptr;
}

const PhysicalDisk *Controller::disk(uint32_t key) const
{
    for (const PhysicalDisk &d : disks) {
        if (d.key == key) {
            return &d;
        }
    }
    return nullptr;
}

const Enclosure *Controller::enclosure(uint32_t key) const
{
    for (const Enclosure &e : enclosures) {
        if (e.key == key) {
            return &e;
        }
    }
    return nullptr;
}

const char *phase_name(Phase phase)
{
    switch (phase) {
        case Phase::Inventory:
            return "inventory";
        case Phase::PastEvents:
            return "past_events";
        case Phase::Normal:
            break;
    }
    return "normal";
}

const char *controller_kind_name(ControllerKind kind)
{
    switch (kind) {
        case ControllerKind::Tavo:
            return "TAVO";
        case ControllerKind::Hba:
            return "HBA";
        case ControllerKind::Miru:
            break;
    }
    return "MIRU";
}

}  // namespace rtvoxctl::sim

// The scenario model of `rtvoxctl simulate` and `rtvoxctl topology`: the
// hardware a monitoring service would find and a timeline of what happens to
// it. docs/scenario-format.md describes the JSON form key by key; the loader
// (scenario_load.cpp) turns a file into this model or into one error message.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "vornhost/vornhost.h"

namespace rtvoxctl::sim {

inline constexpr uint32_t kNotReported32 = 0xFFFFFFFFu;  // a temperature word the controller did not report
inline constexpr uint8_t kNotReported8 = 0xFFu;

// ---- hardware -----------------------------------------------------------------

enum class ControllerKind : uint8_t { Tavo, Hba, Miru };

struct Pci {
    std::array<uint8_t, 2> location{};  // the two location bytes the PCI slot is computed from
    uint16_t vendor_id = 0;
    uint16_t device_id = 0;
    uint16_t subvendor_id = 0;
    uint16_t subdevice_id = 0;
};

struct Battery {
    std::string name;
    std::string fqdd;
    uint16_t state = 0;
    uint32_t temperature = kNotReported32;
};

struct Enclosure {
    uint32_t key = 0;  // its slot in the controller's physical-disk table
    bool backplane = true;
    uint8_t position = 0;
    uint8_t connector = 0;
    uint8_t bay_id = 0;
    uint8_t type = 0;
    std::array<uint8_t, 4> elements{};  // EMMs, fans, power supplies, temperature probes
    std::string name;
    std::string fqdd;
};

struct PhysicalDisk {
    uint32_t key = 0;
    uint8_t slot = 0;
    std::optional<uint32_t> enclosure;  // the enclosure's key; none for a directly attached drive
    uint64_t size_gib = 0;
    bool ssd = false;
    uint8_t protocol = 0;
    uint8_t form_factor = 0;
    uint32_t rpm = 0;
    uint8_t temperature = kNotReported8;
    uint16_t status = 0;
    uint64_t state = 0;
    uint8_t impedance = 0;
    bool hotspare = false;
    std::optional<uint32_t> multipath_primary;
    std::string name;
    std::string fqdd;
    std::string description;
};

struct VirtualDisk {
    uint32_t key = 0;
    uint64_t size_gib = 0;
    std::vector<uint32_t> members;  // disk keys
    std::string name;
    std::string fqdd;
};

struct Controller {
    uint8_t eid = 0;
    ControllerKind kind = ControllerKind::Tavo;
    uint8_t modular_id = 0;
    std::array<uint8_t, 2> status{};  // the registry's two status bytes
    std::string name;
    std::string fqdd;
    Pci pci;
    uint32_t temperature = kNotReported32;
    std::optional<Battery> battery;
    std::array<uint64_t, 2> addresses{};
    uint8_t flag = 0;
    uint8_t thermal_poll_disable = 0;
    std::vector<Enclosure> enclosures;
    std::vector<PhysicalDisk> disks;
    std::vector<VirtualDisk> virtual_disks;

    const PhysicalDisk *disk(uint32_t key) const;
    const Enclosure *enclosure(uint32_t key) const;
};

// What the backplane API reports: bays, drive slots and risers of the API info record.
struct BackplaneApi {
    std::vector<VornHostBpBay> bays;
    std::vector<VornHostBpDrive> drives;
    std::vector<VornHostBpRiser> risers;
};

struct PcieSsdSlot {
    uint8_t bay_id = 0;
    uint8_t slot = 0;
    uint8_t bp_type = 4;
    bool present = true;
};

struct FruDirectoryEntry {
    uint8_t extender_slot = 0;
    uint8_t kind = 3;
    uint8_t bay_id = 0;
};

// The PCIe SSD areas the platform fills: region 20's slot table, region 15's FRU directory.
struct PcieSsd {
    uint8_t sequence = 0;
    std::vector<PcieSsdSlot> slots;
    std::vector<FruDirectoryEntry> fru_directory;
};

enum class Phase : uint8_t { Inventory, PastEvents, Normal };

// ---- expectations -------------------------------------------------------------

struct Expectation {
    enum class Kind : uint8_t { Result, Field, EventLog, BackplaneWrite, Ipmi, Trace };
    Kind kind = Kind::Result;
    std::string subject;  // function, field, message id, trace text; "" for byte matches
    int64_t value = 0;    // result code or field value
    bool present = true;
    std::optional<std::string> fqdd;                  // event log
    std::optional<std::vector<std::string>> args;     // event log
    std::vector<uint8_t> bytes;                       // backplane write, IPMI request data
    uint32_t write_type = 1;                          // backplane write
    std::array<uint8_t, 2> ipmi_command{0x30, 0xD5};  // network function, command
    std::string text;                                 // how reports name it
};

// ---- steps --------------------------------------------------------------------

struct PollStep {
    std::vector<uint8_t> controllers;
};
struct DiskAddedStep {
    uint8_t eid = 0;
    PhysicalDisk disk;
};
struct DiskRemovedStep {
    uint8_t eid = 0;
    uint32_t key = 0;
};
struct DiskChangedStep {
    uint8_t eid = 0;
    PhysicalDisk disk;  // the disk as it is after the change
};
struct EventStep {
    uint8_t eid = 0;
    uint32_t object = 3;
    uint32_t type = 3;
    uint32_t key = 0;
    std::string message;  // none: the event carries no record
    uint8_t severity = 3;
    std::vector<std::string> args;
    std::string fqdd;
    uint32_t repeat = 1;
};
struct FetchStep {
    std::vector<uint8_t> controllers;
};
struct SubmitStep {};
struct PhaseStep {
    Phase phase = Phase::Normal;
};
struct CommandBeginStep {
    uint8_t eid = 0;
    uint32_t opcode = 0;
};
struct CommandEndStep {
    uint8_t eid = 0;
};
struct NotifyStep {
    uint32_t type = 1;
    std::vector<uint8_t> payload;
};
struct ShmUpdateStep {};
struct NvmeInventoryStep {};
struct HotplugStep {
    std::vector<VornHostBpDrive> drives;  // the drive table the backplane reports from now on
};
struct LocateStep {
    bool nvme = true;
    bool on = true;
    uint8_t bay = 0;
    uint8_t slot = 0;
    uint16_t state = 0;
};
struct PcieSsdSimulateStep {
    std::optional<uint16_t> status;
    std::optional<std::vector<uint8_t>> fru;
    std::optional<uint8_t> sequence;
};

using StepBody = std::variant<PollStep, DiskAddedStep, DiskRemovedStep, DiskChangedStep, EventStep, FetchStep,
                              SubmitStep, PhaseStep, CommandBeginStep, CommandEndStep, NotifyStep, ShmUpdateStep,
                              NvmeInventoryStep, HotplugStep, LocateStep, PcieSsdSimulateStep>;

struct Step {
    std::string kind;  // the "do" value
    std::string note;
    StepBody body;
    std::vector<Expectation> expect;
};

struct Scenario {
    std::string file;
    std::string name;
    std::string description;
    Phase phase = Phase::Normal;
    std::vector<Controller> controllers;
    BackplaneApi backplane;
    PcieSsd pciessd;
    std::vector<Step> steps;

    const Controller *controller(uint8_t eid) const;
};

// The one message a scenario that cannot be run gets: "FILE: PLACE: what was expected".
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads and checks a scenario file; throws ScenarioError.
Scenario load_scenario(const std::string &file);
// The same for a text already in memory; `file` only names it in messages.
Scenario parse_scenario(const std::string &text, const std::string &file);

const char *phase_name(Phase phase);
const char *controller_kind_name(ControllerKind kind);

}  // namespace rtvoxctl::sim

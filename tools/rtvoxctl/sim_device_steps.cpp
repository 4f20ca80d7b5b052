// Steps of the drive bays behind the backplane firmware: the backplane API
// session the service opens at its start, NVMe inventory into the cache, hot
// plug reported through the host's callback thread, locate requests, and the
// PCIe SSD simulation pass with its input files. The host platform is
// planted first with what the scenario says the firmware reports.
#include <array>
#include <fstream>
#include <string>
#include <vector>

#include "rtvox/rt_shm.h"
#include "rtvox/rtvox.h"
#include "simulation.h"
#include "topology.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl::sim {
namespace {

constexpr int32_t kHotplugWaitMs = 5000;

// The 738-byte record the backplane API reports for the scenario's backplane.
std::vector<uint8_t> backplane_record(const BackplaneApi &api)
{
    std::vector<uint8_t> record(VORNHOST_BP_INFO_SIZE);
    const auto drives = static_cast<uint8_t>(api.drives.size());
    vornhost_bp_info_set_counts(record.data(), static_cast<uint8_t>(api.bays.size()), drives, drives,
                                static_cast<uint8_t>(api.risers.size()));
    for (uint32_t i = 0; i < api.bays.size(); ++i) {
        vornhost_bp_info_set_bay(record.data(), i, &api.bays[i]);
    }
    for (uint32_t i = 0; i < api.drives.size(); ++i) {
        vornhost_bp_info_set_drive(record.data(), i, &api.drives[i]);
    }
    for (uint32_t i = 0; i < api.risers.size(); ++i) {
        vornhost_bp_info_set_riser(record.data(), i, &api.risers[i]);
    }
    return record;
}

void put_u16(uint8_t *at, uint16_t value)
{
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}

// The NVMe part of the topology, one report line per node.
void show_nvme(StepReport &report)
{
    for (const std::string &line : topology_lines(read_nvme_topology())) {
        report.line("%s", line.c_str());
    }
}

using DriveStates = std::array<std::array<uint16_t, RTSHM_NVME_SLOTS>, RTSHM_NVME_BAYS>;

DriveStates drive_states()
{
    DriveStates states{};
    for (uint32_t b = 0; b < RTSHM_NVME_BAYS; ++b) {
        for (uint32_t s = 0; s < RTSHM_NVME_SLOTS; ++s) {
            states[b][s] = sNVMeSSDBPInfo.slot[b][s].u16DriveState;
        }
    }
    return states;
}

bool write_file(const std::string &path, const std::vector<uint8_t> &bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

}  // namespace

void Simulation::plant_platform(StepReport &report)
{
    const BackplaneApi &api = scenario_.backplane;
    if (!api.bays.empty() || !api.drives.empty() || !api.risers.empty()) {
        vornhost_bp_set_info(backplane_record(api).data());
        report.line("the backplane reports %zu bays, %zu drive slots and %zu risers", api.bays.size(),
                    api.drives.size(), api.risers.size());
    }
    const PcieSsd &ssd = scenario_.pciessd;
    if (uint8_t *area = vornhost_shm_bytes(RTSHM_PCIESSD_BP_REGION); area != nullptr && !ssd.slots.empty()) {
        area[2] = static_cast<uint8_t>(ssd.slots.size());
        area[6] = ssd.sequence;
        for (size_t g = 0; g < ssd.slots.size(); ++g) {
            uint8_t *slot = area + 14 + 4 * g;
            slot[0] = ssd.slots[g].bay_id;
            slot[1] = ssd.slots[g].slot;
            slot[2] = ssd.slots[g].bp_type;
            slot[3] = ssd.slots[g].present ? 1 : 0;
        }
        report.line("region 20 describes %zu PCIe SSD slots, presence sequence %u", ssd.slots.size(), ssd.sequence);
    }
    constexpr size_t kRecords = 132;  // the directory window the library reads; the records follow it
    if (uint8_t *directory = vornhost_shm_bytes(RTSHM_PCIESSD_FRUDIR_REGION);
        directory != nullptr && !ssd.fru_directory.empty()) {
        put_u16(directory + 2, static_cast<uint16_t>(ssd.fru_directory.size()));
        for (size_t i = 0; i < ssd.fru_directory.size(); ++i) {
            uint8_t *entry = directory + 4 + 8 * i;
            entry[0] = ssd.fru_directory[i].extender_slot;
            entry[1] = ssd.fru_directory[i].kind;
            put_u16(entry + 4, static_cast<uint16_t>(kRecords + 4 * i));
            directory[kRecords + 4 * i + 1] = ssd.fru_directory[i].bay_id;
        }
        report.line("region 15 holds %zu FRU directory entries", ssd.fru_directory.size());
    }
}

void Simulation::open_backplane(StepReport &report)
{
    const uint32_t rc = called(report, "rtshm_BpApiInit", rtshm_BpApiInit());
    report.line(
        "backplane API: rtshm_BpApiInit answered %u, %s", rc,
        vornhost_bp_session_has_callback(bpAPIHandler) == 1 ? "session open with the hot-plug callback" : "no session");
    show_nvme(report);
}

void Simulation::close_backplane(StepReport &report)
{
    // The service keeps its session for its whole life; the simulation ends
    // it with the service, so that the next run in this process opens its own.
    if (bpAPIHandler != 0) {
        VornBpApiCloseExec(bpAPIHandler, "rtvoxctl", "close_backplane", __LINE__);
        bpAPIHandler = 0;
        report.line("backplane API session closed");
    }
}

void Simulation::nvme_inventory(const Step &, StepReport &report)
{
    const uint32_t update = called(report, "rtshm_BpDataUpdate", rtshm_BpDataUpdate());
    const uint32_t extenders = called(report, "rtshm_getNVMeExtcard", rtshm_getNVMeExtcard());
    const uint32_t backplanes = called(report, "rtshm_getNVMeBPs", rtshm_getNVMeBPs());
    report.line("backplane data read (answer %u); extenders (answer %u), then backplanes (answer %u) inventoried:",
                update, extenders, backplanes);
    show_nvme(report);
}

void Simulation::hotplug(const Step &step, StepReport &report)
{
    scenario_.backplane.drives = std::get<HotplugStep>(step.body).drives;
    const DriveStates before = drive_states();
    const int started = vornhost_bp_hotplug(backplane_record(scenario_.backplane).data());
    const int waited = vornhost_bp_hotplug_wait(kHotplugWaitMs);
    report.line("the backplane reports %zu drive slots now: %d hot-plug callbacks started%s",
                scenario_.backplane.drives.size(), started, waited == 0 ? "" : ", not all of them returned in time");
    if (started > 0) {
        called(report, "NVMeHotPlugCallback", vornhost_bp_hotplug_last_result());
    }
    const DriveStates after = drive_states();
    for (uint32_t b = 0; b < RTSHM_NVME_BAYS; ++b) {
        for (uint32_t s = 0; s < RTSHM_NVME_SLOTS; ++s) {
            if (before[b][s] != after[b][s]) {
                report.line("bay %u slot %u: drive state 0x%04X -> 0x%04X", b, s, before[b][s], after[b][s]);
            }
        }
    }
}

void Simulation::locate(const Step &step, StepReport &report)
{
    const auto &l = std::get<LocateStep>(step.body);
    if (l.nvme) {
        const uint32_t rc = l.on ? called(report, "BlinkNVMeSSD", BlinkNVMeSSD(l.bay, l.slot))
                                 : called(report, "UnBlinkNVMeSSD", UnBlinkNVMeSSD(l.bay, l.slot, l.state));
        report.line("NVMe drive in bay %u slot %u: locate %s over the backplane API (answer %u)", l.bay, l.slot,
                    l.on ? "on" : "off", rc);
        return;
    }
    const uint32_t rc = l.on ? called(report, "BlinkPCIeSSD", BlinkPCIeSSD(l.bay, l.slot))
                             : called(report, "UnBlinkPCIeSSD", UnBlinkPCIeSSD(l.bay, l.slot, l.state));
    if (l.on) {
        report.line("PCIe SSD in bay %u slot %u: locate on over IPMI (answer %u)", l.bay, l.slot, rc);
    } else {
        report.line("PCIe SSD in bay %u slot %u: locate off over IPMI, drive status 0x%04X restored (answer %u)", l.bay,
                    l.slot, l.state, rc);
    }
}

void Simulation::pciessd_simulate(const Step &step, StepReport &report)
{
    const auto &s = std::get<PcieSsdSimulateStep>(step.body);
    if (s.status) {
        const std::string text = std::to_string(*s.status) + "\n";
        const bool ok = write_file(dir_ + RTSHM_PCIESSD_STATUS_FILE, {text.begin(), text.end()});
        report.line("%s: status %u%s", RTSHM_PCIESSD_STATUS_FILE, *s.status, ok ? "" : " (could not be written)");
    }
    if (s.fru) {
        const bool ok = write_file(dir_ + RTSHM_PCIESSD_FRU_FILE, *s.fru);
        report.line("%s: %zu bytes%s", RTSHM_PCIESSD_FRU_FILE, s.fru->size(), ok ? "" : " (could not be written)");
    }
    if (uint8_t *area = vornhost_shm_bytes(RTSHM_PCIESSD_BP_REGION); s.sequence && area != nullptr) {
        area[6] = *s.sequence;
        report.line("the platform changes the presence sequence to %u", *s.sequence);
    }
    const uint32_t writes = vornhost_call_count(VORNHOST_Vorn_shm_memwrite);
    RTSHM_PCIeSSDSimulate();
    report.line("RTSHM_PCIeSSDSimulate made %u region writes",
                vornhost_call_count(VORNHOST_Vorn_shm_memwrite) - writes);
}

}  // namespace rtvoxctl::sim

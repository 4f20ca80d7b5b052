// The runner's frame: the service's start and stop, the dispatch of steps to
// their handlers, and what is gathered after each step (trace lines, the host
// platform's journals, the regions' changes) and checked against its
// expectations.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "rtvox/rt_evtq.h"
#include "rtvox/rt_shm.h"
#include "rtvox/rtvox.h"
#include "simulation.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl::sim {
namespace {

std::string make_scratch_dir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "rtvoxctl-sim-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a directory under " + std::filesystem::temp_directory_path().string() +
                                 ": " + std::strerror(errno));
    }
    return pattern;
}

// Index of the first journal entry made during the step. A journal at its
// cap drops its oldest entries; then the calls made tell how many are new.
uint32_t first_new(uint32_t count_before, uint32_t calls_before, uint32_t count_now, uint32_t calls_now, uint32_t max)
{
    const uint32_t made =
        count_now < max ? count_now - std::min(count_before, count_now) : std::min(count_now, calls_now - calls_before);
    return count_now - made;
}

std::vector<std::string> split_args(const VornHostTlv &tlv)
{
    std::vector<std::string> args;
    std::string current;
    for (uint16_t i = 0; i < tlv.length; ++i) {
        if (tlv.value[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current += static_cast<char>(tlv.value[i]);
        }
    }
    if (!current.empty()) {
        args.push_back(current);
    }
    return args;
}

std::vector<EventLogEntry> journaled_events()
{
    constexpr uint32_t kArgumentsTlv = 6;
    std::vector<EventLogEntry> entries;
    for (uint32_t i = 0; i < vornhost_eventlog_count(); ++i) {
        VornHostEvent event{};
        if (vornhost_eventlog_get(i, &event) != 0) {
            continue;
        }
        EventLogEntry entry{event.msgId, event.fqdd != nullptr ? event.fqdd : "", {}, event.severity, event.status};
        for (uint32_t t = 0; t < event.tlvCount; ++t) {
            VornHostTlv tlv{};
            if (vornhost_eventlog_tlv(i, t, &tlv) == 0 && tlv.type == kArgumentsTlv) {
                entry.args = split_args(tlv);
            }
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::string seen_results(const std::map<int64_t, uint32_t> &results)
{
    std::string text;
    for (const auto &[result, times] : results) {
        text += (text.empty() ? "answered " : ", ") + std::to_string(result) + " x" + std::to_string(times);
    }
    return text;
}

std::string seen_wires(const std::vector<Wire> &wires, const char *none)
{
    std::string text;
    for (const Wire &wire : wires) {
        text += (text.empty() ? "" : "; ") + hex_bytes(wire.bytes);
    }
    return text.empty() ? none : text;
}

ExpectationResult check(const Expectation &e, const StepReport &report, const Snapshot &regions,
                        const std::vector<TraceLine> &traces)
{
    using Kind = Expectation::Kind;
    ExpectationResult result{e.text, false, ""};
    bool present = false;
    switch (e.kind) {
        case Kind::Result: {
            const auto calls = report.calls.find(e.subject);
            if (calls == report.calls.end()) {
                result.seen = "not called in this step";
                return result;
            }
            result.ok = calls->second.size() == 1 && calls->second.begin()->first == e.value;
            result.seen = seen_results(calls->second);
            return result;
        }
        case Kind::Field: {
            const int64_t value = field_value(regions, *find_field(e.subject));
            result.ok = value == e.value;
            result.seen = std::to_string(value);
            return result;
        }
        case Kind::EventLog:
            for (const EventLogEntry &entry : report.event_log) {
                present = present || (entry.message == e.subject && (!e.fqdd || *e.fqdd == entry.fqdd) &&
                                      (!e.args || *e.args == entry.args));
                result.seen += (result.seen.empty() ? "submitted: " : ", ") + entry.message;
            }
            if (result.seen.empty()) {
                result.seen = "nothing submitted";
            }
            break;
        case Kind::BackplaneWrite:
            for (const Wire &wire : report.backplane_writes) {
                present = present || (wire.type == e.write_type && wire.bytes == e.bytes);
            }
            result.seen = seen_wires(report.backplane_writes, "no backplane writes");
            break;
        case Kind::Ipmi:
            for (const Wire &wire : report.ipmi) {
                present = present || (wire.type == (uint32_t{e.ipmi_command[0]} << 8 | e.ipmi_command[1]) &&
                                      wire.bytes == e.bytes);
            }
            result.seen = seen_wires(report.ipmi, "no IPMI requests");
            break;
        case Kind::Trace:
            for (const TraceLine &line : traces) {
                present = present || line.text.find(e.subject) != std::string::npos;
            }
            result.seen = present ? "such a line" : "no such line";
            break;
    }
    result.ok = present == e.present;
    return result;
}

}  // namespace

void StepReport::line(const char *format, ...)
{
    char text[512];
    std::va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    lines.emplace_back(text);
}

size_t StepReport::failed() const
{
    return static_cast<size_t>(
        std::count_if(expectations.begin(), expectations.end(), [](const ExpectationResult &e) { return !e.ok; }));
}

Simulation::Simulation(Scenario scenario, int level, std::string dir)
    : scenario_(std::move(scenario)), level_(level), dir_(std::move(dir))
{
    if (dir_.empty()) {
        dir_ = make_scratch_dir();
        own_dir_ = true;
    } else {
        std::filesystem::create_directories(dir_);
        dir_ = std::filesystem::absolute(dir_).string();
    }
    for (const char *sub : {"/var/log", "/flash/data0/oem_ps", "/tmp"}) {
        std::filesystem::create_directories(dir_ + sub);
    }
    setenv("RTVOX_ROOT", dir_.c_str(), 1);
    vornhost_reset();
    vornhost_trace_set_level(0);  // every line is captured and shown in the report, none on stderr
    vornhost_trace_capture(1);
    regions_ = take_snapshot();
}

Simulation::~Simulation()
{
    if (started_) {
        stop();
    }
    if (own_dir_) {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
}

// Every step kind the loader accepts has its row here.
const std::map<std::string, Simulation::Handler> &Simulation::handlers()
{
    static const std::map<std::string, Handler> table = {
        {"poll", &Simulation::poll},
        {"disk_added", &Simulation::disk_added},
        {"disk_removed", &Simulation::disk_removed},
        {"disk_changed", &Simulation::disk_changed},
        {"event", &Simulation::event},
        {"fetch", &Simulation::fetch},
        {"submit", &Simulation::submit},
        {"phase", &Simulation::phase},
        {"command_begin", &Simulation::command_begin},
        {"command_end", &Simulation::command_end},
        {"notify", &Simulation::notify},
        {"shm_update", &Simulation::shm_update},
        {"nvme_inventory", &Simulation::nvme_inventory},
        {"hotplug", &Simulation::hotplug},
        {"locate", &Simulation::locate},
        {"pciessd_simulate", &Simulation::pciessd_simulate},
    };
    return table;
}

StepReport Simulation::play(const Step &step, size_t number)
{
    StepReport report = begin(number, step.kind, step.note);
    (this->*handlers().at(step.kind))(step, report);
    finish(report, step.expect);
    return report;
}

StepReport Simulation::start()
{
    StepReport report = begin(0, "start", "the monitoring service starts");
    plant_platform(report);
    rt_log_init();
    report.line("rt_log_init: the diagnostic log starts afresh");
    const uint32_t cache = called(report, "rtcache_Init", rtcache_Init());
    report.line("rtcache_Init answered %u: %u controllers, %u disk and %u virtual-disk slots each", cache, max_adapters,
                max_physicaldevices, max_logicaldevices);
    const int32_t queue = called(report, "rtraid_EventQueue_Init", rtraid_EventQueue_Init());
    const int32_t ready = called(report, "rtraid_EventQueue_SetStatus", rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY));
    report.line("event queue: rtraid_EventQueue_Init answered %d, READY answered %d", queue, ready);
    open_backplane(report);
    const int32_t images = called(report, "RTSHM_InitSharedMem", RTSHM_InitSharedMem());
    report.line("RTSHM_InitSharedMem answered %d: the inventory tables read as not reported", images);
    discover(report);
    set_phase(scenario_.phase, report);
    started_ = true;
    finish(report, {});
    return report;
}

StepReport Simulation::stop()
{
    StepReport report = begin(scenario_.steps.size() + 1, "stop", "the monitoring service stops");
    for (const Controller &controller : scenario_.controllers) {
        take_events(controller.eid, report, false);
    }
    report.line("released %zu event records the service still held", fetched_.size());
    release_fetched();
    rtcache_Destroy();
    report.line("rtcache_Destroy: every cached record and table released");
    close_backplane(report);
    called(report, "rtraid_EventQueue_Destroy", rtraid_EventQueue_Destroy());
    rt_log_Exit();
    report.line("event queue destroyed, diagnostic log closed");
    started_ = false;
    finish(report, {});
    return report;
}

StepReport Simulation::begin(size_t number, const std::string &kind, const std::string &note)
{
    StepReport report;
    report.number = number;
    report.kind = kind;
    report.note = note;
    vornhost_trace_clear();
    vornhost_eventlog_clear();
    bp_writes_ = vornhost_bp_write_count();
    bp_write_calls_ = vornhost_call_count(VORNHOST_VornBpApiWriteExec);
    ipmi_requests_ = vornhost_ipmi_count();
    ipmi_calls_ = vornhost_call_count(VORNHOST_IPMI_DoIPMICmd);
    return report;
}

void Simulation::finish(StepReport &report, const std::vector<Expectation> &expect)
{
    all_traces_.clear();
    for (uint32_t i = 0; i < vornhost_trace_count(); ++i) {
        VornHostTraceLine captured{};
        if (vornhost_trace_get(i, &captured) != 0) {
            continue;
        }
        TraceLine line{captured.level, captured.text};
        if (!line.text.empty() && line.text.back() == '\n') {
            line.text.pop_back();
        }
        if (line.level > level_) {
            ++report.traces_above;
        } else if (!report.traces.empty() && report.traces.back().level == line.level &&
                   report.traces.back().text == line.text) {
            ++report.traces.back().times;
        } else {
            report.traces.push_back(line);
        }
        all_traces_.push_back(std::move(line));
    }
    vornhost_trace_clear();
    report.event_log = journaled_events();

    const uint32_t writes = vornhost_bp_write_count();
    for (uint32_t i = first_new(bp_writes_, bp_write_calls_, writes, vornhost_call_count(VORNHOST_VornBpApiWriteExec),
                                VORNHOST_BP_WRITE_JOURNAL_MAX);
         i < writes; ++i) {
        VornHostBpWrite write{};
        if (vornhost_bp_write_get(i, &write) == 0) {
            report.backplane_writes.push_back(
                {write.writeType, write.status, {write.bytes, write.bytes + write.length}});
        }
    }
    const uint32_t requests = vornhost_ipmi_count();
    for (uint32_t i = first_new(ipmi_requests_, ipmi_calls_, requests, vornhost_call_count(VORNHOST_IPMI_DoIPMICmd),
                                VORNHOST_IPMI_JOURNAL_MAX);
         i < requests; ++i) {
        VornHostIpmiRequest request{};
        if (vornhost_ipmi_get(i, &request) == 0) {
            report.ipmi.push_back({uint32_t{request.netFn} << 8 | request.cmd,
                                   request.status,
                                   {request.data, request.data + request.length}});
        }
    }

    Snapshot now = take_snapshot();
    report.regions = diff(regions_, now);
    regions_ = std::move(now);
    for (const Expectation &e : expect) {
        report.expectations.push_back(check(e, report, regions_, all_traces_));
    }
}

Controller &Simulation::live(uint8_t eid)
{
    for (Controller &controller : scenario_.controllers) {
        if (controller.eid == eid) {
            return controller;
        }
    }
    throw std::logic_error("a step names a controller the loader did not check");
}

}  // namespace rtvoxctl::sim

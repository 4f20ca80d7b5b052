// How a step's report is shown: as lines a person reads, or as one JSON
// object per step (JSON lines).
#include "sim_report.h"

#include <nlohmann/json.hpp>

namespace rtvoxctl::sim {
namespace {

using json = nlohmann::ordered_json;

std::string quoted_list(const std::vector<std::string> &items)
{
    std::string text;
    for (const std::string &item : items) {
        text += (text.empty() ? "\"" : ", \"") + item + "\"";
    }
    return text;
}

std::string title(const StepReport &report)
{
    std::string text = report.kind == "start" || report.kind == "stop"
                           ? report.kind
                           : "step " + std::to_string(report.number) + ": " + report.kind;
    return report.note.empty() ? text : text + " - " + report.note;
}

void print_text(const StepReport &report, FILE *out)
{
    std::fprintf(out, "\n== %s\n", title(report).c_str());
    for (const std::string &line : report.lines) {
        std::fprintf(out, "  %s\n", line.c_str());
    }
    for (const auto &[function, results] : report.calls) {
        std::string text;
        for (const auto &[result, times] : results) {
            text += (text.empty() ? "" : ", ") + std::to_string(result) + " x" + std::to_string(times);
        }
        std::fprintf(out, "  call %s: %s\n", function.c_str(), text.c_str());
    }
    for (const TraceLine &line : report.traces) {
        std::fprintf(out, "  trace L%d %s%s\n", line.level, line.text.c_str(),
                     line.times > 1 ? (" (" + std::to_string(line.times) + " times)").c_str() : "");
    }
    if (report.traces_above != 0) {
        std::fprintf(out, "  (%u trace lines above the chosen level)\n", report.traces_above);
    }
    for (const EventLogEntry &entry : report.event_log) {
        std::fprintf(out, "  event log: %s severity %u for %s, args %s (status %d)\n", entry.message.c_str(),
                     entry.severity, entry.fqdd.empty() ? "no FQDD" : entry.fqdd.c_str(),
                     entry.args.empty() ? "none" : quoted_list(entry.args).c_str(), entry.status);
    }
    for (const Suppressed &entry : report.suppressed) {
        std::fprintf(out, "  suppressed: %s%s (%s)\n", entry.message.c_str(),
                     entry.times > 1 ? (" x" + std::to_string(entry.times)).c_str() : "", entry.reason.c_str());
    }
    for (const Wire &write : report.backplane_writes) {
        std::fprintf(out, "  backplane write type %u: %s (status %u)\n", write.type, hex_bytes(write.bytes).c_str(),
                     write.status);
    }
    for (const Wire &request : report.ipmi) {
        std::fprintf(out, "  IPMI request netfn 0x%02X cmd 0x%02X: %s (status %u)\n", request.type >> 8,
                     request.type & 0xFF, hex_bytes(request.bytes).c_str(), request.status);
    }
    for (const FieldChange &change : report.regions) {
        std::fprintf(out, "  shm %s: %s -> %s\n", change.name.c_str(), change.before.c_str(), change.after.c_str());
    }
    for (const ExpectationResult &e : report.expectations) {
        if (e.ok) {
            std::fprintf(out, "  expect ok: %s\n", e.text.c_str());
        } else {
            std::fprintf(out, "  expect FAILED: %s; seen: %s\n", e.text.c_str(), e.seen.c_str());
        }
    }
}

json to_json(const StepReport &report)
{
    json step = {{"step", report.number}, {"do", report.kind}, {"note", report.note}};
    step["lines"] = report.lines;
    json calls = json::object();
    for (const auto &[function, results] : report.calls) {
        for (const auto &[result, times] : results) {
            calls[function][std::to_string(result)] = times;
        }
    }
    step["calls"] = calls;
    json traces = json::array();
    for (const TraceLine &line : report.traces) {
        traces.push_back({{"level", line.level}, {"text", line.text}, {"times", line.times}});
    }
    step["traces"] = traces;
    step["traces_above"] = report.traces_above;
    json events = json::array();
    for (const EventLogEntry &entry : report.event_log) {
        events.push_back({{"message", entry.message},
                          {"severity", entry.severity},
                          {"fqdd", entry.fqdd},
                          {"args", entry.args},
                          {"status", entry.status}});
    }
    step["event_log"] = events;
    json suppressed = json::array();
    for (const Suppressed &entry : report.suppressed) {
        suppressed.push_back({{"message", entry.message}, {"reason", entry.reason}, {"times", entry.times}});
    }
    step["suppressed"] = suppressed;
    json writes = json::array();
    for (const Wire &write : report.backplane_writes) {
        writes.push_back({{"type", write.type}, {"bytes", hex_bytes(write.bytes)}, {"status", write.status}});
    }
    step["backplane_writes"] = writes;
    json requests = json::array();
    for (const Wire &request : report.ipmi) {
        requests.push_back({{"netfn", request.type >> 8},
                            {"cmd", request.type & 0xFF},
                            {"bytes", hex_bytes(request.bytes)},
                            {"status", request.status}});
    }
    step["ipmi"] = requests;
    json regions = json::array();
    for (const FieldChange &change : report.regions) {
        regions.push_back({{"field", change.name}, {"before", change.before}, {"after", change.after}});
    }
    step["regions"] = regions;
    json expectations = json::array();
    for (const ExpectationResult &e : report.expectations) {
        json item = {{"expect", e.text}, {"ok", e.ok}};
        if (!e.ok) {
            item["seen"] = e.seen;
        }
        expectations.push_back(item);
    }
    step["expectations"] = expectations;
    return step;
}

}  // namespace

void print_step(const StepReport &report, bool as_json, FILE *out)
{
    if (as_json) {
        // Texts from the library are not always UTF-8: replace what is not.
        std::fprintf(out, "%s\n", to_json(report).dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } else {
        print_text(report, out);
    }
}

}  // namespace rtvoxctl::sim

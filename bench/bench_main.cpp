// rtvox_bench [--quick] [--json] [--list] [--log-copies] [FILTER]
//
// Runs every registered benchmark whose name contains FILTER (all without
// one) and prints one line per figure, or with --json one JSON document of
// every figure. Build it without sanitizers for figures worth comparing
// (scripts/bench.sh does).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "bench.h"
#include "vornhost/vornhost.h"

namespace rtvox::bench {
namespace {

struct Entry {
    const char *name;
    BenchFunction function;
};

std::vector<Entry> &registry()
{
    static std::vector<Entry> entries;  // filled during static initialisation
    return entries;
}

void usage(FILE *out)
{
    std::fputs(
        "usage: rtvox_bench [--quick] [--json] [--list] [--log-copies] [FILTER]\n"
        "  FILTER   run only the benchmarks whose name contains FILTER\n"
        "  --quick  short runs (about 0.1 s per figure) for a smoke test\n"
        "  --json   print every figure as one JSON document at the end\n"
        "  --list   print the benchmark names and exit\n"
        "  --log-copies  run with copies to the diagnostic log on (benchmarks\n"
        "           that print a figure with copies on start themselves so)\n",
        out);
}

// A private directory for the library's fixed paths, with copies to the log
// file switched off unless `log_copies`, removed again at the end.
class Sandbox {
public:
    explicit Sandbox(bool log_copies)
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "rtvox-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) {
            dir_ = pattern;
            for (const char *sub : {"/var/log", "/flash/data0/oem_ps", "/tmp"}) {
                std::filesystem::create_directories(dir_ + sub);
            }
            if (!log_copies) {
                std::ofstream(dir_ + "/flash/data0/oem_ps/rt_vox_log_disabled");
            }
            setenv("RTVOX_ROOT", dir_.c_str(), 1);
        }
    }
    ~Sandbox()
    {
        if (!dir_.empty()) {
            unsetenv("RTVOX_ROOT");
            std::error_code ignored;
            std::filesystem::remove_all(dir_, ignored);
        }
    }
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;
    bool ready() const { return !dir_.empty(); }

private:
    std::string dir_;
};

}  // namespace

Registration::Registration(const char *name, BenchFunction function)
{
    registry().push_back({name, function});
}

double Comparison::percent() const
{
    if (value <= 0 || baseline_value <= 0) {
        return 0.0;
    }
    // Both as costs (time per operation, or bytes): a rate's cost is its inverse.
    const double library_cost = rate ? 1.0 / value : value;
    const double baseline_cost = rate ? 1.0 / baseline_value : baseline_value;
    return against == Against::kBaseline ? 100.0 * baseline_cost / library_cost : 100.0 * library_cost / baseline_cost;
}

bool Comparison::goal_met() const
{
    return against == Against::kBaseline ? percent() >= goal_percent : percent() <= goal_percent;
}

namespace {

void print_value(const char *indent, const std::string &label, double value, const std::string &unit)
{
    std::printf(value < 100 ? "%s%s: %.2f %s\n" : "%s%s: %.0f %s\n", indent, label.c_str(), value, unit.c_str());
}

}  // namespace

double Bench::value_with_log_copies(const char *benchmark, const std::string &figure) const
{
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return 0.0;
    }
    const std::string command =
        "'" + self.string() + "' --log-copies --json " + (quick_ ? "--quick " : "") + "'" + benchmark + "'";
    FILE *child = popen(command.c_str(), "r");
    if (child == nullptr) {
        return 0.0;
    }
    std::string output;
    char chunk[4096];
    for (size_t n = 0; (n = std::fread(chunk, 1, sizeof chunk, child)) > 0;) {
        output.append(chunk, n);
    }
    if (pclose(child) != 0) {
        return 0.0;
    }
    const nlohmann::json document = nlohmann::json::parse(output, nullptr, false);
    if (document.is_discarded() || !document.contains("figures")) {
        return 0.0;
    }
    for (const auto &entry : document["figures"]) {
        if (entry.value("name", "") == figure) {
            return entry.value("value", 0.0);
        }
    }
    return 0.0;
}

void Bench::report(const std::string &label, double value, const char *unit)
{
    compare(Comparison{.name = label, .value = value, .unit = unit});
}

void Bench::compare(const Comparison &comparison)
{
    figures_.push_back(comparison);
    if (json_) {
        return;
    }
    const Comparison &c = comparison;
    print_value("", c.name, c.value, c.unit);
    if (!c.baseline.empty()) {
        const bool share = c.against == Against::kBaseline;
        print_value("    ", (share ? "baseline, " : "floor, ") + c.baseline, c.baseline_value, c.unit);
        std::printf("    %s: %.1f %%",
                    share ? "library's share of the baseline's throughput" : "library's cost over the floor's",
                    c.percent());
        if (c.has_goal()) {
            std::printf(" (goal: %s %.0f %%, %s)", share ? "at least" : "at most", c.goal_percent,
                        c.goal_met() ? "met" : "missed");
        }
        std::printf("\n");
    }
    if (!c.rule.empty()) {
        std::printf("    rule: %s\n", c.rule.c_str());
    }
    std::fflush(stdout);
}

std::string Bench::json(bool sanitizers) const
{
    nlohmann::ordered_json figures = nlohmann::ordered_json::array();
    for (const Comparison &c : figures_) {
        nlohmann::ordered_json figure = {{"name", c.name}, {"value", c.value}, {"unit", c.unit}};
        if (!c.baseline.empty()) {
            const bool share = c.against == Against::kBaseline;
            figure["higher_is_better"] = c.rate;
            figure["baseline"] = {
                {"name", c.baseline}, {"value", c.baseline_value}, {"kind", share ? "baseline" : "floor"}};
            figure[c.ratio_name()] = c.percent();
            if (c.has_goal()) {
                figure["goal"] = {{share ? "at_least_percent" : "at_most_percent", c.goal_percent},
                                  {"met", c.goal_met()}};
            }
        }
        if (!c.rule.empty()) {
            figure["rule"] = c.rule;
        }
        figures.push_back(std::move(figure));
    }
    const nlohmann::ordered_json document = {
        {"program", "rtvox_bench"}, {"quick", quick_}, {"sanitizers", sanitizers}, {"figures", std::move(figures)}};
    return document.dump(2);
}

}  // namespace rtvox::bench

int main(int argc, char **argv)
{
    using namespace rtvox::bench;
    bool quick = false;
    bool json = false;
    bool list = false;
    bool log_copies = false;
    std::string filter;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            quick = true;
        } else if (arg == "--json") {
            json = true;
        } else if (arg == "--list") {
            list = true;
        } else if (arg == "--log-copies") {
            log_copies = true;
        } else if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "rtvox_bench: unknown option '%s'\n", arg.c_str());
            usage(stderr);
            return 2;
        } else {
            filter = arg;
        }
    }

    std::vector<Entry> chosen;
    for (const Entry &entry : registry()) {
        if (filter.empty() || std::strstr(entry.name, filter.c_str()) != nullptr) {
            chosen.push_back(entry);
        }
    }
    if (list) {
        for (const Entry &entry : chosen) {
            std::printf("%s\n", entry.name);
        }
        return 0;
    }
    if (chosen.empty()) {
        std::fprintf(stderr, "rtvox_bench: no benchmark matches '%s' (try --list)\n", filter.c_str());
        return 1;
    }

    const Sandbox sandbox(log_copies);
    if (!sandbox.ready()) {
        std::perror("rtvox_bench: mkdtemp");
        return 1;
    }
    vornhost_reset();
    vornhost_trace_set_level(0);  // trace calls are made, nothing is written out
#if defined(__SANITIZE_ADDRESS__)
    constexpr bool sanitizers = true;
    std::fprintf(stderr, "note: built with sanitizers; use a build without them for representative figures\n");
#else
    constexpr bool sanitizers = false;
#endif
    Bench bench(quick, json, log_copies);
    for (const Entry &entry : chosen) {
        entry.function(bench);
    }
    if (json) {
        std::printf("%s\n", bench.json(sanitizers).c_str());
    }
    return 0;
}

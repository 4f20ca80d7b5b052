// rtvox_bench [--quick] [--list] [FILTER]
//
// Runs every registered benchmark whose name contains FILTER (all without
// one) and prints one line per figure. Build it without sanitizers for
// figures worth comparing (the i386-valgrind preset, for instance).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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
        "usage: rtvox_bench [--quick] [--list] [FILTER]\n"
        "  FILTER   run only the benchmarks whose name contains FILTER\n"
        "  --quick  short runs (about 0.1 s per figure) for a smoke test\n"
        "  --list   print the benchmark names and exit\n",
        out);
}

// A private directory for the library's fixed paths, with copies to the log
// file switched off, removed again at the end.
class Sandbox {
public:
    Sandbox()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "rtvox-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) {
            dir_ = pattern;
            for (const char *sub : {"/var/log", "/flash/data0/oem_ps", "/tmp"}) {
                std::filesystem::create_directories(dir_ + sub);
            }
            std::ofstream(dir_ + "/flash/data0/oem_ps/rt_vox_log_disabled");
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

void Bench::report(const std::string &label, double value, const char *unit) const
{
    std::printf(value < 100 ? "%s: %.2f %s\n" : "%s: %.0f %s\n", label.c_str(), value, unit);
    std::fflush(stdout);
}

}  // namespace rtvox::bench

int main(int argc, char **argv)
{
    using namespace rtvox::bench;
    bool quick = false;
    bool list = false;
    std::string filter;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            quick = true;
        } else if (arg == "--list") {
            list = true;
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

    const Sandbox sandbox;
    if (!sandbox.ready()) {
        std::perror("rtvox_bench: mkdtemp");
        return 1;
    }
    vornhost_reset();
    vornhost_trace_set_level(0);  // trace calls are made, nothing is written out
#if defined(__SANITIZE_ADDRESS__)
    std::printf("note: built with sanitizers; use a build without them for representative figures\n");
#endif
    Bench bench(quick);
    for (const Entry &entry : chosen) {
        entry.function(bench);
    }
    return 0;
}

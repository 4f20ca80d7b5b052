// rtvoxctl: drives the rtvox library against the host platform emulation.
//
//   rtvoxctl [demo] [--dir DIR] [--level N]
//   rtvoxctl shm [--json] [--region N]
//
// The demonstration plays the monitoring service's start, work and stop and
// prints an account of it. Every path the library uses lands below DIR (a new
// directory under the system's temporary directory when not given); N is the
// highest trace level shown (default 4). `shm` decodes the shared-memory
// regions another process published (cmd_shm.cpp).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "cmd_shm.h"
#include "demo.h"
#include "vornhost/vornhost.h"

namespace {

void usage(FILE *out)
{
    std::fputs(
        "usage: rtvoxctl [demo] [--dir DIR] [--level N]\n"
        "       rtvoxctl shm [--json] [--region N]\n"
        "  demo        play the monitoring service's start, work and stop against the\n"
        "              host platform and print what happened (the default command);\n"
        "              with VORN_SHM_MODE=posix its shared-memory regions stay in place\n"
        "  shm         decode the shared-memory regions a process published with\n"
        "              VORN_SHM_MODE=posix (rtvoxctl shm --help)\n"
        "  --dir DIR   directory that receives every file the library writes\n"
        "              (default: a new directory under the temporary directory)\n"
        "  --level N   highest trace level shown, 1 to 6 (default 4)\n",
        out);
}

int run_demo(const std::string &dir, int level)
{
    for (const char *sub : {"/var/log", "/flash/data0/oem_ps", "/tmp"}) {
        std::filesystem::create_directories(dir + sub);
    }
    setenv("RTVOX_ROOT", dir.c_str(), 1);
    // Everything the library traces is captured and shown in the account;
    // nothing goes to stderr on the side.
    vornhost_trace_set_level(0);
    vornhost_trace_capture(1);

    rtvoxctl::Demo demo(dir, level);
    std::printf("rtvoxctl demo: the library's files land in %s (trace level %d)\n", dir.c_str(), level);
    rtvoxctl::demo_start(demo);
    rtvoxctl::demo_runtime(demo);
    rtvoxctl::demo_sync(demo);
    rtvoxctl::demo_cache(demo);
    rtvoxctl::demo_events(demo);
    rtvoxctl::demo_shm(demo);
    rtvoxctl::demo_stop(demo);
    std::printf("\nDone. The demo's files stay in %s\n", dir.c_str());
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    std::string dir;
    int level = 4;
    int first = 1;
    if (argc > 1 && std::strcmp(argv[1], "shm") == 0) {
        return rtvoxctl::run_shm(argc - 2, argv + 2);
    }
    if (argc > 1 && std::strcmp(argv[1], "demo") == 0) {
        first = 2;
    }
    for (int i = first; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--dir" && i + 1 < argc) {
            dir = argv[++i];
        } else if (arg == "--level" && i + 1 < argc) {
            level = std::atoi(argv[++i]);
        } else if (arg == "-h" || arg == "--help" || arg == "help") {
            usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "rtvoxctl: unknown argument '%s'\n", arg.c_str());
            usage(stderr);
            return 2;
        }
    }
    if (level < 1 || level > 6) {
        std::fprintf(stderr, "rtvoxctl: --level takes 1 to 6\n");
        return 2;
    }
    if (dir.empty()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "rtvoxctl-demo-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("rtvoxctl: mkdtemp");
            return 1;
        }
        dir = pattern;
    } else {
        std::filesystem::create_directories(dir);
        dir = std::filesystem::absolute(dir).string();
    }
    return run_demo(dir, level);
}

// rtvoxctl: drives the rtvox library against the host platform emulation.
//
//   rtvoxctl [demo] [--dir DIR] [--level N]
//   rtvoxctl simulate SCENARIO.json [--level N] [--json] [--dir DIR]
//   rtvoxctl topology [SCENARIO.json] [--dot]
//   rtvoxctl shm [--json] [--region N]
//
// The demonstration (the default command) plays the monitoring service's
// start, work and stop and prints an account of it. Every path the library
// uses lands below DIR (a new directory under the system's temporary
// directory when not given); N is the highest trace level shown (default 4).
// `rtvoxctl COMMAND --help` tells the options of each command.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "cmd_shm.h"
#include "commands.h"
#include "demo.h"
#include "vornhost/vornhost.h"

namespace {

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
    rtvoxctl::demo_backplane(demo);
    rtvoxctl::demo_eventlog(demo);
    rtvoxctl::demo_pcie(demo);
    rtvoxctl::demo_shm(demo);
    rtvoxctl::demo_stop(demo);
    std::printf("\nDone. The demo's files stay in %s\n", dir.c_str());
    return 0;
}

void add_demo_options(CLI::App &app, std::string &dir, int &level)
{
    app.add_option("--dir", dir,
                   "directory that receives every file the library writes (default: a new directory "
                   "under the temporary directory)");
    app.add_option("--level", level, "highest trace level shown, 1 to 6 (default 4)")->check(CLI::Range(1, 6));
}

int demo(std::string dir, int level)
{
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

}  // namespace

int main(int argc, char **argv)
{
    CLI::App app{"rtvoxctl: drives the rtvox library against the host platform emulation"};
    app.require_subcommand(0, 1);
    std::string dir;
    int level = 4;
    add_demo_options(app, dir, level);
    CLI::App *demo_command = app.add_subcommand(
        "demo",
        "play the monitoring service's start, work and stop against the host platform and print what "
        "happened (the default command)");
    add_demo_options(*demo_command, dir, level);
    int status = 0;
    rtvoxctl::add_simulate_command(app, status);
    rtvoxctl::add_topology_command(app, status);
    rtvoxctl::add_shm_command(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (app.get_subcommands().empty() || demo_command->parsed()) {
        return demo(dir, level);
    }
    return status;
}

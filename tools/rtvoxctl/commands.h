// The rtvoxctl subcommands besides the demonstration. Each adds itself, its
// options and its --help to the command line; `status` receives its exit code.
#pragma once

namespace CLI {
class App;
}

namespace rtvoxctl {

// rtvoxctl simulate SCENARIO.json [--level N] [--json] [--dir DIR]
void add_simulate_command(CLI::App &app, int &status);
// rtvoxctl topology [SCENARIO.json] [--dot]
void add_topology_command(CLI::App &app, int &status);

}  // namespace rtvoxctl

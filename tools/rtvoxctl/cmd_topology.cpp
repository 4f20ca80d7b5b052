// rtvoxctl topology: plays a scenario silently and prints the tree the cache
// and the backplane tables hold before the service stops, as text or as
// Graphviz dot.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "scenario.h"
#include "simulation.h"
#include "topology.h"

namespace rtvoxctl {
namespace {

// The scenario shown without a file: one RAID controller, a backplane with
// four disks, a mirror over two of them.
constexpr const char *kExample = R"({
  "name": "example",
  "controllers": [
    {
      "eid": 16, "kind": "TAVO", "status": [1, 2],
      "battery": {"state": 1},
      "enclosures": [{"key": 32, "kind": "backplane", "position": 1}],
      "disks": [
        {"key": 0, "enclosure": 32, "size_gib": 960, "media": "ssd"},
        {"key": 1, "enclosure": 32, "size_gib": 960, "media": "ssd"},
        {"key": 2, "enclosure": 32, "size_gib": 4000},
        {"key": 3, "enclosure": 32, "size_gib": 4000, "hotspare": true}
      ],
      "virtual_disks": [{"key": 0, "size_gib": 960, "members": [0, 1]}]
    }
  ],
  "steps": [
    {"do": "poll", "note": "first poll pass"},
    {"do": "disk_changed", "controller": 16, "key": 2, "set": {"state": 2}},
    {"do": "event", "controller": 16, "object": "disk", "key": 2, "message": "PDR5", "args": ["Disk 2 in Backplane 1"]},
    {"do": "fetch", "expect": [{"result": "rtcache_GetCachedEvents", "is": 0}]},
    {"do": "submit", "expect": [{"event_log": "PDR5", "args": ["Disk 2 in Backplane 1"]}]}
  ]
})";

struct TopologyOptions {
    std::string scenario;
    bool dot = false;
};

int run_topology(const TopologyOptions &options)
{
    sim::Scenario scenario;
    try {
        scenario = options.scenario.empty() ? sim::parse_scenario(kExample, "(built-in example)")
                                            : sim::load_scenario(options.scenario);
    } catch (const sim::ScenarioError &error) {
        std::fprintf(stderr, "rtvoxctl topology: %s\n", error.what());
        return 2;
    }
    std::vector<TopologyNode> roots;
    try {
        sim::Simulation simulation(std::move(scenario), 0, "");
        simulation.start();
        const std::vector<sim::Step> &steps = simulation.scenario().steps;
        for (size_t i = 0; i < steps.size(); ++i) {
            simulation.play(steps[i], i + 1);
        }
        roots = read_topology();
        simulation.stop();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "rtvoxctl topology: %s\n", error.what());
        return 1;
    }
    if (options.dot) {
        print_topology_dot(roots, stdout);
    } else {
        print_topology_text(roots, stdout);
    }
    return 0;
}

}  // namespace

void add_topology_command(CLI::App &app, int &status)
{
    auto options = std::make_shared<TopologyOptions>();
    CLI::App *command =
        app.add_subcommand("topology",
                           "play a scenario and print the storage tree the cache and the backplane tables hold at its "
                           "end (controllers, enclosures, drives, virtual disks; PCIe extenders, NVMe backplanes, "
                           "bays and slots; PCIe SSD slots), with FQDDs and states");
    command->add_option("scenario", options->scenario, "the scenario file, JSON (default: a built-in example)");
    command->add_flag("--dot", options->dot, "print a Graphviz digraph instead of the indented tree");
    command->callback([options, &status] { status = run_topology(*options); });
}

}  // namespace rtvoxctl

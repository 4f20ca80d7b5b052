// rtvoxctl simulate: plays a scenario and prints a report per step; exits 1
// when an expectation failed and 2 when the scenario cannot be run at all.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "scenario.h"
#include "sim_report.h"
#include "simulation.h"

namespace rtvoxctl {
namespace {

struct SimulateOptions {
    std::string scenario;
    int level = 2;
    bool json = false;
    std::string dir;
};

int run_simulate(const SimulateOptions &options)
{
    sim::Scenario scenario;
    try {
        scenario = sim::load_scenario(options.scenario);
    } catch (const sim::ScenarioError &error) {
        std::fprintf(stderr, "rtvoxctl simulate: %s\n", error.what());
        return 2;
    }
    size_t expectations = 0;
    size_t failed = 0;
    const auto show = [&](const sim::StepReport &report) {
        sim::print_step(report, options.json, stdout);
        expectations += report.expectations.size();
        failed += report.failed();
    };
    try {
        sim::Simulation simulation(std::move(scenario), options.level, options.dir);
        const std::vector<sim::Step> &steps = simulation.scenario().steps;
        if (!options.json) {
            std::printf("scenario %s: %zu steps; the library's files land in %s\n", simulation.scenario().name.c_str(),
                        steps.size(), simulation.dir().c_str());
        }
        show(simulation.start());
        for (size_t i = 0; i < steps.size(); ++i) {
            show(simulation.play(steps[i], i + 1));
        }
        show(simulation.stop());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "rtvoxctl simulate: %s\n", error.what());
        return 1;
    }
    if (!options.json) {
        std::printf("\n%s: %zu expectations, %zu failed\n", failed == 0 ? "passed" : "FAILED", expectations, failed);
    }
    return failed == 0 ? 0 : 1;
}

}  // namespace

void add_simulate_command(CLI::App &app, int &status)
{
    auto options = std::make_shared<SimulateOptions>();
    CLI::App *command = app.add_subcommand(
        "simulate", "play a scenario (hardware and a timeline of steps) through the library and the host platform");
    command->add_option("scenario", options->scenario, "the scenario file, JSON (see docs/scenario-format.md)")
        ->required();
    command->add_option("--level", options->level, "highest trace level shown, 0 (none) to 6; default 2")
        ->check(CLI::Range(0, 6));
    command->add_flag("--json", options->json, "print one JSON object per step (JSON lines) instead of text");
    command->add_option("--dir", options->dir,
                        "directory that receives the library's files (default: a temporary directory, removed "
                        "afterwards)");
    command->callback([options, &status] { status = run_simulate(*options); });
}

}  // namespace rtvoxctl

// Output of `rtvoxctl simulate`: one step's report as text or as a JSON line.
#pragma once

#include <cstdio>

#include "simulation.h"

namespace rtvoxctl::sim {

void print_step(const StepReport &report, bool as_json, FILE *out);

}  // namespace rtvoxctl::sim

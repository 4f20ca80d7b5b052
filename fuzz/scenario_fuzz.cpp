// Scenario files for `rtvoxctl simulate`: the loader answers any text with a
// scenario or a ScenarioError; any other exception or a crash is a finding.
// Accepted scenarios are not played (a run takes far longer than a parse).
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "scenario.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rtvox::fuzz::private_root();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    try {
        rtvoxctl::sim::parse_scenario(text, "fuzz.json");
    } catch (const rtvoxctl::sim::ScenarioError &) {
        // a clean refusal
    }
    return 0;
}

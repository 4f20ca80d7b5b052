// rtvoxctl shm: the shared-memory inspector, and its decoders for the
// demonstration.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

namespace CLI {
class App;
}

namespace rtvoxctl {

// rtvoxctl shm [--json] [--region N]: decodes the regions another process
// published through the host platform in POSIX mode. `status` receives 0, or
// 1 when a region does not exist or has the wrong size; the parser refuses a
// bad command line (exit code 2).
void add_shm_command(CLI::App &app, int &status);

// Prints region `id` decoded from its bytes (all of the region, as the
// platform sizes it) as text, the way `rtvoxctl shm` shows it. False when
// there is no decoder for the region.
bool print_region(FILE *out, uint32_t id, const std::vector<uint8_t> &bytes);

}  // namespace rtvoxctl

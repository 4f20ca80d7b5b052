// The storage tree the object cache and the backplane tables hold:
// controllers with their battery, enclosures and backplanes with their drives,
// and virtual disks; PCIe extenders with the NVMe backplanes behind them and
// their slots, NVMe bays not inventoried yet; PCIe SSD slots as region 20
// describes them. Shown as an indented tree or as a Graphviz digraph.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace rtvoxctl {

struct TopologyNode {
    std::string label;  // "controller EID 16 (TAVO)", "disk 3", ...
    std::string fqdd;
    std::string state;  // "" when there is nothing to tell
    std::vector<TopologyNode> children;
};

// Reads the cache under its lock. Call while the cache is initialised.
std::vector<TopologyNode> read_topology();
// The NVMe part of it alone: extenders, backplanes, bays and their slots.
std::vector<TopologyNode> read_nvme_topology();

// The indented tree, one line per node.
std::vector<std::string> topology_lines(const std::vector<TopologyNode> &roots);

void print_topology_text(const std::vector<TopologyNode> &roots, FILE *out);
void print_topology_dot(const std::vector<TopologyNode> &roots, FILE *out);

}  // namespace rtvoxctl

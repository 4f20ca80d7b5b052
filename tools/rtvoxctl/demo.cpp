#include "demo.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "rtvox/rt_cache.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {

void Demo::section(const std::string &title)
{
    std::printf("\n== %s ==\n", title.c_str());
}

void Demo::say(const char *format, ...)
{
    std::va_list args;
    va_start(args, format);
    std::fputs("  ", stdout);
    std::vprintf(format, args);
    std::fputc('\n', stdout);
    va_end(args);
}

void Demo::traces()
{
    const uint32_t count = vornhost_trace_count();
    uint32_t shown = 0;
    for (uint32_t i = 0; i < count; ++i) {
        VornHostTraceLine line{};
        if (vornhost_trace_get(i, &line) != 0 || line.level > level_) {
            continue;
        }
        std::string text = line.text;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        std::printf("    trace L%d: %s\n", line.level, text.c_str());
        ++shown;
    }
    if (count > shown) {
        std::printf("    (%u more trace lines above level %d)\n", count - shown, level_);
    }
    vornhost_trace_clear();
}

void Demo::show_file(const std::string &absolute, const std::string &title)
{
    std::ifstream in(path(absolute));
    if (!in) {
        say("%s: %s does not exist", title.c_str(), absolute.c_str());
        return;
    }
    say("%s (%s):", title.c_str(), absolute.c_str());
    std::string line;
    while (std::getline(in, line)) {
        std::printf("    | %s\n", line.c_str());
    }
}

void Demo::touch(const std::string &absolute, const std::string &content) const
{
    const std::filesystem::path real(path(absolute));
    std::filesystem::create_directories(real.parent_path());
    std::ofstream(real, std::ios::trunc) << content;
}

RtCachePdNode *new_pd_node(uint32_t objType, void *record)
{
    auto *node = static_cast<RtCachePdNode *>(rtvox_alloc(sizeof(RtCachePdNode)));
    auto *entry = static_cast<RtCachePdEntry *>(rtvox_alloc(sizeof(RtCachePdEntry)));
    node->objType = objType;
    node->enclObj = entry;
    if (objType == RTCACHE_PDNODE_PHYSICALDISK) {
        entry->enclType.physicalDisk.Obj = static_cast<RtPhysicalDisk *>(record);
    } else {
        entry->enclType.backPlane.Obj = static_cast<RtEnclosure *>(record);
    }
    return node;
}

}  // namespace rtvoxctl

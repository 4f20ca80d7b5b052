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
    if (node == nullptr || entry == nullptr) {
        rtvox_free(node);
        rtvox_free(entry);
        return nullptr;
    }
    node->objType = objType;
    node->enclObj = entry;
    if (objType == RTCACHE_PDNODE_PHYSICALDISK) {
        entry->enclType.physicalDisk.Obj = static_cast<RtPhysicalDisk *>(record);
    } else {
        entry->enclType.backPlane.Obj = static_cast<RtEnclosure *>(record);
    }
    return node;
}

void release_pd_node(void *object)
{
    auto *node = static_cast<RtCachePdNode *>(object);
    if (node == nullptr) {
        return;
    }
    if (RtCachePdEntry *entry = node->enclObj; entry != nullptr) {
        rtcache_FreeRMObjects(entry->enclType.physicalDisk.Obj, 1);
        const auto release_group = [](auto &slots) {
            for (auto *&element : slots) {
                rtcache_FreeRMObjects(element, 1);
                element = nullptr;
            }
        };
        release_group(entry->apEMM);
        release_group(entry->apFan);
        release_group(entry->apPSU);
        release_group(entry->apTempProbe);
        rtvox_free(entry);
    }
    rtvox_free(node);
}

}  // namespace rtvoxctl

#include "fuzz_support.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "vornhost/vornhost.h"

namespace rtvox::fuzz {

const std::string &private_root()
{
    static const std::string root = [] {
        static char dir[] = "/tmp/rtvox-fuzz-XXXXXX";
        if (mkdtemp(dir) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        std::filesystem::create_directories(std::string(dir) + "/flash/data0/oem_ps");
        std::filesystem::create_directories(std::string(dir) + "/tmp");
        std::ofstream(std::string(dir) + "/flash/data0/oem_ps/rt_vox_log_disabled");
        setenv("RTVOX_ROOT", dir, 1);
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        });
        // The library traces a lot: none of it on stderr, unless VORN_TRACE_LEVEL
        // asks for it (to follow a finding while reproducing it).
        if (std::getenv("VORN_TRACE_LEVEL") == nullptr) {
            vornhost_trace_set_level(0);
        }
        return std::string(dir);
    }();
    return root;
}

void write_file(const std::string &path, const uint8_t *data, size_t size)
{
    const std::filesystem::path full = private_root() + path;
    std::filesystem::create_directories(full.parent_path());
    std::ofstream out(full, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
}

}  // namespace rtvox::fuzz

// The two simulation input files under the private root: the input's first
// byte says which exist (bit 0 the status file, bit 1 the FRU file; bit 2
// plants a symbolic link at the status path instead), its second byte is the
// status file's length; the status text follows and the FRU file gets the
// rest. Region 20 describes four present drives whose presence sequence
// changes with every input, so the simulation rewrites regions 20 and 26 each
// time.
#include <cstdint>
#include <cstdio>
#include <filesystem>

#include "fuzz_support.h"
#include "rtvox/platform.h"
#include "rtvox/rt_shm.h"

namespace {

void place(const char *path, bool present, const uint8_t *bytes, size_t size)
{
    const std::string full = rtvox::fuzz::private_root() + path;
    std::error_code ignored;
    std::filesystem::remove(full, ignored);
    if (present) {
        rtvox::fuzz::write_file(path, bytes, size);
    }
}

void describe_drives()
{
    static uint8_t sequence = 0;
    RtShmPcieSsdBp bp{};
    bp.u8SlotCount = 4;
    bp.u8PresenceSeq = ++sequence;
    for (uint8_t slot = 0; slot < bp.u8SlotCount; ++slot) {
        bp.asSlot[slot] = {1, slot, 1, 1};
    }
    Vorn_shm_memwrite(RTSHM_PCIESSD_BP_REGION, &bp, 0, sizeof bp);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rtvox::fuzz::private_root();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rtvox::fuzz::Input in(data, size);
    const auto flags = in.take<uint8_t>();
    const uint8_t *status = nullptr;
    const size_t statusSize = in.take_bytes(&status, in.take<uint8_t>());
    const uint8_t *fru = nullptr;
    const size_t fruSize = in.take_bytes(&fru);

    place(RTSHM_PCIESSD_STATUS_FILE, (flags & 1) != 0, status, statusSize);
    place(RTSHM_PCIESSD_FRU_FILE, (flags & 2) != 0, fru, fruSize);
    if ((flags & 4) != 0) {
        const std::string link = rtvox::fuzz::private_root() + RTSHM_PCIESSD_STATUS_FILE;
        std::error_code ignored;
        std::filesystem::remove(link, ignored);
        std::filesystem::create_symlink(rtvox::fuzz::private_root() + RTSHM_PCIESSD_FRU_FILE, link, ignored);
    }

    ReadStatusFile();
    uint8_t buffer[RTSHM_PCIESSD_FRU_BYTES];
    ReadFRUFile(buffer);
    describe_drives();
    RTSHM_PCIeSSDSimulate();
    return 0;
}

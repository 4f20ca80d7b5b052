// The delayed-event store and its purge, with arbitrary counts in the stores.
// Two adapters are registered (a controller and a PCIe SSD element). The
// input is a list of operations, each a byte whose low bits choose:
//   0 park an event:      u8 EID, u16 objType, u16 eventType, u32 objKey
//   1 purge:              u8 EID, u32 dcmdOpcode
//   2 poke a delayed count word, as another thread could leave it: u8 index, u32 count
//   3 poke an actual ring count word: u8 index, u32 count
//   4 fetch the EID's events (the cache hands the blocks over; they are freed)
// The park and purge run under the cache lock, as the service calls them.
// Every input starts from empty stores.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"
#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"

namespace {

constexpr uint8_t kEids[] = {0x10, 0x30};  // registry slots 0 and 1
constexpr uint8_t kTypes[] = {RTCACHE_EIDTYPE_TAVO, RTCACHE_EIDTYPE_PCIESSD};

class Locked {
public:
    Locked()
    {
        if (rtcache_GetLock() != 0) {
            std::abort();
        }
    }
    ~Locked() { SMMutexUnLock(mutexRtCache); }
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
};

void empty_stores()
{
    for (uint32_t index = 0; index < std::size(kEids); ++index) {
        std::memset(&cache_Events[index], 0, sizeof cache_Events[index]);
        std::memset(&cache_Events_PD_ChObj[index], 0, sizeof cache_Events_PD_ChObj[index]);
        std::memset(&cache_Events_delayed[index], 0, sizeof cache_Events_delayed[index]);
        std::memset(&cache_Events_PD_ChObj_delayed[index], 0, sizeof cache_Events_PD_ChObj_delayed[index]);
    }
}

void fetch(uint32_t eid)
{
    RtCacheEventBlock *events = nullptr;
    RtCachePdChObjBlock *chobj = nullptr;
    if (rtcache_GetCachedEvents(eid, &events, &chobj) == 0) {
        rtvox_free(events);  // parked events carry no record: nothing else to release
        rtvox_free(chobj);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rtvox::fuzz::private_root();
    if (rtcache_Init() != 0) {
        std::fputs("delayed_purge_fuzz: no cache\n", stderr);
        std::abort();
    }
    for (uint8_t slot = 0; slot < std::size(kEids); ++slot) {
        uint8_t eid = kEids[slot];
        Locked lock;
        if (rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, slot, &eid) != 0) {
            std::abort();
        }
    }
    for (uint8_t slot = 0; slot < std::size(kEids); ++slot) {
        rtcache_SetStorageEIDType(kEids[slot], kTypes[slot]);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rtvox::fuzz::Input in(data, size);
    empty_stores();
    while (in.remaining() != 0) {
        switch (in.take<uint8_t>() % 5) {
            case 0: {
                const auto eid = in.take<uint8_t>();
                const auto objType = in.take<uint16_t>();
                const auto eventType = in.take<uint16_t>();
                const auto objKey = in.take<uint32_t>();
                Locked lock;
                rtcache_SetDelayedCachedEvent(eid, objType, eventType, objKey);
                break;
            }
            case 1: {
                const auto eid = in.take<uint8_t>();
                const auto opcode = in.take<uint32_t>();
                Locked lock;
                rtcache_PurgeDelayedCachedEvents(eid, opcode);
                break;
            }
            case 2: {
                const uint32_t index = in.take<uint8_t>() % std::size(kEids);
                cache_Events_delayed[index].u32Count = in.take<uint32_t>();
                break;
            }
            case 3: {
                const uint32_t index = in.take<uint8_t>() % std::size(kEids);
                cache_Events[index].u32Count = in.take<uint32_t>();
                break;
            }
            default:
                fetch(kEids[in.take<uint8_t>() % std::size(kEids)]);
                break;
        }
    }
    return 0;
}

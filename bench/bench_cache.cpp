// A full poll pass through the object cache on the default limits: 30
// controllers registered, 255 physical disks and 32 virtual disks each, every
// record with its name, FQDD, key id and lists. Per controller the pass takes
// the cache lock, deep-copies each record, stores the copy (a disk's into its
// node in the physical-disk table) and releases the copy it replaces, as the
// monitoring service does.
//
// Beside it, in the same run, a floor: the same bytes and strings moved with
// nothing but calloc and memcpy (and free for what a copy replaces), kept in
// a plain table. Heap bytes per record are read from the allocator
// (mallinfo2), so they include its own per-block overhead; builds with
// sanitizers replace the allocator and report 0 there.
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "bench.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kControllers = 30;
constexpr uint32_t kDisks = 255;
constexpr uint32_t kVirtualDisks = 32;
constexpr uint32_t kListEntries = 4;
constexpr uint32_t kRecordsPerPass = kControllers * (kDisks + kVirtualDisks);

uint8_t eid_of(uint32_t controller)
{
    return static_cast<uint8_t>(10 + controller);
}

// A source record as the controller layer hands it over, with the texts and
// arrays it points at.
struct DiskSource {
    std::wstring name;
    std::wstring fqdd;
    char keyId[RTRAID_KEYID_SIZE] = {};
    uint32_t list[kListEntries] = {};
    RtPhysicalDisk record{};
};

struct VirtualDiskSource {
    std::wstring name;
    std::wstring fqdd;
    int32_t targets[kListEntries] = {};
    RtVirtualDisk record{};
};

struct Sources {
    std::vector<std::unique_ptr<DiskSource>> disks;                // [controller * kDisks + key]
    std::vector<std::unique_ptr<VirtualDiskSource>> virtualDisks;  // [controller * kVirtualDisks + key]
};

Sources make_sources()
{
    Sources sources;
    for (uint32_t c = 0; c < kControllers; ++c) {
        const std::wstring controller = L"RAID.Slot." + std::to_wstring(c + 1) + L"-1";
        for (uint32_t key = 0; key < kDisks; ++key) {
            auto source = std::make_unique<DiskSource>();
            source->name = L"Physical Disk 0:1:" + std::to_wstring(key);
            source->fqdd = L"Disk.Bay." + std::to_wstring(key) + L":Enclosure.Internal.0-1:" + controller;
            std::snprintf(source->keyId, sizeof source->keyId, "KEYID-%02u-%03u-0123456789ABCDEF", c, key);
            for (uint32_t i = 0; i < kListEntries; ++i) {
                source->list[i] = key * kListEntries + i;
            }
            RtPhysicalDisk &record = source->record;
            record.objType = RTRAID_OBJTYPE_PHYSICALDISK;
            record.NAME = source->name.data();
            record.hdr.VERSION = 1;
            record.hdr.FQDD = source->fqdd.data();
            record.id = key;
            record.Slot = static_cast<uint8_t>(key);
            record.keyId = source->keyId;
            record.listCount = kListEntries;
            record.listEntries = source->list;
            sources.disks.push_back(std::move(source));
        }
        for (uint32_t key = 0; key < kVirtualDisks; ++key) {
            auto source = std::make_unique<VirtualDiskSource>();
            source->name = L"Virtual Disk " + std::to_wstring(key);
            source->fqdd = L"Disk.Virtual." + std::to_wstring(key) + L":" + controller;
            for (uint32_t i = 0; i < kListEntries; ++i) {
                source->targets[i] = static_cast<int32_t>(key * kListEntries + i);
            }
            RtVirtualDisk &record = source->record;
            record.objType = RTRAID_OBJTYPE_LOGICALDISK;
            record.NAME = source->name.data();
            record.hdr.VERSION = 1;
            record.hdr.FQDD = source->fqdd.data();
            record.targetCount = kListEntries;
            record.targetIDs = source->targets;
            sources.virtualDisks.push_back(std::move(source));
        }
    }
    return sources;
}

// ---- the cache ------------------------------------------------------------------------

bool set_up_cache()
{
    if (rtcache_Init() != 0) {
        return false;
    }
    for (uint32_t c = 0; c < kControllers; ++c) {
        uint8_t eid = eid_of(c);
        if (rtcache_GetLock() != 0) {
            return false;
        }
        const uint32_t rc = rtcache_SetCachedObject(RTCACHE_KEY_STORAGEEID, eid, c, &eid);
        SMMutexUnLock(mutexRtCache);
        if (rc != 0 || rtcache_SetStorageEIDType(eid, RTCACHE_EIDTYPE_TAVO) != 0) {
            return false;
        }
    }
    return true;
}

// One poll pass: copy, store, and release the copy that was there (if any).
// A disk's copy goes into its node: a new node and cache entry the first
// time, a swap of the node's record afterwards.
void cache_pass(const Sources &sources)
{
    for (uint32_t c = 0; c < kControllers; ++c) {
        const uint8_t eid = eid_of(c);
        rtcache_GetLock();
        for (uint32_t key = 0; key < kDisks; ++key) {
            auto *copy = static_cast<RtPhysicalDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
            rtraid_dupPD(&sources.disks[c * kDisks + key]->record, copy);
            void *object = nullptr;
            rtcache_GetCachedObject(RTCACHE_KEY_PD, eid, key, &object);
            if (auto *node = static_cast<RtCachePdNode *>(object); node != nullptr) {
                RtPhysicalDisk *old = node->enclObj->enclType.physicalDisk.Obj;
                node->enclObj->enclType.physicalDisk.Obj = copy;
                rtcache_FreeRMObjects(old, 1);
            } else {
                node = static_cast<RtCachePdNode *>(rtvox_alloc(sizeof(RtCachePdNode)));
                node->objType = RTCACHE_PDNODE_PHYSICALDISK;
                node->enclObj = static_cast<RtCachePdEntry *>(rtvox_alloc(sizeof(RtCachePdEntry)));
                node->enclObj->enclType.physicalDisk.Obj = copy;
                rtcache_SetCachedObject(RTCACHE_KEY_PD, eid, key, node);
            }
        }
        for (uint32_t key = 0; key < kVirtualDisks; ++key) {
            auto *copy = static_cast<RtVirtualDisk *>(rtvox_alloc(RTRAID_RECORD_SIZE));
            rtraid_DupVD(&sources.virtualDisks[c * kVirtualDisks + key]->record, copy);
            void *old = nullptr;
            rtcache_GetCachedObject(RTCACHE_KEY_VD, eid, key, &old);
            rtcache_SetCachedObject(RTCACHE_KEY_VD, eid, key, copy);
            if (old != nullptr) {
                rtcache_FreeRMObjects(old, 1);
            }
        }
        SMMutexUnLock(mutexRtCache);
    }
}

void cache_release()
{
    for (uint32_t c = 0; c < kControllers; ++c) {
        rtcache_FreeObjectLevel(eid_of(c), RTCACHE_LEVEL_PDS);
        rtcache_FreeObjectLevel(eid_of(c), RTCACHE_LEVEL_VDS);
    }
}

// ---- the floor: the same bytes with calloc and memcpy ------------------------------------

struct PlainCopy {
    void *record = nullptr;
    void *members[4] = {};
    void *holders[2] = {};  // a disk's node and cache entry, kept across replacements
};

void *plain_copy(const void *source, size_t bytes)
{
    void *block = std::calloc(1, bytes);
    std::memcpy(block, source, bytes);
    return block;
}

void *plain_text(const wchar_t *text)
{
    return plain_copy(text, (std::wcslen(text) + 1) * sizeof(wchar_t));
}

void plain_free(PlainCopy &copy)
{
    for (void *&member : copy.members) {
        std::free(member);
        member = nullptr;
    }
    std::free(copy.record);
    copy.record = nullptr;
}

void floor_pass(const Sources &sources, std::vector<PlainCopy> &table)
{
    size_t slot = 0;
    for (uint32_t c = 0; c < kControllers; ++c) {
        for (uint32_t key = 0; key < kDisks; ++key, ++slot) {
            const DiskSource &source = *sources.disks[c * kDisks + key];
            PlainCopy copy;
            copy.record = plain_copy(&source.record, RTRAID_RECORD_SIZE);
            copy.members[0] = plain_text(source.record.NAME);
            copy.members[1] = plain_text(source.record.hdr.FQDD);
            copy.members[2] = plain_copy(source.keyId, RTRAID_KEYID_SIZE);
            copy.members[3] = plain_copy(source.list, sizeof source.list);
            plain_free(table[slot]);
            if (table[slot].holders[0] == nullptr) {
                table[slot].holders[0] = std::calloc(1, sizeof(RtCachePdNode));
                table[slot].holders[1] = std::calloc(1, sizeof(RtCachePdEntry));
            }
            table[slot].record = copy.record;
            std::memcpy(table[slot].members, copy.members, sizeof copy.members);
        }
        for (uint32_t key = 0; key < kVirtualDisks; ++key, ++slot) {
            const VirtualDiskSource &source = *sources.virtualDisks[c * kVirtualDisks + key];
            PlainCopy copy;
            copy.record = plain_copy(&source.record, RTRAID_RECORD_SIZE);
            copy.members[0] = plain_text(source.record.NAME);
            copy.members[1] = plain_text(source.record.hdr.FQDD);
            copy.members[2] = plain_copy(source.targets, sizeof source.targets);
            plain_free(table[slot]);
            table[slot] = copy;
        }
    }
}

void floor_release(std::vector<PlainCopy> &table)
{
    for (PlainCopy &copy : table) {
        plain_free(copy);
        for (void *&holder : copy.holders) {
            std::free(holder);
            holder = nullptr;
        }
    }
}

// ---- measurement ---------------------------------------------------------------------------

size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

struct Phases {
    Clock::duration fill{};
    Clock::duration replace{};
    Clock::duration release{};
    uint64_t cycles = 0;
    double heapPerRecord = 0;
};

// Runs fill, replace and release cycles until the budget is spent; the heap
// figure comes from the first fill.
template <typename Fill, typename Release>
Phases measure(const rtvox::bench::Bench &bench, Fill fill, Release release)
{
    Phases phases;
    const auto end = Clock::now() + bench.budget() * 2;
    do {
        const size_t heapBefore = heap_in_use();
        const auto t0 = Clock::now();
        fill();
        const auto t1 = Clock::now();
        if (phases.cycles == 0) {
            phases.heapPerRecord = static_cast<double>(heap_in_use() - heapBefore) / kRecordsPerPass;
        }
        fill();  // every slot is occupied now: a replacing pass
        const auto t2 = Clock::now();
        release();
        const auto t3 = Clock::now();
        phases.fill += t1 - t0;
        phases.replace += t2 - t1;
        phases.release += t3 - t2;
        ++phases.cycles;
    } while (Clock::now() < end);
    return phases;
}

double records_per_second(const Phases &phases, Clock::duration elapsed)
{
    return rtvox::bench::Bench::per_second(phases.cycles * kRecordsPerPass, elapsed);
}

}  // namespace

RTVOX_BENCH(cache_poll_pass)
{
    const Sources sources = make_sources();
    if (!set_up_cache()) {
        std::fprintf(stderr, "cache_poll_pass: the cache could not be set up\n");
        rtcache_Destroy();
        return;
    }
    const Phases cache = measure(
        bench, [&] { cache_pass(sources); }, [] { cache_release(); });
    rtcache_Destroy();

    std::vector<PlainCopy> table(kRecordsPerPass);
    const Phases floor = measure(
        bench, [&] { floor_pass(sources, table); }, [&] { floor_release(table); });

    const std::string pass = " (30 controllers x (255 PDs + 32 VDs) = 8610 records)";
    bench.report("cache poll pass, copy + store into empty slots" + pass, records_per_second(cache, cache.fill),
                 "records/s");
    bench.report("cache poll pass, copy + store + release the replaced copy", records_per_second(cache, cache.replace),
                 "records/s");
    bench.report("cache release of every disk (rtcache_FreeObjectLevel 3 and 4)",
                 records_per_second(cache, cache.release), "records/s");
    bench.report("floor, calloc + memcpy of the same bytes and strings", records_per_second(floor, floor.fill),
                 "records/s");
    bench.report("floor, calloc + memcpy + free of the replaced copy", records_per_second(floor, floor.replace),
                 "records/s");
    bench.report("floor, free of every copy", records_per_second(floor, floor.release), "records/s");
    bench.report("cache heap bytes per cached record", cache.heapPerRecord, "bytes/record");
    bench.report("floor heap bytes per record", floor.heapPerRecord, "bytes/record");
    bench.report("cache replace pass against the floor",
                 100.0 * std::chrono::duration<double>(cache.replace).count() / static_cast<double>(cache.cycles) /
                     (std::chrono::duration<double>(floor.replace).count() / static_cast<double>(floor.cycles)),
                 "% of the floor's time");
}

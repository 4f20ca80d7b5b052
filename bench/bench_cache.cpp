// A full poll pass through the object cache on the default limits: 30
// controllers registered, 255 physical disks and 32 virtual disks each, every
// record with its name, FQDD, key id and lists. Per controller the pass takes
// the cache lock, deep-copies each record, stores the copy (a disk's into its
// node in the physical-disk table) and releases the copy it replaces, as the
// monitoring service does.
//
// Beside it, in the same run, a floor: the same bytes and strings moved with
// nothing but calloc and memcpy (and free for what a copy replaces), kept in
// a plain table. With copies to the diagnostic log off (the marker file
// present) the replacing pass is held to at most 150 % of the floor's time;
// the same pass with copies on, which opens and closes the log file for
// every copied line, is measured in a child process beside it.
//
// Memory: the peak of the heap the cache holds (its tables at the default
// limits and every copy, through one filling and one replacing pass), counted
// through the benchmark's calloc and free wrappers, against the bytes of the
// copied records, texts, key ids and lists themselves.
#include <algorithm>
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
using rtvox::bench::controller_eid;
using rtvox::bench::ns_per;

constexpr uint32_t kControllers = 30;
constexpr uint32_t kDisks = 255;
constexpr uint32_t kVirtualDisks = 32;
constexpr uint32_t kListEntries = 4;
constexpr uint32_t kRecordsPerPass = kControllers * (kDisks + kVirtualDisks);

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

// One poll pass: copy, store, and release the copy that was there (if any).
// A disk's copy goes into its node: a new node and cache entry the first
// time, a swap of the node's record afterwards.
void cache_pass(const Sources &sources)
{
    for (uint32_t c = 0; c < kControllers; ++c) {
        const uint8_t eid = controller_eid(c);
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
        rtcache_FreeObjectLevel(controller_eid(c), RTCACHE_LEVEL_PDS);
        rtcache_FreeObjectLevel(controller_eid(c), RTCACHE_LEVEL_VDS);
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

// The shortest time of each phase over the cycles run: a busy machine only
// ever slows a pass down.
struct Phases {
    Clock::duration fill = Clock::duration::max();
    Clock::duration replace = Clock::duration::max();
    Clock::duration release = Clock::duration::max();
};

// One cycle: a pass into empty slots, a replacing pass, the release.
template <typename Fill, typename Release>
void cycle(Phases &phases, Fill &fill, Release &release)
{
    const auto t0 = Clock::now();
    fill();
    const auto t1 = Clock::now();
    fill();  // every slot is occupied now: a replacing pass
    const auto t2 = Clock::now();
    release();
    const auto t3 = Clock::now();
    phases.fill = std::min(phases.fill, t1 - t0);
    phases.replace = std::min(phases.replace, t2 - t1);
    phases.release = std::min(phases.release, t3 - t2);
}

double records_per_second(Clock::duration pass)
{
    return rtvox::bench::Bench::per_second(kRecordsPerPass, pass);
}

// The bytes the copies of one pass own: records, texts, key ids and lists.
size_t record_bytes(const Sources &sources)
{
    auto text = [](const wchar_t *t) { return (std::wcslen(t) + 1) * sizeof(wchar_t); };
    size_t bytes = 0;
    for (const auto &disk : sources.disks) {
        bytes += RTRAID_RECORD_SIZE + text(disk->record.NAME) + text(disk->record.hdr.FQDD) + RTRAID_KEYID_SIZE +
                 sizeof disk->list;
    }
    for (const auto &vd : sources.virtualDisks) {
        bytes += RTRAID_RECORD_SIZE + text(vd->record.NAME) + text(vd->record.hdr.FQDD) + sizeof vd->targets;
    }
    return bytes;
}

const char *const kPass = "cache poll pass, copy + store + release the replaced copy";
const char *const kTraceRule =
    "each copy traces its lines (a disk three, a virtual disk its entry, size, every member id and exit) and each "
    "release its entry, object type and exit, every line a call to the platform's trace service whatever level it "
    "keeps; the calls are priced below, beside the time per record the goal allows";

}  // namespace

RTVOX_BENCH(cache_poll_pass)
{
    using rtvox::bench::Against;
    const Sources sources = make_sources();
    rtvox::bench::heap_count_start();
    const bool ready = rtvox::bench::set_up_cache(kControllers);
    if (!ready) {
        rtvox::bench::heap_count_stop();
        std::fprintf(stderr, "cache_poll_pass: the cache could not be set up\n");
        rtcache_Destroy();
        return;
    }
    cache_pass(sources);
    cache_pass(sources);
    rtvox::bench::heap_count_stop();
    const uint32_t traces = rtvox::bench::count_trace_calls([&] { cache_pass(sources); });
    cache_release();

    auto library_fill = [&] { cache_pass(sources); };
    auto library_release = [] { cache_release(); };
    std::vector<PlainCopy> table(kRecordsPerPass);
    auto floor_fill = [&] { floor_pass(sources, table); };
    auto floor_release_all = [&] { floor_release(table); };
    // By turns, so that both meet the same machine.
    Phases cache;
    Phases floor;
    double trace_rate = 0;
    const auto end = Clock::now() + bench.budget() * 2;
    do {
        cycle(cache, library_fill, library_release);
        cycle(floor, floor_fill, floor_release_all);
        trace_rate = std::max(trace_rate, rtvox::bench::filtered_trace_rate(bench.round() / 4));
    } while (Clock::now() < end);
    rtcache_Destroy();

    const std::string pass = " (30 controllers x (255 PDs + 32 VDs) = 8610 records)";
    if (bench.log_copies()) {
        bench.report(kPass, records_per_second(cache.replace), "records/s");
        return;
    }
    bench.compare({.name = kPass + pass + ", diagnostic-log copy off",
                   .value = records_per_second(cache.replace),
                   .unit = "records/s",
                   .baseline = "calloc + memcpy + free of the replaced copy, the same bytes and strings",
                   .baseline_value = records_per_second(floor.replace),
                   .against = Against::kFloor,
                   .goal_percent = 150,
                   .rule = kTraceRule});
    // The trace calls of a replacing pass, priced, beside the time the goal allows.
    const double per_record = static_cast<double>(traces) / kRecordsPerPass;
    const double library_ns = ns_per(records_per_second(cache.replace));
    const double trace_ns = ns_per(trace_rate);
    bench.report("cache poll pass, trace calls per record", per_record, "calls/record");
    bench.report("one trace call whose level is filtered out (the platform's cost)", trace_ns, "ns");
    bench.report("cache poll pass, library time per record", library_ns, "ns");
    bench.report("cache poll pass, time per record the goal allows (1.5 times the floor's)",
                 1.5 * ns_per(records_per_second(floor.replace)), "ns");
    bench.report("cache poll pass, library time per record without its trace calls", library_ns - per_record * trace_ns,
                 "ns");
    bench.compare({.name = "cache poll pass, copy + store into empty slots",
                   .value = records_per_second(cache.fill),
                   .unit = "records/s",
                   .baseline = "calloc + memcpy of the same bytes and strings",
                   .baseline_value = records_per_second(floor.fill),
                   .against = Against::kFloor});
    bench.compare({.name = "cache release of every disk (rtcache_FreeObjectLevel 3 and 4)",
                   .value = records_per_second(cache.release),
                   .unit = "records/s",
                   .baseline = "free of every copy",
                   .baseline_value = records_per_second(floor.release),
                   .against = Against::kFloor});
    bench.report(std::string(kPass) + ", diagnostic-log copy on (the log file opened and closed per copied line)",
                 bench.value_with_log_copies("cache_poll_pass", kPass), "records/s");
    bench.compare({.name = "cache peak heap, default limits, 30-controller inventory (tables and copies)",
                   .value = static_cast<double>(rtvox::bench::heap_peak()),
                   .unit = "bytes",
                   .baseline = "the copied records with their texts, key ids and lists",
                   .baseline_value = static_cast<double>(record_bytes(sources)),
                   .against = Against::kFloor,
                   .rate = false});
}

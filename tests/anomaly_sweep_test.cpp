// The anomaly sweep: one scenario per exported family runs first normally,
// counting its allocations and platform calls, then once more per counted call
// with exactly that call failing. Every run must stay within the result codes
// its steps allow and give back every block but the leaks kept on purpose.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "rt_shm_fixtures.h"
#include "rtvox/rt_evtq.h"
#include "rtvox/rt_kwlogwrp.h"

namespace {

using namespace rtvox::test;
using shm::Codes;

constexpr uint8_t kEid = 7;

// The leaks the library keeps on purpose: each step that may keep some, the
// most blocks it may leave counted by the allocation hooks, and why. These
// steps run with the leak checker told to look away; they clean up the rest.
const std::map<std::string, std::pair<int64_t, const char *>> kKept = {
    {"cache init",
     {10, "a half-done init keeps what it obtained, and a destroy that cannot take the lock frees nothing"}},
    {"convert", {0, "the event views' 20-byte list nodes are never freed (plain malloc: the hooks never see them)"}},
    {"queue",
     {2,
      "an entry whose queue mutex cannot be taken is dropped, node and copy; a copy that cannot be allocated "
      "leaves its node behind"}},
};

struct Step {
    const char *name;
    Codes allowed;  // what the library may answer here, whatever fails
    std::function<int64_t()> run;
};

// Failure points: the allocation hooks (kAlloc) and platform functions by their number.
constexpr int kAlloc = -1;
// Every platform function but those that only give back, signal or trace
// (a failed Set would leave the queue's consumer waiting for ever).
const std::vector<int> kFailed = [] {
    std::vector<int> points{kAlloc};
    for (int fn = 0; fn < VORNHOST_FUNCTION_COUNT; ++fn) {
        if (fn != VORNHOST_SMMutexUnLock && fn != VORNHOST_SMMutexDestroy && fn != VORNHOST_SMEventSet &&
            fn != VORNHOST_SMEventReset && fn != VORNHOST_SMEventDestroy && fn != VORNHOST_vornprintf) {
            points.push_back(fn);
        }
    }
    return points;
}();

// The calls made so far of each failure point.
std::vector<uint32_t> call_counts()
{
    std::vector<uint32_t> counts;
    for (int point : kFailed) {
        counts.push_back(point == kAlloc ? alloc_calls() : vornhost_call_count(static_cast<VornHostFunction>(point)));
    }
    return counts;
}

// Runs a step under the cache lock; 99 when the lock could not be taken.
int64_t locked(const std::function<uint32_t()> &work)
{
    if (rtcache_GetLock() != 0) {
        return 99;
    }
    const uint32_t rc = work();
    SMMutexUnLock(mutexRtCache);
    return rc;
}

// ---- one scenario per family ------------------------------------------------

// Outputs of the steps that no step looks at, and a FRU image to store.
uint8_t byteOut;
uint16_t wordOut;
void *objectOut;
uint8_t fruImage[256] = {1, 2, 3};

// A controller with one disk in the cache, as a poll pass leaves them.
void fill()
{
    EXPECT_EQ(cache::store(RTCACHE_KEY_ADAPTER, kEid, kEid, cache::cached_node()), 0u);
    EXPECT_EQ(cache::store(RTCACHE_KEY_PD, kEid, 3, cache::cached_pd_node(3)), 0u);
}

std::vector<Step> log_family()
{
    return {{"log init", {0, -1}, [] { return int64_t{rt_log_init() == 0 ? 0 : -1}; }},
            {"log write", {0}, [] {
                 rtvox_wlog(0, "sweep", L"a line of the sweep");
                 rt_log_Exit();
                 return int64_t{0};
             }}};
}

std::vector<Step> cache_family()
{
    // What a poll pass would have copied, made before anything is failed. A
    // store refused for want of the lock is done again (the next pass would),
    // so that the records still end in the cache.
    const auto poll = [](RtCacheKeyType type, uint32_t key, void *object) {
        return [=] {
            const auto put = [&] { return rtcache_SetCachedObject(type, kEid, key, object); };
            const int64_t rc = locked(put);
            return rc == 99 ? (locked(put), rc) : rc;
        };
    };
    return {{"poll adapter", {0, 99}, poll(RTCACHE_KEY_ADAPTER, kEid, cache::cached_node())},
            {"poll disk", {0, 99}, poll(RTCACHE_KEY_PD, 3, cache::cached_pd_node(3))},
            {"poll fetch",
             {0, 99},
             [] { return locked([] { return rtcache_GetCachedObject(RTCACHE_KEY_PD, kEid, 3, &objectOut); }); }},
            {"release disks", {0, 3}, [] { return rtcache_FreeObjectLevel(kEid, RTCACHE_LEVEL_PDS); }},
            {"release node", {0, 3}, [] { return rtcache_FreeObjectLevel(kEid, RTCACHE_LEVEL_CONTROLLER); }}};
}

// A service restart: the cache made from nothing and destroyed again.
std::vector<Step> restart_family()
{
    rtcache_Destroy();
    return {{"cache init", {0, 1, 3}, [] {
                 const uint32_t rc = rtcache_Init();
                 rtcache_Destroy();
                 return int64_t{rc};
             }}};
}

std::vector<Step> event_family()
{
    fill();
    return {{"record", {0, 99}, [] { return locked([] { return rtcache_SetCachedEvent(kEid, 1, 2, 3); }); }},
            {"park", {0, 99}, [] { return locked([] { return rtcache_SetDelayedCachedEvent(kEid, 1, 4, 5); }); }},
            {"purge", {0, 99}, [] { return locked([] { return rtcache_PurgeDelayedCachedEvents(kEid, 0x100); }); }},
            {"fetch",
             {0, 3},
             [] {
                 RtCacheEventBlock *events = nullptr;
                 RtCachePdChObjBlock *changes = nullptr;
                 const uint32_t rc = rtcache_GetCachedEvents(kEid, &events, &changes);
                 rtvox_free(events);
                 rtvox_free(changes);
                 return int64_t{rc};
             }},
            {"convert",
             {0, 3},
             [] {
                 RtCacheEventBlock *block = nullptr;
                 const uint32_t rc = rtcache_ConvertCacheToEvent(kEid, 3, &block);
                 rtvox_free(block);
                 return int64_t{rc};
             }},
            {"submit",
             {0, -1},
             [] {
                 char first[] = "ab", second[] = "cd";
                 char *args[] = {first, second};
                 return rt_KWLOGCMNSubmitEvent(2, "PDR16", L"Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1",
                                               args, 2);
             }},
            {"submit single", {0, VORNHOST_E_INJECTED}, [] { return rt_SubMitSingle(0x21); }}};
}

std::vector<Step> queue_family()
{
    return {{"queue", {0, -1, -2}, [] {
                 if (rtraid_EventQueue_Init() != 0) {
                     return int64_t{-1};
                 }
                 MctpClientCallbackEvent event{};
                 event.callbackType = MCTP_CLIENT_CALLBACK_TYPE_EVENT_POWERON;
                 event.bufferSize = 1;
                 int64_t rc = rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY) != 0 ? -2 : 0;
                 // Get waits for a Put's signal: only ask when one was given.
                 if (rtraid_EventQueue_Put(&event) == 0 && rtraid_EventQueue_GetStatus() == RTRAID_EVTQ_READY) {
                     std::free(rtraid_EventQueue_Get());
                 } else {
                     rc = -1;
                 }
                 rtraid_EventQueue_Destroy();
                 return rc;
             }}};
}

std::vector<Step> backplane_family()
{
    shm::ApiInfo record, plugged;
    record.counts(1, 2, 2, 1).bay(0, 1, 1, 2, 1, 2).drive(0, 1, 0, 1, 5).drive(1, 1, 1, 1, 5).riser(0, 1, 4, 1);
    vornhost_bp_set_info(record.data());  // what the backplane reports from the start
    plugged.counts(1, 1, 2, 0).bay(0, 1, 1, 2).drive(0, 1, 0, 1, 0x0D);
    return {{"bp init", {0, 1}, [] { return rtshm_BpApiInit(); }},
            {"bp update", {0, 5}, [] { return rtshm_BpDataUpdate(); }},
            {"hot plug",
             {0, 1},
             [plugged] {
                 const int delivered = vornhost_bp_hotplug(plugged.bytes.data());
                 vornhost_bp_hotplug_wait(5000);
                 return int64_t{delivered == 1 ? 0 : 1};
             }},
            {"inventory", {0}, [] { return rtshm_getNVMeBPs(); }}};
}

std::vector<Step> update_family()
{
    fill();
    return {{"shm update", {0, -1}, [] { return int64_t{RTSHM_UpdateSharedMem() == 0 ? 0 : -1}; }}};
}

std::vector<Step> pcie_family()
{
    shm::plant_global_slot_5();  // its FQDD names extender slot 3
    return {{"fru store", {0, 3}, [] { return RTSHM_StoreFRU(1, 0, 2, 1, fruImage, 1, 30); }},
            {"status write", {0, 3}, [] { return updatePciessdDriveStatusToShm(0x21, 2); }},
            {"status read", {0, 3}, [] { return RTSHM_readPciessdDriveStatusFromShm(&wordOut, 2); }},
            {"simulate", {0}, [] { return RTSHM_PCIeSSDSimulate(), int64_t{0}; }},
            {"slot map", {0, 3}, [] { return RTSHM_readSSDSlotNumFromGblSlotNum(&byteOut, 2); }},
            {"fqdd", {0, 1}, [] {
                 char *fqdd = rtvox_GetPCIeSSDFQDD(5);
                 rtvox_free(fqdd);
                 return int64_t{fqdd == nullptr ? 1 : 0};
             }}};
}

std::vector<Step> locate_family()
{
    return {{"nvme blink", {0, 1}, [] { return BlinkNVMeSSD(1, 0); }},
            {"nvme unblink", {0, 1}, [] { return UnBlinkNVMeSSD(1, 0, 0x0D); }},
            {"ipmi blink", {0, 1}, [] { return BlinkPCIeSSD(1, 2); }},
            {"ipmi unblink", {0, 1}, [] { return UnBlinkPCIeSSD(1, 2, 0x21); }}};
}

// ---- the driver -----------------------------------------------------------------

struct Family {
    const char *name;
    std::vector<Step> (*scenario)();
};

void PrintTo(const Family &family, std::ostream *out)
{
    *out << family.name;
}

class Sweep : public ::testing::TestWithParam<Family> {
protected:
    // One run from a clean state; `point` fails at its `skip`-th call when not null.
    // Returns the calls of each failure point the scenario made.
    std::vector<uint32_t> run(const int *point, uint32_t skip)
    {
        TempRoot root;
        vornhost_reset();
        vornhost_trace_set_level(0);  // the failures' lines are expected: keep the output short
        alloc_reset();
        std::memset(shm::view(), 0, sizeof sNVMeSSDBPInfo);
        EXPECT_EQ(rtcache_Init(), 0u);
        cache::add_eid(0, kEid);
        const std::vector<Step> steps = GetParam().scenario();
        const std::vector<uint32_t> before = call_counts();
        if (point != nullptr) {
            *point == kAlloc ? alloc_fail(skip, 1) : vornhost_fail(static_cast<VornHostFunction>(*point), skip, 1);
        }
        int64_t kept = 0;
        for (const Step &step : steps) {
            SCOPED_TRACE(step.name);
            const int64_t live = alloc_live();
            const auto leak = kKept.find(step.name);
            const bool keeps = leak != kKept.end();
            std::optional<KeptLeak> hidden;
            if (keeps) {
                hidden.emplace();
            }
            const int64_t rc = step.run();
            hidden.reset();
            EXPECT_NE(std::find(step.allowed.begin(), step.allowed.end(), rc), step.allowed.end()) << "code " << rc;
            if (point == nullptr) {  // the normal run answers the first code
                EXPECT_EQ(rc, step.allowed.front());
            }
            if (keeps) {
                const int64_t left = alloc_live() - live;
                EXPECT_TRUE(left >= 0 && left <= leak->second.first) << left << " blocks kept";
                kept += left;
            }
        }
        std::vector<uint32_t> counts = call_counts();
        std::ranges::transform(counts, before, counts.begin(), std::minus{});
        alloc_fail_clear();
        vornhost_fail_clear();
        shm::close_session();
        rtcache_Destroy();
        EXPECT_EQ(alloc_live(), kept) << "blocks left besides the kept leaks";
        EXPECT_TRUE(point != nullptr || kept == 0) << "the normal run keeps nothing";
        return counts;
    }
};

TEST_P(Sweep, EveryCountedCallFailsInTurn)
{
    const TimeBound bound(50);
    const std::vector<uint32_t> counts = run(nullptr, 0);
    uint32_t runs = 0;
    for (size_t i = 0; i < kFailed.size(); ++i) {
        for (uint32_t skip = 0; skip < counts[i]; ++skip, ++runs) {
            SCOPED_TRACE("point " + std::to_string(kFailed[i]) + " call " + std::to_string(skip));
            run(&kFailed[i], skip);
        }
    }
    RecordProperty("failure_runs", static_cast<int>(runs));
}

INSTANTIATE_TEST_SUITE_P(Families, Sweep,
                         ::testing::Values(Family{"Log", log_family}, Family{"Cache", cache_family},
                                           Family{"Restart", restart_family}, Family{"Events", event_family},
                                           Family{"Queue", queue_family}, Family{"Backplane", backplane_family},
                                           Family{"Update", update_family}, Family{"PcieSsd", pcie_family},
                                           Family{"Locate", locate_family}),
                         [](const auto &family) { return std::string(family.param.name); });

}  // namespace

// The scenario runner: plays the monitoring service's start, the steps of a
// scenario and its stop through the library's exported functions against the
// host platform, and tells for each step what happened (StepReport).
//
// One Simulation per process: the library's state is process-wide.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "rtvox/rt_cache.h"
#include "scenario.h"
#include "sim_regions.h"

namespace rtvoxctl::sim {

struct TraceLine {
    int level = 0;
    std::string text;
    uint32_t times = 1;  // the same line traced so many times in a row
};

struct EventLogEntry {
    std::string message;
    std::string fqdd;  // "" when submitted without one
    std::vector<std::string> args;
    uint32_t severity = 0;
    int32_t status = 0;
};

struct Suppressed {
    std::string message;
    std::string reason;
    uint32_t times = 1;  // the same message held back so many times in a row
};

// A backplane write or an IPMI request as the host platform journaled it.
struct Wire {
    uint32_t type = 0;  // backplane write type; IPMI: network function << 8 | command
    uint32_t status = 0;
    std::vector<uint8_t> bytes;
};

struct ExpectationResult {
    std::string text;
    bool ok = false;
    std::string seen;  // what was found instead, for a failed one
};

struct StepReport {
    size_t number = 0;  // 0 for the start; the stop follows the last step
    std::string kind;
    std::string note;
    std::vector<std::string> lines;                            // what the service asked and what came of it
    std::map<std::string, std::map<int64_t, uint32_t>> calls;  // function -> result -> times
    std::vector<TraceLine> traces;                             // up to the chosen level, repeats folded
    uint32_t traces_above = 0;                                 // captured lines above it
    std::vector<EventLogEntry> event_log;
    std::vector<Suppressed> suppressed;
    std::vector<Wire> backplane_writes;
    std::vector<Wire> ipmi;
    std::vector<FieldChange> regions;
    std::vector<ExpectationResult> expectations;

    void line(const char *format, ...) __attribute__((format(printf, 2, 3)));
    size_t failed() const;
};

// Counts a library call's result in the report and hands it back.
template <typename Result>
Result called(StepReport &report, const char *function, Result result)
{
    ++report.calls[function][static_cast<int64_t>(result)];
    return result;
}

// Frees an event record the way the cache releases one: its message id, its
// second buffer, then the record.
void release_event_record(RtCacheEventRecord *record);

// The wide text the library's records and FQDDs hold, from plain ASCII.
std::wstring wide(const std::string &text);

// The cache lock, held for the life of the object when it could be taken.
class CacheLock {
public:
    explicit CacheLock(StepReport &report) : held_(called(report, "rtcache_GetLock", rtcache_GetLock()) == 0) {}
    ~CacheLock()
    {
        if (held_) {
            SMMutexUnLock(mutexRtCache);
        }
    }
    CacheLock(const CacheLock &) = delete;
    CacheLock &operator=(const CacheLock &) = delete;
    bool held() const { return held_; }

private:
    bool held_;
};

class Simulation {
public:
    // Points the library's fixed paths at `dir` (a fresh temporary directory,
    // removed again at the end, when empty) and resets the host platform.
    Simulation(Scenario scenario, int level, std::string dir);
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    const Scenario &scenario() const { return scenario_; }
    const std::string &dir() const { return dir_; }

    StepReport start();
    StepReport play(const Step &step, size_t number);
    StepReport stop();

private:
    using Handler = void (Simulation::*)(const Step &, StepReport &);
    static const std::map<std::string, Handler> &handlers();

    // Step handlers.
    void poll(const Step &step, StepReport &report);
    void disk_added(const Step &step, StepReport &report);
    void disk_removed(const Step &step, StepReport &report);
    void disk_changed(const Step &step, StepReport &report);
    void event(const Step &step, StepReport &report);
    void fetch(const Step &step, StepReport &report);
    void submit(const Step &step, StepReport &report);
    void phase(const Step &step, StepReport &report);
    void command_begin(const Step &step, StepReport &report);
    void command_end(const Step &step, StepReport &report);
    void notify(const Step &step, StepReport &report);
    void shm_update(const Step &step, StepReport &report);
    void nvme_inventory(const Step &step, StepReport &report);
    void hotplug(const Step &step, StepReport &report);
    void locate(const Step &step, StepReport &report);
    void pciessd_simulate(const Step &step, StepReport &report);

    // The cache side of the service. Call these with the cache lock held.
    void poll_controller(const Controller &controller, StepReport &report);
    void store_node(const Controller &controller, StepReport &report);
    bool store(StepReport &report, RtCacheKeyType type, uint8_t eid, uint32_t key, void *fresh);
    void put_disk(const Controller &controller, const PhysicalDisk &disk, const char *what, StepReport &report);
    bool put_disk_record(StepReport &report, const Controller &controller, const PhysicalDisk &disk);
    RtCachePdNode *make_enclosure_node(const Enclosure &enclosure);

    void discover(StepReport &report);
    void plant_platform(StepReport &report);
    void open_backplane(StepReport &report);
    void close_backplane(StepReport &report);
    void set_phase(Phase phase, StepReport &report);
    RtCacheEventRecord *make_record(const EventStep &event);
    // Fetches the EID's batch: its records join batch_, and every record the
    // blocks point to joins fetched_. `list` tells what was in it.
    void take_events(uint8_t eid, StepReport &report, bool list);
    void submit_event(const EventStep &event, StepReport &report);
    void release_fetched();

    Controller &live(uint8_t eid);
    StepReport begin(size_t number, const std::string &kind, const std::string &note);
    void finish(StepReport &report, const std::vector<Expectation> &expect);

    Scenario scenario_;
    int level_;
    std::string dir_;
    bool own_dir_ = false;
    bool started_ = false;
    Snapshot regions_;
    uint32_t bp_writes_ = 0;
    uint32_t bp_write_calls_ = 0;
    uint32_t ipmi_requests_ = 0;
    uint32_t ipmi_calls_ = 0;
    std::vector<TraceLine> all_traces_;             // every line of the current step, for expectations
    std::map<uint8_t, std::set<uint32_t>> stored_;  // physical-disk table keys filled, per EID
    std::map<uint8_t, uint32_t> command_;           // open command windows: EID -> opcode
    std::vector<EventStep> events_;                 // what each event record stands for
    std::vector<RtCacheEventRecord *> batch_;       // the fetched batches' records, to be submitted
    std::vector<RtCacheEventRecord *> fetched_;     // every record the service holds, batch_ among them
};

}  // namespace rtvoxctl::sim

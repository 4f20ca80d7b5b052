// rtvox_bench: a small harness for throughput figures of the library.
//
// Each area adds a bench/bench_<area>.cpp with one or more
//
//     RTVOX_BENCH(queue_put_get)
//     {
//         ...
//         bench.report("queue put+get depth=100", pairs_per_second, "pairs/s");
//         bench.compare({.name = "event storm, record + fetch", .value = library, .unit = "events/s",
//                        .baseline = "std::mutex + plain array", .baseline_value = plain, .goal_percent = 50});
//     }
//
// The benchmark registers itself by name before main runs; rtvox_bench runs
// every benchmark whose name contains the filter given on the command line.
// Benchmarks run against the host platform emulation with trace output and
// log-file copies switched off (the trace calls themselves are still made),
// inside a private directory that RTVOX_ROOT points at.
//
// Every figure goes through report() or compare(), which print it at once,
// or, with --json, keep it for the one JSON document printed at the end.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "rtvox/platform.h"
#include "rtvox/rt_cache.h"

namespace rtvox::bench {

// What a comparison holds the library's figure against, which also names its
// ratio so that it cannot be read the wrong way round:
//  - kBaseline: what a user would write instead. The ratio is the library's
//    share of the baseline's throughput, "library_share_of_baseline_percent"
//    (100 = as fast; more is better; a goal is a minimum).
//  - kFloor: the bare work nobody can avoid. The ratio is the library's time
//    over the floor's time, "library_over_floor_percent" (100 = no overhead;
//    less is better; a goal is a maximum).
enum class Against { kBaseline, kFloor };

struct Comparison {
    std::string name{};  // the library's figure
    double value = 0;
    std::string unit{};
    std::string baseline{};     // what it is held against, in words
    double baseline_value = 0;  // in the same unit
    Against against = Against::kBaseline;
    bool rate = true;         // the values are per second (more is better); false: times or sizes
    double goal_percent = 0;  // 0: no goal
    // A fixed behaviour of the library that keeps the figure from its goal or
    // shapes it, with what it costs (measured beside it); empty when none.
    std::string rule{};

    // The ratio described at Against (0 when a value is 0).
    double percent() const;
    const char *ratio_name() const
    {
        return against == Against::kBaseline ? "library_share_of_baseline_percent" : "library_over_floor_percent";
    }
    bool has_goal() const { return goal_percent > 0; }
    bool goal_met() const;
};

class Bench {
public:
    Bench(bool quick, bool json, bool log_copies = false) : quick_(quick), json_(json), log_copies_(log_copies) {}

    // True with --quick: a smoke run, figures are rough.
    bool quick() const { return quick_; }
    // True with --log-copies: this process runs with copies to the
    // diagnostic log on (no marker file).
    bool log_copies() const { return log_copies_; }
    // Runs `benchmark` in a child rtvox_bench with copies to the diagnostic
    // log on (the library looks at the marker file once per process) and
    // answers the value of its figure named `figure`, 0 when it has none.
    double value_with_log_copies(const char *benchmark, const std::string &figure) const;
    // How long one measurement should run.
    std::chrono::steady_clock::duration budget() const
    {
        return quick_ ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
    }
    // A figure on its own: prints "<label>: <value> <unit>" (two decimals for
    // values below 100).
    void report(const std::string &label, double value, const char *unit);
    // A figure beside its baseline or floor, with the named ratio and the goal.
    void compare(const Comparison &comparison);

    // Every figure so far (report() as comparisons without a baseline).
    const std::vector<Comparison> &figures() const { return figures_; }
    // The figures as one JSON document.
    std::string json(bool sanitizers) const;

    // Runs `step` (which does one operation) for the budget and answers
    // operations per second: the best of kRounds rounds of a tenth of the
    // budget each, so a busy machine (which only ever slows a round down)
    // spoils fewer figures.
    static constexpr int kRounds = 10;
    std::chrono::steady_clock::duration round() const { return budget() / kRounds; }
    template <typename Step>
    double rate(Step &&step) const
    {
        double best = 0.0;
        for (int i = 0; i < kRounds; ++i) {
            const double measured = run_for(round(), step);
            best = measured > best ? measured : best;
        }
        return best;
    }

    // One round: runs `step` for `length` and answers operations per second.
    // The clock is read every 64 operations.
    template <typename Step>
    static double run_for(std::chrono::steady_clock::duration length, Step &step)
    {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        const auto end = start + length;
        uint64_t done = 0;
        auto now = start;
        do {
            for (int i = 0; i < 64; ++i) {
                step();
            }
            done += 64;
            now = Clock::now();
        } while (now < end);
        return per_second(done, now - start);
    }

    static double per_second(uint64_t operations, std::chrono::steady_clock::duration elapsed)
    {
        const double seconds = std::chrono::duration<double>(elapsed).count();
        return seconds > 0 ? static_cast<double>(operations) / seconds : 0.0;
    }

private:
    bool quick_;
    bool json_;
    bool log_copies_;
    std::vector<Comparison> figures_;
};

// The EID of the n-th controller a benchmark registers: 10, 11, ...
inline uint8_t controller_eid(uint32_t controller)
{
    return static_cast<uint8_t>(10 + controller);
}

// Initialises the cache at its default limits and registers `controllers`
// RAID controllers (controller_eid(0), ...). false when a step failed; the
// caller calls rtcache_Destroy either way.
bool set_up_cache(uint32_t controllers);

// Operations per second of one trace call whose level the host filters out:
// the platform's share of every trace line the library emits.
double filtered_trace_rate(std::chrono::steady_clock::duration length);

// Trace calls `work` makes, counted from the lines the host captures.
template <typename Work>
uint32_t count_trace_calls(Work &&work);

// Heap bytes through the calloc and free that the benchmark links wrapped
// (the library allocates with calloc only; the host platform never calls
// it): while counting, the bytes of every block taken with calloc are added
// and of every such block given back with free subtracted, and the peak is
// kept. Counting starts at 0.
void heap_count_start();
void heap_count_stop();
size_t heap_peak();

// work() under the cache lock, taken and given back as the service does.
template <typename Work>
void under_cache_lock(Work &&work)
{
    rtcache_GetLock();
    work();
    SMMutexUnLock(mutexRtCache);
}

// 1e9 / rate: nanoseconds per operation (0 for a rate of 0).
inline double ns_per(double rate)
{
    return rate > 0 ? 1e9 / rate : 0.0;
}

using BenchFunction = void (*)(Bench &);

// Adds a benchmark to the registry (used by RTVOX_BENCH at static initialisation).
struct Registration {
    Registration(const char *name, BenchFunction function);
};

// Clears the host's captured lines and captures; stops, clears and answers
// how many lines were captured.
void trace_capture_start();
uint32_t trace_capture_stop();

template <typename Work>
uint32_t count_trace_calls(Work &&work)
{
    trace_capture_start();
    work();
    return trace_capture_stop();
}

}  // namespace rtvox::bench

#define RTVOX_BENCH(name)                                                                                 \
    static void rtvox_bench_##name(::rtvox::bench::Bench &bench);                                         \
    static const ::rtvox::bench::Registration rtvox_bench_registration_##name(#name, rtvox_bench_##name); \
    static void rtvox_bench_##name(::rtvox::bench::Bench &bench)

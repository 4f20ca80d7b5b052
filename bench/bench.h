// rtvox_bench: a small harness for throughput figures of the library.
//
// Each area adds a bench/bench_<area>.cpp with one or more
//
//     RTVOX_BENCH(queue_put_get)
//     {
//         ...
//         bench.report("queue put+get depth=100", pairs_per_second, "pairs/s");
//     }
//
// The benchmark registers itself by name before main runs; rtvox_bench runs
// every benchmark whose name contains the filter given on the command line.
// Benchmarks run against the host platform emulation with trace output and
// log-file copies switched off (the trace calls themselves are still made),
// inside a private directory that RTVOX_ROOT points at.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace rtvox::bench {

class Bench {
public:
    explicit Bench(bool quick) : quick_(quick) {}

    // True with --quick: a smoke run, figures are rough.
    bool quick() const { return quick_; }
    // How long one measurement should run.
    std::chrono::steady_clock::duration budget() const
    {
        return quick_ ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
    }
    // Prints "<label>: <value> <unit>" (two decimals for values below 100).
    void report(const std::string &label, double value, const char *unit) const;

    // Runs `step` (which does one operation) for the budget and answers
    // operations per second: the best of three rounds of a third of the
    // budget each, so a busy machine spoils fewer figures. The clock is read
    // every 64 operations.
    template <typename Step>
    double rate(Step &&step) const
    {
        using Clock = std::chrono::steady_clock;
        double best = 0.0;
        for (int round = 0; round < 3; ++round) {
            const auto start = Clock::now();
            const auto end = start + budget() / 3;
            uint64_t done = 0;
            auto now = start;
            do {
                for (int i = 0; i < 64; ++i) {
                    step();
                }
                done += 64;
                now = Clock::now();
            } while (now < end);
            const double measured = per_second(done, now - start);
            best = measured > best ? measured : best;
        }
        return best;
    }

    static double per_second(uint64_t operations, std::chrono::steady_clock::duration elapsed)
    {
        const double seconds = std::chrono::duration<double>(elapsed).count();
        return seconds > 0 ? static_cast<double>(operations) / seconds : 0.0;
    }

private:
    bool quick_;
};

using BenchFunction = void (*)(Bench &);

// Adds a benchmark to the registry (used by RTVOX_BENCH at static initialisation).
struct Registration {
    Registration(const char *name, BenchFunction function);
};

}  // namespace rtvox::bench

#define RTVOX_BENCH(name)                                                                                 \
    static void rtvox_bench_##name(::rtvox::bench::Bench &bench);                                         \
    static const ::rtvox::bench::Registration rtvox_bench_registration_##name(#name, rtvox_bench_##name); \
    static void rtvox_bench_##name(::rtvox::bench::Bench &bench)

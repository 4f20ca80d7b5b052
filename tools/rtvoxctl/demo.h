// The rtvoxctl demonstration: plays the monitoring service's start, work and
// stop against the host platform emulation and prints what happened.
//
// Each area of the library contributes one step (demo_<area>.cpp). A step
// calls the library, then tells the reader what it did with section()/say()
// and shows the trace lines the library emitted meanwhile with traces().
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RtCachePdNode;

namespace rtvoxctl {

class Demo {
public:
    Demo(std::string dir, int level) : dir_(std::move(dir)), level_(level) {}

    // The directory every fixed path of the library lands in (RTVOX_ROOT).
    const std::string &dir() const { return dir_; }
    // The real location of one of the library's absolute paths.
    std::string path(const std::string &absolute) const { return dir_ + absolute; }
    int level() const { return level_; }

    // A heading for the next part of the account.
    void section(const std::string &title);
    // One line of the account (printf-style).
    void say(const char *format, ...) __attribute__((format(printf, 2, 3)));
    // Prints the trace lines captured since the last call, up to the chosen
    // level, then starts a fresh capture.
    void traces();
    // Prints a file of the demo directory (by its absolute library path).
    void show_file(const std::string &absolute, const std::string &title);
    // Creates a marker or input file of the demo directory.
    void touch(const std::string &absolute, const std::string &content = {}) const;

private:
    std::string dir_;
    int level_;
};

// A node of the physical-disk table as the service builds it: the node and
// its cache entry (rtvox_alloc) holding `record`, the copied disk record for
// objType 3, the enclosure record for 2 and 240. The cache owns all of it
// once stored.
RtCachePdNode *new_pd_node(uint32_t objType, void *record);
// Frees a physical-disk table node that the cache does not hold (any more)
// with everything it owns: its record, an enclosure's element records, its
// cache entry and itself. Call it with the cache lock held.
void release_pd_node(void *node);

// The steps, in the order the demonstration plays them.
void demo_start(Demo &demo);
void demo_runtime(Demo &demo);
void demo_sync(Demo &demo);
void demo_cache(Demo &demo);
void demo_events(Demo &demo);
void demo_backplane(Demo &demo);
void demo_eventlog(Demo &demo);
void demo_pcie(Demo &demo);
void demo_shm(Demo &demo);
// Prints region `id` as `rtvoxctl shm` decodes it.
void show_region(Demo &demo, uint32_t id);
void demo_stop(Demo &demo);

}  // namespace rtvoxctl

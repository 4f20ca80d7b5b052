// Shared pieces of the synchronisation and event-queue tests: a time bound on
// every test, trace lines without their line numbers, raw bytes of records,
// and a ready event queue.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "rtvox/rt_evtq.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace rtvox::test::sync {

using namespace std::chrono_literals;
using namespace std::string_literals;

// Results of several calls, made in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

// The captured trace lines with the line numbers (of the head and of the
// entry/exit texts) replaced by '#', so expectations survive edits of the source.
inline std::vector<std::string> traces()
{
    static const std::regex head(R"(^(L\d \w+\.c:\w+:)\d+:)");
    static const std::regex tail(R"(^(.*(--> entry|<-- exit) .* )\d+$)");
    std::vector<std::string> lines;
    for (const auto &line : trace_lines()) {
        lines.push_back(std::regex_replace(std::regex_replace(line, head, "$1#:"), tail, "$1#"));
    }
    return lines;
}

template <typename T>
std::string bytes_of(const T &value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

// Polls `done` until it holds or `bound` has passed; answers whether it held.
template <typename Done>
bool eventually(Done done, std::chrono::milliseconds bound = 5s)
{
    // The answer is the one seen, not a second look: a condition that held
    // once may stop holding a moment later (a waiter between two waits).
    for (const auto deadline = std::chrono::steady_clock::now() + bound;;) {
        if (done()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
}

// A private root, a fresh host emulation, counted allocations, trace capture,
// and a time bound that ends the process when a test overruns it (a lost
// wake-up would otherwise leave a thread blocked for ever).
class SyncFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        alloc_reset();
        trace_start();
    }
    void TearDown() override
    {
        alloc_fail_clear();
        vornhost_fail_clear();
    }
    TimeBound bound{valgrind_run() ? 500u : 90u};
    TempRoot root;
};

// Frees the nodes and records of a list the queue abandoned.
inline void free_list(RtraidEventQueueNode *node)
{
    while (node != nullptr) {
        RtraidEventQueueNode *next = node->next;
        std::free(node->event);
        std::free(node);
        node = next;
    }
}

// A READY event queue, whose header is not counted; whatever a test leaves
// queued is freed with it.
class ReadyQueue : public SyncFixture {
protected:
    void SetUp() override
    {
        SyncFixture::SetUp();
        ASSERT_EQ(rtraid_EventQueue_Init(), 0);
        ASSERT_EQ(rtraid_EventQueue_SetStatus(RTRAID_EVTQ_READY), 0);
        alloc_reset();
        trace_start();
    }
    void TearDown() override
    {
        SyncFixture::TearDown();
        if (gpRtraid_EventQueue != nullptr) {
            free_list(gpRtraid_EventQueue->head);
            gpRtraid_EventQueue->head = nullptr;
            rtraid_EventQueue_Destroy();
        }
    }
};

}  // namespace rtvox::test::sync

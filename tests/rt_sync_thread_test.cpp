// The worker-thread starter when the thread library refuses. This executable
// defines its own pthread_attr_init, pthread_attr_setdetachstate,
// pthread_attr_setstacksize and pthread_create, which the library's calls bind
// to; each forwards to the real function unless a test armed a failure.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "rtvox/rt_sync.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace {

// Failures armed per function (the next call answers the error) and calls seen.
struct Stub {
    std::atomic<int> fail_with{0};
    std::atomic<int> calls{0};
    int next()
    {
        ++calls;
        return fail_with.exchange(0);
    }
};
Stub g_attr_init;
Stub g_detach;
Stub g_stack_size;
Stub g_create;
std::atomic<size_t> g_stack_asked{0};

template <typename Fn>
Fn real(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int pthread_attr_init(pthread_attr_t *attr) noexcept
{
    static const auto forward = real<int (*)(pthread_attr_t *)>("pthread_attr_init");
    const int error = g_attr_init.next();
    return error != 0 ? error : forward(attr);
}

extern "C" int pthread_attr_setdetachstate(pthread_attr_t *attr, int state) noexcept
{
    static const auto forward = real<int (*)(pthread_attr_t *, int)>("pthread_attr_setdetachstate");
    const int error = g_detach.next();
    return error != 0 ? error : forward(attr, state);
}

extern "C" int pthread_attr_setstacksize(pthread_attr_t *attr, size_t size) noexcept
{
    static const auto forward = real<int (*)(pthread_attr_t *, size_t)>("pthread_attr_setstacksize");
    g_stack_asked = size;
    const int error = g_stack_size.next();
    return error != 0 ? error : forward(attr, size);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*routine)(void *),
                              void *argument) noexcept
{
    static const auto forward =
        real<int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)>("pthread_create");
    const int error = g_create.next();
    return error != 0 ? error : forward(thread, attr, routine, argument);
}

namespace {

using namespace rtvox::test;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

// Trace lines with the line numbers (of the head and of entry/exit texts)
// replaced by '#', so expectations survive edits of the source.
std::string without_line_numbers(std::string line)
{
    const size_t file_end = line.find(':');
    const size_t func_end = file_end == std::string::npos ? file_end : line.find(':', file_end + 1);
    const size_t number_end = func_end == std::string::npos ? func_end : line.find(':', func_end + 1);
    if (number_end == std::string::npos) {
        return line;
    }
    line.replace(func_end + 1, number_end - func_end - 1, "#");
    const std::string text = line.substr(func_end + 3);
    if (text.rfind("--> entry ", 0) == 0 || text.rfind("<-- exit ", 0) == 0) {
        const size_t blank = line.find_last_of(' ');
        line.replace(blank + 1, std::string::npos, "#");
    }
    return line;
}

std::vector<std::string> traces()
{
    std::vector<std::string> lines;
    for (const auto &line : trace_lines()) {
        lines.push_back(without_line_numbers(line));
    }
    return lines;
}

struct Runs {
    std::mutex mutex;
    std::condition_variable cv;
    int count = 0;
    bool wait_for_one()
    {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, 10s, [this] { return count > 0; });
    }
};

void *count_run(void *argument)
{
    auto *runs = static_cast<Runs *>(argument);
    std::lock_guard lock(runs->mutex);
    ++runs->count;
    runs->cv.notify_all();
    return nullptr;
}

class ThreadStartFailure : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        trace_start();
        for (Stub *stub : {&g_attr_init, &g_detach, &g_stack_size, &g_create}) {
            stub->fail_with = 0;
            stub->calls = 0;
        }
        std::lock_guard lock(runs->mutex);
        runs->count = 0;
    }
    TempRoot root;
    // Never destroyed: a started thread may still touch it after the test.
    Runs *runs = shared_runs();
    static Runs *shared_runs()
    {
        static Runs *shared = new Runs;
        return shared;
    }
};

TEST_F(ThreadStartFailure, WorkingThreadLibraryIsAskedForADetachedThreadWithTheFixedStack)
{
    EXPECT_EQ(RTSync_FFThreadStart(count_run, runs), 1u);
    EXPECT_TRUE(runs->wait_for_one());
    EXPECT_EQ(g_stack_asked.load(), 102400u);
    EXPECT_EQ(g_detach.calls.load(), 1);
    EXPECT_EQ(g_create.calls.load(), 1);
}

TEST_F(ThreadStartFailure, AttributeInitFailureStartsNothing)
{
    g_attr_init.fail_with = ENOMEM;
    EXPECT_EQ(RTSync_FFThreadStart(count_run, runs), 0u);
    EXPECT_EQ(g_stack_size.calls.load(), 0);
    EXPECT_EQ(g_create.calls.load(), 0);
    EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_FFThreadStart:#:<-- err pthreadRTSync_FFThreadStart 12"));
    EXPECT_THAT(root.read("/var/log/rtvox.log"),
                ::testing::HasSubstr("[RTSync_FFThreadStart] <-- err pthreadRTSync_FFThreadStart 12\n"));
}

TEST_F(ThreadStartFailure, StackSizeFailureStartsNothing)
{
    g_stack_size.fail_with = EINVAL;
    EXPECT_EQ(RTSync_FFThreadStart(count_run, runs), 0u);
    EXPECT_EQ(g_create.calls.load(), 0);
    EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_FFThreadStart:#:<-- err pthreadRTSync_FFThreadStart 22"));
}

TEST_F(ThreadStartFailure, CreateFailureAnswersZero)
{
    g_create.fail_with = EAGAIN;
    EXPECT_EQ(RTSync_FFThreadStart(count_run, runs), 0u);
    EXPECT_EQ(g_create.calls.load(), 1);
    EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_FFThreadStart:#:<-- err pthreadRTSync_FFThreadStart 11"));
}

TEST_F(ThreadStartFailure, AFailedDetachSettingIsIgnored)
{
    g_detach.fail_with = EINVAL;
    EXPECT_EQ(RTSync_FFThreadStart(count_run, runs), 1u);
    EXPECT_TRUE(runs->wait_for_one());
    EXPECT_TRUE(trace_lines().empty());
}

}  // namespace

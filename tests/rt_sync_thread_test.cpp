// The worker-thread starter. This executable defines its own
// pthread_attr_init, pthread_attr_setdetachstate, pthread_attr_setstacksize
// and pthread_create, which the library's calls bind to; each forwards to the
// real function unless a test armed a failure.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "rt_sync_fixtures.h"
#include "rtvox/rt_sync.h"

namespace {

enum Stubbed { kAttrInit, kDetach, kStackSize, kCreate, kStubbed };
// Started threads may call these from their own set-up: the failing cases run first.
std::atomic<int> g_fail_with[kStubbed];  // the next call answers this error
std::atomic<int> g_calls[kStubbed];
// What the last pthread_create was asked for.
int g_detach_state = -1;
size_t g_stack_size = 0;
void *(*g_routine)(void *) = nullptr;
void *g_argument = nullptr;

template <typename Fn, typename... Args>
int stubbed(Stubbed which, const char *name, Args... args)
{
    ++g_calls[which];
    const int error = g_fail_with[which].exchange(0);
    return error != 0 ? error : reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name))(args...);
}

}  // namespace

extern "C" int pthread_attr_init(pthread_attr_t *attr) noexcept
{
    return stubbed<int (*)(pthread_attr_t *)>(kAttrInit, "pthread_attr_init", attr);
}

extern "C" int pthread_attr_setdetachstate(pthread_attr_t *attr, int state) noexcept
{
    return stubbed<int (*)(pthread_attr_t *, int)>(kDetach, "pthread_attr_setdetachstate", attr, state);
}

extern "C" int pthread_attr_setstacksize(pthread_attr_t *attr, size_t size) noexcept
{
    return stubbed<int (*)(pthread_attr_t *, size_t)>(kStackSize, "pthread_attr_setstacksize", attr, size);
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*routine)(void *),
                              void *argument) noexcept
{
    if (attr != nullptr) {
        pthread_attr_getdetachstate(attr, &g_detach_state);
        pthread_attr_getstacksize(attr, &g_stack_size);
    }
    g_routine = routine;
    g_argument = argument;
    return stubbed<int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)>(
        kCreate, "pthread_create", thread, attr, routine, argument);
}

namespace rtvox::test::sync {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

void *idle(void *)
{
    return nullptr;
}

using ThreadStart = SyncFixture;

TEST_F(ThreadStart, AnswersOneForAStartedThreadAndZeroForEveryRefusal)
{
    const struct {
        Stubbed stub;
        int error;
        RTSyncThreadRoutine routine;
        const char *traced;  // the error number traced; null when the thread starts
        int attr_inits, creates, detach_state;
    } cases[] = {
        {kAttrInit, ENOMEM, idle, "12", 1, 0, 0},
        {kStackSize, EINVAL, idle, "22", 1, 0, 0},
        {kCreate, EAGAIN, idle, "11", 1, 1, 0},
        {kCreate, 0, nullptr, "22", 0, 0, 0},  // refused before anything is set up
        {kCreate, 0, idle, nullptr, 1, 1, PTHREAD_CREATE_DETACHED},
        {kDetach, EINVAL, idle, nullptr, 1, 1, PTHREAD_CREATE_JOINABLE},  // ignored
    };
    int argument = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.traced == nullptr ? "started" : c.traced);
        trace_start();
        const size_t logged = root.read("/var/log/rtvox.log").size();
        for (auto &calls : g_calls) {
            calls = 0;
        }
        g_fail_with[c.stub] = c.error;
        EXPECT_EQ(RTSync_FFThreadStart(c.routine, &argument), c.traced == nullptr ? 1u : 0u);
        EXPECT_EQ(g_calls[kCreate].load(), c.creates);
        if (c.traced == nullptr) {
            EXPECT_EQ(g_routine, idle);
            EXPECT_EQ(g_argument, &argument);
            EXPECT_EQ(g_detach_state, c.detach_state);
            EXPECT_EQ(g_stack_size, RTSYNC_THREAD_STACK_SIZE);
            EXPECT_TRUE(trace_lines().empty());
            continue;
        }
        EXPECT_EQ(g_calls[kAttrInit].load(), c.attr_inits);
        const std::string text = "<-- err pthreadRTSync_FFThreadStart "s + c.traced;
        EXPECT_THAT(traces(), ElementsAre("L1 rt_sync.c:RTSync_FFThreadStart:#:" + text));
        EXPECT_THAT(root.read("/var/log/rtvox.log").substr(logged), HasSubstr("[RTSync_FFThreadStart] " + text + "\n"));
    }
}

}  // namespace
}  // namespace rtvox::test::sync

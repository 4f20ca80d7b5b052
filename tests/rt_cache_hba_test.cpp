// The HBA communication status table and the polling sleep.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>

#include "rtvox/rt_cache.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;

namespace {

uint32_t pack(uint8_t ctrl, uint8_t status)
{
    return static_cast<uint32_t>(ctrl) | (static_cast<uint32_t>(status) << 8);
}

int get_status(uint8_t ctrl, uint32_t *rc)
{
    RtHbaCommStatus record{ctrl, 0xEE};
    *rc = rtmpi2_GetHBACommunicationStatus(&record);
    return record.u8CommStatus;
}

class HbaTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        trace_start();
    }
    TempRoot root;
};

TEST_F(HbaTable, LookupBeforeAnyUpdateFailsForAllButControllerZero)
{
    uint32_t rc = 0;
    EXPECT_EQ(get_status(1, &rc), 0xEE);
    EXPECT_EQ(rc, 0xFFFFFFFFu);
    EXPECT_TRUE(trace_has(4, "rt_cache.c:rtmpi2_GetHBACommunicationStatus:"));
    EXPECT_TRUE(trace_has(4, "Unable to get HBA Comm status for ctrl:1"));
    EXPECT_EQ(get_status(0, &rc), 0);  // a free slot answers for controller 0
    EXPECT_EQ(rc, 0u);
    EXPECT_TRUE(trace_has(5, "Read HBA I2C Comm status:0 for ctrl:0 at index:0"));
}

TEST_F(HbaTable, FirstUpdateClaimsASlotAndLaterOnesOverwrite)
{
    EXPECT_EQ(rtmpi2_SetHBACommunicationStatus(pack(4, 1)), 0u);
    EXPECT_EQ(rtmpi2_SetHBACommunicationStatus(pack(9, 2)), 0u);
    EXPECT_TRUE(trace_has(5, "First time Set HBA I2C Comm status:2 for ctrl:9 at index:1"));
    EXPECT_EQ(rtmpi2_SetHBACommunicationStatus(pack(4, 7)), 0u);
    EXPECT_TRUE(trace_has(5, "Set HBA I2C Comm status:7 for ctrl:4 at index:0"));
    uint32_t rc = 1;
    EXPECT_EQ(get_status(4, &rc), 7);
    EXPECT_EQ(rc, 0u);
    EXPECT_EQ(get_status(9, &rc), 2);
    EXPECT_EQ(g_rtpil_HBA_Communication_Status[0].u8CtrlNum, 4);
    EXPECT_EQ(g_rtpil_HBA_Communication_Status[1].u8CtrlNum, 9);
}

TEST_F(HbaTable, ControllerZeroWritesTheFirstFreeSlotWithoutClaimingIt)
{
    rtmpi2_SetHBACommunicationStatus(pack(3, 1));
    EXPECT_EQ(rtmpi2_SetHBACommunicationStatus(pack(0, 5)), 0u);
    EXPECT_EQ(g_rtpil_HBA_Communication_Status[1].u8CtrlNum, 0);
    EXPECT_EQ(g_rtpil_HBA_Communication_Status[1].u8CommStatus, 5);
    uint32_t rc = 1;
    EXPECT_EQ(get_status(0, &rc), 5);
    // The next new controller claims that slot and its status.
    rtmpi2_SetHBACommunicationStatus(pack(8, 6));
    EXPECT_EQ(g_rtpil_HBA_Communication_Status[1].u8CtrlNum, 8);
    EXPECT_EQ(get_status(8, &rc), 6);
}

TEST_F(HbaTable, ThirteenthControllerIsRefusedAndTheTwelveStayUpdatable)
{
    for (uint8_t ctrl = 1; ctrl <= 12; ++ctrl) {
        ASSERT_EQ(rtmpi2_SetHBACommunicationStatus(pack(ctrl, ctrl)), 0u);
    }
    trace_start();
    EXPECT_EQ(rtmpi2_SetHBACommunicationStatus(pack(13, 1)), 0xFFFFFFFFu);
    EXPECT_TRUE(trace_has(4, "Unable to set HBA Comm status for ctrl:13"));
    EXPECT_EQ(g_rtpil_HBA_Communication_Status[12].u8CtrlNum, 0);  // the 13th pair is never used
    EXPECT_EQ(rtmpi2_SetHBACommunicationStatus(pack(12, 99)), 0u);
    uint32_t rc = 1;
    EXPECT_EQ(get_status(12, &rc), 99);
    EXPECT_EQ(get_status(13, &rc), 0xEE);
    EXPECT_EQ(rc, 0xFFFFFFFFu);
    EXPECT_EQ(get_status(0, &rc), 0xEE);  // no free slot left to answer for 0
}

TEST_F(HbaTable, NullLookupRepeatsTheEntryLineAndCopiesIt)
{
    EXPECT_EQ(rtmpi2_GetHBACommunicationStatus(nullptr), 0xFFFFFFFFu);
    const auto lines = trace_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(
        lines[0],
        std::regex(R"(L5 rt_cache\.c:rtmpi2_GetHBACommunicationStatus:\d+:-->  rtmpi2_GetHBACommunicationStatus)")));
    EXPECT_TRUE(std::regex_match(
        lines[1],
        std::regex(R"(L4 rt_cache\.c:rtmpi2_GetHBACommunicationStatus:\d+:-->  rtmpi2_GetHBACommunicationStatus)")));
    EXPECT_NE(root.read("/var/log/rtvox.log").find("] -->  rtmpi2_GetHBACommunicationStatus\n"), std::string::npos);
}

int g_predicate_calls = 0;
int32_t stop_at_once()
{
    ++g_predicate_calls;
    return 0;
}
int32_t keep_going()
{
    ++g_predicate_calls;
    return 1;
}

TEST(PollingSleep, PredicateIsAskedAfterEachSleep)
{
    using clock = std::chrono::steady_clock;
    g_predicate_calls = 0;
    rtvox_sleep(1, 0, keep_going);
    EXPECT_EQ(g_predicate_calls, 0);

    rtvox_sleep(0, 4, keep_going);
    EXPECT_EQ(g_predicate_calls, 4);

    g_predicate_calls = 0;
    const auto start = clock::now();
    rtvox_sleep(1, 5, stop_at_once);
    const auto elapsed = clock::now() - start;
    EXPECT_EQ(g_predicate_calls, 1);
    EXPECT_GE(elapsed, std::chrono::milliseconds(1000));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1900));

    rtvox_sleep(0, 3, nullptr);  // no predicate: just the sleeps
}

}  // namespace

// Runtime support: the diagnostic log, allocation helpers, the
// two-dimensional array and the marker-file switches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>

#include "rtvox/rtvox.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr const char *kLog = "/var/log/rtvox.log";
constexpr const char *kBak = "/var/log/rtvox.log.bak";

// "(T:%08X) %02d-%02d %02d:%02d:%02d [function] message"
const std::regex kCopyLine(R"(\(T:[0-9A-F]{8}\) \d\d-\d\d \d\d:\d\d:\d\d \[([^\]]+)\] (.*))");

std::string copy_message(const std::string &line, std::string *function = nullptr)
{
    std::smatch m;
    if (!std::regex_match(line, m, kCopyLine)) {
        return "<malformed: " + line + ">";
    }
    if (function != nullptr) {
        *function = m[1];
    }
    return m[2];
}

class DiagnosticLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        trace_start();
    }
    TempRoot root;
};

TEST_F(DiagnosticLog, InitKeepsThePreviousRunAsBackupAndStartsEmpty)
{
    root.touch(kBak, "older run\n");
    root.touch(kLog, "previous run\n");
    rt_log_init();
    EXPECT_EQ(root.read(kBak), "previous run\n");
    EXPECT_TRUE(root.exists(kLog));
    EXPECT_EQ(root.read(kLog), "");
}

TEST_F(DiagnosticLog, InitWithoutAPreviousLogIsNoError)
{
    rt_log_init();
    EXPECT_TRUE(root.exists(kLog));
    EXPECT_FALSE(root.exists(kBak));
    EXPECT_EQ(trace_count("Failed"), 0);
}

TEST_F(DiagnosticLog, UncreatableLogIsTracedAndSilencesWlog)
{
    std::filesystem::remove_all(root.path("/var/log"));
    rt_log_init();
    const auto lines = trace_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex(R"(L1 rtvox\.c:rt_log_init:\d+:Failed to create log file /var/log/rtvox\.log)")))
        << lines[0];
    trace_start();
    rtvox_wlog(0, "TAG", L"text");
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(DiagnosticLog, WlogTracesAtLevelFourAndCopiesWithPrefix)
{
    rt_log_init();
    rtvox_wlog(7, "DEMO", L"wide text");
    const auto lines = trace_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(L4 rtvox\.c:rtvox_wlog:\d+:\[DEMO\] wide text)")))
        << lines[0];

    const auto file = split_lines(root.read(kLog));
    ASSERT_EQ(file.size(), 1u);
    std::string function;
    EXPECT_THAT(copy_message(file[0], &function), HasSubstr("[DEMO] wide text"));
    EXPECT_EQ(function, "rtvox_wlog");
}

TEST_F(DiagnosticLog, WlogIsSilentBeforeInitAndWithNullArguments)
{
    rtvox_wlog(0, "TAG", L"before init");
    rt_log_init();
    rtvox_wlog(0, nullptr, L"no tag");
    rtvox_wlog(0, "TAG", nullptr);
    EXPECT_TRUE(trace_lines().empty());
    EXPECT_EQ(root.read(kLog), "");
}

TEST_F(DiagnosticLog, ThousandLinesStayAndTheNextTruncates)
{
    rt_log_init();
    for (int i = 1; i <= 1000; ++i) {
        rtvox_wlog(0, "N", std::to_wstring(i).c_str());
    }
    auto file = split_lines(root.read(kLog));
    ASSERT_EQ(file.size(), 1000u);
    EXPECT_EQ(copy_message(file.front()), "[N] 1");
    EXPECT_EQ(copy_message(file.back()), "[N] 1000");

    rtvox_wlog(0, "N", L"1001");
    file = split_lines(root.read(kLog));
    ASSERT_EQ(file.size(), 1u);
    EXPECT_EQ(copy_message(file[0]), "[N] 1001");

    // The truncating line counts as line 1 of the new file.
    for (int i = 2; i <= 1000; ++i) {
        rtvox_wlog(0, "N", L"x");
    }
    EXPECT_EQ(split_lines(root.read(kLog)).size(), 1000u);
    rtvox_wlog(0, "N", L"again");
    EXPECT_EQ(split_lines(root.read(kLog)).size(), 1u);
}

TEST_F(DiagnosticLog, DepthCounterRestartsAtOne)
{
    EXPECT_EQ(hasLogDepthExceeded(2), 0u);
    EXPECT_EQ(hasLogDepthExceeded(2), 0u);
    EXPECT_EQ(hasLogDepthExceeded(2), 1u);
    EXPECT_EQ(hasLogDepthExceeded(2), 0u);  // counter is 2 again
    EXPECT_EQ(hasLogDepthExceeded(2), 1u);
    EXPECT_EQ(hasLogDepthExceeded(-1), 1u);
}

TEST_F(DiagnosticLog, DisabledFlagIsReadOncePerProcess)
{
    root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");
    rt_log_init();
    EXPECT_EQ(IsrtvoxLogDisabled(), 1u);
    rtvox_wlog(0, "TAG", L"not copied");
    std::filesystem::remove(root.path("/flash/data0/oem_ps/rt_vox_log_disabled"));
    EXPECT_EQ(IsrtvoxLogDisabled(), 1u);
    rtvox_wlog(0, "TAG", L"still not copied");
    const char bytes[] = "abc";
    hexdump(bytes, 3);
    EXPECT_EQ(root.read(kLog), "");
    EXPECT_EQ(trace_count("[TAG]"), 2);  // the trace calls are made all the same
}

TEST_F(DiagnosticLog, AbsentFlagMeansCopiesOn)
{
    EXPECT_EQ(IsrtvoxLogDisabled(), 2u);
    root.touch("/flash/data0/oem_ps/rt_vox_log_disabled");
    EXPECT_EQ(IsrtvoxLogDisabled(), 2u);
}

TEST_F(DiagnosticLog, CopiesWorkBeforeInit)
{
    // Before rt_log_init the zero-filled mutex still serialises the copies.
    const char bytes[] = "0123";
    hexdump(bytes, 4);
    EXPECT_EQ(root.read(kLog), "000000: 30 31 32 33" + std::string(12 * 3, ' ') + "  0123\n");
}

TEST_F(DiagnosticLog, HexdumpRowsOfSixteen)
{
    rt_log_init();
    unsigned char bytes[17];
    for (int i = 0; i < 17; ++i) {
        bytes[i] = static_cast<unsigned char>(i == 16 ? 'Z' : 0x41 + i);
    }
    bytes[3] = 0x00;
    bytes[4] = 0x7F;
    hexdump(bytes, 17);
    const auto rows = split_lines(root.read(kLog));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0], "000000: 41 42 43 00 7f 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABC..FGHIJKLMNOP");
    EXPECT_EQ(rows[1], "000010: 5a " + std::string(15 * 3, ' ') + " Z");
    EXPECT_TRUE(trace_lines().empty());  // a dump is never traced
}

TEST_F(DiagnosticLog, HexdumpOfNothingWritesNothingAndKeepsTheCounter)
{
    rt_log_init();
    const char bytes[] = "x";
    hexdump(bytes, 0);
    hexdump(bytes, -5);
    EXPECT_EQ(root.read(kLog), "");
    // Dumps do not count as lines: 1000 copies still fit after a long dump.
    unsigned char big[64] = {};
    hexdump(big, 64);
    for (int i = 0; i < 996; ++i) {
        rtvox_wlog(0, "N", L"x");
    }
    EXPECT_EQ(split_lines(root.read(kLog)).size(), 1000u);
}

TEST_F(DiagnosticLog, ExitDestroysOnlyWhatInitSetUp)
{
    rt_log_Exit();  // before init: nothing to destroy, nothing traced
    EXPECT_TRUE(trace_lines().empty());
    rt_log_init();
    rt_log_Exit();
    EXPECT_TRUE(trace_lines().empty());
}

TEST(Memory, AllocIsZeroFilledAndFreeTakesNull)
{
    alloc_reset();
    auto *p = static_cast<unsigned char *>(rtvox_alloc(64));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(p[i], 0);
    }
    EXPECT_EQ(alloc_live(), 1);
    rtvox_free(p);
    rtvox_free(nullptr);
    EXPECT_EQ(alloc_live(), 0);
    alloc_fail(0, 1);
    EXPECT_EQ(rtvox_alloc(8), nullptr);
}

TEST(Memory, TwoDimensionalArrayRowsShareOneBlock)
{
    vornhost_reset();
    TempRoot root;
    alloc_reset();
    void **rows = rtvox_alloc_2darray(3, 4, 2);
    ASSERT_NE(rows, nullptr);
    auto *base = static_cast<unsigned char *>(rows[0]);
    EXPECT_EQ(static_cast<unsigned char *>(rows[1]) - base, 8);
    EXPECT_EQ(static_cast<unsigned char *>(rows[2]) - base, 16);
    for (int i = 0; i < 24; ++i) {
        ASSERT_EQ(base[i], 0);
    }
    EXPECT_EQ(alloc_live(), 2);
    EXPECT_EQ(alloc_live_bytes(), 3 * 4 + 24);

    trace_start();
    rtvox_free_2darray(rows, 99);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_TRUE(trace_has(4, ":rtvox_free_2darray:"));
    EXPECT_EQ(trace_count("--> entry  rtvox_free_2darray"), 1);
    EXPECT_EQ(trace_count("<-- exit  rtvox_free_2darray"), 1);
}

TEST(Memory, TwoDimensionalArrayWithoutItsDataBlockStillFillsRows)
{
    alloc_reset();
    alloc_fail(1, 1);  // the table succeeds, the data block fails
    void **rows = rtvox_alloc_2darray(3, 4, 2);
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rows[0]), 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rows[1]), 8u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rows[2]), 16u);
    rtvox_free_2darray(rows, 3);
    EXPECT_EQ(alloc_live(), 0);

    alloc_fail(0, 2);  // neither block
    EXPECT_EQ(rtvox_alloc_2darray(3, 4, 2), nullptr);
}

TEST(Memory, EmptyTwoDimensionalArrayLosesItsDataBlock)
{
    alloc_reset();
    void **rows = nullptr;
    {
        KeptLeak leak;
        rows = rtvox_alloc_2darray(0, 4, 2);
    }
    EXPECT_NE(rows, nullptr);
    EXPECT_EQ(alloc_calls(), 2u);
    rtvox_free(rows);
    EXPECT_EQ(alloc_live(), 1);  // the data block nobody points at
}

class MarkerFiles : public ::testing::Test {
protected:
    TempRoot root;
};

TEST_F(MarkerFiles, InventorySwitchesReadTheReverseOfTheirNames)
{
    EXPECT_EQ(IsrtvoxHBAInventoryDisabled(), 1u);
    EXPECT_EQ(IsrtvoxMIRUInventoryDisabled(), 1u);
    root.touch("/flash/data0/oem_ps/rt_vox_sashba_disabled");
    EXPECT_EQ(IsrtvoxHBAInventoryDisabled(), 0u);
    EXPECT_EQ(IsrtvoxMIRUInventoryDisabled(), 1u);
    root.touch("/flash/data0/oem_ps/rt_vox_miru_disabled");
    EXPECT_EQ(IsrtvoxMIRUInventoryDisabled(), 0u);
    std::filesystem::remove(root.path("/flash/data0/oem_ps/rt_vox_sashba_disabled"));
    EXPECT_EQ(IsrtvoxHBAInventoryDisabled(), 1u);  // looked at on every call
}

TEST_F(MarkerFiles, StressPollFileParsing)
{
    int32_t first = 11;
    int32_t second = 22;
    EXPECT_EQ(IsstressMIRUPollEnabled(&first, &second), 0u);
    EXPECT_EQ(first, 11);
    EXPECT_EQ(second, 22);

    const char *poll = "/flash/data0/oem_ps/rt_vox_miru_poll";
    root.touch(poll, "5 7\n");
    EXPECT_EQ(IsstressMIRUPollEnabled(&first, &second), 1u);
    EXPECT_EQ(first, 5);
    EXPECT_EQ(second, 7);

    root.touch(poll, "5");
    EXPECT_EQ(IsstressMIRUPollEnabled(&first, &second), 1u);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 3);

    for (const char *content : {"", "x y", "-4\n9", " 12   -1 junk"}) {
        first = second = 99;
        root.touch(poll, content);
        EXPECT_EQ(IsstressMIRUPollEnabled(&first, &second), 1u) << content;
        if (std::string(content) == "-4\n9") {
            EXPECT_EQ(first, -4);
            EXPECT_EQ(second, 9);
        } else if (std::string(content) == " 12   -1 junk") {
            EXPECT_EQ(first, 12);
            EXPECT_EQ(second, -1);
        } else {
            EXPECT_EQ(first, 0) << content;
            EXPECT_EQ(second, 3) << content;
        }
    }
    EXPECT_EQ(IsstressMIRUPollEnabled(nullptr, nullptr), 1u);
}

TEST_F(MarkerFiles, DumpRequestIsConsumedOnce)
{
    EXPECT_EQ(IsDumpEnabled(), 0u);
    root.touch("/tmp/rtdump");
    EXPECT_EQ(IsDumpEnabled(), 1u);
    EXPECT_FALSE(root.exists("/tmp/rtdump"));
    EXPECT_EQ(IsDumpEnabled(), 0u);
}

TEST_F(MarkerFiles, DumpRequestThatCannotBeRemovedStaysPending)
{
    // A directory cannot be removed by remove() while it has content.
    root.touch("/tmp/rtdump/keep");
    EXPECT_EQ(IsDumpEnabled(), 0u);
    EXPECT_TRUE(root.exists("/tmp/rtdump"));
    EXPECT_EQ(IsDumpEnabled(), 0u);
}

}  // namespace

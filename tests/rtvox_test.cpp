// Runtime support: the diagnostic log, allocation helpers, the
// two-dimensional array and the marker-file switches.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>

#include "rtvox/rt_cache.h"
#include "rtvox/rtvox.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;

namespace {

// Results of several calls, made in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

constexpr const char *kLog = "/var/log/rtvox.log";
constexpr const char *kBak = "/var/log/rtvox.log.bak";
constexpr const char *kLogOff = "/flash/data0/oem_ps/rt_vox_log_disabled";

// "(T:%08X) %02d-%02d %02d:%02d:%02d [function] message" -> "function|message"
std::string copy_line(const std::string &line)
{
    static const std::regex copy(R"(\(T:[0-9A-F]{8}\) \d\d-\d\d \d\d:\d\d:\d\d \[([^\]]+)\] (.*))");
    std::smatch m;
    return std::regex_match(line, m, copy) ? m.str(1) + "|" + m.str(2) : "<malformed: " + line + ">";
}

class DiagnosticLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        trace_start();
    }
    std::vector<std::string> log_lines() const { return split_lines(root.read(kLog)); }
    TempRoot root;
};

// The trace lines captured so far, each with its line number as '#'.
std::vector<std::string> traced()
{
    std::vector<std::string> lines = trace_lines();
    for (std::string &line : lines) {
        line = std::regex_replace(line, std::regex(R"(^(L\d \w+\.c:\w+:)\d+:)"), "$1#:");
    }
    return lines;
}

TEST_F(DiagnosticLog, InitRotatesThePreviousRunAndToleratesAMissingLog)
{
    rt_log_init();  // nothing to rotate yet
    EXPECT_EQ((Codes{root.exists(kLog), root.exists(kBak)}), (Codes{1, 0}));
    root.touch(kBak, "older run\n");
    root.touch(kLog, "previous run\n");
    rt_log_init();
    rt_log_Exit();
    EXPECT_EQ(root.read(kBak), "previous run\n");
    EXPECT_EQ(root.read(kLog), "");
    EXPECT_TRUE(trace_lines().empty());
}

TEST_F(DiagnosticLog, UncreatableLogIsTracedAndSilencesWlog)
{
    std::filesystem::remove_all(root.path("/var/log"));
    rt_log_init();
    rtvox_wlog(0, "TAG", L"text");
    EXPECT_EQ(traced(),
              std::vector<std::string>{"L1 rtvox.c:rt_log_init:#:Failed to create log file /var/log/rtvox.log"});
}

TEST_F(DiagnosticLog, WlogTracesAtLevelFourAndCopiesWithPrefix)
{
    rtvox_wlog(0, "TAG", L"before init");  // silent until rt_log_init
    rt_log_init();
    rtvox_wlog(0, nullptr, L"no tag");
    rtvox_wlog(0, "TAG", nullptr);
    rtvox_wlog(7, "DEMO", L"wide text");
    EXPECT_EQ(traced(), std::vector<std::string>{"L4 rtvox.c:rtvox_wlog:#:[DEMO] wide text"});
    ASSERT_EQ(log_lines().size(), 1u);
    EXPECT_EQ(copy_line(log_lines().at(0)), "rtvox_wlog|[DEMO] wide text");
}

TEST_F(DiagnosticLog, ThousandLinesStayAndTheNextTruncates)
{
    rt_log_init();
    for (int i = 1; i <= 1000; ++i) {
        rtvox_wlog(0, "N", std::to_wstring(i).c_str());
    }
    auto file = log_lines();
    ASSERT_EQ(file.size(), 1000u);
    EXPECT_EQ(copy_line(file.back()), "rtvox_wlog|[N] 1000");

    rtvox_wlog(0, "N", L"1001");
    file = log_lines();
    ASSERT_EQ(file.size(), 1u);
    EXPECT_EQ(copy_line(file[0]), "rtvox_wlog|[N] 1001");
    // The truncating line counted as line 1 of the new file.
    for (int i = 2; i <= 1000; ++i) {
        rtvox_wlog(0, "N", L"x");
    }
    EXPECT_EQ(log_lines().size(), 1000u);
    rtvox_wlog(0, "N", L"again");
    EXPECT_EQ(log_lines().size(), 1u);
    // The counter itself (at 1 now): past the limit it restarts at one.
    EXPECT_EQ((Codes{hasLogDepthExceeded(2), hasLogDepthExceeded(2), hasLogDepthExceeded(2), hasLogDepthExceeded(2),
                     hasLogDepthExceeded(-1)}),
              (Codes{0, 1, 0, 1, 1}));
}

TEST_F(DiagnosticLog, DisabledFlagIsReadOncePerProcess)
{
    root.touch(kLogOff);
    rt_log_init();
    EXPECT_EQ(IsrtvoxLogDisabled(), 1u);
    rtvox_wlog(0, "TAG", L"not copied");
    std::filesystem::remove(root.path(kLogOff));
    EXPECT_EQ(IsrtvoxLogDisabled(), 1u);
    rtvox_wlog(0, "TAG", L"still not copied");
    hexdump("abc", 3);
    EXPECT_EQ(root.read(kLog), "");
    EXPECT_EQ(trace_count("[TAG]"), 2);  // the trace calls are made all the same
}

TEST_F(DiagnosticLog, HexdumpWritesRowsOfSixteenWithoutTracing)
{
    hexdump("0123", 4);  // before rt_log_init the zero-filled mutex serves
    EXPECT_EQ(root.read(kLog), "000000: 30 31 32 33" + std::string(12 * 3, ' ') + "  0123\n");

    rt_log_init();
    const unsigned char bytes[] =
        "ABC\0\x7F"
        "FGHIJKLMNOPZ";
    hexdump(bytes, 17);
    hexdump(bytes, 0);
    hexdump(bytes, -5);
    const auto rows = log_lines();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0], "000000: 41 42 43 00 7f 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABC..FGHIJKLMNOP");
    EXPECT_EQ(rows[1], "000010: 5a " + std::string(15 * 3, ' ') + " Z");
    EXPECT_TRUE(trace_lines().empty());

    // Dump rows do not count as log lines: 998 copies still fit beside them.
    for (int i = 0; i < 998; ++i) {
        rtvox_wlog(0, "N", L"x");
    }
    EXPECT_EQ(log_lines().size(), 1000u);
}

TEST(Memory, AllocFillsWithZerosAndTheTwoDimensionalArrayIsOneBlockOfRows)
{
    TempRoot root;
    vornhost_reset();
    alloc_reset();
    auto *p = static_cast<unsigned char *>(rtvox_alloc(64));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ((Codes{std::count(p, p + 64, 0), alloc_live()}), (Codes{64, 1}));
    rtvox_free(p);
    rtvox_free(nullptr);
    void **rows = rtvox_alloc_2darray(3, 4, 2);
    ASSERT_NE(rows, nullptr);
    auto *base = static_cast<unsigned char *>(rows[0]);
    EXPECT_EQ((Codes{static_cast<unsigned char *>(rows[1]) - base, static_cast<unsigned char *>(rows[2]) - base,
                     std::count(base, base + 24, 0), alloc_live_bytes()}),
              (Codes{8, 16, 24, 3 * 4 + 24}));
    trace_start();
    rtvox_free_2darray(rows, 99);
    EXPECT_EQ((Codes{alloc_live(), trace_count("rtvox.c:rtvox_free_2darray:"),
                     trace_count("--> entry  rtvox_free_2darray"), trace_count("<-- exit  rtvox_free_2darray")}),
              (Codes{0, 2, 1, 1}));

    // Without its data block the row table is still filled with offsets from null.
    alloc_fail(1, 1);
    rows = rtvox_alloc_2darray(3, 4, 2);
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ((Codes{reinterpret_cast<intptr_t>(rows[0]), reinterpret_cast<intptr_t>(rows[2])}), (Codes{0, 16}));
    rtvox_free_2darray(rows, 3);
    alloc_fail(0, 1);
    EXPECT_EQ(rtvox_alloc(8), nullptr);
    alloc_fail(0, 2);
    EXPECT_EQ(rtvox_alloc_2darray(3, 4, 2), nullptr);
    const int64_t live = alloc_live();
    alloc_fail(0, 1);  // without a row table the data block is given back
    EXPECT_EQ(rtvox_alloc_2darray(3, 4, 2), nullptr);
    EXPECT_EQ(alloc_live(), live);

    // An empty array loses its data block.
    alloc_reset();
    {
        KeptLeak leak;
        rows = rtvox_alloc_2darray(0, 4, 2);
    }
    EXPECT_NE(rows, nullptr);
    rtvox_free(rows);
    EXPECT_EQ((Codes{alloc_calls(), alloc_live()}), (Codes{2, 1}));
}

class MarkerFiles : public ::testing::Test {
protected:
    TempRoot root;
};

TEST_F(MarkerFiles, InventorySwitchesReadTheReverseOfTheirNamesOnEveryCall)
{
    const auto both = [] { return Codes{IsrtvoxHBAInventoryDisabled(), IsrtvoxMIRUInventoryDisabled()}; };
    EXPECT_EQ(both(), (Codes{1, 1}));
    root.touch("/flash/data0/oem_ps/rt_vox_sashba_disabled");
    EXPECT_EQ(both(), (Codes{0, 1}));
    root.touch("/flash/data0/oem_ps/rt_vox_miru_disabled");
    std::filesystem::remove(root.path("/flash/data0/oem_ps/rt_vox_sashba_disabled"));
    EXPECT_EQ(both(), (Codes{1, 0}));
}

TEST_F(MarkerFiles, StressPollFileParsing)
{
    int32_t first = 11;
    int32_t second = 22;
    // No file: outputs untouched.
    EXPECT_EQ((Codes{IsstressMIRUPollEnabled(&first, &second), first, second}), (Codes{0, 11, 22}));

    const struct {
        const char *content;
        int32_t first, second;
    } cases[] = {{"5 7\n", 5, 7}, {"5", 0, 3}, {"", 0, 3}, {"x y", 0, 3}, {"-4\n9", -4, 9}, {" 12   -1 junk", 12, -1}};
    for (const auto &c : cases) {
        first = second = 99;
        root.touch("/flash/data0/oem_ps/rt_vox_miru_poll", c.content);
        EXPECT_EQ((Codes{IsstressMIRUPollEnabled(&first, &second), first, second}), (Codes{1, c.first, c.second}))
            << c.content;
    }
    EXPECT_EQ(IsstressMIRUPollEnabled(nullptr, nullptr), 1u);
}

TEST_F(MarkerFiles, DumpRequestIsConsumedOnceAndStaysWhenItCannotBeRemoved)
{
    const auto first = IsDumpEnabled();
    root.touch("/tmp/rtdump");
    EXPECT_EQ((Codes{first, IsDumpEnabled(), root.exists("/tmp/rtdump"), IsDumpEnabled()}), (Codes{0, 1, 0, 0}));
    root.touch("/tmp/rtdump/keep");  // a directory with content cannot be removed
    EXPECT_EQ((Codes{IsDumpEnabled(), root.exists("/tmp/rtdump")}), (Codes{0, 1}));
}

TEST_F(MarkerFiles, LinksPlantedInTmpAreRefusedAndTheirTargetsKept)
{
    char target[] = "/tmp/rtvox-link-target-XXXXXX";  // outside the root
    const int fd = mkstemp(target);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "keep\n", 5), 5);
    close(fd);
    const struct {
        const char *path;
        std::function<int32_t()> call;
        int32_t result;
        const char *line;
    } cases[] = {
        {"/tmp/rtdump", [] { return static_cast<int32_t>(IsDumpEnabled()); }, 0,
         "<-- IsDumpEnabled refused: /tmp/rtdump is a symbolic link"},
        {"/tmp/rtvox_cache.log", [] { return rtcache_PrintCache(); }, -1,
         "<-- rtcache_PrintCache refused: /tmp/rtvox_cache.log is not a regular file"},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(symlink(target, root.path(c.path).c_str()), 0);
        trace_start();
        EXPECT_EQ(c.call(), c.result);
        EXPECT_TRUE(trace_has(2, c.line)) << c.path;
        EXPECT_TRUE(std::filesystem::is_symlink(root.path(c.path))) << c.path;
    }
    EXPECT_EQ(read_file(target), "keep\n");
    std::filesystem::remove(target);
}

}  // namespace

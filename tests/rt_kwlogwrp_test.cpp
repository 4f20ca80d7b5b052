// Event-log submission: validation, the suppression rules of the global
// status, every failing step, what reaches the host's event log, and
// friendly names.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "rtvox/rt_kwlogwrp.h"
#include "rtvox/rt_sync.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;

namespace {

constexpr const wchar_t *kDisk = L"Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1";
constexpr const char *kDiskName = "Disk 1 in Backplane 1 of Integrated RAID Controller 1";

constexpr RTSyncStatus kNormal{0x20, 0, 0, 0, 0, 0};
constexpr RTSyncStatus kPastEvents{0, 0, 0, 0, 0, 0};
constexpr RTSyncStatus kInventory{0x20, 0x40, 0, 0, 0, 0};
constexpr RTSyncStatus kInventoryPastEvents{0, 0x40, 0, 0, 0, 0};

class KwLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        RTSync_Destroy();
        ASSERT_EQ(RTSync_Init(), 0u);
        RTSync_SetGlobalStatus(kNormal);
        alloc_reset();
        trace_start();
    }
    void TearDown() override
    {
        alloc_fail_clear();
        vornhost_fail_clear();
        RTSync_Destroy();
    }
    // Nothing the call allocated or created is left behind.
    static void expect_nothing_left()
    {
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_EQ(vornhost_tlv_list_count(), 0u);
    }
    TempRoot root;
};

// A fault for the next call: one call of a platform function, and/or the
// allocation with that index (0 = the next one).
constexpr VornHostFunction kNoCall = VORNHOST_FUNCTION_COUNT;  // ignored by vornhost_fail
constexpr int kNoAllocation = -1;
void arm(VornHostFunction call, int allocation)
{
    vornhost_fail(call, 0, 1);
    if (allocation != kNoAllocation) {
        alloc_fail(static_cast<uint32_t>(allocation), 1);
    }
}

int32_t submit(const char *msgId, const wchar_t *fqdd, std::vector<std::string> strings, uint32_t severity = 2)
{
    std::vector<char *> args;
    for (auto &s : strings) {
        args.push_back(s.data());
    }
    return rt_KWLOGCMNSubmitEvent(severity, msgId, fqdd, args.empty() ? nullptr : args.data(),
                                  static_cast<uint8_t>(args.size()));
}

// The latest journaled event as "category/source/severity/flags msgId fqdd" and
// its TLVs as " tlv<type>=<raw value>"; "none" when nothing was journaled.
std::string last_event()
{
    const uint32_t n = vornhost_eventlog_count();
    VornHostEvent e{};
    if (n == 0 || vornhost_eventlog_get(n - 1, &e) != 0) {
        return "none";
    }
    std::string out = std::to_string(e.category) + "/" + std::to_string(e.source) + "/" + std::to_string(e.severity) +
                      "/" + std::to_string(e.flags) + " " + e.msgId + " " + (e.fqdd != nullptr ? e.fqdd : "(no fqdd)");
    for (uint32_t i = 0; i < e.tlvCount; ++i) {
        VornHostTlv tlv{};
        vornhost_eventlog_tlv(n - 1, i, &tlv);
        out += " tlv" + std::to_string(tlv.type) + "=" +
               std::string(reinterpret_cast<const char *>(tlv.value), tlv.length);
    }
    return out;
}

TEST_F(KwLog, SuppressionDependsOnPhaseMessageIdAndArguments)
{
    // One letter per status, without and with an argument string:
    //   normal | past events | inventory | inventory and past events.
    // S submitted (0), I dropped in the inventory phase (0), P dropped during past events (-1).
    const std::tuple<const char *, const wchar_t *, const char *> rows[] = {
        {"CTL97", kDisk, "SSSSIIII"},
        {"PDR16", kDisk, "SSSSSSSS"},
        {"PDR160", kDisk, "SSSSSSSS"},  // only 5 characters are compared
        {"PDR1", kDisk, "SSSPIIII"},
        {"SSD0001", kDisk, "SSSSSSSS"},
        {"SSD0002", kDisk, "SSSPIIII"},  // 7 characters are compared
        {"ENC28", L"Enclosure.Internal.0-1:NonRAID.Slot.2-1", "SSSSSSSS"},
        {"ENC28", L"Enclosure.Internal.0-1:RAID.Slot.2-1", "SSSPSSSP"},
    };
    const RTSyncStatus statuses[] = {kNormal, kPastEvents, kInventory, kInventoryPastEvents};
    for (const auto &[msgId, fqdd, outcomes] : rows) {
        for (int column = 0; column < 8; ++column) {
            const char outcome = outcomes[column];
            const bool past = (statuses[column / 2].statusFlags & 0x20) == 0;
            SCOPED_TRACE(std::string(msgId) + " column " + std::to_string(column));
            RTSync_SetGlobalStatus(statuses[column / 2]);
            vornhost_eventlog_clear();
            trace_start();
            const int32_t rc = column % 2 == 0 ? submit(msgId, fqdd, {}) : submit(msgId, fqdd, {"7"});
            EXPECT_EQ(rc, outcome == 'P' ? -1 : 0);
            EXPECT_EQ(vornhost_eventlog_count(), outcome == 'S' ? 1u : 0u);
            EXPECT_EQ(outcome == 'S', trace_has(4, "--> exit "));
            EXPECT_EQ(outcome == 'I', trace_has(4, "No logging KW alert during invenotry phase, suppress it"));
            EXPECT_EQ(outcome == 'P', trace_has(2, "Error: QNIPCLSubmitEvent() failed with return code:-1"));
            EXPECT_EQ(trace_count("We are in past event processing after tavo reset"), past && outcome != 'I' ? 1 : 0);
            expect_nothing_left();
        }
    }
}

TEST_F(KwLog, InvalidInputTracesAllFourLines)
{
    char *one[] = {const_cast<char *>("x")};
    char *hole[] = {const_cast<char *>("x"), nullptr};
    const std::tuple<uint32_t, const char *, const wchar_t *, char **, uint8_t> cases[] = {
        {2, "PDR1", kDisk, one, 6},  {0, "PDR1", kDisk, one, 1},   {4, "PDR1", kDisk, one, 1},
        {2, nullptr, kDisk, one, 1}, {2, "PDR1", nullptr, one, 1}, {2, "PDR1", kDisk, nullptr, 1},
        {2, "PDR1", kDisk, hole, 2}};
    for (const auto &[severity, msgId, fqdd, args, count] : cases) {
        trace_start();
        EXPECT_EQ(rt_KWLOGCMNSubmitEvent(severity, msgId, fqdd, args, count), 2);
        EXPECT_TRUE(trace_has(2, "Error: Inappropriate severity level received:" + std::to_string(severity)));
        EXPECT_TRUE(trace_has(2, "Error: Number of strings input count:" + std::to_string(count)));
        EXPECT_TRUE(trace_has(2, "Error: args string pointer address:"));
        EXPECT_TRUE(trace_has(2, "Error: MessageID pointer received:"));
        EXPECT_EQ(trace_count("Error: "), 4);
    }
    EXPECT_EQ(vornhost_eventlog_count(), 0u);
    EXPECT_EQ(rt_KWLOGCMNSubmitEvent(1, "PDR1", kDisk, nullptr, 0), 0);  // no strings need no array
}

TEST_F(KwLog, EachFailingStepIsTracedWithItsCodeAndFreesEverything)
{
    // What fails: a call (once) and/or an allocation; the bytes of both strings
    // with their terminators; the result; `line` and `failed` traced once each
    // ("L2 " once: no other level-2 line); the start of last_event().
    const std::string submit_failed = "Error: QNIPCLSubmitEvent() failed with return code:";
    using Case =
        std::tuple<const char *, VornHostFunction, int, size_t, int32_t, std::string, std::string, const char *>;
    const Case cases[] = {
        {"status lock", VORNHOST_SMMutexLock, kNoAllocation, 4, 0, "L1 rt_sync.c:RTSync_LockGlobalStatus:", "--> exit ",
         "4/2/2/0 CTL97 Disk"},
        {"arguments buffer", kNoCall, 0, 4, -1, "Error: rtvox_alloc failed, msgArgsBuf is NULL", "L2 ", "none"},
        {"FQDD buffer", kNoCall, 1, 4, 0, "fqdd pointer allocated as NULL.", "L2 ", "4/2/2/0 CTL97 (no fqdd) tlv6="},
        {"build", VORNHOST_QNIPCLBuildMsgArgsBuffer, kNoAllocation, 4, -1,
         "Error: QNIPCLBuildMsgArgsBuffer failed [126]", submit_failed + "126", "none"},
        {"arguments too long", kNoCall, kNoAllocation, 201, -1, "Error: QNIPCLBuildMsgArgsBuffer failed [7]",
         submit_failed + "7", "none"},
        {"create", VORNHOST_QNIPCLCreateTLVList, kNoAllocation, 4, -1, "Error: QNKWLWRAPCreateTLVList failed [126]",
         submit_failed + "126", "none"},
        {"add", VORNHOST_QNIPCLAddTLVToList, kNoAllocation, 4, -1, "Error: QNIPCLAddTLVToList failed [126]",
         submit_failed + "126", "none"},
        {"submit", VORNHOST_QNIPCLSubmitEvent, kNoAllocation, 4, -1,
         "Error: call to QNIPCLSubmitEvent() failed with return code:126", "L2 ", "none"},
    };
    for (const auto &[what, call, allocation, argumentBytes, result, line, failed, journaled] : cases) {
        SCOPED_TRACE(what);
        // Without the lock CTL97 goes out even though the status would drop it.
        RTSync_SetGlobalStatus(what == std::string("status lock") ? kInventoryPastEvents : kNormal);
        vornhost_eventlog_clear();
        alloc_reset();
        trace_start();
        arm(call, allocation);
        EXPECT_EQ(submit("CTL97", kDisk, {"ab", std::string(argumentBytes - 4, 'c')}), result);
        EXPECT_EQ(trace_count(line), 1);
        EXPECT_EQ(trace_count(failed), 1);
        EXPECT_EQ(last_event().rfind(journaled, 0), 0u) << last_event();
        expect_nothing_left();
        vornhost_fail_clear();
    }
}

TEST_F(KwLog, WhatReachesTheEventLog)
{
    EXPECT_EQ(submit("PDR16", kDisk, {"abc", "", "de"}, 3), 0);
    EXPECT_EQ(last_event(), "4/2/3/0 PDR16 " + std::string("Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrated.1-1") +
                                " tlv6=" + std::string("abc\0\0de\0", 8));
    EXPECT_EQ(submit("CTL97", std::wstring(150, L'F').c_str(), {}, 1), 0);
    EXPECT_EQ(last_event(), "4/2/1/0 CTL97 " + std::string(99, 'F'));  // no list without strings

    // The non-RAID path: no FQDD, no list, no check of the severity or the status.
    RTSync_SetGlobalStatus(kInventory);
    EXPECT_EQ(rt_KWLOGCMNSubmitEvent_nonRaid(9, 9, 7, "SYS1"), 0);
    EXPECT_EQ(last_event(), "4/1/7/0 SYS1 (no fqdd)");
    EXPECT_EQ(rt_KWLOGCMNSubmitEvent_nonRaid(0, 0, 2, ""), -1);
    EXPECT_EQ(rt_KWLOGCMNSubmitEvent_nonRaid(0, 0, 2, nullptr), -1);
    EXPECT_EQ(trace_count("<-- exit, msgid is not valid"), 2);
    vornhost_fail(VORNHOST_QNIPCLSubmitEvent, 0, 1);
    EXPECT_EQ(rt_KWLOGCMNSubmitEvent_nonRaid(0, 0, 2, "SYS2"), -1);
    EXPECT_TRUE(trace_has(2, "Error: call to QNIPCLSubmitEvent() failed with return code:126"));
    EXPECT_EQ(vornhost_eventlog_count(), 3u);

    // The single record (the bytes of 1065 are checked where region 26 is
    // announced), and the platform's code passed through unchanged.
    EXPECT_EQ(rt_SubMitSingle(RT_KWLOG_SINGLE_PCIESSD), 0);
    vornhost_eventlog_set_status(VORNHOST_EVT_SUBMIT_SINGLE, VORNHOST_E_BUSY, 1);
    EXPECT_EQ(rt_SubMitSingle(0xBEEF), VORNHOST_E_BUSY);
    EXPECT_TRUE(trace_has(4, "QNIPCLSubmitSingle returned = 11"));
    VornHostSingle single{};
    ASSERT_EQ(vornhost_single_count(), 2u);
    ASSERT_EQ(vornhost_single_get(1, &single), 0);
    EXPECT_EQ((std::vector<uint32_t>{single.kind, single.flags}), (std::vector<uint32_t>{2, 0}));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(single.bytes), single.length),
              std::string("\x10\0\0\0\xEF\xBE\x02\0", 8) + std::string(8, '\0'));
    expect_nothing_left();
}

TEST_F(KwLog, FriendlyNameIntoTheCallersBufferOrNewlyAllocated)
{
    const int32_t length = static_cast<int32_t>(std::strlen(kDiskName));
    const std::wstring long65535(65535, L'A');
    const std::wstring long65536(65536, L'A');
    const std::tuple<const wchar_t *, int32_t, int32_t, const char *, VornHostFunction, int> cases[] = {
        {kDisk, length + 1, 0, "FQDD string to be passed to ConvertFQDDToFriendlyName() : Disk.Bay.1:", kNoCall,
         kNoAllocation},
        {kDisk, length, -1, "err4:bufSize is > the friendlyfqdd name len", kNoCall, kNoAllocation},
        {kDisk, -1, -1, "err4:bufSize is > the friendlyfqdd name len", kNoCall, kNoAllocation},
        {nullptr, 64, -1, "err1:fqdd or msgstr is NULL", kNoCall, kNoAllocation},
        {kDisk, 64, -1, "err2:failed to get memory", kNoCall, 0},
        {L"Disk.Bay.1:Enclosure.Internal.0-1:RAID.Integrat\u00e9d.1-1", 64, -1,
         "err3:failed to convert fqdd to multibytes", kNoCall, kNoAllocation},
        {long65535.c_str(), 64, -1, "err3:failed to convert fqdd to multibytes", kNoCall, kNoAllocation},
        {long65536.c_str(), 64, -1, "err3:failed to convert fqdd to multibytes", kNoCall, kNoAllocation},
        {L"Disk.Bay.1:Unknown.Thing.1", 64, -1, "err5 failed to get friendlyName", kNoCall, kNoAllocation},
        {kDisk, 64, -1, "err5 failed to get friendlyName", VORNHOST_ConvertFQDDToFriendlyName, kNoAllocation},
    };
    for (const auto &[fqdd, bufSize, result, line, call, allocation] : cases) {
        SCOPED_TRACE(line);
        alloc_reset();
        trace_start();
        arm(call, allocation);
        std::string buffer(128, 'x');
        EXPECT_EQ(rt_Buildmsgstring(0, fqdd, buffer.data(), bufSize), result);
        EXPECT_TRUE(trace_has(2, line));
        // Zero-filled to bufSize on success; untouched on failure.
        const std::string expected =
            result == 0 ? kDiskName + std::string(1, '\0') + std::string(128 - length - 1, 'x') : std::string(128, 'x');
        EXPECT_EQ(buffer, expected);
        expect_nothing_left();
        alloc_fail_clear();
    }
    EXPECT_EQ(rt_Buildmsgstring(0, kDisk, nullptr, 64), -1);

    // Newly allocated.
    alloc_reset();
    char *name = getFriendlyFQDDName(kDisk);
    ASSERT_NE(name, nullptr);
    EXPECT_STREQ(name, kDiskName);
    std::free(name);
    EXPECT_TRUE(trace_has(4, "converted friendly fqdd is Disk 1 in Backplane 1"));

    EXPECT_EQ(getFriendlyFQDDName(nullptr), nullptr);
    EXPECT_EQ(getFriendlyFQDDName(L"Disk.Bay.1:Unknown.Thing.1"), nullptr);
    EXPECT_TRUE(trace_has(4, "Failed to convert to friendly fqdd line:"));
    alloc_fail(0, 1);
    EXPECT_EQ(getFriendlyFQDDName(kDisk), nullptr);
    EXPECT_TRUE(trace_has(4, "Failed to allocate memory for fqdd (null)"));
    EXPECT_EQ(alloc_calls(), 3u);
    expect_nothing_left();
}

}  // namespace

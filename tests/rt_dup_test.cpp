// Controller-side record copies (adapter, PCIe SSD adapter, adapter key,
// battery, driver) and the text trimmer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "rt_dup_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::dup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// An adapter whose every owned member is set: three entries (mask with three
// bits), eight slot texts, plain bytes in a pattern.
struct AdapterSource {
    Texts texts;
    RtAdapter rec{};
    RtAdapterEntry entries[3]{};

    AdapterSource()
    {
        fill_pattern(rec);
        fill_pattern(entries, 11);
        rec.objType = RTRAID_OBJTYPE_ADAPTER;
        rec.NAME = texts(L"RAID Controller in Slot 4");
        rec.hdr.VERSION = 2;
        rec.hdr.FQDD = texts(L"RAID.Slot.4-1");
        rec.EXTRA = texts(L"Integrated");
        rec.entryMask = 0x80010002u;
        rec.entryArray = entries;
        for (int i = 0; i < RTRAID_ADAPTER_TEXT_SLOTS; ++i) {
            rec.textSlots[i].pText = texts(L"slot text " + std::to_wstring(i));
        }
    }

    // The owned members in the order the copy allocates them.
    static std::vector<const void *> members(const RtAdapter &a)
    {
        std::vector<const void *> m{a.NAME, a.hdr.FQDD, a.EXTRA};
        for (const RtAdapterTextSlot &slot : a.textSlots) {
            m.push_back(slot.pText);
        }
        m.push_back(a.entryArray);
        return m;
    }
    static std::vector<size_t> pointer_offsets()
    {
        std::vector<size_t> at{8, 20, 112, 116};
        for (size_t i = 0; i < RTRAID_ADAPTER_TEXT_SLOTS; ++i) {
            at.push_back(424 + 9 * i + 4);
        }
        return at;
    }
};

using AdapterCopy = DupTest;

TEST_F(AdapterCopy, OwnsEveryMemberAndReleasesToNothing)
{
    AdapterSource src;
    const auto before = bytes_of(src.rec);

    RtAdapter *copy = DupAdapter(&src.rec);
    ASSERT_NE(copy, nullptr);
    expect_same_plain_bytes(copy, &src.rec, sizeof(RtAdapter), AdapterSource::pointer_offsets());
    expect_own_text(copy->NAME, src.rec.NAME);
    expect_own_text(copy->hdr.FQDD, src.rec.hdr.FQDD);
    expect_own_text(copy->EXTRA, src.rec.EXTRA);
    for (int i = 0; i < RTRAID_ADAPTER_TEXT_SLOTS; ++i) {
        expect_own_text(copy->textSlots[i].pText, src.rec.textSlots[i].pText);
    }
    ASSERT_NE(copy->entryArray, nullptr);
    EXPECT_NE(copy->entryArray, src.entries);
    EXPECT_EQ(bytes_of(copy->entryArray, 180), bytes_of(src.entries));

    // 13 blocks: the record, 11 texts of (length + 1) * 4 bytes, 180 bytes of entries.
    int64_t text_bytes = 0;
    for (const void *text : AdapterSource::members(src.rec)) {
        if (text != src.entries) {
            text_bytes += static_cast<int64_t>(std::wcslen(static_cast<const wchar_t *>(text)) + 1) * 4;
        }
    }
    EXPECT_EQ(alloc_live(), 13);
    EXPECT_EQ(alloc_live_bytes(), 512 + text_bytes + 180);
    EXPECT_THAT(traced("DupAdapter"), ElementsAre("L4 --> DupAdapter", "L4 <-- DupAdapter"));

    release_copy(copy);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(bytes_of(src.rec), before);
    EXPECT_TRUE(src.texts.unchanged());
    EXPECT_STREQ(src.rec.textSlots[7].pText, L"slot text 7");
}

TEST_F(AdapterCopy, EveryFailingAllocationLeavesOnlyItsMemberNull)
{
    AdapterSource src;
    const auto before = bytes_of(src.rec);
    release_copy(DupAdapter(&src.rec));
    ASSERT_EQ(alloc_calls(), 13u);

    for (uint32_t k = 0; k < 13; ++k) {
        SCOPED_TRACE("failing allocation " + std::to_string(k));
        alloc_reset();
        trace_start();
        alloc_fail(k, 1);
        RtAdapter *copy = DupAdapter(&src.rec);
        alloc_fail_clear();
        if (k == 0) {
            EXPECT_EQ(copy, nullptr);
            EXPECT_THAT(traced("DupAdapter"), ElementsAre("L4 --> DupAdapter", "L2 <--error2 DupAdapter"));
        } else {
            ASSERT_NE(copy, nullptr);
            const auto got = AdapterSource::members(*copy);
            const auto want = AdapterSource::members(src.rec);
            for (size_t m = 0; m < got.size(); ++m) {
                if (m == k - 1) {
                    EXPECT_EQ(got[m], nullptr) << "member " << m;
                } else {
                    EXPECT_NE(got[m], nullptr) << "member " << m;
                    EXPECT_NE(got[m], want[m]) << "member " << m;
                }
            }
            EXPECT_THAT(traced("DupAdapter"), ElementsAre("L4 --> DupAdapter", "L4 <-- DupAdapter"));
        }
        release_copy(copy);
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_EQ(bytes_of(src.rec), before);
    }
    EXPECT_TRUE(src.texts.unchanged());
}

TEST_F(AdapterCopy, EntryArrayFollowsTheMaskAndTheSourcePointer)
{
    AdapterSource src;
    src.rec.NAME = src.rec.hdr.FQDD = src.rec.EXTRA = nullptr;
    for (RtAdapterTextSlot &slot : src.rec.textSlots) {
        slot.pText = nullptr;
    }

    // Mask 0 with an array: a block of 0 bytes of the copy's own.
    src.rec.entryMask = 0;
    RtAdapter *copy = DupAdapter(&src.rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(alloc_calls(), 2u);
    EXPECT_NE(copy->entryArray, nullptr);
    EXPECT_NE(copy->entryArray, src.entries);
    EXPECT_EQ(alloc_live_bytes(), 512);
    EXPECT_EQ(copy->NAME, nullptr);
    EXPECT_EQ(copy->textSlots[3].pText, nullptr);
    release_copy(copy);

    // A full mask counts all 32 bits.
    alloc_reset();
    std::vector<RtAdapterEntry> many(32);
    src.rec.entryMask = 0xFFFFFFFFu;
    src.rec.entryArray = many.data();
    copy = DupAdapter(&src.rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(alloc_live_bytes(), 512 + 32 * 60);
    release_copy(copy);

    // No source array: nothing allocated for it, whatever the mask says.
    alloc_reset();
    src.rec.entryArray = nullptr;
    copy = DupAdapter(&src.rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(alloc_calls(), 1u);
    EXPECT_EQ(copy->entryArray, nullptr);
    release_copy(copy);
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(AdapterCopy, NullSourceIsRefused)
{
    EXPECT_EQ(DupAdapter(nullptr), nullptr);
    EXPECT_THAT(traced("DupAdapter"), ElementsAre("L4 --> DupAdapter", "L2 <--error1 DupAdapter"));
    EXPECT_EQ(alloc_calls(), 0u);
}

TEST_F(AdapterCopy, EntryExitAndErrorsReachTheDiagnosticLog)
{
    AdapterSource src;
    release_copy(DupAdapter(&src.rec));
    DupAdapter(nullptr);
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[DupAdapter] --> DupAdapter\n"));
    EXPECT_THAT(log, HasSubstr("[DupAdapter] <-- DupAdapter\n"));
    EXPECT_THAT(log, HasSubstr("[DupAdapter] <--error1 DupAdapter\n"));
}

// ---- PCIe SSD adapter ----------------------------------------------------------------

using PCIeSSDAdapterCopy = DupTest;

TEST_F(PCIeSSDAdapterCopy, FillsNameFqddAndExtraAndNothingElse)
{
    Texts texts;
    RtPCIeSSDAdapterNames names{texts(L"PCIe SSD Controller"), texts(L"PCIeSSD.Slot.2-1")};
    RtAdapter dest{};
    fill_pattern(dest);
    const auto before = bytes_of(dest);

    EXPECT_EQ(DupPCIeSSDAdapter(&names, &dest), 0);
    expect_own_text(dest.NAME, names.pName);
    expect_own_text(dest.hdr.FQDD, names.pFQDD);
    ASSERT_NE(dest.EXTRA, nullptr);
    EXPECT_STREQ(dest.EXTRA, L"Not Applicable");
    expect_same_plain_bytes(&dest, before.data(), sizeof(dest), {8, 20, 112});
    EXPECT_EQ(alloc_live(), 3);

    // The entry line carries its own line number; there is no exit line.
    const auto lines = trace_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(carries_own_line_number(lines[0], "DupPCIeSSDAdapter", "--> ")) << lines[0];

    rtvox_free(dest.NAME);
    rtvox_free(dest.hdr.FQDD);
    rtvox_free(dest.EXTRA);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_TRUE(texts.unchanged());
}

TEST_F(PCIeSSDAdapterCopy, AbsentTextsLeaveTheirFieldsAndFailuresStillSucceed)
{
    Texts texts;
    wchar_t *kept_name = texts(L"kept");
    RtAdapter dest{};
    dest.NAME = kept_name;
    dest.hdr.FQDD = kept_name;
    RtPCIeSSDAdapterNames none{nullptr, nullptr};
    EXPECT_EQ(DupPCIeSSDAdapter(&none, &dest), 0);
    EXPECT_EQ(dest.NAME, kept_name);
    EXPECT_EQ(dest.hdr.FQDD, kept_name);
    EXPECT_STREQ(dest.EXTRA, L"Not Applicable");
    rtvox_free(dest.EXTRA);

    // Each of the three allocations failing leaves its field NULL; the result is still 0.
    RtPCIeSSDAdapterNames names{texts(L"n"), texts(L"f")};
    for (uint32_t k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        alloc_reset();
        RtAdapter out{};
        alloc_fail(k, 1);
        EXPECT_EQ(DupPCIeSSDAdapter(&names, &out), 0);
        alloc_fail_clear();
        EXPECT_EQ(out.NAME == nullptr, k == 0);
        EXPECT_EQ(out.hdr.FQDD == nullptr, k == 1);
        EXPECT_EQ(out.EXTRA == nullptr, k == 2);
        rtvox_free(out.NAME);
        rtvox_free(out.hdr.FQDD);
        rtvox_free(out.EXTRA);
        EXPECT_EQ(alloc_live(), 0);
    }
}

TEST_F(PCIeSSDAdapterCopy, NullArgumentsAreRefused)
{
    RtPCIeSSDAdapterNames names{nullptr, nullptr};
    RtAdapter dest{};
    EXPECT_EQ(DupPCIeSSDAdapter(nullptr, &dest), -1);
    EXPECT_EQ(DupPCIeSSDAdapter(&names, nullptr), -1);
    const auto lines = traced("DupPCIeSSDAdapter");
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1], "L2 <--error1 DupPCIeSSDAdapter");
    EXPECT_EQ(lines[3], "L2 <--error2 DupPCIeSSDAdapter");
    EXPECT_EQ(dest.EXTRA, nullptr);
    EXPECT_EQ(alloc_calls(), 0u);
}

// ---- adapter key, battery, driver ------------------------------------------------------

using ControllerRecordCopy = DupTest;

TEST_F(ControllerRecordCopy, AdapterKeyIsACopyOfItsBytes)
{
    RtAdapterKey key{};
    fill_pattern(key);
    key.u16Tail = 0xBEEF;
    RtAdapterKey *copy = rtraid_DupAdapterKey(&key);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(bytes_of(*copy), bytes_of(key));
    EXPECT_EQ(alloc_live_bytes(), 292);
    EXPECT_THAT(traced("rtraid_DupAdapterKey"),
                ElementsAre("L4 --> rtraid_DupAdapterKey", "L4 <-- rtraid_DupAdapterKey"));
    rtvox_free(copy);

    trace_start();
    EXPECT_EQ(rtraid_DupAdapterKey(nullptr), nullptr);
    alloc_fail(0, 1);
    EXPECT_EQ(rtraid_DupAdapterKey(&key), nullptr);
    EXPECT_THAT(traced("rtraid_DupAdapterKey"),
                ElementsAre("L4 --> rtraid_DupAdapterKey", "L2 <--error1 rtraid_DupAdapterKey",
                            "L4 --> rtraid_DupAdapterKey", "L2 <--error2 rtraid_DupAdapterKey"));
    EXPECT_EQ(alloc_live(), 0);
}

struct HeadCopy {
    const char *name;
    RtRecord *(*dup)(const RtRecord *);
};

class HeadRecordCopy : public DupTest, public ::testing::WithParamInterface<HeadCopy> {};

TEST_P(HeadRecordCopy, CopiesNameAndFqddWithEveryFailurePosition)
{
    const std::string fn = GetParam().name;
    Texts texts;
    RtRecord src{};
    fill_pattern(src);
    src.objType = 7;
    src.NAME = texts(L"Battery on Controller 1");
    src.hdr.VERSION = 0;  // the version does not matter to these copies
    src.hdr.FQDD = texts(L"Battery.Integrated.1:RAID.Integrated.1-1");
    const auto before = bytes_of(src);

    RtRecord *copy = GetParam().dup(&src);
    ASSERT_NE(copy, nullptr);
    expect_same_plain_bytes(copy, &src, sizeof(src), {8, 20});
    expect_own_text(copy->NAME, src.NAME);
    expect_own_text(copy->hdr.FQDD, src.hdr.FQDD);
    EXPECT_THAT(traced(fn), ElementsAre("L4 --> " + fn, "L4 <-- " + fn));
    release_copy(copy);
    EXPECT_EQ(alloc_live(), 0);

    for (uint32_t k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        alloc_reset();
        trace_start();
        alloc_fail(k, 1);
        copy = GetParam().dup(&src);
        alloc_fail_clear();
        if (k == 0) {
            EXPECT_EQ(copy, nullptr);
            EXPECT_THAT(traced(fn), ElementsAre("L4 --> " + fn, "L2 <--error2 " + fn));
        } else {
            ASSERT_NE(copy, nullptr);
            EXPECT_EQ(copy->NAME == nullptr, k == 1);
            EXPECT_EQ(copy->hdr.FQDD == nullptr, k == 2);
        }
        release_copy(copy);
        EXPECT_EQ(alloc_live(), 0);
    }

    trace_start();
    EXPECT_EQ(GetParam().dup(nullptr), nullptr);
    EXPECT_THAT(traced(fn), ElementsAre("L4 --> " + fn, "L2 <--error1 " + fn));
    EXPECT_EQ(bytes_of(src), before);
    EXPECT_TRUE(texts.unchanged());
}

INSTANTIATE_TEST_SUITE_P(BatteryAndDriver, HeadRecordCopy,
                         ::testing::Values(HeadCopy{"rtraid_DupBattery", rtraid_DupBattery},
                                           HeadCopy{"rtraid_DupDriver", rtraid_DupDriver}),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

// ---- text trimmer ---------------------------------------------------------------------

using StripSpace = DupTest;

std::string strip(std::string buffer)
{
    StripLeadingTrailingSpace(buffer.data(), static_cast<uint32_t>(buffer.size()));
    return buffer;
}

TEST_F(StripSpace, TrimsAndZeroFillsBehindTheText)
{
    using namespace std::string_literals;
    EXPECT_EQ(strip("  abc  "s), "abc\0\0\0\0"s);
    EXPECT_EQ(strip("\t\n x y\r\v\f"s), "x y\0\0\0\0\0\0"s);
    EXPECT_EQ(strip("ab\0\0"s), "ab\0\0"s);
    EXPECT_EQ(strip(" a\0b \0"s), "a\0b\0\0\0"s);  // zeros inside the text stay
    EXPECT_EQ(strip("x"s), "x"s);
    EXPECT_EQ(strip("x   "s), "x\0\0\0"s);    // only the first byte is content: one byte kept
    EXPECT_EQ(strip("  \0 "s), "\0\0\0\0"s);  // a zero byte is not white space
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(alloc_calls(), 7u);  // one scratch block per call, each given back
}

TEST_F(StripSpace, AllBlankBufferOnlyLosesItsFirstByte)
{
    using namespace std::string_literals;
    EXPECT_EQ(strip(" \t \n"s), "\0\t \n"s);
    EXPECT_THAT(traced("StripLeadingTrailingSpace"),
                ElementsAre("L4 --> enter, hex dump --", "L4 <-- All content are white space"));
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(StripSpace, TracesTheNormalOutcomeAtTheErrorLevel)
{
    strip(" a ");
    EXPECT_THAT(
        traced("StripLeadingTrailingSpace"),
        ElementsAre("L4 --> enter, hex dump --", "L2 Terminated buffer with NULL", "L4 <-- exit, hex dump printed"));
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[StripLeadingTrailingSpace] --> enter, hex dump --\n"));
}

TEST_F(StripSpace, LongBuffersAreCutWhereTheEightBitScanStarts)
{
    // 300 bytes of text: the trailing scan starts at 299 modulo 256 = 43, so
    // 44 bytes survive.
    std::string text(300, 'q');
    const std::string out = strip(text);
    EXPECT_EQ(out.substr(0, 44), std::string(44, 'q'));
    EXPECT_EQ(out.substr(44), std::string(256, '\0'));

    // An all-blank long buffer ends like a short one (and the scan ends).
    EXPECT_EQ(strip(std::string(600, ' ')), '\0' + std::string(599, ' '));
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(StripSpace, BadArgumentsAndFailedScratchLeaveTheBuffer)
{
    StripLeadingTrailingSpace(nullptr, 4);
    char buffer[] = " ab ";
    StripLeadingTrailingSpace(buffer, 0);
    EXPECT_STREQ(buffer, " ab ");
    EXPECT_THAT(traced("StripLeadingTrailingSpace"),
                ElementsAre("L4 --> enter, hex dump --", "L2 <-- Invalid parameter", "L4 --> enter, hex dump --",
                            "L2 <-- Invalid parameter"));

    trace_start();
    alloc_fail(0, 1);
    StripLeadingTrailingSpace(buffer, 4);
    EXPECT_STREQ(buffer, " ab ");
    EXPECT_THAT(traced("StripLeadingTrailingSpace"),
                ElementsAre("L4 --> enter, hex dump --", "L2 <-- rtvox_alloc failed"));
    EXPECT_EQ(alloc_live(), 0);
}

}  // namespace

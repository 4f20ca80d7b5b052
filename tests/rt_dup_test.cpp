// Controller-side record copies (adapter, PCIe SSD adapter, adapter key,
// battery, driver) and the text trimmer.
#include "rt_dup_fixtures.h"

using namespace rtvox::test::dup;

namespace {

using ControllerCopy = DupTest;

TEST_F(ControllerCopy, CopyReleaseAndEveryFailingAllocation)
{
    // An adapter owning 11 texts (147 characters with their terminators) and three 60-byte entries.
    Source<RtAdapter> adapter(RTRAID_OBJTYPE_ADAPTER, 2, L"RAID Controller in Slot 4", L"RAID.Slot.4-1");
    adapter.rec.EXTRA = adapter.texts(L"Integrated");
    std::vector<Member> members{{8}, {20}, {112}};
    for (size_t i = 0; i < RTRAID_ADAPTER_TEXT_SLOTS; ++i) {
        adapter.rec.textSlots[i].pText = adapter.texts(L"slot text " + std::to_wstring(i));
        members.push_back({428 + 9 * i});
    }
    RtAdapterEntry entries[3];
    fill_pattern(entries, 11);
    adapter.rec.entryMask = 0x80010002u;
    adapter.rec.entryArray = entries;
    members.push_back({116, sizeof(entries)});
    copy_release_and_fail_each("DupAdapter", fresh(DupAdapter), &adapter.rec, adapter.texts, 512, members,
                               512 + 147 * 4 + 180);
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[DupAdapter] <-- DupAdapter\n"));

    // A PCIe SSD controller's record as the service prepared it (`pcie` but for
    // NAME, hdr.FQDD and EXTRA), filled from two names; nothing else is written.
    Source<RtAdapter> pcie(RTRAID_OBJTYPE_ADAPTER, 0, L"PCIe SSD Controller", L"PCIeSSD.Slot.2-1");
    pcie.rec.EXTRA = pcie.texts(L"Not Applicable");
    pcie.rec.entryArray = nullptr;
    for (RtAdapterTextSlot &slot : pcie.rec.textSlots) {
        slot.pText = nullptr;
    }
    const auto fill = [](const void *src) -> void * {
        auto *dest = static_cast<RtAdapter *>(rtvox_alloc(sizeof(RtAdapter)));
        if (dest != nullptr) {
            std::memcpy(dest, src, sizeof(RtAdapter));  // the fields are overwritten, not freed
            const RtPCIeSSDAdapterNames names{dest->NAME, dest->hdr.FQDD};
            EXPECT_EQ(DupPCIeSSDAdapter(&names, dest), 0);
        }
        return dest;
    };
    // The entry line carries its own line number; there is no exit line.
    const auto only_entry = [](const void *, int) {
        EXPECT_EQ(trace_lines().size(), 1u);
        EXPECT_TRUE(std::regex_match(trace_lines().at(0), std::regex("L4 rt_dup.c:DupPCIeSSDAdapter:(\\d+):--> \\1")));
    };
    copy_release_and_fail_each("DupPCIeSSDAdapter", {fill, false}, &pcie.rec, pcie.texts, 512, {{8}, {20}, {112}},
                               512 + 52 * 4, only_entry);

    Texts none;
    RtAdapterKey key;
    fill_pattern(key);
    copy_release_and_fail_each("rtraid_DupAdapterKey", fresh(rtraid_DupAdapterKey), &key, none, 292, {}, 292);

    // The version does not matter to the battery and driver copies.
    Source<RtRecord> head(7, 0, L"Battery on Controller 1", L"Battery.Integrated.1:RAID.Integrated.1-1");
    for (const auto &[fn, copier] : {std::make_pair("rtraid_DupBattery", fresh(rtraid_DupBattery)),
                                     std::make_pair("rtraid_DupDriver", fresh(rtraid_DupDriver))}) {
        copy_release_and_fail_each(fn, copier, &head.rec, head.texts, 512, {{8}, {20}}, 512 + (24 + 41) * 4);
    }
}

TEST_F(ControllerCopy, AdapterEntryArrayFollowsTheSourcePointerNotTheMask)
{
    RtAdapterEntry entry;
    RtAdapter src{};
    src.entryArray = &entry;  // with a mask of 0: a block of 0 bytes of the copy's own
    RtAdapter *with = DupAdapter(&src);
    src.entryArray = nullptr;
    src.entryMask = 0xFFFFFFFFu;  // without an array: none, whatever the mask
    RtAdapter *without = DupAdapter(&src);
    EXPECT_NE(with->entryArray, nullptr);
    EXPECT_NE(with->entryArray, &entry);
    EXPECT_EQ(without->entryArray, nullptr);
    EXPECT_EQ(alloc_calls(), 3u);
    EXPECT_EQ(alloc_live_bytes(), 2 * 512);
    rtcache_FreeRMObjects(with, 1);
    rtcache_FreeRMObjects(without, 1);
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(ControllerCopy, NullArgumentsAndAbsentTextsAreRefused)
{
    EXPECT_EQ(DupAdapter(nullptr), nullptr);
    EXPECT_EQ(rtraid_DupAdapterKey(nullptr), nullptr);
    EXPECT_EQ(rtraid_DupBattery(nullptr), nullptr);
    EXPECT_EQ(rtraid_DupDriver(nullptr), nullptr);
    for (const std::string fn : {"DupAdapter", "rtraid_DupAdapterKey", "rtraid_DupBattery", "rtraid_DupDriver"}) {
        EXPECT_THAT(traced(fn), ElementsAre("L4 --> " + fn, "L2 <--error1 " + fn));
    }
    RtPCIeSSDAdapterNames names{nullptr, nullptr};
    RtAdapter dest{};
    EXPECT_EQ(DupPCIeSSDAdapter(nullptr, &dest), -1);
    EXPECT_EQ(DupPCIeSSDAdapter(&names, nullptr), -1);
    EXPECT_THAT(traced("DupPCIeSSDAdapter"), ElementsAre(HasSubstr("L4 --> "), "L2 <--error1 DupPCIeSSDAdapter",
                                                         HasSubstr("L4 --> "), "L2 <--error2 DupPCIeSSDAdapter"));
    EXPECT_EQ(alloc_calls(), 0u);
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[DupAdapter] --> DupAdapter\n"));
    EXPECT_THAT(log, HasSubstr("[DupAdapter] <--error1 DupAdapter\n"));

    // Absent names leave the destination's NAME and hdr.FQDD as they were; EXTRA is set all the same.
    Texts texts;
    dest.NAME = dest.hdr.FQDD = texts(L"kept");
    EXPECT_EQ(DupPCIeSSDAdapter(&names, &dest), 0);
    EXPECT_EQ(dest.NAME, dest.hdr.FQDD);
    EXPECT_STREQ(dest.NAME, L"kept");
    EXPECT_STREQ(dest.EXTRA, L"Not Applicable");
    rtvox_free(dest.EXTRA);
}

TEST_F(ControllerCopy, StripTrimsAndZeroFillsBehindTheTextAndTracesEveryOutcome)
{
    using namespace std::string_literals;
    const std::pair<std::string, std::string> cases[] = {
        {" a "s, "a\0\0"s},
        {" \t \n"s, "\0\t \n"s},  // all blank: only the first byte is cleared
        {"\t\n x y\r\v\f"s, "x y\0\0\0\0\0\0"s},
        {"ab\0\0"s, "ab\0\0"s},
        {" a\0b \0"s, "a\0b\0\0\0"s},  // zeros inside the text stay
        {"x"s, "x"s},
        {"x   "s, "x\0\0\0"s},    // only the first byte is content: one byte kept
        {"  \0 "s, "\0\0\0\0"s},  // a zero byte is not white space
        // The trailing scan starts at (size - 1) modulo 256: 299 -> 43, so 44 bytes survive.
        {std::string(300, 'q'), std::string(44, 'q') + std::string(256, '\0')},
        {std::string(600, ' '), '\0' + std::string(599, ' ')},  // and a long blank buffer still ends
    };
    for (auto [in, want] : cases) {
        StripLeadingTrailingSpace(in.data(), static_cast<uint32_t>(in.size()));
        EXPECT_EQ(in, want) << "input of " << want.size() << " bytes";
    }
    EXPECT_EQ(alloc_calls(), 10u);  // one scratch block per call, each given back
    const std::string enter = "L4 --> enter, hex dump --";
    const auto lines = traced("StripLeadingTrailingSpace");  // those of the first two cases
    EXPECT_THAT(std::vector(lines.begin(), lines.begin() + 5),
                ElementsAre(enter, "L2 Terminated buffer with NULL", "L4 <-- exit, hex dump printed", enter,
                            "L4 <-- All content are white space"));

    trace_start();
    char buffer[] = " ab ";
    StripLeadingTrailingSpace(nullptr, 4);
    StripLeadingTrailingSpace(buffer, 0);
    alloc_fail(0, 1);
    StripLeadingTrailingSpace(buffer, 4);
    EXPECT_STREQ(buffer, " ab ");
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_THAT(traced("StripLeadingTrailingSpace"),
                ElementsAre(enter, "L2 <-- Invalid parameter", enter, "L2 <-- Invalid parameter", enter,
                            "L2 <-- rtvox_alloc failed"));
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[StripLeadingTrailingSpace] --> enter, hex dump --\n"));
}

}  // namespace

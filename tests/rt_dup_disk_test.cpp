// Disk, enclosure and foreign-configuration record copies.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "rt_dup_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::dup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// A physical disk owning every member: version 1, a list of three values and
// a 256-byte keyId buffer with bytes after its terminator.
struct DiskSource {
    Texts texts;
    RtPhysicalDisk rec{};
    uint32_t list[3]{0x11, 0x22, 0x33};
    char key[256]{};

    DiskSource()
    {
        fill_pattern(rec);
        rec.objType = RTRAID_OBJTYPE_PHYSICALDISK;
        rec.NAME = texts(L"Physical Disk 0:1:4");
        rec.hdr.VERSION = 1;
        rec.hdr.FQDD = texts(L"Disk.Bay.4:Enclosure.Internal.0-1:RAID.Slot.4-1");
        rec.listCount = 3;
        rec.listEntries = list;
        std::memset(key, 'z', sizeof(key));
        std::memcpy(key, "KEY-0042", 9);
        rec.keyId = key;
    }
};

std::unique_ptr<RtPhysicalDisk, void (*)(void *)> new_disk()
{
    return {static_cast<RtPhysicalDisk *>(rtvox_alloc(sizeof(RtPhysicalDisk))), release_copy};
}

using PhysicalDiskCopy = DupTest;

TEST_F(PhysicalDiskCopy, OwnsEveryMemberAndReleasesToNothing)
{
    DiskSource src;
    const auto before = bytes_of(src.rec);
    auto *dest = static_cast<RtPhysicalDisk *>(rtvox_alloc(sizeof(RtPhysicalDisk)));

    EXPECT_EQ(rtraid_dupPD(&src.rec, dest), 0);
    expect_same_plain_bytes(dest, &src.rec, 512, {8, 20, 384, 504});
    expect_own_text(dest->NAME, src.rec.NAME);
    expect_own_text(dest->hdr.FQDD, src.rec.hdr.FQDD);
    ASSERT_NE(dest->listEntries, nullptr);
    EXPECT_NE(dest->listEntries, src.list);
    EXPECT_EQ(bytes_of(dest->listEntries, 12), bytes_of(src.list));

    // keyId: the 256 source bytes, with one more zero byte just past the text's terminator.
    ASSERT_NE(dest->keyId, nullptr);
    EXPECT_NE(dest->keyId, src.key);
    std::string want(src.key, sizeof(src.key));
    want[9] = '\0';
    EXPECT_EQ(std::string(dest->keyId, 256), want);
    const auto text_bytes = [](const wchar_t *text) { return static_cast<int64_t>(std::wcslen(text) + 1) * 4; };
    EXPECT_EQ(alloc_live_bytes(), 512 + text_bytes(src.rec.NAME) + text_bytes(src.rec.hdr.FQDD) + 12 + 256);

    const auto lines = trace_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(carries_own_line_number(lines[0], "rtraid_dupPD", "Inside DUPd Func ")) << lines[0];
    EXPECT_THAT(lines[1], HasSubstr(":PCIeSSD hdr.FQDD=Disk.Bay.4:Enclosure.Internal.0-1:RAID.Slot.4-1 "
                                    "NAME=Physical Disk 0:1:4 pDestPD->hdr.VERSION=1"));
    EXPECT_THAT(lines[2], HasSubstr(":rtraid_dupPD pSrcPD->keyId = KEY-0042 , pDestPD->keyId = KEY-0042"));
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[rtraid_dupPD] rtraid_dupPD pSrcPD->keyId = KEY-0042"));

    release_copy(dest);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(bytes_of(src.rec), before);
    EXPECT_EQ(src.key[9], 'z');
    EXPECT_TRUE(src.texts.unchanged());
}

TEST_F(PhysicalDiskCopy, VersionZeroAndEmptyListShareTheSourcePointers)
{
    // The shared members are library blocks here, because releasing the copy frees them.
    DiskSource src;
    src.rec.hdr.VERSION = 0;
    src.rec.hdr.FQDD = static_cast<wchar_t *>(rtvox_alloc(8 * 4));
    std::wcscpy(src.rec.hdr.FQDD, L"Disk.0");
    src.rec.listCount = 0;
    src.rec.listEntries = static_cast<uint32_t *>(rtvox_alloc(4));
    src.rec.keyId = nullptr;

    auto dest = new_disk();
    EXPECT_EQ(rtraid_dupPD(&src.rec, dest.get()), 0);
    EXPECT_EQ(dest->hdr.FQDD, src.rec.hdr.FQDD);
    EXPECT_EQ(dest->listEntries, src.rec.listEntries);
    EXPECT_EQ(dest->keyId, nullptr);
    EXPECT_EQ(alloc_calls(), 4u);  // the two shared blocks, the destination, NAME
    EXPECT_THAT(trace_lines().back(), HasSubstr("pSrcPD->keyId = (null) , pDestPD->keyId = (null)"));

    // Releasing the copy gives back the shared blocks too: the source must not use them any more.
    dest.reset();
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(PhysicalDiskCopy, EveryFailingAllocationLeavesOnlyItsMemberNull)
{
    DiskSource src;
    const auto before = bytes_of(src.rec);
    for (uint32_t k = 0; k < 4; ++k) {
        SCOPED_TRACE(k);
        alloc_reset();
        auto dest = new_disk();
        alloc_fail(k, 1);
        EXPECT_EQ(rtraid_dupPD(&src.rec, dest.get()), 0);
        EXPECT_EQ(alloc_calls(), 5u);
        alloc_fail_clear();
        EXPECT_EQ(dest->NAME == nullptr, k == 0);
        EXPECT_EQ(dest->listEntries == nullptr, k == 1);
        EXPECT_EQ(dest->hdr.FQDD == nullptr, k == 2);
        EXPECT_EQ(dest->keyId == nullptr, k == 3);
        dest.reset();
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_EQ(bytes_of(src.rec), before);
    }
}

TEST_F(PhysicalDiskCopy, KeyIdFillingItsWholeBufferStaysInside)
{
    DiskSource src;
    std::memset(src.key, 'k', sizeof(src.key));  // no terminator at all
    auto dest = new_disk();
    EXPECT_EQ(rtraid_dupPD(&src.rec, dest.get()), 0);
    EXPECT_EQ(std::string(dest->keyId, 256), std::string(256, 'k'));
    EXPECT_THAT(trace_lines().back(), HasSubstr("pDestPD->keyId = " + std::string(256, 'k')));

    std::memset(src.key, 'k', 255);  // terminator in the last byte
    src.key[255] = '\0';
    auto dest2 = new_disk();
    EXPECT_EQ(rtraid_dupPD(&src.rec, dest2.get()), 0);
    EXPECT_EQ(std::string(dest2->keyId, 256), std::string(src.key, 256));
}

TEST_F(PhysicalDiskCopy, NullArgumentsAreRefusedWithoutATrace)
{
    DiskSource src;
    RtPhysicalDisk dest{};
    EXPECT_EQ(rtraid_dupPD(nullptr, &dest), -1);
    EXPECT_EQ(rtraid_dupPD(&src.rec, nullptr), -1);
    EXPECT_TRUE(trace_lines().empty());
    EXPECT_EQ(alloc_calls(), 0u);
}

// ---- virtual disk ----------------------------------------------------------------------

struct VirtualDiskSource {
    Texts texts;
    RtVirtualDisk rec{};
    int32_t ids[3]{7, -1, 300};

    VirtualDiskSource()
    {
        fill_pattern(rec);
        rec.objType = RTRAID_OBJTYPE_LOGICALDISK;
        rec.NAME = texts(L"Virtual Disk 1");
        rec.hdr.VERSION = 0;  // copied whatever the version
        rec.hdr.FQDD = texts(L"Disk.Virtual.1:RAID.Slot.4-1");
        rec.Size = 1ull << 40;
        rec.targetCount = 3;
        rec.targetIDs = ids;
    }
};

using VirtualDiskCopy = DupTest;

TEST_F(VirtualDiskCopy, OwnsEveryMemberAndTracesEachTarget)
{
    VirtualDiskSource src;
    const auto before = bytes_of(src.rec);
    auto *dest = static_cast<RtVirtualDisk *>(rtvox_alloc(sizeof(RtVirtualDisk)));
    rtraid_DupVD(&src.rec, dest);

    expect_same_plain_bytes(dest, &src.rec, 512, {8, 20, 504});
    expect_own_text(dest->NAME, src.rec.NAME);
    expect_own_text(dest->hdr.FQDD, src.rec.hdr.FQDD);
    ASSERT_NE(dest->targetIDs, nullptr);
    EXPECT_NE(dest->targetIDs, src.ids);
    EXPECT_EQ(bytes_of(dest->targetIDs, 12), bytes_of(src.ids));
    EXPECT_THAT(traced("rtraid_DupVD"),
                ElementsAre("L4 --> rtraid_DupVD", "L4 VD Size=1099511627776 ", "L4 PD targetID=7 ",
                            "L4 PD targetID=-1 ", "L4 PD targetID=300 ", "L4 <-- rtraid_DupVD"));
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[rtraid_DupVD] PD targetID=300 \n"));

    release_copy(dest);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(bytes_of(src.rec), before);
    EXPECT_TRUE(src.texts.unchanged());
}

TEST_F(VirtualDiskCopy, NoTargetsMeansNoArrayEvenWhenTheSourceHasOne)
{
    VirtualDiskSource src;
    src.rec.targetCount = 0;
    auto *dest = static_cast<RtVirtualDisk *>(rtvox_alloc(sizeof(RtVirtualDisk)));
    rtraid_DupVD(&src.rec, dest);
    EXPECT_EQ(dest->targetIDs, nullptr);
    EXPECT_EQ(traced("rtraid_DupVD").size(), 2u);  // no size or target lines
    release_copy(dest);
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(VirtualDiskCopy, EveryFailingAllocationLeavesOnlyItsMemberNull)
{
    VirtualDiskSource src;
    for (uint32_t k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        alloc_reset();
        trace_start();
        auto *dest = static_cast<RtVirtualDisk *>(rtvox_alloc(sizeof(RtVirtualDisk)));
        alloc_fail(k, 1);
        rtraid_DupVD(&src.rec, dest);
        alloc_fail_clear();
        EXPECT_EQ(dest->NAME == nullptr, k == 0);
        EXPECT_EQ(dest->hdr.FQDD == nullptr, k == 1);
        EXPECT_EQ(dest->targetIDs == nullptr, k == 2);
        EXPECT_EQ(dest->targetCount, 3u);
        EXPECT_EQ(traced("rtraid_DupVD").size(), k == 2 ? 2u : 6u);
        release_copy(dest);
        EXPECT_EQ(alloc_live(), 0);
    }
}

TEST_F(VirtualDiskCopy, NullArgumentCopiesNothing)
{
    VirtualDiskSource src;
    RtVirtualDisk dest{};
    fill_pattern(dest, 99);
    const auto before = bytes_of(dest);
    rtraid_DupVD(nullptr, &dest);
    rtraid_DupVD(&src.rec, nullptr);
    EXPECT_EQ(bytes_of(dest), before);
    EXPECT_THAT(traced("rtraid_DupVD"), ElementsAre("L4 --> rtraid_DupVD", "L2 <--error1 rtraid_DupVD",
                                                    "L4 --> rtraid_DupVD", "L2 <--error1 rtraid_DupVD"));
    EXPECT_EQ(alloc_calls(), 0u);
}

// ---- enclosure and its elements -----------------------------------------------------------

struct ElementCopy {
    const char *name;
    int32_t (*dup)(const RtRecord *, RtRecord *);
};

class EnclosureCopy : public DupTest, public ::testing::WithParamInterface<ElementCopy> {};

int32_t dup_enclosure_as_record(const RtRecord *src, RtRecord *dest)
{
    return rtraid_dupEnclosure(reinterpret_cast<const RtEnclosure *>(src), reinterpret_cast<RtEnclosure *>(dest));
}

TEST_P(EnclosureCopy, FqddIsSharedAtVersionZeroAndOwnedOtherwise)
{
    Texts texts;
    RtRecord src{};
    fill_pattern(src);
    src.objType = RTRAID_OBJTYPE_ENCLOSURE;
    src.NAME = texts(L"Backplane 1");
    src.hdr.FQDD = texts(L"Enclosure.Internal.0-1:RAID.Slot.4-1");
    src.hdr.VERSION = 0;
    const auto before = bytes_of(src);

    for (uint32_t version : {0u, 1u}) {
        SCOPED_TRACE(version);
        src.hdr.VERSION = version;
        auto *dest = static_cast<RtRecord *>(rtvox_alloc(512));
        EXPECT_EQ(GetParam().dup(&src, dest), 0);
        expect_same_plain_bytes(dest, &src, 512, {8, 20});
        expect_own_text(dest->NAME, src.NAME);
        if (version == 0) {
            EXPECT_EQ(dest->hdr.FQDD, src.hdr.FQDD);
            dest->hdr.FQDD = nullptr;  // shared: not the copy's to give back
        } else {
            expect_own_text(dest->hdr.FQDD, src.hdr.FQDD);
        }
        release_copy(dest);
        EXPECT_EQ(alloc_live(), 0);
    }
    src.hdr.VERSION = 0;
    EXPECT_EQ(bytes_of(src), before);
    EXPECT_TRUE(texts.unchanged());

    // Failing NAME, then FQDD, at version 1.
    src.hdr.VERSION = 1;
    for (uint32_t k = 0; k < 2; ++k) {
        alloc_reset();
        RtRecord dest{};
        alloc_fail(k, 1);
        EXPECT_EQ(GetParam().dup(&src, &dest), 0);
        alloc_fail_clear();
        EXPECT_EQ(dest.NAME == nullptr, k == 0);
        EXPECT_EQ(dest.hdr.FQDD == nullptr, k == 1);
        rtvox_free(dest.NAME);
        rtvox_free(dest.hdr.FQDD);
        EXPECT_EQ(alloc_live(), 0);
    }

    RtRecord dest{};
    EXPECT_EQ(GetParam().dup(nullptr, &dest), -1);
    EXPECT_EQ(GetParam().dup(&src, nullptr), -1);
}

INSTANTIATE_TEST_SUITE_P(EnclosureAndElements, EnclosureCopy,
                         ::testing::Values(ElementCopy{"Enclosure", dup_enclosure_as_record},
                                           ElementCopy{"EMM", rtraid_dupEMM}, ElementCopy{"FAN", rtraid_dupFAN},
                                           ElementCopy{"PSU", rtraid_dupPSU},
                                           ElementCopy{"TEMPPROBE", rtraid_dupTEMPPROBE}),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

using EnclosureTrace = DupTest;

TEST_F(EnclosureTrace, OnlyTheEnclosureCopyTraces)
{
    Texts texts;
    RtEnclosure enclosure{};
    enclosure.objType = RTRAID_OBJTYPE_ENCLOSURE;
    enclosure.Position = 2;
    enclosure.NAME = texts(L"Backplane 1");
    RtEnclosure dest{};
    EXPECT_EQ(rtraid_dupEnclosure(&enclosure, &dest), 0);
    EXPECT_EQ(dest.Position, 2);
    rtvox_free(dest.NAME);
    EXPECT_THAT(traced("rtraid_dupEnclosure"),
                ElementsAre("L4 DUPE-ENCLOSURE After copy NAME=Backplane 1", "L4 <-- rtraid_dupEnclosure"));

    // A failed NAME copy is traced as such.
    trace_start();
    alloc_fail(0, 1);
    EXPECT_EQ(rtraid_dupEnclosure(&enclosure, &dest), 0);
    EXPECT_EQ(traced("rtraid_dupEnclosure").front(), "L4 DUPE-ENCLOSURE After copy NAME=(null)");

    trace_start();
    RtRecord element{};
    RtRecord element_dest{};
    rtraid_dupEMM(&element, &element_dest);
    rtraid_dupFAN(&element, &element_dest);
    rtraid_dupPSU(&element, &element_dest);
    rtraid_dupTEMPPROBE(&element, &element_dest);
    rtraid_dupEnclosure(nullptr, &dest);
    EXPECT_TRUE(trace_lines().empty());
}

// ---- foreign configuration ------------------------------------------------------------------

// Two virtual disks and three physical disks, every embedded member set.
struct ForeignSource {
    Texts texts;
    RtForeignConfig rec{};
    RtVirtualDisk vds[2]{};
    RtPhysicalDisk pds[3]{};
    int32_t ids[2][2]{{0, 1}, {2, 3}};
    uint32_t list[2]{5, 6};
    char key[256] = "FOREIGN-KEY";

    ForeignSource()
    {
        fill_pattern(rec);
        for (int i = 0; i < 2; ++i) {
            fill_pattern(vds[i], static_cast<uint8_t>(i + 20));
            vds[i].NAME = texts(L"Foreign VD " + std::to_wstring(i));
            vds[i].hdr.FQDD = texts(L"Disk.Virtual." + std::to_wstring(i));
            vds[i].targetCount = 2;
            vds[i].targetIDs = ids[i];
        }
        for (int i = 0; i < 3; ++i) {
            fill_pattern(pds[i], static_cast<uint8_t>(i + 40));
            pds[i].NAME = texts(L"Foreign PD " + std::to_wstring(i));
            pds[i].hdr.FQDD = texts(L"Disk.Bay." + std::to_wstring(i));
            pds[i].id = static_cast<uint32_t>(5 + i);
            pds[i].Size = 1000ull * (i + 1);
            pds[i].state = 0x20 + i;
            pds[i].Slot = static_cast<uint8_t>(i);
            pds[i].Hotspare = i == 2 ? 1 : 0;
            pds[i].keyId = key;
            pds[i].listCount = 2;
            pds[i].listEntries = list;
        }
        rec.numVDs = 2;
        rec.vdList = vds;
        rec.numPDs = 3;
        rec.pdList = pds;
    }
};

// What the service gives back for a foreign copy: the arrays, and in them
// the names and target ids; the shared members stay with the source.
void release_foreign(RtForeignConfig *copy)
{
    if (copy == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < copy->numVDs; ++i) {
        rtvox_free(copy->vdList[i].NAME);
        rtvox_free(copy->vdList[i].targetIDs);
    }
    for (uint32_t i = 0; i < copy->numPDs; ++i) {
        rtvox_free(copy->pdList[i].NAME);
    }
    rtvox_free(copy->numVDs != 0 ? copy->vdList : nullptr);
    rtvox_free(copy->numPDs != 0 ? copy->pdList : nullptr);
    rtvox_free(copy);
}

using ForeignConfigCopy = DupTest;

int count_of(const std::vector<std::string> &lines, const std::string &line)
{
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

TEST_F(ForeignConfigCopy, OwnsListsNamesAndTargetsAndSharesTheRest)
{
    ForeignSource src;
    const auto before = bytes_of(src.rec);
    const auto vds_before = bytes_of(src.vds);
    const auto pds_before = bytes_of(src.pds);

    RtForeignConfig *copy = DupForeign_Config(&src.rec);
    ASSERT_NE(copy, nullptr);
    expect_same_plain_bytes(copy, &src.rec, 512, {68, 80});
    ASSERT_EQ(copy->numVDs, 2u);
    ASSERT_EQ(copy->numPDs, 3u);
    EXPECT_NE(copy->vdList, src.vds);
    EXPECT_NE(copy->pdList, src.pds);
    for (int i = 0; i < 2; ++i) {
        const RtVirtualDisk &vd = copy->vdList[i];
        expect_same_plain_bytes(&vd, &src.vds[i], 512, {8, 504});
        expect_own_text(vd.NAME, src.vds[i].NAME);
        EXPECT_EQ(vd.hdr.FQDD, src.vds[i].hdr.FQDD);
        ASSERT_NE(vd.targetIDs, nullptr);
        EXPECT_NE(vd.targetIDs, src.ids[i]);
        EXPECT_EQ(bytes_of(vd.targetIDs, 8), bytes_of(src.ids[i]));
    }
    for (int i = 0; i < 3; ++i) {
        const RtPhysicalDisk &pd = copy->pdList[i];
        expect_same_plain_bytes(&pd, &src.pds[i], 512, {8});
        expect_own_text(pd.NAME, src.pds[i].NAME);
        EXPECT_EQ(pd.hdr.FQDD, src.pds[i].hdr.FQDD);
        EXPECT_EQ(pd.keyId, src.key);
        EXPECT_EQ(pd.listEntries, src.list);
    }
    // The record, arrays of 1024 and 1536 bytes, five 12-character names, two pairs of ids.
    EXPECT_EQ(alloc_live_bytes(), 512 + 1024 + 1536 + 5 * 13 * 4 + 2 * 8);
    EXPECT_THAT(
        traced("DupForeign_Config"),
        ElementsAre("L4 --> DupForeign_Config", "L4 Copied VD Name", "L4 Copied pds", "L4 Copied VD Name",
                    "L4 Copied pds", "L4 Copied PD Name",
                    "L4 id:  5 Size:1000,Stae:32,Slot: 0 ,Hotspare:0,Name: Foreign PD 0", "L4 Copied PD Name",
                    "L4 id:  6 Size:2000,Stae:33,Slot: 1 ,Hotspare:0,Name: Foreign PD 1", "L4 Copied PD Name",
                    "L4 id:  7 Size:3000,Stae:34,Slot: 2 ,Hotspare:1,Name: Foreign PD 2", "L4 <-- DupForeign_Config"));
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[DupForeign_Config] --> DupForeign_Config\n"));
    EXPECT_THAT(log,
                HasSubstr("[DupForeign_Config] id:  7 Size:3000,Stae:34,Slot: 2 ,Hotspare:1,Name: Foreign PD 2\n"));
    EXPECT_THAT(log, ::testing::Not(HasSubstr("Copied")));

    release_foreign(copy);
    EXPECT_EQ(alloc_live(), 0);
    EXPECT_EQ(bytes_of(src.rec), before);
    EXPECT_EQ(bytes_of(src.vds), vds_before);
    EXPECT_EQ(bytes_of(src.pds), pds_before);
    EXPECT_TRUE(src.texts.unchanged());
    EXPECT_STREQ(src.key, "FOREIGN-KEY");
}

TEST_F(ForeignConfigCopy, EveryFailingAllocationEmptiesOrNullsOnlyItsMember)
{
    ForeignSource src;
    const auto before = bytes_of(src.rec);
    const auto vds_before = bytes_of(src.vds);
    release_foreign(DupForeign_Config(&src.rec));
    // record, vdList, (name, ids) x 2, pdList, name x 3
    ASSERT_EQ(alloc_calls(), 10u);

    for (uint32_t k = 0; k < 10; ++k) {
        SCOPED_TRACE("failing allocation " + std::to_string(k));
        alloc_reset();
        trace_start();
        alloc_fail(k, 1);
        RtForeignConfig *copy = DupForeign_Config(&src.rec);
        alloc_fail_clear();
        const auto lines = traced("DupForeign_Config");
        if (k == 0) {
            EXPECT_EQ(copy, nullptr);
            EXPECT_THAT(lines, ElementsAre("L4 --> DupForeign_Config", "L2 <--error2 DupForeign_Config"));
            EXPECT_EQ(alloc_live(), 0);
            continue;
        }
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(lines.back(), "L4 <-- DupForeign_Config");
        EXPECT_EQ(copy->numVDs, k == 1 ? 0u : 2u);
        EXPECT_EQ(copy->vdList == nullptr, k == 1);
        EXPECT_EQ(count_of(lines, "L2 <--error3 DupForeign_Config"), k == 1 ? 1 : 0);
        if (k >= 2 && k <= 5) {
            const RtVirtualDisk &vd = copy->vdList[(k - 2) / 2];
            if (k % 2 == 0) {
                EXPECT_EQ(vd.NAME, nullptr);
                // The name line follows the attempt, not its outcome.
                EXPECT_EQ(count_of(lines, "L4 Copied VD Name"), 2);
            } else {
                EXPECT_EQ(vd.targetIDs, nullptr);
                EXPECT_EQ(vd.targetCount, 0u);
                EXPECT_EQ(count_of(lines, "L2 <--error4 DupForeign_Config"), 1);
                EXPECT_EQ(count_of(lines, "L4 Copied pds"), 1);
            }
        }
        EXPECT_EQ(copy->numPDs, k == 6 ? 0u : 3u);
        EXPECT_EQ(copy->pdList == nullptr, k == 6);
        EXPECT_EQ(count_of(lines, "L2 <--error5 DupForeign_Config"), k == 6 ? 1 : 0);
        if (k >= 7) {
            EXPECT_EQ(copy->pdList[k - 7].NAME, nullptr);
            EXPECT_EQ(count_of(lines, "L4 Copied PD Name"), 3);
            // The line still names the disk: it prints the source's name.
            EXPECT_THAT(lines, ::testing::Contains(HasSubstr("Name: Foreign PD " + std::to_string(k - 7))));
        }
        release_foreign(copy);
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_EQ(bytes_of(src.rec), before);
        EXPECT_EQ(bytes_of(src.vds), vds_before);
    }
    EXPECT_TRUE(src.texts.unchanged());
}

TEST_F(ForeignConfigCopy, EmptyCountsKeepTheSourceListsAndAbsentMembersStayAbsent)
{
    ForeignSource src;
    src.rec.numVDs = 0;
    src.rec.numPDs = 0;
    RtForeignConfig *copy = DupForeign_Config(&src.rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(bytes_of(*copy), bytes_of(src.rec));  // list pointers included
    EXPECT_EQ(alloc_calls(), 1u);
    EXPECT_THAT(traced("DupForeign_Config"), ElementsAre("L4 --> DupForeign_Config", "L4 <-- DupForeign_Config"));
    release_foreign(copy);

    // A virtual disk without name or ids: both stay NULL, nothing traced for them.
    alloc_reset();
    trace_start();
    src.rec.numVDs = 1;
    src.vds[0].NAME = nullptr;
    src.vds[0].targetIDs = nullptr;
    copy = DupForeign_Config(&src.rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->vdList[0].NAME, nullptr);
    EXPECT_EQ(copy->vdList[0].targetIDs, nullptr);
    EXPECT_EQ(copy->vdList[0].targetCount, 2u);
    EXPECT_THAT(traced("DupForeign_Config"), ElementsAre("L4 --> DupForeign_Config", "L4 <-- DupForeign_Config"));
    release_foreign(copy);

    // A count without a list is copied as an empty list instead of being read through NULL.
    alloc_reset();
    trace_start();
    src.rec.vdList = nullptr;
    src.rec.numPDs = 2;
    src.rec.pdList = nullptr;
    copy = DupForeign_Config(&src.rec);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->numVDs, 0u);
    EXPECT_EQ(copy->numPDs, 0u);
    EXPECT_EQ(alloc_calls(), 1u);
    EXPECT_THAT(traced("DupForeign_Config"), ElementsAre("L4 --> DupForeign_Config", "L2 <--error3 DupForeign_Config",
                                                         "L2 <--error5 DupForeign_Config", "L4 <-- DupForeign_Config"));
    release_foreign(copy);
    EXPECT_EQ(alloc_live(), 0);

    trace_start();
    EXPECT_EQ(DupForeign_Config(nullptr), nullptr);
    EXPECT_THAT(traced("DupForeign_Config"), ElementsAre("L4 --> DupForeign_Config", "L2 <--error1 DupForeign_Config"));
}

}  // namespace

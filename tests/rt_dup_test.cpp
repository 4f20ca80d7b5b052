// Record copies: controller side (adapter, PCIe SSD adapter, adapter key,
// battery, driver), disks, enclosures and foreign configurations; and the
// text trimmer. One driver copies a record whole and then with each of its
// allocations failing in turn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

using namespace rtvox::test;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
// Results of several calls and fields, in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

// Owns the texts a source record points at and remembers what they said, so
// a test can prove that no copy or release touched them.
class Texts {
public:
    wchar_t *operator()(const std::wstring &text)
    {
        originals_.push_back(text);
        return texts_.emplace_back(text).data();
    }
    bool unchanged() const { return texts_ == originals_; }

private:
    std::deque<std::wstring> texts_, originals_;
};

inline std::vector<uint8_t> bytes_of(const void *data, size_t size)
{
    return {static_cast<const uint8_t *>(data), static_cast<const uint8_t *>(data) + size};
}

// The bytes of a record with its 4-byte pointer fields (at `pointers`) zeroed.
inline std::vector<uint8_t> plain_bytes(const void *record, size_t size, const std::vector<size_t> &pointers)
{
    auto bytes = bytes_of(record, size);
    for (size_t at : pointers) {
        std::memset(bytes.data() + at, 0, 4);
    }
    return bytes;
}

// A recognisable byte pattern, so that a byte a copy fails to carry shows up.
template <typename Record>
void fill_pattern(Record &record, uint8_t seed = 3)
{
    for (size_t i = 0; i < sizeof(record); ++i) {
        reinterpret_cast<uint8_t *>(&record)[i] = static_cast<uint8_t>(i * 7 + seed);
    }
}

// A source record in the pattern with its object type, version and head texts.
template <typename Rec>
struct Source {
    Texts texts;
    Rec rec;
    Source(uint32_t type, uint32_t version, const wchar_t *name, const wchar_t *fqdd)
    {
        fill_pattern(rec);
        rec.objType = type;
        rec.hdr.VERSION = version;
        rec.NAME = texts(name);
        rec.hdr.FQDD = texts(fqdd);
    }
};

// The lines that `function` traced, as "L<level> <message>" (head and line number dropped).
inline std::vector<std::string> traced(const std::string &function)
{
    std::vector<std::string> messages;
    const std::string head = " rt_dup.c:" + function + ":";
    for (const std::string &line : trace_lines()) {
        const size_t at = line.find(head);
        if (at != std::string::npos) {
            messages.push_back(line.substr(0, at) + " " + line.substr(line.find(':', at + head.size()) + 1));
        }
    }
    return messages;
}

// A copy function seen alike with the others: a source in, a new copy or NULL
// out. The copies into a caller's record get a zero-filled one of the library's.
struct Copier {
    std::function<void *(const void *)> copy;
    bool fresh;  // makes its record: traces only "--> fn", then "<-- fn" or, with no record, "<--error2 fn"
};
template <typename Rec>
Copier fresh(Rec *(*copy)(const Rec *))
{
    return {[copy](const void *src) -> void * { return copy(static_cast<const Rec *>(src)); }, true};
}
template <typename Rec>
Copier into_new(int32_t (*copy)(const Rec *, Rec *))
{
    const auto into = [copy](const void *src) -> void * {
        auto *dest = static_cast<Rec *>(rtvox_alloc(sizeof(Rec)));
        const int32_t rc = copy(static_cast<const Rec *>(src), dest);
        EXPECT_TRUE(dest == nullptr || rc == 0);
        return dest;
    };
    return {into, false};
}

// An owned member of a record at offset `at`: a wide text (bytes 0) or an array of `bytes` plain bytes.
struct Member {
    size_t at;
    size_t bytes = 0;
};

// Copies `src` (`size` bytes) whole, then once with each allocation failing in
// turn: the first (the record) gives no copy, a later one leaves only its
// member NULL in an otherwise whole copy. `members` lists the owned members in
// the order the copy allocates them, `bytes` is what a whole copy holds. A copy
// carries the source's plain bytes and its own blocks holding the source's
// texts and arrays; released (by the cache's release walk for a 512-byte
// record), it leaves nothing behind, and the source and its texts stay as they
// were. `check(copy, failed)` adds checks; failed is a member's index or -1.
inline void copy_release_and_fail_each(const std::string &fn, const Copier &c, const void *src, const Texts &texts,
                                       size_t size, const std::vector<Member> &members, int64_t bytes,
                                       const std::function<void(const void *, int)> &check = nullptr)
{
    const auto before = bytes_of(src, size);
    std::vector<size_t> pointers(members.size());
    std::transform(members.begin(), members.end(), pointers.begin(), [](const Member &m) { return m.at; });
    const auto n = static_cast<int>(members.size());
    for (int k = -1; k <= n; ++k) {
        SCOPED_TRACE(fn + ", failing allocation " + std::to_string(k));
        alloc_reset();
        trace_start();
        alloc_fail(static_cast<uint32_t>(k), k >= 0 ? 1 : 0);
        void *copy = c.copy(src);
        alloc_fail_clear();
        EXPECT_EQ(alloc_calls(), k == 0 ? 1u : n + 1u);
        EXPECT_EQ(alloc_live(), k == 0 ? 0 : k < 0 ? n + 1 : n);
        if (c.fresh) {
            EXPECT_THAT(traced(fn), ElementsAre("L4 --> " + fn, (k == 0 ? "L2 <--error2 " : "L4 <-- ") + fn));
        }
        if (k == 0) {
            EXPECT_EQ(copy, nullptr);
            continue;
        }
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(plain_bytes(copy, size, pointers), plain_bytes(src, size, pointers));
        for (int m = 0; m < n; ++m) {
            const void *got, *want;
            std::memcpy(&got, static_cast<const uint8_t *>(copy) + pointers[m], sizeof(got));
            std::memcpy(&want, static_cast<const uint8_t *>(src) + pointers[m], sizeof(want));
            EXPECT_EQ(got == nullptr, m == k - 1) << "member " << m;
            EXPECT_NE(got, want) << "member " << m;
            if (got != nullptr && members[m].bytes == 0) {
                EXPECT_STREQ(static_cast<const wchar_t *>(got), static_cast<const wchar_t *>(want));
            } else if (got != nullptr) {
                EXPECT_EQ(bytes_of(got, members[m].bytes), bytes_of(want, members[m].bytes));
            }
        }
        EXPECT_TRUE(k >= 0 || alloc_live_bytes() == bytes) << alloc_live_bytes();
        if (check) {
            check(copy, k > 0 ? k - 1 : -1);
        }
        size == RTRAID_RECORD_SIZE ? (void)rtcache_FreeRMObjects(copy, 1) : rtvox_free(copy);
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_EQ(bytes_of(src, size), before);
    }
    EXPECT_TRUE(texts.unchanged());
}

// Every test starts from a clean emulation, an empty trace, zero counted
// allocations and a private root for the diagnostic log.
class DupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        vornhost_reset();
        trace_start();
        alloc_reset();
    }
    TempRoot root;
};

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
    EXPECT_EQ((Codes{with->entryArray != nullptr && with->entryArray != &entry, without->entryArray == nullptr,
                     alloc_calls(), alloc_live_bytes()}),
              (Codes{1, 1, 3, 2 * 512}));
    rtcache_FreeRMObjects(with, 1);
    rtcache_FreeRMObjects(without, 1);
    EXPECT_EQ(alloc_live(), 0);
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

// ---- disks, enclosures, foreign configurations ----------------------------------

using DiskCopy = DupTest;

int32_t dup_enclosure(const RtRecord *src, RtRecord *dest)
{
    return rtraid_dupEnclosure(reinterpret_cast<const RtEnclosure *>(src), reinterpret_cast<RtEnclosure *>(dest));
}

// Two virtual disks and three physical disks with every embedded member set.
struct ForeignSource {
    RtForeignConfig rec;
    RtVirtualDisk vds[2];
    RtPhysicalDisk pds[3];
    int32_t ids[2][2];
    uint32_t list[2];
    char key[256];

    explicit ForeignSource(Texts &texts)
    {
        fill_pattern(*this);  // the disks' plain fields, the ids, the shared list and key
        for (int i = 0; i < 2; ++i) {
            vds[i].NAME = texts(L"Foreign VD " + std::to_wstring(i));
            vds[i].hdr.FQDD = texts(L"Disk.Virtual." + std::to_wstring(i));
            vds[i].targetCount = 2;
            vds[i].targetIDs = ids[i];
        }
        for (int i = 0; i < 3; ++i) {
            pds[i].NAME = texts(L"Foreign PD " + std::to_wstring(i));
            pds[i].hdr.FQDD = texts(L"Disk.Bay." + std::to_wstring(i));
            pds[i].keyId = key;
            pds[i].listEntries = list;
        }
        pds[2].id = 7;
        pds[2].Size = 3000;
        pds[2].state = 34;
        pds[2].Slot = 2;
        pds[2].Hotspare = 1;
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

TEST_F(DiskCopy, CopyReleaseAndEveryFailingAllocation)
{
    // A physical disk owning a list of three values and a 256-byte keyId buffer
    // holding a short text with bytes after it, or a text filling the buffer.
    Source<RtPhysicalDisk> pd(RTRAID_OBJTYPE_PHYSICALDISK, 1, L"Disk 4", L"Disk.Bay.4:RAID.Slot.4-1");
    uint32_t list[3]{0x11, 0x22, 0x33};
    char key[256];
    pd.rec.listCount = 3;
    pd.rec.listEntries = list;
    pd.rec.keyId = key;
    for (size_t length : {8u, 255u, 256u}) {
        std::memset(key, 'k', sizeof(key));
        if (length < sizeof(key)) {
            key[length] = '\0';
        }
        const std::string text(length, 'k'), source_key(key, sizeof(key));
        std::string want = source_key;  // and a zero just past the terminator, where that lies inside the buffer
        if (length + 1 < sizeof(key)) {
            want[length + 1] = '\0';
        }
        const auto check = [&](const void *copy, int failed) {
            const char *copied = static_cast<const RtPhysicalDisk *>(copy)->keyId;
            EXPECT_EQ(copied != nullptr ? std::string(copied, 256) : "", failed == 3 ? "" : want);
            EXPECT_TRUE(std::regex_match(trace_lines().at(0),
                                         std::regex("L4 rt_dup.c:rtraid_dupPD:(\\d+):Inside DUPd Func \\1")));
            EXPECT_THAT(traced("rtraid_dupPD"),
                        ElementsAre(::testing::_,
                                    "L4 PCIeSSD hdr.FQDD=Disk.Bay.4:RAID.Slot.4-1 NAME=Disk 4 pDestPD->hdr.VERSION=1",
                                    "L4 rtraid_dupPD pSrcPD->keyId = " + text +
                                        " , pDestPD->keyId = " + (failed == 3 ? "(null)" : text)));
        };
        copy_release_and_fail_each("rtraid_dupPD", into_new(rtraid_dupPD), &pd.rec, pd.texts, 512,
                                   {{8}, {504, 12}, {20}, {384, 1}}, 512 + (7 + 25) * 4 + 12 + 256, check);
        EXPECT_EQ(std::string(key, sizeof(key)), source_key);
    }

    // hdr.FQDD is copied whatever the version; targetCount stays when its ids cannot be allocated.
    Source<RtVirtualDisk> vd(RTRAID_OBJTYPE_LOGICALDISK, 0, L"Virtual Disk 1", L"Disk.Virtual.1");
    int32_t ids[3]{7, -1, 300};
    vd.rec.Size = 1ull << 40;
    vd.rec.targetCount = 3;
    vd.rec.targetIDs = ids;
    const auto vd_traces = [](const void *, int failed) {
        if (failed == 2) {  // then neither the size nor the ids are traced
            EXPECT_THAT(traced("rtraid_DupVD"), ElementsAre("L4 --> rtraid_DupVD", "L4 <-- rtraid_DupVD"));
        } else {
            EXPECT_THAT(traced("rtraid_DupVD"),
                        ElementsAre("L4 --> rtraid_DupVD", "L4 VD Size=1099511627776 ", "L4 PD targetID=7 ",
                                    "L4 PD targetID=-1 ", "L4 PD targetID=300 ", "L4 <-- rtraid_DupVD"));
        }
    };
    copy_release_and_fail_each("rtraid_DupVD", into_new(rtraid_DupVD), &vd.rec, vd.texts, 512, {{8}, {20}, {504, 12}},
                               512 + (15 + 15) * 4 + 12, vd_traces);
    EXPECT_THAT(root.read("/var/log/rtvox.log"), HasSubstr("[rtraid_DupVD] PD targetID=300 \n"));

    // The enclosure and its elements own hdr.FQDD from version 1 on; at version 0 they share the source's.
    Source<RtRecord> enclosure(RTRAID_OBJTYPE_ENCLOSURE, 1, L"Backplane 1", L"Enclosure.Internal.0-1");
    for (const auto &[fn, dup] :
         {std::make_pair("rtraid_dupEnclosure", dup_enclosure), std::make_pair("rtraid_dupEMM", rtraid_dupEMM),
          std::make_pair("rtraid_dupFAN", rtraid_dupFAN), std::make_pair("rtraid_dupPSU", rtraid_dupPSU),
          std::make_pair("rtraid_dupTEMPPROBE", rtraid_dupTEMPPROBE)}) {
        const bool traces = dup == dup_enclosure;  // only the enclosure copy traces
        const auto check = [traces](const void *, int failed) {
            const std::vector<std::string> lines{
                "L4 DUPE-ENCLOSURE After copy NAME=" + std::string(failed == 0 ? "(null)" : "Backplane 1"),
                "L4 <-- rtraid_dupEnclosure"};
            EXPECT_EQ(trace_lines().size(), traces ? 2u : 0u);
            EXPECT_EQ(traced("rtraid_dupEnclosure"), traces ? lines : std::vector<std::string>{});
        };
        copy_release_and_fail_each(fn, into_new(dup), &enclosure.rec, enclosure.texts, 512, {{8}, {20}},
                                   512 + (12 + 23) * 4, check);
        enclosure.rec.hdr.VERSION = 0;
        auto *dest = static_cast<RtRecord *>(into_new(dup).copy(&enclosure.rec));
        EXPECT_EQ(dest->hdr.FQDD, enclosure.rec.hdr.FQDD);
        dest->hdr.FQDD = nullptr;  // shared: not the copy's to give back
        rtcache_FreeRMObjects(dest, 1);
        EXPECT_EQ(alloc_live(), 0);
        enclosure.rec.hdr.VERSION = 1;
    }
}

TEST_F(DiskCopy, SharedAndAbsentMembers)
{
    // A physical disk at version 0 with an empty list shares hdr.FQDD and the list with
    // its source (library blocks here: releasing the copy gives them back too).
    Source<RtPhysicalDisk> pd(RTRAID_OBJTYPE_PHYSICALDISK, 0, L"Disk 4", L"unused");
    pd.rec.hdr.FQDD = static_cast<wchar_t *>(rtvox_alloc(4));
    pd.rec.listCount = 0;
    pd.rec.listEntries = static_cast<uint32_t *>(rtvox_alloc(4));
    pd.rec.keyId = nullptr;
    auto *disk = static_cast<RtPhysicalDisk *>(into_new(rtraid_dupPD).copy(&pd.rec));
    EXPECT_TRUE(disk->hdr.FQDD == pd.rec.hdr.FQDD && disk->listEntries == pd.rec.listEntries && !disk->keyId);
    EXPECT_EQ(alloc_calls(), 4u);  // the two shared blocks, the destination, NAME
    EXPECT_EQ(traced("rtraid_dupPD").back(), "L4 rtraid_dupPD pSrcPD->keyId = (null) , pDestPD->keyId = (null)");
    rtcache_FreeRMObjects(disk, 1);
    pd.rec.hdr.FQDD = nullptr;
    pd.rec.listCount = 3;  // a count without a list: no list, and nothing read through NULL
    pd.rec.listEntries = nullptr;
    disk = static_cast<RtPhysicalDisk *>(into_new(rtraid_dupPD).copy(&pd.rec));
    EXPECT_EQ(disk->listEntries, nullptr);
    rtcache_FreeRMObjects(disk, 1);

    // A virtual disk gets no ids without a count (even with a source array) or without a source array.
    Source<RtVirtualDisk> vd(RTRAID_OBJTYPE_LOGICALDISK, 1, L"Virtual Disk 1", L"Disk.Virtual.1");
    int32_t ids[1]{7};
    vd.rec.targetCount = 0;
    vd.rec.targetIDs = ids;
    auto *no_count = static_cast<RtVirtualDisk *>(into_new(rtraid_DupVD).copy(&vd.rec));
    vd.rec.targetCount = 3;
    vd.rec.targetIDs = nullptr;
    auto *no_array = static_cast<RtVirtualDisk *>(into_new(rtraid_DupVD).copy(&vd.rec));
    EXPECT_TRUE(no_count->targetIDs == nullptr && no_array->targetIDs == nullptr);
    // The destination, NAME, hdr.FQDD of each; no size or id lines.
    EXPECT_EQ((Codes{alloc_calls(), static_cast<int64_t>(traced("rtraid_DupVD").size())}), (Codes{6 + 6, 4}));
    rtcache_FreeRMObjects(no_count, 1);
    rtcache_FreeRMObjects(no_array, 1);
    EXPECT_EQ(alloc_live(), 0);

    // A foreign configuration with empty counts keeps the source's lists.
    alloc_reset();
    ForeignSource src(vd.texts);
    src.rec.numVDs = 0;
    src.rec.numPDs = 0;
    RtForeignConfig *copy = DupForeign_Config(&src.rec);
    EXPECT_EQ(bytes_of(copy, 512), bytes_of(&src.rec, 512));  // list pointers included
    EXPECT_EQ(alloc_calls(), 1u);
    release_foreign(copy);

    // An embedded virtual disk without name or ids: both stay NULL, nothing traced for them.
    trace_start();
    src.rec.numVDs = 1;
    src.vds[0].NAME = nullptr;
    src.vds[0].targetIDs = nullptr;
    copy = DupForeign_Config(&src.rec);
    EXPECT_TRUE(copy->vdList[0].NAME == nullptr && copy->vdList[0].targetIDs == nullptr);
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
    EXPECT_EQ((Codes{copy->numVDs, copy->numPDs, alloc_calls()}), (Codes{0, 0, 1}));
    EXPECT_THAT(traced("DupForeign_Config"), ElementsAre("L4 --> DupForeign_Config", "L2 <--error3 DupForeign_Config",
                                                         "L2 <--error5 DupForeign_Config", "L4 <-- DupForeign_Config"));
    release_foreign(copy);
    EXPECT_EQ(alloc_live(), 0);
}

TEST_F(DupTest, NullArgumentsAreRefusedAndAbsentTextsLeftAlone)
{
    RtRecord rec{};
    auto *pd = reinterpret_cast<RtPhysicalDisk *>(&rec);
    auto *vd = reinterpret_cast<RtVirtualDisk *>(&rec);
    EXPECT_EQ((Codes{rtraid_dupPD(nullptr, pd), rtraid_dupPD(pd, nullptr)}), (Codes{-1, -1}));
    for (auto *dup : {dup_enclosure, rtraid_dupEMM, rtraid_dupFAN, rtraid_dupPSU, rtraid_dupTEMPPROBE}) {
        EXPECT_EQ((Codes{dup(nullptr, &rec), dup(&rec, nullptr)}), (Codes{-1, -1}));
    }
    EXPECT_TRUE(trace_lines().empty());
    rtraid_DupVD(nullptr, vd);
    rtraid_DupVD(vd, nullptr);
    EXPECT_EQ((std::vector<void *>{DupForeign_Config(nullptr), DupAdapter(nullptr), rtraid_DupAdapterKey(nullptr),
                                   rtraid_DupBattery(nullptr), rtraid_DupDriver(nullptr)}),
              std::vector<void *>(5));
    EXPECT_THAT(traced("rtraid_DupVD"), ElementsAre("L4 --> rtraid_DupVD", "L2 <--error1 rtraid_DupVD",
                                                    "L4 --> rtraid_DupVD", "L2 <--error1 rtraid_DupVD"));
    EXPECT_THAT(traced("DupForeign_Config"), ElementsAre("L4 --> DupForeign_Config", "L2 <--error1 DupForeign_Config"));
    for (const std::string fn : {"DupAdapter", "rtraid_DupAdapterKey", "rtraid_DupBattery", "rtraid_DupDriver"}) {
        EXPECT_THAT(traced(fn), ElementsAre("L4 --> " + fn, "L2 <--error1 " + fn));
    }
    RtPCIeSSDAdapterNames names{nullptr, nullptr};
    RtAdapter dest{};
    EXPECT_EQ((Codes{DupPCIeSSDAdapter(nullptr, &dest), DupPCIeSSDAdapter(&names, nullptr), alloc_calls()}),
              (Codes{-1, -1, 0}));
    EXPECT_THAT(traced("DupPCIeSSDAdapter"), ElementsAre(HasSubstr("L4 --> "), "L2 <--error1 DupPCIeSSDAdapter",
                                                         HasSubstr("L4 --> "), "L2 <--error2 DupPCIeSSDAdapter"));
    const std::string log = root.read("/var/log/rtvox.log");
    EXPECT_THAT(log, HasSubstr("[DupAdapter] --> DupAdapter\n"));
    EXPECT_THAT(log, HasSubstr("[DupAdapter] <--error1 DupAdapter\n"));

    // Absent names leave the destination's NAME and hdr.FQDD as they were; EXTRA is set all the same.
    Texts texts;
    dest.NAME = dest.hdr.FQDD = texts(L"kept");
    EXPECT_EQ(DupPCIeSSDAdapter(&names, &dest), 0);
    EXPECT_TRUE(dest.NAME == dest.hdr.FQDD && std::wstring(dest.NAME) == L"kept");
    EXPECT_STREQ(dest.EXTRA, L"Not Applicable");
    rtvox_free(dest.EXTRA);
}

TEST_F(DiskCopy, ForeignConfigCopyReleaseAndEveryFailingAllocation)
{
    Texts texts;
    const ForeignSource src(texts);
    const auto before = bytes_of(&src, sizeof(src));
    // Allocations: the record, vdList, NAME and targetIDs of each virtual disk, pdList, NAME of each physical disk.
    for (int k = -1; k < 10; ++k) {
        SCOPED_TRACE("failing allocation " + std::to_string(k));
        alloc_reset();
        trace_start();
        alloc_fail(static_cast<uint32_t>(k), k >= 0 ? 1 : 0);
        RtForeignConfig *copy = DupForeign_Config(&src.rec);
        alloc_fail_clear();
        const auto lines = traced("DupForeign_Config");
        if (k == 0) {
            EXPECT_EQ(copy, nullptr);
            EXPECT_THAT(lines, ElementsAre("L4 --> DupForeign_Config", "L2 <--error2 DupForeign_Config"));
            EXPECT_EQ(alloc_live(), 0);
            continue;
        }
        EXPECT_EQ(lines.back(), "L4 <-- DupForeign_Config");
        // A list that cannot be allocated is emptied; the copy still succeeds.
        EXPECT_EQ(plain_bytes(copy, 512, {64, 68, 76, 80}), plain_bytes(&src.rec, 512, {64, 68, 76, 80}));
        EXPECT_EQ((Codes{alloc_calls(), copy->numVDs, copy->numPDs, trace_count("<--error3 DupForeign_Config"),
                         trace_count("<--error5 DupForeign_Config")}),
                  (Codes{k == 1   ? 6
                         : k == 6 ? 7
                                  : 10,
                         k == 1 ? 0 : 2, k == 6 ? 0 : 3, k == 1, k == 6}));
        for (int i = 0; i < static_cast<int>(copy->numVDs); ++i) {
            const RtVirtualDisk &vd = copy->vdList[i];
            const bool ids_failed = k == 3 + 2 * i;  // then its count is 0
            EXPECT_EQ(plain_bytes(&vd, 512, {8, 500, 504}), plain_bytes(&src.vds[i], 512, {8, 500, 504}));
            EXPECT_NE(vd.NAME, src.vds[i].NAME);
            EXPECT_STREQ(vd.NAME, k == 2 + 2 * i ? nullptr : src.vds[i].NAME);
            EXPECT_EQ(vd.targetCount, ids_failed ? 0u : 2u);
            EXPECT_NE(vd.targetIDs, src.ids[i]);
            EXPECT_TRUE(ids_failed ? vd.targetIDs == nullptr : bytes_of(vd.targetIDs, 8) == bytes_of(src.ids[i], 8));
        }
        for (int i = 0; i < static_cast<int>(copy->numPDs); ++i) {
            // hdr.FQDD, keyId and listEntries stay the source's.
            EXPECT_EQ(plain_bytes(&copy->pdList[i], 512, {8}), plain_bytes(&src.pds[i], 512, {8}));
            EXPECT_NE(copy->pdList[i].NAME, src.pds[i].NAME);
            EXPECT_STREQ(copy->pdList[i].NAME, k == 7 + i ? nullptr : src.pds[i].NAME);
        }
        // The name lines follow the attempt, not its outcome; the disk line prints the source's name.
        EXPECT_EQ((Codes{trace_count("Copied VD Name"), trace_count("Copied PD Name"), trace_count("Name: Foreign PD"),
                         trace_count("Copied pds"), trace_count("<--error4 DupForeign_Config")}),
                  (Codes{copy->numVDs, copy->numPDs, copy->numPDs,
                         k == 1             ? 0
                         : k == 3 || k == 5 ? 1
                                            : 2,
                         k == 3 || k == 5}));
        if (k < 0) {
            // The record, arrays of 1024 and 1536 bytes, five 12-character names, two pairs of ids.
            EXPECT_EQ(alloc_live_bytes(), 512 + 1024 + 1536 + 5 * 13 * 4 + 2 * 8);
            EXPECT_EQ(lines.at(2), "L4 Copied pds");  // each virtual disk's ids right after its name
            const std::string last_disk = "id:  7 Size:3000,Stae:34,Slot: 2 ,Hotspare:1,Name: Foreign PD 2";
            EXPECT_EQ(lines.at(10), "L4 " + last_disk);
            const std::string log = root.read("/var/log/rtvox.log");
            EXPECT_THAT(log, HasSubstr("[DupForeign_Config] --> DupForeign_Config\n"));
            EXPECT_THAT(log, HasSubstr("[DupForeign_Config] " + last_disk + "\n"));
            EXPECT_THAT(log, ::testing::Not(HasSubstr("Copied")));
        }
        release_foreign(copy);
        EXPECT_EQ(alloc_live(), 0);
        EXPECT_EQ(bytes_of(&src, sizeof(src)), before);
    }
    EXPECT_TRUE(texts.unchanged());
}

}  // namespace

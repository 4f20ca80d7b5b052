// Shared pieces of the record-copy tests: source records whose texts outlive
// them, byte views, the per-function view of the trace, and one driver that
// copies a record whole and then with each of its allocations failing in turn.
#pragma once

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

namespace rtvox::test::dup {

using namespace rtvox::test;
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

}  // namespace rtvox::test::dup

// Shared pieces of the record-copy tests: source texts that outlive their
// records, byte snapshots, the per-function view of the trace, and the
// release of a cached copy through the cache's own release walk.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "rtvox/rt_cache.h"
#include "rtvox/rt_dup.h"
#include "testsupport.h"
#include "vornhost/vornhost.h"

namespace rtvox::test::dup {

// Owns the texts a source record points at and remembers what they said, so
// a test can prove that no copy or release touched them.
class Texts {
public:
    wchar_t *operator()(const std::wstring &text)
    {
        texts_.push_back(std::make_unique<std::wstring>(text));
        originals_.push_back(text);
        return texts_.back()->data();
    }
    bool unchanged() const
    {
        for (size_t i = 0; i < texts_.size(); ++i) {
            if (std::wcscmp(texts_[i]->c_str(), originals_[i].c_str()) != 0) {
                return false;
            }
        }
        return true;
    }

private:
    std::vector<std::unique_ptr<std::wstring>> texts_;
    std::vector<std::wstring> originals_;
};

inline std::vector<uint8_t> bytes_of(const void *data, size_t size)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    return {bytes, bytes + size};
}

template <typename Record>
std::vector<uint8_t> bytes_of(const Record &record)
{
    return bytes_of(&record, sizeof(record));
}

// Fills a record with a recognisable byte pattern before its fields are set,
// so that a byte the copy fails to carry shows up.
template <typename Record>
void fill_pattern(Record &record, uint8_t seed = 3)
{
    auto *bytes = reinterpret_cast<uint8_t *>(&record);
    for (size_t i = 0; i < sizeof(record); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + seed);
    }
}

// Compares two records byte for byte, skipping the 4-byte pointer fields at
// `pointers` (offsets).
inline void expect_same_plain_bytes(const void *copy, const void *source, size_t size,
                                    const std::vector<size_t> &pointers)
{
    const auto *a = static_cast<const uint8_t *>(copy);
    const auto *b = static_cast<const uint8_t *>(source);
    for (size_t i = 0; i < size; ++i) {
        bool in_pointer = false;
        for (size_t at : pointers) {
            in_pointer = in_pointer || (i >= at && i < at + 4);
        }
        if (!in_pointer && a[i] != b[i]) {
            ADD_FAILURE() << "byte " << i << " differs: " << int{a[i]} << " != " << int{b[i]};
            return;
        }
    }
}

// The copy of a text: present, equal to the source, and not the source's block.
inline void expect_own_text(const wchar_t *copy, const wchar_t *source)
{
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, source);
    EXPECT_STREQ(copy, source);
}

// Releases a cached copy the way the cache does: the release walk for a run
// of one record (NAME, hdr.FQDD, what the object type owns, the record).
inline void release_copy(void *record)
{
    rtcache_FreeRMObjects(record, 1);
}

// The lines that `function` traced, as "L<level> <message>" (head and line
// number dropped), in order.
inline std::vector<std::string> traced(const std::string &function)
{
    std::vector<std::string> messages;
    const std::string head = " rt_dup.c:" + function + ":";
    for (const std::string &line : trace_lines()) {
        const size_t at = line.find(head);
        if (at == std::string::npos) {
            continue;
        }
        const size_t number_end = line.find(':', at + head.size());
        messages.push_back(line.substr(0, at) + " " + line.substr(number_end + 1));
    }
    return messages;
}

// True when `line` is a level-4 line of `function` whose message is `text`
// followed by the line number of the trace head itself.
inline bool carries_own_line_number(const std::string &line, const std::string &function, const std::string &text)
{
    const std::string head = "L4 rt_dup.c:" + function + ":";
    if (line.rfind(head, 0) != 0) {
        return false;
    }
    const size_t number_end = line.find(':', head.size());
    if (number_end == std::string::npos || number_end == head.size()) {
        return false;
    }
    const std::string number = line.substr(head.size(), number_end - head.size());
    return line.substr(number_end + 1) == text + number;
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
    void TearDown() override { alloc_fail_clear(); }

    TempRoot root;
};

}  // namespace rtvox::test::dup

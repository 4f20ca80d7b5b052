// The event cache: the ring of plain events, the change-object bitmap with
// its record slots, the batch fetch, the delayed store and its purge, and who
// releases each event record.
#include <gmock/gmock.h>

#include <algorithm>
#include <set>
#include <utility>

#include "rt_cache_fixtures.h"

using namespace rtvox::test;
using namespace rtvox::test::cache;
using ::testing::ElementsAre;

namespace {

// Results of several calls and fields, in order (a braced list is evaluated left to right).
using Codes = std::vector<int64_t>;

constexpr uint8_t kEid = 0x21;     // a RAID controller, adapter index 2
constexpr uint8_t kSsdEid = 0x30;  // a PCIe SSD subsystem (EID type 7), adapter index 3
constexpr uint32_t kIndex = 2, kSsdIndex = 3;
constexpr uint32_t kPlain = 1, kChange = 3;  // object types of a controller event and of a disk change

// "[tag] _PD_ChObj Bitmap : 0x" and one "%02x " piece per byte.
std::string bitmap_text(const char *tag, const uint8_t *bytes, uint32_t count)
{
    std::string text = std::string("[") + tag + "] _PD_ChObj Bitmap : 0x";
    for (uint32_t i = 0; i < count; ++i) {
        char piece[4];
        std::snprintf(piece, sizeof piece, "%02x ", bytes[i]);
        text += piece;
    }
    return text;
}

// The bitmap lines captured so far as "L<level> [tag] _PD_ChObj Bitmap : 0x...".
std::vector<std::string> bitmap_lines()
{
    std::vector<std::string> out;
    for (const std::string &line : trace_lines()) {
        const size_t at = line.find("] _PD_ChObj Bitmap");
        if (at != std::string::npos) {
            out.push_back(line.substr(0, 3) + line.substr(line.rfind('[', at)));
        }
    }
    return out;
}

bool all_zero(const void *block, size_t bytes)
{
    const auto *p = static_cast<const uint8_t *>(block);
    return std::all_of(p, p + bytes, [](uint8_t b) { return b == 0; });
}

// One batch fetch; the caller owns both copies.
struct Batch {
    RtCacheEventBlock *events = nullptr;
    RtCachePdChObjBlock *chObj = nullptr;
    uint32_t rc = 0;
    void release()
    {
        rtvox_free(events);
        rtvox_free(chObj);
    }
};
Batch take(uint32_t eid = kEid)
{
    Batch batch;
    batch.rc = rtcache_GetCachedEvents(eid, &batch.events, &batch.chObj);
    return batch;
}

uint32_t park(uint32_t eid, uint32_t objType, uint32_t eventType, uint32_t key)
{
    return locked(rtcache_SetDelayedCachedEvent, eid, objType, eventType, key);
}

uint32_t purge(uint32_t eid, uint32_t opcode)
{
    return locked(rtcache_PurgeDelayedCachedEvents, eid, opcode);
}

class EventCache : public CacheTest {
protected:
    void SetUp() override
    {
        CacheTest::SetUp();
        add_eid(kIndex, kEid);
        add_eid(kSsdIndex, kSsdEid, RTCACHE_EIDTYPE_PCIESSD);
        trace_start();
    }
    static RtCacheEventBlock &ring(uint32_t index = kIndex) { return cache_Events[index]; }
    static RtCachePdChObjBlock &chobj(uint32_t index = kIndex) { return cache_Events_PD_ChObj[index]; }
};

// ---- the ring ------------------------------------------------------------------------------

TEST_F(EventCache, RingKeepsArrivalOrderAndRestartsAtThe385thEvent)
{
    for (uint32_t i = 1; i <= RTCACHE_EVENTCACHE_DEPTH; ++i) {
        ASSERT_EQ(record_event(kEid, kPlain, 9, 100 + i), 0u);
    }
    EXPECT_EQ((Codes{ring().u32Count, ring().entries[1].objType, ring().entries[1].eventType,
                     trace_count("event_data_npd null"), trace_has(2, "exceeded the RTCACHE_EVENTCACHE_DEPTH")}),
              (Codes{384, kPlain, 9, 384, 0}));
    EXPECT_EQ(ring().entries[1].event_data, nullptr);
    EXPECT_TRUE(all_zero(&chobj(), sizeof(RtCachePdChObjBlock)));

    RtCacheEventRecord *record = event_record("CTL48");
    ASSERT_EQ(record_event(kEid, kPlain, 9, 999, record), 0u);
    EXPECT_TRUE(trace_has(2, "exceeded the RTCACHE_EVENTCACHE_DEPTH") && trace_has(4, "event_data_npd not null"));
    // Entries 1 and 383 are stale, beyond the count.
    EXPECT_EQ((Codes{ring().u32Count, ring().entries[0].objKey, ring().entries[1].objKey, ring().entries[383].objKey,
                     cache_Events[kSsdIndex].u32Count}),
              (Codes{1, 999, 102, 484, 0}));
    EXPECT_EQ(ring().entries[0].event_data, record);

    // Overwriting an entry drops its record without releasing it.
    const int64_t live = alloc_live();
    ring().u32Count = RTCACHE_EVENTCACHE_DEPTH;
    ASSERT_EQ(record_event(kEid, kPlain, 9, 1000), 0u);
    EXPECT_EQ(ring().entries[0].event_data, nullptr);
    EXPECT_EQ(alloc_live(), live);
    release_event_record(record);
}

// ---- change-object events ------------------------------------------------------------------

TEST_F(EventCache, ChangeObjectSetsTheDiskBitAndTracesTheBitmapWithinTheDiskLimit)
{
    ASSERT_EQ(record_event(kEid, kChange, kChange, 10), 0u);
    EXPECT_EQ(ring().u32Count, 0u);
    uint8_t expected[RTCACHE_PDCHOBJ_BITMAP_BYTES] = {};
    expected[1] = 0x04;
    EXPECT_EQ(std::memcmp(chobj().au8Bitmap, expected, sizeof expected), 0);
    EXPECT_TRUE(all_zero(chobj().apRecords, sizeof chobj().apRecords));
    EXPECT_TRUE(trace_has(2, "u16Index:[1], u16Shift:[2]"));
    // The default limits print 64 pieces, before and after.
    const uint8_t empty[64] = {};
    EXPECT_THAT(bitmap_lines(),
                ElementsAre("L2 " + bitmap_text("Cache", empty, 64), "L2 " + bitmap_text("Cache", expected, 64)));

    auto printed = [](uint32_t disks) {
        const uint32_t limit = std::exchange(max_physicaldevices, disks);
        trace_start();
        EXPECT_EQ(record_event(kEid, kPlain, 9, 1), 0u);
        max_physicaldevices = limit;
        return bitmap_lines();
    };
    const std::string head = "L2 [Cache] _PD_ChObj Bitmap : 0x";
    std::string pieces = "00 04 ";  // 512 bytes are more than the text holds: 213 pieces, 639 characters
    for (int i = 2; i < 213; ++i) {
        pieces += "00 ";
    }
    EXPECT_THAT(printed(4096), ElementsAre(head + pieces));
    EXPECT_THAT(printed(8), ElementsAre(head + "00 "));
    EXPECT_TRUE(printed(7).empty());
}

TEST_F(EventCache, KeysAndEidsReachOnlyTheirOwnBlocks)
{
    // A type-7 EID has bits for 4096 disks.
    EXPECT_EQ((Codes{record_event(kSsdEid, kChange, kChange, 600), record_event(kSsdEid, kChange, kChange, 4096 + 9),
                     record_event(kEid, kChange, kChange, 512), record_event(255, kChange, kChange, 1),
                     record_event(0x40, kChange, kChange, 1), locked(rtcache_SetCachedEvent, 255, kPlain, 1, 1),
                     locked(rtcache_SetCachedEvent, 0x40, kPlain, 1, 1)}),
              (Codes{0, 0, 0, 2, 1, 2, 1}));
    EXPECT_TRUE(trace_has(4, "-->CopyCacheEvent: EID=48 u8Type=7"));
    EXPECT_TRUE(trace_has(2, "u16Index:[513] is beyond the bitmap area, bit not set"));
    EXPECT_TRUE(trace_has(2, "Error: objKey is more than MAX_PHYSICALDEVICESs"));
    EXPECT_TRUE(trace_has(2, "<-- err1") && trace_has(2, "<-- err2"));
    // An EID found by its index but outside the filled slots has no readable
    // type: the event is taken as type 0.
    void *byte = nullptr;
    ASSERT_EQ(fetch(RTCACHE_KEY_STORAGEEID, 0, 5, &byte), 0u);
    *static_cast<uint8_t *>(byte) = 0x50;
    ASSERT_EQ(record_event(0x50, kChange, kChange, 3), 0u);
    EXPECT_TRUE(trace_has(1, "<-- error get Storage EID Fail"));
    EXPECT_TRUE(trace_has(4, "-->CopyCacheEvent: EID=80 u8Type=0"));

    // Two bits in all the adapters' blocks, no plain event.
    std::vector<uint8_t> expected(max_adapters * sizeof(RtCachePdChObjBlock));
    expected[kSsdIndex * sizeof(RtCachePdChObjBlock) + 75] = 0x01;
    expected[5 * sizeof(RtCachePdChObjBlock)] = 0x08;
    EXPECT_EQ(std::memcmp(cache_Events_PD_ChObj, expected.data(), expected.size()), 0);
    EXPECT_TRUE(all_zero(cache_Events, max_adapters * sizeof(RtCacheEventBlock)));
}

// ---- the batch fetch -----------------------------------------------------------------------

TEST_F(EventCache, FetchHandsOverBothBlocksAndEmptiesThem)
{
    const int64_t base = alloc_live();
    RtCacheEventRecord *plain = event_record("CTL48");
    RtCacheEventRecord *disk = event_record("PDR4");
    ASSERT_EQ(record_event(kEid, kPlain, 9, 1), 0u);
    ASSERT_EQ(record_event(kEid, 4, 9, 2, plain), 0u);
    ASSERT_EQ(record_event(kEid, kChange, kChange, 7, disk), 0u);

    Batch batch = take();
    ASSERT_EQ(batch.rc, 0u);
    EXPECT_EQ((Codes{batch.events->u32Count, batch.events->entries[1].objType, batch.chObj->au8Bitmap[0]}),
              (Codes{2, 4, 0x80}));
    EXPECT_TRUE(batch.events->entries[1].event_data == plain && batch.chObj->apRecords[7] == disk);
    EXPECT_TRUE(all_zero(&ring(), sizeof(RtCacheEventBlock)));
    EXPECT_TRUE(all_zero(&chobj(), sizeof(RtCachePdChObjBlock)));
    EXPECT_TRUE(trace_has(5, "<-- exit, EID[33]"));

    Batch again = take();
    ASSERT_EQ(again.rc, 0u);
    EXPECT_TRUE(all_zero(again.events, sizeof(RtCacheEventBlock)));
    EXPECT_TRUE(all_zero(again.chObj, sizeof(RtCachePdChObjBlock)));
    again.release();
    release_event_record(plain);
    release_event_record(disk);
    batch.release();
    EXPECT_EQ(alloc_live(), base);
}

TEST_F(EventCache, FetchFailuresTakeNothingOrLoseOnlyThePlainEvents)
{
    RtCacheEventRecord *plain = event_record("CTL48");
    RtCacheEventRecord *disk = event_record("PDR4");
    ASSERT_EQ(record_event(kEid, kPlain, 9, 1, plain), 0u);
    ASSERT_EQ(record_event(kEid, kChange, kChange, 2, disk), 0u);
    const int64_t live = alloc_live();
    const uint32_t calls = alloc_calls();

    // Bad arguments, an unknown EID, the lock: refused before any allocation.
    RtCacheEventBlock *events = nullptr;
    RtCachePdChObjBlock *chObj = nullptr;
    EXPECT_EQ((Codes{take(0x40).rc, rtcache_GetCachedEvents(kEid, nullptr, &chObj),
                     rtcache_GetCachedEvents(kEid, &events, nullptr)}),
              (Codes{1, 2, 2}));
    vornhost_fail(VORNHOST_SMMutexLock, 0, 1);
    EXPECT_EQ((Codes{take().rc, alloc_calls() - calls}), (Codes{3, 0}));
    EXPECT_TRUE(trace_has(2, "<-- err2 255") && trace_has(2, "<-- err1") && trace_has(2, "<-- err3"));

    // The event copy fails: nothing taken.
    alloc_fail(0, 1);
    Batch failed = take();
    EXPECT_EQ((Codes{failed.rc, trace_has(2, "<-- err4"), ring().u32Count}), (Codes{3, 1, 1}));
    EXPECT_TRUE(failed.events == nullptr && chobj().apRecords[2] == disk);

    // The change-object copy fails: the events are lost, the bitmap and slots stay.
    alloc_fail(1, 1);
    failed = take();
    // The lost event's record is not released.
    EXPECT_EQ((Codes{failed.rc, trace_has(2, "<-- err5"), chobj().au8Bitmap[0], alloc_live() - live}),
              (Codes{3, 1, 0x04, 0}));
    EXPECT_TRUE(failed.events == nullptr && failed.chObj == nullptr && chobj().apRecords[2] == disk);
    EXPECT_TRUE(all_zero(&ring(), sizeof(RtCacheEventBlock)));
    release_event_record(plain);

    alloc_fail_clear();
    Batch batch = take();
    ASSERT_EQ(batch.rc, 0u);
    EXPECT_EQ(batch.chObj->apRecords[2], disk);
    release_event_record(disk);
    batch.release();
}

// ---- ownership -----------------------------------------------------------------------------

TEST_F(EventCache, EveryRecordHandedToTheCacheIsReleasedExactlyOnce)
{
    const int64_t base = alloc_live();
    // Stored in the ring and in a slot.
    ASSERT_EQ(record_event(kEid, kPlain, 9, 1, event_record("CTL48")), 0u);
    ASSERT_EQ(record_event(kEid, kChange, kChange, 4, event_record("PDR3")), 0u);
    EXPECT_TRUE(trace_has(4, "event_data_pd not null , objKey=4"));
    // Replaced: PDR5 releases PDR3...
    RtCacheEventRecord *pdr5 = event_record("PDR5");
    ASSERT_EQ(record_event(kEid, kChange, kChange, 4, pdr5), 0u);
    EXPECT_EQ(chobj().apRecords[4], pdr5);
    EXPECT_TRUE(trace_has(4,
                          "event_data this should not happen unless PDR5 after PDR3 OR CTL48 for first drive "
                          "which overwrites PDR4"));
    EXPECT_TRUE(trace_has(4, "event_data_free->messageId:PDR3"));
    EXPECT_EQ(alloc_live(), base + 6);
    // ...but CTL48 drops PDR4 without releasing it: its owner still has to.
    RtCacheEventRecord *pdr4 = event_record("PDR4");
    ASSERT_EQ(record_event(kEid, kChange, kChange, 0, pdr4), 0u);
    ASSERT_EQ(record_event(kEid, kChange, kChange, 0, event_record("CTL48")), 0u);
    EXPECT_EQ(alloc_live(), base + 12);
    EXPECT_EQ(trace_count("event_data_free->messageId"), 1);
    release_event_record(pdr4);
    // An event without a record leaves an occupied slot alone.
    ASSERT_EQ(record_event(kEid, kChange, kChange, 0), 0u);
    EXPECT_TRUE(trace_has(4, "even_data NULL overwrite check passed"));
    // No slot: the cache releases the record at once.
    for (uint32_t key : {300u, 512u}) {
        ASSERT_EQ(record_event(kEid, kChange, kChange, key, event_record("PDR5")), 0u);
        EXPECT_TRUE(trace_has(2, "objKey:" + std::to_string(key) + " has no record slot, event_data released"));
    }
    // Key 300 has its bit. Refused, or a type-7 event that keeps only the bit: the record stays the caller's.
    RtCacheEventRecord *kept = event_record("PDR3");
    EXPECT_EQ((Codes{chobj().au8Bitmap[0], chobj().au8Bitmap[37], record_event(255, kChange, kChange, 1, kept),
                     record_event(0x40, kChange, kChange, 1, kept), record_event(kSsdEid, kChange, kChange, 6, kept),
                     alloc_live() - base}),
              (Codes{0x11, 0x10, 2, 1, 0, 12}));
    EXPECT_TRUE(all_zero(chobj(kSsdIndex).apRecords, sizeof chobj(kSsdIndex).apRecords));
    release_event_record(kept);

    // Fetched: the caller releases what the batch holds.
    Batch batch = take();
    ASSERT_EQ(batch.rc, 0u);
    std::set<void *> held;
    for (uint32_t i = 0; i < batch.events->u32Count; ++i) {
        held.insert(batch.events->entries[i].event_data);
    }
    held.insert(std::begin(batch.chObj->apRecords), std::end(batch.chObj->apRecords));
    held.erase(nullptr);
    EXPECT_EQ(held.size(), 3u);  // CTL48, PDR5 and the second CTL48
    for (void *record : held) {
        release_event_record(record);
    }
    batch.release();
    EXPECT_EQ(alloc_live(), base);
}

// ---- the delayed store ---------------------------------------------------------------------

TEST_F(EventCache, DelayedEntriesLieAtTheirByteOffsetsAndWrapLikeTheRing)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&cache_Events_delayed[kIndex]);
    ASSERT_EQ(park(kEid, 65539, 0x10005, 0xA1B2C3D4u), 0u);
    ASSERT_EQ(park(kEid, 4, 6, 7), 0u);
    EXPECT_TRUE(trace_has(4, "--> entry, EID:33, objType:0x10003, eventType:0x10005, objKey:-1582119980"));
    const uint8_t expected[20] = {2, 0, 0, 0, 3, 0, 5, 0, 0xD4, 0xC3, 0xB2, 0xA1, 4, 0, 6, 0, 7, 0, 0, 0};
    EXPECT_EQ(std::memcmp(bytes, expected, sizeof expected), 0);
    EXPECT_TRUE(all_zero(bytes + 20, sizeof(RtCacheDelayedEventBlock) - 20));
    EXPECT_EQ(ring().u32Count, 0u);

    // A change-object event sets the delayed bit and adds no entry; the EID type plays no part.
    trace_start();
    ASSERT_EQ(park(kEid, kChange, kChange, 9), 0u);
    EXPECT_EQ(cache_Events_PD_ChObj_delayed[kIndex].au8Bitmap[1], 0x02);
    EXPECT_EQ(bytes[0], 2);
    uint8_t bits[64] = {};
    bits[1] = 0x02;
    EXPECT_TRUE(trace_has(2, bitmap_text("DCache", bits, 64)));
    ASSERT_EQ(park(kSsdEid, kChange, kChange, 600), 0u);
    EXPECT_TRUE(all_zero(&cache_Events_PD_ChObj_delayed[kSsdIndex], RTCACHE_PDCHOBJ_BITMAP_BYTES));

    for (uint32_t i = 3; i <= RTCACHE_EVENTCACHE_DEPTH; ++i) {
        ASSERT_EQ(park(kEid, 5, 6, i), 0u);
    }
    ASSERT_EQ(park(kEid, 8, 9, 385), 0u);
    EXPECT_TRUE(trace_has(2, "exceeded the RTCACHE_EVENTCACHE_DEPTH in delayed cache"));
    const auto &delayed = cache_Events_delayed[kIndex];
    EXPECT_EQ((Codes{delayed.u32Count, delayed.entries[0].objKey, delayed.entries[1].objKey, park(255, kPlain, 1, 1),
                     park(0x40, kPlain, 1, 1)}),
              (Codes{1, 385, 7, 2, 1}));
}

TEST_F(EventCache, PurgeAppendsInParkingOrderAndMergesTheBitmap)
{
    RtCacheEventRecord *record = event_record("CTL48");
    ASSERT_EQ(record_event(kEid, kPlain, 9, 1, record), 0u);
    ASSERT_EQ(record_event(kEid, kChange, kChange, 0), 0u);
    ASSERT_EQ(park(kEid, 65539, 5, 11), 0u);
    ASSERT_EQ(park(kEid, 2, 6, 12), 0u);
    ASSERT_EQ(park(kEid, kChange, kChange, 9), 0u);
    trace_start();

    ASSERT_EQ(purge(kEid, 0x1234), 0u);
    // The delayed entries stay beyond its count.
    const auto &delayed = cache_Events_delayed[kIndex];
    EXPECT_EQ((Codes{ring().u32Count, ring().entries[1].objType, ring().entries[1].eventType, ring().entries[1].objKey,
                     ring().entries[2].objKey, chobj().au8Bitmap[0], chobj().au8Bitmap[1], delayed.u32Count,
                     delayed.entries[0].objKey}),
              (Codes{3, 3, 5, 11, 12, 1, 2, 0, 11}));
    EXPECT_EQ(ring().entries[2].event_data, nullptr);
    EXPECT_TRUE(all_zero(&cache_Events_PD_ChObj_delayed[kIndex], RTCACHE_PDCHOBJ_BITMAP_BYTES));
    EXPECT_TRUE(trace_has(4, "--> entry, with EID:33, dcmdOpcode:4660"));
    // Every differing byte is traced, also where the delayed one adds nothing.
    EXPECT_TRUE(trace_has(4, "cache BM:0x1, delayed BM:0x0"));
    EXPECT_TRUE(trace_has(4, "cache BM:0x0, delayed BM:0x2"));
    EXPECT_EQ(trace_count("cache BM:"), 2);

    // Nothing parked: the bitmap is still merged and cleared.
    ASSERT_EQ(park(kEid, kChange, kChange, 17), 0u);
    ASSERT_EQ(purge(kEid, 1), 0u);
    EXPECT_TRUE(trace_has(4, "<-- No event in queue. count:0"));
    EXPECT_EQ(chobj().au8Bitmap[2], 0x02);
    EXPECT_TRUE(all_zero(&cache_Events_PD_ChObj_delayed[kIndex], RTCACHE_PDCHOBJ_BITMAP_BYTES));
    EXPECT_EQ(ring().u32Count, 3u);

    // A full actual ring restarts; the merged entry keeps the slot's record.
    ring().u32Count = RTCACHE_EVENTCACHE_DEPTH;
    ASSERT_EQ(park(kEid, 7, 8, 13), 0u);
    ASSERT_EQ(purge(kEid, 2), 0u);
    EXPECT_TRUE(trace_has(4, "Purging older events. u32Count:385"));
    EXPECT_EQ(
        (Codes{ring().u32Count, ring().entries[0].objType, ring().entries[0].objKey, purge(255, 1), purge(0x40, 1)}),
        (Codes{1, 7, 13, 2, 1}));
    EXPECT_EQ(ring().entries[0].event_data, record);
    EXPECT_TRUE(trace_has(2, "<-- err2 255"));
    release_event_record(record);
}

}  // namespace

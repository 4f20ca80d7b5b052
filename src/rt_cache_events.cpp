// The event cache: plain events in a per-adapter ring, change-object events of
// physical disks in a bitmap with one record slot per disk, the batch fetch,
// and the delayed store that parks events while a controller command is
// outstanding.
#define RT_MODULE_FILE "rt_cache.c"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rt_cache_lock.h"
#include "rtvox/rt_cache.h"
#include "trace.h"

using rtvox::cache::CacheLock;

namespace {

constexpr uint32_t kDepth = RTCACHE_EVENTCACHE_DEPTH;
constexpr uint32_t kBitmapBytes = RTCACHE_PDCHOBJ_BITMAP_BYTES;
constexpr uint32_t kRecordSlots = RTCACHE_PDCHOBJ_SLOTS;
constexpr const char *kActualTag = "Cache";
constexpr const char *kDelayedTag = "DCache";

// The bitmap print: one "%02x " piece per byte in a 640-byte text, each piece
// appended whole while the text, the piece and the terminator fit, cut
// otherwise. 639 is a multiple of the piece's 3 characters, so no piece is
// ever cut: the text holds the first 213 bytes at most. Every event prints the
// bitmap (a change-object event twice), so the pieces come from a table of
// ready-made "xx " pieces, one 4-byte store per byte, rather than by snprintf.
struct BitmapText {
    char text[640];
};

constexpr size_t kPieceChars = 3;
constexpr size_t kMaxPieces = (sizeof(BitmapText::text) - 1) / kPieceChars;
static_assert(kMaxPieces * kPieceChars == sizeof(BitmapText::text) - 1, "pieces are never cut");

// "xx " and a spare byte for each byte value; the spare is overwritten by the
// next piece or the terminator.
constexpr auto kPieces = [] {
    constexpr const char *kDigits = "0123456789abcdef";
    std::array<std::array<char, 4>, 256> pieces{};
    for (size_t value = 0; value < pieces.size(); ++value) {
        pieces[value] = {kDigits[value >> 4], kDigits[value & 0xF], ' ', '\0'};
    }
    return pieces;
}();

bool bitmap_text(const uint8_t *bitmap, BitmapText &out)
{
    if (max_physicaldevices <= 7) {
        return false;
    }
    const size_t bytes = std::min<size_t>({max_physicaldevices / 8, kBitmapBytes, kMaxPieces});
    char *text = out.text;
    for (size_t i = 0; i < bytes; ++i) {
        std::memcpy(text + kPieceChars * i, kPieces[bitmap[i]].data(), 4);  // the last one ends at text[639]
    }
    text[kPieceChars * bytes] = '\0';
    return true;
}

// In the caller's name, so the log shows which operation printed.
#define RTCACHE_PRINT_BITMAP(bitmap, tag)                                     \
    do {                                                                      \
        BitmapText printed;                                                   \
        if (bitmap_text((bitmap), printed)) {                                 \
            RT_TRACE(2, "[%s] _PD_ChObj Bitmap : 0x%s", (tag), printed.text); \
        }                                                                     \
    } while (0)

bool event_tables_ready()
{
    return cache_Events != nullptr && cache_Events_PD_ChObj != nullptr && cache_Events_delayed != nullptr &&
           cache_Events_PD_ChObj_delayed != nullptr;
}

// The adapter index of a registered EID whose event blocks exist, or -1.
int32_t event_index(uint32_t EID)
{
    const int32_t index = GetIndexFromEID(EID);
    if (index < 0 || static_cast<uint32_t>(index) >= max_adapters || !event_tables_ready()) {
        return -1;
    }
    return index;
}

bool is_change_object(uint32_t objType, uint32_t eventType)
{
    return objType == PHYSICALDISK && eventType == RAID_MGMT_EVENT_CHANGE_OBJECT;
}

// The next ring position (1-based) after `count`, and whether the ring restarted.
// A count beyond the depth can only come from an outside write; it restarts too.
uint32_t next_count(uint32_t count, bool &restarted)
{
    const uint32_t next = count + 1;
    restarted = next > kDepth || next == 0;
    return restarted ? 1 : next;
}

// Sets a disk's bit when its byte lies inside the bitmap area.
bool set_bit(uint8_t *bitmap, uint16_t index, uint16_t shift)
{
    if (index >= kBitmapBytes) {
        return false;
    }
    bitmap[index] = static_cast<uint8_t>(bitmap[index] | (1u << shift));
    return true;
}

bool has_message_id(const RtCacheEventRecord *record, const char *id)
{
    return record->messageId != nullptr && std::strcmp(record->messageId, id) == 0;
}

void release_record(RtCacheEventRecord *record)
{
    rtvox_free(record->messageId);
    record->messageId = nullptr;
    rtvox_free(record->pData);
    record->pData = nullptr;
    rtvox_free(record);
}

}  // namespace

extern "C" {

// ---- the actual cache ---------------------------------------------------------------

uint32_t rtcache_CopyCachedEvent(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey, void *event_data)
{
    const int32_t index = event_index(EID);
    if (index < 0) {
        RT_TRACE(2, "<-- err2");
        return 1;
    }
    RtCacheEventBlock &events = cache_Events[index];
    RtCachePdChObjBlock &chObj = cache_Events_PD_ChObj[index];
    RTCACHE_PRINT_BITMAP(chObj.au8Bitmap, kActualTag);

    if (!is_change_object(objType, eventType)) {
        bool restarted = false;
        const uint32_t count = next_count(events.u32Count, restarted);
        if (restarted) {
            // Entries behind the new count stay as they are, and the record of
            // the entry overwritten here is not released: readers rely on both.
            RT_TRACE(2, "exceeded the RTCACHE_EVENTCACHE_DEPTH");
        }
        events.u32Count = count;
        events.entries[count - 1] = RtCacheEventEntry{objType, eventType, objKey, event_data};
        if (event_data == nullptr) {
            RT_TRACE(4, "event_data_npd null");
        } else {
            RT_TRACE(4, "event_data_npd not null");
        }
        return 0;
    }

    RT_TRACE(4, "Event is for PHYSICALDISK and RAID_MGMT_EVENT_CHANGE_OBJECT");
    uint8_t u8Type = 0;
    if (rtcache_GetStorageEIDTypeNoLock(EID, &u8Type) != 0) {
        RT_TRACE(1, "<-- error get Storage EID Fail");
        u8Type = 0;
    }
    RT_TRACE(4, "%s EID=%d u8Type=%d", "-->CopyCacheEvent:", static_cast<int>(EID), u8Type);
    const auto u16Index = static_cast<uint16_t>(objKey >> 3);
    const auto u16Shift = static_cast<uint16_t>(objKey & 7);

    if (u8Type == RTCACHE_EIDTYPE_PCIESSD) {
        // Only the bit, whatever the key; the record is neither kept nor released.
        RT_TRACE(4, "u16Index:[%d], u16Shift:[%d]", u16Index, u16Shift);
        if (!set_bit(chObj.au8Bitmap, u16Index, u16Shift)) {
            RT_TRACE(2, "u16Index:[%d] is beyond the bitmap area, bit not set", u16Index);
        }
    } else {
        RT_TRACE(2, "u16Index:[%d], u16Shift:[%d]", u16Index, u16Shift);
        if (objKey >= max_physicaldevices) {
            RT_TRACE(2, "%ss", "Error: objKey is more than MAX_PHYSICALDEVICES");
        } else if (!set_bit(chObj.au8Bitmap, u16Index, u16Shift)) {
            RT_TRACE(2, "u16Index:[%d] is beyond the bitmap area, bit not set", u16Index);
        }
        void **slot = objKey < kRecordSlots ? &chObj.apRecords[objKey] : nullptr;
        if (event_data == nullptr) {
            RT_TRACE(4, "event_data_pd null");
            if (slot != nullptr && *slot != nullptr) {
                RT_TRACE(4, "even_data NULL overwrite check passed");
            }
        } else {
            if (slot != nullptr && *slot != nullptr) {
                RT_TRACE(4,
                         "event_data this should not happen unless PDR5 after PDR3 OR CTL48 for first drive which "
                         "overwrites PDR4");
                auto *old = static_cast<RtCacheEventRecord *>(*slot);
                auto *fresh = static_cast<const RtCacheEventRecord *>(event_data);
                if (old != fresh && has_message_id(old, "PDR3") && has_message_id(fresh, "PDR5")) {
                    RT_TRACE(4, "event_data_free->messageId:%s", old->messageId);
                    release_record(old);
                }
                // Any other old record leaves the slot unreleased (a "PDR4"
                // overwritten by "CTL48" for the first drive): intended.
            }
            RT_TRACE(4, "event_data_pd not null , objKey=%d", static_cast<int>(objKey));
            if (slot != nullptr) {
                *slot = event_data;
            } else {
                RT_TRACE(2, "objKey:%d has no record slot, event_data released", static_cast<int>(objKey));
                release_record(static_cast<RtCacheEventRecord *>(event_data));
            }
        }
    }
    RTCACHE_PRINT_BITMAP(chObj.au8Bitmap, kActualTag);
    return 0;
}

uint32_t rtcache_SetCachedEvent(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey)
{
    RT_TRACE(5, "--> entry, EID:%d, objType:0x%x, eventType:0x%x, objKey:%d", static_cast<int>(EID), objType, eventType,
             static_cast<int>(objKey));
    if (EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err1");
        return 2;
    }
    const uint32_t status = rtcache_CopyCachedEvent(EID, objType, eventType, objKey, nullptr);
    if (status != 0) {
        RT_TRACE(2, "<-- err3");
        return status;
    }
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

uint32_t rtcache_SetCachedEvent_roll_up(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey,
                                        void *event_data)
{
    RT_TRACE(5, "--> entry, EID:%d, objType:0x%x, eventType:0x%x, objKey:%d", static_cast<int>(EID), objType, eventType,
             static_cast<int>(objKey));
    if (EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err1");
        return 2;
    }
    if (event_data == nullptr) {
        RT_TRACE(4, "event_data roll_up NULL");
    } else {
        RT_TRACE(4, "event_data roll_up not NULL");
    }
    const uint32_t status = rtcache_CopyCachedEvent(EID, objType, eventType, objKey, event_data);
    if (status != 0) {
        RT_TRACE(2, "<-- err3");
        return status;
    }
    RT_TRACE(4, "<-- %s", __func__);
    return 0;
}

uint32_t rtcache_GetCachedEvents(uint32_t EID, RtCacheEventBlock **ppEvents, RtCachePdChObjBlock **ppChObj)
{
    RT_TRACE(5, "--> %s, EID[%d]", "entry", static_cast<int>(EID));
    // A NULL ppChObj is refused here too: found only after the events were
    // taken, it would lose them.
    if (ppEvents == nullptr || ppChObj == nullptr) {
        RT_TRACE(2, "<-- err1");
        return 2;
    }
    const CacheLock lock;
    if (!lock.held()) {
        RT_TRACE(2, "<-- err3");
        return 3;
    }
    const int32_t index = GetIndexFromEID(EID);
    if (index < 0 || static_cast<uint32_t>(index) >= max_adapters || !event_tables_ready()) {
        RT_TRACE(2, "<-- err2 %d", index);
        return 1;
    }

    *ppEvents = static_cast<RtCacheEventBlock *>(rtvox_alloc(sizeof(RtCacheEventBlock)));
    if (*ppEvents == nullptr) {
        RT_TRACE(2, "<-- err4");
        return 3;
    }
    std::memcpy(*ppEvents, &cache_Events[index], sizeof(RtCacheEventBlock));
    std::memset(&cache_Events[index], 0, sizeof(RtCacheEventBlock));

    *ppChObj = static_cast<RtCachePdChObjBlock *>(rtvox_alloc(sizeof(RtCachePdChObjBlock)));
    if (*ppChObj == nullptr) {
        // The cache's event block is already empty: these events, and the
        // records they point to, are lost. The order is kept.
        RT_TRACE(2, "<-- err5");
        rtvox_free(*ppEvents);
        *ppEvents = nullptr;
        return 3;
    }
    std::memcpy(*ppChObj, &cache_Events_PD_ChObj[index], sizeof(RtCachePdChObjBlock));
    std::memset(&cache_Events_PD_ChObj[index], 0, sizeof(RtCachePdChObjBlock));
    RT_TRACE(5, "<-- %s, EID[%d]", "exit", static_cast<int>(EID));
    return 0;
}

// ---- the delayed store ------------------------------------------------------------------

uint32_t rtcache_SetDelayedCachedEvent(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey)
{
    RT_TRACE(4, "--> entry, EID:%d, objType:0x%x, eventType:0x%x, objKey:%d", static_cast<int>(EID), objType, eventType,
             static_cast<int>(objKey));
    if (EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err1");
        return 2;
    }
    const int32_t index = event_index(EID);
    if (index < 0) {
        RT_TRACE(2, "<-- err2");
        return 1;
    }
    uint8_t *bitmap = cache_Events_PD_ChObj_delayed[index].au8Bitmap;
    RTCACHE_PRINT_BITMAP(bitmap, kDelayedTag);

    if (is_change_object(objType, eventType)) {
        RT_TRACE(4, "Event is for PHYSICALDISK and RAID_MGMT_EVENT_CHANGE_OBJECT");
        const auto u16Index = static_cast<uint16_t>(objKey >> 3);
        const auto u16Shift = static_cast<uint16_t>(objKey & 7);
        RT_TRACE(2, "u16Index:[%d], u16Shift:[%d]", u16Index, u16Shift);
        if (objKey >= max_physicaldevices) {
            RT_TRACE(2, "Error: objKey is more than MAX_PHYSICALDEVICES");
        } else if (!set_bit(bitmap, u16Index, u16Shift)) {
            RT_TRACE(2, "u16Index:[%d] is beyond the bitmap area, bit not set", u16Index);
        }
        RTCACHE_PRINT_BITMAP(bitmap, kDelayedTag);
        return 0;
    }

    RtCacheDelayedEventBlock &delayed = cache_Events_delayed[index];
    bool restarted = false;
    const uint32_t count = next_count(delayed.u32Count, restarted);
    if (restarted) {
        RT_TRACE(2, "exceeded the RTCACHE_EVENTCACHE_DEPTH in delayed cache");
    }
    delayed.u32Count = count;
    delayed.entries[count - 1] =
        RtCacheDelayedEventEntry{static_cast<uint16_t>(objType), static_cast<uint16_t>(eventType), objKey};
    RT_TRACE(4, "<-- exit");
    return 0;
}

uint32_t rtcache_PurgeDelayedCachedEvents(uint32_t EID, uint32_t dcmdOpcode)
{
    RT_TRACE(4, "--> %s, with EID:%d, dcmdOpcode:%d", "entry", static_cast<int>(EID), static_cast<int>(dcmdOpcode));
    if (EID > RTCACHE_MAX_EID) {
        RT_TRACE(2, "<-- err1");
        return 2;
    }
    const int32_t index = event_index(EID);
    if (index < 0) {
        RT_TRACE(2, "<-- err2 %d", GetIndexFromEID(EID));
        return 1;
    }
    RtCacheEventBlock &events = cache_Events[index];
    uint8_t *actualBitmap = cache_Events_PD_ChObj[index].au8Bitmap;
    RtCacheDelayedEventBlock &delayed = cache_Events_delayed[index];
    uint8_t *delayedBitmap = cache_Events_PD_ChObj_delayed[index].au8Bitmap;

    RTCACHE_PRINT_BITMAP(actualBitmap, kActualTag);
    RTCACHE_PRINT_BITMAP(delayedBitmap, kDelayedTag);
    const uint32_t bytes = std::min(max_physicaldevices / 8, kBitmapBytes);
    for (uint32_t i = 0; i < bytes; ++i) {
        if (actualBitmap[i] != delayedBitmap[i]) {
            RT_TRACE(4, "cache BM:0x%x, delayed BM:0x%x", actualBitmap[i], delayedBitmap[i]);
            actualBitmap[i] = static_cast<uint8_t>(actualBitmap[i] | delayedBitmap[i]);
        }
    }
    RTCACHE_PRINT_BITMAP(actualBitmap, kActualTag);
    std::memset(delayedBitmap, 0, kBitmapBytes);
    RTCACHE_PRINT_BITMAP(delayedBitmap, kDelayedTag);

    if (delayed.u32Count == 0) {
        RT_TRACE(4, "<-- No event in queue. count:%d", 0);
        return 0;
    }
    // The store never holds more than its depth; a larger count word can only
    // come from an outside write and is read as the depth.
    const uint32_t parked = std::min(delayed.u32Count, kDepth);
    for (uint32_t i = 0; i < parked; ++i) {
        RT_TRACE(4, "Setting actual cache for count:%d", static_cast<int>(i));
        uint32_t count = events.u32Count + 1;
        if (count > kDepth || count == 0) {
            RT_TRACE(4, "Purging older events. u32Count:%d", static_cast<int>(count));
            count = 1;
        }
        events.u32Count = count;
        RtCacheEventEntry &entry = events.entries[count - 1];
        const RtCacheDelayedEventEntry &source = delayed.entries[i];
        // event_data keeps whatever the slot held: delayed events carry no record.
        entry.objType = source.objType;
        entry.eventType = source.eventType;
        entry.objKey = source.objKey;
    }
    RT_TRACE(4, "Done updating cache for delayed events");
    delayed.u32Count = 0;  // the entries stay in the block beyond the count
    RT_TRACE(4, "<-- %s", "exit");
    return 0;
}

}  // extern "C"

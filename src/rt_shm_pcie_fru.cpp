// PCIe SSD FRU, presence and temperature records in region 26.
#define RT_MODULE_FILE "rt_shm.c"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rt_shm_pcie.h"
#include "rtvox/rt_shm.h"
#include "trace.h"

using rtvox::detail::region_offset;
using rtvox::detail::shm_write;

namespace {

using Record = RtShmPcieSsdFruRecord;

constexpr uint32_t kDone = 0;
constexpr uint32_t kRefused = 2;
constexpr uint32_t kWriteFailed = 3;
constexpr uint8_t kCleared = 0xFF;  // slot and temperature of a cleared record

// Region-26 offset of record `index` of the card or bay table, or of one of
// its fields. Computed as one offset so that a refused (saturated) offset
// never wraps when the field is added.
uint32_t record_offset(bool card, uint32_t index, size_t field = 0)
{
    const size_t table = card ? offsetof(RtShmPcieSsdFru, asCard) : offsetof(RtShmPcieSsdFru, asBay);
    return region_offset(static_cast<uint32_t>(table + field), sizeof(Record), index);
}

// The writes of one store, in the order they are made. The counter goes
// last: a reader that sees it move finds the data already in place. A failed
// write is traced and remembered; the following writes are still made.
class FruWrites {
public:
    explicit FruWrites(const char *function) : function_(function) {}

    void put(const void *data, uint32_t offset, uint32_t length)
    {
        if (!shm_write(function_, RTSHM_PCIESSD_FRU_REGION, data, offset, length)) {
            result_ = kWriteFailed;
        }
    }
    void put_byte(uint32_t value, uint32_t offset)
    {
        const auto byte = static_cast<uint8_t>(value);
        put(&byte, offset, 1);
    }
    uint32_t finish(uint32_t counter)
    {
        put_byte(counter, offsetof(RtShmPcieSsdFru, u8FRUCounter));
        return result_;
    }

private:
    const char *function_;
    uint32_t result_ = kDone;
};

bool index_refused(const char *function, uint32_t index)
{
    if (index != RTSHM_PCIESSD_INDEX_NONE) {
        return false;
    }
    RT_TRACE_AS(function, 2, "Invalid index %u", index);
    return true;
}

uint32_t store_temp(const char *function, bool card, int32_t type, uint32_t index, uint32_t temperature,
                    uint32_t counter)
{
    RT_TRACE_AS(function, 4, "--> %s Type:%d 0x%x 0x%x 0x%x", function, type, index, temperature, counter);
    if (index_refused(function, index)) {
        return kRefused;
    }
    const uint32_t offset = record_offset(card, index, offsetof(Record, u8Temp));
    if (card) {
        RT_TRACE_AS(function, 4, "--> %s SSD_CARD_Temp u8Index=%d s8Temp=%d", function, static_cast<int>(index),
                    static_cast<int8_t>(temperature));
    } else {
        RT_TRACE_AS(function, 4, "offset =  %d", static_cast<int>(offset));
    }
    FruWrites writes(function);
    writes.put_byte(temperature, offset);
    return writes.finish(counter);
}

// A whole present record; `bay` is written to bay records only.
uint32_t store_record(const char *function, bool card, uint32_t index, uint32_t slot, int32_t bay, const uint8_t *fru,
                      uint8_t counter, uint8_t temperature)
{
    if (index == RTSHM_PCIESSD_INDEX_NONE) {
        RT_TRACE_AS(function, 2, "Invalid index for slot %u", slot);
        return kRefused;
    }
    if (fru == nullptr) {
        RT_TRACE_AS(function, 2, "<-- %s error", "NULL FRU data");
        return kRefused;
    }
    Record record{};
    record.u8Slot = static_cast<uint8_t>(slot);
    record.u8Present = 1;
    record.u8Temp = temperature;
    std::memcpy(record.au8FRU, fru, sizeof record.au8FRU);
    const uint32_t offset = record_offset(card, index);
    if (card) {
        RT_TRACE_AS(function, 4, "--> %s SSD_CARD_FRU Processing u8Temp=%d u8Slot=%d offset=%d size=%d ", function,
                    temperature, record.u8Slot, static_cast<int>(offset), static_cast<int>(sizeof record));
    } else {
        record.u8Bay = static_cast<uint8_t>(bay);
        RT_TRACE_AS(function, 4, "--> %s PCIe SSD_FRU Processing u8Index=%d u8Bay=%d u8Slot=%d u8Temp=%d", function,
                    static_cast<int>(index), record.u8Bay, record.u8Slot, temperature);
    }
    FruWrites writes(function);
    writes.put(&record, offset, sizeof record);
    return writes.finish(counter);
}

}  // namespace

extern "C" {

uint32_t RTSHM_StoreFRUDrivePresentStatus(int32_t type, uint32_t index, uint32_t slot, uint32_t bay, uint8_t present,
                                          uint8_t counter)
{
    RT_TRACE(4, "--> Type:%d u8BayId:%d %d %d %d", type, static_cast<int>(bay), static_cast<int>(index),
             static_cast<int>(slot), present);
    if (index_refused(__func__, index)) {
        return kRefused;
    }
    if (type != RTSHM_PCIESSD_TYPE_BAY) {
        RT_TRACE(2, "Invalid EID Type %u", static_cast<unsigned>(type));
        return kRefused;
    }
    RT_TRACE(4, "offset =  %d", static_cast<int>(record_offset(false, index)));
    // One byte at a time, in this order: readers poll the record while it changes.
    FruWrites writes(__func__);
    writes.put_byte(slot, record_offset(false, index, offsetof(Record, u8Slot)));
    writes.put_byte(present, record_offset(false, index, offsetof(Record, u8Present)));
    writes.put_byte(bay, record_offset(false, index, offsetof(Record, u8Bay)));
    return writes.finish(counter);
}

uint32_t RTSHM_StoreFRUTemp(int32_t type, uint32_t index, uint32_t temperature, uint32_t counter)
{
    return store_temp(__func__, type == RTSHM_PCIESSD_TYPE_CARD, type, index, temperature, counter);
}

uint32_t RTSHM_StoreFRUTemp_Pelko(int32_t type, uint32_t index, uint32_t temperature, uint32_t counter)
{
    // Always the bay table, whatever the type: that platform keeps its
    // temperatures there (its FRU data goes to the card table).
    return store_temp(__func__, false, type, index, temperature, counter);
}

uint32_t RTSHM_ClearFRU(uint32_t type, uint32_t index, uint32_t counter)
{
    RT_TRACE(4, "--> %s u8Index=%d u8FRUCounter=%d au8Temp=%d", __func__, static_cast<int>(index),
             static_cast<uint8_t>(counter), kCleared);
    if (index_refused(__func__, index)) {
        return kRefused;
    }
    Record record{};  // absent, no bay, FRU data zero
    record.u8Slot = kCleared;
    record.u8Temp = kCleared;
    FruWrites writes(__func__);
    writes.put(&record, record_offset(type == RTSHM_PCIESSD_TYPE_CARD, index), sizeof record);
    return writes.finish(counter);
}

uint32_t RTSHM_StoreFRU(int32_t type, uint32_t index, uint32_t slot, int32_t bay, const uint8_t *fru, uint8_t counter,
                        uint8_t temperature)
{
    RT_TRACE(4, "--> %s u8Type=%d u8Bay:%d u8Slot:%d u8Index:%d u8Temp=%d", __func__, type, bay, static_cast<int>(slot),
             static_cast<int>(index), temperature);
    return store_record(__func__, type == RTSHM_PCIESSD_TYPE_CARD, index, slot, bay, fru, counter, temperature);
}

uint32_t RTSHM_StoreFRU_Pelko(int32_t type, uint32_t index, uint32_t slot, const uint8_t *fru, uint8_t counter,
                              uint8_t temperature)
{
    RT_TRACE(4, "--> %s u8Type=%d u8Slot:%d u8Index:%d u8Temp=%d", __func__, type, static_cast<int>(slot),
             static_cast<int>(index), temperature);
    // Always the card table, whatever the type: on that platform every
    // PCIe SSD's FRU data lives there.
    return store_record(__func__, true, index, slot, 0, fru, counter, temperature);
}

}  // extern "C"

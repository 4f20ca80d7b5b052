// The shared-memory inventory regions: initialisation of region 3, its dump,
// the drive-polling flag of region 55 and the thermal-poll settings.
#define RT_MODULE_FILE "rt_shm.c"

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "paths.h"
#include "rt_shm_regions.h"
#include "rtvox/platform.h"
#include "rtvox/rt_shm.h"
#include "trace.h"

using namespace rtvox::shm;

int32_t backplane_drive_thermalpoll_interval = 10;
int32_t insight_drive_thermalpoll_interval = 60;

namespace {

constexpr const char *kPdThermalDisabledFlag = "/flash/data0/oem_ps/pdthermaldisabled";

// 0xFF over the largest table, built once: every update clears two tables.
constexpr auto kOnes = [] {
    std::array<uint8_t, sizeof(sVOXSASSATAInventory)> ones{};
    ones.fill(0xFF);
    return ones;
}();

// Fills `length` bytes of region 3 at `offset` with 0xFF: the write's result.
int32_t fill_area(uint32_t offset, uint32_t length)
{
    return Vorn_shm_memwrite(RTSHM_REGION_INVENTORY, kOnes.data(), offset, length);
}

int32_t fill_controllers_and_drives()
{
    (void)fill_area(RTSHM_TAVO_INVENTORY_OFFSET, sizeof(sVOXTavoInventory));
    return fill_area(RTSHM_SASSATA_INVENTORY_OFFSET, sizeof(sVOXSASSATAInventory));
}

// One line of a table entry in the dump: its format (RT_TRACE_FORMAT), with
// one or four values read from arrays of `width`-byte little-endian elements.
// The first array starts at `offset`; `step` bytes separate the elements of
// two entries (0 for a field the table has once) and `next` bytes the arrays
// of one line.
struct DumpField {
    const char *format;
    size_t offset;
    uint32_t width;
    uint32_t step;
    uint32_t values = 1;  // 1, or 4 for the PCI ids line
    uint32_t next = 0;
};

// An array field of a table, one element per entry, and the text of its line.
constexpr DumpField array_field(const char *format, size_t offset, uint32_t width)
{
    return {format, offset, width, width};
}
#define RTSHM_DUMP_FIELD(Table, field, text) \
    array_field(RT_TRACE_FORMAT(text), offsetof(Table, field), sizeof(Table{}.field[0]))

constexpr DumpField kControllerFields[] = {
    RTSHM_DUMP_FIELD(sVOXTavoInventory, au8PCISlot, "au8PCISlot=%d "),
    RTSHM_DUMP_FIELD(sVOXTavoInventory, au32Temp, "au32Temp=%d "),
    RTSHM_DUMP_FIELD(sVOXTavoInventory, au32BatteryTemp, "au32BatteryTemp=%d "),
    {RT_TRACE_FORMAT("PCI IDs.=[%d-%d-%d-%d]"), offsetof(sVOXTavoInventory, au32PCIVendorID), 4, 4, 4,
     offsetof(sVOXTavoInventory, au32PCIDeviceID) - offsetof(sVOXTavoInventory, au32PCIVendorID)},
    RTSHM_DUMP_FIELD(sVOXTavoInventory, au8CardLocation, "au8CardLocation=%d "),
    RTSHM_DUMP_FIELD(sVOXTavoInventory, thermalPDPollDisable, "thermalPDPollDisable=%d "),
};

constexpr DumpField kDriveFields[] = {
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8DriveBayID, "au8DriveBayID=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8DriveOccupiedSlot, "au8DriveOccupiedSlot=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8DriveProtocolType, "au8DriveProtocolType=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8DriveMediaType, "au8DriveMediaType=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8DriveFormFactor, "au8DriveFormFactor=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8Temp, "au8Temp=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au32NominalRPM, "au32NominalRPM=%d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, pdShmStatus, "pdShmStatus %x "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au16DriveCapacity, "au16DriveCapacity %d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8DriveImpendance, "au8DriveImpendance %d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8ChassisSlot, "au8ChassisSlot %d "),
    RTSHM_DUMP_FIELD(sVOXSASSATAInventory, au8EnclosureTyoe, "au8EnclosureTyoe %d "),
};

constexpr DumpField kBatteryFields[] = {
    RTSHM_DUMP_FIELD(sVOXTAVOBatteryInventory, au8Slot, "au8Slot=%d"),
    RTSHM_DUMP_FIELD(sVOXTAVOBatteryInventory, au8State, "au8State=%d"),
    // Once per table, printed with every battery.
    {RT_TRACE_FORMAT("rtvox_inventory=%d"), offsetof(sVOXTAVOBatteryInventory, rtvox_inventory), 4, 0},
};

#undef RTSHM_DUMP_FIELD

// Prints entries 0 to count - 1 of one table (none for a count of 0 or
// below, never more than the table holds), each as its title line and then
// one line per field, all at level 6.
template <typename Table, size_t N>
void dump_table(const Table &table, uint32_t capacity, const char *title, const DumpField (&fields)[N])
{
    const auto *image = reinterpret_cast<const uint8_t *>(&table);
    const auto count = static_cast<int32_t>(le_get(image, 0, 4));
    uint32_t shown = count > 0 ? static_cast<uint32_t>(count) : 0;
    if (shown > capacity) {
        RT_TRACE_AS("RTSHM_DumpSharedMem", 2, "count %d is beyond the %d entries of the table", count,
                    static_cast<int>(capacity));
        shown = capacity;
    }
    for (uint32_t i = 0; i < shown; ++i) {
        RT_TRACE_FORMATTED_AS("RTSHM_DumpSharedMem", 6, title, static_cast<int>(i), count);
        for (const DumpField &field : fields) {
            const size_t at = field.offset + i * field.step;
            const auto value = [&](uint32_t v) {
                return static_cast<int>(le_get(image, at + v * field.next, field.width));
            };
            // The values are read only for the line that prints them.
            if (field.values == 1) {
                RT_TRACE_FORMATTED_AS("RTSHM_DumpSharedMem", 6, field.format, value(0));
            } else {
                RT_TRACE_FORMATTED_AS("RTSHM_DumpSharedMem", 6, field.format, value(0), value(1), value(2), value(3));
            }
        }
    }
}

}  // namespace

extern "C" {

int32_t RTSHM_InitSharedMem(void)
{
    RT_TRACE(4, "--> %s", __func__);
    (void)fill_controllers_and_drives();
    const int32_t rc = fill_area(RTSHM_BATTERY_INVENTORY_OFFSET, sizeof(sVOXTAVOBatteryInventory));
    RT_TRACE(4, "<-- %s %d", __func__, static_cast<int>(rc));
    return rc;
}

int32_t RTSHM_InitPartialSharedMem(void)
{
    RT_TRACE(4, "--> %s", __func__);
    const int32_t rc = fill_controllers_and_drives();
    RT_TRACE(4, "<-- %s %d", __func__, static_cast<int>(rc));
    return rc;
}

void RTSHM_DumpSharedMem(void)
{
    // A table that cannot be read prints as empty (count 0).
    sVOXTavoInventory controllers{};
    sVOXSASSATAInventory drives{};
    sVOXTAVOBatteryInventory batteries{};
    sVOXTAVODrivePolling polling{};
    (void)Vorn_shm_memread(RTSHM_REGION_INVENTORY, &controllers, RTSHM_TAVO_INVENTORY_OFFSET, sizeof controllers);
    (void)Vorn_shm_memread(RTSHM_REGION_INVENTORY, &drives, RTSHM_SASSATA_INVENTORY_OFFSET, sizeof drives);
    (void)Vorn_shm_memread(RTSHM_REGION_INVENTORY, &batteries, RTSHM_BATTERY_INVENTORY_OFFSET, sizeof batteries);
    (void)Vorn_shm_memread(RTSHM_REGION_DRIVE_POLLING, &polling, VOX_TAVO_DRIVE_POLLING_OFFSET, sizeof polling);

    RT_TRACE(6, "*********** dumping sharedm memory contents ***********");
    RT_TRACE(6,
             "sVOXTavoInventory:%d sVOXSASSATAInventory:%d sVOXTAVOBatteryInventory:%d sVOXTAVODrivePolling:%d "
             "VOX_TAVO_DRIVE_POLLING_OFFSET:%d",
             static_cast<int>(sizeof controllers), static_cast<int>(sizeof drives), static_cast<int>(sizeof batteries),
             static_cast<int>(sizeof polling), VOX_TAVO_DRIVE_POLLING_OFFSET);
    dump_table(controllers, RTSHM_MAX_CONTROLLERS, RT_TRACE_FORMAT("controller struct %d of %d"), kControllerFields);
    dump_table(drives, RTSHM_MAX_DRIVES, RT_TRACE_FORMAT("PD struct %d of %d"), kDriveFields);
    dump_table(batteries, RTSHM_MAX_BATTERIES, RT_TRACE_FORMAT("Battery struct %d of %d"), kBatteryFields);
    RT_TRACE(6, "sVOXTAVODrivePolling.u8DisableDrivePolling = %d",
             polling.u8DisableDrivePolling & RTSHM_DRIVE_POLLING_DISABLED);
}

uint32_t RTSHM_ReadSharedThermalPolling(sVOXTAVODrivePolling *pPolling)
{
    if (pPolling == nullptr) {
        RT_TRACE(2, "<--  %s error", __func__);
        return 2;
    }
    if (Vorn_shm_memread(RTSHM_REGION_DRIVE_POLLING, pPolling, VOX_TAVO_DRIVE_POLLING_OFFSET, sizeof *pPolling) != 0) {
        RT_TRACE_LOG(2, "Failed to Read sVOXTAVODrivePolling Shared Memory");
        return 3;
    }
    // The marker forces polling off whatever the platform says; its contents are not read.
    struct stat st {};
    if (stat(rtvox::detail::resolve_path(kPdThermalDisabledFlag).c_str(), &st) == 0) {
        RT_TRACE(2, "%s  /flash/data0/oem_ps/pdthermaldisabled", __func__);
        pPolling->u8DisableDrivePolling |= RTSHM_DRIVE_POLLING_DISABLED;
    }
    RT_TRACE(6, "Successfully Read sVOXTAVODrivePolling Shared Memory");
    return 0;
}

}  // extern "C"

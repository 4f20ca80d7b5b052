/*
 * rtvox backplane access, NVMe drives, shared-memory regions and PCIe SSDs.
 */
#ifndef RTVOX_RT_SHM_H
#define RTVOX_RT_SHM_H

#include <stdint.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ============================================================================
 * Shared-memory inventory: regions 3 and 55
 *
 * Region 3 is the storage inventory that other firmware processes read: the
 * controller table (sVOXTavoInventory, 724 bytes at offset 0), the drive
 * table (sVOXSASSATAInventory, 4594 bytes at 724) and the battery table
 * (sVOXTAVOBatteryInventory, 24 bytes at 5318). Region 55 holds at offset 522
 * the platform's drive-polling word (sVOXTAVODrivePolling). The layouts are
 * wire formats: little-endian, packed back to back, kept byte for byte. The
 * library reads and writes every multi-byte field byte by byte (several
 * stand at odd offsets: 1534, 2809, 3319), never through aligned loads; a C
 * reader of these structs gets the same care from the packed attribute.
 *
 * Every array is indexed by the entry's position in its table; count says
 * how many entries are valid. Initialisation fills the tables with 0xFF, so
 * a count reads -1 and rtvox_inventory 0xFFFFFFFF until the first update;
 * 0xFF (0xFFFFFFFF for a 32-bit temperature) in a field means "not reported".
 *
 * Choices made here where the layout leaves room
 *   - The four PCI identifier arrays are the controller's vendor, device,
 *     sub-vendor and sub-device ids, in that order; the fourth is the one the
 *     update tests against its id lists.
 *   - The two 64-bit controller values are au64CtrlAddress1/2, the controller
 *     kind au8CtrlKind, the adapter's flag byte au8AdapterFlag.
 *   - The dump prints at most the entries a table holds (16, 255, 8): a count
 *     read from the region beyond that prints the table's entries and a
 *     level-2 line "count %d is beyond the %d entries of the table".
 *   - Where the update's values live in the cache: the controller node's PCI
 *     information block (RtCachePciInfo, rt_cache.h) and the adapter, battery,
 *     disk and enclosure record fields listed in rt_dup.h; the drive's own
 *     values in its cache entry (RtCachePdEntry, rt_cache.h).
 *   - The update skips a controller node without its adapter record like one
 *     without its PCI block (" contiue2"): the values it would publish live
 *     there. A max_physicaldevices of 0 examines no drive, like 1.
 *   - The update's HBA line "enclosure is not of type BACKPLANE %d" carries
 *     the enclosure id; its TAVO line carries nothing.
 * ========================================================================== */

#define RTSHM_REGION_INVENTORY 3u         /* controllers, drives, batteries */
#define RTSHM_REGION_DRIVE_POLLING 55u    /* the platform's drive-polling word */
#define VOX_TAVO_DRIVE_POLLING_OFFSET 522 /* of sVOXTAVODrivePolling in region 55 */
#define RTSHM_TAVO_INVENTORY_OFFSET 0u
#define RTSHM_SASSATA_INVENTORY_OFFSET 724u
#define RTSHM_BATTERY_INVENTORY_OFFSET 5318u

#define RTSHM_MAX_CONTROLLERS 16
#define RTSHM_MAX_DRIVES 255
#define RTSHM_MAX_BATTERIES 8

/* au8CtrlKind */
#define RTSHM_CTRL_KIND_TAVO 0u /* storage-element type 1 */
#define RTSHM_CTRL_KIND_HBA 1u  /* type 10 */
#define RTSHM_CTRL_KIND_MIRU 2u /* type 12 */
/* thermalPDPollDisable */
#define RTSHM_PDPOLL_DISABLED 1u   /* do not poll this controller's drives for temperature */
#define RTSHM_PDPOLL_EXCLUDED 254u /* controller excluded from drive polling altogether */
/* au8DriveMediaType */
#define RTSHM_MEDIA_TAPE 2u
/* sVOXTAVODrivePolling.u8DisableDrivePolling */
#define RTSHM_DRIVE_POLLING_DISABLED 0x01u /* bit 0: the platform asks that drives are not polled */

typedef struct RTVOX_PACKED sVOXTavoInventory {
    int32_t s32Count;                                    /* valid entries, 0..16 */
    uint8_t au8PCISlot[RTSHM_MAX_CONTROLLERS];           /* PCI slot of the controller */
    uint32_t au32Temp[RTSHM_MAX_CONTROLLERS];            /* controller temperature, degrees Celsius */
    uint32_t au32BatteryTemp[RTSHM_MAX_CONTROLLERS];     /* battery temperature, degrees Celsius */
    uint32_t au32PCIVendorID[RTSHM_MAX_CONTROLLERS];     /* PCI id 1 */
    uint32_t au32PCIDeviceID[RTSHM_MAX_CONTROLLERS];     /* PCI id 2 */
    uint32_t au32PCISubVendorID[RTSHM_MAX_CONTROLLERS];  /* PCI id 3 */
    uint32_t au32PCISubDeviceID[RTSHM_MAX_CONTROLLERS];  /* PCI id 4 */
    uint8_t au8CardLocation[RTSHM_MAX_CONTROLLERS];      /* modular card location, 0 when none */
    uint64_t au64CtrlAddress1[RTSHM_MAX_CONTROLLERS];    /* from the adapter record */
    uint8_t au8CtrlKind[RTSHM_MAX_CONTROLLERS];          /* RTSHM_CTRL_KIND_* */
    uint8_t au8AdapterFlag[RTSHM_MAX_CONTROLLERS];       /* from the adapter record */
    uint8_t thermalPDPollDisable[RTSHM_MAX_CONTROLLERS]; /* 0, RTSHM_PDPOLL_DISABLED or _EXCLUDED */
    uint64_t au64CtrlAddress2[RTSHM_MAX_CONTROLLERS];    /* from the adapter record */
} sVOXTavoInventory;
RTVOX_ASSERT_SIZE(sVOXTavoInventory, 724);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au8PCISlot, 4);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au32Temp, 20);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au32BatteryTemp, 84);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au32PCIVendorID, 148);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au32PCIDeviceID, 212);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au32PCISubVendorID, 276);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au32PCISubDeviceID, 340);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au8CardLocation, 404);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au64CtrlAddress1, 420);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au8CtrlKind, 548);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au8AdapterFlag, 564);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, thermalPDPollDisable, 580);
RTVOX_ASSERT_OFFSET(sVOXTavoInventory, au64CtrlAddress2, 596);

typedef struct RTVOX_PACKED sVOXSASSATAInventory {
    int32_t s32Count;                               /* valid entries, 0..255 */
    uint8_t au8DriveBayID[RTSHM_MAX_DRIVES];        /* bay id of the backplane holding the drive */
    uint8_t au8DriveOccupiedSlot[RTSHM_MAX_DRIVES]; /* slot number of the drive */
    uint8_t au8DriveProtocolType[RTSHM_MAX_DRIVES]; /* bus protocol */
    uint8_t au8DriveMediaType[RTSHM_MAX_DRIVES];    /* 0, 1 (solid state) or RTSHM_MEDIA_TAPE */
    uint8_t au8DriveFormFactor[RTSHM_MAX_DRIVES];   /* form factor */
    uint8_t au8Temp[RTSHM_MAX_DRIVES];              /* degrees Celsius, 0xFF = not reported */
    uint32_t au32NominalRPM[RTSHM_MAX_DRIVES];      /* nominal rotation speed; odd offset */
    uint8_t au8Reserved[RTSHM_MAX_DRIVES];          /* 0xFF from initialisation, never written */
    uint16_t pdShmStatus[RTSHM_MAX_DRIVES];         /* drive status word; odd offset */
    uint16_t au16DriveCapacity[RTSHM_MAX_DRIVES];   /* units of 2^30 bytes, low 16 bits; odd offset */
    uint8_t au8DriveImpendance[RTSHM_MAX_DRIVES];   /* impedance code */
    uint8_t au8ChassisSlot[RTSHM_MAX_DRIVES];       /* chassis slot of the drive's enclosure */
    uint8_t au8EnclosureTyoe[RTSHM_MAX_DRIVES];     /* enclosure type */
} sVOXSASSATAInventory;
RTVOX_ASSERT_SIZE(sVOXSASSATAInventory, 4594);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8DriveBayID, 4);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8DriveOccupiedSlot, 259);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8DriveProtocolType, 514);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8DriveMediaType, 769);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8DriveFormFactor, 1024);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8Temp, 1279);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au32NominalRPM, 1534);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8Reserved, 2554);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, pdShmStatus, 2809);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au16DriveCapacity, 3319);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8DriveImpendance, 3829);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8ChassisSlot, 4084);
RTVOX_ASSERT_OFFSET(sVOXSASSATAInventory, au8EnclosureTyoe, 4339);

typedef struct RTVOX_PACKED sVOXTAVOBatteryInventory {
    int32_t s32Count;                      /* valid entries, 0..8 */
    uint8_t au8Slot[RTSHM_MAX_BATTERIES];  /* PCI slot of the owning controller */
    uint8_t au8State[RTSHM_MAX_BATTERIES]; /* battery state, low 8 bits */
    uint32_t rtvox_inventory;              /* 0xFFFFFFFF after init; 1 once an inventory is published */
} sVOXTAVOBatteryInventory;
RTVOX_ASSERT_SIZE(sVOXTAVOBatteryInventory, 24);
RTVOX_ASSERT_OFFSET(sVOXTAVOBatteryInventory, au8Slot, 4);
RTVOX_ASSERT_OFFSET(sVOXTAVOBatteryInventory, au8State, 12);
RTVOX_ASSERT_OFFSET(sVOXTAVOBatteryInventory, rtvox_inventory, 20);

/* Only bit 0 of the first byte means anything (RTSHM_DRIVE_POLLING_DISABLED). */
typedef struct RTVOX_PACKED sVOXTAVODrivePolling {
    uint8_t u8DisableDrivePolling;
    uint8_t au8Other[3];
} sVOXTAVODrivePolling;
RTVOX_ASSERT_SIZE(sVOXTAVODrivePolling, 4);

/* Seconds between temperature polls of backplane drives (10) and of drives
 * read through the controller (60): published for the pollers, never read by
 * the library. */
extern int32_t backplane_drive_thermalpoll_interval;
extern int32_t insight_drive_thermalpoll_interval;

/* Fills the controller, drive and battery tables of region 3 with 0xFF, in
 * that order; answers the last write's result (0 = written). */
int32_t RTSHM_InitSharedMem(void);
/* The same for the controller and drive tables only; the battery table is
 * left as it is. */
int32_t RTSHM_InitPartialSharedMem(void);
/* Prints the three tables of region 3 and the polling flag of region 55 at
 * trace level 6 (read failures are ignored: what was read is printed; a
 * count of 0 or below prints no entries). */
void RTSHM_DumpSharedMem(void);
/* Reads the drive-polling word of region 55 into *pPolling; the marker file
 * "/flash/data0/oem_ps/pdthermaldisabled" forces bit 0 on. 0; 2 NULL
 * pPolling; 3 the region could not be read (*pPolling as the read left it). */
uint32_t RTSHM_ReadSharedThermalPolling(sVOXTAVODrivePolling *pPolling);

/* Rebuilds the three tables of region 3 from the object cache; call it with
 * the cache lock held. The controller and drive tables read as 0xFF while it
 * runs (RTSHM_InitPartialSharedMem first); the tables are built in local
 * images and written at the end, controllers, drives, batteries in that
 * order, with rtvox_inventory = 1; then RTSHM_DumpSharedMem. Nothing stops
 * it: a missing object skips only that element, failed writes are ignored.
 * Always answers 0 (callers ignore it).
 *
 * What it reads: for EIDs 0 to 254, until 16 controllers are entered, those
 * of type TAVO (1), HBA (10) or MIRU (12) whose controller node (key type 2)
 * has its adapter record and PCI information block (a node without them is
 * skipped with " contiue2"); the slot from the PCI location, the
 * temperatures (TAVO only, while drive polling is on), ids, addresses, flag
 * and thermal-poll byte; the battery of a TAVO controller that is not
 * modular. Then the controller's physical-disk nodes, keys 0 to
 * max_physicaldevices - 2, while fewer than 255 drives are entered: the
 * record's slot, protocol, media, form factor, speed and capacity, the
 * entry's temperature, status, impedance and enclosure type, and the bay of
 * the drive's enclosure node (key u16EnclDeviceID) where it is a backplane.
 * Controllers with sub-device ids 7981, 8001, 8006, 8137, 8162 are entered
 * with thermalPDPollDisable 254 and nothing else of theirs; TAVO controllers
 * with ids 8004-8006, 8011, 8012, 8014, 8016-8019 publish no battery
 * temperature. A drive skipped after its values were written leaves them in
 * the entry beyond the count, where the next drive overwrites them. */
int32_t RTSHM_UpdateSharedMem(void);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_SHM_H */

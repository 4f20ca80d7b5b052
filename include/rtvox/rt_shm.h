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
 * Backplane API and NVMe drives
 *
 * The backplane firmware describes every drive bay, drive slot and PCIe riser
 * in one 738-byte API info record. The library keeps one long-lived session
 * to the backplane API (bpAPIHandler), reads the record, traces it, condenses
 * its NVMe part into sNVMeSSDBPInfo and the drive-state tables, follows hot
 * plug through NVMeHotPlugCallback, and turns the condensed view into cached
 * extender (key type 6) and backplane (key type 5) objects.
 *
 * Session
 *   rtshm_BpApiInit opens the session once (with NVMeHotPlugCallback) and
 *   never closes it; later calls reuse it. Every backplane call carries the
 *   library's own file ("rt_shm.c"), function and line for the API's tracing.
 *   Only the low 8 bits of a backplane status are tested; 0 is success.
 *
 * Drive-state tables
 *   Two tables of 3 bay ids x 32 slots of 16-bit states: the current states
 *   (read and written by the accessors below, written by the update and the
 *   callback) and the pending states reported by hot plug. Both are zeroed by
 *   rtshm_BpApiInit. Other modules of the library reach them through the
 *   private header rt_shm_internal.h.
 *
 * Hot plug (behaviour other firmware relies on, kept as it is)
 *   The callback writes each NVMe drive's reported state (drive technology 1
 *   or 4) into the pending table, then commits every slot whose pending state
 *   differs from the current one: current = pending, pending = 0, and the new
 *   state also goes to the slot entry. A slot whose pending state already
 *   equalled the current one keeps that pending value, so a later callback
 *   that no longer reports the drive leaves the slot unchanged; a committed
 *   slot (pending 0) reads as absent in the next callback unless the drive is
 *   reported again.
 *
 * Inventory
 *   rtshm_getNVMeExtcard must run before rtshm_getNVMeBPs: a backplane whose
 *   first NVMe slot hangs on an extender nests the cached extender's FQDD
 *   ("Enclosure.Internal.0-%ld:%ls"). If that extender is not cached or has no
 *   FQDD, the backplane gets no FQDD at all (no fallback to the plain form
 *   "Enclosure.Internal.0-%ld", which is used only for slots without an
 *   extender). Both processing calls hold mutexRtCache throughout and release
 *   it on every path; an object that is not stored is freed with every buffer
 *   allocated for it. A missing FQDD or name buffer is only traced.
 *   Buffers: extender FQDD 100 bytes (swprintf limit 25), extender name 80
 *   bytes (limit 20); backplane FQDD 45 wide characters with an extender, 24
 *   without, backplane name 15 ("Enclosure.Internal.0-10:PCIeExtender.Slot.10",
 *   "Enclosure.Internal.0-10" and "PCIe SSD BP 10" with their terminators);
 *   longer texts are cut. The backplane's enclosure record gets NAME,
 *   hdr.FQDD, u8SlotCount and u8DriveCount and nothing else. The drive count
 *   comes from byte 3 of the bay entry, which the update never fills.
 *
 * Concurrency
 *   sNVMeSSDBPInfo and the drive-state tables are shared by the service's
 *   threads and the backplane API's callback thread without a lock, by
 *   design. Every access the library makes to them is a single access of the
 *   field's width (a 16-bit state is never torn): loads are relaxed atomic
 *   loads and stores sequentially consistent atomic stores, so race checkers
 *   accept them. Readers outside the library should read single fields too.
 *
 * Choices made here where the contract leaves room
 *   - Memory safety: the API info record is read only inside its 738 bytes
 *     whatever its counts say: a bay, drive or riser entry (or a downstream
 *     bay id) that would pass the record's end is not read, and the walk
 *     stops there with a level-2 line. The tables are written only inside
 *     their rows: a bay id of 3 or more, a slot of 32 or more or a riser
 *     index of 16 or more is skipped with a level-2 line "<-- error %s %d is
 *     out of range" in the update, the callback, the inventory walk and the
 *     accessors; the accessors then answer 2 and write nothing.
 *     rtshm_getExtenderSlotFromDriveSlot refuses a bay id of 3 or more the
 *     same way (slots above 31 keep their own "Invalid DriveSlot" answer 2).
 *     Within bounds every rule above holds exactly.
 *   - A NULL output or entry pointer answers 2 ("<-- err null inputs").
 *   - An extender or backplane found in the cache is updated in place; the
 *     texts and enclosure record it held are released when new ones replace
 *     them, so repeated inventories do not leak. An object already in the
 *     cache is never freed by a failed call.
 *   - The backplane's 512-byte enclosure record is part of the object: if it
 *     cannot be allocated the call answers 3 like a failed object allocation
 *     (a new object is freed; a cached one keeps its earlier record).
 *   - The backplane key is the slot entry's bay id, which equals the bay
 *     entry's whenever rtshm_getNVMeBPs makes the call.
 *   - The enclosure record's slot and drive counts sit at bytes 71 and 72,
 *     next to its position byte (see rt_dup.h).
 * ========================================================================== */

#define RTSHM_BP_INFO_SIZE 738u      /* API info record */
#define RTSHM_BP_BAY_OFFSET 8u       /* bay entry b at 8 + 51 b */
#define RTSHM_BP_DRIVE_OFFSET 240u   /* drive entry d at 240 + 15 d */
#define RTSHM_BP_RISER_OFFSET 720u   /* riser entry r at 720 + 6 r */
#define RTSHM_BP_BAY_ENTRIES 4       /* bay entries laid out before the drive table */
#define RTSHM_BP_DRIVE_ENTRIES 32    /* drive entries laid out */
#define RTSHM_BP_RISER_ENTRIES 3     /* riser entries laid out */
#define RTSHM_NVME_BAYS 3            /* bay ids 0..2 */
#define RTSHM_NVME_SLOTS 32          /* slots 0..31 per bay */
#define RTSHM_NVME_EXTENDERS 16      /* extender entries 0..15 */
#define RTSHM_TECH_NVME 1u           /* bay / drive technology: NVMe */
#define RTSHM_TECH_NVME_ALT 4u       /* the other NVMe technology value */
#define RTSHM_RISER_TYPE_EXTENDER 4u /* riser type of a PCIe extender card */

/* ---- the API info record (a backplane API wire record; multi-byte fields are
 * little-endian and unaligned, so they are kept as byte arrays) ---------------- */

typedef struct RTVOX_PACKED RtShmBpBay {
    uint8_t inventory;           /* non-zero "Inventory" */
    uint8_t bpId[2];             /* 16-bit */
    uint8_t downstreamCnt;       /* downstream bays */
    uint8_t pcieSlotMap[4];      /* 32-bit */
    uint8_t downstreamBayIds[6]; /* printed, not interpreted */
    uint8_t bayId;
    uint8_t tech; /* 1 and 4: NVMe backplane */
    uint8_t size; /* size / carrier */
    uint8_t rsvd17[10];
    uint8_t priSec;       /* 0: primary bay */
    uint8_t primaryBayId; /* also printed as downstream slot and drive count */
    uint8_t physSlotCnt;
    uint8_t logicalSlotCnt;
    uint8_t rsvd31;
    uint8_t physDriveCnt;
    uint8_t rsvd33[2];
    uint8_t riserCnt;
    uint8_t rsvd36;
    uint8_t fwMajor;
    uint8_t fwMinor;
    uint8_t compId[3]; /* printed byte 41 first */
    uint8_t rsvd42[9];
} RtShmBpBay;
RTVOX_ASSERT_SIZE(RtShmBpBay, 51);
RTVOX_ASSERT_OFFSET(RtShmBpBay, bpId, 1);
RTVOX_ASSERT_OFFSET(RtShmBpBay, downstreamCnt, 3);
RTVOX_ASSERT_OFFSET(RtShmBpBay, pcieSlotMap, 4);
RTVOX_ASSERT_OFFSET(RtShmBpBay, downstreamBayIds, 8);
RTVOX_ASSERT_OFFSET(RtShmBpBay, bayId, 14);
RTVOX_ASSERT_OFFSET(RtShmBpBay, tech, 15);
RTVOX_ASSERT_OFFSET(RtShmBpBay, size, 16);
RTVOX_ASSERT_OFFSET(RtShmBpBay, priSec, 27);
RTVOX_ASSERT_OFFSET(RtShmBpBay, primaryBayId, 28);
RTVOX_ASSERT_OFFSET(RtShmBpBay, physSlotCnt, 29);
RTVOX_ASSERT_OFFSET(RtShmBpBay, logicalSlotCnt, 30);
RTVOX_ASSERT_OFFSET(RtShmBpBay, physDriveCnt, 32);
RTVOX_ASSERT_OFFSET(RtShmBpBay, riserCnt, 35);
RTVOX_ASSERT_OFFSET(RtShmBpBay, fwMajor, 37);
RTVOX_ASSERT_OFFSET(RtShmBpBay, fwMinor, 38);
RTVOX_ASSERT_OFFSET(RtShmBpBay, compId, 39);

typedef struct RTVOX_PACKED RtShmBpDrive {
    uint8_t rsvd0;
    uint8_t driveId;
    uint8_t sensor;
    uint8_t bayId;     /* the bay the drive sits in */
    uint8_t driveSlot; /* slot in the bay */
    uint8_t rsvd5[2];
    uint8_t extenderSlot; /* PCIe slot of the extender card; 0 = none */
    uint8_t rsvd8[3];
    uint8_t tech;     /* 1 and 4: NVMe drive */
    uint8_t state[2]; /* 16-bit drive state */
    uint8_t rsvd14;
} RtShmBpDrive;
RTVOX_ASSERT_SIZE(RtShmBpDrive, 15);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, driveId, 1);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, sensor, 2);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, bayId, 3);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, driveSlot, 4);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, extenderSlot, 7);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, tech, 11);
RTVOX_ASSERT_OFFSET(RtShmBpDrive, state, 12);

typedef struct RTVOX_PACKED RtShmBpRiser {
    uint8_t present;
    uint8_t bayId;
    uint8_t type; /* 4: PCIe extender */
    uint8_t Slot; /* PCIe slot */
    uint8_t num;  /* riser number */
    uint8_t rsvd5;
} RtShmBpRiser;
RTVOX_ASSERT_SIZE(RtShmBpRiser, 6);
RTVOX_ASSERT_OFFSET(RtShmBpRiser, Slot, 3);
RTVOX_ASSERT_OFFSET(RtShmBpRiser, num, 4);

/* The counts are the backplane's; entries past the laid-out ones still lie
 * inside the record up to its end (bay entries up to 13, drive entries up to
 * 32) and are read there, never beyond. */
typedef struct RTVOX_PACKED RtShmBpApiInfo {
    uint8_t rsvd0[2];
    uint8_t bayCnt;   /* bay entries */
    uint8_t driveCnt; /* drive entries to print */
    uint8_t slotCnt;  /* drive entries to process */
    uint8_t rsvd5;
    uint8_t riserCnt; /* riser entries */
    uint8_t rsvd7;
    RtShmBpBay bay[RTSHM_BP_BAY_ENTRIES];
    uint8_t rsvd212[28];
    RtShmBpDrive drive[RTSHM_BP_DRIVE_ENTRIES];
    RtShmBpRiser riser[RTSHM_BP_RISER_ENTRIES];
} RtShmBpApiInfo;
RTVOX_ASSERT_SIZE(RtShmBpApiInfo, RTSHM_BP_INFO_SIZE);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, bayCnt, 2);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, driveCnt, 3);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, slotCnt, 4);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, riserCnt, 6);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, bay, RTSHM_BP_BAY_OFFSET);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, drive, RTSHM_BP_DRIVE_OFFSET);
RTVOX_ASSERT_OFFSET(RtShmBpApiInfo, riser, RTSHM_BP_RISER_OFFSET);

/* ---- the condensed NVMe view ----------------------------------------------------
 * Not packed: every field sits at its natural alignment, so the 16-bit drive
 * state can be read and written as one atomic access; the asserts pin every
 * offset other firmware reads. */

typedef struct RtShmNVMeBay {
    uint8_t u8BayID;
    uint8_t rsvd1;
    uint8_t u8SlotCount;  /* the bay's physical slot count */
    uint8_t u8DriveCount; /* never filled by the update */
    uint8_t rsvd4[2];
    uint8_t u8FwMajor;
    uint8_t u8FwMinor;
} RtShmNVMeBay;

typedef struct RtShmNVMeSlot {
    uint8_t u8BayID;
    uint8_t u8SlotNumInBay;
    uint8_t rsvd2;
    uint8_t u8DriveId;
    uint16_t u16DriveState;
    uint8_t u8BpType;       /* the bay's technology; 1 and 4: NVMe backplane */
    uint8_t u8DriveTech;    /* 1 and 4: NVMe drive */
    uint8_t u8ExtenderSlot; /* 0 = none */
    uint8_t u8EID;          /* the drive's EID */
    uint8_t rsvd10[4];
} RtShmNVMeSlot;

typedef struct RtShmNVMeExtender {
    uint8_t u8BayID;
    uint8_t u8PciSlot;
    uint8_t u8RiserType; /* always 4 once filled */
    uint8_t u8RiserNum;
} RtShmNVMeExtender;

typedef struct RtShmNVMeSSDBPInfo {
    uint8_t u8BayCount; /* the API info's bayCnt */
    uint8_t rsvd1[3];
    RtShmNVMeBay bay[RTSHM_NVME_BAYS]; /* by bay id */
    uint8_t rsvd28[8];
    RtShmNVMeSlot slot[RTSHM_NVME_BAYS][RTSHM_NVME_SLOTS]; /* by bay id, slot */
    RtShmNVMeExtender extender[RTSHM_NVME_EXTENDERS];      /* by riser index */
} RtShmNVMeSSDBPInfo;
RTVOX_ASSERT_SIZE(RtShmNVMeBay, 8);
RTVOX_ASSERT_OFFSET(RtShmNVMeBay, u8SlotCount, 2);
RTVOX_ASSERT_OFFSET(RtShmNVMeBay, u8DriveCount, 3);
RTVOX_ASSERT_OFFSET(RtShmNVMeBay, u8FwMajor, 6);
RTVOX_ASSERT_OFFSET(RtShmNVMeBay, u8FwMinor, 7);
RTVOX_ASSERT_SIZE(RtShmNVMeSlot, 14);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u8SlotNumInBay, 1);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u8DriveId, 3);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u16DriveState, 4);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u8BpType, 6);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u8DriveTech, 7);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u8ExtenderSlot, 8);
RTVOX_ASSERT_OFFSET(RtShmNVMeSlot, u8EID, 9);
RTVOX_ASSERT_SIZE(RtShmNVMeExtender, 4);
RTVOX_ASSERT_OFFSET(RtShmNVMeExtender, u8PciSlot, 1);
RTVOX_ASSERT_OFFSET(RtShmNVMeExtender, u8RiserType, 2);
RTVOX_ASSERT_OFFSET(RtShmNVMeExtender, u8RiserNum, 3);
RTVOX_ASSERT_SIZE(RtShmNVMeSSDBPInfo, 1444);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, bay, 4);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, slot, 36);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, extender, 1380);
/* Positions read by the PCIe SSD slot mapping, for bay b and slot s. */
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, bay[1].u8FwMajor, 10 + 8);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, bay[2].u8FwMinor, 11 + 8 * 2);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, slot[1][0].u8BayID, 36 + 448);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, slot[2][5].u8BpType, 42 + 448 * 2 + 14 * 5);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, slot[2][31].u8EID, 45 + 448 * 2 + 14 * 31);
RTVOX_ASSERT_OFFSET(RtShmNVMeSSDBPInfo, extender[15].u8RiserNum, 1380 + 4 * 15 + 3);

/* The session handle, 0 while no session is open. */
extern uint32_t bpAPIHandler;
/* The NVMe view, zero at load, rewritten by each successful update. */
extern RtShmNVMeSSDBPInfo sNVMeSSDBPInfo;

/* ---- session and data ------------------------------------------------------------ */

/* Zeroes both drive-state tables, opens the session unless one is open
 * ("BPApi is already Open"), then updates the data. 0 when a session is open
 * (whether or not the update succeeded), 1 when none could be opened
 * ("Failed to get Open bpAPI", level 2). */
uint32_t rtshm_BpApiInit(void);
/* Reads the API info record, traces it, stores bayCnt and, for each NVMe
 * bay (technology 1 or 4) in record order, its bay entry, its slots among
 * the first slotCnt drive entries (also into the current drive-state table)
 * and its risers as extender entries (by riser index, type 4). Entries no
 * longer reported are not cleared. 0, also when there is no session or the
 * read fails (the view is then untouched); 5 when the 738-byte buffer cannot
 * be allocated. */
uint32_t rtshm_BpDataUpdate(void);
/* Traces the record at level 4: per bay its lines, then its drives among
 * the first driveCnt and its present risers. NULL: nothing. */
void VornBpPrintApiInfo(const RtShmBpApiInfo *pInfo);
/* Reads the API info record into the caller's 738-byte buffer: 0, or 1
 * when there is no session, the read fails or the buffer is NULL. */
uint32_t ReadNVMeBPInfo(RtShmBpApiInfo *pInfo);

/* ---- drive state and hot plug ------------------------------------------------------ */

/* The hot-plug callback the session is opened with; runs on the backplane
 * API's thread with a fresh API info record. Answers 0. */
int32_t NVMeHotPlugCallback(void *pApiInfo);
/* *pu8DriveTech = the slot entry's drive technology. 0; 2 out of range or NULL. */
uint32_t rtshm_getDriveTechFromBpInfo(uint8_t *pu8DriveTech, uint8_t u8BayID, uint8_t u8Slot);
/* *pu16DriveState = the slot's current state. 0; 2 out of range or NULL. */
uint32_t rtshm_getNVMeDriveState(uint16_t *pu16DriveState, uint8_t u8BayID, uint8_t u8Slot);
/* Note the order: the state sits between bay and slot. Stores the state in
 * the current table and the slot entry. 0; 2 out of range. */
uint32_t rtshm_SetNVMeDriveState(uint8_t u8BayID, uint16_t u16DriveState, uint8_t u8Slot);
/* The slot entry's u8EID = the low 8 bits of EID. 0; 2 out of range. */
uint32_t rtshm_UpdateNVMeSSDSlotToEID(uint8_t u8BayID, uint8_t u8Slot, uint32_t EID);

/* ---- NVMe extender and backplane inventory --------------------------------------------- */

/* Processes every extender entry of riser type 4, in order; the first
 * failure stops the walk. 0, or 3. */
uint32_t rtshm_getNVMeExtcard(void);
/* Caches (type 6, key and EID = the PCIe slot) an extender with its FQDD
 * "PCIeExtender.Slot.%ld" and name "PCIe Extender %d". 0; 3 lock or object
 * allocation failure; the cache's code when the store fails (for a slot above
 * 16). */
uint32_t processNVMeExtndrcardInfo(uint8_t u8BayID, uint8_t u8PciSlot);
/* *pu8ExtenderSlot = the slot entry's extender slot (0 = none). 0; 2 for a
 * drive slot above 31 ("Error!!, Invalid DriveSlot"), a bay id above 2 or a
 * NULL output (the output is then untouched). */
uint32_t rtshm_getExtenderSlotFromDriveSlot(uint8_t u8BayID, uint8_t u8DriveSlot, uint8_t *pu8ExtenderSlot);
/* Processes each of the three bays once, with its first NVMe slot. 0. */
uint32_t rtshm_getNVMeBPs(void);
/* Caches (type 5, key and EID = the bay id) a backplane for a bay entry and
 * one of its slot entries of sNVMeSSDBPInfo, with its enclosure record, FQDD
 * and name. 0; 2 NULL entry; 3 lock, object, enclosure-record or store
 * failure. */
uint32_t processNVMeBackplaneInfo(RtShmNVMeBay *pBay, RtShmNVMeSlot *bpStatusInfo);

/* ---- NVMe locate and drive status ---------------------------------------------------------
 *
 * Each call writes one drive-status record (write type 1) to the backplane:
 * bay id, slot in the bay and the little-endian status word, whose bit 3 asks
 * for locate (blink). BlinkNVMeSSD, UnBlinkNVMeSSD and
 * updateNVMeSSDDriveStatusToBP open a short session of their own (without a
 * hot-plug callback), write and close it; UnBlinkAllNVMeSSDS writes over
 * bpAPIHandler. Every line they trace is at level 4.
 *
 * Failures (behaviour the service relies on, kept as it is)
 *   - A session that cannot be opened answers 1 for blink and unblink, but 0
 *     for the status update, which then writes nothing and reports nothing.
 *   - A failed write answers 1. Blink and unblink close their session on that
 *     path; the status update leaves its session open; bpAPIHandler is never
 *     closed here.
 *   - A failed close is only traced ("Failed to Close to BPAPI"); the result
 *     stays 0.
 *   - The status update records the status in the drive-state table at the
 *     caller's slot, while the record it writes carries the bay and slot found
 *     from the EID (RTSHM_readBayIDAndSlotNoFromEID). When the EID cannot be
 *     looked up it closes its session and answers 0 without writing.
 *
 * Choices made here where the contract leaves room
 *   - 0xFFFF (state unknown) is never sent: UnBlinkAllNVMeSSDS skips a state
 *     of 0xFFFF with success, and the status update records a status of
 *     0xFFFF in the drive-state table but writes nothing (and answers 0).
 *     UnBlinkNVMeSSD writes the state with bit 3 cleared, never 0xFFFF.
 *   - An open failure has no status of its own: its line carries the API's
 *     text for the handle the open returned (0).
 *   - The status update of an EID that is not a PCIe SSD in a backplane (an
 *     add-in card, for which the lookup answers 0 and finds nothing) uses bay
 *     0 and slot 0, the lookup's starting values.
 */

#define RTSHM_BP_WRITE_DRIVE_STATUS 1u   /* write type of the drive-status record */
#define RTSHM_NVME_LOCATE_BIT 0x0008u    /* bit 3 of the status word: locate */
#define RTSHM_NVME_STATE_UNKNOWN 0xFFFFu /* a drive state never written */

/* The drive-status record (a backplane API wire record). */
typedef struct RTVOX_PACKED RtShmDriveStatusRecord {
    uint8_t u8bayId;
    uint8_t u8SSDSlotNum;      /* the slot in the bay */
    uint8_t u16DriveStatus[2]; /* little-endian */
} RtShmDriveStatusRecord;
RTVOX_ASSERT_SIZE(RtShmDriveStatusRecord, 4);
RTVOX_ASSERT_OFFSET(RtShmDriveStatusRecord, u8SSDSlotNum, 1);
RTVOX_ASSERT_OFFSET(RtShmDriveStatusRecord, u16DriveStatus, 2);

/* Writes status 8 (the locate bit alone) for the slot. 0, or 1. */
uint32_t BlinkNVMeSSD(uint8_t u8bayId, uint8_t u8Slot);
/* Writes the drive's state with bit 3 cleared. 0, or 1. */
uint32_t UnBlinkNVMeSSD(uint8_t u8bayId, uint8_t u8Slot, uint16_t u6NVMeDriveState);
/* As UnBlinkNVMeSSD over bpAPIHandler; a state of 0xFFFF is skipped with 0.
 * The EID only appears in the success line. 0, or 1 (no session, write failed). */
uint32_t UnBlinkAllNVMeSSDS(uint32_t EID, uint8_t u8bayId, uint8_t u8Slot, uint16_t u6NVMeDriveState);
/* Records the status for the caller's slot (rtshm_SetNVMeDriveState, with the
 * EID's bay) and writes it for the EID's bay and slot. 0 (also when no session
 * could be opened or the EID not looked up), or 1 when the write failed. */
uint32_t updateNVMeSSDDriveStatusToBP(uint16_t u16DriveStatus, uint8_t u8Slot, int32_t EID);

/* ==== PCIe SSD regions 20/26/15, FRU/temperature records, drive status and simulation ====
 *
 * Regions are wire formats shared with other firmware processes: byte-packed,
 * little-endian, every offset below pinned by an assertion. The library never
 * maps a region; it moves bytes through Vorn_shm_memread/Vorn_shm_memwrite,
 * and the 16-bit fields are read and written as two little-endian bytes (they
 * sit at odd or unaligned offsets), never through a cast of their address.
 *
 * Offsets computed from a caller's index are not bounded by these functions
 * (the callers keep to 0..31 for a bay or global slot, 0..11 for a card): an
 * index past a table reaches the next field or falls outside the region, where
 * the platform refuses the access. An offset that would not fit in 32 bits is
 * passed as 0xFFFFFFFF, so it is refused too instead of wrapping back into the
 * region.
 */

#define RTSHM_PCIESSD_BP_REGION 20u     /* presence, slot table, drive status */
#define RTSHM_PCIESSD_FRU_REGION 26u    /* FRU and temperature records */
#define RTSHM_PCIESSD_FRUDIR_REGION 15u /* FRU directory of the extenders */

#define RTSHM_PCIESSD_SLOTS 32u /* global slots described in region 20 */
#define RTSHM_PCIESSD_FRU_BAY_RECORDS 32u
#define RTSHM_PCIESSD_FRU_CARD_RECORDS 12u
#define RTSHM_PCIESSD_FRU_BYTES 256u
#define RTSHM_PCIESSD_INDEX_NONE 255u     /* "no index known": always refused */
#define RTSHM_PCIESSD_TYPE_BAY 7          /* storage-element type of a PCIe SSD in a backplane bay */
#define RTSHM_PCIESSD_TYPE_CARD 11        /* storage-element type of an SSD add-in card */
#define RTSHM_PCIESSD_FRUDIR_BAY_ENTRY 3u /* directory entry kind of a PCIe SSD bay record */

/* Region 20: one 4-byte entry per global slot. */
typedef struct RTVOX_PACKED RtShmPcieSsdSlot {
    uint8_t u8BayID;
    uint8_t u8SlotNumInBay;
    uint8_t u8BPType;
    uint8_t u8DrivePresence;
} RtShmPcieSsdSlot;
RTVOX_ASSERT_SIZE(RtShmPcieSsdSlot, 4);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdSlot, u8SlotNumInBay, 1);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdSlot, u8BPType, 2);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdSlot, u8DrivePresence, 3);

/* Region 20: one 4-byte drive-status entry per global slot. */
typedef struct RTVOX_PACKED RtShmPcieSsdDriveStatus {
    uint8_t u8BayID;
    uint8_t u8SlotNumInBay;
    uint16_t u16DriveStatus; /* little-endian, copied unchanged */
} RtShmPcieSsdDriveStatus;
RTVOX_ASSERT_SIZE(RtShmPcieSsdDriveStatus, 4);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdDriveStatus, u8SlotNumInBay, 1);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdDriveStatus, u16DriveStatus, 2);

/* Region 20, the PCIe SSD backplane area (325 bytes). */
typedef struct RTVOX_PACKED RtShmPcieSsdBp {
    uint8_t rsvd0[2];
    uint8_t u8SlotCount; /* global slots described; at most 32 are used */
    uint8_t rsvd3[3];
    uint8_t u8PresenceSeq; /* changes whenever drive presence changes */
    uint8_t rsvd7[3];
    uint8_t u8StatusCounter; /* drive-status update counter, wraps at 256 */
    uint8_t rsvd11[3];
    RtShmPcieSsdSlot asSlot[RTSHM_PCIESSD_SLOTS];
    RtShmPcieSsdDriveStatus asDriveStatus[RTSHM_PCIESSD_SLOTS]; /* the 128-byte drive-status area */
    uint8_t rsvd270[15];
    uint8_t au8SplitMode[40]; /* backplane SPLIT-mode area */
} RtShmPcieSsdBp;
RTVOX_ASSERT_SIZE(RtShmPcieSsdBp, 325);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, u8SlotCount, 2);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, u8PresenceSeq, 6);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, u8StatusCounter, 10);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, asSlot, 14);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, asSlot[1].u8BayID, 18);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, asSlot[31].u8DrivePresence, 141);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, asDriveStatus, 142);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, asDriveStatus[0].u16DriveStatus, 144);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, asDriveStatus[31].u16DriveStatus, 268);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdBp, au8SplitMode, 285);

/* Region 26: one FRU record (260 bytes). */
typedef struct RTVOX_PACKED RtShmPcieSsdFruRecord {
    uint8_t u8Slot;    /* 0xFF when cleared */
    uint8_t u8Present; /* 1 present, 0 absent */
    uint8_t u8Temp;    /* signed degrees Celsius; 0xFF when cleared */
    uint8_t u8Bay;     /* bay records only; 0 in card and cleared records */
    uint8_t au8FRU[RTSHM_PCIESSD_FRU_BYTES];
} RtShmPcieSsdFruRecord;
RTVOX_ASSERT_SIZE(RtShmPcieSsdFruRecord, 260);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruRecord, u8Present, 1);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruRecord, u8Temp, 2);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruRecord, u8Bay, 3);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruRecord, au8FRU, 4);

/* Region 26, the FRU and temperature records (11444 bytes). */
typedef struct RTVOX_PACKED RtShmPcieSsdFru {
    uint8_t u8FRUCounter; /* the caller's counter, written after every change */
    uint8_t rsvd1[3];
    RtShmPcieSsdFruRecord asBay[RTSHM_PCIESSD_FRU_BAY_RECORDS];
    RtShmPcieSsdFruRecord asCard[RTSHM_PCIESSD_FRU_CARD_RECORDS];
} RtShmPcieSsdFru;
RTVOX_ASSERT_SIZE(RtShmPcieSsdFru, 11444);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFru, asBay, 4);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFru, asBay[3].u8Temp, 786);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFru, asCard, 8324);

/* Region 15: one FRU directory entry (8 bytes). */
typedef struct RTVOX_PACKED RtShmPcieSsdFruDirEntry {
    uint8_t u8PCIeSlotNo; /* PCIe extender slot */
    uint8_t u8Kind;       /* RTSHM_PCIESSD_FRUDIR_BAY_ENTRY for a PCIe SSD bay record */
    uint8_t rsvd2[2];
    uint16_t u16RecordOffset; /* little-endian; region-15 offset of a 4-byte record, byte 1 its bay id */
    uint8_t rsvd6[2];
} RtShmPcieSsdFruDirEntry;
RTVOX_ASSERT_SIZE(RtShmPcieSsdFruDirEntry, 8);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruDirEntry, u8Kind, 1);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruDirEntry, u16RecordOffset, 4);

/* Region 15, the directory as read: its first 132 bytes. */
typedef struct RTVOX_PACKED RtShmPcieSsdFruDir {
    uint8_t rsvd0[2];
    uint16_t u16Count; /* little-endian */
    RtShmPcieSsdFruDirEntry asEntry[16];
} RtShmPcieSsdFruDir;
RTVOX_ASSERT_SIZE(RtShmPcieSsdFruDir, 132);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruDir, u16Count, 2);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruDir, asEntry, 4);
RTVOX_ASSERT_OFFSET(RtShmPcieSsdFruDir, asEntry[1].u16RecordOffset, 16);

/* ---- FRU and temperature records (region 26) --------------------------------
 *
 * Each store writes its data first and the caller's counter last (one byte
 * at offset 0), so a reader that sees the counter move finds the data in
 * place. A bay record is record `index` of asBay, a card record record
 * `index` of asCard. Index 255 is refused with a level-2 line and nothing is
 * written, not even the counter.
 *
 * The service ignores the results; they are 0 = everything written, 2 =
 * refused (index 255, a type the store does not take, NULL FRU data; nothing
 * written), 3 = a region write failed (traced at level 2; the remaining
 * writes, the counter included, are still made).
 */

/* Type 7 only: bay record bytes u8Slot, u8Present, u8Bay, one byte at a time in that order. */
uint32_t RTSHM_StoreFRUDrivePresentStatus(int32_t type, uint32_t index, uint32_t slot, uint32_t bay, uint8_t present,
                                          uint8_t counter);
/* u8Temp of the card record for type 11, of the bay record for any other type. */
uint32_t RTSHM_StoreFRUTemp(int32_t type, uint32_t index, uint32_t temperature, uint32_t counter);
/* u8Temp of the bay record whatever the type: on that platform temperatures
 * always go to the bay table (the FRU store below always to the card table). */
uint32_t RTSHM_StoreFRUTemp_Pelko(int32_t type, uint32_t index, uint32_t temperature, uint32_t counter);
/* A cleared record (slot and temperature 0xFF, everything else 0): the card
 * record for type 11, the bay record for any other type. */
uint32_t RTSHM_ClearFRU(uint32_t type, uint32_t index, uint32_t counter);
/* A whole record, present, with slot, temperature and the 256 bytes of `fru`:
 * the card record for type 11 (u8Bay 0), the bay record with u8Bay = bay for
 * any other type. */
uint32_t RTSHM_StoreFRU(int32_t type, uint32_t index, uint32_t slot, int32_t bay, const uint8_t *fru, uint8_t counter,
                        uint8_t temperature);
/* The card record whatever the type (the platform's FRU table is its card table). */
uint32_t RTSHM_StoreFRU_Pelko(int32_t type, uint32_t index, uint32_t slot, const uint8_t *fru, uint8_t counter,
                              uint8_t temperature);

/* ---- PCIe SSD drive status and simulation (regions 20 and 26) ---------------
 *
 * Results: 0 success, 3 a region access failed (traced at level 2 as
 * "error, SHM Read" / "error, SHM Write"). A NULL pointer gives 0 with nothing
 * done, which callers rely on.
 */

/* Reads u16DriveStatus of global slot `slot` (taken as a signed 16-bit value). */
uint32_t RTSHM_readPciessdDriveStatusFromShm(uint16_t *status, int32_t slot);
/* Writes the low 16 bits of `status` as u16DriveStatus of global slot `slot`,
 * then advances u8StatusCounter by one (255 wraps to 0). A failed status write
 * leaves the counter alone. */
uint32_t updatePciessdDriveStatusToShm(uint32_t status, uint32_t slot);
/* Writes the 128-byte drive-status area of `image` to region 20; the counter
 * is not touched. */
uint32_t updatePciessdiBCDDataToShm(const RtShmPcieSsdBp *image);

/* The simulation inputs (under $RTVOX_ROOT in host builds). Both are opened
 * only as regular files: a symbolic link or anything else at the path is
 * refused with a level-2 line and treated as a missing file. */
#define RTSHM_PCIESSD_STATUS_FILE "/tmp/ssdstatus.txt" /* first line: a decimal status word */
#define RTSHM_PCIESSD_FRU_FILE "/tmp/ssdfru.bin"       /* raw bytes: the 256-byte FRU image */

/* The decimal value of the status file's first line (at most 9 characters);
 * 0 when the file is missing, refused or empty. */
int32_t ReadStatusFile(void);
/* Reads up to 256 bytes of the FRU file into `buffer` (past a short file the
 * buffer keeps what it held). Answers the bytes read: 0 when the file is
 * missing or refused, -1 for a NULL buffer. */
int32_t ReadFRUFile(uint8_t *buffer);
/* Fills regions 20 and 26 from the two files so that consumers can be
 * exercised without PCIe SSD hardware: every described slot (at most 32)
 * gets the file's status word and FRU image (zero past the end of a short
 * file). The simulation keeps its own last status and presence sequence and
 * writes nothing while neither changed; its status and FRU counters start at
 * 0x80. Region failures are ignored. Its closing report lists at most the 32
 * slot entries that exist; a larger slot count gets one level-2 line. */
void RTSHM_PCIeSSDSimulate(void);

/* ---- PCIe SSD slot mapping (regions 20 and 15, the NVMe view) ---------------
 *
 * Global slot numbers map to a bay id and a slot within the bay through the
 * slot table of region 20, or through the NVMe view (sNVMeSSDBPInfo) with
 * the global slot taken as the slot index of every bay. Results: 0 success,
 * 2 a required pointer is NULL (or an index is refused, below), 3 a region
 * read failed or nothing was found, 5 as stated. A failure leaves the
 * caller's outputs as they were (RTSHM_readBackplaneSharedMem has already
 * zeroed its buffer).
 *
 * Behaviour other firmware relies on, kept as it is
 *   - The scans of the NVMe view look at every bay (and slot): the last match
 *     wins.
 *   - RTSHM_readSSDSlotNumFromGblSlotNum and
 *     RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum answer 0 for a NULL output,
 *     reading nothing.
 *   - RTSHM_ReadBpFwVersion copies exactly four bytes and adds no
 *     terminator; its "Fw Version" line prints the minor number twice.
 *   - RTSHM_InitPCIeSSDSharedMem submits the single message 1065 after its
 *     write, whether or not the write succeeded.
 *
 * Choices made here where the contract leaves room
 *   - The presence sequence RTSHM_ReadPCIeSSDPresenceSharedMem remembers is
 *     its own process-wide byte (initially 0, so a first read of sequence 0
 *     reports no change). RTSHM_PCIeSSDSimulate keeps a separate one: if they
 *     shared it, whichever ran first would hide a presence change from the
 *     other (the simulation would not refill the regions, or the service's
 *     poll would report no change).
 *   - RTSHM_ReadBpFwVersion's bay index and RTSHM_readBayIDInfoFromGblSlotNum's
 *     slot index are refused past the NVMe view's tables (bay index 3 or
 *     more, slot index 32 or more) with the level-2 line "<-- error %s %d is
 *     out of range" and result 2. RTSHM_readBayIDInfoFromGblSlotNum and
 *     RTSHM_readBayIDAndSlotNoFromEID answer 2 for a NULL output ("<-- err
 *     null inputs").
 *   - RTSHM_readSSDSlotNumFromGblSlotNum takes the global slot as a signed
 *     16-bit value; RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum takes all 32
 *     bits. Offsets outside region 20 are refused by the platform.
 *   - RTSHM_InitPCIeSSDSharedMem answers 0, or 3 when its buffer cannot be
 *     allocated (nothing written or submitted) or the region write failed.
 *   - The add-in-card line of RTSHM_readBayIDAndSlotNoFromEID names the
 *     function, and its exit line shows the caller's outputs as they stand.
 */

#define RTSHM_PCIESSD_SPLIT_MODE_SIZE 40u /* the SPLIT-mode area of region 20 */
#define RTSHM_PCIESSD_FW_REV_SIZE 4u      /* bytes RTSHM_ReadBpFwVersion copies */

/* Zeroes the caller's 40 bytes, then reads the SPLIT-mode area into them. 0, 2, 3. */
uint32_t RTSHM_readBackplaneSharedMem(uint8_t *pSplitMode);
/* Fills region 26 with 0xFF, then submits rt_SubMitSingle(1065). 0, or 3. */
uint32_t RTSHM_InitPCIeSSDSharedMem(void);
/* The slot within its bay of the first NVMe slot (bay type 1 or 4) of the
 * NVMe view, bays 0 to 2 in order. 0; 5 when there is none; 2 for NULL. */
uint32_t RTSHM_GetPCIeSSDGlobalSlotNumberBase(uint8_t *pu8BaseSlotNumber);
/* Reads region 20 whole (325 bytes) into the caller's buffer. 0 when the
 * presence sequence (byte 6) differs from the one last seen (it is then
 * remembered), 5 when it does not; 2 for NULL; 3 when the read failed
 * ("error, SHM read"). */
uint32_t RTSHM_ReadPCIeSSDPresenceSharedMem(RtShmPcieSsdBp *pPresence);
/* "%x.%02x" of the bay's firmware major and minor, cut to four characters,
 * into the caller's four bytes. 0; 2 NULL or bay index refused. */
uint32_t RTSHM_ReadBpFwVersion(uint32_t u32BayIndex, char *bpFwRev);
/* The slot within its bay of a global slot (region 20). 0 (also for NULL), 3. */
uint32_t RTSHM_readSSDSlotNumFromGblSlotNum(uint8_t *pu8SlotNumInBay, int32_t s32GlobalSlot);
/* The bay id of a global slot (region 20). 0 (also for NULL), 3. */
uint32_t RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum(uint8_t *pu8BayId, uint32_t u32GlobalSlot);
/* The bay id of slot `u32Slot` of the last NVMe bay (type 1 or 4) of the
 * NVMe view. 0; 3 none ("error!!, Not a NVMe Backplane" per bay); 2. */
uint32_t RTSHM_readBayIDInfoFromGblSlotNum(uint8_t *pu8BayId, uint32_t u32Slot);
/* The bay and slot whose EID in the NVMe view is EID (the last match), for
 * an EID of storage-element type 7. 0 (also for any other type, outputs
 * untouched); 1 EID not registered; 3 no slot holds it; 2 for NULL. */
uint32_t RTSHM_readBayIDAndSlotNoFromEID(uint8_t *pu8BayId, uint8_t *pu8SSDSlotNo, int32_t EID);

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

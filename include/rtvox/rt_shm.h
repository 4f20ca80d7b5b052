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

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_SHM_H */

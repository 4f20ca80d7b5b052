/*
 * rtvox record copies.
 *
 * The controller layer hands the monitoring service fixed-layout records;
 * the cache never keeps those, it keeps deep copies made here, so that the
 * service may free or reuse its own record at once. This header fixes the
 * byte layout of every record the library copies and declares the copy
 * operations. The release of cached copies lives in the cache module.
 *
 * Layout
 *   Every record is a byte-packed block (no padding; 32-bit fields may stand
 *   at any byte) built by the service, so the layout is part of the
 *   interface. Only the fields the library touches are named; every other
 *   byte is a plain byte array named after its first offset (rsvd24 starts at
 *   byte 24) that is copied as it stands. Texts are wchar_t strings of 4-byte
 *   characters, null-terminated, held through 32-bit pointers (ILP32 only).
 *
 *   The 512-byte records share a head:
 *       0  objType       u32 object type, read by the release walks
 *       8  NAME          display name, wide string owned by the record
 *      16  hdr.VERSION   u32 record version
 *      20  hdr.FQDD      the component's FQDD, wide string owned by the record
 *   VERSION and FQDD sit in a small nested struct `hdr` so that code reads
 *   rec->hdr.VERSION and rec->hdr.FQDD. The head is written out in each
 *   record, not hidden in a macro, so every field can be found by name.
 *
 *   Fields without a name of their own are named after what they hold:
 *   objType (offset 0), the physical disk's `state` (offset 100), the
 *   enclosure's `Position` (offset 70) and, for a PCIe SSD backplane, its
 *   `u8SlotCount` and `u8DriveCount` (offsets 72 and 73, after the bay id at
 *   71; the NVMe inventory fills them), the text pointer `pText` of an
 *   adapter text slot and the adapter key's closing 16-bit field `u16Tail`.
 *
 *   The values the shared-memory inventory publishes stand in bytes the
 *   records otherwise leave to the service, and are copied as plain bytes
 *   (nothing new is owned):
 *     adapter   120 u32CtrlTemp, 124 u32BatteryTemp, 128 u64CtrlAddress1,
 *               136 u64CtrlAddress2, 144 u8AdapterFlag,
 *               145 u8ThermalPDPollDisable (the controller's PCI location
 *               and ids are the controller node's PCI information block);
 *     battery   64 state (the 8 bytes a change event clears);
 *     disk      76 Size (capacity in bytes), 121 Slot, 123 u8BusProtocol,
 *               124 u8MediaFlags, 125 u8FormFactor, 126 u16EnclDeviceID,
 *               128 u32NominalRPM, 132 pDescription;
 *     enclosure 71 u8BayID.
 *   pDescription is the one pointer among them: it names a constant text of
 *   the controller layer (its attachment description, such as "Direct" or
 *   "Tape"), which outlives every record; a copy shares it with its source
 *   and no release frees it. Leave it NULL for a text that does not live
 *   that long.
 *   Fields that other modules will read but whose offsets are not settled yet
 *   stay inside the plain byte arrays until they are.
 *
 * Copy rules (every copy below)
 *   1. The new record is zero-filled from rtvox_alloc at full size and the
 *      whole source block is copied into it byte for byte.
 *   2. Each owned pointer of the copy is set to NULL before its own copy is
 *      attempted, so a copy never shares a pointer with its source and a
 *      failed allocation leaves NULL. The exceptions are stated per
 *      operation; they are relied on by the service and must stay.
 *   3. An owned wide string gets (length + 1) * 4 bytes from rtvox_alloc and
 *      is formatted into it with L"%ls", bounded at length + 1 characters. A
 *      NULL source text leaves NULL.
 *   4. An owned array of plain entries gets count * entry size bytes and is
 *      copied byte for byte.
 *   5. The copy belongs to the caller (normally the cache); the source is
 *      never changed or freed.
 *   A failed allocation for a member leaves that member NULL (or its list
 *   empty, where stated) in an otherwise complete copy that is still
 *   returned as a success: callers must accept records with NULL texts.
 *
 * Choices made here for cases the record contract leaves open
 *   - A count whose byte size does not fit in 32 bits is treated as a failed
 *     allocation (the member stays NULL, as for any failed allocation).
 *   - A non-zero count with a NULL source array (physical disk list, virtual
 *     disk target ids) copies as a missing array (NULL) without allocating,
 *     instead of reading through NULL. The foreign-configuration lists treat
 *     it like their failed allocation: count 0, NULL, "<--error3"/"<--error5".
 *   - rtraid_DupVD always returns 0; the value carries no status. With a NULL
 *     argument it traces "<--error1" and returns without an exit line.
 *   - The physical-disk keyId copy writes its extra zero byte only when that
 *     position lies inside the 256-byte buffer, and its trace prints at most
 *     256 characters of each keyId.
 *   - StripLeadingTrailingSpace's leading scan is not bounded by its 8-bit
 *     indices, so an all-blank buffer longer than 255 bytes cannot make it
 *     loop; the trailing scan keeps its 8-bit start as documented below.
 */
#ifndef RTVOX_RT_DUP_H
#define RTVOX_RT_DUP_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

RTVOX_STATIC_ASSERT(sizeof(wchar_t) == 4, "record texts are 4-byte wide characters");
RTVOX_STATIC_ASSERT(sizeof(void *) == 4, "records hold 32-bit pointers");

/* ---- object types (offset 0 of every 512-byte record) ---------------------- */

#define RTRAID_OBJTYPE_ADAPTER 0u      /* owns EXTRA, entryArray and the textSlots texts */
#define RTRAID_OBJTYPE_ENCLOSURE 2u    /* owns only the head texts */
#define RTRAID_OBJTYPE_PHYSICALDISK 3u /* owns listEntries and keyId */
#define RTRAID_OBJTYPE_LOGICALDISK 4u  /* owns targetIDs; every other type owns only the head texts */

#define RTRAID_RECORD_SIZE 512u
#define RTRAID_ADAPTERKEY_SIZE 292u

/* ---- common head ------------------------------------------------------------- */

typedef struct RTVOX_PACKED RtRecordHdr {
    uint32_t VERSION; /* record version; 0 means the FQDD text is shared by disk and enclosure copies */
    wchar_t *FQDD;    /* owned */
} RtRecordHdr;
RTVOX_ASSERT_SIZE(RtRecordHdr, 8);
RTVOX_ASSERT_OFFSET(RtRecordHdr, VERSION, 0);
RTVOX_ASSERT_OFFSET(RtRecordHdr, FQDD, 4);

/* Any 512-byte record seen through its head only: driver, the four
 * enclosure elements, and the generic view the release walks use. */
typedef struct RTVOX_PACKED RtRecord {
    uint32_t objType;
    uint8_t rsvd4[4];
    wchar_t *NAME; /* owned */
    uint8_t rsvd12[4];
    RtRecordHdr hdr;
    uint8_t rsvd24[488];
} RtRecord;
RTVOX_ASSERT_SIZE(RtRecord, 512);
RTVOX_ASSERT_OFFSET(RtRecord, objType, 0);
RTVOX_ASSERT_OFFSET(RtRecord, NAME, 8);
RTVOX_ASSERT_OFFSET(RtRecord, hdr.VERSION, 16);
RTVOX_ASSERT_OFFSET(RtRecord, hdr.FQDD, 20);

typedef RtRecord RtDriver;    /* head only */
typedef RtRecord RtEMM;       /* enclosure management module, head only */
typedef RtRecord RtFan;       /* head only */
typedef RtRecord RtPSU;       /* power supply, head only */
typedef RtRecord RtTempProbe; /* temperature probe, head only */

/* ---- battery: the head and the battery's state, nothing else owned ---------------- */

typedef struct RTVOX_PACKED RtBattery {
    uint32_t objType;
    uint8_t rsvd4[4];
    wchar_t *NAME; /* owned */
    uint8_t rsvd12[4];
    RtRecordHdr hdr;
    uint8_t rsvd24[40];
    uint64_t state; /* battery state; a change event clears it so the next poll reports it afresh */
    uint8_t rsvd72[440];
} RtBattery;
RTVOX_ASSERT_SIZE(RtBattery, 512);
RTVOX_ASSERT_OFFSET(RtBattery, NAME, 8);
RTVOX_ASSERT_OFFSET(RtBattery, hdr.FQDD, 20);
RTVOX_ASSERT_OFFSET(RtBattery, state, 64);

/* ---- adapter ------------------------------------------------------------------- */

/* One entry of the adapter's entryArray, opaque to the library. */
typedef struct RTVOX_PACKED RtAdapterEntry {
    uint8_t bytes[60];
} RtAdapterEntry;
RTVOX_ASSERT_SIZE(RtAdapterEntry, 60);

/* One of the adapter's eight text slots: a wide text among plain bytes. */
typedef struct RTVOX_PACKED RtAdapterTextSlot {
    uint8_t rsvd0[4];
    wchar_t *pText; /* owned */
    uint8_t rsvd8[1];
} RtAdapterTextSlot;
RTVOX_ASSERT_SIZE(RtAdapterTextSlot, 9);
RTVOX_ASSERT_OFFSET(RtAdapterTextSlot, pText, 4);

#define RTRAID_ADAPTER_TEXT_SLOTS 8

typedef struct RTVOX_PACKED RtAdapter {
    uint32_t objType; /* RTRAID_OBJTYPE_ADAPTER */
    uint8_t rsvd4[4];
    wchar_t *NAME; /* owned */
    uint8_t rsvd12[4];
    RtRecordHdr hdr;
    uint8_t rsvd24[64];
    uint32_t entryMask; /* one entryArray entry per set bit */
    uint8_t rsvd92[20];
    wchar_t *EXTRA;             /* owned; "Not Applicable" for PCIe SSD adapters */
    RtAdapterEntry *entryArray; /* owned; popcount(entryMask) entries */
    uint32_t u32CtrlTemp;       /* controller temperature, degrees Celsius */
    uint32_t u32BatteryTemp;    /* battery temperature, degrees Celsius */
    uint64_t u64CtrlAddress1;   /* the controller's two 64-bit addresses, published as they are */
    uint64_t u64CtrlAddress2;
    uint8_t u8AdapterFlag;          /* published as it is */
    uint8_t u8ThermalPDPollDisable; /* 1 = do not poll this controller's drives for temperature */
    uint8_t rsvd146[278];
    RtAdapterTextSlot textSlots[RTRAID_ADAPTER_TEXT_SLOTS];
    uint8_t rsvd496[16];
} RtAdapter;
RTVOX_ASSERT_SIZE(RtAdapter, 512);
RTVOX_ASSERT_OFFSET(RtAdapter, objType, 0);
RTVOX_ASSERT_OFFSET(RtAdapter, NAME, 8);
RTVOX_ASSERT_OFFSET(RtAdapter, hdr.VERSION, 16);
RTVOX_ASSERT_OFFSET(RtAdapter, hdr.FQDD, 20);
RTVOX_ASSERT_OFFSET(RtAdapter, entryMask, 88);
RTVOX_ASSERT_OFFSET(RtAdapter, EXTRA, 112);
RTVOX_ASSERT_OFFSET(RtAdapter, entryArray, 116);
RTVOX_ASSERT_OFFSET(RtAdapter, u32CtrlTemp, 120);
RTVOX_ASSERT_OFFSET(RtAdapter, u32BatteryTemp, 124);
RTVOX_ASSERT_OFFSET(RtAdapter, u64CtrlAddress1, 128);
RTVOX_ASSERT_OFFSET(RtAdapter, u64CtrlAddress2, 136);
RTVOX_ASSERT_OFFSET(RtAdapter, u8AdapterFlag, 144);
RTVOX_ASSERT_OFFSET(RtAdapter, u8ThermalPDPollDisable, 145);
RTVOX_ASSERT_OFFSET(RtAdapter, textSlots, 424);
RTVOX_ASSERT_OFFSET(RtAdapter, rsvd496, 496); /* textSlots: 8 x 9 = 72 bytes */

/* The two texts a PCIe SSD controller is described by. */
typedef struct RTVOX_PACKED RtPCIeSSDAdapterNames {
    wchar_t *pName; /* goes to NAME */
    wchar_t *pFQDD; /* goes to hdr.FQDD */
} RtPCIeSSDAdapterNames;
RTVOX_ASSERT_SIZE(RtPCIeSSDAdapterNames, 8);

/* ---- adapter key: plain data only ------------------------------------------------ */

typedef struct RTVOX_PACKED RtAdapterKey {
    uint8_t rsvd0[289];
    uint16_t u16Tail; /* the record's last field */
    uint8_t rsvd291[1];
} RtAdapterKey;
RTVOX_ASSERT_SIZE(RtAdapterKey, 292);
RTVOX_ASSERT_OFFSET(RtAdapterKey, u16Tail, 289);

/* ---- physical disk ------------------------------------------------------------------ */

#define RTRAID_KEYID_SIZE 256u

typedef struct RTVOX_PACKED RtPhysicalDisk {
    uint32_t objType; /* RTRAID_OBJTYPE_PHYSICALDISK */
    uint8_t rsvd4[4];
    wchar_t *NAME; /* owned */
    uint8_t rsvd12[4];
    RtRecordHdr hdr; /* FQDD shared with the source when VERSION is 0 */
    uint8_t rsvd24[40];
    uint32_t id;
    uint8_t rsvd68[8];
    uint64_t Size; /* capacity in bytes */
    uint8_t rsvd84[16];
    uint64_t state; /* disk state */
    uint8_t rsvd108[13];
    uint8_t Slot;
    uint8_t Hotspare;
    uint8_t u8BusProtocol;       /* bus protocol, published as it is */
    uint8_t u8MediaFlags;        /* bit 1: solid-state media */
    uint8_t u8FormFactor;        /* published as it is */
    uint16_t u16EnclDeviceID;    /* object key of the drive's enclosure node, 0xFFFF = none */
    uint32_t u32NominalRPM;      /* nominal rotation speed */
    const wchar_t *pDescription; /* not owned: a constant text of the controller layer, or NULL */
    uint8_t rsvd136[248];
    char *keyId; /* owned 256-byte buffer holding a narrow text */
    uint8_t rsvd388[115];
    uint8_t listCount;
    uint32_t *listEntries; /* owned, listCount entries; shared with the source when listCount is 0 */
    uint8_t rsvd508[4];
} RtPhysicalDisk;
RTVOX_ASSERT_SIZE(RtPhysicalDisk, 512);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, objType, 0);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, NAME, 8);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, hdr.VERSION, 16);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, hdr.FQDD, 20);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, id, 64);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, Size, 76);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, state, 100);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, Slot, 121);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, Hotspare, 122);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, u8BusProtocol, 123);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, u8MediaFlags, 124);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, u8FormFactor, 125);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, u16EnclDeviceID, 126);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, u32NominalRPM, 128);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, pDescription, 132);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, keyId, 384);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, listCount, 503);
RTVOX_ASSERT_OFFSET(RtPhysicalDisk, listEntries, 504);

/* ---- virtual disk --------------------------------------------------------------------- */

typedef struct RTVOX_PACKED RtVirtualDisk {
    uint32_t objType; /* RTRAID_OBJTYPE_LOGICALDISK */
    uint8_t rsvd4[4];
    wchar_t *NAME; /* owned */
    uint8_t rsvd12[4];
    RtRecordHdr hdr;
    uint8_t rsvd24[52];
    uint64_t Size;
    uint8_t rsvd84[416];
    uint32_t targetCount; /* number of member disks */
    int32_t *targetIDs;   /* owned, targetCount member-disk target ids */
    uint8_t rsvd508[4];
} RtVirtualDisk;
RTVOX_ASSERT_SIZE(RtVirtualDisk, 512);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, objType, 0);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, NAME, 8);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, hdr.VERSION, 16);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, hdr.FQDD, 20);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, Size, 76);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, targetCount, 500);
RTVOX_ASSERT_OFFSET(RtVirtualDisk, targetIDs, 504);

/* ---- enclosure --------------------------------------------------------------------------- */

typedef struct RTVOX_PACKED RtEnclosure {
    uint32_t objType; /* RTRAID_OBJTYPE_ENCLOSURE */
    uint8_t rsvd4[4];
    wchar_t *NAME; /* owned */
    uint8_t rsvd12[4];
    RtRecordHdr hdr; /* FQDD shared with the source when VERSION is 0 */
    uint8_t rsvd24[46];
    uint8_t Position;     /* enclosure position */
    uint8_t u8BayID;      /* bay id of a backplane, published for its drives */
    uint8_t u8SlotCount;  /* slots of a PCIe SSD backplane (set by the NVMe inventory) */
    uint8_t u8DriveCount; /* drives of a PCIe SSD backplane (set by the NVMe inventory) */
    uint8_t rsvd74[438];
} RtEnclosure;
RTVOX_ASSERT_SIZE(RtEnclosure, 512);
RTVOX_ASSERT_OFFSET(RtEnclosure, objType, 0);
RTVOX_ASSERT_OFFSET(RtEnclosure, NAME, 8);
RTVOX_ASSERT_OFFSET(RtEnclosure, hdr.VERSION, 16);
RTVOX_ASSERT_OFFSET(RtEnclosure, hdr.FQDD, 20);
RTVOX_ASSERT_OFFSET(RtEnclosure, Position, 70);
RTVOX_ASSERT_OFFSET(RtEnclosure, u8BayID, 71);
RTVOX_ASSERT_OFFSET(RtEnclosure, u8SlotCount, 72);
RTVOX_ASSERT_OFFSET(RtEnclosure, u8DriveCount, 73);

/* ---- foreign configuration ------------------------------------------------------------------ */

typedef struct RTVOX_PACKED RtForeignConfig {
    uint8_t rsvd0[64];
    uint32_t numVDs;
    RtVirtualDisk *vdList; /* owned array of numVDs records */
    uint8_t rsvd72[4];
    uint32_t numPDs;
    RtPhysicalDisk *pdList; /* owned array of numPDs records */
    uint8_t rsvd84[428];
} RtForeignConfig;
RTVOX_ASSERT_SIZE(RtForeignConfig, 512);
RTVOX_ASSERT_OFFSET(RtForeignConfig, numVDs, 64);
RTVOX_ASSERT_OFFSET(RtForeignConfig, vdList, 68);
RTVOX_ASSERT_OFFSET(RtForeignConfig, numPDs, 76);
RTVOX_ASSERT_OFFSET(RtForeignConfig, pdList, 80);

/* ---- controller-side copies -------------------------------------------------------------------- */

/* New copy of an adapter record, or NULL (NULL source, or the record itself
 * could not be allocated). Copies NAME, hdr.FQDD, EXTRA, the eight slot texts
 * in order, then popcount(entryMask) entries of entryArray when the source
 * has one (a mask of 0 gives a block of 0 bytes). */
RtAdapter *DupAdapter(const RtAdapter *pSrc);

/* Fills a caller-owned adapter record for a PCIe SSD controller: NAME from
 * pName and hdr.FQDD from pFQDD (each only when the source text is set; the
 * field is overwritten, not freed), EXTRA always from "Not Applicable".
 * 0, also when an allocation failed (that field is then NULL); -1 for a NULL
 * argument. Nothing else of the record is touched. */
int32_t DupPCIeSSDAdapter(const RtPCIeSSDAdapterNames *pSrc, RtAdapter *pDest);

/* New copy of the 292 plain bytes of an adapter key, or NULL. */
RtAdapterKey *rtraid_DupAdapterKey(const RtAdapterKey *pSrc);

/* New copy of a battery / driver record with its NAME and hdr.FQDD, or NULL. */
RtBattery *rtraid_DupBattery(const RtBattery *pSrc);
RtDriver *rtraid_DupDriver(const RtDriver *pSrc);

/* Trims leading and trailing white space (isspace) from a byte buffer in
 * place and zero-fills what follows the kept text; a buffer of only white
 * space gets a 0 first byte and is otherwise left alone. Bytes that are 0 at
 * the end count as trailing, zeros inside the text are kept. The trailing
 * scan uses an 8-bit index: buffers longer than 255 bytes are not supported,
 * and for them the scan starts at (size - 1) modulo 256. */
void StripLeadingTrailingSpace(char *pBuffer, uint32_t size);

/* ---- disk and enclosure copies: into a caller-allocated destination ---------------------------- */

/* Copies a physical disk into pDest: 0, or -1 for a NULL argument (no trace).
 * Deep copies NAME; listEntries when listCount is not 0 (else the source's
 * pointer is kept: shared); hdr.FQDD only when hdr.VERSION is not 0 (else
 * shared); keyId as a fresh 256-byte buffer. The source's keyId buffer must
 * hold 256 bytes whatever the length of its text. */
int32_t rtraid_dupPD(const RtPhysicalDisk *pSrcPD, RtPhysicalDisk *pDestPD);

/* Copies a virtual disk into pDest with its NAME and hdr.FQDD (whatever the
 * version) and its targetIDs (NULL when targetCount is 0, even if the source
 * has an array). The result carries no status (always 0): do not test it. */
int32_t rtraid_DupVD(const RtVirtualDisk *pSrcVD, RtVirtualDisk *pDestVD);

/* Copies an enclosure / enclosure element into pDest: NAME always, hdr.FQDD
 * only when hdr.VERSION is not 0 (else shared with the source). 0, or -1 for
 * a NULL argument. Only the enclosure copy traces. */
int32_t rtraid_dupEnclosure(const RtEnclosure *pSrc, RtEnclosure *pDest);
int32_t rtraid_dupEMM(const RtEMM *pSrc, RtEMM *pDest);
int32_t rtraid_dupFAN(const RtFan *pSrc, RtFan *pDest);
int32_t rtraid_dupPSU(const RtPSU *pSrc, RtPSU *pDest);
int32_t rtraid_dupTEMPPROBE(const RtTempProbe *pSrc, RtTempProbe *pDest);

/* ---- foreign configuration copy -------------------------------------------------------------- */

/* New copy of a foreign configuration, or NULL (NULL source or the record
 * could not be allocated). Owns new vdList / pdList arrays (when their count
 * is not 0; else the source's pointers are kept), the NAME of each embedded
 * record and each virtual disk's targetIDs. The embedded hdr.FQDD, keyId and
 * listEntries pointers are the source's: the source's texts must outlive the
 * copy or be handed over to it. A list that cannot be allocated is emptied
 * (count 0); a targetIDs array that cannot be allocated sets that disk's
 * targetCount to 0. */
RtForeignConfig *DupForeign_Config(const RtForeignConfig *pSrc);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_DUP_H */

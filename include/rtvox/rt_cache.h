/*
 * rtvox object cache.
 *
 * Also home of two small services that live in the cache module: the
 * polling sleep of the monitoring service and the HBA communication status
 * table.
 */
#ifndef RTVOX_RT_CACHE_H
#define RTVOX_RT_CACHE_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#include "rtvox/platform.h" /* SMMutexUnLock releases the cache lock */
#include "rtvox/rtvox.h"
#include "rtvox/rt_dup.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ============================================================================
 * The object cache
 *
 * The cache is the library's picture of the storage controllers the service
 * manages: a registry of storage element ids (EIDs, 0 to 254; 255 = none)
 * and tables of record pointers, all exported by name. The records are the
 * deep copies made by rt_dup; once stored, the cache owns them and only the
 * release walks below free them.
 *
 * Adapter index
 *   Every per-adapter table (cache_PDs, cache_VDs, the event blocks) is
 *   indexed by the registry slot that holds the EID (GetIndexFromEID), not by
 *   the EID itself.
 *
 * Lock discipline
 *   One platform mutex, mutexRtCache, guards the registry and every table.
 *   - Lock by themselves: rtcache_GetStorageEIDCount, rtcache_GetStorageEIDs,
 *     rtcache_GetStorageEIDStatus, rtcache_SetStorageEIDStatus,
 *     rtcache_GetStorageEIDType, rtcache_SetStorageEIDType,
 *     rtcache_SetModularId, rtcache_FreeObjectLevel, rtcache_FreeMem.
 *     A failed lock is traced "<-- err mutex fail" and answers 3 (which
 *     rtcache_GetStorageEIDCount's caller cannot tell from a count of 3).
 *   - Never lock; call them between rtcache_GetLock() and
 *     SMMutexUnLock(mutexRtCache): rtcache_GetStorageEIDTypeNoLock,
 *     rtcache_GetModularIdNoLock, GetIndexFromEID, rtcache_SetCachedObject,
 *     rtcache_GetCachedObject, rtcache_FreeRMObjects. No cache function takes
 *     the lock twice.
 *   - Lock by themselves too: rtcache_GetCachedEvents (across the copy and
 *     the emptying of the adapter's blocks) and rtcache_ConvertCacheToEvent
 *     (only while it snapshots the tables).
 *   - Never lock, like the store and fetch: rtcache_SetCachedEvent,
 *     rtcache_SetCachedEvent_roll_up, rtcache_CopyCachedEvent,
 *     rtcache_SetDelayedCachedEvent, rtcache_PurgeDelayedCachedEvents and
 *     the three FQDD lookups.
 *   - rtcache_GetEventsByObjType works on the caller's own copy of a block
 *     and rtcache_PrintCache reads the live tables without the lock.
 *   - rtcache_SetID / rtcache_GetID need no lock.
 *   - rtcache_Init and rtcache_Destroy take no lock: run them while no other
 *     thread uses the cache.
 *   A fetched record pointer stays valid only while the caller holds the
 *   lock (or otherwise knows that no release runs). rtcache_GetStorageEIDs
 *   hands out the registry's own arrays, read afterwards without the lock:
 *   the registry changes only while the service fills it at discovery.
 *
 * Deliberate asymmetries of the registry (other firmware relies on them)
 *   - The getters and setters of status, type and modular id answer 0 for an
 *     EID that is not registered and change nothing; only the two NoLock
 *     getters answer 1.
 *   - When one EID stands in two slots, the status getter returns the later
 *     slot's bytes and the status setter writes every matching slot, while
 *     type, modular id and GetIndexFromEID use the earlier slot.
 *   - Searches run over the filled slots (0 to u8EIDCount - 1), except
 *     GetIndexFromEID, which scans all max_adapters slots.
 *   - 255 marks a free slot, so an EID of 255 matches free slots like any
 *     other byte; callers never pass it.
 *
 * Choices made here where the contract leaves room
 *   - Slot counters are 8 bits wide: GetIndexFromEID looks at no more than
 *     256 slots even if max_adapters is larger.
 *   - Object keys carry 16 significant bits: the key argument is taken
 *     modulo 65536.
 *   - The stores of key types 5, 6 and 8 do not consult any limit, but a key
 *     beyond the table's own slots (5, 17, 255) would write outside the table:
 *     it is refused with 2. The same holds for a backplane fetch when
 *     max_pciessd_backplanes is raised above 4.
 *   - A store or fetch into a table that is not allocated (before
 *     rtcache_Init, after a failed one, after rtcache_Destroy) answers 1.
 *   - The release walk frees every non-zero cache_CMDsCount value as a block
 *     from rtvox_alloc: store only such blocks (or 0) under key type 8.
 * ========================================================================== */

RTVOX_STATIC_ASSERT(sizeof(void *) == 4, "the cache tables hold 32-bit pointers");

/* ---- limits -------------------------------------------------------------------
 * max_adapters, max_physicaldevices and max_logicaldevices size the tables at
 * rtcache_Init; they and the two PCIe SSD limits bound the keys. None may
 * change after rtcache_Init. */

extern uint32_t max_adapters;                    /* 30: registry slots = controllers */
extern uint32_t max_physicaldevices;             /* 512: physical-disk slots per adapter */
extern uint32_t max_logicaldevices;              /* 254: virtual-disk slots per adapter */
extern uint32_t max_enclosures_attached_to_tavo; /* 20: published for the service only */
extern uint32_t max_pciessd_backplanes;          /* 4: PCIe SSD backplanes */
extern uint32_t max_pciessd_extndrs;             /* 16: PCIe SSD extender cards */
extern uint32_t max_pciessds;                    /* 26: published for the service only */

#define RTCACHE_MAX_EID 254u        /* highest EID */
#define RTCACHE_EID_NONE 255u       /* no EID; marks a free registry slot */
#define RTCACHE_INVALID_INDEX 255   /* GetIndexFromEID: EID not registered */
#define RTCACHE_ALLEIDS_SLOTS 255   /* cache_AllEIDs: EIDs 0 to 254 */
#define RTCACHE_BKPLANE_SLOTS 5     /* cache_Bkplanes: max_pciessd_backplanes + 1 */
#define RTCACHE_EXTNDR_SLOTS 17     /* cache_Extndrs: max_pciessd_extndrs + 1 */
#define RTCACHE_EXTNDR_FETCH_MAX 16 /* highest extender key a fetch admits, whatever the limit says */
#define RTCACHE_CMDSCOUNT_SLOTS 255 /* cache_CMDsCount */
#define RTCACHE_ID_SLOTS 16         /* sIDToValueMap */

/* ---- storage-element registry ------------------------------------------------- */

/* The two status bytes, moved as one value; the cache gives them no meaning. */
typedef struct RTVOX_PACKED StorageEIDStatus {
    uint8_t u8StatusA;
    uint8_t u8StatusB;
} StorageEIDStatus;
RTVOX_ASSERT_SIZE(StorageEIDStatus, 2);

/* One registry slot's information. */
typedef struct RTVOX_PACKED StorageEIDInfoEntry {
    uint8_t u8StatusA;
    uint8_t u8StatusB;
    uint8_t u8TypeAndModularId; /* low nibble: EID type; high nibble: modular id */
} StorageEIDInfoEntry;
RTVOX_ASSERT_SIZE(StorageEIDInfoEntry, 3);
RTVOX_ASSERT_OFFSET(StorageEIDInfoEntry, u8TypeAndModularId, 2);

typedef struct StorageEIDInfo {
    uint8_t u8EIDCount;            /* one more than the highest slot ever filled */
    uint8_t au8Reserved[3];        /* rest of the first word, always 0 */
    uint8_t *pEIDs;                /* max_adapters EIDs, RTCACHE_EID_NONE = free slot */
    StorageEIDInfoEntry *pEIDInfo; /* max_adapters entries, entry i for slot i */
} StorageEIDInfo;
RTVOX_ASSERT_SIZE(StorageEIDInfo, 12);
RTVOX_ASSERT_OFFSET(StorageEIDInfo, pEIDs, 4);
RTVOX_ASSERT_OFFSET(StorageEIDInfo, pEIDInfo, 8);

/* EID types (low nibble of u8TypeAndModularId), as the service sets them.
 * The cache itself only singles out the PCIe SSD kinds and TAVO. */
#define RTCACHE_EIDTYPE_TAVO 1u    /* RAID controller */
#define RTCACHE_EIDTYPE_PCIESSD 7u /* PCIe SSD subsystem; also special to the event cache */
#define RTCACHE_EIDTYPE_HBA 10u    /* SAS host bus adapter */
#define RTCACHE_EIDTYPE_NVME 11u   /* NVMe drives behind a backplane, a PCIe SSD kind too */
#define RTCACHE_EIDTYPE_MIRU 12u   /* boot-storage card */

extern StorageEIDInfo cache_StorageEIDInfo;

/* ---- the per-controller node (cache_AllEIDs, key type 2) ------------------------
 *
 * Built by the service (rtvox_alloc, RTCACHE_CTRL_NODE_SIZE bytes) and owned
 * by the cache once stored. Words 1, 2, 3 and 5 are runs: records of 512
 * bytes from the copy functions, released with rtcache_FreeRMObjects (as runs
 * of one record). Words 4, 12 and 21 are plain blocks without pointers,
 * released with rtvox_free. Every other word is the service's own data,
 * which the cache neither reads nor frees.
 *
 *   word  offset  member          release
 *      0       0  u32NodeType     RTCACHE_NODE_CONTROLLER or RTCACHE_NODE_HBA
 *      1       4  pAdapter        run: adapter record (DupAdapter / DupPCIeSSDAdapter)
 *      2       8  pBattery        run: battery record (rtraid_DupBattery), or NULL
 *      3      12  pDriver         run: driver record (rtraid_DupDriver), or NULL
 *      4      16  pAdapterKey     plain: adapter key record (rtraid_DupAdapterKey), or NULL
 *      5      20  pTempProbe      run: the controller's temperature probe (rtraid_dupTEMPPROBE), or NULL
 *   6-11      24  au32Service6    service data
 *     12      48  pPciInfo        plain: the controller's PCI information block (RtCachePciInfo), or NULL
 *  13-20      52  au32Service13   service data
 *     21      84  pServiceData    plain: a further block of the service's, or NULL
 *
 * Node type 0 is a controller that may carry a battery (RAID controllers and
 * PCIe SSD subsystems); node type 3 is a host bus adapter, which carries an
 * adapter record but no battery, and is never a PCIe SSD EID. */

#define RTCACHE_NODE_CONTROLLER 0u
#define RTCACHE_NODE_HBA 3u

/* The controller's PCI information block, 16 bytes of plain data. The PCI
 * slot published for the controller is (au8Location[1] << 7 |
 * au8Location[0] >> 1), cut to 8 bits. */
typedef struct RTVOX_PACKED RtCachePciInfo {
    uint16_t u16VendorID;
    uint16_t u16DeviceID;
    uint16_t u16SubVendorID;
    uint16_t u16SubDeviceID;
    uint8_t au8Location[2]; /* the controller's PCI location, as the controller layer reports it */
    uint8_t au8Reserved[6];
} RtCachePciInfo;
RTVOX_ASSERT_SIZE(RtCachePciInfo, 16);
RTVOX_ASSERT_OFFSET(RtCachePciInfo, u16SubDeviceID, 6);
RTVOX_ASSERT_OFFSET(RtCachePciInfo, au8Location, 8);

typedef struct RtCacheCtrlNode {
    uint32_t u32NodeType;
    RtAdapter *pAdapter;
    RtBattery *pBattery;
    RtDriver *pDriver;
    RtAdapterKey *pAdapterKey;
    RtTempProbe *pTempProbe;
    uint32_t au32Service6[6];
    RtCachePciInfo *pPciInfo;
    uint32_t au32Service13[8];
    void *pServiceData;
} RtCacheCtrlNode;
#define RTCACHE_CTRL_NODE_SIZE 88u
RTVOX_ASSERT_SIZE(RtCacheCtrlNode, RTCACHE_CTRL_NODE_SIZE);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pAdapter, 4);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pBattery, 8);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pDriver, 12);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pAdapterKey, 16);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pTempProbe, 20);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pPciInfo, 48);
RTVOX_ASSERT_OFFSET(RtCacheCtrlNode, pServiceData, 84);

/* ---- PCIe SSD extender and backplane objects (key types 6 and 5) ------------------ */

/* 12 bytes, from rtvox_alloc; owns both texts. */
typedef struct RtCacheExtender {
    wchar_t *pName; /* "PCIe Extender %d" */
    wchar_t *pFQDD; /* "PCIeExtender.Slot.%ld" */
    uint8_t u8BayID;
    uint8_t au8Reserved[3];
} RtCacheExtender;
RTVOX_ASSERT_SIZE(RtCacheExtender, 12);
RTVOX_ASSERT_OFFSET(RtCacheExtender, pFQDD, 4);
RTVOX_ASSERT_OFFSET(RtCacheExtender, u8BayID, 8);

/* 12 bytes, from rtvox_alloc; owns the enclosure record, which owns its
 * NAME and hdr.FQDD. */
typedef struct RtCacheBackplane {
    uint8_t u8BayID;
    uint8_t u8SlotNumInBay;
    uint8_t u8SlotCount;
    uint8_t u8DriveCount;
    uint16_t au16DriveStatus;
    uint8_t au8Reserved[2];
    RtEnclosure *pEnclosure;
} RtCacheBackplane;
RTVOX_ASSERT_SIZE(RtCacheBackplane, 12);
RTVOX_ASSERT_OFFSET(RtCacheBackplane, au16DriveStatus, 4);
RTVOX_ASSERT_OFFSET(RtCacheBackplane, pEnclosure, 8);

/* ---- object tables ----------------------------------------------------------------- */

extern RtCacheCtrlNode *cache_AllEIDs[RTCACHE_ALLEIDS_SLOTS]; /* by EID */
extern void ***cache_PDs; /* [adapter index][object key], max_adapters x max_physicaldevices node pointers */
extern void ***cache_VDs; /* [adapter index][object key], max_adapters x max_logicaldevices record pointers */
extern RtCacheBackplane *cache_Bkplanes[RTCACHE_BKPLANE_SLOTS]; /* by backplane key */
extern RtCacheExtender *cache_Extndrs[RTCACHE_EXTNDR_SLOTS];    /* by extender key */
extern uint32_t cache_CMDsCount[RTCACHE_CMDSCOUNT_SLOTS];       /* 32-bit values, key type 8 */
extern uint8_t sIDToValueMap[RTCACHE_ID_SLOTS];                 /* one byte per id */

/* ---- event tables: one heap block each, max_adapters sub-blocks end to end ----------- */

#define RTCACHE_EVENTCACHE_DEPTH 384
#define RTCACHE_PDCHOBJ_BITMAP_BYTES 512 /* of which max_physicaldevices / 8 are used */
#define RTCACHE_PDCHOBJ_SLOTS 256

typedef struct RtCacheEventEntry {
    uint32_t objType;   /* 3 = PHYSICALDISK */
    uint32_t eventType; /* 3 = RAID_MGMT_EVENT_CHANGE_OBJECT */
    uint32_t objKey;
    void *event_data; /* event record owned by the cache, or NULL */
} RtCacheEventEntry;
RTVOX_ASSERT_SIZE(RtCacheEventEntry, 16);

typedef struct RtCacheEventBlock {
    uint32_t u32Count; /* number of the most recent entry, 1-based; 0 = empty */
    RtCacheEventEntry entries[RTCACHE_EVENTCACHE_DEPTH];
} RtCacheEventBlock;
RTVOX_ASSERT_SIZE(RtCacheEventBlock, 6148);

typedef struct RtCachePdChObjBlock {
    uint8_t au8Bitmap[RTCACHE_PDCHOBJ_BITMAP_BYTES]; /* disk k: bit (k & 7) of byte (k >> 3) */
    void *apRecords[RTCACHE_PDCHOBJ_SLOTS];          /* latest change-object event record of disk k */
} RtCachePdChObjBlock;
RTVOX_ASSERT_SIZE(RtCachePdChObjBlock, 1536);
RTVOX_ASSERT_OFFSET(RtCachePdChObjBlock, apRecords, 512);

typedef struct RtCacheDelayedEventEntry {
    uint16_t objType;
    uint16_t eventType;
    uint32_t objKey;
} RtCacheDelayedEventEntry;
RTVOX_ASSERT_SIZE(RtCacheDelayedEventEntry, 8);

/* Entry n (1-based) starts at byte 8n - 4. */
typedef struct RtCacheDelayedEventBlock {
    uint32_t u32Count;
    RtCacheDelayedEventEntry entries[RTCACHE_EVENTCACHE_DEPTH];
} RtCacheDelayedEventBlock;
RTVOX_ASSERT_SIZE(RtCacheDelayedEventBlock, 3076);
RTVOX_ASSERT_OFFSET(RtCacheDelayedEventBlock, entries, 4);

typedef struct RtCacheDelayedPdChObjBlock {
    uint8_t au8Bitmap[RTCACHE_PDCHOBJ_BITMAP_BYTES];
} RtCacheDelayedPdChObjBlock;
RTVOX_ASSERT_SIZE(RtCacheDelayedPdChObjBlock, 512);

extern RtCacheEventBlock *cache_Events;
extern RtCachePdChObjBlock *cache_Events_PD_ChObj;
extern RtCacheDelayedEventBlock *cache_Events_delayed;
extern RtCacheDelayedPdChObjBlock *cache_Events_PD_ChObj_delayed;

extern uint16_t gRTCache_EventCount; /* nodes ever added by AddNode (wraps at 65536); never reset */

/* The cache lock: an unnamed platform mutex, 0 before rtcache_Init and after rtcache_Destroy. */
extern uint32_t mutexRtCache;

/* ---- life of the cache --------------------------------------------------------------- */

/* Zeroes cache_AllEIDs; allocates the registry arrays, the four event blocks,
 * cache_PDs and cache_VDs; zeroes the backplane, extender, value and id
 * tables; marks every registry slot free; creates mutexRtCache; then
 * initialises the global status (RTSync_Init) and the controller-state table
 * (RTSync_TavoStateInit). 0 = ready; 3 = an allocation failed (the blocks
 * obtained stay allocated: nothing is rolled back, and no lock is created);
 * 1 = the lock or the synchronisation state could not be created (the lock,
 * if made, stays). u8EIDCount is left alone: 0 at load and after
 * rtcache_Destroy. */
uint32_t rtcache_Init(void);
/* Frees everything through rtcache_FreeMem, resets u8EIDCount, destroys
 * mutexRtCache and the synchronisation state. rtcache_Init may follow. */
void rtcache_Destroy(void);
/* Takes mutexRtCache, waiting without limit: 0 with the lock held, 3 if it
 * could not be taken. Release it with SMMutexUnLock(mutexRtCache). */
uint32_t rtcache_GetLock(void);

/* ---- registry ------------------------------------------------------------------------ */

/* u8EIDCount; 3 if the lock fails. */
uint32_t rtcache_GetStorageEIDCount(void);
/* Copies the registry structure (count and the registry's own arrays) to
 * *out: 0, 2 for NULL. */
uint32_t rtcache_GetStorageEIDs(StorageEIDInfo *out);
/* Copies the three bytes of every matching filled slot (the last wins) to
 * *out; 0 also when none matched (out untouched); 2 for NULL. */
uint32_t rtcache_GetStorageEIDStatus(uint32_t EID, StorageEIDInfoEntry *out);
/* Writes both status bytes of every matching filled slot; 0 also when none matched. */
uint32_t rtcache_SetStorageEIDStatus(uint32_t EID, StorageEIDStatus status);
/* EID type of the first matching slot to *out; 0 also when none matched
 * (out untouched); 2 for NULL. */
uint32_t rtcache_GetStorageEIDType(uint32_t EID, uint8_t *out);
/* As rtcache_GetStorageEIDType without the lock: 0, 1 no match, 2 NULL. */
uint32_t rtcache_GetStorageEIDTypeNoLock(uint32_t EID, uint8_t *out);
/* Sets the EID type (type & 15) of the first matching slot, keeping the
 * modular id; 0 also when none matched. */
uint32_t rtcache_SetStorageEIDType(uint32_t EID, uint8_t type);
/* Without the lock: *out = 0, then the first matching slot's modular id;
 * 0, 1 no match, 2 NULL. */
uint32_t rtcache_GetModularIdNoLock(uint32_t EID, uint8_t *out);
/* Sets the modular id (id & 15) of the first matching slot, keeping the
 * type; 0 also when none matched. */
uint32_t rtcache_SetModularId(uint32_t EID, uint8_t id);
/* Adapter index of the EID: the lowest slot below max_adapters holding it,
 * or RTCACHE_INVALID_INDEX. Callers treat any result not below max_adapters
 * as an unknown EID. */
int32_t GetIndexFromEID(uint32_t EID);

/* sIDToValueMap[id] = low byte of value: 0, 1 for id above 15. */
uint32_t rtcache_SetID(uint32_t id, uint32_t value);
/* *out = sIDToValueMap[id]: 0, 1 for NULL or id above 15. */
uint32_t rtcache_GetID(uint32_t id, uint8_t *out);

/* ---- cached objects ------------------------------------------------------------------- */

typedef uint32_t RtCacheKeyType;
enum {
    RTCACHE_KEY_STORAGEEID = 1,        /* registry slot = key; the object is the EID byte */
    RTCACHE_KEY_ADAPTER = 2,           /* cache_AllEIDs[key]; callers pass the EID as key */
    RTCACHE_KEY_PD = 3,                /* cache_PDs[index of EID][key] */
    RTCACHE_KEY_VD = 4,                /* cache_VDs[index of EID][key] */
    RTCACHE_KEY_PCIESSD_BACKPLANE = 5, /* cache_Bkplanes[key] */
    RTCACHE_KEY_PCIESSD_EXTENDER = 6,  /* cache_Extndrs[key] */
    RTCACHE_KEY_CMDSCOUNT = 8          /* cache_CMDsCount[key], a 32-bit value */
};

/* Stores a pointer (the cache owns the record from then on; a record already
 * in the slot is not released: that is the caller's business). Key bounds:
 *   1  key < max_adapters; the byte at pObjectToBeCached is registered in slot
 *      key (NULL refused) and u8EIDCount grows to key + 1
 *   2  key <= 254          3  key < max_physicaldevices, EID registered
 *   4  key < max_logicaldevices, EID registered
 *   5, 6, 8  no limit consulted (see the table-size guard above)
 * 0 stored; 1 EID not registered (3, 4); 2 key type 0 or unknown, EID above
 * 254, key out of bounds, NULL for key type 1. NULL empties a slot. */
uint32_t rtcache_SetCachedObject(RtCacheKeyType keyType, uint32_t EID, uint32_t u16ObjKey, void *pObjectToBeCached);
/* Fetches a pointer into *ppObject (NULL for an empty slot, result 0). Key bounds:
 *   1  key < max_adapters: the address of the registry byte itself
 *   2  key <= 254          3, 4  as on store
 *   5  key <= max_pciessd_backplanes      6  key <= 16
 *   8  key <= 254, else nothing is fetched and the result is still 0
 * 0 fetched; 1 EID not registered (3, 4); 2 NULL ppObject, key type 0 or
 * unknown, EID above 254, key out of bounds. */
uint32_t rtcache_GetCachedObject(RtCacheKeyType keyType, uint32_t EID, uint32_t u16ObjKey, void **ppObject);

/* ---- release walks --------------------------------------------------------------------- */

/* Releases a run of `count` contiguous 512-byte records: for each, NAME and
 * hdr.FQDD, then by objType: adapter (0) EXTRA, entryArray and the eight slot
 * texts; physical disk (3) listEntries then keyId; virtual disk (4)
 * targetIDs; others nothing more. Each freed pointer is zeroed, then the
 * block holding the run is freed. A disk copied from a version-0 source
 * shares its FQDD with that source: releasing the copy frees that text too.
 * 0; 0 for NULL (nothing to free); 2 when the first record's objType is -2,
 * which marks no record run (nothing is freed). No lock: call it with the
 * lock held. */
int32_t rtcache_FreeRMObjects(void *pObjects, uint32_t count);

/* Levels of rtcache_FreeObjectLevel. */
#define RTCACHE_LEVEL_CONTROLLER 1 /* the whole node: its runs, its plain blocks, the node; slot cleared */
#define RTCACHE_LEVEL_BATTERY 2    /* the node's battery run (word 2) */
#define RTCACHE_LEVEL_PDS 3        /* the controller's row of cache_PDs: every node with what it owns */
#define RTCACHE_LEVEL_VDS 4        /* the controller's row of cache_VDs */
#define RTCACHE_LEVEL_PDS_RUNS 5   /* the row of cache_PDs and the node's runs (words 1, 2, 3, 5); the node stays */

/* Frees one level of one TAVO controller's cached objects under the lock.
 * Only EIDs of type RTCACHE_EIDTYPE_TAVO (1) are TAVO controllers; any other
 * type is left alone ("Ignoring non-TAVOs"). 0 done (also when nothing was
 * cached); 1 EID not registered, not a TAVO, or (levels 3 to 5) no adapter
 * index; 2 EID above 254 or level not 1 to 5; 3 lock failure. Level 5 frees
 * the runs even when the disk row cannot be found. */
uint32_t rtcache_FreeObjectLevel(uint32_t EID, uint32_t level);

/* Frees the whole cache under the lock: the controller nodes (those of PCIe
 * SSD EIDs, types 7 and 11, are left in place; a node whose EID type cannot
 * be read is freed without its members), every node of the physical-disk
 * table with what it owns (see the nodes below) and every virtual disk, the
 * extenders, the backplanes with their enclosure records, the
 * cache_CMDsCount blocks, then cache_PDs, cache_VDs, the registry arrays and
 * the event blocks (table pointers are set to NULL). Event records still
 * held by the event blocks are not released. 0, 3 lock failure (nothing
 * freed). */
int32_t rtcache_FreeMem(void);

/* ============================================================================
 * The event cache
 *
 * Per adapter index the cache keeps two blocks (see the event tables above):
 *   - cache_Events[index]: a ring of RTCACHE_EVENTCACHE_DEPTH plain entries.
 *     u32Count is the number (1-based) of the entry written last. The 385th
 *     event restarts the count at 1 ("exceeded the RTCACHE_EVENTCACHE_DEPTH")
 *     and overwrites entry 1; the entries behind it stay in the block beyond
 *     the count, and a record held by an overwritten entry is not released.
 *     Readers rely on both.
 *   - cache_Events_PD_ChObj[index]: for change-object events of physical
 *     disks (objType PHYSICALDISK and eventType RAID_MGMT_EVENT_CHANGE_OBJECT,
 *     both 3) the bit of disk k (bit k & 7 of byte k >> 3) and, for k below
 *     256, the latest event record of disk k in apRecords[k]. A change-object
 *     event adds no ring entry.
 *
 * Which record a disk slot keeps: the newest one. When the slot holds a
 * record whose messageId is "PDR3" and the new one's is "PDR5", the old
 * record is released; in every other case (for instance "CTL48" after
 * "PDR4" for the first drive) the old record is dropped from the slot
 * without being released. A change-object event without a record leaves the
 * slot as it is.
 *
 * Storage elements of EID type 7 (RTCACHE_EIDTYPE_PCIESSD): a change-object
 * event sets the disk's bit whatever the key (a key of 600 sets bit 0 of byte
 * 75) and does nothing else: its record is neither stored nor released and
 * stays the caller's.
 *
 * Ownership of event records (RtCacheEventRecord, from rtvox_alloc): once a
 * setter accepts a record (result 0) the cache owns it, except on the type-7
 * path above; a refused call (result 1 or 2) leaves it with the caller. A
 * record the cache drops without releasing (an overwritten ring entry, an
 * overwritten slot other than "PDR3" by "PDR5") is no longer anyone's unless
 * the service kept its own pointer: that is the behaviour the service was
 * written against. A fetch hands both blocks and
 * every record they point to over to the caller. rtcache_FreeMem does not
 * release records still held by the blocks: fetch before rtcache_Destroy.
 *
 * Memory safety (our own rule; within the blocks every rule above holds):
 * nothing is ever written outside the adapter's own blocks, whatever the key.
 *   - A change-object record for a disk key from 256 up has no slot: its bit
 *     is set as for any key below max_physicaldevices, the record is not
 *     stored, and the cache releases it at once (it owns it once the call
 *     succeeds), with a level-2 line "objKey:%d has no record slot, event_data
 *     released". A key at or above max_physicaldevices logs "Error: objKey
 *     is more than MAX_PHYSICALDEVICES" and sets no bit; its record is still
 *     stored when a slot exists (key below 256), else released as above.
 *   - A bit whose byte would lie beyond the 512-byte bitmap area (a type-7
 *     key from 4096 up, or any key when max_physicaldevices is raised beyond
 *     4096) is not set, with a level-2 line "u16Index:[%d] is beyond the
 *     bitmap area, bit not set".
 *   - Before rtcache_Init (or after a failed one) the event tables are
 *     missing: the setters and the purge answer 1 as for an unregistered EID.
 *   - A count word found beyond the depth (only an outside write can do that)
 *     restarts the ring like an overflow.
 *
 * Bitmap print, at level 2 while max_physicaldevices > 7: the first
 * max_physicaldevices / 8 bytes of the bitmap as "%02x " each, in a text of
 * at most 639 characters, logged as "[<tag>] _PD_ChObj Bitmap : 0x<text>"
 * (tag "Cache" for the actual cache, "DCache" for the delayed one). With the
 * default limits that is 64 pieces, "00 " each for an empty bitmap.
 * ========================================================================== */

#ifndef PHYSICALDISK
#define PHYSICALDISK 3u /* objType of a physical disk */
#endif
#ifndef RAID_MGMT_EVENT_CHANGE_OBJECT
#define RAID_MGMT_EVENT_CHANGE_OBJECT 3u /* eventType of a change-object event */
#endif

/* An event record as the cache sees it: the head of a larger record built by
 * the service with rtvox_alloc; the rest belongs to the event submission.
 * Releasing it frees messageId, then pData, then the record. */
typedef struct RTVOX_PACKED RtCacheEventRecord {
    char *messageId;       /* owned, NUL-terminated message id ("PDR3", "CTL48", ...) */
    uint32_t u32Reserved4; /* not touched by the cache */
    void *pData;           /* owned second buffer */
} RtCacheEventRecord;
RTVOX_ASSERT_SIZE(RtCacheEventRecord, 12);
RTVOX_ASSERT_OFFSET(RtCacheEventRecord, u32Reserved4, 4);
RTVOX_ASSERT_OFFSET(RtCacheEventRecord, pData, 8);

/* Records an event without a record: 0; 1 EID not registered ("<-- err3");
 * 2 EID above 254 ("<-- err1"). Call with the lock held. */
uint32_t rtcache_SetCachedEvent(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey);
/* Records an event with its record (event_data may be NULL): results as
 * rtcache_SetCachedEvent; on 0 the cache owns the record. Call with the lock held. */
uint32_t rtcache_SetCachedEvent_roll_up(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey,
                                        void *event_data);
/* The work of both setters, without the EID range check: 0, or 1 when the
 * EID is not registered ("<-- err2"). Call with the lock held. */
uint32_t rtcache_CopyCachedEvent(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey, void *event_data);
/* Takes the adapter's batch under the lock: *ppEvents receives a copy of its
 * 6148-byte event block and *ppChObj a copy of its 1536-byte change-object
 * block (both from rtvox_alloc, the caller frees them and the records they
 * point to); both blocks are emptied in the cache. 0; 1 EID not registered
 * (nothing allocated); 2 ppEvents or ppChObj NULL (a NULL ppChObj is refused
 * before anything is taken); 3 lock failure, or the event copy could not be
 * allocated (nothing changed), or the change-object copy could not be
 * allocated: then *ppEvents is NULL and the events are lost (the cache's
 * event block was already emptied and its records are not released), while
 * the change-object block stays in the cache. That order is kept. */
uint32_t rtcache_GetCachedEvents(uint32_t EID, RtCacheEventBlock **ppEvents, RtCachePdChObjBlock **ppChObj);

/* ============================================================================
 * Delayed events
 *
 * While a controller command is outstanding the service parks events in the
 * adapter's delayed store (cache_Events_delayed[index], a 3076-byte block:
 * count at byte 0, entry n (1-based) at byte 8n - 4 as objType u16, eventType
 * u16, objKey u32; cache_Events_PD_ChObj_delayed[index], a 512-byte bitmap).
 * Delayed events carry no record. The purge merges the store into the actual
 * cache in one critical section, in parking order, and empties it.
 * ========================================================================== */

/* Parks one event. A change-object event sets the disk's bit in the delayed
 * bitmap (none for a key at or above max_physicaldevices; the EID type plays
 * no part) and adds no entry; any other event is appended with objType and
 * eventType cut to 16 bits (the 385th restarts the count at 1, "exceeded the
 * RTCACHE_EVENTCACHE_DEPTH in delayed cache"). 0; 1 EID not registered
 * ("<-- err2"); 2 EID above 254 ("<-- err1"). Call with the lock held. */
uint32_t rtcache_SetDelayedCachedEvent(uint32_t EID, uint32_t objType, uint32_t eventType, uint32_t objKey);
/* ORs the delayed bitmap into the actual one (record slots untouched), zeroes
 * it, then appends the delayed entries to the actual ring in order, widened
 * to 32 bits, leaving each entry's event_data as the slot held it (overflow
 * restarts the ring at 1, traced "Purging older events. u32Count:%d"), and
 * sets the delayed count to 0. dcmdOpcode is only traced. Results and
 * messages as rtcache_SetDelayedCachedEvent ("<-- err2 %d" with the index).
 * Call with the lock held. */
uint32_t rtcache_PurgeDelayedCachedEvents(uint32_t EID, uint32_t dcmdOpcode);

/* ============================================================================
 * Nodes of the physical-disk table and FQDD lookups
 *
 * Every slot of cache_PDs holds a node (RtCachePdNode, 8 bytes, rtvox_alloc):
 * its objType says what it stands for and its enclObj points to the object's
 * cache entry (RtCachePdEntry, 112 bytes, rtvox_alloc):
 *   3    a physical disk: enclType.physicalDisk.Obj is the disk record
 *        (RtPhysicalDisk, from rtraid_dupPD) and the entry carries the values
 *        the controller reports for the drive besides its record;
 *   2    an external enclosure: enclType.extEncl.Obj is the enclosure record,
 *        the four element groups hold its EMMs, fans, power supplies and
 *        temperature probes;
 *   240  a backplane: enclType.backPlane.Obj is the enclosure record.
 * The three union members are one word: the entry's record, whatever the
 * kind. A disk keeps its node and entry across polls: a poll that replaces
 * the record swaps enclType.physicalDisk.Obj and releases the old record with
 * rtcache_FreeRMObjects.
 *
 * The cache entry
 *     word  offset  member                 kinds
 *        0       0  enclType (the record)  all
 *        1       4  u32Service1            the service's, never read here
 *      2-3       8  apEMM[2]               external enclosure (group A)
 *        4      16  u32Service4            the service's
 *     5-12      20  apFan[8]               external enclosure (group B)
 *       13      52  u32Service13           the service's
 *    14-15      56  apPSU[2]               external enclosure (group C)
 *       16      64  u32Service16           the service's
 *    17-24      68  apTempProbe[8]         external enclosure (group D)
 *              100  u16PDStatus            disk: drive status word
 *              102  u8Temp                 disk: temperature, degrees Celsius
 *              103  u8Impedance            disk: impedance code
 *              104  u8EnclType             disk and enclosure: enclosure type
 *              105  u8IsBackplane          enclosure: 1 = a backplane
 *              106  u8Multipath            disk: 1 = reached over several paths
 *              108  u16MultipathPrimary    disk: object key of its primary path
 * Each element group is filled from its first slot on; an empty slot ends
 * the group for the event views.
 *
 * What the cache owns through a node, and the release walks free (node by
 * node, by kind; nothing is read beyond the node's 8 bytes and the entry's
 * 112): the entry's record (as a run of one record, with everything it owns),
 * for an enclosure node (2 or 240) every element record set in the four
 * groups, then the entry and the node. A node of any other objType loses its
 * record, entry and node the same way; a node without an entry only itself.
 * So a cached enclosure is the cache's as much as a cached disk is: store
 * copies (rtraid_dupEnclosure, rtraid_dupEMM, ...) and never free them
 * yourself once stored.
 *
 * The lookups take no lock: call them with the lock held and use the result
 * while you hold it.
 * ========================================================================== */

#define RTCACHE_PDNODE_EXTERNAL 2u     /* EXTERNAL enclosure node */
#define RTCACHE_PDNODE_PHYSICALDISK 3u /* physical-disk node */
#define RTCACHE_PDNODE_BACKPLANE 240u  /* BACKPLANE enclosure node */

#define RTCACHE_ENCL_EMM_SLOTS 2
#define RTCACHE_ENCL_FAN_SLOTS 8
#define RTCACHE_ENCL_PSU_SLOTS 2
#define RTCACHE_ENCL_TEMPPROBE_SLOTS 8

typedef struct RtCachePdEntry {
    union {
        struct {
            RtEnclosure *Obj;
        } extEncl;
        struct {
            RtEnclosure *Obj;
        } backPlane;
        struct {
            RtPhysicalDisk *Obj;
        } physicalDisk;
    } enclType;
    uint32_t u32Service1;
    RtEMM *apEMM[RTCACHE_ENCL_EMM_SLOTS];
    uint32_t u32Service4;
    RtFan *apFan[RTCACHE_ENCL_FAN_SLOTS];
    uint32_t u32Service13;
    RtPSU *apPSU[RTCACHE_ENCL_PSU_SLOTS];
    uint32_t u32Service16;
    RtTempProbe *apTempProbe[RTCACHE_ENCL_TEMPPROBE_SLOTS];
    uint16_t u16PDStatus;
    uint8_t u8Temp;
    uint8_t u8Impedance;
    uint8_t u8EnclType;
    uint8_t u8IsBackplane;
    uint8_t u8Multipath;
    uint8_t u8Reserved107;
    uint16_t u16MultipathPrimary;
    uint8_t au8Reserved110[2];
} RtCachePdEntry;
RTVOX_ASSERT_SIZE(RtCachePdEntry, 112);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, enclType.physicalDisk.Obj, 0);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, apEMM, 8);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, apFan, 20);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, apPSU, 56);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, apTempProbe, 68);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u16PDStatus, 100);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u8Temp, 102);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u8Impedance, 103);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u8EnclType, 104);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u8IsBackplane, 105);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u8Multipath, 106);
RTVOX_ASSERT_OFFSET(RtCachePdEntry, u16MultipathPrimary, 108);

typedef struct RtCachePdNode {
    uint32_t objType;        /* RTCACHE_PDNODE_PHYSICALDISK, _EXTERNAL or _BACKPLANE */
    RtCachePdEntry *enclObj; /* the cache entry, or NULL */
} RtCachePdNode;
RTVOX_ASSERT_SIZE(RtCachePdNode, 8);
RTVOX_ASSERT_OFFSET(RtCachePdNode, enclObj, 4);

/* The adapter record's FQDD of the controller node of the EID (node type 0
 * or 3), owned by the cache, or NULL ("<-- error1" fetch failed, "<-- error2"
 * no node, "<-- error3"/"<-- error4" no adapter record; other node types NULL
 * silently). */
wchar_t *rtcache_GetAdapterFQDD(uint32_t EID);
/* The battery record's FQDD of a node of type 0, owned by the cache, or NULL
 * ("<-- error4" for another node type, "<-- error3" for no battery). */
wchar_t *rtcache_GetBatteryFQDD(uint32_t EID);
/* The enclosure node under key EnclId of the EID's physical-disk table:
 * answers the enclosure record's position byte and stores in *ppFQDD a new
 * copy of its FQDD (rtvox_alloc; the caller frees it), or NULL when the copy
 * could not be allocated. 0 with *ppFQDD untouched when there is no such
 * enclosure or its record has no FQDD. Since 0 is a valid position, tell
 * success by *ppFQDD. A NULL ppFQDD answers 0 ("<-- err null inputs"). */
uint32_t rtcache_GetEnclosureFQDD(uint16_t EID, uint16_t EnclId, wchar_t **ppFQDD);

/* ============================================================================
 * Event views
 *
 * Object kind codes of a synthetic event block (its entries' objType).
 * ========================================================================== */

#define RTCACHE_OBJKIND_CONTROLLER 0u
#define RTCACHE_OBJKIND_ENCLOSURE 2u
#define RTCACHE_OBJKIND_PHYSICALDISK 3u
#define RTCACHE_OBJKIND_VIRTUALDISK 4u
#define RTCACHE_OBJKIND_BATTERY 5u
#define RTCACHE_OBJKIND_EMM 7u          /* enclosure EMMs (group A) */
#define RTCACHE_OBJKIND_ENCL_ELEMENT 8u /* fans, power supplies, temperature probes (groups B, C, D) */

/* One node of the conversion's list, 20 bytes from malloc (not zeroed). */
typedef struct RtCacheEventNode {
    uint32_t objType;   /* kind code */
    uint32_t eventType; /* the conversion's event type */
    uint32_t objKey;    /* 0 */
    void *event_data;   /* never written */
    struct RtCacheEventNode *pNext;
} RtCacheEventNode;
RTVOX_ASSERT_SIZE(RtCacheEventNode, 20);

/* The object keys of the entries of objType among entries 1 to (low 16 bits
 * of) pEvents->u32Count, in order: *pCount receives their number and *ppKeys
 * a new array of exactly that many (rtvox_alloc; the caller frees it). The
 * block must hold as many entries as its count says. event_data is neither
 * read nor released. 0; 2 NULL pEvents, pCount or ppKeys, objType above 9
 * ("<-- warning1"), or an empty block ("<-- warning2"); 3 allocation failure
 * (then *ppKeys is NULL when the final array failed). No lock. */
uint32_t rtcache_GetEventsByObjType(const RtCacheEventBlock *pEvents, uint32_t objType, uint16_t *pCount,
                                    uint32_t **ppKeys);
/* Pushes a node (objType, eventType, 0) at the head of *ppHead and counts it
 * in gRTCache_EventCount; key is not stored. Nothing happens for a NULL
 * ppHead or when malloc fails. No lock. */
void AddNode(RtCacheEventNode **ppHead, uint32_t objType, uint32_t key, uint32_t eventType);

/* Builds a synthetic event block listing every object cached for the EID as
 * if each had just changed, and hands it over in *ppEvents (the caller frees
 * it with rtvox_free). Under the lock only the tables are snapshot; records
 * are then read and changed without it, so no release may run meanwhile.
 *
 * The list, newest first: per virtual disk (keys from 0 up to the first empty
 * slot) kind 4; per physical-disk table node in key order, kind 3 for a disk
 * (whether or not its record is set), kind 2 for an enclosure whose record is set, and for an external enclosure
 * kind 7 per EMM and kind 8 per fan, power supply and temperature probe; then
 * kind 5 for the controller's battery and kind 0 for its adapter record. So
 * the block starts with the battery and adapter when the EID has no disks.
 *
 * For event type 3 the changed objects are marked: bit 17 of the adapter
 * record's word at byte 96 is set, battery bytes 64-71 (state), the disk
 * record's bytes 100-107 (state) and virtual-disk bytes 84-91 are cleared. Enclosure element records
 * have bytes 72-79 cleared whatever the event type.
 *
 * The block: word 0 is gRTCache_EventCount, which counts the nodes of every
 * conversion so far; the list is written from entry n on, n being the number
 * of virtual disks walked, each entry (kind, eventType, 0, an undefined word
 * that is not a record). Other firmware reads it that way and it is kept. The
 * block is zero-filled and sized for max(count, n + list length) entries, so
 * whatever is written lies inside it and the first count entries read as
 * described. The list nodes are not freed (a deliberate leak of 20 bytes per
 * object and call that the service has always lived with).
 *
 * 0; 1 the EID is not registered (after the controller's own nodes were
 * added: no block); 2 NULL ppEvents or EID above 254 ("<-- err null
 * inputs"); 3 lock failure ("<-- err mutex fail"), the snapshot tables or the
 * block could not be allocated ("<-- error malloc fail"). */
uint32_t rtcache_ConvertCacheToEvent(uint32_t EID, uint32_t eventType, RtCacheEventBlock **ppEvents);

/* When "/tmp/rtvox_cache.log" exists, rewrites it with a dump of the cache:
 *     " >>>> Controllers >>>>"
 *     "EID=%d %ls"                     per controller node (adapter FQDD)
 *     " >>>> PDs >>>>"                 then per adapter index i:
 *       "Index=%d DeviceID=%d %ls"     per disk or enclosure with a record
 *       " >>>> VDs >>>>"
 *       "Index=%d TargetID=%d %ls"     per virtual disk
 *       " >>>> PDs >>>>"               before the next adapter index only
 * A missing FQDD prints as "(null)". Reads the live tables without the lock.
 * Answers the non-zero result of the file test when the file is absent, -1
 * when it cannot be opened, else the result of closing it. */
int32_t rtcache_PrintCache(void);

/* ---- PCIe SSD FQDD ------------------------------------------------------------
 *
 * "Disk.Bay.%d:Enclosure.Internal.0-%d:PCIeExtender.Slot.%d" for a global slot
 * (taken modulo 256): the slot within the bay from region 20
 * (RTSHM_readSSDSlotNumFromGblSlotNum), the bay id from the NVMe view with the
 * global slot as slot index (RTSHM_readBayIDInfoFromGblSlotNum, last NVMe bay
 * wins), and the PCIe slot of the extender from the FRU directory in region
 * 15: the first entry of kind 3 whose record's byte 1 is that bay id, 255 when
 * none is. The directory is read 132 bytes at a time into a zero-filled
 * 65668-byte buffer (a size kept as it has always been); entries past the 16
 * read see zeros there.
 *
 * Choice made here where the contract leaves room: the directory walk keeps
 * an 8-bit entry counter, so a directory that announces more than 256 entries
 * would wrap it for ever; the walk stops after entry 255 with a level-2 line
 * "entry count %d passes the 256 entries the walk reaches" instead.
 *
 * A new 60-byte text (rtvox_alloc; the caller frees it with rtvox_free), or
 * NULL: slot not read ("Failed while getting slot"), no bay id ("Failed while
 * getting bayID"), an allocation failed ("Failed to allocate memory", "Failed
 * while constructing FQDD") or a region-15 read failed ("error, SHM read"),
 * all at level 2. Takes no lock. */
char *rtvox_GetPCIeSSDFQDD(uint32_t u32GlobalSlotNumber);

/* ---- polling sleep --------------------------------------------------------- */

/* Sleeps `seconds` up to `count` times, stopping early once `predicate`
 * (called after each sleep, when not NULL) returns 0. */
void rtvox_sleep(uint32_t seconds, uint32_t count, int32_t (*predicate)(void));

/* ---- HBA communication status ---------------------------------------------- */

/* One (controller, status) pair. Controller number 0 marks a free slot; the
 * status values belong to the service and are stored unchanged. */
typedef struct RTVOX_PACKED RtHbaCommStatus {
    uint8_t u8CtrlNum;
    uint8_t u8CommStatus;
} RtHbaCommStatus;
RTVOX_ASSERT_SIZE(RtHbaCommStatus, 2);

#define RTVOX_HBA_TABLE_DECLARED 13 /* room declared for the table */
#define RTVOX_HBA_TABLE_USED 12     /* slots the operations use; the 13th is never touched */

/* Not locked: callers serialise lookups and updates. */
extern RtHbaCommStatus g_rtpil_HBA_Communication_Status[RTVOX_HBA_TABLE_DECLARED];

/* Fills in the status of record->u8CtrlNum: 0, or (uint32_t)-1 when the
 * argument is NULL or the controller has no slot. */
uint32_t rtmpi2_GetHBACommunicationStatus(RtHbaCommStatus *record);
/* Stores a status. The record travels by value, packed into 32 bits as the
 * board's calling convention passes a two-byte record: controller number in
 * the lowest byte, status in the next. 0, or (uint32_t)-1 when all 12 slots
 * belong to other controllers. */
uint32_t rtmpi2_SetHBACommunicationStatus(uint32_t record);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_CACHE_H */

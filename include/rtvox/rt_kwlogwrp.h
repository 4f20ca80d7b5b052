/*
 * rtvox event-log submission: message arguments, friendly names and the
 * submission of storage events to the controller's event log.
 *
 * rt_KWLOGCMNSubmitEvent
 *   Validates its input (count 0..5, msgId and fqdd non-null, args non-null
 *   with every one of its `count` strings non-null unless count is 0,
 *   severity 1..3); any failure traces all four validation lines and answers
 *   2. It then copies the global status under rtsync_mutex and applies two
 *   rules to the status word (statusFlags in the low half, phaseFlags in the
 *   high half):
 *     - inventory phase (bit 22 set): every message but those beginning with
 *       "ENC28", "PDR16" (5 characters compared) or "SSD0001" (7) is dropped
 *       with "No logging KW alert during invenotry phase, suppress it" and
 *       the answer 0;
 *     - past-event processing (bit 5 clear): the event is flagged unless its
 *       id begins with "CTL97", "PDR16", "SSD0001", or with "ENC28" when the
 *       FQDD contains L"NonRAID". A flagged event with argument strings is
 *       dropped and answers -1; one without strings is submitted all the
 *       same (that path never looks at the flag).
 *   When rtsync_mutex cannot be taken no rule applies and the event goes out.
 *   The strings are packed into a 200-byte buffer (QNIPCLBuildMsgArgsBuffer)
 *   and sent as the only TLV (type 6, 16-bit length) of a new list; the FQDD
 *   goes out as at most 99 bytes of multibyte text (NULL when its 101-byte
 *   buffer cannot be had). QNIPCLSubmitEvent gets 4, 2, severity, msgId, 0,
 *   FQDD, list. Answers 0 when submitted or dropped in the inventory phase,
 *   -1 on every other failure; every buffer and list is freed on every path.
 *
 * rt_KWLOGCMNSubmitEvent_nonRaid
 *   Submits msgId alone (4, 1, severity, msgId, 0, NULL, 0) without looking at
 *   the global status. 0, or -1 for a NULL or empty msgId or a failed submit.
 *
 * rt_SubMitSingle
 *   Sends the 16-byte single record below (kind 2, flags 0) and answers the
 *   platform's code unchanged.
 *
 * rt_Buildmsgstring
 *   The friendly name of a wide, plain-ASCII FQDD into the caller's buffer of
 *   bufSize bytes, zero-filled first: 0, or -1 with one of the lines "err1"
 *   (NULL pointer), "err2" (no memory), "err3" (the FQDD does not convert one
 *   byte per character, or has 65535 characters or more), "err4" (the name
 *   does not fit; the buffer is left untouched), "err5" (no friendly name).
 *   Lengths are kept in 16 bits as the event log does; no length, however
 *   long the FQDD or the name, makes the call write past what it allocated
 *   or past bufSize bytes of msgstr.
 */
#ifndef RTVOX_RT_KWLOGWRP_H
#define RTVOX_RT_KWLOGWRP_H

#include <stdint.h>
#include <wchar.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RT_KWLOG_MAX_ARGS 5u          /* argument strings per event */
#define RT_KWLOG_MSGARGS_SIZE 200u    /* the packed-arguments buffer */
#define RT_KWLOG_FQDD_SIZE 101u       /* the multibyte FQDD buffer ... */
#define RT_KWLOG_FQDD_LIMIT 100u      /* ... of which at most this much is written */
#define RT_KWLOG_TLV_MSGARGS 6u       /* TLV type of the packed arguments */
#define RT_KWLOG_CATEGORY 4u          /* first argument of QNIPCLSubmitEvent */
#define RT_KWLOG_SOURCE_RAID 2u       /* second argument, rt_KWLOGCMNSubmitEvent */
#define RT_KWLOG_SOURCE_NONRAID 1u    /* second argument, rt_KWLOGCMNSubmitEvent_nonRaid */
#define RT_KWLOG_SINGLE_KIND 2u       /* QNIPCLSubmitSingle's kind for the record below */
#define RT_KWLOG_SINGLE_PCIESSD 1065u /* the value sent once the PCIe SSD region is set up */

/* The record of rt_SubMitSingle (little-endian, as handed to the platform). */
typedef struct RTVOX_PACKED RtKwlogSingleRecord {
    uint32_t u32Length;     /* 16 */
    uint16_t u16Value;      /* the caller's value */
    uint8_t u8Type;         /* 2 */
    uint8_t u8Reserved;     /* 0 */
    uint32_t u32Reserved8;  /* 0 */
    uint32_t u32Reserved12; /* 0 */
} RtKwlogSingleRecord;
RTVOX_ASSERT_SIZE(RtKwlogSingleRecord, 16);
RTVOX_ASSERT_OFFSET(RtKwlogSingleRecord, u16Value, 4);
RTVOX_ASSERT_OFFSET(RtKwlogSingleRecord, u8Type, 6);
RTVOX_ASSERT_OFFSET(RtKwlogSingleRecord, u8Reserved, 7);
RTVOX_ASSERT_OFFSET(RtKwlogSingleRecord, u32Reserved8, 8);
RTVOX_ASSERT_OFFSET(RtKwlogSingleRecord, u32Reserved12, 12);

/* Submits a storage event; see above. 0 submitted or dropped in the inventory
 * phase, 2 invalid input, -1 any other failure or past-event drop. */
int32_t rt_KWLOGCMNSubmitEvent(uint32_t severity, const char *msgId, const wchar_t *fqdd, char **args, uint8_t count);
/* Submits msgId alone; `first` and `second` are ignored, severity unchecked. 0 or -1. */
int32_t rt_KWLOGCMNSubmitEvent_nonRaid(uint32_t first, uint32_t second, uint32_t severity, const char *msgId);
/* Sends the single record carrying `value`; answers QNIPCLSubmitSingle's code. */
int32_t rt_SubMitSingle(uint16_t value);
/* The friendly name of fqdd into msgstr (bufSize bytes); `first` is ignored. 0 or -1. */
int32_t rt_Buildmsgstring(uint32_t first, const wchar_t *fqdd, char *msgstr, int32_t bufSize);

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_KWLOGWRP_H */

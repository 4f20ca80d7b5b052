// Record copies: deep copies of the fixed-layout records that the controller
// layer hands the service, made for the cache, and the library's text
// trimmer. Layouts and copy rules are documented in rtvox/rt_dup.h.
#define RT_MODULE_FILE "rt_dup.c"

#include "rtvox/rt_dup.h"

#include <bit>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <memory>

#include "trace.h"

namespace {

// A text argument for a trace line that may be absent. glibc prints "(null)"
// for a null %s / %ls by itself; other C libraries would crash on it.
const wchar_t *wtext(const wchar_t *text)
{
    return text != nullptr ? text : L"(null)";
}
const char *ntext(const char *text)
{
    return text != nullptr ? text : "(null)";
}

// rtvox_alloc for `count` elements of type T. A byte size that does not fit
// the allocator's 32-bit argument fails like any other allocation.
template <typename T>
T *alloc_array(uint32_t count)
{
    const uint64_t bytes = uint64_t{count} * sizeof(T);
    if (bytes > UINT32_MAX) {
        return nullptr;
    }
    return static_cast<T *>(rtvox_alloc(static_cast<uint32_t>(bytes)));
}

template <typename T>
T *alloc_record()
{
    return static_cast<T *>(rtvox_alloc(sizeof(T)));
}

// An owned copy of a wide text: (length + 1) characters, the bytes a "%ls"
// format bounded at length + 1 would write (the text and its terminator),
// copied directly since a wide format pass costs several times the copy.
// NULL for a NULL text or a failed allocation, so assigning the result to a
// copied record's field never leaves the source's pointer behind.
wchar_t *dup_wide(const wchar_t *text)
{
    if (text == nullptr) {
        return nullptr;
    }
    const size_t length = std::wcslen(text);
    wchar_t *copy = alloc_array<wchar_t>(static_cast<uint32_t>(length + 1));
    if (copy != nullptr) {
        std::wmemcpy(copy, text, length + 1);
    }
    return copy;
}

// An owned copy of `count` plain 32-bit values, or NULL.
template <typename T>
T *dup_words(const T *words, uint32_t count)
{
    T *copy = alloc_array<T>(count);
    if (copy != nullptr && count != 0) {
        std::memcpy(copy, words, size_t{count} * sizeof(T));
    }
    return copy;
}

struct RtvoxFree {
    void operator()(void *block) const { rtvox_free(block); }
};

// The enclosure elements: block copy, NAME, and hdr.FQDD only for a version
// other than 0. At version 0 the copy keeps the source's FQDD pointer: the two
// records then share one text, which the cache's callers rely on. No traces.
int32_t dup_element(const RtRecord *src, RtRecord *dest)
{
    if (src == nullptr || dest == nullptr) {
        return -1;
    }
    std::memcpy(dest, src, sizeof(*dest));
    dest->NAME = dup_wide(src->NAME);
    if (dest->hdr.VERSION != 0) {
        dest->hdr.FQDD = dup_wide(src->hdr.FQDD);
    }
    return 0;
}

// Battery and driver records own only their name and FQDD; `function` is
// the exported copy the trace lines speak for.
template <typename Record>
Record *dup_named_record(const Record *pSrc, const char *function)
{
    RT_TRACE_LOG_AS(function, 4, "--> %s", function);
    if (pSrc == nullptr) {
        RT_TRACE_LOG_AS(function, 2, "<--error1 %s", function);
        return nullptr;
    }
    auto *copy = alloc_record<Record>();
    if (copy == nullptr) {
        RT_TRACE_LOG_AS(function, 2, "<--error2 %s", function);
        return nullptr;
    }
    std::memcpy(copy, pSrc, sizeof(*copy));
    copy->NAME = dup_wide(pSrc->NAME);
    copy->hdr.FQDD = dup_wide(pSrc->hdr.FQDD);
    RT_TRACE_LOG_AS(function, 4, "<-- %s", function);
    return copy;
}

}  // namespace

extern "C" {

// ---- controller-side records ------------------------------------------------------

RtAdapter *DupAdapter(const RtAdapter *pSrc)
{
    RT_TRACE_LOG(4, "--> %s", __func__);
    if (pSrc == nullptr) {
        RT_TRACE_LOG(2, "<--error1 %s", __func__);
        return nullptr;
    }
    auto *copy = alloc_record<RtAdapter>();
    if (copy == nullptr) {
        RT_TRACE_LOG(2, "<--error2 %s", __func__);
        return nullptr;
    }
    std::memcpy(copy, pSrc, sizeof(*copy));

    copy->NAME = dup_wide(pSrc->NAME);
    copy->hdr.FQDD = dup_wide(pSrc->hdr.FQDD);
    copy->EXTRA = dup_wide(pSrc->EXTRA);
    for (auto i = 0; i < RTRAID_ADAPTER_TEXT_SLOTS; ++i) {
        copy->textSlots[i].pText = dup_wide(pSrc->textSlots[i].pText);
    }

    // One 60-byte entry per set bit of the mask. A source without an array
    // leaves the copy's NULL from the block copy.
    if (pSrc->entryArray != nullptr) {
        const auto count = static_cast<uint32_t>(std::popcount(pSrc->entryMask));
        copy->entryArray = alloc_array<RtAdapterEntry>(count);
        if (copy->entryArray != nullptr && count != 0) {
            std::memcpy(copy->entryArray, pSrc->entryArray, count * sizeof(RtAdapterEntry));
        }
    }

    RT_TRACE_LOG(4, "<-- %s", __func__);
    return copy;
}

int32_t DupPCIeSSDAdapter(const RtPCIeSSDAdapterNames *pSrc, RtAdapter *pDest)
{
    RT_TRACE_LOG(4, "--> %d", __LINE__);
    if (pSrc == nullptr) {
        RT_TRACE_LOG(2, "<--error1 %s", __func__);
        return -1;
    }
    if (pDest == nullptr) {
        RT_TRACE_LOG(2, "<--error2 %s", __func__);
        return -1;
    }
    // The destination's fields are overwritten, not freed: the service passes
    // a fresh record. A failed allocation leaves the field NULL and is still
    // reported as done.
    if (pSrc->pName != nullptr) {
        pDest->NAME = dup_wide(pSrc->pName);
    }
    if (pSrc->pFQDD != nullptr) {
        pDest->hdr.FQDD = dup_wide(pSrc->pFQDD);
    }
    pDest->EXTRA = dup_wide(L"Not Applicable");
    return 0;
}

RtAdapterKey *rtraid_DupAdapterKey(const RtAdapterKey *pSrc)
{
    RT_TRACE_LOG(4, "--> %s", __func__);
    if (pSrc == nullptr) {
        RT_TRACE_LOG(2, "<--error1 %s", __func__);
        return nullptr;
    }
    auto *copy = alloc_record<RtAdapterKey>();
    if (copy == nullptr) {
        RT_TRACE_LOG(2, "<--error2 %s", __func__);
        return nullptr;
    }
    // Plain data: the block copy is the whole copy.
    std::memcpy(copy, pSrc, sizeof(*copy));
    RT_TRACE_LOG(4, "<-- %s", __func__);
    return copy;
}

RtBattery *rtraid_DupBattery(const RtBattery *pSrc)
{
    return dup_named_record(pSrc, __func__);
}

RtDriver *rtraid_DupDriver(const RtDriver *pSrc)
{
    return dup_named_record(pSrc, __func__);
}

void StripLeadingTrailingSpace(char *pBuffer, uint32_t size)
{
    // The entry line announces a hex dump that is not printed; log readers know it so.
    RT_TRACE_LOG(4, "%s", "--> enter, hex dump --");
    if (pBuffer == nullptr || size == 0) {
        RT_TRACE_LOG(2, "%s", "<-- Invalid parameter");
        return;
    }
    std::unique_ptr<unsigned char[], RtvoxFree> scratch(static_cast<unsigned char *>(rtvox_alloc(size)));
    if (scratch == nullptr) {
        RT_TRACE(2, "%s", "<-- rtvox_alloc failed");
        return;
    }
    std::memcpy(scratch.get(), pBuffer, size);
    const auto is_space = [&](uint32_t at) { return std::isspace(scratch[at]) != 0; };

    uint32_t first = 0;
    while (first < size && is_space(first)) {
        ++first;
    }
    if (first == size) {
        pBuffer[0] = '\0';  // the rest of an all-blank buffer stays as it was
        RT_TRACE(4, "%s", "<-- All content are white space");
        return;
    }

    // The trailing scan runs on an 8-bit index: it starts at (size - 1)
    // modulo 256, which is what bounds the supported buffers to 255 bytes.
    auto last = static_cast<uint8_t>(size - 1);
    while (last > 0 && (scratch[last] == 0 || is_space(last))) {
        --last;
    }
    // Nothing found after the first byte: one byte is kept.
    const uint32_t kept = (last > 0 && last >= first) ? uint32_t{last} - first + 1 : 1;

    std::memcpy(pBuffer, scratch.get() + first, kept);
    if (kept < size) {
        std::memset(pBuffer + kept, 0, size - kept);
    }
    // Reported at the error level although it is the normal outcome: kept so.
    RT_TRACE(2, "%s", "Terminated buffer with NULL");
    scratch.reset();
    RT_TRACE(4, "%s", "<-- exit, hex dump printed");
}

// ---- disk and enclosure records -------------------------------------------------------

int32_t rtraid_dupPD(const RtPhysicalDisk *pSrcPD, RtPhysicalDisk *pDestPD)
{
    if (pSrcPD == nullptr || pDestPD == nullptr) {
        return -1;
    }
    RT_TRACE_LOG(4, "Inside DUPd Func %d", __LINE__);
    std::memcpy(pDestPD, pSrcPD, sizeof(*pDestPD));
    pDestPD->NAME = dup_wide(pSrcPD->NAME);

    // With a count of 0 the copy keeps the source's list pointer (shared);
    // the cache's callers rely on that.
    const uint8_t count = pSrcPD->listCount;
    if (count != 0) {
        pDestPD->listEntries = nullptr;
        if (pSrcPD->listEntries != nullptr) {
            pDestPD->listEntries = dup_words(pSrcPD->listEntries, count);
        }
    }

    RT_TRACE_LOG(4, "PCIeSSD hdr.FQDD=%ls NAME=%ls pDestPD->hdr.VERSION=%d", wtext(pSrcPD->hdr.FQDD),
                 wtext(pSrcPD->NAME), static_cast<int>(pDestPD->hdr.VERSION));
    // At version 0 the FQDD text stays shared with the source.
    if (pDestPD->hdr.VERSION != 0) {
        pDestPD->hdr.FQDD = dup_wide(pSrcPD->hdr.FQDD);
    }

    // keyId: a full 256-byte buffer copy, then a zero byte one position past
    // the source text's terminator (written only where it lies inside the buffer).
    pDestPD->keyId = nullptr;
    if (pSrcPD->keyId != nullptr) {
        auto *key = static_cast<char *>(rtvox_alloc(RTRAID_KEYID_SIZE));
        if (key != nullptr) {
            // rtvox_alloc hands the buffer out zeroed and the copy fills all of it.
            std::memcpy(key, pSrcPD->keyId, RTRAID_KEYID_SIZE);
            const size_t past_end = strnlen(pSrcPD->keyId, RTRAID_KEYID_SIZE) + 1;
            if (past_end < RTRAID_KEYID_SIZE) {
                key[past_end] = '\0';
            }
        }
        pDestPD->keyId = key;
    }
    RT_TRACE_LOG(4, "rtraid_dupPD pSrcPD->keyId = %.256s , pDestPD->keyId = %.256s", ntext(pSrcPD->keyId),
                 ntext(pDestPD->keyId));
    return 0;
}

int32_t rtraid_DupVD(const RtVirtualDisk *pSrcVD, RtVirtualDisk *pDestVD)
{
    RT_TRACE_LOG(4, "--> %s", __func__);
    if (pSrcVD == nullptr || pDestVD == nullptr) {
        RT_TRACE_LOG(2, "<--error1 %s", __func__);
        return 0;  // the result carries no status
    }
    std::memcpy(pDestVD, pSrcVD, sizeof(*pDestVD));
    pDestVD->NAME = dup_wide(pSrcVD->NAME);
    pDestVD->hdr.FQDD = dup_wide(pSrcVD->hdr.FQDD);  // whatever the version

    // A count of 0 always ends with no array, even if the source has one.
    pDestVD->targetIDs = nullptr;
    const uint32_t count = pSrcVD->targetCount;
    if (count != 0 && pSrcVD->targetIDs != nullptr) {
        auto *ids = alloc_array<int32_t>(count);
        if (ids != nullptr) {
            RT_TRACE_LOG(4, "VD Size=%lld ", static_cast<long long>(pSrcVD->Size));
            for (uint32_t i = 0; i < count; ++i) {
                ids[i] = pSrcVD->targetIDs[i];
                RT_TRACE_LOG(4, "PD targetID=%d ", static_cast<int>(ids[i]));
            }
        }
        pDestVD->targetIDs = ids;
    }
    RT_TRACE_LOG(4, "<-- %s", __func__);
    return 0;
}

int32_t rtraid_dupEnclosure(const RtEnclosure *pSrc, RtEnclosure *pDest)
{
    if (pSrc == nullptr || pDest == nullptr) {
        return -1;
    }
    std::memcpy(pDest, pSrc, sizeof(*pDest));
    pDest->NAME = dup_wide(pSrc->NAME);
    RT_TRACE_LOG(4, "DUPE-ENCLOSURE After copy NAME=%ls", wtext(pDest->NAME));
    // At version 0 the FQDD text stays shared with the source.
    if (pDest->hdr.VERSION != 0) {
        pDest->hdr.FQDD = dup_wide(pSrc->hdr.FQDD);
    }
    RT_TRACE_LOG(4, "<-- %s", __func__);
    return 0;
}

int32_t rtraid_dupEMM(const RtEMM *pSrc, RtEMM *pDest)
{
    return dup_element(pSrc, pDest);
}

int32_t rtraid_dupFAN(const RtFan *pSrc, RtFan *pDest)
{
    return dup_element(pSrc, pDest);
}

int32_t rtraid_dupPSU(const RtPSU *pSrc, RtPSU *pDest)
{
    return dup_element(pSrc, pDest);
}

int32_t rtraid_dupTEMPPROBE(const RtTempProbe *pSrc, RtTempProbe *pDest)
{
    return dup_element(pSrc, pDest);
}

// ---- foreign configuration ----------------------------------------------------------------

// The embedded disk records get their own NAME (and each virtual disk its own
// target ids), but keep the source's hdr.FQDD, keyId and listEntries
// pointers: this copy is shallower than the cache's disk copies on purpose,
// and the service that frees it relies on exactly this split.
RtForeignConfig *DupForeign_Config(const RtForeignConfig *pSrc)
{
    RT_TRACE_LOG(4, "--> %s", __func__);
    if (pSrc == nullptr) {
        RT_TRACE_LOG(2, "<--error1 %s", __func__);
        return nullptr;
    }
    auto *copy = alloc_record<RtForeignConfig>();
    if (copy == nullptr) {
        RT_TRACE(2, "<--error2 %s", __func__);
        return nullptr;
    }
    std::memcpy(copy, pSrc, sizeof(*copy));

    // With a count of 0 the copy keeps the source's list pointer.
    const uint32_t numVDs = pSrc->numVDs;
    if (numVDs != 0) {
        copy->vdList = pSrc->vdList != nullptr ? alloc_array<RtVirtualDisk>(numVDs) : nullptr;
        if (copy->vdList == nullptr) {
            copy->numVDs = 0;  // the list is emptied, the copy still succeeds
            RT_TRACE(2, "<--error3 %s", __func__);
        } else {
            std::memcpy(copy->vdList, pSrc->vdList, size_t{numVDs} * sizeof(RtVirtualDisk));
            for (uint32_t i = 0; i < numVDs; ++i) {
                const RtVirtualDisk &from = pSrc->vdList[i];
                RtVirtualDisk &to = copy->vdList[i];
                to.NAME = dup_wide(from.NAME);
                if (from.NAME != nullptr) {
                    RT_TRACE(4, "%s", "Copied VD Name");
                }
                to.targetIDs = nullptr;
                if (from.targetIDs != nullptr) {
                    to.targetIDs = dup_words(from.targetIDs, from.targetCount);
                    if (to.targetIDs != nullptr) {
                        RT_TRACE(4, "%s", "Copied pds");
                    } else {
                        to.targetCount = 0;
                        RT_TRACE(2, "<--error4 %s", __func__);
                    }
                }
            }
        }
    }

    const uint32_t numPDs = pSrc->numPDs;
    if (numPDs != 0) {
        copy->pdList = pSrc->pdList != nullptr ? alloc_array<RtPhysicalDisk>(numPDs) : nullptr;
        if (copy->pdList == nullptr) {
            copy->numPDs = 0;
            RT_TRACE(2, "<--error5 %s", __func__);
        } else {
            std::memcpy(copy->pdList, pSrc->pdList, size_t{numPDs} * sizeof(RtPhysicalDisk));
            for (uint32_t i = 0; i < numPDs; ++i) {
                const RtPhysicalDisk &from = pSrc->pdList[i];
                RtPhysicalDisk &to = copy->pdList[i];
                to.NAME = dup_wide(from.NAME);
                if (from.NAME != nullptr) {
                    RT_TRACE(4, "%s", "Copied PD Name");
                }
                RT_TRACE_LOG(4, "id:%3d Size:%llu,Stae:%llu,Slot: %d ,Hotspare:%d,Name: %ls", static_cast<int>(from.id),
                             static_cast<unsigned long long>(from.Size), static_cast<unsigned long long>(from.state),
                             from.Slot, from.Hotspare, wtext(from.NAME));
            }
        }
    }

    RT_TRACE(4, "<-- %s", __func__);
    return copy;
}

}  // extern "C"

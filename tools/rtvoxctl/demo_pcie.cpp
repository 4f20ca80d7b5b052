// Demo step for PCIe SSDs: region 26 is reset and announced to the event
// log, the simulation fills regions 20 and 26 from the two files it reads,
// global slots are mapped to bays and given their FQDDs, the presence
// sequence and the backplane firmware versions are read, a drive status word
// is updated, FRU and temperature records are stored, a PCIe SSD is located
// over IPMI, and the inspector decodes regions 20 and 26.
#include <cstdint>
#include <cstdio>
#include <string>

#include "demo.h"
#include "rtvox/rt_cache.h"
#include "rtvox/rt_shm.h"
#include "rtvox/rtvox.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {

namespace {

constexpr uint8_t kSlots = 4;
constexpr uint8_t kBay = 1;

std::string hex(const uint8_t *bytes, uint32_t length)
{
    std::string text;
    char two[4];
    for (uint32_t i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, i == 0 ? "%02x" : " %02x", bytes[i]);
        text += two;
    }
    return text;
}

std::string region(uint32_t id, uint32_t offset, uint32_t length)
{
    return hex(vornhost_shm_bytes(id) + offset, length);
}

uint32_t writes()
{
    return vornhost_call_count(VORNHOST_Vorn_shm_memwrite);
}

// What the PCIe SSD backplane inventory would have published: four slots of
// bay 1, the first three occupied.
void announce_slots(uint8_t sequence)
{
    uint8_t *r20 = vornhost_shm_bytes(RTSHM_PCIESSD_BP_REGION);
    r20[2] = kSlots;
    r20[6] = sequence;
    for (uint8_t g = 0; g < kSlots; ++g) {
        uint8_t *entry = r20 + 14 + 4 * g;
        entry[0] = kBay;
        entry[1] = g;
        entry[2] = 4;  // a backplane that carries PCIe SSDs
        entry[3] = g < 3 ? 1 : 0;
    }
}

void show_fru_records(Demo &demo, std::initializer_list<uint32_t> offsets)
{
    demo.say("region 26 counter (byte 0): 0x%02x", vornhost_shm_bytes(RTSHM_PCIESSD_FRU_REGION)[0]);
    for (uint32_t offset : offsets) {
        demo.say("  record at %5u: slot/present/temp/bay %s, FRU %s ...", offset,
                 region(RTSHM_PCIESSD_FRU_REGION, offset, 4).c_str(),
                 region(RTSHM_PCIESSD_FRU_REGION, offset + 4, 12).c_str());
    }
}

void show_ipmi(Demo &demo, uint32_t index, uint32_t result)
{
    VornHostIpmiRequest request{};
    if (vornhost_ipmi_get(index, &request) == 0) {
        demo.say("answered %u; netFn 0x%02x cmd 0x%02x, %u bytes: %s", result, request.netFn, request.cmd,
                 request.length, hex(request.data, request.length).c_str());
    }
}

// The FRU directory of region 15 as the extender inventory would leave it:
// one PCIe SSD bay record, of bay 0 (the bay behind the extender in PCIe
// slot 3 in the backplane step), its 4-byte record at offset 64.
void plant_directory()
{
    uint8_t *dir = vornhost_shm_bytes(RTSHM_PCIESSD_FRUDIR_REGION);
    dir[2] = 1;                               // entry count
    dir[4] = 3;                               // entry 0: PCIe slot of the extender
    dir[5] = RTSHM_PCIESSD_FRUDIR_BAY_ENTRY;  // entry 0: a bay record
    dir[8] = 64;                              // entry 0: its record's offset
    dir[64 + 1] = 0;                          // the record's bay id
}

void slot_mapping(Demo &demo)
{
    demo.section("PCIe SSDs: global slots mapped to bays (region 20, the NVMe view) and their FQDDs");
    plant_directory();
    demo.say("the NVMe view of the backplane step: slots 0 and 1 of bay 0 and slot 0 of bay 1 are NVMe slots;");
    demo.say("region 15 lists one bay record: bay 0 behind the extender in PCIe slot 3");
    for (uint32_t g = 0; g < 3; ++g) {
        uint8_t bay = 0, slot = 0, viewBay = 0xFF;
        RTSHM_readPCIeSSDBayIDInfoFromGblSlotNum(&bay, g);
        RTSHM_readSSDSlotNumFromGblSlotNum(&slot, static_cast<int32_t>(g));
        const uint32_t found = RTSHM_readBayIDInfoFromGblSlotNum(&viewBay, g);
        vornhost_trace_clear();
        char *fqdd = rtvox_GetPCIeSSDFQDD(g);
        demo.say("global slot %u: region 20 says bay %u slot %u; the NVMe view's last NVMe bay for slot %u: %s", g, bay,
                 slot, g, found == 0 ? std::to_string(viewBay).c_str() : "none");
        demo.say("  FQDD %s", fqdd != nullptr ? fqdd : "(none)");
        rtvox_free(fqdd);
        demo.traces();
    }
    uint8_t base = 0;
    const uint32_t rc = RTSHM_GetPCIeSSDGlobalSlotNumberBase(&base);
    vornhost_trace_clear();
    demo.say("RTSHM_GetPCIeSSDGlobalSlotNumberBase answered %u: the first NVMe slot is slot %u of its bay", rc, base);

    demo.section("PCIe SSDs: the presence sequence and the backplane firmware versions");
    RtShmPcieSsdBp bp{};
    const uint32_t first = RTSHM_ReadPCIeSSDPresenceSharedMem(&bp);
    const uint32_t second = RTSHM_ReadPCIeSSDPresenceSharedMem(&bp);
    vornhost_shm_bytes(RTSHM_PCIESSD_BP_REGION)[6] = 2;
    const uint32_t third = RTSHM_ReadPCIeSSDPresenceSharedMem(&bp);
    demo.say("presence reads at sequence 1, 1 again, then 2 answer %u, %u, %u (5 = no change)", first, second, third);
    for (uint32_t b = 0; b < 4; ++b) {
        char version[RTSHM_PCIESSD_FW_REV_SIZE + 1] = {};
        const uint32_t result = RTSHM_ReadBpFwVersion(b, version);
        demo.say("RTSHM_ReadBpFwVersion(%u) answered %u: \"%s\"", b, result, version);
    }
    demo.traces();
}

}  // namespace

void demo_pcie(Demo &demo)
{
    demo.section("PCIe SSDs: region 26 is reset and the event log told so (single message 1065)");
    uint32_t rc = RTSHM_InitPCIeSSDSharedMem();
    VornHostSingle single{};
    vornhost_single_get(vornhost_single_count() - 1, &single);
    demo.say("RTSHM_InitPCIeSSDSharedMem answered %u; region 26 begins %s; single record sent: %s", rc,
             region(RTSHM_PCIESSD_FRU_REGION, 0, 8).c_str(), hex(single.bytes, single.length).c_str());
    demo.traces();

    demo.section("PCIe SSDs: the simulation fills regions 20 and 26 from /tmp/ssdstatus.txt and /tmp/ssdfru.bin");
    announce_slots(1);
    demo.touch("/tmp/ssdstatus.txt", "8\n");
    demo.touch("/tmp/ssdfru.bin", "PCIeSSD DEMO FRU");  // 16 bytes: the rest of the image reads 0
    demo.say("region 20 announces %u slots of bay %u, presence sequence 1; status file \"8\", FRU file 16 bytes",
             kSlots, kBay);
    uint32_t before = writes();
    RTSHM_PCIeSSDSimulate();
    demo.traces();
    demo.say("%u region writes; drive-status area (offset 142): %s ...", writes() - before,
             region(RTSHM_PCIESSD_BP_REGION, 142, 20).c_str());
    demo.say("drive-status counter (byte 10): 0x%02x", vornhost_shm_bytes(RTSHM_PCIESSD_BP_REGION)[10]);
    show_fru_records(demo, {4, 264, 1044});

    before = writes();
    RTSHM_PCIeSSDSimulate();
    vornhost_trace_clear();
    demo.say("a second run with unchanged inputs makes %u region writes", writes() - before);

    slot_mapping(demo);

    demo.section("PCIe SSDs: one drive status word is updated and read back");
    updatePciessdDriveStatusToShm(0x0021, 1);
    uint16_t status = 0;
    RTSHM_readPciessdDriveStatusFromShm(&status, 1);
    demo.traces();
    demo.say("slot 1 now reads 0x%04x (its entry at 146: %s); counter 0x%02x", status,
             region(RTSHM_PCIESSD_BP_REGION, 146, 4).c_str(), vornhost_shm_bytes(RTSHM_PCIESSD_BP_REGION)[10]);

    demo.section("PCIe SSDs: FRU and temperature records");
    uint8_t fru[RTSHM_PCIESSD_FRU_BYTES] = {};
    const std::string text = "SSD-FRU bay 1 slot 0";
    text.copy(reinterpret_cast<char *>(fru), text.size());
    RTSHM_StoreFRU(RTSHM_PCIESSD_TYPE_BAY, 0, 0, kBay, fru, 0x11, 35);
    RTSHM_StoreFRUTemp(RTSHM_PCIESSD_TYPE_BAY, 0, 38, 0x12);
    RTSHM_StoreFRU_Pelko(RTSHM_PCIESSD_TYPE_BAY, 1, 5, fru, 0x13, 30);  // the card table, whatever the type
    RTSHM_ClearFRU(RTSHM_PCIESSD_TYPE_BAY, 2, 0x14);
    RTSHM_StoreFRUTemp(RTSHM_PCIESSD_TYPE_BAY, RTSHM_PCIESSD_INDEX_NONE, 40, 0x15);  // refused
    demo.traces();
    demo.say("bay record 0 stored then its temperature set to 38; card record 1 from the _Pelko store;");
    demo.say("bay record 2 cleared; index 255 refused without touching the counter");
    show_fru_records(demo, {4, 524, 8584});

    demo.section("PCIe SSDs: locate over IPMI");
    rc = BlinkPCIeSSD(kBay, 2);
    demo.traces();
    show_ipmi(demo, 0, rc);
    rc = UnBlinkPCIeSSD(kBay, 2, 0x0021);
    demo.traces();
    show_ipmi(demo, 1, rc);
    vornhost_ipmi_set_result(0x0105, nullptr, 0, 1);
    rc = BlinkPCIeSSD(kBay, 2);
    demo.say("with an IPMI status of 0x0105 (low 8 bits not 0) the blink answers %u", rc);
    demo.traces();
    demo.say("the requests' hex dumps are in the diagnostic log shown at the stop");

    demo.section("PCIe SSDs: regions 20 and 26 as `rtvoxctl shm` decodes them");
    show_region(demo, RTSHM_PCIESSD_BP_REGION);
    show_region(demo, RTSHM_PCIESSD_FRU_REGION);
}

}  // namespace rtvoxctl

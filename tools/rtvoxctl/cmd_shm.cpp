// rtvoxctl shm: decodes the shared-memory regions that a process using the
// host platform in POSIX mode (VORN_SHM_MODE=posix) has published, reading
// the POSIX objects directly as the firmware's other processes read the
// regions. Run it with the publisher's VORN_SHM_PREFIX.
//
// Each region has one decoder, registered in kDecoders: it turns the
// region's bytes into a JSON object whose members are tables ({"count",
// "entries", ...}) or plain values. Text and --json output are both made
// from that object, so a new region only needs its decoder and a line in
// the table. In region 3, values with every bit set (-1, 0xFF, 0xFFFF,
// 0xFFFFFFFF) mean "not reported" and show as "none" (null in JSON); so do
// the fields of the PCIe SSD tables, where 0xFF marks a cleared record.
// Byte areas (the SPLIT-mode bytes, FRU images) are hex strings; a table
// shows the first 16 bytes of an FRU image, --json all 256. Region 26 lists
// only the records ever written, each with its record number.
#include "cmd_shm.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "rtvox/rt_shm.h"
#include "sim_regions.h"
#include "vornhost/vornhost.h"

namespace rtvoxctl {
namespace {

using Json = nlohmann::ordered_json;
using Bytes = std::vector<uint8_t>;

// ---- reading fields --------------------------------------------------------------

uint64_t le(const Bytes &bytes, size_t offset, size_t width)
{
    uint64_t value = 0;
    for (size_t i = width; i-- > 0;) {
        value = value << 8 | bytes.at(offset + i);
    }
    return value;
}

// A field's value, null when every bit of it is set.
Json value(const Bytes &bytes, size_t offset, size_t width)
{
    const uint64_t v = le(bytes, offset, width);
    const uint64_t none = width == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * width)) - 1;
    return v == none ? Json(nullptr) : Json(v);
}

// `length` bytes at `offset` as hex pairs separated by blanks.
std::string hex(const Bytes &bytes, size_t offset, size_t length)
{
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return sim::hex_bytes({first, first + static_cast<std::ptrdiff_t>(length)});
}

// One column of a table: `width`-byte elements at `offset` of the table (of
// each record, in a table of records). Columns wider than 8 bytes are byte
// areas, shown as hex.
struct Column {
    const char *name;
    size_t offset;
    size_t width;
};

Json element(const Bytes &bytes, size_t offset, const Column &column)
{
    return column.width > 8 ? Json(hex(bytes, offset, column.width)) : value(bytes, offset, column.width);
}

#define RTVOXCTL_COLUMN(Table, field)                            \
    Column                                                       \
    {                                                            \
#field, offsetof(Table, field), sizeof(Table{}.field[0]) \
    }

// Entry i of a table at `base`: its columns' elements. In a table of arrays
// (stride 0) element i of a column is `width` bytes further on; in a table of
// records it is in record i, `stride` bytes further on.
Json entry(const Bytes &bytes, size_t base, size_t stride, uint32_t i, std::initializer_list<Column> columns)
{
    Json out = Json::object();
    for (const Column &column : columns) {
        out[column.name] = element(bytes, base + column.offset + i * (stride != 0 ? stride : column.width), column);
    }
    return out;
}

// The first `count` entries of a table (never more than it holds, none for a
// count below 1), under "count" as given.
Json table(const Bytes &bytes, size_t base, const Json &count, uint32_t capacity, size_t stride,
           std::initializer_list<Column> columns)
{
    Json out = Json::object();
    out["count"] = count;
    out["entries"] = Json::array();
    const int64_t n = count.is_number() ? count.get<int64_t>() : 0;
    const uint32_t shown = n > 0 ? static_cast<uint32_t>(std::min<int64_t>(n, capacity)) : 0;
    for (uint32_t i = 0; i < shown; ++i) {
        out["entries"].push_back(entry(bytes, base, stride, i, columns));
    }
    return out;
}

// A table of arrays at `base` of region 3: its signed 32-bit count, then the arrays.
Json table(const Bytes &bytes, size_t base, uint32_t capacity, std::initializer_list<Column> columns)
{
    const auto count = static_cast<int32_t>(le(bytes, base, 4));
    return table(bytes, base, count == -1 ? Json(nullptr) : Json(count), capacity, 0, columns);
}

// The records of a table of `capacity` records that were ever written: a
// record of one byte value throughout (as the region is created or
// initialised) is left out. Each entry names its record.
Json written_records(const Bytes &bytes, size_t base, uint32_t capacity, size_t stride,
                     std::initializer_list<Column> columns)
{
    Json out = Json::object();
    out["written"] = 0;
    out["entries"] = Json::array();
    for (uint32_t i = 0; i < capacity; ++i) {
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(base + i * stride);
        const auto last = first + static_cast<std::ptrdiff_t>(stride);
        if (std::all_of(first, last, [&](uint8_t b) { return b == *first; })) {
            continue;
        }
        Json record = Json::object();
        record["record"] = i;
        record.update(entry(bytes, base, stride, i, columns));
        out["entries"].push_back(std::move(record));
    }
    out["written"] = out["entries"].size();
    return out;
}

// ---- the decoders ---------------------------------------------------------------------

Json decode_inventory(const Bytes &bytes)
{
    Json out = Json::object();
    out["controllers"] = table(
        bytes, RTSHM_TAVO_INVENTORY_OFFSET, RTSHM_MAX_CONTROLLERS,
        {RTVOXCTL_COLUMN(sVOXTavoInventory, au8PCISlot), RTVOXCTL_COLUMN(sVOXTavoInventory, au32Temp),
         RTVOXCTL_COLUMN(sVOXTavoInventory, au32BatteryTemp), RTVOXCTL_COLUMN(sVOXTavoInventory, au32PCIVendorID),
         RTVOXCTL_COLUMN(sVOXTavoInventory, au32PCIDeviceID), RTVOXCTL_COLUMN(sVOXTavoInventory, au32PCISubVendorID),
         RTVOXCTL_COLUMN(sVOXTavoInventory, au32PCISubDeviceID), RTVOXCTL_COLUMN(sVOXTavoInventory, au8CardLocation),
         RTVOXCTL_COLUMN(sVOXTavoInventory, au8CtrlKind), RTVOXCTL_COLUMN(sVOXTavoInventory, au8AdapterFlag),
         RTVOXCTL_COLUMN(sVOXTavoInventory, thermalPDPollDisable), RTVOXCTL_COLUMN(sVOXTavoInventory, au64CtrlAddress1),
         RTVOXCTL_COLUMN(sVOXTavoInventory, au64CtrlAddress2)});
    out["drives"] = table(
        bytes, RTSHM_SASSATA_INVENTORY_OFFSET, RTSHM_MAX_DRIVES,
        {RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8DriveBayID),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8DriveOccupiedSlot),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8DriveProtocolType),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8DriveMediaType),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8DriveFormFactor), RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8Temp),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au32NominalRPM), RTVOXCTL_COLUMN(sVOXSASSATAInventory, pdShmStatus),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au16DriveCapacity),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8DriveImpendance),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8ChassisSlot),
         RTVOXCTL_COLUMN(sVOXSASSATAInventory, au8EnclosureTyoe)});
    out["batteries"] = table(
        bytes, RTSHM_BATTERY_INVENTORY_OFFSET, RTSHM_MAX_BATTERIES,
        {RTVOXCTL_COLUMN(sVOXTAVOBatteryInventory, au8Slot), RTVOXCTL_COLUMN(sVOXTAVOBatteryInventory, au8State)});
    out["batteries"]["rtvox_inventory"] =
        value(bytes, RTSHM_BATTERY_INVENTORY_OFFSET + offsetof(sVOXTAVOBatteryInventory, rtvox_inventory), 4);
    return out;
}

Json decode_drive_polling(const Bytes &bytes)
{
    Json out = Json::object();
    out["u8DisableDrivePolling"] = bytes.at(VOX_TAVO_DRIVE_POLLING_OFFSET) & RTSHM_DRIVE_POLLING_DISABLED;
    return out;
}

#define RTVOXCTL_FIELD(Record, field)                           \
    Column                                                      \
    {                                                           \
#field, offsetof(Record, field), sizeof(Record{}.field) \
    }

// Region 20: the counters, the slot table and the drive-status area for the
// slots described, and the SPLIT-mode bytes.
Json decode_pciessd_bp(const Bytes &bytes)
{
    const size_t slots = offsetof(RtShmPcieSsdBp, asSlot);
    const size_t status = offsetof(RtShmPcieSsdBp, asDriveStatus);
    Json out = Json::object();
    const uint8_t count = bytes.at(offsetof(RtShmPcieSsdBp, u8SlotCount));
    out["u8PresenceSeq"] = bytes.at(offsetof(RtShmPcieSsdBp, u8PresenceSeq));
    out["u8StatusCounter"] = bytes.at(offsetof(RtShmPcieSsdBp, u8StatusCounter));
    out["asSlot"] =
        table(bytes, slots, count, RTSHM_PCIESSD_SLOTS, sizeof(RtShmPcieSsdSlot),
              {RTVOXCTL_FIELD(RtShmPcieSsdSlot, u8BayID), RTVOXCTL_FIELD(RtShmPcieSsdSlot, u8SlotNumInBay),
               RTVOXCTL_FIELD(RtShmPcieSsdSlot, u8BPType), RTVOXCTL_FIELD(RtShmPcieSsdSlot, u8DrivePresence)});
    out["asDriveStatus"] = table(
        bytes, status, count, RTSHM_PCIESSD_SLOTS, sizeof(RtShmPcieSsdDriveStatus),
        {RTVOXCTL_FIELD(RtShmPcieSsdDriveStatus, u8BayID), RTVOXCTL_FIELD(RtShmPcieSsdDriveStatus, u8SlotNumInBay),
         RTVOXCTL_FIELD(RtShmPcieSsdDriveStatus, u16DriveStatus)});
    out["au8SplitMode"] = hex(bytes, offsetof(RtShmPcieSsdBp, au8SplitMode), RTSHM_PCIESSD_SPLIT_MODE_SIZE);
    return out;
}

// Region 26: the FRU counter and the bay and card records ever written.
Json decode_pciessd_fru(const Bytes &bytes)
{
    const std::initializer_list<Column> columns = {
        RTVOXCTL_FIELD(RtShmPcieSsdFruRecord, u8Slot), RTVOXCTL_FIELD(RtShmPcieSsdFruRecord, u8Present),
        RTVOXCTL_FIELD(RtShmPcieSsdFruRecord, u8Temp), RTVOXCTL_FIELD(RtShmPcieSsdFruRecord, u8Bay),
        RTVOXCTL_FIELD(RtShmPcieSsdFruRecord, au8FRU)};
    Json out = Json::object();
    out["u8FRUCounter"] = bytes.at(offsetof(RtShmPcieSsdFru, u8FRUCounter));
    out["asBay"] = written_records(bytes, offsetof(RtShmPcieSsdFru, asBay), RTSHM_PCIESSD_FRU_BAY_RECORDS,
                                   sizeof(RtShmPcieSsdFruRecord), columns);
    out["asCard"] = written_records(bytes, offsetof(RtShmPcieSsdFru, asCard), RTSHM_PCIESSD_FRU_CARD_RECORDS,
                                    sizeof(RtShmPcieSsdFruRecord), columns);
    return out;
}

// Region 15: the directory's entries as counted (at most the 16 the library
// reads), each with the bay id its record holds (byte 1 of the record).
Json decode_fru_directory(const Bytes &bytes)
{
    const size_t base = offsetof(RtShmPcieSsdFruDir, asEntry);
    Json out = Json::object();
    out["asEntry"] =
        table(bytes, base, Json(le(bytes, offsetof(RtShmPcieSsdFruDir, u16Count), 2)),
              sizeof(RtShmPcieSsdFruDir{}.asEntry) / sizeof(RtShmPcieSsdFruDirEntry), sizeof(RtShmPcieSsdFruDirEntry),
              {RTVOXCTL_FIELD(RtShmPcieSsdFruDirEntry, u8PCIeSlotNo), RTVOXCTL_FIELD(RtShmPcieSsdFruDirEntry, u8Kind),
               RTVOXCTL_FIELD(RtShmPcieSsdFruDirEntry, u16RecordOffset)});
    for (Json &e : out["asEntry"]["entries"]) {
        const size_t at = e["u16RecordOffset"].is_number() ? e["u16RecordOffset"].get<size_t>() + 1 : bytes.size();
        e["recordBayId"] = at < bytes.size() ? Json(bytes[at]) : Json(nullptr);
    }
    return out;
}

struct Decoder {
    uint32_t id;
    const char *title;
    Json (*decode)(const Bytes &bytes);
};

// One line per region the inspector knows, in the order it shows them.
constexpr Decoder kDecoders[] = {
    {RTSHM_REGION_INVENTORY, "storage inventory", decode_inventory},
    {RTSHM_REGION_DRIVE_POLLING, "drive polling", decode_drive_polling},
    {RTSHM_PCIESSD_BP_REGION, "PCIe SSD slots and drive status", decode_pciessd_bp},
    {RTSHM_PCIESSD_FRU_REGION, "PCIe SSD FRU and temperature records", decode_pciessd_fru},
    {RTSHM_PCIESSD_FRUDIR_REGION, "PCIe extender FRU directory", decode_fru_directory},
};

const Decoder *find_decoder(uint32_t id)
{
    for (const Decoder &decoder : kDecoders) {
        if (decoder.id == id) {
            return &decoder;
        }
    }
    return nullptr;
}

// ---- text output -------------------------------------------------------------------------

std::string cell(const std::string &column, const Json &v)
{
    if (v.is_null()) {
        return "none";
    }
    if (v.is_string()) {  // hex bytes: a table shows the first 16 of a longer area
        const std::string text = v.get<std::string>();
        constexpr size_t kShown = 16 * 3 - 1;
        return text.size() > kShown ? text.substr(0, kShown) + " ..." : text;
    }
    if (column.rfind("au64", 0) == 0) {  // addresses read best in hex
        char hex[24];
        std::snprintf(hex, sizeof hex, "0x%016llx", static_cast<unsigned long long>(v.get<uint64_t>()));
        return hex;
    }
    return v.dump();
}

void print_table(FILE *out, const std::string &name, const Json &t)
{
    std::string head = "  " + name + ":";
    for (const auto &[key, v] : t.items()) {
        if (key != "entries") {
            head += " " + key + " " + cell(key, v);
        }
    }
    std::fprintf(out, "%s\n", head.c_str());
    const Json &entries = t["entries"];
    if (entries.empty()) {
        return;
    }
    // Entries that name their record need no running number.
    const bool numbered = !entries.front().contains("record");
    std::vector<std::string> columns;
    if (numbered) {
        columns.emplace_back("#");
    }
    for (const auto &[key, v] : entries.front().items()) {
        columns.push_back(key);
    }
    std::vector<std::vector<std::string>> rows{columns};
    for (size_t i = 0; i < entries.size(); ++i) {
        std::vector<std::string> row;
        if (numbered) {
            row.push_back(std::to_string(i));
        }
        for (size_t c = row.size(); c < columns.size(); ++c) {
            row.push_back(cell(columns[c], entries[i][columns[c]]));
        }
        rows.push_back(std::move(row));
    }
    std::vector<size_t> widths(columns.size(), 0);
    for (const auto &row : rows) {
        for (size_t c = 0; c < row.size(); ++c) {
            widths[c] = std::max(widths[c], row[c].size());
        }
    }
    for (const auto &row : rows) {
        std::string line = "   ";
        for (size_t c = 0; c < row.size(); ++c) {
            line += " " + std::string(widths[c] - row[c].size(), ' ') + row[c];
        }
        std::fprintf(out, "%s\n", line.c_str());
    }
}

void print_decoded(FILE *out, const Decoder &decoder, const Json &decoded)
{
    std::fprintf(out, "region %u: %s\n", decoder.id, decoder.title);
    for (const auto &[key, v] : decoded.items()) {
        if (v.is_object() && v.contains("entries")) {
            print_table(out, key, v);
        } else {
            std::fprintf(out, "  %s %s\n", key.c_str(),
                         v.is_string() ? v.get<std::string>().c_str() : cell(key, v).c_str());
        }
    }
}

// ---- reading the regions -------------------------------------------------------------------

// The bytes of a region from its POSIX object, or a message saying why not.
bool read_region(uint32_t id, Bytes &bytes, std::string &error)
{
    char name[256];
    if (vornhost_shm_object_name(id, name, sizeof name) != VORNHOST_OK) {
        error = "region " + std::to_string(id) + ": no such region on this platform";
        return false;
    }
    const int fd = ::shm_open(name, O_RDONLY, 0);
    if (fd < 0) {
        error = "region " + std::to_string(id) + ": " + name + " does not exist (" + std::strerror(errno) +
                "); publish it with VORN_SHM_MODE=posix and the same VORN_SHM_PREFIX";
        return false;
    }
    const uint32_t expected = vornhost_shm_size(id);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || st.st_size != static_cast<off_t>(expected)) {
        error = "region " + std::to_string(id) + ": " + name + " has " + std::to_string(st.st_size) +
                " bytes, the region has " + std::to_string(expected);
        ::close(fd);
        return false;
    }
    bytes.assign(expected, 0);
    const ssize_t got = ::pread(fd, bytes.data(), expected, 0);
    ::close(fd);
    if (got != static_cast<ssize_t>(expected)) {
        error = "region " + std::to_string(id) + ": " + name + " could not be read";
        return false;
    }
    return true;
}

std::string region_list()
{
    std::string list = "regions:";
    for (const Decoder &decoder : kDecoders) {
        list += " " + std::to_string(decoder.id) + " (" + decoder.title + ")";
    }
    return list;
}

}  // namespace

bool print_region(FILE *out, uint32_t id, const std::vector<uint8_t> &bytes)
{
    const Decoder *decoder = find_decoder(id);
    if (decoder == nullptr || bytes.size() != vornhost_shm_size(id)) {
        return false;
    }
    print_decoded(out, *decoder, decoder->decode(bytes));
    return true;
}

static int run_shm(bool json, const Decoder *only)
{
    int status = 0;
    Json document = Json::object();
    for (const Decoder &decoder : kDecoders) {
        if (only != nullptr && only != &decoder) {
            continue;
        }
        Bytes bytes;
        std::string error;
        if (!read_region(decoder.id, bytes, error)) {
            std::fprintf(stderr, "rtvoxctl shm: %s\n", error.c_str());
            status = 1;
            continue;
        }
        Json decoded = decoder.decode(bytes);
        if (json) {
            document[std::to_string(decoder.id)] = std::move(decoded);
        } else {
            print_decoded(stdout, decoder, decoded);
        }
    }
    if (json) {
        std::printf("%s\n", document.dump(2).c_str());
    }
    return status;
}

void add_shm_command(CLI::App &app, int &status)
{
    struct Options {
        bool json = false;
        uint32_t region = 0;
    };
    auto options = std::make_shared<Options>();
    CLI::App *command =
        app.add_subcommand("shm",
                           "decode the shared-memory regions published by a process that uses the host platform with "
                           "VORN_SHM_MODE=posix (run with the same VORN_SHM_PREFIX)");
    command->footer(region_list());
    command->add_flag("--json", options->json, "one JSON document, keyed by region id");
    command->add_option("--region", options->region, "only region N")->check([](const std::string &text) {
        char *end = nullptr;
        const unsigned long id = std::strtoul(text.c_str(), &end, 10);
        const bool known =
            !text.empty() && *end == '\0' && id <= UINT32_MAX && find_decoder(static_cast<uint32_t>(id)) != nullptr;
        return known ? std::string() : "no decoder for region " + text + "; " + region_list();
    });
    command->callback([options, command, &status] {
        const Decoder *only = command->count("--region") > 0 ? find_decoder(options->region) : nullptr;
        status = run_shm(options->json, only);
    });
}

}  // namespace rtvoxctl

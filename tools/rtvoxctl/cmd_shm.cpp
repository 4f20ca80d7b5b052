// rtvoxctl shm: decodes the shared-memory regions that a process using the
// host platform in POSIX mode (VORN_SHM_MODE=posix) has published, reading
// the POSIX objects directly as the firmware's other processes read the
// regions. Run it with the publisher's VORN_SHM_PREFIX.
//
// Each region has one decoder, registered in kDecoders: it turns the
// region's bytes into a JSON object whose members are tables ({"count",
// "entries", ...}) or plain values. Text and --json output are both made
// from that object, so a new region only needs its decoder and a line in
// the table. Values with every bit set (-1, 0xFF, 0xFFFF, 0xFFFFFFFF) mean
// "not reported" in these regions and show as "none" (null in JSON).
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

// One column of a table: an array of `width`-byte elements at `offset` of the table.
struct Column {
    const char *name;
    size_t offset;
    size_t width;
};

#define RTVOXCTL_COLUMN(Table, field)                            \
    Column                                                       \
    {                                                            \
#field, offsetof(Table, field), sizeof(Table{}.field[0]) \
    }

// A table at `base` of the region: its signed 32-bit count, then `count`
// entries (never more than the table holds), one object per entry.
Json table(const Bytes &bytes, size_t base, uint32_t capacity, std::initializer_list<Column> columns)
{
    const auto count = static_cast<int32_t>(le(bytes, base, 4));
    Json out = Json::object();
    out["count"] = count == -1 ? Json(nullptr) : Json(count);
    out["entries"] = Json::array();
    const uint32_t shown = count > 0 ? std::min(static_cast<uint32_t>(count), capacity) : 0;
    for (uint32_t i = 0; i < shown; ++i) {
        Json entry = Json::object();
        for (const Column &column : columns) {
            entry[column.name] = value(bytes, base + column.offset + i * column.width, column.width);
        }
        out["entries"].push_back(std::move(entry));
    }
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

struct Decoder {
    uint32_t id;
    const char *title;
    Json (*decode)(const Bytes &bytes);
};

// One line per region the inspector knows, in the order it shows them.
constexpr Decoder kDecoders[] = {
    {RTSHM_REGION_INVENTORY, "storage inventory", decode_inventory},
    {RTSHM_REGION_DRIVE_POLLING, "drive polling", decode_drive_polling},
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
    std::vector<std::string> columns{"#"};
    for (const auto &[key, v] : entries.front().items()) {
        columns.push_back(key);
    }
    std::vector<std::vector<std::string>> rows{columns};
    for (size_t i = 0; i < entries.size(); ++i) {
        std::vector<std::string> row{std::to_string(i)};
        for (size_t c = 1; c < columns.size(); ++c) {
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
            std::fprintf(out, "  %s %s\n", key.c_str(), cell(key, v).c_str());
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

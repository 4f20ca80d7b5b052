// Named fields of the shared-memory regions, snapshots of the regions as the
// host platform holds them, and the difference between two snapshots told
// field by field ("ctrl.au32Temp[0]: 4294967295 -> 45").
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace rtvoxctl::sim {

struct RegionField {
    enum class Format : uint8_t { Unsigned, Signed, Bytes };
    const char *name;  // "ctrl.au32Temp": area prefix and field
    uint32_t region;
    uint32_t offset;  // of element 0 in the region
    uint16_t size;    // bytes of one element
    uint16_t count;   // elements; 1 for a single value
    uint16_t stride;  // bytes from one element to the next
    Format format;
};

// A field, or one element of an array field, as expectations name it.
struct FieldRef {
    const RegionField *field = nullptr;
    uint32_t index = 0;
};

// Every named field of regions 3, 55, 20, 26 and 15.
const std::vector<RegionField> &region_fields();
// "ctrl.s32Count", "pd.au8Temp[3]": the field, or nothing when the name is not one.
std::optional<FieldRef> find_field(const std::string &name);

// The bytes of every region the library uses, by region id.
using Snapshot = std::map<uint32_t, std::vector<uint8_t>>;
Snapshot take_snapshot();

// A numeric field's value in a snapshot (little-endian, sign-extended for signed fields).
int64_t field_value(const Snapshot &snapshot, const FieldRef &ref);

struct FieldChange {
    std::string name;  // "pd.au8Temp[0..3]" for a run of elements that changed alike
    std::string before;
    std::string after;
};
// What changed from `before` to `after`: named fields first, then byte ranges
// that no field covers ("region 20 bytes 300..303", their first 8 bytes shown).
std::vector<FieldChange> diff(const Snapshot &before, const Snapshot &after);

// Bytes as lowercase hex pairs separated by blanks: "01 04 08 00".
std::string hex_bytes(const std::vector<uint8_t> &bytes);

}  // namespace rtvoxctl::sim

// ConvertFQDDToFriendlyName: the documented FQDD forms (vornhost.h) to names.
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "internal.h"

namespace vornhost::detail {
namespace {

// Consumes a decimal number of 1 to 9 digits from the front of `s`.
std::optional<uint32_t> take_number(std::string_view &s)
{
    size_t n = 0;
    uint32_t value = 0;
    while (n < s.size() && n < 10 && s[n] >= '0' && s[n] <= '9') {
        value = value * 10 + static_cast<uint32_t>(s[n] - '0');
        ++n;
    }
    if (n == 0 || n > 9) {
        return std::nullopt;
    }
    s.remove_prefix(n);
    return value;
}

bool take_prefix(std::string_view &s, std::string_view prefix)
{
    if (s.substr(0, prefix.size()) != prefix) {
        return false;
    }
    s.remove_prefix(prefix.size());
    return true;
}

// "<prefix><a>" with nothing after it.
std::optional<uint32_t> match1(std::string_view s, std::string_view prefix)
{
    if (!take_prefix(s, prefix)) {
        return std::nullopt;
    }
    const auto a = take_number(s);
    if (!a || !s.empty()) {
        return std::nullopt;
    }
    return a;
}

// "<prefix><a>-<b>" with nothing after it.
std::optional<std::pair<uint32_t, uint32_t>> match2(std::string_view s, std::string_view prefix)
{
    if (!take_prefix(s, prefix)) {
        return std::nullopt;
    }
    const auto a = take_number(s);
    if (!a || !take_prefix(s, "-")) {
        return std::nullopt;
    }
    const auto b = take_number(s);
    if (!b || !s.empty()) {
        return std::nullopt;
    }
    return std::make_pair(*a, *b);
}

std::string num(uint32_t v)
{
    return std::to_string(v);
}

std::optional<std::string> controller_name(std::string_view s)
{
    struct Form {
        const char *prefix;
        const char *before;  // text before the number
        const char *after;   // text after the number
    };
    static const Form kForms[] = {
        {"RAID.Integrated.", "Integrated RAID Controller ", ""},
        {"RAID.Embedded.", "Embedded RAID Controller ", ""},
        {"RAID.Slot.", "RAID Controller in Slot ", ""},
        {"RAID.Mezzanine.", "RAID Controller in Mezzanine ", ""},
        {"NonRAID.Integrated.", "Integrated Non-RAID Controller ", ""},
        {"NonRAID.Embedded.", "Embedded Non-RAID Controller ", ""},
        {"NonRAID.Slot.", "Non-RAID Controller in Slot ", ""},
        {"NonRAID.Mezzanine.", "Non-RAID Controller in Mezzanine ", ""},
    };
    for (const Form &form : kForms) {
        if (const auto ab = match2(s, form.prefix)) {
            return form.before + num(ab->first) + form.after;
        }
    }
    return std::nullopt;
}

std::vector<std::string_view> split(std::string_view s)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t colon = s.find(':');
        parts.push_back(s.substr(0, colon));
        if (colon == std::string_view::npos) {
            return parts;
        }
        s.remove_prefix(colon + 1);
    }
}

std::optional<std::string> friendly(std::string_view fqdd)
{
    const std::vector<std::string_view> p = split(fqdd);
    constexpr std::string_view kInternal = "Enclosure.Internal.";
    constexpr std::string_view kExternal = "Enclosure.External.";
    constexpr std::string_view kExtender = "PCIeExtender.Slot.";

    if (p.size() == 1) {
        if (auto c = controller_name(p[0])) {
            return c;
        }
        if (const auto s = match1(p[0], kExtender)) {
            return "PCIe Extender in Slot " + num(*s);
        }
        if (const auto ce = match2(p[0], kInternal)) {
            return "Backplane " + num(ce->second);
        }
        if (const auto ce = match2(p[0], kExternal)) {
            return "Enclosure " + num(ce->second) + " on Connector " + num(ce->first);
        }
        return std::nullopt;
    }
    if (p.size() == 2) {
        if (const auto ce = match2(p[0], kInternal)) {
            if (const auto s = match1(p[1], kExtender)) {
                return "Backplane " + num(ce->second) + " on PCIe Extender in Slot " + num(*s);
            }
            if (const auto c = controller_name(p[1])) {
                return "Backplane " + num(ce->second) + " on Connector " + num(ce->first) + " of " + *c;
            }
            return std::nullopt;
        }
        if (const auto ce = match2(p[0], kExternal)) {
            if (const auto c = controller_name(p[1])) {
                return "Enclosure " + num(ce->second) + " on Connector " + num(ce->first) + " of " + *c;
            }
            return std::nullopt;
        }
        if (const auto d = match1(p[0], "Disk.Bay.")) {
            if (const auto ce = match2(p[1], kInternal)) {
                return "Disk " + num(*d) + " in Backplane " + num(ce->second);
            }
            return std::nullopt;
        }
        if (const auto v = match1(p[0], "Disk.Virtual.")) {
            if (const auto c = controller_name(p[1])) {
                return "Virtual Disk " + num(*v) + " on " + *c;
            }
            return std::nullopt;
        }
        if (match1(p[0], "Battery.Integrated.")) {
            if (const auto c = controller_name(p[1])) {
                return "Battery on " + *c;
            }
        }
        return std::nullopt;
    }
    if (p.size() == 3) {
        const auto d = match1(p[0], "Disk.Bay.");
        if (!d) {
            return std::nullopt;
        }
        if (const auto ce = match2(p[1], kInternal)) {
            if (match1(p[2], kExtender)) {
                return "PCIe SSD in Slot " + num(*d) + " in Bay " + num(ce->second);
            }
            if (const auto c = controller_name(p[2])) {
                return "Disk " + num(*d) + " in Backplane " + num(ce->second) + " of " + *c;
            }
            return std::nullopt;
        }
        if (const auto ce = match2(p[1], kExternal)) {
            if (const auto c = controller_name(p[2])) {
                return "Disk " + num(*d) + " in Enclosure " + num(ce->second) + " of " + *c;
            }
        }
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace
}  // namespace vornhost::detail

using namespace vornhost::detail;

extern "C" char *ConvertFQDDToFriendlyName(const char *fqdd)
{
    if (fault_hit(VORNHOST_ConvertFQDDToFriendlyName) || fqdd == nullptr) {
        return nullptr;
    }
    try {
        const auto name = friendly(fqdd);
        if (!name) {
            return nullptr;
        }
        auto *out = static_cast<char *>(std::malloc(name->size() + 1));
        if (out == nullptr) {
            return nullptr;
        }
        std::memcpy(out, name->c_str(), name->size() + 1);
        return out;
    } catch (...) {
        return nullptr;
    }
}

#include "channel_converter.hpp"

#include <fmt/format.h>

#include <array>
#include <stdexcept>
#include <string_view>

#include "msg_log.hpp"

namespace qsfpd {
namespace {

constexpr auto tag = "channel_converter";
constexpr auto not_available = "n/a";

// DWDM grid of 72 channels at 100 GHz from 190.10 THz, in hundredths of a THz so the frequency
// is exact (190.1 + 0.1 * n drifts in floating point).
constexpr unsigned dwdm_first_centi_thz = 19010;
constexpr unsigned dwdm_step_centi_thz = 10;
constexpr unsigned dwdm_channels = 72;
// Speed of light in nm * THz, scaled so that dividing by centi-THz yields centi-nm.
constexpr unsigned long long light_centi_nm_centi_thz = 2997924580ULL;
// Register unit is 0.05 nm: one nm is 20 register steps, one centi-nm is 1/5 of a step.
constexpr unsigned centi_nm_per_step = 5;

struct fixed_row {
    unsigned key;
    std::string_view text;
    std::string_view name;
};

// Rows that depart from the grid rule: modules in the field report these register values, and
// lookups are matched against them, so they are kept exactly as deployed.
constexpr std::array<fixed_row, 2> dwdm_overrides{{
    {31373, "1568.67", "D9110"},
    {31063, "1554.13", "D9290"},
}};

constexpr std::array<fixed_row, 7> non_dwdm_rows{{
    {17000, "850", not_available},
    {26200, "1310", not_available},
    {25420, "1271", not_available},
    {25820, "1291", not_available},
    {26220, "1311", not_available},
    {26620, "1331", not_available},
    {26047, "1302.35", not_available},
}};

unsigned nearest_quotient(unsigned long long numerator, unsigned long long denominator) {
    return static_cast<unsigned>((2 * numerator + denominator) / (2 * denominator));
}

channel_converter::table build_table() {
    channel_converter::table map;
    for (unsigned n = 0; n < dwdm_channels; ++n) {
        const unsigned centi_thz = dwdm_first_centi_thz + dwdm_step_centi_thz * n;
        auto name = fmt::format("D{:04}", centi_thz % 10000);
        const unsigned centi_nm = nearest_quotient(light_centi_nm_centi_thz, centi_thz);
        auto text = fmt::format("{}.{:02}", centi_nm / 100, centi_nm % 100);
        unsigned key = nearest_quotient(centi_nm, centi_nm_per_step);
        for (const auto& row : dwdm_overrides) {
            if (row.name == name) {
                key = row.key;
                text = row.text;
            }
        }
        map.emplace(key, channel_converter::entry{std::move(text), std::move(name)});
    }
    for (const auto& row : non_dwdm_rows)
        map.emplace(row.key, channel_converter::entry{row.text, row.name});
    return map;
}

}  // namespace

const channel_converter::table& channel_converter::channel_map() {
    static const table map = build_table();
    return map;
}

channel_converter::entry channel_converter::get_qsfp_wavelength_and_channel_id(unsigned value) {
    try {
        const auto& found = channel_map().at(value);
        MSG_LOG(msg_log::debug, tag)
            << "QSFP wavelength identified as " << found.first << ", " << found.second;
        return found;
    } catch (const std::out_of_range&) {
        // Info, not warning: a module on a wavelength outside the table still works, only its
        // channel cannot be named, and grey optics at other wavelengths are ordinary.
        MSG_LOG(msg_log::info, tag) << "QSFP wavelength '" << value << "' not found";
        return {not_available, not_available};
    }
}

}  // namespace qsfpd

#include "channel_converter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "log_capture.hpp"
#include "msg_log.hpp"

namespace qsfpd {
namespace {

using entry = channel_converter::entry;

using row = std::pair<unsigned, entry>;  // register value, (wavelength, channel)

// The grid row computed here in floating point, apart from the integer arithmetic of the table.
row grid_row(unsigned n) {
    const double thz = (19010 + 10 * n) / 100.0;
    char text[16];
    std::snprintf(text, sizeof text, "%.2f", 299792.458 / thz);
    const auto key = static_cast<unsigned>(std::lround(std::stod(text) * 20));
    std::string name(1, 'D');  // appended: GCC 12 sees a false overlap in "D" + ...
    name += std::to_string(19010 + 10 * n).substr(1);
    return {key, {text, name}};
}

TEST(ChannelConverter, DwdmRowsFollowTheGridExceptTheTwoFieldValues) {
    EXPECT_EQ(grid_row(0), row(31541, entry("1577.03", "D9010")));
    EXPECT_EQ(grid_row(71), row(30405, entry("1520.25", "D9720")));
    // The rows the table holds instead of the grid's (31375 and 31083).
    const std::map<std::string, row> field_rows = {{"D9110", row(31373, {"1568.67", "D9110"})},
                                                   {"D9290", row(31063, {"1554.13", "D9290"})}};
    const auto& map = channel_converter::channel_map();
    for (unsigned n = 0; n < 72; ++n) {
        const auto grid = grid_row(n);
        const auto field = field_rows.find(grid.second.second);
        if (field != field_rows.end()) {
            EXPECT_FALSE(map.contains(grid.first)) << grid.first;
        }
        const auto& [key, value] = field == field_rows.end() ? grid : field->second;
        const auto found = map.find(key);
        ASSERT_NE(found, map.end()) << value.second << " not at " << key;
        EXPECT_EQ(found->second, value);
    }
}

TEST(ChannelConverter, NonDwdmRowsAndTableSize) {
    const std::map<unsigned, entry> non_dwdm = {
        {17000, {"850", "n/a"}},     {26200, {"1310", "n/a"}}, {25420, {"1271", "n/a"}},
        {25820, {"1291", "n/a"}},    {26220, {"1311", "n/a"}}, {26620, {"1331", "n/a"}},
        {26047, {"1302.35", "n/a"}},
    };
    for (const auto& [key, value] : non_dwdm)
        EXPECT_EQ(channel_converter::channel_map().at(key), value) << key;
    EXPECT_EQ(channel_converter::channel_map().size(), 72u + non_dwdm.size());
}

TEST(ChannelConverter, LookupLogsTheRowFoundOrThatNoneWas) {
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    msg_log::log_capture capture;
    EXPECT_EQ(channel_converter::get_qsfp_wavelength_and_channel_id(31373),
              entry("1568.67", "D9110"));
    EXPECT_EQ(channel_converter::get_qsfp_wavelength_and_channel_id(26047),
              entry("1302.35", "n/a"));
    for (unsigned value : {31083u, 31375u, 0u})
        EXPECT_EQ(channel_converter::get_qsfp_wavelength_and_channel_id(value), entry("n/a", "n/a"))
            << value;
    std::vector<std::tuple<int, std::string, std::string>> got;
    for (const auto& r : capture.records())
        got.emplace_back(r.severity, r.tag, r.text.substr(0, r.text.rfind(" (")));
    const auto row = [](int severity, const std::string& text) {
        return std::tuple{severity, std::string("channel_converter"), text};
    };
    EXPECT_EQ(got, (std::vector{row(msg_log::debug, "QSFP wavelength identified as 1568.67, D9110"),
                                row(msg_log::debug, "QSFP wavelength identified as 1302.35, n/a"),
                                row(msg_log::info, "QSFP wavelength '31083' not found"),
                                row(msg_log::info, "QSFP wavelength '31375' not found"),
                                row(msg_log::info, "QSFP wavelength '0' not found")}));
}

}  // namespace
}  // namespace qsfpd

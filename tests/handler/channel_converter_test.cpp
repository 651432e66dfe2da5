#include "channel_converter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>

#include "log_capture.hpp"
#include "msg_log.hpp"

namespace qsfpd {
namespace {

using entry = channel_converter::entry;

struct expected_row {
    unsigned key;
    entry value;
};

// The grid row computed here in floating point, apart from the integer arithmetic of the table.
expected_row grid_row(unsigned n) {
    const double thz = (19010 + 10 * n) / 100.0;
    char text[16];
    std::snprintf(text, sizeof text, "%.2f", 299792.458 / thz);
    const auto key = static_cast<unsigned>(std::lround(std::stod(text) * 20));
    return {key, {text, "D" + std::to_string(19010 + 10 * n).substr(1)}};
}

class ChannelConverter : public ::testing::Test {
  protected:
    void SetUp() override {
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    }
    msg_log::log_capture capture;
};

TEST_F(ChannelConverter, DwdmRowsFollowTheGridExceptTheTwoFieldValues) {
    EXPECT_EQ(grid_row(0).key, 31541u);
    EXPECT_EQ(grid_row(0).value, entry("1577.03", "D9010"));
    EXPECT_EQ(grid_row(71).key, 30405u);
    EXPECT_EQ(grid_row(71).value, entry("1520.25", "D9720"));

    // name -> the row the table holds instead of the rule's
    const std::map<std::string, expected_row> overrides = {
        {"D9110", {31373, {"1568.67", "D9110"}}},
        {"D9290", {31063, {"1554.13", "D9290"}}},
    };
    const auto& map = channel_converter::channel_map();
    std::map<std::string, unsigned> departures;
    for (unsigned n = 0; n < 72; ++n) {
        const auto rule = grid_row(n);
        const auto found = map.find(rule.key);
        if (found != map.end() && found->second == rule.value) continue;
        departures[rule.value.second] = rule.key;
        const auto override_row = overrides.find(rule.value.second);
        ASSERT_NE(override_row, overrides.end()) << rule.value.second << " departs from the grid";
        EXPECT_EQ(found, map.end()) << rule.value.second << " also found at the rule's key";
        EXPECT_EQ(map.at(override_row->second.key), override_row->second.value);
    }
    EXPECT_EQ(departures, (std::map<std::string, unsigned>{{"D9110", 31375}, {"D9290", 31083}}));
}

TEST_F(ChannelConverter, NonDwdmRowsAndTableSize) {
    const std::map<unsigned, entry> non_dwdm = {
        {17000, {"850", "n/a"}},     {26200, {"1310", "n/a"}}, {25420, {"1271", "n/a"}},
        {25820, {"1291", "n/a"}},    {26220, {"1311", "n/a"}}, {26620, {"1331", "n/a"}},
        {26047, {"1302.35", "n/a"}},
    };
    const auto& map = channel_converter::channel_map();
    for (const auto& [key, value] : non_dwdm)
        EXPECT_EQ(map.at(key), value) << key;
    EXPECT_EQ(channel_converter::channel_count(), 79u);
    EXPECT_EQ(map.size(), 79u);
}

TEST_F(ChannelConverter, LookupReturnsTheRowAndLogsIt) {
    EXPECT_EQ(channel_converter::get_qsfp_wavelength_and_channel_id(31373),
              entry("1568.67", "D9110"));
    EXPECT_EQ(channel_converter::get_qsfp_wavelength_and_channel_id(26047),
              entry("1302.35", "n/a"));
    const auto logged = capture.find("QSFP wavelength identified as 1568.67, D9110");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].tag, "channel_converter");
    EXPECT_EQ(logged[0].severity, msg_log::debug);
    EXPECT_EQ(capture.count("QSFP wavelength identified as 1302.35, n/a"), 1u);
}

TEST_F(ChannelConverter, UnknownValuesAreNotAvailableAndLogged) {
    for (unsigned value : {31083u, 31375u, 0u}) {
        EXPECT_EQ(channel_converter::get_qsfp_wavelength_and_channel_id(value), entry("n/a", "n/a"))
            << value;
        const auto logged =
            capture.find("QSFP wavelength '" + std::to_string(value) + "' not found");
        ASSERT_EQ(logged.size(), 1u) << value;
        EXPECT_EQ(logged[0].tag, "channel_converter");
        EXPECT_EQ(logged[0].severity, msg_log::info);
    }
    EXPECT_EQ(capture.count("QSFP wavelength identified"), 0u);
}

}  // namespace
}  // namespace qsfpd

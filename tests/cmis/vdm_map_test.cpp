// The VDM observable map on its own: value formats, the addresses of samples, thresholds and
// flags, the flag nibble rule, the descriptor decode and the published table's consistency.

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>

#include "vdm_map.hpp"
#include "vdm_observables.hpp"

namespace qsfpd::cmis {
namespace {

struct format_row {
    VDM_format format;
    std::uint16_t raw;
    double value;
};

TEST(VdmMap, TheThreeFormatsDecodeTwoBigEndianBytes) {
    const format_row rows[] = {
        {VDM_format::float16, 0x0000, 0.0},           {VDM_format::float16, 0xC001, 1.0},
        {VDM_format::float16, 0x8000 | 1000, 1.0e-5}, {VDM_format::float16, 0x07FF, 2047e-24},
        {VDM_format::float16, 0x9800 | 12, 1.2e-4},   {VDM_format::signed16, 0xFFFF, -1.0},
        {VDM_format::signed16, 0x8000, -32768.0},     {VDM_format::signed16, 0x7FFF, 32767.0},
        {VDM_format::unsigned16, 0xFFFF, 65535.0},    {VDM_format::unsigned16, 0x8000, 32768.0},
    };
    for (const auto& r : rows)
        EXPECT_DOUBLE_EQ(VDM_read(r.format, r.raw), r.value) << std::hex << r.raw;
}

struct address_row {
    unsigned index;
    unsigned threshold_set;
    cage::flat_address sample;
    cage::flat_address threshold;
    cage::flat_address flag;
};

TEST(VdmMap, AddressesOfSamplesThresholdsAndFlags) {
    // Page 24h + group byte 128 + 2 x slot; page 28h + group byte 128 + 8 x set; page 2Ch byte
    // 128 + index / 2 (flat: page x 128 + byte).
    const address_row rows[] = {
        {0, 0, 0x24 * 128 + 128, 0x28 * 128 + 128, 0x2C * 128 + 128},
        {1, 15, 0x24 * 128 + 130, 0x28 * 128 + 248, 0x2C * 128 + 128},
        {63, 3, 0x24 * 128 + 254, 0x28 * 128 + 152, 0x2C * 128 + 159},
        {64, 0, 0x25 * 128 + 128, 0x29 * 128 + 128, 0x2C * 128 + 160},
        {130, 2, 0x26 * 128 + 132, 0x2A * 128 + 144, 0x2C * 128 + 193},
        {255, 15, 0x27 * 128 + 254, 0x2B * 128 + 248, 0x2C * 128 + 255},
    };
    for (const auto& r : rows) {
        const VDM_position p{static_cast<std::uint8_t>(r.index & 0xFF),
                             static_cast<std::uint8_t>(r.threshold_set), r.index};
        EXPECT_EQ(vdm_map::sample_address(r.index), r.sample) << r.index;
        EXPECT_EQ(vdm_map::threshold_address(p), r.threshold) << r.index;
        EXPECT_EQ(vdm_map::flag_address(r.index), r.flag) << r.index;
    }
    EXPECT_EQ(vdm_map::descriptor_address(0), 0x20u * 128 + 128);
    EXPECT_EQ(vdm_map::descriptor_address(3), 0x23u * 128 + 128);
}

struct nibble_row {
    unsigned position;
    std::uint8_t byte;
    std::uint8_t flags;
    std::uint8_t mask;
};

TEST(VdmMap, PositionsBelowTwoUseTheLowNibbleAndEveryOtherTheHighOne) {
    const nibble_row rows[] = {
        {0, 0xA5, 0x5, 0xF0}, {1, 0xA5, 0x5, 0xF0}, {2, 0xA5, 0xA, 0x0F},
        {3, 0xA5, 0xA, 0x0F}, {4, 0x3C, 0x3, 0x0F}, {200, 0x70, 0x7, 0x0F},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(vdm_map::flag_nibble(r.position, r.byte), r.flags) << r.position;
        EXPECT_EQ(vdm_map::mask_bits(r.position), r.mask) << r.position;
    }
}

TEST(VdmMap, DescriptorsListKnownTypesAndSkipTheRest) {
    std::array<std::uint8_t, 128> page{};
    auto put = [&](unsigned slot, std::uint8_t place, std::uint8_t type) {
        page[2 * slot] = place;
        page[2 * slot + 1] = type;
    };
    put(0, 0x30, 4);    // laser temperature, threshold set 3, lane 1
    put(1, 0x00, 0);    // unused
    put(2, 0x52, 100);  // a vendor type
    put(3, 0xF1, 143);  // TX power, threshold set 15, lane 2
    put(4, 0x00, 4);    // a second laser temperature: the first one stays
    vdm_map map;
    EXPECT_EQ(
        map.add_group(1, page),
        std::vector<std::string>{"VDM descriptor 2 of group 2 skipped: type 100 not implemented"});
    EXPECT_EQ(map.groups(), 2u);
    EXPECT_EQ(map.observables().size(), 2u);
    const auto* temp = map.find(VDM_observable_types::laser_temperature);
    ASSERT_NE(temp, nullptr);
    EXPECT_EQ(temp->index, 64u);
    EXPECT_EQ(vdm_map::threshold_address(*temp), 0x29u * 128 + 128 + 8 * 3);
    const auto* tx = map.find(VDM_observable_types::tx_power);
    ASSERT_NE(tx, nullptr);
    EXPECT_EQ(tx->index, 67u);
    EXPECT_EQ(vdm_map::threshold_address(*tx), 0x29u * 128 + 128 + 8 * 15);
    EXPECT_EQ(map.find(VDM_observable_types::cfo), nullptr);
    EXPECT_EQ(map.add_group(4, page), std::vector<std::string>{"VDM group 5 does not exist"});
}

TEST(VdmMap, ThePublishedTableMatchesTheFormatsOfItsTypesAndNamesEachNodeOnce) {
    const auto rows = cmis5_vdm_observables();
    EXPECT_EQ(rows.size(), 29u);
    std::set<std::string_view> names;
    std::set<VDM_observable_types> types;
    for (const auto& row : rows) {
        EXPECT_TRUE(names.insert(row.node).second) << row.node;
        EXPECT_TRUE(types.insert(row.type).second) << row.node;
        const auto format = VDM_format_of(static_cast<std::uint8_t>(row.type));
        ASSERT_TRUE(format) << row.node;
        EXPECT_EQ(*format, row.format) << row.node;
        EXPECT_GT(row.scale, 0.0) << row.node;
    }
    for (const char* kept : {"debug/SOPMD_high_granularis", "debug/Modulator_Bias_X_Q-Current",
                             "preFecBerHost", "frameErrCntAverageHost"})
        EXPECT_TRUE(names.contains(kept)) << kept;
    for (const std::uint8_t unknown : {0, 27, 100, 127, 153, 255})
        EXPECT_FALSE(VDM_format_of(unknown)) << int{unknown};
}

}  // namespace
}  // namespace qsfpd::cmis

#include "app_code_tables.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace qsfpd::cmis {
namespace {

const code_table all_tables[] = {code_table::host,         code_table::mmf,
                                 code_table::smf,          code_table::passive_copper,
                                 code_table::active_cable, code_table::base_t};

struct golden_case {
    code_table table;
    unsigned code;
    app_code_info_t expected;
};

class GoldenRow : public ::testing::TestWithParam<golden_case> {};

TEST_P(GoldenRow, DecodesToTheFullRecord) {
    const auto& c = GetParam();
    const app_code_info_t* found = find_code(c.table, c.code);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(*found, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Tables, GoldenRow,
    ::testing::Values(
        golden_case{code_table::host,
                    0x11,
                    {"11", "400GAUI-8 C2M (Annex 120E)", 400, 8, "PAM4", "RS(544,514)FEC", 425.0F,
                     26.5625F, 2.0F, ""}},
        golden_case{code_table::host,
                    0x0D,
                    {"D", "100GAUI-2 C2M (Annex 135G)", 100, 2, "PAM4", "RS(544,514)FEC", 106.25F,
                     26.5625F, 2.0F, ""}},
        golden_case{code_table::mmf,
                    9,
                    {"9", "100GBASE-SR4 (Clause 95)", 100, 4, "NRZ", "RS-FEC", 103.13F, 25.78125F,
                     1.0F, ""}},
        golden_case{
            code_table::mmf,
            0x0B,
            {"B", "100GE BiDi", 100, 2, "PAM4", "RS(544,514)FEC", 106.25F, 26.5625F, 2.0F, ""}},
        // The same code under the single-mode encoding is a different interface.
        golden_case{code_table::smf,
                    9,
                    {"9", "40GBASE-LR4 (Clause 87)", 40, 4, "NRZ", "", 41.25F, 10.3125F, 1.0F, ""}},
        golden_case{code_table::smf,
                    0x1C,
                    {"1C", "400GBASE-DR4 (Clause 124)", 400, 4, "PAM4", "RS(544,514)FEC", 425.0F,
                     53.125F, 2.0F, ""}},
        golden_case{code_table::smf,
                    0x1D,
                    {"1D", "400G-FR4 MSA spec/400GBASE-FR4 (Clause 151)", 400, 4, "PAM4",
                     "RS(544,514)FEC", 425.0F, 53.125F, 2.0F, ""}},
        golden_case{code_table::smf,
                    0x3E,
                    {"3E", "400ZR, DWDM, amplified", 400, 1, "DP-16QAM", "CFEC", 478.75F, 59.84375F,
                     8.0F, ""}},
        golden_case{
            code_table::smf,
            0x47,
            {"47", "ZR300-OFEC-8QAM", 300, 1, "DP-8QAM", "oFEC", 360.83F, 60.138546F, 6.0F, ""}},
        golden_case{code_table::base_t,
                    1,
                    {"1", "1000BASE-T (Clause 40)", 1, 4, "PAM5", "", 1.0F, 0.125F, 2.0F, ""}},
        golden_case{code_table::passive_copper,
                    1,
                    {"1", "Copper cable", 0, 0, "", "", 0.0F, 0.0F, 0.0F, ""}},
        golden_case{code_table::active_cable,
                    0xBF,
                    {"BF", "Active Loopback module", 0, 0, "", "", 0.0F, 0.0F, 0.0F, ""}}));

TEST(AppCodeTables, UnknownCodesGiveTheUnknownRecordNotAnError) {
    EXPECT_EQ(find_code(code_table::host, 0x12), nullptr);  // reserved between 400GAUI-8 and CX4
    EXPECT_EQ(find_code(code_table::mmf, 0xEE), nullptr);
    EXPECT_EQ(find_code(code_table::passive_copper, 2), nullptr);
    EXPECT_EQ(unknown_app_code(0xEE),
              (app_code_info_t{"EE", "Unknown", 0, 0, "Unknown", "", 0.0F, 0.0F, 0.0F, ""}));
    EXPECT_EQ(unknown_app_code(5).IdHex, "5");
}

TEST(AppCodeTables, MediaTypeEncodingPicksTheTableAndItsLogWord) {
    const std::map<unsigned, std::string_view> words{
        {1, "mmf"}, {2, "smf"}, {3, "passive copper"}, {4, "active cable"}, {5, "base_t"}};
    for (const auto& [encoding, word] : words) {
        const auto t = media_table_of(encoding);
        ASSERT_TRUE(t.has_value()) << encoding;
        EXPECT_EQ(table_word(*t), word);
    }
    EXPECT_FALSE(media_table_of(0).has_value());
    EXPECT_FALSE(media_table_of(6).has_value());
    EXPECT_EQ(table_word(code_table::host), "host");
}

// Every row of every table, checked for what any correct row must satisfy.
struct row_case {
    code_table table;
    app_code_row row;
};

std::vector<row_case> every_row() {
    std::vector<row_case> all;
    for (const auto t : all_tables)
        for (const auto& r : rows(t))
            all.push_back({t, r});
    return all;
}

std::string upper_hex(unsigned v) {
    std::ostringstream os;
    os << std::uppercase << std::hex << v;
    return os.str();
}

// Cable-assembly media codes and the BASE-T placeholder carry no rate, lane or modulation in
// SFF-8024; the host interface code says those. They are exempt from the rate checks by name.
bool has_no_rates(const row_case& c) {
    return c.table == code_table::passive_copper || c.table == code_table::active_cable ||
           (c.table == code_table::base_t && c.row.code == 0x07);
}

// Symbol rates the interfaces above run at. A digit typed wrong in a lane rate lands outside.
const std::set<double> line_rates{
    0.125,    0.2,      0.8,     2.0,       3.2,       3.125,     1.25,     8.5,       9.8304,
    9.95328,  10.1376,  10.3125, 10.51875,  11.142744, 11.180997, 12.16512, 14.025,    20.625,
    24.33024, 25.78125, 26.5625, 27.952493, 28.05,     28.9,      29.52531, 30.069273, 31.569734,
    41.25,    53.125,   56.1,    59.84375,  60.138546, 63.139468};

class EveryRow : public ::testing::TestWithParam<row_case> {};

TEST_P(EveryRow, IdHexIsTheKeyInUpperCaseHex) {
    const auto& r = GetParam().row;
    EXPECT_EQ(r.id_hex, upper_hex(r.code));
    EXPECT_EQ(id_hex(r.code), upper_hex(r.code));
    const app_code_info_t* found = find_code(GetParam().table, r.code);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->IdHex, upper_hex(r.code));
    EXPECT_EQ(found->Interface, r.interface);
}

TEST_P(EveryRow, RatesAgreeWithLanesAndModulation) {
    const auto& c = GetParam();
    const auto& r = c.row;
    if (has_no_rates(c)) {
        EXPECT_EQ(r.application_bit_rate, 0.0);
        EXPECT_EQ(r.lane_signal_rate, 0.0);
        EXPECT_EQ(r.bits_per_ui, 0.0);
        EXPECT_EQ(r.modulation, "");
        EXPECT_EQ(r.lane_count, 0);
        return;
    }
    static const std::map<std::string_view, double> bits_per_ui{
        {"NRZ", 1},     {"PAM4", 2},    {"PAM5", 2},    {"PAM16", 3.125},
        {"DP-QPSK", 4}, {"DP-8QAM", 6}, {"DP-16QAM", 8}};
    const auto bui = bits_per_ui.find(r.modulation);
    ASSERT_NE(bui, bits_per_ui.end()) << r.modulation;
    EXPECT_EQ(r.bits_per_ui, bui->second);
    EXPECT_TRUE(line_rates.contains(r.lane_signal_rate)) << r.lane_signal_rate;
    ASSERT_GT(r.lane_count, 0);
    // The application bit rate is printed to two decimals, so lanes x GBd x B/UI must round
    // (half up) to exactly that figure; the 1e-6 absorbs binary representation of e.g. 14.025.
    const double product = r.lane_count * r.lane_signal_rate * r.bits_per_ui;
    const double rounded = std::floor(product * 100.0 + 0.5 + 1e-6) / 100.0;
    EXPECT_NEAR(r.application_bit_rate, rounded, 1e-9) << "lanes x rate x B/UI = " << product;
}

TEST_P(EveryRow, NominalRateMatchesTheName) {
    const auto& c = GetParam();
    const auto& r = c.row;
    // "100GBASE-SR4", "400GAUI-8", "16GFC": the leading number is the nominal rate.
    std::size_t digits = 0;
    while (digits < r.interface.size() &&
           std::isdigit(static_cast<unsigned char>(r.interface[digits])))
        ++digits;
    if (digits > 0 && digits < r.interface.size() && r.interface[digits] == 'G') {
        EXPECT_EQ(r.bitrate, std::stoul(std::string(r.interface.substr(0, digits))));
    }
    if (has_no_rates(c)) {
        if (digits == 0) {
            EXPECT_EQ(r.bitrate, 0);
        }
        return;
    }
    // Nominal rates are the round figures interfaces are sold by.
    static const std::set<unsigned> nominal{1,  2,  8,   10,  12,  16,  24,  25,  32, 40,
                                            50, 64, 100, 128, 200, 256, 300, 400, 800};
    EXPECT_TRUE(nominal.contains(r.bitrate)) << r.bitrate;
    // Line coding, FEC and OTN overheads put the line rate within 0.85 to 1.30 of the nominal one.
    const double ratio = r.application_bit_rate / r.bitrate;
    EXPECT_GE(ratio, 0.85);
    EXPECT_LE(ratio, 1.30);
}

INSTANTIATE_TEST_SUITE_P(Tables, EveryRow, ::testing::ValuesIn(every_row()),
                         [](const ::testing::TestParamInfo<row_case>& info) {
                             std::string word(table_word(info.param.table));
                             for (auto& ch : word)
                                 if (ch == ' ') ch = '_';
                             return word + "_" + upper_hex(info.param.row.code);
                         });

TEST(AppCodeTables, KeysAndNamesAreUniqueWithinATable) {
    for (const auto t : all_tables) {
        std::set<unsigned> keys;
        std::set<std::string_view> names;
        for (const auto& r : rows(t)) {
            EXPECT_TRUE(keys.insert(r.code).second) << table_word(t) << " " << upper_hex(r.code);
            EXPECT_TRUE(names.insert(r.interface).second) << table_word(t) << " " << r.interface;
        }
        EXPECT_EQ(table(t).size(), rows(t).size()) << table_word(t);
    }
}

TEST(AppCodeTables, BuiltinCustomCodesPerPartNumber) {
    const auto& custom = builtin_custom_codes();
    for (const char* pn :
         {"MX7-ZRP-400", "MX7-TUN-011", "MX7-TUN-013", "MX7-DD4-00B", "MX7-DD4-190"})
        EXPECT_TRUE(custom.contains(pn)) << pn;
    EXPECT_EQ(custom.size(), 5U);
    const auto& zrp = custom.at("MX7-ZRP-400");
    std::set<unsigned> codes;
    for (const auto& [code, info] : zrp) {
        codes.insert(code);
        EXPECT_EQ(info.IdHex, upper_hex(code));
    }
    EXPECT_EQ(codes, (std::set<unsigned>{0xC0, 0xC1, 0xC2, 0xC4, 0xC5, 0xCE, 0xCF}));
    EXPECT_EQ(zrp.at(0xCE), (app_code_info_t{"CE", "400ZR-OFEC-16QAM-E", 400, 1, "DP-16QAM", "oFEC",
                                             481.11F, 60.138546F, 8.0F, "Enhanced"}));
    EXPECT_EQ(zrp.at(0xC1).Modulation, "DP-8QAM");
    EXPECT_EQ(zrp.at(0xC1).BitsPerUnitInterval, 6.0F);
    EXPECT_EQ(zrp.at(0xC0).EnhancedMode, "");
}

TEST(AppCodeTables, ServicesNeedTheHostInterfacesOfTheHostTable) {
    using z = zelt_common_definitions;
    const auto& services = z::host_info();
    const std::map<std::string_view, unsigned> needed{{z::string_400G, 0x11},
                                                      {z::string_4x100G, 0x0D},
                                                      {z::string_3x100G, 0x0D},
                                                      {z::string_2x100G, 0x0D},
                                                      {z::string_1x100G, 0x0D}};
    for (const auto& [service, host_code] : needed) {
        const auto it = services.find(service);
        ASSERT_NE(it, services.end()) << service;
        EXPECT_EQ(it->second.host_code, host_code) << service;
        const app_code_info_t* host = find_code(code_table::host, host_code);
        ASSERT_NE(host, nullptr);
        // The description must name the very row the module advertises for that code.
        EXPECT_EQ(it->second.interface, host->Interface) << service;
    }
    EXPECT_EQ(services.at(std::string(z::string_400G)).interface, "400GAUI-8 C2M (Annex 120E)");
    EXPECT_EQ(services.at(std::string(z::string_4x100G)).interface, "100GAUI-2 C2M (Annex 135G)");
    EXPECT_EQ(z::GAUI2_400G.lane_count, 8);
}

}  // namespace
}  // namespace qsfpd::cmis

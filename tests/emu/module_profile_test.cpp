#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "../support/errno_of.hpp"
#include "module_profile.hpp"

namespace qsfpd::emu {
namespace {

using bytes = std::vector<std::uint8_t>;

unsigned sum(const memory_image& img, bool lower, unsigned first, unsigned last) {
    unsigned s = 0;
    for (unsigned i = first; i <= last; ++i)
        s += lower ? img.lower[i] : img.pages.at(page_id{})[i - 128];
    return s & 0xff;
}

std::uint8_t upper(const module_profile& p, page_id page, unsigned offset,
                   std::uint8_t device = 0x50) {
    return p.image(device).pages.at(page)[offset - 128];
}

class EveryProfile : public ::testing::TestWithParam<std::filesystem::path> {};

TEST_P(EveryProfile, LoadsAndItsChecksumsVerify) {
    const auto p = module_profile::load(GetParam());
    EXPECT_FALSE(p.name.empty());
    const auto& img = p.image();
    // Recomputed here, independently of the loader.
    switch (p.family) {
        case module_family::sff8636:
            EXPECT_EQ(upper(p, {}, 191), sum(img, false, 128, 190)) << "CC_BASE";
            EXPECT_EQ(upper(p, {}, 223), sum(img, false, 192, 222)) << "CC_EXT";
            break;
        case module_family::cmis:
            EXPECT_EQ(upper(p, {}, 222), sum(img, false, 128, 221)) << "page 00h checksum";
            EXPECT_EQ(img.lower[0], upper(p, {}, 128));
            break;
        case module_family::sff8472_converter:
            EXPECT_EQ(img.lower[63], sum(img, true, 0, 62)) << "CC_BASE";
            EXPECT_EQ(img.lower[95], sum(img, true, 64, 94)) << "CC_EXT";
            // CC_DMI only with diagnostics (byte 92 bit 6); without, there is no A2h at all.
            if (img.lower[92] & 0x40)
                EXPECT_EQ(p.image(0x51).lower[95], sum(p.image(0x51), true, 0, 94)) << "CC_DMI";
            else
                EXPECT_FALSE(p.memories.contains(0x51));
            break;
    }
}

INSTANTIATE_TEST_SUITE_P(Profiles, EveryProfile, ::testing::ValuesIn(module_profile::all_files()),
                         [](const auto& info) { return info.param.stem().string(); });

std::uint16_t upper16(const module_profile& p, page_id page, unsigned offset) {
    return static_cast<std::uint16_t>(upper(p, page, offset) << 8 | upper(p, page, offset + 1));
}

// A DSP BER word: mantissa bits 10..0, exponent bits 15..11 biased by 24.
double ber(std::uint16_t word) {
    return (word & 0x7ff) * std::pow(10.0, static_cast<int>(word >> 11) - 24);
}

TEST(ProfileContents, Sff8636ModulesCarryWhatTheHandlersRead) {
    // Identifier, lanes, rate select power-on values (87 RX, 88 TX), byte 195 (bit 5 rate select
    // advertised, bit 0 DSP pages 20h-21h) and how many of those pages there are, wavelength in
    // 0.05 nm (186-187), compliance (192), transmitter technology (147) and encoding (139).
    for (const auto& [stem, expected] : std::initializer_list<std::pair<const char*, const char*>>{
             {"qsfp28_100g_lr4", "11 4 00 00 00 0 26200 03 64 03"},
             {"qsfp28_100g_cwdm4", "11 4 aa aa 20 0 26220 06 60 07"},
             {"qsfp28_100g_fr1_pam4", "11 1 aa aa 01 2 26220 26 60 08"},
             {"qsfp28_100g_sr2_pam4", "11 2 aa aa 01 2 17000 41 00 08"},
             {"qsfp28_100g_dwdm4", "11 4 00 00 20 0 31067 1b 7e 03"},
             {"qsfpplus_dac_passive", "0d 4 00 00 00 0 1544 0b a0 00"}}) {  // unequalized copper
        const auto p = module_profile::load_named(stem);
        const auto& lo = p.image().lower;
        const int dsp_pages =
            p.image().pages.contains({0, 0x20}) + p.image().pages.contains({0, 0x21});
        char text[64];
        std::snprintf(text, sizeof text, "%02x %u %02x %02x %02x %d %u %02x %02x %02x", lo[0],
                      p.lanes, lo[87], lo[88], upper(p, {}, 195) & 0x21, dsp_pages,
                      unsigned{upper16(p, {}, 186)}, upper(p, {}, 192), upper(p, {}, 147),
                      upper(p, {}, 139));
        EXPECT_EQ(text, std::string(expected)) << stem;
        EXPECT_EQ(p.family, module_family::sff8636) << stem;
        EXPECT_EQ(upper(p, {}, 221) & 0x04, 0) << stem;  // no legacy application select table
    }
}

TEST(ProfileContents, DspPagesHoldAHealthyLinkAndCmisModulesAdvertiseTheirApplications) {
    for (const char* stem : {"qsfp28_100g_fr1_pam4", "qsfp28_100g_sr2_pam4"}) {
        SCOPED_TRACE(stem);
        const auto p = module_profile::load_named(stem);
        auto p20 = [&](unsigned at) { return upper16(p, {0, 0x20}, at); };
        auto p21 = [&](unsigned at) { return upper16(p, {0, 0x21}, at); };
        // SNR above its low warning on the module's lanes, none beyond.
        for (unsigned lane = 0; lane < 4; ++lane) {
            const auto snr = p20(132 + 2 * lane);
            EXPECT_TRUE(lane < p.lanes ? snr > p21(128 + 6) : snr == 0) << lane;
        }
        // Pre-FEC BER average between min and max, below its warning; no uncorrected errors.
        const double average = ber(p20(174));
        EXPECT_TRUE(ber(p20(178)) <= average && average <= ber(p20(180))) << average;
        EXPECT_LT(average, ber(p21(152 + 4)));
        for (unsigned at = 182; at <= 192; ++at)
            EXPECT_EQ(upper(p, {0, 0x20}, at), 0) << "uncorrected errors or clear bit at " << at;
        // Thresholds: high alarm > high warning > low warning >= low alarm, signed where the
        // value is.
        for (unsigned group = 128; group <= 168; group += 8) {
            auto t = [&](unsigned i) -> double {
                const auto raw = p21(group + 2 * i);
                if (group == 152) return ber(raw);
                return group == 136 || group >= 160 ? static_cast<std::int16_t>(raw) : raw;
            };
            EXPECT_TRUE(t(0) > t(2) && t(2) > t(3) && t(3) >= t(1)) << group;
        }
    }
    // Identifier, revision, application 1 (host interface, media interface, lane counts), end of
    // list.
    const auto fr4 = module_profile::load_named("qsfpdd_400g_fr4");
    const auto& lo = fr4.image().lower;
    // 400GAUI-8 / 400GBASE-FR4 8/4 lanes from lane 1; 100GAUI-2 / 100G-FR 2/1 lanes on lanes 1,
    // 3, 5, 7; 400GAUI-8 / vendor code C0h; then end of list.
    EXPECT_EQ((bytes(lo.begin(), lo.begin() + 2)), (bytes{0x18, 0x40}));
    EXPECT_EQ(
        (bytes(lo.begin() + 86, lo.begin() + 99)),
        (bytes{0x11, 0x1d, 0x84, 0x01, 0x0d, 0x15, 0x21, 0x55, 0x11, 0xc0, 0x84, 0x01, 0xff}));
    // Media lane assignment per application, page 01h 176..; durations 144 and 167.
    EXPECT_EQ((bytes{upper(fr4, {0, 1}, 176), upper(fr4, {0, 1}, 177), upper(fr4, {0, 1}, 178),
                     upper(fr4, {0, 1}, 144), upper(fr4, {0, 1}, 167)}),
              (bytes{0x01, 0x0f, 0x01, 0x45, 0x46}));
    const auto zr = module_profile::load_named("qsfpdd_400zr");
    EXPECT_EQ(zr.image().lower[1], 0x40);
    EXPECT_EQ(zr.image().lower[87], 0x3e);  // 400ZR, DWDM, amplified
    EXPECT_EQ(zr.image().lower[88], 0x81);
    EXPECT_EQ(upper(zr, {0, 0x04}, 128) & 0x80, 0x80);  // 75 GHz grid supported
    EXPECT_EQ(upper(zr, {0, 0x12}, 128) >> 4, 7);       // 75 GHz grid selected
    // Its 75 GHz channels: -72 (191.300 THz) to 120 (196.100 THz).
    EXPECT_EQ(upper16(zr, {0, 0x04}, 158), 0xffb8);
    EXPECT_EQ(upper16(zr, {0, 0x04}, 160), 120);
    const auto zrp = module_profile::load_named("qsfpdd_400zr_plus");
    EXPECT_EQ(zrp.image().lower[1], 0x50);
    EXPECT_EQ(zrp.image().lower[87], 0x46);  // ZR400-OFEC-16QAM
}

std::string profile_error_of(const std::string& json) {
    return qsfpd::test::message_of<profile_error>([&] { module_profile::parse(json, "bad.json"); });
}

std::string sff8636_json(const std::string& lower, const std::string& page00) {
    return R"({"name": "t", "family": "sff8636", "lanes": 4, "pages": {"lower": ")" + lower +
           R"(", "00": ")" + page00 + R"("}})";
}

// Identifier 11h, every other byte 0: both checksums 0 except CC_BASE (byte 191) = 11h.
const std::string lower = "11" + std::string(254, '0');
const std::string page00 = "11" + std::string(124, '0') + "11" + std::string(128, '0');

TEST(ProfileValidation, BadOrMissingProfilesAreRefusedNamingFileAndField) {
    EXPECT_EQ(profile_error_of(sff8636_json(lower, page00)), "accepted");
    auto with = [](std::string s, std::size_t at, const char* hex) {
        return s.replace(at, 2, hex);
    };
    for (const auto& [json, fragment] : std::vector<std::pair<std::string, std::string>>{
             {sff8636_json(lower, with(page00, 126, "12")), "bad.json: field 'byte 191 (CC_BASE)'"},
             {sff8636_json(lower, page00.substr(2)),
              "'pages.00': expected 256 hex digits (128 bytes), found 254"},
             {sff8636_json(lower, with(page00, 10, "g0")), "not a hex digit"},
             {sff8636_json(with(lower, 0, "18"), page00), "identifier"},
             {R"({"name": "t", "family": "xfp", "lanes": 1, "pages": {}})", "'family'"},
             {R"({"name": "t", "family": "cmis", "lanes": 0, "pages": {}})", "'lanes'"},
             {"{ not json", "JSON error"},
             // A hostile file is a parse error, not a stack overflow.
             {std::string(200000, '[') + std::string(200000, ']'),
              "JSON error: nesting deeper than 64 levels"}}) {
        const auto err = profile_error_of(json);
        EXPECT_NE(err.find(fragment), std::string::npos) << fragment << " in: " << err;
    }
    EXPECT_NE(qsfpd::test::message_of<profile_error>([] {
                  module_profile::load("/nonexistent/profile.json");
              }).find("/nonexistent/profile.json"),
              std::string::npos);
}

TEST(ProfileValidation, TimesBeyondADayAreRefused) {
    auto with_not_ready = [](const std::string& ms) {
        auto json = sff8636_json(lower, page00);
        json.insert(json.size() - 1, R"(, "behaviour": {"i2c_not_ready_ms": )" + ms + "}");
        return json;
    };
    EXPECT_EQ(module_profile::parse(with_not_ready("86400000"), "ok.json").i2c_not_ready,
              std::chrono::hours(24));
    for (const char* ms : {"86400001", "9e15", "1e300"})
        EXPECT_NE(profile_error_of(with_not_ready(ms)).find("i2c_not_ready_ms"), std::string::npos)
            << ms;
}

}  // namespace
}  // namespace qsfpd::emu

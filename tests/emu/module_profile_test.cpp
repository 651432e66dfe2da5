#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "module_profile.hpp"

namespace qsfpd::emu {
namespace {

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
            EXPECT_EQ(p.image(0x51).lower[95], sum(p.image(0x51), true, 0, 94)) << "CC_DMI";
            break;
    }
}

INSTANTIATE_TEST_SUITE_P(Profiles, EveryProfile, ::testing::ValuesIn(module_profile::all_files()),
                         [](const auto& info) { return info.param.stem().string(); });

TEST(ProfileContents, TheSetIsComplete) {
    EXPECT_EQ(module_profile::all_files().size(), 10u);
}

TEST(ProfileContents, Sff8636ModulesCarryTheirIdentity) {
    const auto lr4 = module_profile::load_named("qsfp28_100g_lr4");
    EXPECT_EQ(lr4.family, module_family::sff8636);
    EXPECT_EQ(lr4.lanes, 4u);
    EXPECT_EQ(lr4.image().lower[0], 0x11);  // QSFP28
    // Page 00h 186-187 nominal wavelength in 0.05 nm: 1310 nm.
    EXPECT_EQ((upper(lr4, {}, 186) << 8 | upper(lr4, {}, 187)) * 5, 131000);
    EXPECT_EQ(upper(lr4, {}, 192), 0x03);  // 100GBASE-LR4

    EXPECT_EQ(upper(module_profile::load_named("qsfp28_100g_cwdm4"), {}, 192), 0x06);

    const auto dac = module_profile::load_named("qsfpplus_dac_passive");
    EXPECT_EQ(dac.image().lower[0], 0x0d);
    EXPECT_EQ(upper(dac, {}, 147), 0xa0);  // copper cable, unequalized

    const auto fr1 = module_profile::load_named("qsfp28_100g_fr1_pam4");
    EXPECT_EQ(fr1.lanes, 1u);
    EXPECT_EQ(upper(fr1, {}, 195) & 0x01, 0x01);  // pages 20h-21h implemented
    EXPECT_TRUE(fr1.image().pages.contains(page_id{0, 0x20}));
    EXPECT_TRUE(fr1.image().pages.contains(page_id{0, 0x21}));
    EXPECT_EQ(upper(fr1, {}, 192), 0x26);  // 100G-FR / 100GBASE-FR1
    EXPECT_EQ(upper(fr1, {}, 139), 0x08);  // PAM4
}

std::uint16_t upper16(const module_profile& p, page_id page, unsigned offset) {
    return static_cast<std::uint16_t>(upper(p, page, offset) << 8 | upper(p, page, offset + 1));
}

// A DSP BER word: mantissa bits 10..0, exponent bits 15..11 biased by 24.
double ber(std::uint16_t word) {
    return (word & 0x7ff) * std::pow(10.0, static_cast<int>(word >> 11) - 24);
}

TEST(ProfileContents, OpticalHandlersFindWhatTheyProgram) {
    // Rate select power-on values (87 RX, 88 TX) and whether rate select is advertised (195
    // bit 5); wavelength in 0.05 nm (186-187).
    struct expect {
        const char* stem;
        unsigned lanes;
        std::uint8_t rate_select;
        bool rate_select_impl;
        bool dsp_pages;
        std::uint16_t wavelength;
        std::uint8_t compliance;
    };
    for (const auto& e : {expect{"qsfp28_100g_lr4", 4, 0x00, false, false, 26200, 0x03},
                          expect{"qsfp28_100g_cwdm4", 4, 0xaa, true, false, 26220, 0x06},
                          expect{"qsfp28_100g_fr1_pam4", 1, 0xaa, false, true, 26220, 0x26},
                          expect{"qsfp28_100g_sr2_pam4", 2, 0xaa, false, true, 17000, 0x41},
                          expect{"qsfp28_100g_dwdm4", 4, 0x00, true, false, 31067, 0x1b}}) {
        SCOPED_TRACE(e.stem);
        const auto p = module_profile::load_named(e.stem);
        EXPECT_EQ(p.lanes, e.lanes);
        EXPECT_EQ(p.image().lower[87], e.rate_select);
        EXPECT_EQ(p.image().lower[88], e.rate_select);
        EXPECT_EQ((upper(p, {}, 195) & 0x20) != 0, e.rate_select_impl);
        EXPECT_EQ((upper(p, {}, 195) & 0x01) != 0, e.dsp_pages);
        EXPECT_EQ(p.image().pages.contains(page_id{0, 0x20}), e.dsp_pages);
        EXPECT_EQ(p.image().pages.contains(page_id{0, 0x21}), e.dsp_pages);
        EXPECT_EQ(upper(p, {}, 221) & 0x04, 0);  // no legacy application select table
        EXPECT_EQ(upper16(p, {}, 186), e.wavelength);
        EXPECT_EQ(upper(p, {}, 192), e.compliance);
    }
    const auto sr2 = module_profile::load_named("qsfp28_100g_sr2_pam4");
    EXPECT_EQ(upper(sr2, {}, 139), 0x08);  // PAM4
    EXPECT_EQ(upper(sr2, {}, 147), 0x00);  // 850 nm VCSEL
    const auto dwdm = module_profile::load_named("qsfp28_100g_dwdm4");
    EXPECT_EQ(upper(dwdm, {}, 147) >> 4, 0x7);  // 1550 nm EML
}

TEST(ProfileContents, DspPagesHoldAHealthyLink) {
    const page_id p20{0, 0x20};
    const page_id p21{0, 0x21};
    for (const char* stem : {"qsfp28_100g_fr1_pam4", "qsfp28_100g_sr2_pam4"}) {
        SCOPED_TRACE(stem);
        const auto p = module_profile::load_named(stem);
        for (unsigned lane = 0; lane < 4; ++lane) {
            const double snr = upper16(p, p20, 132 + 2 * lane) / 256.0;
            const double temp_diff =
                static_cast<std::int16_t>(upper16(p, p20, 164 + 2 * lane)) / 256.0;
            if (lane < p.lanes) {
                EXPECT_GE(snr, 21.0);
                EXPECT_LE(snr, 24.0);
                EXPECT_LT(std::abs(temp_diff), 1.0);
            } else {
                EXPECT_EQ(snr, 0.0) << "lane " << lane << " does not exist";
            }
        }
        for (unsigned at = 172; at <= 180; at += 2) {
            EXPECT_GE(ber(upper16(p, p20, at)), 1e-6) << at;
            EXPECT_LE(ber(upper16(p, p20, at)), 1e-5) << at;
        }
        EXPECT_LE(ber(upper16(p, p20, 178)), ber(upper16(p, p20, 174)));  // min <= average
        EXPECT_GE(ber(upper16(p, p20, 180)), ber(upper16(p, p20, 174)));  // max >= average
        for (unsigned at = 182; at <= 192; ++at)
            EXPECT_EQ(upper(p, p20, at), 0) << "uncorrected errors or clear bit at " << at;
        // Thresholds: high alarm > high warning > low warning >= low alarm, signed where the
        // value is.
        for (unsigned group = 128; group <= 168; group += 8) {
            const bool is_signed = group == 136 || group == 160 || group == 168;
            auto t = [&](unsigned i) -> double {
                const auto raw = upper16(p, p21, group + 2 * i);
                if (group == 152) return ber(raw);
                return is_signed ? static_cast<std::int16_t>(raw) : raw;
            };
            EXPECT_GT(t(0), t(2)) << group;
            EXPECT_GT(t(2), t(3)) << group;
            EXPECT_GE(t(3), t(1)) << group;
        }
        EXPECT_GT(ber(upper16(p, p21, 152 + 4)), ber(upper16(p, p20, 174)));  // below warning
        EXPECT_GT(upper16(p, p20, 132), upper16(p, p21, 128 + 6));  // SNR above its low warning
    }
}

TEST(ProfileContents, CmisModulesAdvertiseTheirApplications) {
    const auto fr4 = module_profile::load_named("qsfpdd_400g_fr4");
    EXPECT_EQ(fr4.image().lower[0], 0x18);
    EXPECT_EQ(fr4.image().lower[1], 0x40);
    // Application 1: 400GAUI-8 host, 400G-FR4 media, 8 host / 4 media lanes; then end of list.
    EXPECT_EQ(fr4.image().lower[86], 0x11);
    EXPECT_EQ(fr4.image().lower[87], 0x1d);
    EXPECT_EQ(fr4.image().lower[88], 0x84);
    EXPECT_EQ(fr4.image().lower[90], 0xff);

    const auto zr = module_profile::load_named("qsfpdd_400zr");
    EXPECT_EQ(zr.image().lower[1], 0x40);
    EXPECT_EQ(zr.image().lower[87], 0x3e);  // 400ZR, DWDM, amplified
    EXPECT_EQ(zr.image().lower[88], 0x81);
    EXPECT_EQ(upper(zr, {0, 0x04}, 128) & 0x80, 0x80);  // 75 GHz grid supported
    EXPECT_EQ(upper(zr, {0, 0x12}, 128) >> 4, 7);       // 75 GHz grid selected
    EXPECT_TRUE(zr.image().pages.contains(page_id{0, 0x12}));

    const auto zrp = module_profile::load_named("qsfpdd_400zr_plus");
    EXPECT_EQ(zrp.image().lower[1], 0x50);
    EXPECT_EQ(zrp.image().lower[87], 0x46);  // ZR400-OFEC-16QAM
}

TEST(ProfileContents, ConverterHoldsAnSfpAtA0AndA2) {
    const auto qsa = module_profile::load_named("qsa_sfpplus_10g_sr");
    EXPECT_EQ(qsa.family, module_family::sff8472_converter);
    EXPECT_EQ(qsa.image(0x50).lower[0], 0x03);
    EXPECT_TRUE(qsa.memories.contains(0x51));
}

// A minimal valid SFF-8636 profile text with the given page 00h hex.
std::string sff8636_json(const std::string& lower, const std::string& page00) {
    return R"({"name": "t", "family": "sff8636", "lanes": 4, "pages": {"lower": ")" + lower +
           R"(", "00": ")" + page00 + R"("}})";
}

std::string valid_page00() {
    // Identifier 11h, every other byte 0: both checksums 0 except CC_BASE = 11h.
    std::string hex(256, '0');
    hex.replace(0, 2, "11");
    hex.replace(2 * 63, 2, "11");  // byte 191
    return hex;
}

std::string valid_lower() {
    std::string hex(256, '0');
    hex.replace(0, 2, "11");
    return hex;
}

std::string error_of(const std::string& json) {
    try {
        module_profile::parse(json, "bad.json");
    } catch (const profile_error& e) {
        return e.what();
    }
    return "";
}

TEST(ProfileValidation, AMinimalProfileLoads) {
    const auto p = module_profile::parse(sff8636_json(valid_lower(), valid_page00()), "ok.json");
    EXPECT_EQ(p.lanes, 4u);
}

TEST(ProfileValidation, BadProfilesAreRefusedNamingFileAndField) {
    auto bad_sum = valid_page00();
    bad_sum.replace(2 * 63, 2, "12");
    auto err = error_of(sff8636_json(valid_lower(), bad_sum));
    EXPECT_NE(err.find("bad.json"), std::string::npos) << err;
    EXPECT_NE(err.find("byte 191 (CC_BASE)"), std::string::npos) << err;

    err = error_of(sff8636_json(valid_lower(), valid_page00().substr(2)));
    EXPECT_NE(err.find("pages.00"), std::string::npos) << err;
    EXPECT_NE(err.find("254"), std::string::npos) << err;

    auto not_hex = valid_page00();
    not_hex[10] = 'g';
    EXPECT_NE(error_of(sff8636_json(valid_lower(), not_hex)).find("not a hex digit"),
              std::string::npos);

    EXPECT_NE(
        error_of(R"({"name": "t", "family": "xfp", "lanes": 1, "pages": {}})").find("'family'"),
        std::string::npos);
    EXPECT_NE(
        error_of(R"({"name": "t", "family": "cmis", "lanes": 0, "pages": {}})").find("'lanes'"),
        std::string::npos);
    EXPECT_NE(error_of("{ not json").find("JSON error"), std::string::npos);

    auto cmis_lower = valid_lower();
    cmis_lower.replace(0, 2, "18");
    EXPECT_NE(error_of(sff8636_json(cmis_lower, valid_page00())).find("identifier"),
              std::string::npos);
}

TEST(ProfileValidation, LoadingAMissingFileNamesIt) {
    try {
        module_profile::load("/nonexistent/profile.json");
        FAIL() << "no error";
    } catch (const profile_error& e) {
        EXPECT_NE(std::string(e.what()).find("/nonexistent/profile.json"), std::string::npos);
    }
}

TEST(ProfileValidation, TimesBeyondADayAreRefused) {
    auto with_not_ready = [](const std::string& ms) {
        auto json = sff8636_json(valid_lower(), valid_page00());
        json.insert(json.size() - 1, R"(, "behaviour": {"i2c_not_ready_ms": )" + ms + "}");
        return json;
    };
    EXPECT_EQ(module_profile::parse(with_not_ready("86400000"), "ok.json").i2c_not_ready,
              std::chrono::hours(24));
    for (const char* ms : {"86400001", "9e15", "1e300"})
        EXPECT_NE(error_of(with_not_ready(ms)).find("i2c_not_ready_ms"), std::string::npos) << ms;
}

}  // namespace
}  // namespace qsfpd::emu

// The catalogue shipped in etc/ must keep matching the emulator's module profiles, so that the
// demo and the integration tests find every emulated module in the list meant for it.

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "catalogue_test_support.hpp"
#include "log_capture.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "transceiver_catalogue.hpp"

namespace qsfpd {
namespace {

using emu::module_family;
using emu::module_profile;
using emu::page_id;

const std::string sample_file = std::string(QSFPD_SOURCE_DIR) + "/etc/transceiver_qsfp.json";

// Which list drives each profile's module.
const std::map<std::string, catalogue_list> expected_list{
    {"qsfp28_100g_lr4", catalogue_list::optical_4lane},
    {"qsfp28_100g_cwdm4", catalogue_list::optical_4lane},
    {"qsfp28_100g_fr1_pam4", catalogue_list::optical_1lane_pam4},
    {"qsfp28_100g_sr2_pam4", catalogue_list::optical_1or2lane},
    {"qsfp28_100g_dwdm4", catalogue_list::optical_4lane},
    {"qsfpplus_dac_passive", catalogue_list::passive},
    {"qsfpdd_400g_fr4", catalogue_list::optical_dd_4lane},
    {"qsfpdd_400zr", catalogue_list::optical_dd_1lane},
    {"qsfpdd_400zr_plus", catalogue_list::optical_cmis5_1lane},
};
// The converter's SFP is looked up in the SFP+ list, not here.
const std::set<std::string> not_in_catalogue{"qsa_sfpplus_10g_sr"};

struct module_strings {
    std::string vendor;
    std::string part_number;
};

std::string field(const emu::module_memory::page_image& page, unsigned first, unsigned last) {
    return {page.begin() + (first - 128), page.begin() + (last - 128) + 1};
}

// Vendor name and part number as the module manager reads them, trimmed and upper-cased.
module_strings identity_of(const module_profile& profile) {
    switch (profile.family) {
        case module_family::sff8636: {
            const auto& page = profile.image().pages.at(page_id{0, 0});
            return {trim_and_upper_case(field(page, 148, 163)),
                    trim_and_upper_case(field(page, 168, 183))};
        }
        case module_family::cmis: {
            const auto& page = profile.image().pages.at(page_id{0, 0});
            return {trim_and_upper_case(field(page, 129, 144)),
                    trim_and_upper_case(field(page, 148, 163))};
        }
        case module_family::sff8472_converter: {
            // SFF-8472 A0h is flat: vendor name 20..35, part number 40..55 of lower memory.
            const auto& lower = profile.image(0x50).lower;
            return {trim_and_upper_case(std::string(lower.begin() + 20, lower.begin() + 36)),
                    trim_and_upper_case(std::string(lower.begin() + 40, lower.begin() + 56))};
        }
    }
    throw std::logic_error("unknown family");
}

class SampleCatalogue : public ::testing::Test {
  protected:
    void SetUp() override {
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
        map = load_probe_map(sample_file, recorder.factory_for(), "/dev/qsfp");
        ASSERT_TRUE(capture.records().empty()) << capture.records().front().text;
        ASSERT_FALSE(map.empty());
    }

    msg_log::log_capture capture;
    test::factory_recorder recorder;
    probe_map map;
};

TEST_F(SampleCatalogue, EveryProfileModuleIsFoundInItsList) {
    for (const auto& [stem, list] : expected_list) {
        const auto profile = module_profile::load_named(stem);
        const auto id = identity_of(profile);
        ASSERT_FALSE(id.vendor.empty()) << stem;
        try {
            const auto call = recorder.create(map, id.vendor, id.part_number);
            EXPECT_EQ(call.list, list) << stem << " landed in " << list_info(call.list).key
                                       << " instead of " << list_info(list).key;
        } catch (const std::out_of_range&) {
            ADD_FAILURE() << stem << ": " << id.vendor << " / " << id.part_number
                          << " is not in the sample catalogue";
        }
    }
}

TEST_F(SampleCatalogue, EveryEntryBelongsToAProfile) {
    std::set<const probe_id*> matched;
    for (const auto& [stem, list] : expected_list) {
        const auto id = identity_of(module_profile::load_named(stem));
        try {
            matched.insert(&find_in_map(map, id.vendor, id.part_number)->first);
        } catch (const std::out_of_range&) {
            // Reported by EveryProfileModuleIsFoundInItsList.
        }
    }
    for (const auto& [key, factory] : map)
        EXPECT_TRUE(matched.contains(&key))
            << key.vendor << " / " << key.part_number << " matches no emulator profile";
}

TEST_F(SampleCatalogue, ConverterIsLeftOut) {
    for (const auto& stem : not_in_catalogue) {
        const auto id = identity_of(module_profile::load_named(stem));
        ASSERT_FALSE(id.part_number.empty()) << stem;
        EXPECT_THROW(find_in_map(map, id.vendor, id.part_number), std::out_of_range) << stem;
    }
}

TEST_F(SampleCatalogue, EveryProfileIsAccountedFor) {
    // A new profile needs a decision: an entry in the sample or a place in not_in_catalogue.
    for (const auto& file : module_profile::all_files()) {
        const auto stem = file.stem().string();
        EXPECT_TRUE(expected_list.contains(stem) || not_in_catalogue.contains(stem)) << stem;
    }
}

}  // namespace
}  // namespace qsfpd

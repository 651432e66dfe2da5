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

std::string field(auto begin, int at) {
    return trim_and_upper_case(std::string(begin + at, begin + at + 16));
}

// Vendor name and part number as the module manager reads them, trimmed and upper-cased.
module_strings identity_of(const module_profile& profile) {
    if (profile.family == module_family::sff8472_converter) {
        // SFF-8472 A0h is flat: vendor name at 20, part number at 40 of lower memory.
        const auto& lower = profile.image(0x50).lower;
        return {field(lower.begin(), 20), field(lower.begin(), 40)};
    }
    // Page 00h: vendor name at 148 and part number at 168 (SFF-8636), at 129 and 148 (CMIS).
    const auto& page = profile.image().pages.at(page_id{0, 0});
    const bool sff8636 = profile.family == module_family::sff8636;
    return {field(page.begin(), (sff8636 ? 148 : 129) - 128),
            field(page.begin(), (sff8636 ? 168 : 148) - 128)};
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

TEST_F(SampleCatalogue, EveryProfileModuleIsFoundInItsListAndEveryEntryBelongsToAProfile) {
    std::set<const probe_id*> matched;
    for (const auto& [stem, list] : expected_list) {
        const auto id = identity_of(module_profile::load_named(stem));
        ASSERT_FALSE(id.vendor.empty()) << stem;
        try {
            const auto call = recorder.create(map, id.vendor, id.part_number);
            EXPECT_EQ(call.list, list) << stem << " landed in " << list_info(call.list).key
                                       << " instead of " << list_info(list).key;
            matched.insert(&find_in_map(map, id.vendor, id.part_number)->first);
        } catch (const std::out_of_range&) {
            ADD_FAILURE() << stem << ": " << id.vendor << " / " << id.part_number
                          << " is not in the sample catalogue";
        }
    }
    for (const auto& [key, factory] : map)
        EXPECT_TRUE(matched.contains(&key))
            << key.vendor << " / " << key.part_number << " matches no emulator profile";
}

TEST_F(SampleCatalogue, EveryProfileIsAccountedForAndTheConverterIsLeftOut) {
    // A new profile needs a decision: an entry in the sample or a place in not_in_catalogue.
    for (const auto& file : module_profile::all_files()) {
        const auto stem = file.stem().string();
        EXPECT_TRUE(expected_list.contains(stem) || not_in_catalogue.contains(stem)) << stem;
    }
    for (const auto& stem : not_in_catalogue) {
        const auto id = identity_of(module_profile::load_named(stem));
        ASSERT_FALSE(id.part_number.empty()) << stem;
        EXPECT_THROW(find_in_map(map, id.vendor, id.part_number), std::out_of_range) << stem;
    }
}

}  // namespace
}  // namespace qsfpd

#include "transceiver_catalogue.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/error/error.h>

#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "../support/temp_dir.hpp"
#include "log_capture.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"

namespace qsfpd {
namespace {

constexpr const char* tag = "/dev/qsfp3";

class Catalogue : public ::testing::Test {
  protected:
    void SetUp() override {
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    }
    // Factories that only record which list they were made for.
    std::function<probe_factory(catalogue_list)> factories() {
        return [this](catalogue_list list) -> probe_factory {
            return [this, list](auto&&...) { called.push_back(list); };
        };
    }
    probe_map load(std::string_view json) {
        return load_probe_map(dir.write("transceiver_qsfp.json", json), factories(), tag);
    }
    // The list whose factory the manager calls for a module (the entry's factory is called as the
    // manager calls it), the description and the flags isAutoNeg, isFec, isTxTuning and
    // isCertified as digits.
    std::string entry(const probe_map& map, const std::string& vendor,
                      const std::string& part_number) {
        const auto it = find_in_map(map, vendor, part_number);
        const auto before = called.size();
        it->second(vendor, part_number, it->first.description, it->first.flags);
        if (called.size() != before + 1) throw std::logic_error("factory was not called once");
        const auto& f = it->first.flags;
        return fmt::format("{} {} {:d}{:d}{:d}{:d}", list_info(called.back()).key,
                           it->first.description, f.isAutoNeg, f.isFec, f.isTxTuning,
                           f.isCertified);
    }
    // The one record logged, an error of this module starting with `text`.
    void expect_one_error(const std::string& text) {
        const auto records = capture.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].severity, 3);
        EXPECT_EQ(records[0].tag, tag);
        EXPECT_THAT(records[0].text, ::testing::StartsWith(text));
    }

    test::temp_dir dir{"catalogue"};
    std::vector<catalogue_list> called;
    msg_log::log_capture capture;
};

probe_map map_of(std::initializer_list<std::pair<std::string, std::string>> vendor_and_pattern) {
    probe_map map;
    for (const auto& [vendor, pattern] : vendor_and_pattern)
        map.emplace(probe_id{vendor, pattern, vendor + " " + pattern, {}}, probe_factory{});
    return map;
}

// --- Matching ---

TEST(FindInMap, StarStandsForExactlyOneCharacter) {
    using row = std::tuple<const char*, const char*, bool>;  // pattern, part number, matches
    for (const auto& [pattern, part_number, matches] :
         {row{"ABC*", "ABC1", true}, row{"ABC*", "ABCX", true}, row{"ABC*", "ABC", false},
          row{"ABC*", "ABC12", false}, row{"ABC*", "ABD1", false}, row{"A**D", "AXYD", true},
          row{"A**D", "AXYE", false}, row{"*", "Z", true}, row{"*", "", false},
          row{"3MFXG", "3MFXG", true}, row{"3MFXG", "3MFXH", false},
          // A '*' in the module's part number is just a character.
          row{"ABC1", "ABC*", false}}) {
        SCOPED_TRACE(std::string(pattern) + " against " + part_number);
        const auto map = map_of({{"ACME", pattern}});
        if (matches)
            EXPECT_EQ(find_in_map(map, "ACME", part_number)->first.part_number, pattern);
        else
            EXPECT_THROW(find_in_map(map, "ACME", part_number), std::out_of_range);
    }
}

TEST(FindInMap, NoMatchThrowsOutOfRangeWithTheFixedTextAndTheVendorMustBeEqual) {
    const auto map = map_of({{"ACME", "ABC1"}, {"dell", "3MFXG"}});
    try {
        find_in_map(map, "ACME", "XYZ1");
        FAIL() << "no exception";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "Unsupported transceiver.");
    }
    EXPECT_THROW(find_in_map(probe_map{}, "ACME", "ABC1"), std::out_of_range);
    // The module's vendor arrives trimmed and upper-cased, so a lower-case catalogue vendor is
    // never reached.
    EXPECT_THROW(find_in_map(map, trim_and_upper_case("  dell "), "3MFXG"), std::out_of_range);
    EXPECT_THROW(find_in_map(map, "ACM", "ABC1"), std::out_of_range);
    EXPECT_THROW(find_in_map(map, "ACMEX", "ABC1"), std::out_of_range);
    EXPECT_EQ(find_in_map(map, "ACME", "ABC1")->first.vendor, "ACME");
}

TEST(FindInMap, FirstMatchInKeyOrderWins) {
    // Byte order: '*' (2Ah) < '1' (31h) < 'A' (41h), so patterns starting with '*' come first.
    using row = std::pair<std::string, std::string>;
    const auto map = map_of({row{"ACME", "ABC1"}, row{"ACME", "ABC*"}, row{"ACME", "*BC1"},
                             row{"ACME", "AB*2"}, row{"ACMD", "****"}, row{"ACMF", "****"}});
    for (const auto& [part_number, pattern] :
         {row{"ABC1", "*BC1"}, row{"XBC1", "*BC1"}, row{"ABC2", "AB*2"}, row{"ABCX", "ABC*"}}) {
        const auto it = find_in_map(map, "ACME", part_number);
        EXPECT_EQ(it->first.vendor, "ACME") << part_number;
        EXPECT_EQ(it->first.part_number, pattern) << part_number;
    }
}

TEST(TrimAndUpperCase, Normalises) {
    using row = std::pair<std::string, std::string>;
    for (const auto& [in, out] :
         {row{"DELL            ", "DELL"}, row{"  finisar corp. \t", "FINISAR CORP."},
          row{"Q28-PCxx        ", "Q28-PCXX"}, row{"\n3mfxg\r", "3MFXG"}, row{"", ""},
          row{"   ", ""}})
        EXPECT_EQ(trim_and_upper_case(in), out) << '"' << in << '"';
}

// --- Reading the file ---

TEST_F(Catalogue, EveryListGetsItsOwnFactoryAndHandlerClass) {
    std::set<std::string_view> classes;
    std::string json = "{";
    for (const auto& list : catalogue_lists) {
        if (json.size() > 1) json += ",";
        json += fmt::format(R"("{}": [{{"vendor": "V", "partNumber": "{}", "description": "{}"}}])",
                            list.key, list.key, list.handler_class);
    }
    const auto map = load(json + "}");
    ASSERT_EQ(map.size(), catalogue_lists.size());
    for (const auto& list : catalogue_lists) {
        EXPECT_EQ(entry(map, "V", std::string(list.key)),
                  fmt::format("{} {} 0000", list.key, list.handler_class));
        EXPECT_EQ(&list_info(list.list), &list) << "the table does not follow the enum";
        classes.insert(list.handler_class);
    }
    EXPECT_EQ(classes.size(), catalogue_lists.size());
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(Catalogue, DuplicateInALaterListTakesOnlyItsFactoryWithinOneListTheFirstEntryStays) {
    auto map = load(R"({
        "passiveTransceiverList": [
            {"vendor": "ACME", "partNumber": "DUP-1", "description": "passive entry",
             "isAutoNeg": false, "isFec": false, "isTxTuning": true}],
        "optical4LaneTransceiverList": [
            {"vendor": "ACME", "partNumber": "DUP-1", "description": "4-lane entry",
             "isAutoNeg": true, "isFec": true}]})");
    ASSERT_EQ(map.size(), 1u);
    // Lists are read in their fixed order, not in the order of the file.
    EXPECT_EQ(entry(map, "ACME", "DUP-1"), "passiveTransceiverList 4-lane entry 1100");

    map = load(R"({"passiveTransceiverList": [
        {"vendor": "ACME", "partNumber": "DUP-1", "description": "first", "isFec": true},
        {"vendor": "ACME", "partNumber": "DUP-1", "description": "second"}]})");
    ASSERT_EQ(map.size(), 1u);
    EXPECT_EQ(entry(map, "ACME", "DUP-1"), "passiveTransceiverList first 0100");
}

TEST_F(Catalogue, AutoNegCarriesOverBetweenEntriesAndListsOtherFlagsDoNot) {
    const auto map = load(R"({
        "optical4LaneTransceiverList": [
            {"vendor": "V", "partNumber": "E0", "description": "d", "isFec": true},
            {"vendor": "V", "partNumber": "E1", "description": "d", "isAutoNeg": true,
             "isFec": true, "isTxTuning": true, "isCertified": true},
            {"vendor": "V", "partNumber": "E2", "description": "d"}],
        "optical1or2LaneTransceiverList": [
            {"vendor": "V", "partNumber": "E3", "description": "d"},
            {"vendor": "V", "partNumber": "E4", "description": "d", "isAutoNeg": false},
            {"vendor": "V", "partNumber": "E5", "description": "d"}],
        "passiveTransceiverList": [
            {"vendor": "V", "partNumber": "E6", "description": "d", "isAutoNeg": true}],
        "opticalDD4LaneTransceiverList": [
            {"vendor": "V", "partNumber": "E7", "description": "d"}]})");
    ASSERT_EQ(map.size(), 8u);
    // isAutoNeg, isFec, isTxTuning, isCertified of E0..E7: nothing has set isAutoNeg for E0 yet,
    // E3 carries it across the list boundary.
    std::string got;
    for (int i = 0; i < 8; ++i) {
        const auto f = find_in_map(map, "V", "E" + std::to_string(i))->first.flags;
        got += std::string{char('0' + f.isAutoNeg), char('0' + f.isFec), char('0' + f.isTxTuning),
                           char('0' + f.isCertified), ' '};
    }
    EXPECT_EQ(got, "0100 1111 1000 1000 0000 0000 1000 1000 ");
}

TEST_F(Catalogue, UnknownMembersAreIgnoredAndEmptyListsGiveAnEmptyMapWithoutLog) {
    EXPECT_TRUE(load("{}").empty());
    EXPECT_TRUE(load(R"({"passiveTransceiverList": []})").empty());
    const auto map = load(R"({"sfpTransceiverList": [{"vendor": 1}],
        "passiveTransceiverList": [
            {"vendor": "V", "partNumber": "P", "description": "d", "comment": 42}]})");
    ASSERT_EQ(map.size(), 1u);
    EXPECT_EQ(entry(map, "V", "P"), "passiveTransceiverList d 0000");
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(Catalogue, MissingFileLogsOneErrorAndGivesAnEmptyMap) {
    EXPECT_TRUE(load_probe_map((dir.path() / "absent.json").string(), factories(), tag).empty());
    expect_one_error(
        "Could not open transceiver info file for reading (transceiver_catalogue.cpp:");
}

TEST_F(Catalogue, MalformedFileLogsTheParserErrorCodeAloneAndGivesAnEmptyMap) {
    using namespace rapidjson;
    using row = std::pair<std::string, ParseErrorCode>;
    for (const auto& [json, code] :
         {row{"", kParseErrorDocumentEmpty}, row{"{", kParseErrorObjectMissName},
          row{R"({"passiveTransceiverList": })", kParseErrorValueInvalid},
          row{R"({"passiveTransceiverList": [{"vendor": "V",]})", kParseErrorObjectMissName},
          row{"{} {}", kParseErrorDocumentRootNotSingular},
          // Nested far deeper than any stack would take a recursive parse.
          row{std::string(200000, '[') + std::string(200000, ']'), kParseErrorTermination}}) {
        SCOPED_TRACE(json.substr(0, 50));
        capture.clear();
        EXPECT_TRUE(load(json).empty());
        // The text is the number and nothing else; the code trace follows it.
        expect_one_error(std::to_string(static_cast<int>(code)) + " (transceiver_catalogue.cpp:");
    }
    EXPECT_TRUE(called.empty());
}

// --- Wrong types end the process ---

void load_and_log_to_stderr(const std::string& file) {
    msg_log::init({.max_severity = msg_log::info, .to_stderr = true, .to_syslog = false});
    load_probe_map(
        file, [](catalogue_list) -> probe_factory { return {}; }, tag);
}

TEST_F(Catalogue, WrongTypeIsFatalNamingListEntryAndKey) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto file = dir.write("bad_vendor.json", R"({"passiveTransceiverList": [
        {"vendor": "V", "partNumber": "P", "description": "d"},
        {"vendor": 7, "partNumber": "P2", "description": "d"}]})");
    EXPECT_DEATH(load_and_log_to_stderr(file),
                 "list passiveTransceiverList, entry 1, key \"vendor\": missing or not a string");
    file = dir.write("bad_flag.json", R"({"opticalDD4LaneTransceiverList": [
        {"vendor": "V", "partNumber": "P", "description": "d", "isFec": "yes"}]})");
    EXPECT_DEATH(load_and_log_to_stderr(file),
                 "list opticalDD4LaneTransceiverList, entry 0, key \"isFec\": not a boolean");
}

// --- The sample shipped in etc/ must keep matching the emulator's module profiles, so that the
// demo and the integration tests find every emulated module in the list meant for it. ---

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
    {"qsfpdd_400g_dr4_avago", catalogue_list::optical_dd_4lane},
    {"qsfpdd_400g_dr4_innolight", catalogue_list::optical_dd_4lane},
    {"qsfpdd_400zr", catalogue_list::optical_dd_1lane},
    {"qsfpdd_400zr_plus", catalogue_list::optical_cmis5_1lane},
};
// The converter's SFP is looked up in the SFP+ list, not here; the CMIS copper cables are not in
// the sample (their handler selection goes by identification).
const std::set<std::string> not_in_catalogue{
    "qsa_sfpplus_10g_sr",       "qsa_sfpplus_10g_lr",       "qsa_sfpplus_10g_tunable_dwdm",
    "qsa_sfpplus_10g_voa",      "qsa_sfp_fc_brocade_nodom", "qsa_sfpplus_dac_passive",
    "qsfpdd_400g_cr8_amphenol", "qsfpdd_dac_cisco_sparse",  "qsfpdd_dac_fithonteng_flat"};

std::string field(auto begin, int at) {
    return trim_and_upper_case(std::string(begin + at, begin + at + 16));
}

// Vendor name and part number as the module manager reads them, trimmed and upper-cased.
std::pair<std::string, std::string> identity_of(const module_profile& profile) {
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

// A new profile needs a decision: an entry in the sample or a place in not_in_catalogue.
TEST_F(Catalogue, EveryProfileIsFoundInItsListOfTheSampleAndEveryEntryBelongsToAProfile) {
    const auto map = load_probe_map(sample_file, factories(), "/dev/qsfp");
    ASSERT_TRUE(capture.records().empty()) << capture.records().front().text;
    ASSERT_FALSE(map.empty());
    for (const auto& file : module_profile::all_files()) {
        const auto stem = file.stem().string();
        EXPECT_TRUE(expected_list.contains(stem) || not_in_catalogue.contains(stem)) << stem;
    }
    std::set<const probe_id*> matched;
    for (const auto& [stem, list] : expected_list) {
        const auto [vendor, part_number] = identity_of(module_profile::load_named(stem));
        ASSERT_FALSE(vendor.empty()) << stem;
        try {
            EXPECT_THAT(entry(map, vendor, part_number),
                        ::testing::StartsWith(std::string(list_info(list).key) + " "))
                << stem;
            matched.insert(&find_in_map(map, vendor, part_number)->first);
        } catch (const std::out_of_range&) {
            ADD_FAILURE() << stem << ": " << vendor << " / " << part_number
                          << " is not in the sample catalogue";
        }
    }
    for (const auto& [key, factory] : map)
        EXPECT_TRUE(matched.contains(&key))
            << key.vendor << " / " << key.part_number << " matches no emulator profile";
    for (const auto& stem : not_in_catalogue) {
        const auto [vendor, part_number] = identity_of(module_profile::load_named(stem));
        ASSERT_FALSE(part_number.empty()) << stem;
        EXPECT_THROW(find_in_map(map, vendor, part_number), std::out_of_range) << stem;
    }
}

}  // namespace
}  // namespace qsfpd

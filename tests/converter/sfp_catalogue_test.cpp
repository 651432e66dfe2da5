// The SFP catalogue: which entry an SFP matches, the "wdm" dependency of the flags, and what a
// bad file logs.

#include <gtest/gtest.h>
#include <rapidjson/error/error.h>

#include <optional>
#include <string>
#include <vector>

#include "../support/temp_dir.hpp"
#include "log_capture.hpp"
#include "msg_log.hpp"
#include "sfp_transceiver_catalogue.hpp"

namespace {

using namespace qsfpd;

// Entries' part names in the map's order, each array's factory recording its array.
struct loaded {
    sfp_probe_map map;
    std::vector<std::string> created;  // "array:partName" of each entry a factory was run for
};

loaded load(std::string_view json, msg_log::log_capture* = nullptr) {
    loaded out;
    out.map = load_sfp_probe_map_from_text(
        json,
        [&out](sfp_catalogue_list list) -> sfp_probe_factory {
            return [&out, list](const sfp_probe_id& id) {
                out.created.push_back(
                    std::string(sfp_catalogue_lists[static_cast<std::size_t>(list)].key) + ":" +
                    id.part_name);
            };
        },
        "/dev/qsfp3");
    return out;
}

// The part name of the entry that wins for (vendor, part number), or none.
std::optional<std::string> match(const sfp_probe_map& map, const std::string& vendor,
                                 const std::string& part_number) {
    try {
        return find_in_sfp_map(map, vendor, part_number)->first.part_name;
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "Unsupported transceiver.");
        return std::nullopt;
    }
}

TEST(SfpCatalogue, MatchingByPrefixOrSameLengthWildcardFirstInKeyOrder) {
    const auto catalogue = load(R"({"opticalTransceiverList": [
        {"vendor": "ACME", "partNumber": "ABC-1*3", "partName": "wildcard"},
        {"vendor": "ACME", "partNumber": "XYZ", "partName": "prefix"},
        {"vendor": "ACME", "partNumber": "XYZ-1", "partName": "longer prefix"},
        {"vendor": "OTHER", "partNumber": "ABC-123", "partName": "other vendor"}]})");
    struct row {
        std::string vendor, part_number;
        std::optional<std::string> winner;
    };
    const std::vector<row> rows = {
        {"ACME", "ABC-123", "wildcard"},  // same length, '*' for '2'
        {"ACME", "ABC-1X3", "wildcard"},
        {"ACME", "ABC-1234", std::nullopt},  // '*' is no prefix wildcard: lengths differ
        {"ACME", "ABC-124", std::nullopt},
        {"ACME", "XYZ-123", "prefix"},  // "XYZ" and "XYZ-1" match: "XYZ" sorts first
        {"ACME", "XYZ", "prefix"},
        {"ACME", "XY", std::nullopt},
        {"acme", "XYZ-123", std::nullopt},  // vendor compared exactly
        {"OTHER", "ABC-123", "other vendor"},
        {"NOBODY", "ABC-123", std::nullopt},
    };
    for (const auto& r : rows)
        EXPECT_EQ(match(catalogue.map, r.vendor, r.part_number), r.winner)
            << r.vendor << " " << r.part_number;
}

TEST(SfpCatalogue, FlagsAfterWdmAreReadOnlyWithWdmAndEachArrayGetsItsFactory) {
    auto catalogue = load(R"({
      "opticalTransceiverList": [
        {"vendor": "V", "partNumber": "NOWDM", "partName": "a", "isTunable": true,
         "isLosWorkaround": true, "softLOSHyst": 30},
        {"vendor": "V", "partNumber": "TUNE", "partName": "b", "wdm": "DWDM", "isTunable": true,
         "isCertified": true, "isLosWorkaround": true, "softLOSHyst": 30, "isFlextune": true,
         "isUOTDR": true}],
      "passiveTransceiverList": [{"vendor": "V", "partNumber": "DAC", "partName": "c",
                                   "wdm": "NONE"}],
      "voaTransceiverList": [{"vendor": "V", "partNumber": "VOA", "partName": "d",
                               "wdm": "LR1310NM"}],
      "testTransceiverList": [{"vendor": "V", "partNumber": "LOOP", "partName": "e",
                                "wdm": "SR850NM"}]})");
    ASSERT_EQ(catalogue.map.size(), 5u);
    const auto flags = [&](const std::string& pn) {
        return find_in_sfp_map(catalogue.map, "V", pn)->first.flags;
    };
    EXPECT_EQ(flags("NOWDM"), sfp_flags_s{});  // carries the keys, but no "wdm": all defaults
    EXPECT_EQ(flags("TUNE"), (sfp_flags_s{1, true, true, true, 30, true, true}));
    EXPECT_EQ(flags("DAC").wdm_type, 0u);
    EXPECT_EQ(flags("VOA").wdm_type, 4u);
    EXPECT_EQ(flags("LOOP").wdm_type, 3u);
    for (const auto& pn : {"NOWDM", "DAC", "VOA", "LOOP"}) {
        const auto entry = find_in_sfp_map(catalogue.map, "V", pn);
        entry->second(entry->first);
    }
    EXPECT_EQ(catalogue.created,
              (std::vector<std::string>{"opticalTransceiverList:a", "passiveTransceiverList:c",
                                        "voaTransceiverList:d", "testTransceiverList:e"}));
}

TEST(SfpCatalogue, ABadCatalogueLogsItsTextAndLeavesTheMapEmpty) {
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    struct row {
        std::optional<std::string> file;  // none: no file
        std::string logged;
    };
    const std::string invalid = "Transceiver info file is invalid: ";
    const std::vector<row> rows = {
        {std::nullopt, "Could not open transceiver info file for reading"},
        {R"({"opticalTransceiverList": [)",
         std::to_string(static_cast<int>(rapidjson::kParseErrorValueInvalid))},
        {R"({"opticalTransceiverList": [{"vendor": "V", "partNumber": "P", "partName": "n",
             "wdm": "UWDM"}]})",
         invalid + R"(list opticalTransceiverList, entry 0, key "wdm": not one of NONE, DWDM, )"
                   "CWDM, SR850NM, LR1310NM"},
        {R"({"opticalTransceiverList": [{"vendor": "V", "partNumber": "P", "partName": "n",
             "wdm": 1}]})",
         invalid + R"(list opticalTransceiverList, entry 0, key "wdm": not one of NONE, DWDM, )"
                   "CWDM, SR850NM, LR1310NM"},
        {R"({"voaTransceiverList": [{"vendor": "V", "partNumber": "P"}]})",
         invalid + R"(list voaTransceiverList, entry 0, key "partName": missing or not a string)"},
        {R"({"testTransceiverList": {}})", invalid + "list testTransceiverList: not an array"},
        {R"({"opticalTransceiverList": [{"vendor": "V", "partNumber": "P", "partName": "n",
             "wdm": "NONE", "softLOSHyst": "10"}]})",
         invalid + R"(list opticalTransceiverList, entry 0, key "softLOSHyst": not an integer)"},
    };
    for (const auto& r : rows) {
        qsfpd::test::temp_dir dir("sfp-catalogue");
        const std::string file =
            r.file ? dir.write("transceiver_sfp+.json", *r.file) : (dir.path() / "none").string();
        msg_log::log_capture capture;
        const auto map = load_sfp_probe_map(
            file, [](sfp_catalogue_list) { return sfp_probe_factory{}; }, "/dev/qsfp3");
        EXPECT_TRUE(map.empty()) << r.logged;
        const auto records = capture.records();
        ASSERT_EQ(records.size(), 1u) << r.logged;
        EXPECT_EQ(records[0].text.substr(0, records[0].text.rfind(" (")), r.logged);
        EXPECT_EQ(records[0].severity, msg_log::error);
    }
}

TEST(SfpCatalogue, TheSampleFileListsTheEmulatedModules) {
    const auto catalogue = load_sfp_probe_map(
        std::string(QSFPD_TESTDATA_DIR) + "/../etc/transceiver_sfp+.json",
        [](sfp_catalogue_list) { return sfp_probe_factory{}; }, "/dev/qsfp3");
    // Vendor and part number as the emulated SFPs report them (emu/profiles/qsa_*.json).
    EXPECT_EQ(match(catalogue, "FINISAR CORP.", "FTLX8571D3BCL"), "SFP+ 10GBASE-SR");
    EXPECT_EQ(match(catalogue, "OEM", "SFP-10GB-LR"), "SFP+ 10GBASE-LR");
    EXPECT_EQ(match(catalogue, "QSFPD-EMU", "EMU-SFP-T10-DWDM"), "SFP+ 10G tunable DWDM");
    EXPECT_EQ(match(catalogue, "QSFPD-EMU", "EMU-SFP-VOA"), "SFP+ 10G LR with VOA");
    EXPECT_EQ(match(catalogue, "BROCADE", "57-1000042-02"), "SFP 1G (no diagnostics)");
}

}  // namespace

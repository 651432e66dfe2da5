#include "application_list_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "../support/temp_dir.hpp"
#include "log_capture.hpp"
#include "msg_log.hpp"

namespace qsfpd::cmis {
namespace {

using ::testing::ElementsAreArray;

constexpr const char* tag = "/dev/qsfp1";
const std::string improper =
    "allocate_custom_map. Application json file does not follow correct json setup. Improper "
    "key: ";

// A code element: every key with a valid value, then `changes` (an empty value drops the key).
std::string code(const std::string& id, const std::map<std::string, std::string>& changes = {}) {
    std::map<std::string, std::string> members{
        {"IdHex", "\"" + id + "\""}, {"Interface", "\"400G-X\""},
        {"bitrate", "400"},          {"bitrate_org", "425"},
        {"LaneCount", "4"},          {"LaneSignallingRate", "53.125"},
        {"Modulation", "\"PAM4\""},  {"b/UI", "2"},
        {"Enhanced_mode", "\"\""}};
    for (const auto& [key, value] : changes)
        if (value.empty())
            members.erase(key);
        else
            members[key] = value;
    std::string text = "{";
    for (const auto& [key, value] : members)
        text += (text.size() > 1 ? ", \"" : "\"") + key + "\": " + value;
    return text + "}";
}

// A file with one product "P" holding `products` (the text inside its "ProductCodes" array).
std::string file_of(const std::string& codes) {
    return R"({"version": "1", "CMISVer": "4", "applicationTable": {"Custom": [
        {"ProductName": "P", "ProductCodes": [)" +
           codes + "]}]}}";
}

class ApplicationListFile : public ::testing::Test {
  protected:
    void SetUp() override {
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    }
    // The warnings logged, each without its code trace.
    std::vector<std::string> warnings() const {
        std::vector<std::string> texts;
        for (const auto& record : capture.records()) {
            EXPECT_EQ(record.tag, tag);
            if (record.severity != msg_log::warning) continue;
            texts.push_back(record.text.substr(0, record.text.rfind(" (")));
        }
        return texts;
    }
    // "IdHex Interface" of each code read for "P", by code.
    static std::vector<std::string> ids_of_p(const application_file_contents& contents) {
        std::map<unsigned, std::string> ids;
        if (const auto it = contents.custom.find("P"); it != contents.custom.end())
            for (const auto& [key, record] : it->second)
                ids.emplace(key, record.IdHex + " " + record.Interface);
        std::vector<std::string> list;
        for (const auto& [key, id] : ids)
            list.push_back(id);
        return list;
    }

    test::temp_dir dir{"application-list"};
    msg_log::log_capture capture;
};

TEST_F(ApplicationListFile, NoFileIsReportedAndGivesNothing) {
    const auto path = (dir.path() / "application_list.json").string();
    const auto contents = application_list_file::read(path, tag);
    EXPECT_FALSE(contents.exists);
    EXPECT_FALSE(contents.parsed);
    EXPECT_TRUE(contents.custom.empty());
    EXPECT_THAT(warnings(), ElementsAreArray({"Did not find application.json in " + path}));
}

struct shape_case {
    std::string name;
    std::string text;
    std::vector<std::string> warnings;
    std::vector<std::string> codes;  // of product "P", in code order
};

const std::vector<shape_case> shapes{
    {"CustomIsAnObject",
     R"({"version": 1, "CMISVer": 4, "applicationTable": {"Custom": {}}})",
     {"Application json file does not follow correct json setup. expected key Custom"},
     {}},
    {"RootNotAnObject",
     "[1]",
     {" reading FILE. Could not find version!", " reading FILE. Could not find cmis version!",
      "Application json file does not follow correct json setup. expected key applicationTable"},
     {}},
    {"NoTable",
     R"({"version": 1, "CMISVer": 4, "Custom": []})",
     {"Application json file does not follow correct json setup. expected key applicationTable"},
     {}},
    {"CodeWithoutBitrateOrgIsDroppedItsSiblingsKept",
     file_of(code("C0") + "," + code("C1", {{"bitrate_org", ""}}) + "," + code("C2")),
     {improper + "bitrate_org, for Id: C1"},
     {"C0 400G-X", "C2 400G-X"}},
    {"EveryImproperKeyWithoutIdWhenIdHexIsNotHex",
     file_of(code("G1", {{"LaneCount", "4.5"}, {"Modulation", "2"}}) + "," + code("100")),
     {improper + "IdHex", improper + "LaneCount", improper + "Modulation", improper + "IdHex"},
     {}},
    {"NumbersOutOfRangeAreImproper",
     file_of(code("C0", {{"bitrate", "65536"}, {"b/UI", "-1"}, {"bitrate_org", "1e39"}})),
     {improper + "bitrate, for Id: C0", improper + "bitrate_org, for Id: C0",
      improper + "b/UI, for Id: C0"},
     {}},
    {"MissingEnhancedModeKeepsTheCode",
     file_of(code("c1", {{"Enhanced_mode", ""}}) + "," + code("C2", {{"Enhanced_mode", "0"}})),
     {"allocate_custom_map. Application code does not have Enhanced mode parameter. key: "
      "Enhanced_mode, for Id: C1",
      improper + "Enhanced_mode, for Id: C2"},
     {"C1 400G-X"}},
    {"TheFirstOfACodeWins",
     file_of(code("C0", {{"Interface", "\"first\""}}) + "," + code("0C0")),
     {},
     {"C0 first"}},
    {"BadProductsAreSkipped",
     R"({"version": "1", "CMISVer": "4", "applicationTable": {"Custom": [
        7, {"ProductCodes": []}, {"ProductName": "Q", "ProductCodes": {}},
        {"ProductName": "P", "ProductCodes": [)" +
         code("C0") + "]}]}}",
     {"allocate_custom_map. Custom application does not follow correct json setup.",
      "allocate_custom_map. Custom application does not follow correct json setup.",
      "allocate_custom_map. Custom application does not follow correct json setup. Invalid "
      "product array: Q"},
     {"C0 400G-X"}},
    {"ParseError", "{\"version\": 1,}", {"Failed to parse rapidjson file\n"}, {}},
    {"NestedPastTheDepthLimit",
     R"({"applicationTable": )" + std::string(100000, '[') + std::string(100000, ']') + "}",
     {"Failed to parse rapidjson file\n"},
     {}},
};

class FileShapes : public ApplicationListFile, public ::testing::WithParamInterface<shape_case> {};

TEST_P(FileShapes, LogAndKeep) {
    const auto& c = GetParam();
    const auto file = dir.write("application_list.json", c.text);
    const auto contents = application_list_file::read(file, tag);
    EXPECT_TRUE(contents.exists);
    auto expected = c.warnings;
    for (auto& line : expected)
        if (const auto at = line.find("FILE"); at != std::string::npos) line.replace(at, 4, file);
    EXPECT_THAT(warnings(), ElementsAreArray(expected));
    EXPECT_THAT(ids_of_p(contents), ElementsAreArray(c.codes));
    EXPECT_LE(contents.custom.size(), 1u);  // "Q" and the others never make it
    EXPECT_EQ(contents.parsed, c.warnings.empty() || !c.warnings[0].starts_with("Failed"));
}

INSTANTIATE_TEST_SUITE_P(ApplicationListFile, FileShapes, ::testing::ValuesIn(shapes),
                         [](const auto& info) { return info.param.name; });

TEST_F(ApplicationListFile, VersionsArePublishedAsText) {
    struct row {
        std::string value;  // JSON text; empty: no such key
        std::optional<std::string> text;
    };
    for (const auto& [value, text] :
         {row{"\"1.0\"", "1.0"}, row{"2", "2"}, row{"1.5", "1.5"}, row{"-3", "-3"},
          row{"true", std::nullopt}, row{"", std::nullopt}}) {
        capture.clear();
        const std::string member = value.empty() ? "" : "\"version\": " + value + ", ";
        const auto path = dir.write("application_list.json",
                                    "{" + member + R"("CMISVer": 5.0, "applicationTable": 0})");
        const auto contents = application_list_file::read(path, tag);
        EXPECT_EQ(contents.version, text) << value;
        EXPECT_EQ(contents.cmis_version, "5");
        const auto line = " reading " + path +
                          (text ? " version: " + *text : std::string(". Could not find version!"));
        EXPECT_EQ(capture.count(line + " ("), 1u) << value;
        EXPECT_EQ(capture.count(" reading " + path + " cmis version: 5 ("), 1u);
    }
}

TEST_F(ApplicationListFile, TheShippedFileGivesItsCodesFieldByField) {
    const auto contents =
        application_list_file::read(QSFPD_SOURCE_DIR "/etc/application_list.json", tag);
    EXPECT_THAT(warnings(), ::testing::IsEmpty());
    EXPECT_EQ(contents.version, "1.0");
    EXPECT_EQ(contents.cmis_version, "4.0");
    ASSERT_EQ(contents.custom.size(), 2u);
    EXPECT_EQ(
        contents.custom.at("EMU-QDD-400G-FR4").at(0xC0),
        (app_code_info_t{"C0", "400G-FR4-EXT", 400, 4, "PAM4", "n/a", 425.0f, 53.125f, 2.0f, ""}));
    EXPECT_EQ(contents.custom.at("MX7-ZRP-400").at(0xC6).Modulation, "DP-16QAM");

    std::vector<std::string> fields;
    for (const auto& record : capture.find("custom application. "))
        fields.push_back(record.text.substr(0, record.text.rfind(" (")));
    ASSERT_EQ(fields.size(), 20u);
    const auto c0 = fields[1] == "custom application. IdHex: C0" ? 0 : 10;
    EXPECT_THAT(
        std::vector(fields.begin() + c0, fields.begin() + c0 + 10),
        ElementsAreArray({"custom application. key: 192", "custom application. IdHex: C0",
                          "custom application. Interface: 400G-FR4-EXT",
                          "custom application. Bitrate: 400", "custom application. LaneCount: 4",
                          "custom application. LaneSignalRate: 53.125",
                          "custom application. Modulation: PAM4", "custom application. B/UI: 2",
                          "custom application. FEC: n/a", "custom application. Enhanced_mode: "}));
}

TEST_F(ApplicationListFile, AllocateRefusesWhatIsNotAnArray) {
    rapidjson::Document object;
    object.SetObject();
    try {
        application_list_file::allocate_custom_map(object, tag);
        FAIL() << "no exception";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(),
                     "allocate_custom_map. Custom application does not follow correct json "
                     "setup. Passed rapidjson::Value is not an Array");
    }
}

}  // namespace
}  // namespace qsfpd::cmis

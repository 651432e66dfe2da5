#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "../support/temp_dir.hpp"
#include "application_list_file.hpp"
#include "log_capture.hpp"
#include "msg_log.hpp"
#include "run_config_check.hpp"

namespace config_check {
namespace {

using ::testing::ElementsAreArray;

struct check_case {
    std::string name;
    std::string text;
    std::vector<std::string> lines;  // each after "FILE:"
    int status;
};

const std::string head = R"({"version": 1, "CMISVer": "5.0", "applicationTable": {"Custom": [
)";
const std::string code =
    R"("Interface": "I", "bitrate": 400, "bitrate_org": 425, "LaneCount": 4,
 "LaneSignallingRate": 53.125, "Modulation": "PAM4", "b/UI": 2)";

const std::vector<check_case> cases{
    {"Clean",
     head + R"( {"ProductName": "P", "ProductCodes": [{"IdHex": "c0", )" + code +
         R"(, "Enhanced_mode": ""}]}]}})",
     {},
     0},
    {"RootNotAnObject",
     "[1]",
     {"1:1: expected an object at the top level, found an array (the daemon reads no custom code "
      "from it)"},
     1},
    {"VersionsAndTable",
     R"({"version": null, "applicationTable": {"custom": []}})",
     {"1:1: warning: expected member \"CMISVer\" (a string or a number), found a file without it "
      "(the daemon publishes none)",
      "1:13: warning: expected a string or a number for \"version\", found null (the daemon "
      "publishes none)",
      "1:39: expected an array for \"Custom\", found a table without it (the daemon reads no "
      "custom code)"},
     1},
    {"Products",
     head + R"( 7, {"ProductCodes": []}, {"ProductName": "Q", "ProductCodes": {},
 "Productcodes": []}]}})",
     {"2:2: expected an object for each product of \"Custom\", found a number (7) (the daemon "
      "skips this product)",
      "2:5: expected member \"ProductName\" (a string), found a product without it (the daemon "
      "skips this product)",
      "2:64: expected an array for \"ProductCodes\", found an object (the daemon skips this "
      "product)",
      "3:2: warning: expected \"ProductCodes\", found \"Productcodes\" (the daemon ignores "
      "unknown keys)"},
     1},
    {"Codes",
     head + R"( {"ProductName": "P", "ProductCodes": [
 {"IdHex": "C0", )" +
         code +
         R"(},
 {"IdHex": "0C0", )" +
         code + R"(, "Enhanced_mode": "second"},
 {"IdHex": "C1", "LaneSignalRate": 1, "Interface": "I", "bitrate": 400, "bitrate_org": 425,
  "LaneCount": 4, "Modulation": "PAM4", "b/UI": 2, "Enhanced_mode": ""},
 {"IdHex": "XY", "Interface": "I", "bitrate": 400.5, "bitrate_org": 425, "LaneCount": 4,
  "LaneSignallingRate": 1, "Modulation": "M", "b/UI": 2, "Enhanced_mode": ""},
 "C2"]}]}})",
     {"3:2: warning: expected member \"Enhanced_mode\" (a string), found a code without it (the "
      "daemon takes code \"C0\" as not enhanced)",
      "5:2: warning: expected each code once per product, found \"C0\" of \"P\" again, first at "
      "3:2 (the daemon keeps the first)",
      "7:2: expected member \"LaneSignallingRate\" (a non-negative number), found a code "
      "without it (the daemon skips code \"C1\")",
      "7:18: warning: expected \"LaneSignallingRate\", found \"LaneSignalRate\" (the daemon "
      "ignores unknown keys)",
      "9:12: expected a media code in hex (0 to FF) for \"IdHex\", found a string (\"XY\") (the "
      "daemon skips this code)",
      "9:47: expected a whole number 0 to 65535 for \"bitrate\", found a number (400.5) (the "
      "daemon skips this code)",
      "11:2: expected an object for each code of \"ProductCodes\", found a string (\"C2\") (the "
      "daemon skips it)"},
     1},
};

class ApplicationListCheck : public ::testing::TestWithParam<check_case> {
  protected:
    qsfpd::test::temp_dir dir{"application-list-check"};
};

TEST_P(ApplicationListCheck, ReportsExactlyTheseLines) {
    const auto& c = GetParam();
    const auto file = dir.write("application_list.json", c.text);
    std::vector<std::string> expected;
    for (const auto& line : c.lines)
        expected.push_back(file + ":" + line);
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(run_config_check({file}, out, err), c.status);
    std::vector<std::string> lines;
    std::istringstream printed(out.str());
    for (std::string line; std::getline(printed, line);)
        lines.push_back(line);
    EXPECT_THAT(lines, ElementsAreArray(expected));
    EXPECT_EQ(err.str(), "");
}

// An error is exactly what makes the daemon's reader log a fault and skip something.
TEST_P(ApplicationListCheck, ErrorsAreWhatTheReaderSkips) {
    const auto& c = GetParam();
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    const msg_log::log_capture capture;
    qsfpd::cmis::application_list_file::read_text(c.text, "f", "/dev/qsfp");
    std::size_t faults = 0;
    for (const auto& record : capture.records())
        if (record.text.find("not follow correct json setup") != std::string::npos ||
            record.text.starts_with("Failed to parse"))
            ++faults;
    EXPECT_EQ(faults > 0, c.status == 1);
}

INSTANTIATE_TEST_SUITE_P(ApplicationList, ApplicationListCheck, ::testing::ValuesIn(cases),
                         [](const auto& info) { return info.param.name; });

TEST(ApplicationListCheckFiles, TheShippedFileIsCleanAndToldByContent) {
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(run_config_check({QSFPD_SOURCE_DIR "/etc/application_list.json"}, out, err), 0);
    EXPECT_EQ(out.str(), "");
    qsfpd::test::temp_dir dir("application-list-kind");
    const auto other = dir.write("custom.json", R"({"applicationTable": 1})");
    EXPECT_EQ(run_config_check({other}, out, err), 1);
    EXPECT_THAT(out.str(),
                ::testing::HasSubstr("1:22: expected an object for \"applicationTable\""));
}

}  // namespace
}  // namespace config_check

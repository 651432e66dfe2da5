#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "../support/temp_dir.hpp"
#include "msg_log.hpp"
#include "run_config_check.hpp"
#include "transceiver_catalogue.hpp"

namespace config_check {
namespace {

using qsfpd::test::temp_dir;
using ::testing::ElementsAreArray;

struct check_case {
    std::string name;
    std::string text;
    std::vector<std::string> lines;  // each after "FILE:"
    int status;
};

struct run_result {
    int status;
    std::vector<std::string> lines;
    std::string err;
};

run_result run(const std::vector<std::string>& args) {
    std::ostringstream out;
    std::ostringstream err;
    run_result result{run_config_check(args, out, err), {}, err.str()};
    std::istringstream lines(out.str());
    for (std::string line; std::getline(lines, line);)
        result.lines.push_back(line);
    return result;
}

const std::vector<check_case> cases{
    {"CleanEntry",
     R"({"passiveTransceiverList": [
 {"vendor": "FS", "partNumber": "Q28-PC**", "description": "DAC", "isAutoNeg": true}]})",
     {},
     0},
    {"RootNotAnObject",
     R"(["passiveTransceiverList"])",
     {"1:1: expected an object at the top level, found an array"},
     1},
    {"ListNotAnArray",
     R"({"passiveTransceiverList": {}})",
     {"1:28: expected an array for \"passiveTransceiverList\", found an object"},
     1},
    {"EntryNotAnObject",
     R"({"passiveTransceiverList": [
 {"vendor": "V", "partNumber": "P", "description": "d"}, "P2"]})",
     {"2:58: expected an object for each entry of \"passiveTransceiverList\", found a string "
      "(\"P2\")"},
     1},
    {"DescriptionMissing",
     R"({"optical1LaneTransceiverList": [
 {"vendor": "V", "partNumber": "P"}]})",
     {"2:2: expected member \"description\" (a string), found an entry without it"},
     1},
    {"FlagNotABoolean",
     R"({"opticalDD4LaneTransceiverList": [
 {"vendor": "V", "partNumber": "P", "description": "für 100G", "isCertified": null}]})",
     {"2:79: expected true or false for \"isCertified\", found null"},
     1},
    {"MisspeltListIsAWarning",
     R"({"optical4LaneTranscieverList": [],
 "comment": [{"vendor": 1}]})",
     {"1:2: warning: expected \"optical4LaneTransceiverList\", found "
      "\"optical4LaneTranscieverList\" (the daemon ignores unknown members)",
      "2:2: warning: expected a list name, found \"comment\" (the daemon ignores unknown "
      "members)"},
     0},
    {"MisspeltFlagIsAWarning",
     R"({"passiveTransceiverList": [
 {"vendor": "V", "partNumber": "P", "description": "d", "isFEC": 1}]})",
     {"2:57: warning: expected \"isFec\", found \"isFEC\" (the daemon ignores unknown keys)"},
     0},
    {"NamesThatNeverMatch",
     R"({"passiveTransceiverList": [
 {"vendor": "Dell", "partNumber": " 3mfxg", "description": "d"}]})",
     {"2:13: warning: expected an upper-case vendor, found \"Dell\" (a module's vendor is "
      "upper-cased before matching: this entry never matches)",
      "2:35: warning: expected a part-number pattern without surrounding blanks, found "
      "\" 3mfxg\" (a module's part number is trimmed before matching: this entry never matches)",
      "2:35: warning: expected an upper-case part-number pattern, found \" 3mfxg\" (a module's "
      "part number is upper-cased before matching: this entry never matches)"},
     0},
    // Lists are read in their fixed order: the 4-lane entry is the first, the passive one repeats
    // it and inherits its isAutoNeg.
    {"RepeatAndInheritFollowTheReadingOrder",
     R"({"passiveTransceiverList": [
 {"vendor": "V", "partNumber": "P", "description": "passive"}],
 "optical4LaneTransceiverList": [
 {"vendor": "V", "partNumber": "P", "description": "4-lane", "isAutoNeg": true}]})",
     {"2:2: warning: expected \"isAutoNeg\" in this entry, found none: it inherits true from "
      "4:75",
      "2:2: warning: expected each vendor and part number once, found \"V\" \"P\" again, first "
      "at 4:2 (modules get the handler of \"passiveTransceiverList\" with the first entry's "
      "description and flags)"},
     0},
    // The daemon reads the first of two equal names: a bad second one stops nothing.
    {"RepeatedNamesAreWarnings",
     R"({"passiveTransceiverList": [
 {"vendor": "V", "vendor": 5, "partNumber": "P", "description": "d"}],
 "passiveTransceiverList": 1})",
     {"2:18: warning: expected \"vendor\" once in this entry, found it again (the daemon reads "
      "only the first)",
      "3:2: warning: expected \"passiveTransceiverList\" once in this object, found it again (the "
      "daemon reads only the first)"},
     0},
    {"SeveralProblemsAllReported",
     R"({"passiveTransceiverList": [
 {"vendor": 1, "partNumber": "P1", "description": "d", "isFec": "yes"},
 {"vendor": "v", "partNumber": "P2", "description": "d", "comment": 1},
 {"partNumber": "P3"}],
 "optical1LaneTransceiverList": "none"})",
     {"2:13: expected a string for \"vendor\", found a number (1)",
      "2:65: expected true or false for \"isFec\", found a string (\"yes\")",
      "3:13: warning: expected an upper-case vendor, found \"v\" (a module's vendor is "
      "upper-cased before matching: this entry never matches)",
      "3:58: warning: expected an entry key, found \"comment\" (the daemon ignores unknown keys)",
      "4:2: expected member \"description\" (a string), found an entry without it",
      "4:2: expected member \"vendor\" (a string), found an entry without it",
      "5:33: expected an array for \"optical1LaneTransceiverList\", found a string (\"none\")"},
     1},
    // Not JSON: the daemon reads nothing from the file.
    {"TrailingComma",
     "{\"passiveTransceiverList\": [\n {\"vendor\": \"V\",}]}",
     {"2:17: expected a member name in double quotes, found '}'"},
     1},
    {"MisspeltLiteral",
     "{\"passiveTransceiverList\": [\n {\"isFec\": True}]}",
     {"2:12: expected a JSON value, found the word True"},
     1},
    {"UnclosedString",
     "{\"passiveTransceiverList\": [\n {\"vendor\": \"V",
     {"2:15: "
      "expected a closing '\"', found the end of the file"},
     1},
    {"RawTabInAString",
     "{\"a\":\n\"x\ty\"}",
     {"2:3: expected control characters in a string written as escapes, found a tab"},
     1},
    {"BadEscape",
     R"({"a": "\x41"})",
     {"1:8: expected one of \\\" \\\\ \\/ \\b \\f \\n \\r \\t "
      "\\u, found \\x"},
     1},
    {"ByteOrderMark", "\xEF\xBB\xBF{}", {"1:1: expected a JSON value, found a byte-order mark"}, 1},
    {"SecondRoot",
     "{}\n{}",
     {"2:1: expected the end of the file after the top-level value, "
      "found '{'"},
     1},
    {"EmptyFile", "", {"1:1: expected a JSON value, found the end of the file"}, 1},
    {"NestedTooDeep",
     std::string(200, '[') + std::string(200, ']'),
     {"1:65: expected at most 64 levels of nesting, found an array at level 65"},
     1},
};

class ConfigCheck : public ::testing::TestWithParam<check_case> {
  protected:
    temp_dir dir{"config-check"};
};

TEST_P(ConfigCheck, ReportsExactlyTheseLines) {
    const auto& c = GetParam();
    const auto file = dir.write("transceiver_qsfp.json", c.text);
    std::vector<std::string> expected;
    for (const auto& line : c.lines)
        expected.push_back(file + ":" + line);
    const auto result = run({file});
    EXPECT_THAT(result.lines, ElementsAreArray(expected));
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.err, "");
    // Warnings fail only a strict check.
    const bool warned = !c.lines.empty() && c.status == 0;
    EXPECT_EQ(run({"--strict", file}).status, warned ? 1 : c.status);
}

// What the checker calls an error is what stops the daemon: nothing more, nothing less.
TEST_P(ConfigCheck, LoaderStopsExactlyOnTheCheckersErrors) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto& c = GetParam();
    const json_outline outline(c.text);
    const auto problems = check_outline(outline, *kind_named("qsfp-catalogue"));
    const auto load = [&] {
        msg_log::init({.max_severity = msg_log::info, .to_stderr = true, .to_syslog = false});
        const auto map = qsfpd::load_probe_map(
            dir.write("transceiver_qsfp.json", c.text),
            [](qsfpd::catalogue_list) -> qsfpd::probe_factory { return [](auto&&...) {}; },
            "/dev/qsfp");
        // A text the daemon cannot parse leaves it without a catalogue, and alive.
        if (problems.syntax_failed() && !map.empty()) std::exit(3);
        std::exit(0);
    };
    if (problems.has_errors() && !problems.syntax_failed()) {
        EXPECT_DEATH(load(), "Transceiver info file is invalid: ");
    } else if (const auto& syntax = outline.syntax_error()) {
        // The daemon logs the parser's code alone: the same parse, the same code.
        EXPECT_EXIT(load(), ::testing::ExitedWithCode(0),
                    "\\[/dev/qsfp\\] " + std::to_string(static_cast<int>(syntax->code)) +
                        " \\(transceiver_catalogue");
    } else {
        EXPECT_EXIT(load(), ::testing::ExitedWithCode(0), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Catalogue, ConfigCheck, ::testing::ValuesIn(cases),
                         [](const auto& info) { return info.param.name; });

TEST(ConfigCheckFiles, TheShippedCatalogueIsClean) {
    const auto result = run({QSFPD_SOURCE_DIR "/etc/transceiver_qsfp.json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.lines, ::testing::IsEmpty());
}

TEST(ConfigCheckFiles, KindByOptionNameOrContentEveryFileCheckedAndTheWorstStatusWins) {
    temp_dir dir("config-check-files");
    const auto listed = dir.write("a.json", R"({"passiveTransceiverList": 1})");
    const auto empty = dir.write("b.json", "{}");
    // By content: a list name makes it a catalogue.
    EXPECT_EQ(run({listed}).status, 1);
    // Nothing tells what "{}" in b.json is meant to be.
    const auto unknown = run({empty});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.err,
                ::testing::HasSubstr("name it with --kind (qsfp-catalogue, application-list)"));
    EXPECT_EQ(run({"--kind", "qsfp-catalogue", empty}).status, 0);
    EXPECT_EQ(run({"--kind=qsfp-catalogue", empty}).status, 0);
    EXPECT_EQ(run({"--kind", "sfp", empty}).status, 2);

    const auto bad = dir.write("transceiver_qsfp.json", "[]");
    const auto absent = (dir.path() / "absent.json").string();
    const auto result = run({absent, bad});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "qsfp-config-check: cannot read " + absent + ": No such file or directory\n");
    EXPECT_THAT(result.lines, ElementsAreArray({bad + ":1:1: expected an object at the top "
                                                      "level, found an array"}));
    EXPECT_EQ(run({}).status, 2);
    EXPECT_EQ(run({"--bogus", bad}).status, 2);
    EXPECT_EQ(run({"--help"}).status, 0);
}

}  // namespace
}  // namespace config_check

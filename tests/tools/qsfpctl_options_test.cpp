#include <gtest/gtest.h>

#include <chrono>
#include <variant>

#include "clock_text.hpp"
#include "column_table.hpp"
#include "ctl_options.hpp"
#include "json_text.hpp"
#include "qsfpctl_fixture.hpp"
#include "scoped_time_zone.hpp"

namespace qsfpctl::test {
namespace {

ctl_options parsed(const std::vector<std::string>& args) {
    auto result = parse_ctl_options(args);
    if (auto* problem = std::get_if<usage_error>(&result)) {
        ADD_FAILURE() << "refused: " << problem->message;
        return {};
    }
    return std::get<ctl_options>(result);
}

TEST(QsfpctlOptions, DefaultsAndEveryOptionSpelling) {
    const auto defaults = parsed({"ls"});
    EXPECT_EQ(defaults.host, "127.0.0.1");
    EXPECT_EQ(defaults.port, 2500);
    EXPECT_EQ(defaults.socket_path, "");
    EXPECT_FALSE(defaults.json);
    EXPECT_EQ(defaults.command, "ls");
    EXPECT_TRUE(defaults.arguments.empty());

    for (const auto& args : std::vector<std::vector<std::string>>{
             {"-H", "mod3", "-p", "2599", "-t", "1500", "--json", "get", "a"},
             {"-Hmod3", "-p2599", "-t1500", "--json", "get", "a"},
             {"--host=mod3", "--port=2599", "--timeout=1500", "--json", "get", "a"},
             {"--host", "mod3", "--port", "2599", "--timeout", "1500", "--json", "get", "a"}}) {
        const auto options = parsed(args);
        EXPECT_EQ(options.host, "mod3");
        EXPECT_EQ(options.port, 2599);
        EXPECT_EQ(options.timeout, std::chrono::milliseconds(1500));
        EXPECT_TRUE(options.json);
        EXPECT_EQ(options.command, "get");
        EXPECT_EQ(options.arguments, std::vector<std::string>{"a"});
    }
    EXPECT_EQ(parsed({"-s", "/tmp/device_handlers/qsfp/3", "ls"}).socket_path,
              "/tmp/device_handlers/qsfp/3");
    EXPECT_EQ(parsed({"--socket=/tmp/x", "ls"}).socket_path, "/tmp/x");
}

TEST(QsfpctlOptions, WordsAfterTheCommandAreArgumentsEvenWhenTheyLookLikeOptions) {
    const auto negative = parsed({"set", "config/level", "-5"});
    EXPECT_EQ(negative.command, "set");
    EXPECT_EQ(negative.arguments, (std::vector<std::string>{"config/level", "-5"}));
    const auto late_flag = parsed({"get", "data/temperature", "--json"});
    EXPECT_FALSE(late_flag.json);
    EXPECT_EQ(late_flag.arguments, (std::vector<std::string>{"data/temperature", "--json"}));
    EXPECT_EQ(parsed({"--", "ls"}).command, "ls");
}

TEST(QsfpctlOptions, BadUsageExitsTwoWithTheReasonAndTheUsageOnStderr) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{}, "no command given"},
        {{"--json"}, "no command given"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"get"}, "wrong number of arguments for 'get'"},
        {{"set", "config/level"}, "wrong number of arguments for 'set'"},
        {{"set", "config/level", "1", "2"}, "wrong number of arguments for 'set'"},
        {{"run"}, "wrong number of arguments for 'run'"},
        {{"run", "commands/restart", "true", "extra"}, "wrong number of arguments for 'run'"},
        {{"info"}, "wrong number of arguments for 'info'"},
        {{"info", "a", "b"}, "wrong number of arguments for 'info'"},
        {{"ls", "a", "b"}, "wrong number of arguments for 'ls'"},
        {{"tree", "a", "b"}, "wrong number of arguments for 'tree'"},
        {{"watch"}, "wrong number of arguments for 'watch'"},
        {{"--verbose", "ls"}, "unknown option '--verbose'"},
        {{"-p"}, "option -p needs a port"},
        {{"-p", "http", "ls"}, "invalid port 'http' (1 to 65535)"},
        {{"-p", "0", "ls"}, "invalid port '0' (1 to 65535)"},
        {{"-p", "65536", "ls"}, "invalid port '65536' (1 to 65535)"},
        {{"-t", "0", "ls"}, "invalid timeout '0' (1 to 3600000 ms)"},
        {{"-H", "", "ls"}, "option -H needs a host"},
        {{"-s", "/tmp/x", "-p", "2599", "ls"}, "-s cannot be combined with -H or -p"},
        {{"-H", "mod3", "-s", "/tmp/x", "ls"}, "-s cannot be combined with -H or -p"},
    };
    for (const auto& [args, reason] : cases) {
        const auto result = run_ctl(args);
        EXPECT_EQ(result.status, 2) << reason;
        EXPECT_EQ(result.out, "") << reason;
        EXPECT_EQ(result.err, "qsfpctl: " + reason + "\n\n" + usage_text());
    }
}

TEST(QsfpctlOptions, HelpGoesToStdoutWithStatusZero) {
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"-h"}, {"--help"}, {"help"}, {"-h", "get"}}) {
        const auto result = run_ctl(args);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, usage_text());
        EXPECT_EQ(result.err, "");
    }
    EXPECT_NE(usage_text().find("Usage: qsfpctl [-H HOST] [-p PORT | -s SOCKET]"),
              std::string::npos);
}

TEST(QsfpctlValues, TextThatParsesAsJsonIsSentAsJsonAndAnythingElseAsAString) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"up", R"("up")"},
        {"12", "12"},
        {"-5", "-5"},
        {"2.5", "2.5"},
        {"true", "true"},
        {"null", "null"},
        {"[1,2]", "[1,2]"},
        {R"({"a":1})", R"({"a":1})"},
        {R"("quoted")", R"("quoted")"},
        {"12abc", R"("12abc")"},
        {"", R"("")"},
        {"say \"hi\"", R"("say \"hi\"")"},
    };
    for (const auto& [typed, sent] : cases)
        EXPECT_EQ(compact_json(parse_cli_value(typed)), sent) << typed;
}

TEST(QsfpctlValues, PrettyJsonIndentsByTwo) {
    const auto value = parse_cli_value(R"({"a":1,"b":[true]})");
    EXPECT_EQ(pretty_json(value), "{\n  \"a\": 1,\n  \"b\": [\n    true\n  ]\n}");
}

TEST(QsfpctlFormat, ColumnTablePadsTheFirstColumnToItsWidestEntry) {
    column_table table;
    EXPECT_TRUE(table.empty());
    table.add_row("a", "x");
    table.add_row("longer/path", "y");
    table.add_row("mid/path", "z z");
    std::ostringstream out;
    table.print(out);
    EXPECT_EQ(out.str(), "a            x\nlonger/path  y\nmid/path     z z\n");
}

TEST(QsfpctlFormat, TimeStampsInLocalTimeAndUtc) {
    // 2023-11-14T22:13:20.045Z
    const auto t =
        std::chrono::system_clock::time_point(std::chrono::milliseconds(1'700'000'000'045));
    {
        scoped_time_zone utc("UTC");
        EXPECT_EQ(local_clock_time(t), "22:13:20.045");
    }
    {
        scoped_time_zone east("XYZ-2");  // two hours ahead of UTC
        EXPECT_EQ(local_clock_time(t), "00:13:20.045");
        EXPECT_EQ(utc_iso_time(t), "2023-11-14T22:13:20.045Z");
    }
}

}  // namespace
}  // namespace qsfpctl::test

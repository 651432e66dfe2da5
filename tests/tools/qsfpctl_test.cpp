#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <sstream>

#include "../support/line_socket.hpp"
#include "../support/temp_dir.hpp"
#include "../support/test_owner.hpp"
#include "child_process.hpp"
#include "ctl_options.hpp"
#include "json_text.hpp"
#include "run_qsfpctl.hpp"

namespace qsfpctl::test {
namespace {
using namespace dh::api;
using namespace std::chrono_literals;
using namespace qsfpd::test;

struct ctl_result {
    int status;
    std::string out;
    std::string err;
    bool operator==(const ctl_result&) const = default;
};
std::ostream& operator<<(std::ostream& os, const ctl_result& r) {
    return os << "status " << r.status << "\n--- stdout:\n" << r.out << "--- stderr:\n" << r.err;
}

// qsfpctl with exactly these words, its output captured.
ctl_result run_ctl(const std::vector<std::string>& args, const watch_controls& controls = {}) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = run_qsfpctl(args, out, err, controls);
    return {status, out.str(), err.str()};
}

// The parsed options in one line, or the refusal.
std::string parsed(const std::vector<std::string>& args) {
    auto result = parse_ctl_options(args);
    if (auto* problem = std::get_if<usage_error>(&result)) return "refused: " + problem->message;
    const auto& o = std::get<ctl_options>(result);
    std::string text = o.host + ":" + std::to_string(o.port) + " socket=" + o.socket_path +
                       " timeout=" + std::to_string(o.timeout.count()) + (o.json ? " json " : " ") +
                       o.command;
    for (const auto& argument : o.arguments)
        text += " [" + argument + "]";
    return text;
}

TEST(QsfpctlOptions, DefaultsSpellingsAndWordsAfterTheCommandAsArguments) {
    const std::string tcp = "mod3:2599 socket= timeout=1500 json get [a]";
    const std::string defaults = "127.0.0.1:2500 socket= timeout=6000 ";
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"ls"}, defaults + "ls"},
        {{"-H", "mod3", "-p", "2599", "-t", "1500", "--json", "get", "a"}, tcp},
        {{"-Hmod3", "-p2599", "-t1500", "--json", "get", "a"}, tcp},
        {{"--host=mod3", "--port=2599", "--timeout=1500", "--json", "get", "a"}, tcp},
        {{"--host", "mod3", "--port", "2599", "--timeout", "1500", "--json", "get", "a"}, tcp},
        {{"-s", "/tmp/x", "ls"}, "127.0.0.1:2500 socket=/tmp/x timeout=6000 ls"},
        {{"--socket=/tmp/x", "ls"}, "127.0.0.1:2500 socket=/tmp/x timeout=6000 ls"},
        {{"--", "ls"}, defaults + "ls"},
        // Options end at the command word, so "-5" is a value.
        {{"set", "config/level", "-5"}, defaults + "set [config/level] [-5]"},
        {{"get", "data/temperature", "--json"}, defaults + "get [data/temperature] [--json]"},
    };
    for (const auto& [args, expected] : rows)
        EXPECT_EQ(parsed(args), expected) << ::testing::PrintToString(args);
}

TEST(QsfpctlOptions, BadUsageExitsTwoWithTheReasonAndTheUsageOnStderr) {
    std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{}, "no command given"},
        {{"--json"}, "no command given"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
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
    for (const char* words : {"get", "set a", "set a 1 2", "run", "run a b c", "info", "info a b",
                              "ls a b", "tree a b", "watch"}) {
        std::istringstream in(words);
        std::vector<std::string> args{std::istream_iterator<std::string>(in), {}};
        cases.emplace_back(args, "wrong number of arguments for '" + args[0] + "'");
    }
    for (const auto& [args, reason] : cases)
        EXPECT_EQ(run_ctl(args), (ctl_result{2, "", "qsfpctl: " + reason + "\n\n" + usage_text()}));
}

TEST(QsfpctlOptions, HelpGoesToStdoutWithStatusZero) {
    EXPECT_EQ(usage_text().rfind("Usage: qsfpctl [-H HOST] [-p PORT | -s SOCKET]", 0), 0u);
    for (const auto& args :
         std::vector<std::vector<std::string>>{{"-h"}, {"--help"}, {"help"}, {"-h", "get"}})
        EXPECT_EQ(run_ctl(args), (ctl_result{0, usage_text(), ""}));
}

TEST(QsfpctlValues, TextThatParsesAsJsonIsSentAsJsonAndAnythingElseAsAString) {
    for (const std::string json :
         {"12", "-5", "2.5", "true", "null", "[1,2]", R"({"a":1})", R"("q")"})
        EXPECT_EQ(compact_json(parse_cli_value(json)), json);
    const std::pair<std::string, std::string> strings[] = {{"up", R"("up")"},
                                                           {"12abc", R"("12abc")"},
                                                           {"", R"("")"},
                                                           {"say \"hi\"", R"("say \"hi\"")"}};
    for (const auto& [text, sent] : strings)
        EXPECT_EQ(compact_json(parse_cli_value(text)), sent) << text;
    EXPECT_EQ(pretty_json(parse_cli_value(R"({"a":1,"b":[true]})")),
              "{\n  \"a\": 1,\n  \"b\": [\n    true\n  ]\n}");
}

// A real server on a free TCP port and a Unix socket publishing one node of each kind qsfpctl
// meets. Local time is two hours ahead of UTC, so that local and UTC time stamps differ.
class QsfpctlTest : public ::testing::Test {
  protected:
    QsfpctlTest() {
        ::setenv("TZ", "XYZ-2", 1);
        ::tzset();
        auto& db = server_.api->get_db();
        auto admin = config_param<&test_owner::set_admin>::create(
            db, "config/adminStatus", owner_, std::vector<std::string>{"up", "down"});
        admin->set_value("down");
        auto level = config_param<&test_owner::set_level>::create(
            db, "config/level", owner_, min_max_range_t<std::int32_t>{0, 10});
        level->set_value(3);
        nodes_ = {
            admin,
            level,
            volatile_value<&test_owner::get_temperature>::create(db, "data/temperature", owner_),
            volatile_value<&test_owner::get_runtime_failure>::create(db, "data/txBias", owner_),
            const_value<std::string>::create(db, "inventory/vendor", owner_, "Acme Optics"),
            command<&test_owner::restart>::create(db, "commands/restart", owner_),
        };
    }

    // qsfpctl over TCP to this server.
    ctl_result ctl(std::vector<std::string> args, const watch_controls& controls = {}) {
        args.insert(args.begin(), {"-p", std::to_string(port_)});
        return run_ctl(args, controls);
    }
    // Runs the rows in order, each qsfpctl's words and what it must print and return.
    void expect_all(const std::vector<std::pair<std::vector<std::string>, ctl_result>>& rows) {
        for (const auto& [args, expected] : rows)
            EXPECT_EQ(ctl(args), expected) << ::testing::PrintToString(args);
    }

    temp_dir dir_{"qsfpctl"};
    std::string socket_path_ = (dir_.path() / "qsfp" / "3").string();
    std::shared_ptr<test_owner> owner_ = std::make_shared<test_owner>();
    running_server server_{socket_path_};
    unsigned short port_ = server_.api->tcp_port();
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes_;
    std::shared_ptr<status_value<std::int32_t>> counter_ =
        status_value<std::int32_t>::create(server_.api->get_db(), "status/counter", owner_, 0);
    std::shared_ptr<status_value<bool>> ready_ =
        status_value<bool>::create(server_.api->get_db(), "status/moduleReady", owner_);
};

// The daemon's error texts and codes are guarded by the framework's tests; these rows guard how
// qsfpctl passes them on.
TEST_F(QsfpctlTest, GetAndRunPrintTheResultOrTheDaemonsTextAndCodeOnStderr) {
    expect_all({
        {{"get", "data/temperature"}, {0, "21.5\n", ""}},
        // One bad path among several: the good ones still print.
        {{"get", "data/temperature", "data/txBias", "inventory/vendor"},
         {1, "data/temperature = 21.5\ninventory/vendor = \"Acme Optics\"\n",
          "qsfpctl: data/txBias: Runtime error (bus gone) (error -5)\n"}},
        {{"get", "status/moduleReady"},
         {1, "", "qsfpctl: status/moduleReady: Value has not been set (error -61)\n"}},
        {{"run", "commands/restart", "true"}, {0, "\"restarted hard\"\n", ""}},
        // No argument is sent as null, which a command taking a bool refuses.
        {{"run", "commands/restart"},
         {1, "", "qsfpctl: commands/restart: Expected a boolean value (error -22)\n"}},
    });
}

TEST_F(QsfpctlTest, SetSendsAPlainWordAsAStringAndJsonAsJson) {
    expect_all({
        {{"set", "config/adminStatus", "up"}, {0, "", ""}},
        {{"get", "config/adminStatus"}, {0, "\"up\"\n", ""}},
        {{"set", "config/adminStatus", "\"down\""}, {0, "", ""}},
        {{"set", "config/level", "7"}, {0, "", ""}},
        {{"get", "config/level", "config/adminStatus"},
         {0, "config/level = 7\nconfig/adminStatus = \"down\"\n", ""}},
        {{"set", "config/level", "\"7\""},
         {1, "", "qsfpctl: config/level: Expected an integer value (error -22)\n"}},
    });
}

TEST_F(QsfpctlTest, InfoLsAndTreePrintAlignedColumnsAndFailOnUnreadableNodes) {
    const std::string vendor_info =
        R"~({"path":"inventory/vendor","description":"const value (read)","valueType":"unknown",)~"
        R"("capabilities":{"read":true},"type":"const value"})";
    expect_all({
        // Text is the pretty form of what --json shows as it comes.
        {{"info", "inventory/vendor"}, {0, pretty_json(parse_cli_value(vendor_info)) + "\n", ""}},
        {{"--json", "info", "inventory/vendor"}, {0, vendor_info + "\n", ""}},
        {{"info", "nosuch"}, {1, "", "qsfpctl: nosuch: No such node: nosuch (error -2)\n"}},
        {{"ls", "config"},
         {0, "config/adminStatus  config param\nconfig/level        config param\n", ""}},
        {{"ls", "nosuch"}, {1, "", "qsfpctl: no node at or below 'nosuch'\n"}},
        {{"tree"},
         {1,
          "commands/restart    <not readable: command>\n"
          "config/adminStatus  \"down\"\n"
          "config/level        3\n"
          "data/temperature    21.5\n"
          "data/txBias         <error -5: Runtime error (bus gone)>\n"
          "inventory/vendor    \"Acme Optics\"\n"
          "status/counter      0\n"
          "status/moduleReady  <error -61: Value has not been set>\n",
          "qsfpctl: 2 of 8 nodes could not be read\n"}},
        {{"tree", "nosuch"}, {1, "", "qsfpctl: no node at or below 'nosuch'\n"}},
    });
}

TEST_F(QsfpctlTest, JsonOutputIsTheRawResultOrAnObjectPerPath) {
    expect_all({
        {{"--json", "get", "inventory/vendor"}, {0, "\"Acme Optics\"\n", ""}},
        {{"--json", "get", "data/temperature", "data/txBias"},
         {1,
          R"([{"path":"data/temperature","value":21.5},)"
          R"~({"path":"data/txBias","error":{"code":-5,"message":"Runtime error (bus gone)"}}])~"
          "\n",
          "qsfpctl: data/txBias: Runtime error (bus gone) (error -5)\n"}},
        {{"--json", "set", "config/level", "4"}, {0, "true\n", ""}},
        {{"--json", "ls", "inventory"},
         {0, "[{\"path\":\"inventory/vendor\",\"type\":\"const value\"}]\n", ""}},
        {{"--json", "tree", "status"},
         {1,
          R"([{"path":"status/counter","type":"status value","value":0},)"
          R"({"path":"status/moduleReady","type":"status value",)"
          R"("error":{"code":-61,"message":"Value has not been set"}}])"
          "\n",
          "qsfpctl: 1 of 2 nodes could not be read\n"}},
        {{"--json", "tree", "commands/restart"},
         {0, "[{\"path\":\"commands/restart\",\"type\":\"command\"}]\n", ""}},
    });
}

TEST_F(QsfpctlTest, UnixSocketAndHostNameReachTheSameServer) {
    EXPECT_EQ(run_ctl({"-s", socket_path_, "get", "data/temperature"}),
              (ctl_result{0, "21.5\n", ""}));
    EXPECT_EQ(run_ctl({"-s", socket_path_, "set", "config/level", "9"}), (ctl_result{0, "", ""}));
    EXPECT_EQ(run_ctl({"-H", "localhost", "-p", std::to_string(port_), "get", "config/level"}),
              (ctl_result{0, "9\n", ""}));
}

TEST_F(QsfpctlTest, NoDaemonIsAClearMessageAndStatusThree) {
    server_.stop();
    EXPECT_EQ(ctl({"get", "data/temperature"}),
              (ctl_result{3, "",
                          "qsfpctl: cannot connect to 127.0.0.1:" + std::to_string(port_) +
                              " (is qsfpd running?)\n"}));
    EXPECT_EQ(run_ctl({"-s", "/nonexistent/qsfp/3", "ls"}),
              (ctl_result{3, "",
                          "qsfpctl: cannot connect to /nonexistent/qsfp/3 (is qsfpd running?)\n"}));
}

// Stops after `events` changes; time stamps step by 1.001 s from 2023-11-14T22:13:20.045Z. The
// idle limit only turns a lost notification into a failure instead of a hang.
watch_controls bounded(std::size_t events) {
    watch_controls controls;
    controls.max_events = events;
    controls.idle_limit = 10s;
    controls.now = [next = std::chrono::system_clock::time_point(1'700'000'000'045ms)]() mutable {
        return std::exchange(next, next + 1001ms);
    };
    return controls;
}

TEST_F(QsfpctlTest, WatchPrintsCurrentValuesThenOneLinePerChangeFromAnyClient) {
    auto controls = bounded(3);
    controls.on_subscribed = [&] {
        counter_->update(5);
        counter_->update(5);  // no change: no line
        EXPECT_EQ(ctl({"set", "config/adminStatus", "up"}).status, 0);
        ready_->update(true);
    };
    // Local time, two hours ahead of UTC; a value never set starts from null.
    EXPECT_EQ(
        ctl({"watch", "config/adminStatus", "status/counter", "status/moduleReady"}, controls),
        (ctl_result{0,
                    "00:13:20.045 config/adminStatus = \"down\"\n"
                    "00:13:21.046 status/counter = 0\n"
                    "00:13:22.047 status/moduleReady = null\n"
                    "00:13:23.048 status/counter = 5\n"
                    "00:13:24.049 config/adminStatus = \"up\"\n"
                    "00:13:25.050 status/moduleReady = true\n",
                    ""}));
}

// Changes are printed as the current values are.
TEST_F(QsfpctlTest, WatchInJsonPrintsOneObjectPerLineWithUtcTimes) {
    EXPECT_EQ(ctl({"--json", "watch", "status/counter"}, bounded(0)),
              (ctl_result{0,
                          R"({"time":"2023-11-14T22:13:20.045Z","path":"status/counter","value":0})"
                          "\n",
                          ""}));
}

TEST_F(QsfpctlTest, WatchRefusesPathsThatCannotBeSubscribedBeforePrintingAnything) {
    EXPECT_EQ(ctl({"watch", "status/counter", "nosuch"}, bounded(1)),
              (ctl_result{1, "", "qsfpctl: nosuch: No such node: nosuch (error -2)\n"}));
}

TEST_F(QsfpctlTest, WatchReportsALostConnectionWithStatusThree) {
    auto controls = bounded(1);
    controls.on_subscribed = [&] { server_.stop(); };
    const auto result = ctl({"watch", "status/counter"}, controls);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err, "qsfpctl: connection to 127.0.0.1:" + std::to_string(port_) + " lost\n");
}

TEST_F(QsfpctlTest, WatchingBinaryEndsCleanlyOnSigintAndSigterm) {
    for (const int signal : {SIGINT, SIGTERM}) {
        child_process watcher(
            {QSFPCTL_BINARY, "-p", std::to_string(port_), "watch", "status/counter"});
        // The signal handlers are in place once the current value is printed.
        ASSERT_TRUE(watcher.read_line()) << watcher.output();
        counter_->update(signal);
        EXPECT_TRUE(watcher.read_line().value_or("").ends_with(" status/counter = " +
                                                               std::to_string(signal)));
        watcher.send_signal(signal);
        EXPECT_EQ(watcher.wait_exit(), 0) << "signal " << signal;
        EXPECT_EQ(watcher.output(), "");
    }
}

TEST(QsfpctlBinary, ExitsWithTheStatusOfItsCommand) {
    child_process usage({QSFPCTL_BINARY});
    EXPECT_EQ(usage.wait_exit(), 2);
    EXPECT_EQ(usage.output().rfind("qsfpctl: no command given\n", 0), 0u);
}

}  // namespace
}  // namespace qsfpctl::test

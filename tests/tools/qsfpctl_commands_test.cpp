#include <gtest/gtest.h>

#include "qsfpctl_fixture.hpp"

namespace qsfpctl::test {
namespace {

TEST_F(QsfpctlTest, GetPrintsTheValueAloneForOnePathAndPathEqualsValueForSeveral) {
    auto one = ctl({"get", "data/temperature"});
    EXPECT_EQ(one.status, 0);
    EXPECT_EQ(one.out, "21.5\n");
    EXPECT_EQ(one.err, "");

    auto several = ctl(
        {"get", "data/temperature", "inventory/vendor", "config/adminStatus", "status/counter"});
    EXPECT_EQ(several.status, 0);
    EXPECT_EQ(several.out,
              "data/temperature = 21.5\ninventory/vendor = \"Acme Optics\"\nconfig/adminStatus = "
              "\"down\"\n"
              "status/counter = 0\n");
    EXPECT_EQ(several.err, "");
}

TEST_F(QsfpctlTest, GetFailuresShowTheDaemonsTextAndCodeOnStderr) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"nosuch/node", "No such node: nosuch/node (error -2)"},
        {"data/txBias", "Runtime error (bus gone) (error -5)"},
        {"status/moduleReady", "Value has not been set (error -61)"},
        {"commands/restart", "Operation 'get' is not supported by command (error -95)"},
    };
    for (const auto& [path, text] : cases) {
        auto result = ctl({"get", path});
        EXPECT_EQ(result.status, 1) << path;
        EXPECT_EQ(result.out, "") << path;
        EXPECT_EQ(result.err, "qsfpctl: " + path + ": " + text + "\n");
    }
}

TEST_F(QsfpctlTest, GetOfSeveralPathsPrintsTheGoodOnesAndFailsForTheBadOne) {
    auto result = ctl({"get", "data/temperature", "data/txBias", "inventory/vendor"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "data/temperature = 21.5\ninventory/vendor = \"Acme Optics\"\n");
    EXPECT_EQ(result.err, "qsfpctl: data/txBias: Runtime error (bus gone) (error -5)\n");
}

TEST_F(QsfpctlTest, NodeOfAReleasedOwnerReportsItHasBeenRemoved) {
    auto gone = std::make_shared<ctl_test_owner>();
    auto node = dh::api::volatile_value<&ctl_test_owner::get_temperature>::create(
        server_.db(), "data/orphan", gone);
    gone.reset();
    auto result = ctl({"get", "data/orphan"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qsfpctl: data/orphan: Object has been removed (error -19)\n");
}

TEST_F(QsfpctlTest, SetSendsAPlainWordAsAStringAndJsonAsJson) {
    auto word = ctl({"set", "config/adminStatus", "up"});
    EXPECT_EQ(word.status, 0);
    EXPECT_EQ(word.out, "");
    EXPECT_EQ(word.err, "");
    EXPECT_EQ(owner_->admin(), "up");
    EXPECT_EQ(ctl({"get", "config/adminStatus"}).out, "\"up\"\n");

    auto quoted = ctl({"set", "config/adminStatus", "\"down\""});
    EXPECT_EQ(quoted.status, 0);
    EXPECT_EQ(owner_->admin(), "down");

    auto number = ctl({"set", "config/level", "7"});
    EXPECT_EQ(number.status, 0);
    EXPECT_EQ(owner_->level(), 7);
    EXPECT_EQ(ctl({"get", "config/level"}).out, "7\n");
}

TEST_F(QsfpctlTest, RefusedSetsExitNonZeroWithTheNodesText) {
    const std::vector<std::tuple<std::string, std::string, std::string>> cases{
        {"config/level", "11", "Value 11 is out of range, allowed range is [0, 10] (error -22)"},
        {"config/level", "-5", "Value -5 is out of range, allowed range is [0, 10] (error -22)"},
        {"config/level", "\"7\"", "Expected an integer value (error -22)"},
        {"config/adminStatus", "sideways",
         R"(Value "sideways" is not allowed, allowed values are: "up", "down", "testing" (error -22))"},
        {"config/adminStatus", "testing",
         "Configuration refused by the module handler (error -22)"},
        {"data/temperature", "30",
         "Operation 'set' is not supported by volatile value (error -95)"},
        {"nosuch", "1", "No such node: nosuch (error -2)"},
    };
    for (const auto& [path, value, text] : cases) {
        auto result = ctl({"set", path, value});
        EXPECT_EQ(result.status, 1) << path << " " << value;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "qsfpctl: " + path + ": " + text + "\n");
    }
    // Nothing refused reached the handler or changed what clients read.
    EXPECT_EQ(owner_->level(), -1);
    EXPECT_EQ(owner_->admin(), "");
    EXPECT_EQ(ctl({"get", "config/level", "config/adminStatus"}).out,
              "config/level = 3\nconfig/adminStatus = \"down\"\n");
}

TEST_F(QsfpctlTest, RunPassesTheArgumentAndPrintsTheResponse) {
    auto hard = ctl({"run", "commands/restart", "true"});
    EXPECT_EQ(hard.status, 0);
    EXPECT_EQ(hard.out, "\"restarted hard\"\n");
    EXPECT_EQ(hard.err, "");
    EXPECT_EQ(owner_->last_action(), "hard restart");

    auto no_argument = ctl({"run", "commands/clearCounters"});
    EXPECT_EQ(no_argument.status, 0);
    EXPECT_EQ(no_argument.out, "null\n");
    EXPECT_EQ(owner_->last_action(), "counters cleared");
}

TEST_F(QsfpctlTest, RunFailuresShowTheDaemonsText) {
    // No argument is sent as null, which a command taking a bool refuses.
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{"run", "commands/restart"},
         "qsfpctl: commands/restart: Expected a boolean value (error -22)\n"},
        {{"run", "commands/restart", "yes"},
         "qsfpctl: commands/restart: Expected a boolean value (error -22)\n"},
        {{"run", "data/temperature"},
         "qsfpctl: data/temperature: Operation 'run' is not supported by volatile value (error "
         "-95)\n"},
    };
    for (const auto& [args, err] : cases) {
        auto result = ctl(args);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, err);
    }
    EXPECT_EQ(owner_->last_action(), "");
}

TEST_F(QsfpctlTest, InfoIsPrettyPrinted) {
    auto result = ctl({"info", "config/level"});
    EXPECT_EQ(result.status, 0);
    const std::string expected = R"json({
  "path": "config/level",
  "description": "config value (read,write,subscribe)",
  "type": "config param",
  "valueType": "32-bit signed integer",
  "capabilities": {
    "read": true,
    "write": true,
    "subscribe": true
  },
  "constraints": {
    "min": 0,
    "max": 10
  }
}
)json";
    EXPECT_EQ(result.out, expected);
    auto missing = ctl({"info", "nosuch"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "qsfpctl: nosuch: No such node: nosuch (error -2)\n");
}

TEST_F(QsfpctlTest, LsPrintsPathsAndTypesInAlignedColumns) {
    auto all = ctl({"ls"});
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.err, "");
    EXPECT_EQ(all.out,
              "commands/clearCounters  command\n"
              "commands/restart        command\n"
              "config/adminStatus      config param\n"
              "config/level            config param\n"
              "data/temperature        volatile value\n"
              "data/txBias             volatile value\n"
              "inventory/vendor        const value\n"
              "status/counter          status value\n"
              "status/moduleReady      status value\n");

    auto config = ctl({"ls", "config"});
    EXPECT_EQ(config.status, 0);
    EXPECT_EQ(config.out, "config/adminStatus  config param\nconfig/level        config param\n");

    auto nothing = ctl({"ls", "nosuch"});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_EQ(nothing.out, "");
    EXPECT_EQ(nothing.err, "qsfpctl: no node at or below 'nosuch'\n");
}

TEST_F(QsfpctlTest, TreeShowsEveryValueErrorsInlineAndMarksCommands) {
    auto result = ctl({"tree"});
    EXPECT_EQ(result.out,
              "commands/clearCounters  <not readable: command>\n"
              "commands/restart        <not readable: command>\n"
              "config/adminStatus      \"down\"\n"
              "config/level            3\n"
              "data/temperature        21.5\n"
              "data/txBias             <error -5: Runtime error (bus gone)>\n"
              "inventory/vendor        \"Acme Optics\"\n"
              "status/counter          0\n"
              "status/moduleReady      <error -61: Value has not been set>\n");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "qsfpctl: 2 of 9 nodes could not be read\n");
}

TEST_F(QsfpctlTest, TreeOfASubtreeThatReadsCleanlySucceeds) {
    auto result = ctl({"tree", "config"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "config/adminStatus  \"down\"\nconfig/level        3\n");
    EXPECT_EQ(result.err, "");

    auto commands = ctl({"tree", "commands"});
    EXPECT_EQ(commands.status, 0);

    auto nothing = ctl({"tree", "nosuch"});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_EQ(nothing.err, "qsfpctl: no node at or below 'nosuch'\n");
}

TEST_F(QsfpctlTest, JsonOutputIsTheRawResultOrAnObjectPerPath) {
    EXPECT_EQ(ctl({"--json", "get", "inventory/vendor"}).out, "\"Acme Optics\"\n");

    auto several = ctl({"--json", "get", "data/temperature", "data/txBias"});
    EXPECT_EQ(several.status, 1);
    const std::string several_json =
        "[{\"path\":\"data/temperature\",\"value\":21.5},"
        "{\"path\":\"data/txBias\",\"error\":{\"code\":-5,\"message\":\"Runtime error (bus "
        "gone)\"}}]\n";
    EXPECT_EQ(several.out, several_json);
    EXPECT_EQ(several.err, "qsfpctl: data/txBias: Runtime error (bus gone) (error -5)\n");

    auto set = ctl({"--json", "set", "config/level", "4"});
    EXPECT_EQ(set.status, 0);
    EXPECT_EQ(set.out, "true\n");

    EXPECT_EQ(ctl({"--json", "run", "commands/restart", "false"}).out, "\"restarted soft\"\n");

    const std::string info_json =
        "{\"path\":\"status/counter\",\"description\":\"status value (read,subscribe)\","
        "\"valueType\":\"32-bit signed "
        "integer\",\"capabilities\":{\"read\":true,\"subscribe\":true},"
        "\"type\":\"status value\"}\n";
    EXPECT_EQ(ctl({"--json", "info", "status/counter"}).out, info_json);

    const std::string ls_json =
        "[{\"path\":\"config/adminStatus\",\"type\":\"config param\"},"
        "{\"path\":\"config/level\",\"type\":\"config param\"}]\n";
    EXPECT_EQ(ctl({"--json", "ls", "config"}).out, ls_json);

    auto tree = ctl({"--json", "tree", "status"});
    EXPECT_EQ(tree.status, 1);
    const std::string tree_json =
        "[{\"path\":\"status/counter\",\"type\":\"status value\",\"value\":0},"
        "{\"path\":\"status/moduleReady\",\"type\":\"status value\","
        "\"error\":{\"code\":-61,\"message\":\"Value has not been set\"}}]\n";
    EXPECT_EQ(tree.out, tree_json);

    const std::string commands_json =
        "[{\"path\":\"commands/clearCounters\",\"type\":\"command\"},"
        "{\"path\":\"commands/restart\",\"type\":\"command\"}]\n";
    EXPECT_EQ(ctl({"--json", "tree", "commands"}).out, commands_json);
}

TEST_F(QsfpctlTest, UnixSocketAndHostNameReachTheSameServer) {
    auto local = run_ctl({"-s", socket_path_, "get", "data/temperature"});
    EXPECT_EQ(local.status, 0);
    EXPECT_EQ(local.out, "21.5\n");
    EXPECT_EQ(local.err, "");

    auto set = run_ctl({"-s", socket_path_, "set", "config/level", "9"});
    EXPECT_EQ(set.status, 0);
    EXPECT_EQ(owner_->level(), 9);

    auto by_name =
        run_ctl({"-H", "localhost", "-p", std::to_string(server_.port()), "get", "config/level"});
    EXPECT_EQ(by_name.status, 0);
    EXPECT_EQ(by_name.out, "9\n");
}

TEST(QsfpctlNotRunning, NoDaemonIsAClearMessageAndStatusThree) {
    const auto port = std::to_string(unused_tcp_port());
    auto tcp = run_ctl({"-p", port, "get", "data/temperature"});
    EXPECT_EQ(tcp.status, 3);
    EXPECT_EQ(tcp.out, "");
    EXPECT_EQ(tcp.err, "qsfpctl: cannot connect to 127.0.0.1:" + port + " (is qsfpd running?)\n");

    auto local = run_ctl({"-s", "/nonexistent/device_handlers/qsfp/3", "ls"});
    EXPECT_EQ(local.status, 3);
    EXPECT_EQ(
        local.err,
        "qsfpctl: cannot connect to /nonexistent/device_handlers/qsfp/3 (is qsfpd running?)\n");
}

}  // namespace
}  // namespace qsfpctl::test

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <regex>

#include "child_process.hpp"
#include "qsfpctl_fixture.hpp"
#include "scoped_time_zone.hpp"

namespace qsfpctl::test {
namespace {

using namespace std::chrono_literals;

// Time stamps one second and a millisecond apart from 2023-11-14T22:13:20.045Z.
std::function<std::chrono::system_clock::time_point()> stepping_clock() {
    auto next = std::make_shared<std::chrono::system_clock::time_point>(1'700'000'000'045ms);
    return [next] {
        const auto now = *next;
        *next += 1001ms;
        return now;
    };
}

// Bounded by events; the idle limit only turns a lost notification into a failure instead of
// a hang, it is never what ends a passing test.
watch_controls bounded(std::size_t events) {
    watch_controls controls;
    controls.max_events = events;
    controls.idle_limit = 10s;
    controls.now = stepping_clock();
    return controls;
}

TEST_F(QsfpctlTest, WatchPrintsTheCurrentValueThenOneLinePerChange) {
    scoped_time_zone utc("UTC");
    auto controls = bounded(2);
    controls.on_subscribed = [&] {
        counter_->update(1);
        counter_->update(1);  // no change: no notification
        counter_->update(2);
    };
    auto result = ctl({"watch", "status/counter"}, controls);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "22:13:20.045 status/counter = 0\n"
              "22:13:21.046 status/counter = 1\n"
              "22:13:22.047 status/counter = 2\n");
}

TEST_F(QsfpctlTest, WatchFollowsSeveralPathsIncludingAnotherClientsSet) {
    scoped_time_zone utc("UTC");
    auto controls = bounded(2);
    controls.on_subscribed = [&] {
        counter_->update(5);
        const auto set = ctl({"set", "config/adminStatus", "up"});
        EXPECT_EQ(set.status, 0) << set.err;
    };
    auto result = ctl({"watch", "config/adminStatus", "status/counter"}, controls);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "22:13:20.045 config/adminStatus = \"down\"\n"
              "22:13:21.046 status/counter = 0\n"
              "22:13:22.047 status/counter = 5\n"
              "22:13:23.048 config/adminStatus = \"up\"\n");
}

TEST_F(QsfpctlTest, WatchOfAValueNotSetYetStartsFromNull) {
    scoped_time_zone utc("UTC");
    auto ready = dh::api::status_value<bool>::create(server_.db(), "status/txReady", owner_);
    auto controls = bounded(1);
    controls.on_subscribed = [&] { ready->update(true); };
    auto result = ctl({"watch", "status/txReady"}, controls);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "22:13:20.045 status/txReady = null\n22:13:21.046 status/txReady = true\n");
}

TEST_F(QsfpctlTest, WatchInJsonPrintsOneObjectPerLine) {
    auto controls = bounded(1);
    controls.on_subscribed = [&] { counter_->update(-3); };
    auto result = ctl({"--json", "watch", "status/counter"}, controls);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              R"({"time":"2023-11-14T22:13:20.045Z","path":"status/counter","value":0})"
              "\n"
              R"({"time":"2023-11-14T22:13:21.046Z","path":"status/counter","value":-3})"
              "\n");
}

TEST_F(QsfpctlTest, WatchEndsWithStatusZeroWhenStopped) {
    std::atomic<bool> stop{false};
    watch_controls controls;
    controls.stop = &stop;
    controls.idle_limit = 10s;
    controls.on_subscribed = [&] { stop = true; };
    auto result = ctl({"watch", "status/counter"}, controls);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(
        std::regex_match(result.out, std::regex(R"(\d\d:\d\d:\d\d\.\d{3} status/counter = 0\n)")))
        << result.out;
}

TEST_F(QsfpctlTest, WatchRefusesPathsThatCannotBeSubscribedBeforePrintingAnything) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{"watch", "data/temperature"},
         "qsfpctl: data/temperature: Operation 'subscribe' is not supported by volatile value "
         "(error -95)\n"},
        {{"watch", "commands/restart"},
         "qsfpctl: commands/restart: Operation 'subscribe' is not supported by command (error "
         "-95)\n"},
        {{"watch", "status/counter", "nosuch"},
         "qsfpctl: nosuch: No such node: nosuch (error -2)\n"},
    };
    for (const auto& [args, err] : cases) {
        bool subscribed = false;
        auto controls = bounded(1);
        controls.on_subscribed = [&] { subscribed = true; };
        auto result = ctl(args, controls);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, err);
        EXPECT_FALSE(subscribed);
    }
}

TEST_F(QsfpctlTest, WatchReportsALostConnectionWithStatusThree) {
    auto controls = bounded(1);
    controls.on_subscribed = [&] { server_.shutdown(); };
    const auto port = std::to_string(server_.port());
    auto result = ctl({"watch", "status/counter"}, controls);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.err, "qsfpctl: connection to 127.0.0.1:" + port + " lost\n");
}

TEST_F(QsfpctlTest, WatchingBinaryEndsCleanlyOnSigintAndSigterm) {
    const std::regex stamped(R"(\d\d:\d\d:\d\d\.\d{3} status/counter = (-?\d+))");
    for (const int signal : {SIGINT, SIGTERM}) {
        child_process watcher(QSFPCTL_BINARY,
                              {"-p", std::to_string(server_.port()), "watch", "status/counter"});
        // The first line comes after the signal handlers are in place.
        const auto current = watcher.read_line();
        ASSERT_TRUE(current.has_value()) << watcher.stderr_text();
        std::smatch match;
        ASSERT_TRUE(std::regex_match(*current, match, stamped)) << *current;
        const int value = std::stoi(match[1]) + 1;
        counter_->update(value);
        const auto change = watcher.read_line();
        ASSERT_TRUE(change.has_value());
        ASSERT_TRUE(std::regex_match(*change, match, stamped)) << *change;
        EXPECT_EQ(std::stoi(match[1]), value);

        watcher.send_signal(signal);
        EXPECT_EQ(watcher.wait_exit(), 0) << "signal " << signal;
        EXPECT_EQ(watcher.rest_of_stdout(), "");
        EXPECT_EQ(watcher.stderr_text(), "");
    }
}

TEST(QsfpctlBinary, ExitStatusesOfTheProgram) {
    child_process usage(QSFPCTL_BINARY, {});
    EXPECT_EQ(usage.wait_exit(), 2);
    EXPECT_NE(usage.stderr_text().find("qsfpctl: no command given"), std::string::npos);

    const auto port = std::to_string(unused_tcp_port());
    child_process unreachable(QSFPCTL_BINARY, {"-p", port, "ls"});
    EXPECT_EQ(unreachable.wait_exit(), 3);
    EXPECT_EQ(unreachable.stderr_text(),
              "qsfpctl: cannot connect to 127.0.0.1:" + port + " (is qsfpd running?)\n");
}

}  // namespace
}  // namespace qsfpctl::test

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "../support/line_socket.hpp"
#include "../support/temp_dir.hpp"
#include "../tools/child_process.hpp"
#include "device_handler_api.hpp"
#include "device_handler_client.hpp"
#include "gearbox_options.hpp"
#include "gearbox_state.hpp"
#include "system_path.hpp"

namespace qsfpd::gearbox {
namespace {
using namespace std::chrono_literals;

gearbox_options parsed(const std::vector<std::string>& args) {
    auto result = parse_gearbox_options(args);
    if (auto* error = std::get_if<usage_error>(&result)) throw std::runtime_error(error->text);
    return std::get<gearbox_options>(result);
}

// The program's state served in-process on the socket qsfpd looks up, read as qsfpd reads it.
class Gearbox : public ::testing::Test {
  protected:
    void serve(const std::vector<std::string>& args) {
        const auto options = parsed(args);
        server_.emplace(options.server_name, device_handler_api::limits{}, true);
        state_ = gearbox_state::create(server_->api->get_db(), options.initial);
        client_ =
            std::make_shared<device_handler_client>(system_path("/tmp/device_handlers/bcm_gb"));
    }
    void TearDown() override {
        if (server_) server_->stop();
    }
    template <class T>
    T read(const std::string& path) {
        return device_handler_read_object<T>(client_, path).read();
    }
    // The served lanes as "lock/link" bits, lane 0 first.
    std::string lanes() {
        std::string lock, link;
        for (int lane = 0; lane < 4; ++lane) {
            const auto base = "data/debug/client/lane/" + std::to_string(lane);
            lock += read<bool>(base + "/hasLock") ? '1' : '0';
            link += read<bool>(base + "/hasLink") ? '1' : '0';
        }
        return lock + "/" + link;
    }

    test::qsfpd_root root_{"gearbox"};
    std::optional<test::running_server> server_;
    std::shared_ptr<gearbox_state> state_;
    std::shared_ptr<device_handler_client> client_;
};

TEST_F(Gearbox, ServesTheCommandLineValuesWhereQsfpdReadsThem) {
    serve({"--oper-status", "down", "--lock", "1101", "--link", "0111", "--warm-started"});
    EXPECT_EQ(read<std::string>("data/operStatus"), "down");
    EXPECT_TRUE(read<bool>("data/debug/isWarmStarted"));
    EXPECT_EQ(lanes(), "1101/0111");
    EXPECT_EQ(read<std::string>("config/operStatus"), "down");
    EXPECT_EQ(read<bool>("config/lane/2/hasLock"), false);
}

TEST_F(Gearbox, DefaultsAreUpAllLanesLockedAndLinkedAndColdStarted) {
    serve({});
    EXPECT_EQ(read<std::string>("data/operStatus"), "up");
    EXPECT_FALSE(read<bool>("data/debug/isWarmStarted"));
    EXPECT_EQ(lanes(), "1111/1111");
}

// Each config write changes its own data node alone, and a subscriber of that node hears of it.
TEST_F(Gearbox, AConfigWriteChangesTheDataNodeAndNotifiesItsSubscribers) {
    serve({});
    struct row {
        std::string config, value, data, lanes_after;
    };
    const row rows[] = {
        {"config/lane/3/hasLink", "false", "data/debug/client/lane/3/hasLink", "1111/1110"},
        {"config/lane/0/hasLock", "false", "data/debug/client/lane/0/hasLock", "0111/1110"},
        {"config/lane/1/hasLink", "false", "data/debug/client/lane/1/hasLink", "0111/1010"},
        {"config/lane/0/hasLock", "true", "data/debug/client/lane/0/hasLock", "1111/1010"},
        {"config/operStatus", "\"down\"", "data/operStatus", "1111/1010"},
        {"config/warmStarted", "true", "data/debug/isWarmStarted", "1111/1010"},
    };
    device_handler_client watcher(system_path("/tmp/device_handlers/bcm_gb"));
    for (const auto& r : rows) {
        SCOPED_TRACE(r.config + " = " + r.value);
        watcher.subscribe(r.data);
        rapidjson::Document value;
        value.Parse(r.value.c_str());
        client_->set(r.config, value);
        const auto heard = watcher.next_notification(5s);
        ASSERT_TRUE(heard.has_value());
        EXPECT_EQ(heard->path, r.data);
        EXPECT_EQ(heard->value, r.value);
        EXPECT_EQ(dh::to_json_text(client_->get(r.data)), r.value);
        EXPECT_EQ(lanes(), r.lanes_after);
        watcher.unsubscribe(r.data);
    }
    EXPECT_EQ(state_->describe(),
              "operStatus down, hasLock 1111, hasLink 1010, isWarmStarted true");
}

TEST_F(Gearbox, AStatusOtherThanUpOrDownAndWritesToDataNodesAreRefused) {
    serve({});
    rapidjson::Document value;
    value.SetString("sideways");
    EXPECT_THROW(client_->set("config/operStatus", value), dh_error);
    value.SetString("down");
    EXPECT_THROW(client_->set("data/operStatus", value), dh_error);
    EXPECT_EQ(read<std::string>("data/operStatus"), "up");
}

TEST(GearboxOptions, BadValuesAreRefusedWithTheirReason) {
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{"--lock", "11x1"},
         "--lock '11x1': expected four digits 0 or 1, lane 0 first (e.g. 1101)"},
        {{"--lock", "111"}, "--lock '111': expected four digits 0 or 1, lane 0 first (e.g. 1101)"},
        {{"--link", "11110"},
         "--link '11110': expected four digits 0 or 1, lane 0 first (e.g. 1101)"},
        {{"--oper-status", "Up"}, "--oper-status 'Up': expected up or down"},
        {{"--port", "65536"}, "--port 65536: above 65535"},
        {{"extra"}, "unexpected argument"},
    };
    for (const auto& [args, text] : rows) {
        auto result = parse_gearbox_options(args);
        ASSERT_TRUE(std::holds_alternative<usage_error>(result)) << text;
        EXPECT_EQ(std::get<usage_error>(result).text, text);
    }
    EXPECT_EQ(parsed({"-s", "/run/gb", "-p", "0"}).server_name, "/run/gb");
}

TEST(GearboxProgram, ABadLockTextExitsWithStatus2AndSaysWhy) {
    test::child_process program({QSFP_GEARBOX_BINARY, "--lock", "1121"});
    EXPECT_EQ(program.wait_exit(), 2);
    EXPECT_NE(program.output().find("qsfp-gearbox: --lock '1121': expected four digits"),
              std::string::npos)
        << program.output();
}

TEST(GearboxProgram, ServesUntilSigtermThenExitsCleanly) {
    test::qsfpd_root root("gearbox-program");
    test::child_process program({QSFP_GEARBOX_BINARY, "--port", "0", "--link", "1011"});
    std::optional<std::string> line;
    while ((line = program.read_line()) && line->find("Serving bcm_gb") == std::string::npos) {
    }
    ASSERT_TRUE(line.has_value()) << program.output();
    EXPECT_NE(line->find("hasLink 1011"), std::string::npos) << *line;
    auto client =
        std::make_shared<device_handler_client>(system_path("/tmp/device_handlers/bcm_gb"));
    EXPECT_FALSE(
        device_handler_read_object<bool>(client, "data/debug/client/lane/1/hasLink").read());
    program.send_signal(SIGTERM);
    EXPECT_EQ(program.wait_exit(), 0);
    EXPECT_NE(program.output().find("Stopped: operStatus up"), std::string::npos)
        << program.output();
}

}  // namespace
}  // namespace qsfpd::gearbox

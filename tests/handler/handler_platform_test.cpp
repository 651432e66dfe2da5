#include <atomic>
#include <future>
#include <thread>

#include "../support/line_socket.hpp"
#include "device_handler_api.hpp"
#include "device_handler_client.hpp"
#include "handler_test_support.hpp"

namespace qsfpd::handler_test {

// Plays the gearbox handler of a ZELT-20 board: its operational status is whatever the test
// says, and it counts how often the cage handler asked.
struct gearbox : std::enable_shared_from_this<gearbox> {
    std::string get_oper_status() {
        ++reads;
        return up ? "up" : "down";
    }
    std::atomic<bool> up{false};
    std::atomic<int> reads{0};
};

namespace {

struct gearbox_server {
    gearbox_server(const std::string& name, const std::shared_ptr<gearbox>& owner)
        : server(name, {}, true),
          node(dh::api::volatile_value<&gearbox::get_oper_status>::create(
              server.api->get_db(), "data/operStatus", owner)) {}
    ~gearbox_server() { server.stop(); }  // before the node goes

    test::running_server server;
    std::shared_ptr<dh_db_leaf_node> node;
};

class Platform : public handler_fixture {
  protected:
    std::string gearbox_name() const {
        return (root.path() / "tmp/device_handlers/bcm_gb").string();
    }

    // Lets one wait of the handler under construction pass: it is asleep, time moves a second, it
    // is asleep again or done.
    void one_second() {
        ASSERT_TRUE(clock->wait_for_sleepers(1));
        clock->advance(1s);
        for (int i = 0; i < 500; ++i) {
            if (clock->sleepers() >= 1) return;
            if (constructed.wait_for(10ms) == std::future_status::ready) return;
        }
        FAIL() << "the handler neither slept again nor finished";
    }
    std::size_t waiting_lines() {
        return logs.count("Waiting for bcm_gb handler to come up, qsfp");
    }
    std::future<std::shared_ptr<test_handler>> constructed;
};

TEST_F(Platform, OtherBoardsLogTheirLineWithoutAGearboxAndZelt40IsProbedBeforeZelt50) {
    for (const auto& [markers, line] : std::vector<std::pair<texts, std::string>>{
             {{}, ""},
             {{"zelt30"}, "QSFP ZELT-30 detected, qsfp3"},
             {{"zelt50"}, "QSFP ZELT-50 detected, qsfp3"},
             {{"zelt50", "zelt40"}, "QSFP ZELT-40 detected, qsfp3"}}) {
        SCOPED_TRACE(line);
        std::filesystem::remove_all(root.path() / "proc");
        for (const auto& marker : markers)
            root.make_marker(marker);
        insert("qsfp28_100g_lr4");
        logs.clear();
        auto handler = make_handler();
        EXPECT_EQ(handler->get_gearbox_client(), nullptr);
        // A board without a gearbox neither waits for one nor reports one (a wait would hang).
        EXPECT_EQ(logged("QSFP"), line.empty() ? texts{} : texts{line});
    }
}

// ZELT-20, probed before the other boards, waits a second at a time until its gearbox handler
// serves "up", and reports the wait once a minute.
TEST_F(Platform, Zelt20WaitsForItsGearboxHandler) {
    root.make_marker("zelt30");
    root.make_marker("zelt20");
    auto owner = std::make_shared<gearbox>();
    auto server = std::make_unique<gearbox_server>(gearbox_name(), owner);
    insert("qsfp28_100g_lr4");
    // The constructor waits for the gearbox on the clock, so it runs on a thread of its own.
    constructed = std::async(std::launch::async, [this] { return make_handler(); });
    // The gearbox handler serves "down"; its first read comes after a second, not before.
    ASSERT_TRUE(clock->wait_for_sleepers(1));
    EXPECT_EQ(owner->reads, 0);
    one_second();
    EXPECT_EQ(owner->reads, 1);
    EXPECT_EQ(waiting_lines(), 1u);
    // Gone: the failed reads are caught and the wait goes on, reported once a minute.
    server.reset();
    for (int second = 2; second <= 60; ++second)
        one_second();
    EXPECT_NE(constructed.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(waiting_lines(), 1u);
    one_second();
    EXPECT_EQ(waiting_lines(), 2u);
    EXPECT_EQ(logs.count("QSFP ZELT-20 detected"), 0u);

    // Back and up: the constructor finishes.
    owner->up = true;
    server = std::make_unique<gearbox_server>(gearbox_name(), owner);
    one_second();
    ASSERT_EQ(constructed.wait_for(5s), std::future_status::ready);
    auto handler = constructed.get();
    EXPECT_EQ(owner->reads, 2);
    EXPECT_EQ(waiting_lines(), 2u);
    EXPECT_EQ(logs.count("QSFP ZELT-30 detected"), 0u);
    for (const char* line :
         {"QSFP ZELT-20 detected qsfp", "QSFP: Gearbox handler is up for qsfp"}) {
        const auto records = logs.find(line);
        ASSERT_EQ(records.size(), 1u) << line;
        EXPECT_EQ(records[0].tag, "qsfp3/init");
    }
    ASSERT_NE(handler->get_gearbox_client(), nullptr);
    EXPECT_EQ(handler->get_gearbox_client()->target(), gearbox_name());
    // The client stays usable for the handlers that read lanes from the gearbox.
    EXPECT_EQ(
        device_handler_read_object<std::string>(handler->get_gearbox_client(), "data/operStatus")
            .read(),
        "up");
}

}  // namespace
}  // namespace qsfpd::handler_test

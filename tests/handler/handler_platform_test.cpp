#include <future>
#include <mutex>
#include <thread>

#include "device_handler_api.hpp"
#include "device_handler_client.hpp"
#include "handler_test_support.hpp"

namespace qsfpd::handler_test {

// Plays the gearbox handler of a ZELT-20 board: its operational status is whatever the test
// says, and it counts how often the cage handler asked.
struct gearbox : std::enable_shared_from_this<gearbox> {
    std::string get_oper_status() {
        std::lock_guard lock(mutex);
        ++reads;
        return status;
    }
    void set(std::string s) {
        std::lock_guard lock(mutex);
        status = std::move(s);
    }
    int read_count() {
        std::lock_guard lock(mutex);
        return reads;
    }
    std::mutex mutex;
    std::string status = "down";
    int reads = 0;
};

namespace {

class gearbox_server {
  public:
    gearbox_server(const std::string& name, std::shared_ptr<gearbox> owner)
        : server_(std::make_unique<device_handler_api>(name, 0, true, device_handler_api::limits{},
                                                       false)),
          node_(dh::api::volatile_value<&gearbox::get_oper_status>::create(
              server_->get_db(), "data/operStatus", owner)) {
        thread_ = std::thread([this] { server_->start(); });
    }
    ~gearbox_server() {
        server_->stop();
        thread_.join();
    }

  private:
    std::unique_ptr<device_handler_api> server_;
    std::shared_ptr<dh_db_leaf_node> node_;
    std::thread thread_;
};

class Platform : public handler_fixture {
  protected:
    std::string gearbox_name() const { return (root / "tmp/device_handlers/bcm_gb").string(); }

    // The constructor waits for the gearbox on the clock, so it runs on a thread of its own.
    std::future<std::shared_ptr<test_handler>> construct_async() {
        return std::async(std::launch::async, [this] { return make_handler(); });
    }
    // Lets one wait of the handler pass: it is asleep, time moves a second, it is asleep again
    // or done.
    void one_second(std::future<std::shared_ptr<test_handler>>& constructed) {
        ASSERT_TRUE(clock->wait_for_sleepers(1));
        clock->advance(1s);
        for (int i = 0; i < 500; ++i) {
            if (clock->sleepers() >= 1) return;
            if (constructed.wait_for(10ms) == std::future_status::ready) return;
        }
        FAIL() << "the handler neither slept again nor finished";
    }

    std::size_t platform_lines() {
        std::size_t n = 0;
        for (const auto& r : logs.records())
            if (r.text.find("ZELT") != std::string::npos ||
                r.text.find("bcm_gb") != std::string::npos ||
                r.text.find("Gearbox") != std::string::npos)
                ++n;
        return n;
    }
};

TEST_F(Platform, NoMarkerNoLogNoClient) {
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    EXPECT_EQ(handler->get_gearbox_client(), nullptr);
    EXPECT_EQ(platform_lines(), 0u);
}

TEST_F(Platform, Zelt30LogsItsLine) {
    make_marker("zelt30");
    insert("qsfp28_100g_lr4");
    auto handler = make_handler();
    const auto lines = logs.find("QSFP ZELT-30 detected, qsfp");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].tag, "qsfp3/init");
    EXPECT_EQ(platform_lines(), 1u);
    EXPECT_EQ(handler->get_gearbox_client(), nullptr);
}

TEST_F(Platform, Zelt40And50LogTheirLines) {
    make_marker("zelt50");
    insert("qsfp28_100g_lr4");
    auto first = make_handler();
    EXPECT_EQ(logs.count("QSFP ZELT-50 detected, qsfp"), 1u);
    first.reset();
    make_marker("zelt40");  // probed before zelt50
    auto second = make_handler();
    EXPECT_EQ(logs.count("QSFP ZELT-40 detected, qsfp"), 1u);
    EXPECT_EQ(logs.count("QSFP ZELT-50 detected, qsfp"), 1u);
}

TEST_F(Platform, Zelt20IsProbedFirst) {
    make_marker("zelt30");
    make_marker("zelt20");
    auto owner = std::make_shared<gearbox>();
    owner->set("up");
    gearbox_server server(gearbox_name(), owner);
    insert("qsfp28_100g_lr4");
    auto constructed = construct_async();
    one_second(constructed);
    ASSERT_EQ(constructed.wait_for(5s), std::future_status::ready);
    auto handler = constructed.get();
    EXPECT_EQ(logs.count("QSFP ZELT-30 detected"), 0u);
    EXPECT_EQ(logs.count("QSFP ZELT-20 detected qsfp"), 1u);
    EXPECT_NE(handler->get_gearbox_client(), nullptr);
}

TEST_F(Platform, Zelt20WithTheGearboxUpWaitsOneSecond) {
    make_marker("zelt20");
    auto owner = std::make_shared<gearbox>();
    owner->set("up");
    gearbox_server server(gearbox_name(), owner);
    insert("qsfp28_100g_lr4");
    auto constructed = construct_async();
    ASSERT_TRUE(clock->wait_for_sleepers(1));
    // The read comes after the first second, not before.
    EXPECT_EQ(owner->read_count(), 0);
    one_second(constructed);
    ASSERT_EQ(constructed.wait_for(5s), std::future_status::ready);
    auto handler = constructed.get();
    EXPECT_EQ(owner->read_count(), 1);

    EXPECT_EQ(logs.count("Waiting for bcm_gb handler to come up, "), 0u);
    const auto detected = logs.find("QSFP ZELT-20 detected qsfp");
    ASSERT_EQ(detected.size(), 1u);
    EXPECT_EQ(detected[0].tag, "qsfp3/init");
    const auto up = logs.find("QSFP: Gearbox handler is up for qsfp");
    ASSERT_EQ(up.size(), 1u);
    EXPECT_EQ(up[0].tag, "qsfp3/init");
    ASSERT_NE(handler->get_gearbox_client(), nullptr);
    EXPECT_EQ(handler->get_gearbox_client()->target(), gearbox_name());
    // The client stays usable for the handlers that read lanes from the gearbox.
    EXPECT_EQ(
        device_handler_read_object<std::string>(handler->get_gearbox_client(), "data/operStatus")
            .read(),
        "up");
}

TEST_F(Platform, Zelt20WaitsForAGearboxThatComesUpLate) {
    make_marker("zelt20");
    insert("qsfp28_100g_lr4");
    auto constructed = construct_async();

    // No gearbox server at all yet: the failed read is caught and the wait goes on.
    one_second(constructed);
    EXPECT_NE(constructed.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(logs.count("Waiting for bcm_gb handler to come up, qsfp"), 1u);

    // The gearbox handler is there but still down.
    auto owner = std::make_shared<gearbox>();
    gearbox_server server(gearbox_name(), owner);
    one_second(constructed);
    EXPECT_EQ(owner->read_count(), 1);
    EXPECT_NE(constructed.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(logs.count("QSFP ZELT-20 detected"), 0u);

    // Up: the constructor finishes.
    owner->set("up");
    one_second(constructed);
    ASSERT_EQ(constructed.wait_for(5s), std::future_status::ready);
    auto handler = constructed.get();
    EXPECT_EQ(owner->read_count(), 2);
    EXPECT_EQ(logs.count("QSFP ZELT-20 detected qsfp"), 1u);
    EXPECT_EQ(logs.count("QSFP: Gearbox handler is up for qsfp"), 1u);
    EXPECT_EQ(logs.count("Waiting for bcm_gb handler to come up, qsfp"), 1u);
}

TEST_F(Platform, Zelt20WaitIsReportedOnceAMinute) {
    make_marker("zelt20");
    insert("qsfp28_100g_lr4");
    auto constructed = construct_async();
    for (int second = 1; second <= 60; ++second)
        one_second(constructed);
    EXPECT_EQ(logs.count("Waiting for bcm_gb handler to come up, qsfp"), 1u);
    one_second(constructed);
    EXPECT_EQ(logs.count("Waiting for bcm_gb handler to come up, qsfp"), 2u);

    auto owner = std::make_shared<gearbox>();
    owner->set("up");
    gearbox_server server(gearbox_name(), owner);
    one_second(constructed);
    ASSERT_EQ(constructed.wait_for(5s), std::future_status::ready);
    EXPECT_NE(constructed.get(), nullptr);
}

}  // namespace
}  // namespace qsfpd::handler_test

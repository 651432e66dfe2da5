// The passive copper handler: its alarms come from the gearbox handler's lanes on ZELT-20, its
// TX enable and admin status from the module.

#include <atomic>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>

#include "../handler/handler_test_support.hpp"
#include "../support/line_socket.hpp"
#include "device_handler_api.hpp"
#include "qsfp_passive_device_handler.hpp"

namespace qsfpd::handler_test {

// The gearbox handler of a ZELT-20 board, up, with the lane states a test sets. (Outside the
// anonymous namespace: node templates over its members are instantiated with external linkage.)
struct lanes_owner : std::enable_shared_from_this<lanes_owner> {
    std::string oper_status() { return "up"; }
    bool lock(unsigned lane) { return locks[lane]; }
    bool link(unsigned lane) { return links[lane]; }
    std::array<std::atomic<bool>, 4> locks{true, true, true, true};
    std::array<std::atomic<bool>, 4> links{true, true, true, true};
};

namespace {

struct gearbox_handler {
    gearbox_handler(const std::string& name, const std::shared_ptr<lanes_owner>& owner)
        : server(name, {}, true) {
        using namespace dh::api;
        auto& db = server.api->get_db();
        nodes.push_back(
            volatile_value<&lanes_owner::oper_status>::create(db, "data/operStatus", owner));
        for (unsigned lane = 0; lane < 4; ++lane) {
            const auto prefix = "data/debug/client/lane/" + std::to_string(lane) + "/";
            nodes.push_back(
                volatile_value<&lanes_owner::lock>::create(db, prefix + "hasLock", owner, lane));
            nodes.push_back(
                volatile_value<&lanes_owner::link>::create(db, prefix + "hasLink", owner, lane));
        }
    }
    ~gearbox_handler() { server.stop(); }  // before the nodes go

    test::running_server server;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
};

class Passive : public handler_fixture {
  protected:
    // A started passive handler on ZELT-20: the base waits a second for the gearbox first.
    std::shared_ptr<qsfp_passive_device_handler> on_zelt20(std::string_view profile) {
        root.make_marker("zelt20");
        gearbox.emplace((root.path() / "tmp/device_handlers/bcm_gb").string(), owner);
        insert(profile);
        auto made = std::async(std::launch::async,
                               [this] { return make_variant<qsfp_passive_device_handler>(); });
        while (made.wait_for(10ms) != std::future_status::ready)
            if (clock->wait_for_sleepers(1, 10ms)) clock->advance(1s);
        return made.get();
    }
    std::string alarms_and_status() {
        return values(
            "alarms/lossOfSignal/severity alarms/lossOfLock/severity data/operStatus "
            "data/adminStatus");
    }

    std::shared_ptr<lanes_owner> owner = std::make_shared<lanes_owner>();
    std::optional<gearbox_handler> gearbox;
};

TEST_F(Passive, AlarmsFollowTheGearboxLanesOnlyWhileAdminIsUp) {
    auto h = on_zelt20("qsfpplus_dac_passive");
    h->run_periodic_tasks();
    // No admin status yet: alarms held clear, the port up, the admin status "down".
    EXPECT_EQ(alarms_and_status(), R"(0 0 "up" "down")");

    h->set_port_admin_status("up");
    owner->links[2] = false;  // three lanes with link
    h->run_periodic_tasks();
    EXPECT_EQ(alarms_and_status(), R"(1 0 "up" "up")");
    owner->links[2] = true;
    owner->locks[0] = false;
    h->run_periodic_tasks();
    EXPECT_EQ(alarms_and_status(), R"(0 1 "up" "up")");

    h->set_port_admin_status("down");
    h->run_periodic_tasks();
    EXPECT_EQ(alarms_and_status(), R"(0 0 "down" "down")");
    EXPECT_EQ(lower(power_control_byte) & 0x02, 0x02);  // Power_set: low power
}

TEST_F(Passive, AGearboxThatStopsAnsweringCountsAsNoLaneAndSaysSoOnStandardOutput) {
    auto h = on_zelt20("qsfpplus_dac_passive");
    h->set_port_admin_status("up");
    gearbox.reset();
    std::ostringstream captured;
    auto* old = std::cout.rdbuf(captured.rdbuf());
    h->run_periodic_tasks();
    std::cout.rdbuf(old);
    EXPECT_EQ(alarms_and_status(), R"(1 1 "up" "up")");
    EXPECT_THAT(captured.str(),
                ::testing::HasSubstr("unsigned int qsfp_passive_device_handler::get_active_links() "
                                     "got exception:"));
    EXPECT_THAT(captured.str(), ::testing::HasSubstr(", counter:0"));
    EXPECT_TRUE(logged("Exception").empty());
}

TEST_F(Passive, TxEnableUsesTheModulesOwnTxDisable) {
    insert("qsfpplus_dac_passive");
    auto h = make_variant<qsfp_passive_device_handler>();
    EXPECT_EQ(values("dataModel data/numberOfLanes settings/txEnable"), R"("passive" 4 true)");
    h->set_tx_enable(false);
    h->set_tx_enable(false);
    EXPECT_EQ(lower(tx_disable_byte) & 0x0F, 0x0F);
    expect_logged("TX", {"TX disabled qsfp3", "TX already disabled qsfp3"});
    // Without a gearbox (not ZELT-20) the alarms stay clear, admin up or not.
    h->set_port_admin_status("up");
    h->run_periodic_tasks();
    EXPECT_EQ(alarms_and_status(), R"(0 0 "up" "up")");
}

}  // namespace
}  // namespace qsfpd::handler_test

#include <fmt/format.h>

#include <tuple>

#include "handler_test_support.hpp"
#include "qsfp_optical_1lane_device_handler.hpp"
#include "qsfp_optical_1lane_pam4_device_handler.hpp"
#include "qsfp_optical_1or2lane_device_handler.hpp"
#include "qsfp_optical_2lane_device_handler.hpp"
#include "qsfp_optical_4lane_device_handler.hpp"

namespace qsfpd::handler_test {
namespace {

class LaneVariants : public handler_fixture {
  protected:
    // Starts an H on the inserted module and checks its data model, lane count, readiness, a TX
    // enable command for each lane only, its start line when it has one, and that releasing it
    // leaves no node behind.
    template <class H>
    void expect_started(const std::string& data_model, unsigned lanes, const std::string& line) {
        SCOPED_TRACE(data_model + " " + std::to_string(lanes));
        logs.clear();
        auto h = make_variant<H>();
        EXPECT_EQ(values("dataModel data/numberOfLanes param/networkLanes data/dhReady"),
                  fmt::format(R"("{}" {} {} true)", data_model, lanes, lanes));
        for (unsigned lane = 0; lane < 4; ++lane) {
            const auto path = "qsfp/command/lane/" + std::to_string(lane) + "/txEnable";
            EXPECT_EQ(db.find(path) != nullptr, lane < lanes) << path;
        }
        if (!line.empty()) {
            EXPECT_EQ(logs.count(line), 1u) << line;
        }
        h.reset();
        EXPECT_EQ(db.size(), 0u) << "nodes left behind";
    }
};

TEST_F(LaneVariants, ModelLanesAndReadiness) {
    insert("qsfp28_100g_fr1_pam4");
    expect_started<qsfp_optical_1lane_device_handler>("optical", 1,
                                                      "QSFP optical 1 lane device handler started");
    insert("qsfp28_100g_fr1_pam4");
    expect_started<qsfp_optical_1lane_pam4_device_handler>(
        "optical-1lane-pam4", 1, "QSFP optical 1 lane pam4 device handler started");
    insert("qsfp28_100g_sr2_pam4");
    expect_started<qsfp_optical_2lane_device_handler>("optical-2lane", 2,
                                                      "QSFP optical 2 lane device handler started");
    insert("qsfp28_100g_lr4");
    expect_started<qsfp_optical_4lane_device_handler>("optical", 4, "");
}

TEST_F(LaneVariants, OneOrTwoLanesNeedsBothDirectionsAt100G) {
    for (const auto& [rx, tx, lanes] :
         std::vector<std::tuple<std::uint8_t, std::uint8_t, unsigned>>{
             {0xAA, 0xAA, 2}, {0xAA, 0x00, 1}, {0x00, 0xAA, 1}, {0x00, 0x00, 1}, {0xAA, 0x2A, 1}}) {
        insert("qsfp28_100g_sr2_pam4");
        poke_lower(rx_rate_byte, rx);
        poke_lower(tx_rate_byte, tx);
        expect_started<qsfp_optical_1or2lane_device_handler>(
            lanes == 2 ? "optical-2lane" : "optical-1lane", lanes,
            std::string("QSFP optical 1 or 2 lane device handler started in ") +
                (lanes == 2 ? "2 lane mode (100G)" : "1 lane mode (40G)"));
        EXPECT_EQ(logs.count("QSFP optical 1 or 2"), 1u);
    }
}

TEST_F(LaneVariants, FlagsTransmittersAndTotalPowerStayWithinTheLaneCount) {
    insert("qsfp28_100g_sr2_pam4");
    auto two = make_variant<qsfp_optical_2lane_device_handler>();
    cycle_with(*two, tx_fault_byte, 0x0C);  // lanes 3-4, which the module lacks
    EXPECT_EQ(severity("txFault"), 0);
    cycle_with(*two, rx_los_byte, 0x04);
    EXPECT_EQ(severity("lossOfSignal"), 0);
    cycle_with(*two, tx_fault_byte, 0x02);
    EXPECT_EQ(values("alarms/txFault/severity data/debug/channel/1/txFault"), "1 true");

    two.reset();
    insert("qsfp28_100g_fr1_pam4");
    auto one = make_variant<qsfp_optical_1lane_device_handler>();
    const std::string tx_state =
        "data/txEnabledCompletely data/txDisabledCompletely data/lane/0/txEnable";
    poke_lower(tx_disable_byte, 0x0E);
    EXPECT_EQ(values(tx_state), "true false true");
    poke_lower(tx_disable_byte, 0x01);
    EXPECT_EQ(values(tx_state), "false true false");
    EXPECT_EQ(error_of([&] { one->set_lane_tx_enable(1, false); }).text(),
              "TX lane 1 not available " + name);
    EXPECT_EQ(lower(tx_disable_byte), 0x01);
    EXPECT_EQ(error_of([&] { one->get_channel_tx_fault(1); }).text(),
              "Illegal channel index while getting TX fault");
    EXPECT_EQ(error_of([&] { one->get_channel_los(1); }).text(),
              "Illegal channel index while getting LOS");
    EXPECT_EQ(error_of([&] { one->get_channel_lol(1); }).text(),
              "Illegal channel index while getting LOL");
    EXPECT_FALSE(one->get_channel_lol(0));
    // The total is over the module's one lane: the others' registers do not count.
    module().stick({}, rx_power_byte, {0, 2});
    clock->run_for(1s);
    EXPECT_DOUBLE_EQ(one->get_total_rx_power(), -37.0);
}

TEST_F(LaneVariants, FourLaneColdStartSelects25GWhereRateSelectIsTheWay) {
    // Byte 93 before the start, page 00h byte 221 bit 2 (application select), bytes 87-88 after:
    // CWDM4 and DWDM4 offer rate select, LR4 does not (byte 195 bit 5); application select is
    // used instead when offered, and a warm start keeps what runs.
    using row = std::tuple<const char*, std::uint8_t, bool, int>;
    for (const auto& [profile, power_control, application_select, expected] :
         {row{"qsfp28_100g_cwdm4", 0x00, false, 0xAA}, row{"qsfp28_100g_dwdm4", 0x00, false, 0xAA},
          row{"qsfp28_100g_lr4", 0x00, false, 0x00}, row{"qsfp28_100g_cwdm4", 0x00, true, 0x00},
          row{"qsfp28_100g_cwdm4", 0x01, false, 0x00}}) {
        SCOPED_TRACE(std::string(profile) + " 93=" + std::to_string(power_control) +
                     (application_select ? " appl-sel" : ""));
        insert(profile);
        poke_lower(rx_rate_byte, 0x00);
        poke_lower(tx_rate_byte, 0x00);
        poke_lower(power_control_byte, power_control);
        if (application_select) poke_upper(0, 221, module().peek({0, 0}, 221) | 0x04);
        auto h = make_variant<qsfp_optical_4lane_device_handler>();
        EXPECT_EQ(rate_select(), (std::pair{expected, expected}));
    }
}

}  // namespace
}  // namespace qsfpd::handler_test

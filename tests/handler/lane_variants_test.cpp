#include <array>
#include <string>

#include "handler_test_support.hpp"
#include "qsfp_optical_1lane_device_handler.hpp"
#include "qsfp_optical_1lane_pam4_device_handler.hpp"
#include "qsfp_optical_1or2lane_device_handler.hpp"
#include "qsfp_optical_2lane_device_handler.hpp"
#include "qsfp_optical_4lane_device_handler.hpp"

namespace qsfpd::handler_test {
namespace {

class LaneVariants : public handler_fixture {
  public:
    template <class H>
    std::shared_ptr<qsfp_optical_device_handler> build() {
        return make_variant<H>();
    }
    using builder = std::shared_ptr<qsfp_optical_device_handler> (LaneVariants::*)();

  protected:
    void expect_lanes(unsigned lanes) {
        EXPECT_EQ(read_json("qsfp/data/numberOfLanes").GetUint(), lanes);
        EXPECT_EQ(read_json("qsfp/param/networkLanes").GetUint(), lanes);
        for (unsigned lane = 0; lane < 4; ++lane) {
            const auto path = "qsfp/command/lane/" + std::to_string(lane) + "/txEnable";
            EXPECT_EQ(db.find(path) != nullptr, lane < lanes) << path;
        }
    }
};

struct variant_case {
    const char* profile;
    LaneVariants::builder make;
    const char* data_model;
    unsigned lanes;
    const char* started;  // the variant's own start line, if any
};

TEST_F(LaneVariants, ModelLanesAndReadiness) {
    const std::array<variant_case, 5> cases = {{
        {"qsfp28_100g_fr1_pam4", &LaneVariants::build<qsfp_optical_1lane_device_handler>, "optical",
         1, "QSFP optical 1 lane device handler started"},
        {"qsfp28_100g_fr1_pam4", &LaneVariants::build<qsfp_optical_1lane_pam4_device_handler>,
         "optical-1lane-pam4", 1, "QSFP optical 1 lane pam4 device handler started"},
        {"qsfp28_100g_sr2_pam4", &LaneVariants::build<qsfp_optical_2lane_device_handler>,
         "optical-2lane", 2, "QSFP optical 2 lane device handler started"},
        {"qsfp28_100g_sr2_pam4", &LaneVariants::build<qsfp_optical_1or2lane_device_handler>,
         "optical-2lane", 2,
         "QSFP optical 1 or 2 lane device handler started in 2 lane mode (100G)"},
        {"qsfp28_100g_lr4", &LaneVariants::build<qsfp_optical_4lane_device_handler>, "optical", 4,
         nullptr},
    }};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.data_model + std::string(" ") + std::to_string(c.lanes));
        logs.clear();
        insert(c.profile);
        auto h = (this->*c.make)();
        EXPECT_EQ(h->lane_count(), c.lanes);
        EXPECT_EQ(read_string("qsfp/dataModel"), c.data_model);
        expect_lanes(c.lanes);
        EXPECT_TRUE(h->get_dh_ready());
        EXPECT_TRUE(read_bool("qsfp/data/dhReady"));
        if (c.started) {
            EXPECT_EQ(logs.count(c.started), 1u);
        }
        h.reset();
        EXPECT_EQ(db.size(), 0u) << "nodes left behind";
    }
}

TEST_F(LaneVariants, OneOrTwoLanesNeedsBothDirectionsAt100G) {
    struct decision {
        std::uint8_t rx;
        std::uint8_t tx;
        unsigned lanes;
    };
    const std::array<decision, 5> cases = {
        {{0xAA, 0xAA, 2}, {0xAA, 0x00, 1}, {0x00, 0xAA, 1}, {0x00, 0x00, 1}, {0xAA, 0x2A, 1}}};
    for (const auto& [rx, tx, lanes] : cases) {
        SCOPED_TRACE(std::to_string(rx) + "/" + std::to_string(tx));
        logs.clear();
        insert("qsfp28_100g_sr2_pam4");
        poke_lower(rx_rate_byte, rx);
        poke_lower(tx_rate_byte, tx);
        auto h = make_variant<qsfp_optical_1or2lane_device_handler>();
        EXPECT_EQ(h->lane_count(), lanes);
        EXPECT_EQ(read_string("qsfp/dataModel"), lanes == 2 ? "optical-2lane" : "optical-1lane");
        expect_lanes(lanes);
        expect_logged("QSFP optical 1 or 2",
                      {std::string("QSFP optical 1 or 2 lane device handler started in ") +
                       (lanes == 2 ? "2 lane mode (100G)" : "1 lane mode (40G)")});
    }
}

TEST_F(LaneVariants, FlagsAndTransmittersStayWithinTheLaneCount) {
    insert("qsfp28_100g_sr2_pam4");
    auto two = make_variant<qsfp_optical_2lane_device_handler>();
    cycle_with(*two, tx_fault_byte, 0x0C);  // lanes 3-4, which the module lacks
    EXPECT_EQ(severity("txFault"), 0);
    cycle_with(*two, rx_los_byte, 0x04);
    EXPECT_EQ(severity("lossOfSignal"), 0);
    cycle_with(*two, tx_fault_byte, 0x02);
    EXPECT_EQ(severity("txFault"), 1);
    EXPECT_TRUE(read_bool("qsfp/data/debug/channel/1/txFault"));

    two.reset();
    insert("qsfp28_100g_fr1_pam4");
    auto one = make_variant<qsfp_optical_1lane_device_handler>();
    poke_lower(tx_disable_byte, 0x0E);
    EXPECT_TRUE(read_bool("qsfp/data/txEnabledCompletely"));
    EXPECT_FALSE(read_bool("qsfp/data/txDisabledCompletely"));
    poke_lower(tx_disable_byte, 0x01);
    EXPECT_FALSE(read_bool("qsfp/data/txEnabledCompletely"));
    EXPECT_TRUE(read_bool("qsfp/data/txDisabledCompletely"));
    EXPECT_FALSE(read_bool("qsfp/data/lane/0/txEnable"));
    const auto e = error_of([&] { one->set_lane_tx_enable(1, false); });
    EXPECT_EQ(e.text(), "TX lane 1 not available " + name);
    EXPECT_EQ(lower(tx_disable_byte), 0x01);
}

struct rate_select_case {
    const char* profile;
    std::uint8_t power_control;  // byte 93 before the handler starts
    bool application_select;     // page 00h byte 221 bit 2
    std::uint8_t expected;       // bytes 87 and 88 afterwards
};

TEST_F(LaneVariants, FourLaneColdStartSelects25GWhereRateSelectIsTheWay) {
    const std::array<rate_select_case, 5> cases = {{
        {"qsfp28_100g_cwdm4", 0x00, false, 0xAA},
        {"qsfp28_100g_dwdm4", 0x00, false, 0xAA},
        {"qsfp28_100g_cwdm4", 0x00, true, 0x00},   // application select instead
        {"qsfp28_100g_cwdm4", 0x01, false, 0x00},  // warm start: keep what runs
        {"qsfp28_100g_lr4", 0x00, false, 0x00},    // no rate select (byte 195 bit 5 clear)
    }};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.profile) + " 93=" + std::to_string(c.power_control) +
                     (c.application_select ? " appl-sel" : ""));
        insert(c.profile);
        poke_lower(rx_rate_byte, 0x00);
        poke_lower(tx_rate_byte, 0x00);
        poke_lower(power_control_byte, c.power_control);
        if (c.application_select) poke_upper(0, 221, upper(0, 221) | 0x04);
        auto h = make_variant<qsfp_optical_4lane_device_handler>();
        EXPECT_EQ(rate_select(), (std::pair<int, int>{c.expected, c.expected}));
    }
}

}  // namespace
}  // namespace qsfpd::handler_test

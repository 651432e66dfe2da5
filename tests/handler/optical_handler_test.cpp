#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <tuple>

#include "handler_test_support.hpp"
#include "qsfp_optical_4lane_device_handler.hpp"

namespace qsfpd::handler_test {
namespace {

using optical = qsfp_optical_device_handler;

class Optical : public handler_fixture {
  protected:
    std::shared_ptr<qsfp_optical_4lane_device_handler> lr4() {
        insert("qsfp28_100g_lr4");
        return make_variant<qsfp_optical_4lane_device_handler>();
    }
    // Freezes every lane's RX power register at `raw` (0.1 uW).
    void stick_rx_power(std::uint16_t raw) {
        std::vector<std::uint8_t> bytes;
        for (unsigned lane = 0; lane < 4; ++lane)
            bytes.insert(bytes.end(), {std::uint8_t(raw >> 8), std::uint8_t(raw & 0xFF)});
        module().stick({}, rx_power_byte, bytes);
    }
    using events = std::vector<std::pair<int, std::string>>;  // cycle, record
    using run = std::pair<std::string, events>;
    // Runs one cycle per flag value, the latched byte set to it before the cycle; gives the
    // alarm's severity after each cycle as a string of digits and the `family` records with the
    // cycle (from 1) that logged them.
    run run_cycles(qsfp_optical_device_handler& h, std::uint8_t byte,
                   const std::vector<std::uint8_t>& flags, const std::string& alarm,
                   const std::string& family) {
        run out;
        for (std::size_t n = 0; n < flags.size(); ++n) {
            const auto before = logged(family).size();
            cycle_with(h, byte, flags[n]);
            out.first += char('0' + severity(alarm));
            const auto now = logged(family);
            for (auto i = before; i < now.size(); ++i)
                out.second.emplace_back(n + 1, now[i]);
        }
        return out;
    }
};

// Values round to clean decimals, exactly the double nearest to the decimal, and never read -0.0.
TEST(OpticalConversions, RegisterFormsRoundingAndTotalPower) {
    EXPECT_FALSE(std::signbit(optical::temperature_celsius(-1)));  // -0.004
    EXPECT_EQ(optical::temperature_celsius(0x2680), 38.5);
    EXPECT_EQ(optical::temperature_celsius(static_cast<std::int16_t>(0xF600)), -10.0);
    EXPECT_EQ(optical::temperature_celsius(0x1A1A), 26.1);  // 26.1016
    EXPECT_EQ(optical::voltage_volts(33000), 3.3);
    EXPECT_EQ(optical::voltage_volts(32456), 3.25);  // 3.2456
    EXPECT_EQ(optical::bias_milliamps(22500), 45.0);
    EXPECT_EQ(optical::bias_milliamps(1234), 2.47);  // 2.468
    EXPECT_EQ(optical::power_dbm(10000), 0.0);
    EXPECT_EQ(optical::power_dbm(8000), -1.0);  // -0.969
    EXPECT_EQ(optical::power_dbm(500), -13.0);
    EXPECT_EQ(optical::power_dbm(1), -40.0);
    EXPECT_EQ(optical::power_dbm(0), -99.0);
    using lanes = std::vector<std::uint16_t>;
    EXPECT_EQ(optical::total_power_dbm(lanes{8000, 8000, 8000, 8000}), 5.1);  // 3.2 mW
    EXPECT_EQ(optical::total_power_dbm(lanes{10000, 0, 10000, 10000}), -99.0);
    EXPECT_EQ(optical::total_power_dbm(lanes{2}), -37.0);
    EXPECT_EQ(optical::total_power_dbm(lanes{1}), -99.0);  // -40.0 is the floor itself
    EXPECT_EQ(optical::total_power_dbm(lanes{1, 1}), -37.0);
}

TEST_F(Optical, OnlyOverrideWithoutPowerSetIsAWarmStartWhichWritesNothing) {
    // Byte 93 left by an earlier run: override on and power set clear means the module is set up.
    for (const auto& [control, warm] : std::vector<std::pair<std::uint8_t, bool>>{
             {0x00, false}, {0x01, true}, {0x02, false}, {0x03, false}, {0x05, true}}) {
        SCOPED_TRACE(int(control));
        logs.clear();
        insert("qsfp28_100g_lr4");
        poke_lower(tx_disable_byte, 0x05);
        poke_lower(power_control_byte, control);
        const auto before = cage_bytes(0, false);
        auto h = make_variant<qsfp_optical_4lane_device_handler>();
        const auto after = cage_bytes(0, false);
        EXPECT_EQ(h->is_warm_started(), warm);
        EXPECT_EQ(values("data/debug/isWarmStarted data/operStatus data/adminStatus"),
                  warm ? R"(true "up" "up")" : R"(false "up" "down")");
        if (warm) {
            // Control bytes 86..126 as they were (bytes below are status and flags).
            EXPECT_TRUE(std::equal(before.begin() + 86, before.begin() + 127, after.begin() + 86));
        } else {
            EXPECT_EQ(lower(tx_disable_byte), 0x00);
            EXPECT_EQ(lower(power_control_byte), 0x05);  // override, high power, class 5-7 enabled
        }
        expect_logged("QSFP optical device handler",
                      {"QSFP optical device handler " + std::string(warm ? "warm" : "cold") +
                       " started successfully for " + name});
        EXPECT_EQ(values("data/nominalBitrate"), std::to_string(regs->get_nom_bit_rate()));
        // The port a warm start found up needs no "up"; a cold-started one is switched.
        logs.clear();
        const auto writes_before = writes();
        h->set_port_admin_status("up");
        EXPECT_EQ(writes() > writes_before, !warm);
        // "down" puts the module into low power (power set), "up" takes it out again.
        h->set_port_admin_status("down");
        EXPECT_EQ(lower(power_control_byte) & 0x03, 0x03);
        h->set_port_admin_status("up");
        EXPECT_EQ(lower(power_control_byte) & 0x03, 0x01);
        expect_logged(
            "Setting adminstatus",
            {warm ? "Setting adminstatus up but adminstatus is already up, do nothing. " + name
                  : "Setting adminstatus up " + name,
             "Setting adminstatus down " + name, "Setting adminstatus up " + name});
    }
}

TEST_F(Optical, TemperatureIsFilteredAndHasAMarginAndAFakeForTests) {
    auto h = lr4();
    ASSERT_TRUE(clock->wait_for_sleepers(1));  // the value group
    module().stick({}, 22, {0x26, 0x80});      // 38.5 degC
    clock->run_for(1s);
    EXPECT_EQ(values("data/temperature"), "38.5");
    // The margin is to page 00h byte 190, or to 70 degC when the module gives no limit.
    for (const auto& [limit, margin] : {std::pair{70, "31.5"}, {85, "46.5"}, {0, "31.5"}}) {
        poke_upper(0, 190, limit);
        EXPECT_EQ(values("data/temperatureMargin"), margin) << limit;
    }
    // The value group polls once a second. Filtered with 0.5 and 0.1: a drift of 0.2 degC is
    // published once it held for three polls, a jump of 0.5 at once.
    module().stick({}, 22, {0x26, 0xB3});  // 38.7 degC
    std::string published;
    for (int poll = 0; poll < 3; ++poll) {
        clock->run_for(1s);
        published += values("data/temperature") + " ";
    }
    EXPECT_EQ(published, "38.5 38.5 38.7 ");
    module().stick({}, 22, {0xF6, 0x00});  // -10 degC
    clock->run_for(1s);
    EXPECT_EQ(values("data/temperature data/temperatureMargin"), "-10.0 80.0");

    write("qsfp/config/debug/fakeTemperature", 65);
    EXPECT_EQ(h->get_trx_temperature(), 65.0);
    EXPECT_EQ(values("data/debug/fakeTemperature data/temperatureMargin"), "65 5.0");
    write("qsfp/config/debug/fakeTemperature", 0);
    EXPECT_EQ(h->get_trx_temperature(), -10.0);
}

TEST_F(Optical, PowerFromTheLanesRegistersAndNoLightWhenTheirReadFails) {
    auto h = lr4();
    stick_rx_power(8000);
    module().stick({}, rx_power_byte + 4, {0, 0});                             // lane 3 dark
    module().stick({}, 50, {0x27, 0x10, 0x27, 0x10, 0x27, 0x10, 0x27, 0x10});  // TX 1 mW
    clock->run_for(1s);
    EXPECT_EQ(h->get_channel_rx_power(1), -1.0);
    EXPECT_EQ(h->get_channel_rx_power(2), -99.0);
    EXPECT_EQ(h->get_total_rx_power(), -99.0);
    EXPECT_EQ(h->get_total_tx_power(), 6.0);
    // A read that fails is no light, not an error (the last good snapshot is then stale).
    cage_emu->fail_at(cage::module_address, 22, 57, EIO);
    clock->run_for(300ms);
    EXPECT_EQ(h->get_total_tx_power(), -99.0);
    cage_emu->clear_faults();
}

TEST_F(Optical, TxFaultHoldsNotDetectedForThreeSeconds) {
    auto h = lr4();
    // The high nibble is not TX fault; then lane 2 faults.
    EXPECT_EQ(run_cycles(*h, tx_fault_byte, {0xF0, 0x04}, "txFault", "TX_FAULT"),
              run("01", events{{2, "TX_FAULT detected " + name}}));
    EXPECT_EQ(values("data/debug/channel/0/txFault data/debug/channel/2/txFault"), "false true");
    // The severity follows the flag, but "not detected" is held until 3.1 s after the
    // detection, though the fault came back on the way (cycle 14 here); a new fault after that is
    // reported at once.
    std::vector<std::uint8_t> flags(37, 0);
    flags[13] = 0x01;
    flags[36] = 0x08;
    EXPECT_EQ(
        run_cycles(*h, tx_fault_byte, flags, "txFault", "TX_FAULT"),
        run(std::string(13, '0') + "1" + std::string(22, '0') + "1",
            events{{31, "TX_FAULT not detected " + name}, {37, "TX_FAULT detected " + name}}));
    EXPECT_EQ(logs.find("TX_FAULT detected ").back().tag, "qsfp3/info");
}

// LOS and LOL share the flap suppression; each has its own byte, alarm and texts.
TEST_F(Optical, SuppressionEntersAtTheEleventhTransitionAndExitsAfterTenQuietBuckets) {
    for (const auto& [byte, alarm, event, dark] :
         {std::tuple{rx_los_byte, "lossOfSignal", std::string("LOS"), false},
          std::tuple{rx_lol_byte, "lossOfLock", std::string("LOL"), true}}) {
        SCOPED_TRACE(event);
        logs.clear();
        auto h = lr4();
        // Cycles 1-13 flap (the 11th transition enters suppression, on lane 2), then the line
        // stays clear (LOS) or dark (LOL). The last transition (cycle 13 or 14) went into the
        // bucket opened at cycle 10; ten shifts later, at cycle 110, the history is empty and
        // suppression ends with "not detected". A line still dark is reported again at once.
        std::vector<std::uint8_t> flags(111, dark);
        for (int n = 1; n <= 13; ++n)
            flags[n - 1] = n % 2;
        flags[10] = 0x02;
        events expected;
        for (int n = 1; n <= 10; ++n)
            expected.emplace_back(n, event + (n % 2 ? " detected " : " not detected ") + name);
        expected.emplace_back(
            11, event + " event suppression mode entered, " + event + " detected " + name);
        expected.emplace_back(
            110, event + " event suppression mode exited, " + event + " not detected " + name);
        if (dark) expected.emplace_back(111, event + " detected " + name);
        EXPECT_EQ(run_cycles(*h, byte, flags, alarm, event + " "),
                  run("1010101010" + std::string(99, '1') + (dark ? "01" : "00"), expected));
    }
}

TEST_F(Optical, LosFromRxPowerBelowTheLowAlarmThreshold) {
    auto h = lr4();                  // RX power low alarm 500 = -13.0 dBm
    stick_rx_power(125);             // 4 x 12.5 uW = -13.0 dBm: not below
    cycle_with(*h, rx_los_byte, 0);  // no lane flags LOS
    EXPECT_EQ(severity("lossOfSignal"), 0);
    stick_rx_power(120);  // -13.2 dBm
    cycle_with(*h, rx_los_byte, 0);
    EXPECT_EQ(severity("lossOfSignal"), 1);
    EXPECT_EQ(values("data/debug/channel/0/los"), "false");  // no lane flagged it
    module().unstick_all();
    cycle_with(*h, rx_los_byte, 0);
    EXPECT_EQ(severity("lossOfSignal"), 0);
    expect_logged("LOS ", {"LOS detected " + name, "LOS not detected " + name});
}

TEST_F(Optical, LolIsMaskedUnderLos) {
    auto h = lr4();
    poke_lower(rx_lol_byte, 0xF0);      // TX CDR loss of lock, not RX
    cycle_with(*h, rx_los_byte, 0xF0);  // TX LOS, not RX
    EXPECT_EQ(values("alarms/lossOfSignal/severity alarms/lossOfLock/severity"), "0 0");
    poke_lower(rx_lol_byte, 0x03);
    cycle_with(*h, rx_los_byte, 0x01);
    EXPECT_EQ(values("alarms/lossOfSignal/severity alarms/lossOfLock/severity "
                     "data/debug/channel/0/los data/debug/channel/0/lol data/debug/channel/1/lol"),
              "1 0 true false false");

    cycle_with(*h, rx_lol_byte, 0x02);  // light back, lock still lost on lane 1
    EXPECT_EQ(values("alarms/lossOfSignal/severity alarms/lossOfLock/severity "
                     "data/debug/channel/0/lol data/debug/channel/1/lol"),
              "0 1 false true");
    expect_logged("LOL ", {"LOL detected " + name});
}

TEST_F(Optical, TemperatureSeverityFollowsTheHighFlagsEveryCycle) {
    auto h = lr4();
    EXPECT_EQ(run_cycles(*h, temp_flags_byte, {0x80, 0x00, 0x20, 0xA0, 0x50, 0x20}, "temperature",
                         "Temperature")
                  .first,
              "201201");
}

TEST_F(Optical, TxEnableWholeModuleAndPerLaneWritesOnlyWhatChanges) {
    auto h = lr4();
    EXPECT_EQ(values("settings/txEnable"), "true");  // the module's state at start
    // Node, value, TX disable byte after, record ("enbled" is the handler's spelling).
    using step = std::tuple<const char*, bool, std::uint8_t, std::string>;
    for (const auto& [path, enable, tx_disable, log] :
         {step{"settings/txEnable", true, 0x00, "TX already enabled "},
          step{"settings/txEnable", false, 0x0F, "TX disabled "},
          step{"command/txEnable", false, 0x0F, "TX already disabled "},
          step{"command/txEnable", true, 0x00, "TX enbled "},
          step{"command/lane/2/txEnable", false, 0x04, "TX lane 2 disabled "},
          step{"command/lane/2/txEnable", false, 0x04, "TX lane 2 already disabled "},
          step{"command/lane/1/txEnable", true, 0x04, "TX lane 1 already enabled "},
          // With some lanes off, the whole module is neither enabled nor disabled.
          step{"command/txEnable", false, 0x0F, "TX disabled "},
          step{"command/lane/2/txEnable", true, 0x0B, "TX lane 2 enbled "},
          step{"command/txEnable", true, 0x00, "TX enbled "}}) {
        SCOPED_TRACE(std::string(path) + (enable ? " on" : " off"));
        logs.clear();
        const auto before = writes();
        const bool changes = lower(tx_disable_byte) != tx_disable;
        const std::string node = "qsfp/" + std::string(path);
        if (path[0] == 's') {
            write(node, enable);
        } else {
            rapidjson::Document out;
            db.lookup(node)->run(node, dh::json_value(enable), out.GetAllocator(), out);
            EXPECT_TRUE(out.GetBool());
        }
        EXPECT_EQ(lower(tx_disable_byte), tx_disable);
        EXPECT_EQ(writes() > before, changes);
        expect_logged("TX ", {log + name});
        std::string expected = fmt::format("{} {}", tx_disable == 0x00, tx_disable == 0x0F);
        for (unsigned lane = 0; lane < 4; ++lane)
            expected += tx_disable >> lane & 1 ? " false" : " true";
        EXPECT_EQ(values("data/txEnabledCompletely data/txDisabledCompletely data/lane/0/txEnable "
                         "data/lane/1/txEnable data/lane/2/txEnable data/lane/3/txEnable"),
                  expected);
    }
    const auto e = error_of([&] { h->set_lane_tx_enable(4, false); });
    EXPECT_EQ(e.code(), dh::errc::invalid);
    EXPECT_EQ(e.text(), "TX lane 4 not available " + name);
    EXPECT_EQ(lower(tx_disable_byte), 0x00);
    expect_logged("TX lane 4", {"TX lane 4 not available " + name});
}

TEST_F(Optical, WavelengthAndChannel) {
    auto h = lr4();
    EXPECT_EQ(values("data/wavelength data/channelId"), R"("1310" "n/a")");
    h.reset();
    insert("qsfp28_100g_dwdm4");
    h = make_variant<qsfp_optical_4lane_device_handler>();
    EXPECT_EQ(values("data/wavelength data/channelId"), R"("1553.33" "D9300")");
}

TEST_F(Optical, FailedReadsAreLoggedWithTheGetterAndReported) {
    auto h = lr4();
    cage_emu->fail_at(cage::module_address, 26, 27, EIO);
    auto e = error_of([&] { values("data/debug/voltage"); });
    EXPECT_EQ(e.code(), dh::errc::io_error);
    const auto records = logged("Exception [");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_NE(records[0].find("] get_trx_voltage " + name), std::string::npos) << records[0];
    EXPECT_EQ(logs.count("Module unplugged "), 0u);

    cage_emu->clear_faults();
    cage_emu->remove();
    e = error_of([&] { values("data/debug/voltage"); });
    EXPECT_EQ(e.code(), dh::errc::io_error);
    expect_logged("Module unplugged ", {"Module unplugged " + name});
}

}  // namespace
}  // namespace qsfpd::handler_test

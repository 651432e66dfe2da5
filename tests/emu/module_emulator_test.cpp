#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

using CmisStates = emu_test;
using Sff8636Power = emu_test;
using ModuleReset = emu_test;
using ModuleMonitors = emu_test;
using ModuleFaults = emu_test;
using DspPages = emu_test;

// --- CMIS module state machine (QSFP-DD 400G-FR4: power up 800 ms, power down 80 ms, data
// path init 499 ms and deinit 99 ms: just under the advertised < 500 ms and < 100 ms) ----------

TEST_F(CmisStates, PowerUpAndDownOnRequestsResetsAndAFaultHoldingUntilReset) {
    insert("qsfpdd_400g_fr4");
    EXPECT_EQ(polls(8, 0x01, {0ms, 0ms}), "10");  // state changed, cleared by the read
    // ModulePwrUp (no low power request), ModuleReady after 800 ms.
    EXPECT_EQ(polls(3, 0x0e, {0ms, 799ms, 1ms}), "223");
    EXPECT_EQ(polls(8, 0x01, {0ms}), "1");
    select(0x11);
    EXPECT_EQ(read(128, 4), bytes(4, 0x22));  // DPInit on the 8 host lanes
    EXPECT_EQ(read1(133), 0x00);              // transmitters still off
    clock->advance(498ms);
    EXPECT_EQ(read(128, 4), bytes(4, 0x22));
    clock->advance(1ms);
    EXPECT_EQ(read(128, 4), bytes(4, 0x44));       // DPActivated
    EXPECT_EQ(read(132, 2), (bytes{0x0f, 0x0f}));  // RX, TX output status of the 4 media lanes
    // LowPwrRequestSW: the data paths deinit first, then ModulePwrDn, then ModuleLowPwr.
    write(26, {0x40 | 0x10});
    EXPECT_EQ(read(128, 4), bytes(4, 0x33));
    EXPECT_EQ(polls(3, 0x0e, {0ms, 98ms, 1ms, 79ms, 1ms}), "33441");
    EXPECT_EQ(read(128, 4), bytes(4, 0x11));
    write(26, {0x40});
    EXPECT_EQ(polls(3, 0x0e, {400ms, 400ms}), "23");
    // The LPMode pin requests low power while allowed, and from insertion.
    cage.pin_set(cage::line::lpmode, true);
    EXPECT_EQ(polls(3, 0x0e, {0ms, 98ms, 1ms, 79ms, 1ms}), "33441");
    EXPECT_TRUE(cage.module()->in_low_power());
    EXPECT_EQ(read1(128), 0x11);  // DPDeactivated
    EXPECT_EQ(read1(133), 0x00);
    cage.pin_set(cage::line::lpmode, false);
    EXPECT_EQ(polls(3, 0x0e, {0ms, 800ms}), "23");
    // With LowPwrAllowRequestHW cleared the pin is ignored.
    write(26, {0x00});
    cage.pin_set(cage::line::lpmode, true);
    EXPECT_EQ(polls(3, 0x0e, {1s}), "3");
    cage.remove();  // inserted with the pin asserted: stays in low power
    insert("qsfpdd_400zr");
    EXPECT_EQ(polls(3, 0x0e, {10s}), "1");
    // A software reset restarts from the image.
    cage.pin_set(cage::line::lpmode, false);
    cage.remove();
    auto& m = insert("qsfpdd_400g_fr4");
    clock->advance(800ms);
    select(0x03);
    write(200, {0x5a});  // user EEPROM
    EXPECT_EQ(read1(200), 0x5a);
    write(26, {0x40 | 0x08});  // SoftwareReset
    EXPECT_EQ(read_errno(0), ENXIO);
    clock->advance(m.profile().i2c_not_ready);
    EXPECT_EQ(read1(127), 0x00);
    EXPECT_EQ(read1(26), 0x40);  // trigger bit self-cleared, defaults back
    select(0x03);
    EXPECT_EQ(read1(200), 0x00);
    EXPECT_EQ(polls(3, 0x0e, {0ms}), "2");
    // A forced fault holds until the reset line is pulsed.
    m.force_fault();
    EXPECT_EQ(polls(3, 0x0e, {0ms, 5s}), "55");
    reset();
    EXPECT_EQ(polls(3, 0x0e, {800ms}), "3");
}

// --- SFF-8636 power control (QSFP28 LR4, power class 5) --------------------------------------

// Which lanes show TX power, lane 1 first ("1011": lane 2 dark).
std::string lit(cage_fixture& f) {
    std::string lanes;
    for (std::uint8_t lane = 0; lane < 4; ++lane)
        lanes += f.read16(static_cast<std::uint8_t>(50 + 2 * lane)) > 0 ? '1' : '0';
    return lanes;
}

TEST_F(Sff8636Power, HighPowerNeedsItsEnableBitOverridesThePinAndOnlyTheModulesLanesLight) {
    auto& m = insert("qsfp28_100g_lr4");
    EXPECT_EQ(polls(2, 0x01, {0ms, 300ms}), "10");  // Data_Not_Ready
    EXPECT_EQ(polls(6, 0x01, {0ms, 0ms}), "10");    // initialization complete, latched
    EXPECT_TRUE(m.in_low_power());                  // class 5 module, byte 93 bit 2 clear
    EXPECT_EQ(lit(*this), "0000");
    write(93, {0x04});
    EXPECT_FALSE(m.in_low_power());
    EXPECT_GT(read16(50), 9000);  // about 1 mW in 0.1 uW
    EXPECT_GT(read16(42), 0);     // bias
    cage.pin_set(cage::line::lpmode, true);
    EXPECT_EQ(lit(*this), "0000");
    write(93, {0x04 | 0x01});  // override, power set clear: high power despite the pin
    EXPECT_EQ(lit(*this), "1111");
    write(93, {0x04 | 0x01 | 0x02});  // override with power set: low power
    EXPECT_TRUE(m.in_low_power());
    EXPECT_EQ(read1(93), 0x07);
    write(93, {0xff});  // reserved bits 7..4 stay 0
    EXPECT_EQ(read1(93), 0x0f);
    // TX disable turns one lane off until it is enabled again.
    cage.pin_set(cage::line::lpmode, false);
    write(93, {0x04});
    write(86, {0x02});
    EXPECT_EQ(lit(*this), "1011");
    EXPECT_EQ(read16(44), 0);  // lane 2 bias
    clock->advance(1s);        // stays off across monitor refreshes
    EXPECT_EQ(lit(*this), "1011");
    EXPECT_EQ(read1(11) & 0x0f, 0);  // a lane that is off raises no low bias alarm
    write(86, {0x00});
    EXPECT_GT(read16(52), 9000);
    EXPECT_GT(read16(44), 0);
    // Lanes beyond the module's own have no monitors, and no alarms.
    cage.remove();
    for (const auto& [stem, lanes] :
         {std::pair{"qsfp28_100g_sr2_pam4", 2}, {"qsfpplus_dac_passive", 0}}) {
        SCOPED_TRACE(stem);
        const auto& p = insert(stem).profile();
        write(93, {0x04});
        clock->advance(2s);
        read(3, 19);  // clear what power-up latched
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(lit(*this), std::string(lanes, '1') + std::string(4 - lanes, '0'));
            for (unsigned lane = lanes; lane < 4; ++lane) {  // RX power, bias
                EXPECT_EQ(read16(static_cast<std::uint8_t>(34 + 2 * lane)), 0);
                EXPECT_EQ(read16(static_cast<std::uint8_t>(42 + 2 * lane)), 0);
            }
            clock->advance(p.monitor_period);
        }
        // The module's own temperature still reads; VCSEL bias of a few mA against the module's
        // own thresholds raises no alarm or warning.
        EXPECT_NEAR(static_cast<std::int16_t>(read16(22)) / 256.0, p.temperature_c.nominal,
                    p.temperature_c.noise + 1.0 / 256);
        EXPECT_EQ(read(6, 9), bytes(9, 0));
        cage.remove();
    }
}

// --- reset and re-insertion restore the profile image ------------------------------------------

TEST_F(ModuleReset, ResetPinAndReinsertionRestoreTheImageButBehaviourHooksSurviveAReset) {
    auto& m = insert("qsfp28_100g_sr2_pam4");  // rate select (87-88) powers on at AAh
    const auto pristine = read(128, 64);
    // A behaviour hook, a stand-in for tuning: a write of a channel (page 02h byte 140) sets the
    // frequency (141) the host reads back.
    m.on_write({0, 0x02}, 140, 140, [&](page_id page, std::uint8_t, std::uint8_t channel) {
        m.memory().poke(page, 141, static_cast<std::uint8_t>(channel + 1));
    });
    write(86, {0x0f, 0x55, 0x5a});
    EXPECT_EQ(read(86, 3), (bytes{0x0f, 0x55, 0x5a}));
    write(127, {0x02});
    write(130, {0x77});  // user EEPROM page 02h
    write(140, {0x20});
    EXPECT_EQ(read1(141), 0x21);
    cage.pin_set(cage::line::reset, true);
    clock->advance(10s);
    EXPECT_EQ(read_errno(0), ENXIO);  // held in reset
    cage.pin_set(cage::line::reset, false);
    EXPECT_EQ(read_errno(0), ENXIO);  // not ready yet
    clock->advance(cage.module()->profile().i2c_not_ready);
    EXPECT_EQ(read(86, 3), (bytes{0x00, 0xaa, 0xaa}));
    EXPECT_EQ(read1(127), 0x00);
    EXPECT_EQ(read(128, 64), pristine);
    write(127, {0x02});
    EXPECT_EQ(read1(130), 0x00);
    write(140, {0x40});
    EXPECT_EQ(read1(141), 0x41);

    write(130, {0x66});
    cage.remove();
    EXPECT_FALSE(cage.module_present());
    EXPECT_EQ(read_errno(0), ENXIO);
    insert("qsfp28_100g_sr2_pam4");
    write(127, {0x02});
    EXPECT_EQ(read1(130), 0x00);
    EXPECT_EQ(error_of([&] { cage.pin_set(8, true); }), EINVAL);  // no such line
}

// --- monitors ---------------------------------------------------------------------------------

std::vector<std::uint16_t> temperature_trace(std::uint64_t seed) {
    cage_fixture f;
    auto profile = module_profile::load_named("qsfpdd_400g_fr4");
    profile.noise_seed = seed;
    f.cage.insert(profile);
    f.clock->advance(profile.i2c_not_ready);
    std::vector<std::uint16_t> out;
    for (int i = 0; i < 30; ++i) {
        out.push_back(f.read16(14));
        f.clock->advance(37ms);  // not a multiple of the period: sampling must not matter
    }
    return out;
}

TEST_F(ModuleMonitors, RegistersShowTheSeededValueMovingWithinItsNoiseDeterministicPerSeed) {
    auto& m = insert("qsfp28_100g_lr4");
    const auto& p = m.profile();
    write(93, {0x04});
    using s = module_emulator::sensor;
    std::set<std::uint16_t> seen;
    for (int i = 0; i < 200; ++i) {
        const auto tick = m.monitor_tick();
        auto value = [&](s sensor, unsigned lane, double scale) {
            return std::lround(m.monitor_value(sensor, lane, tick) * scale);
        };
        EXPECT_EQ(static_cast<std::int16_t>(read16(22)), value(s::temperature, 0, 256));
        EXPECT_EQ(read16(26), value(s::vcc, 0, 10000));
        EXPECT_EQ(read16(34 + 2), value(s::rx_power, 1, 10000));
        EXPECT_EQ(read16(42 + 4), value(s::bias, 2, 500));
        EXPECT_EQ(read16(50 + 6), value(s::tx_power, 3, 10000));
        for (const auto& [sensor, lane, nominal, noise] :
             {std::tuple{s::temperature, 0u, p.temperature_c.nominal, p.temperature_c.noise},
              {s::vcc, 0u, p.vcc_v.nominal, p.vcc_v.noise},
              {s::rx_power, 1u, p.rx_power_mw.nominal, p.rx_power_mw.noise}})
            EXPECT_LE(std::abs(m.monitor_value(sensor, lane, tick) - nominal), noise);
        seen.insert(read16(22));
        clock->advance(p.monitor_period);
    }
    EXPECT_GT(seen.size(), 20u);  // it does move
    // CMIS lane monitors use the bias multiplier (page 01h byte 160 code 2: x4).
    cage.remove();
    auto& zr = insert("qsfpdd_400zr");
    clock->advance(1500ms + 99ms);  // ModuleReady, then DPInit (< 100 ms)
    select(0x11);
    const auto tick = zr.monitor_tick();
    EXPECT_EQ(read16(170), std::lround(zr.monitor_value(s::bias, 0, tick) * 500 / 4));
    EXPECT_EQ(read16(154), std::lround(zr.monitor_value(s::tx_power, 0, tick) * 10000));
    // Deterministic per seed and clock.
    EXPECT_EQ(temperature_trace(7), temperature_trace(7));
    EXPECT_NE(temperature_trace(7), temperature_trace(8));
}

// --- fault injection in the module -------------------------------------------------------------

TEST_F(ModuleFaults, FlapsStepPerPollOrPeriodAndEvenATransientBetweenPollsLatches) {
    auto& m = insert("qsfp28_100g_lr4");
    m.flap(lane_flag::rx_los, 2, "0110", flap_step::per_poll);
    // Latched LOS (byte 3 bit 2) as the host polls it; live state as the step left it. A
    // condition present after a read latches again, so the poll after the last '1' still sees it.
    const std::string latched = "01110111", live = "01100110";
    for (std::size_t poll = 0; poll < latched.size(); ++poll) {
        EXPECT_EQ((read1(3) >> 2) & 1, latched[poll] - '0') << "poll " << poll;
        EXPECT_EQ(m.flag_live(lane_flag::rx_los, 2), live[poll] == '1') << "poll " << poll;
        if (live[poll] == '1') {
            EXPECT_EQ(read16(34 + 4), 0) << "no light: RX power 0";
        }
    }
    EXPECT_EQ(read1(3) & ~0x04, 0);  // other lanes untouched
    EXPECT_THROW(m.flap(lane_flag::rx_los, 0, "01x", flap_step::per_poll), std::invalid_argument);
    EXPECT_THROW(m.flap(lane_flag::rx_los, 4, "01", flap_step::per_poll), std::invalid_argument);
    EXPECT_THROW(m.flap(lane_flag::rx_los, 0, "01", flap_step::per_period), std::invalid_argument);
    // Flaps per period on a CMIS lane; even a transient between polls latches.
    cage.remove();
    auto& fr4 = insert("qsfpdd_400g_fr4");
    select(0x11);
    fr4.flap(lane_flag::tx_fault, 1, "1100", flap_step::per_period, 1s, false);
    EXPECT_EQ(polls(135, 0x02, {0ms, 1500ms}), "11");
    EXPECT_TRUE(fr4.flag_live(lane_flag::tx_fault, 1));
    clock->advance(1s);  // step 2: '0'
    EXPECT_FALSE(fr4.flag_live(lane_flag::tx_fault, 1));
    // Present since the last read, then clear; the pattern does not repeat: stays '0'.
    EXPECT_EQ(polls(135, 0x02, {0ms, 0ms, 10s}), "100");
    // A transient between two polls still latches.
    fr4.flap(lane_flag::rx_lol, 0, "0001000", flap_step::per_period, 100ms, false);
    EXPECT_EQ(polls(148, 0xff, {0ms, 1s, 0ms}), "010");
}

TEST_F(ModuleFaults, LatchedFlagsAssertTheInterruptAndStuckMonitorsRaiseTheirAlarms) {
    auto& m = insert("qsfp28_100g_lr4");
    EXPECT_EQ(polls(2, 0x02, {0ms}), "1");  // IntL deasserted
    m.flap(lane_flag::tx_fault, 3, "10", flap_step::per_period, 1s, false);
    EXPECT_EQ(polls(2, 0x02, {0ms}), "0");
    clock->advance(1s);
    EXPECT_EQ(read(3, 19)[1], 0x08);  // byte 4: TX fault lane 4; reading clears all flags
    EXPECT_EQ(polls(2, 0x02, {0ms}), "1");
    EXPECT_FALSE(m.interrupt_asserted());
    // A stuck temperature does not move and raises the high alarm and warning.
    EXPECT_EQ(read1(6) & 0xf0, 0x00);
    m.stick({}, 22, {0x7f, 0x00});  // 127 degC; thresholds 75 / 70 degC
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(read16(22), 0x7f00);
        clock->advance(100ms);
    }
    EXPECT_EQ(read1(6) & 0xf0, 0x80 | 0x20);  // high alarm, high warning
    EXPECT_TRUE(m.interrupt_asserted());      // still there: latched again
    m.unstick_all();
    EXPECT_LT(read16(22), 0x7f00);
    EXPECT_EQ(polls(6, 0xf0, {0ms, 0ms}), "a0");
    // A CMIS lane RX power low alarm.
    cage.remove();
    auto& fr4 = insert("qsfpdd_400g_fr4");
    select(0x11);
    EXPECT_EQ(read(149, 4), bytes(4, 0));
    fr4.stick({0, 0x11}, 186 + 2 * 2, {0x00, 0x00});  // lane 3 RX power 0
    // RX power high alarm, low alarm, high warning, low warning: lane 3 low alarm and warning.
    EXPECT_EQ(read(149, 4), (bytes{0, 0x04, 0, 0x04}));
    // The SFP's A2h alarm flags are live.
    cage.remove();
    auto& sfp = insert("qsa_sfpplus_10g_sr");
    clock->advance(300ms);
    EXPECT_EQ(read1(112, 0x51), 0x00);      // temperature alarms
    sfp.stick({}, 96, {0x50, 0x00}, 0x51);  // 80 degC; thresholds 78 / 73 degC
    EXPECT_EQ(read1(112, 0x51), 0x80);
    EXPECT_EQ(read1(116, 0x51), 0x80);
    sfp.unstick_all();
    EXPECT_EQ(read1(112, 0x51), 0x00);
}

// --- PAM4 DSP page 20h -------------------------------------------------------------------------

TEST_F(DspPages, OnlyTheBerClearIsHostWritableAndItZeroesTheStatisticsAndSelfClears) {
    insert("qsfp28_100g_fr1_pam4");
    select(0x21);  // thresholds
    const auto thresholds = read(128, 8);
    write(128, bytes(8, 0x5a));
    EXPECT_EQ(read(128, 8), thresholds);
    select(0x20);
    const auto pristine = read(128, 66);
    const bytes stats(pristine.begin() + 44, pristine.begin() + 64);
    ASSERT_NE(stats, bytes(20, 0));
    write(128, bytes(66, 0x5a));  // 192 bit 0 clear: nothing happens
    EXPECT_EQ(read(128, 66), pristine);
    write(192, {0xff});  // only bit 0 is writable; it triggers the clear
    EXPECT_EQ(read1(192), 0x00);
    EXPECT_EQ(read(172, 20), bytes(20, 0));
    EXPECT_EQ(read(128, 44), bytes(pristine.begin(), pristine.begin() + 44))
        << "firmware revision and lane values are not statistics";
    clock->advance(5s);
    EXPECT_EQ(read(172, 20), bytes(20, 0));
    // Reset brings the image back, and the clear still works afterwards.
    reset();
    select(0x20);
    EXPECT_EQ(read(172, 20), stats);
    write(192, {0x01});
    EXPECT_EQ(read(172, 21), bytes(21, 0));
}

}  // namespace
}  // namespace qsfpd::emu::test

#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

constexpr std::uint8_t state_of(std::uint8_t byte3) {
    return (byte3 >> 1) & 0x07;
}

// --- CMIS module state machine (QSFP-DD 400G-FR4: power up 800 ms, power down 80 ms) ----------

class CmisStates : public ::testing::Test, public cage_fixture {
  protected:
    std::uint8_t state() { return state_of(read1(3)); }
};

TEST_F(CmisStates, ReachesReadyAfterThePowerUpDelay) {
    insert("qsfpdd_400g_fr4");
    EXPECT_EQ(state(), 2);  // ModulePwrUp: no low power request
    clock->advance(799ms);
    EXPECT_EQ(state(), 2);
    clock->advance(1ms);
    EXPECT_EQ(state(), 3);  // ModuleReady
    select(0x11);
    EXPECT_EQ(read(128, 4), (std::vector<std::uint8_t>{0x44, 0x44, 0x44, 0x44}));  // DPActivated
    EXPECT_EQ(read1(133), 0x0f);  // TX output status of the four media lanes
    EXPECT_EQ(read1(132), 0x0f);  // RX output status
}

TEST_F(CmisStates, LpModePinRequestsLowPowerWhileAllowed) {
    auto& m = insert("qsfpdd_400g_fr4");
    clock->advance(800ms);
    cage.pin_set(cage::line::lpmode, true);
    EXPECT_EQ(state(), 4);  // ModulePwrDn
    clock->advance(79ms);
    EXPECT_EQ(state(), 4);
    clock->advance(1ms);
    EXPECT_EQ(state(), 1);  // ModuleLowPwr
    EXPECT_TRUE(m.in_low_power());
    select(0x11);
    EXPECT_EQ(read1(128), 0x11);  // DPDeactivated
    EXPECT_EQ(read1(133), 0x00);
    cage.pin_set(cage::line::lpmode, false);
    EXPECT_EQ(state(), 2);
    clock->advance(800ms);
    EXPECT_EQ(state(), 3);
    // With LowPwrAllowRequestHW cleared the pin is ignored.
    write1(26, 0x00);
    cage.pin_set(cage::line::lpmode, true);
    clock->advance(1s);
    EXPECT_EQ(state(), 3);
}

TEST_F(CmisStates, SoftwareRequestBringsTheModuleDownAndBack) {
    insert("qsfpdd_400g_fr4");
    clock->advance(800ms);
    write1(26, 0x40 | 0x10);  // LowPwrRequestSW
    clock->advance(80ms);
    EXPECT_EQ(state(), 1);
    write1(26, 0x40);
    clock->advance(400ms);
    EXPECT_EQ(state(), 2);
    clock->advance(400ms);
    EXPECT_EQ(state(), 3);
}

TEST_F(CmisStates, InsertedWithLpModeAssertedStaysInLowPower) {
    cage.pin_set(cage::line::lpmode, true);
    insert("qsfpdd_400zr");
    clock->advance(10s);
    EXPECT_EQ(state(), 1);
}

TEST_F(CmisStates, StateChangesLatchTheModuleFlag) {
    insert("qsfpdd_400g_fr4");
    EXPECT_EQ(read1(8) & 0x01, 0x01);
    EXPECT_EQ(read1(8) & 0x01, 0x00);  // cleared by the read
    clock->advance(800ms);
    EXPECT_EQ(read1(8) & 0x01, 0x01);
}

TEST_F(CmisStates, SoftwareResetRestartsFromTheImage) {
    auto& m = insert("qsfpdd_400g_fr4");
    clock->advance(800ms);
    select(0x03);
    write1(200, 0x5a);  // user EEPROM
    EXPECT_EQ(read1(200), 0x5a);
    write1(26, 0x40 | 0x08);  // SoftwareReset
    EXPECT_EQ(read_errno(0), ENXIO);
    clock->advance(m.profile().i2c_not_ready);
    EXPECT_EQ(read1(127), 0x00);
    EXPECT_EQ(read1(26), 0x40);  // trigger bit self-cleared, defaults back
    select(0x03);
    EXPECT_EQ(read1(200), 0x00);
    EXPECT_EQ(state(), 2);
}

TEST_F(CmisStates, ForcedFaultHoldsUntilReset) {
    auto& m = insert("qsfpdd_400g_fr4");
    m.force_fault();
    EXPECT_EQ(state(), 5);
    clock->advance(5s);
    EXPECT_EQ(state(), 5);
    cage.pin_set(cage::line::reset, true);
    cage.pin_set(cage::line::reset, false);
    clock->advance(m.profile().i2c_not_ready + 800ms);
    EXPECT_EQ(state(), 3);
}

// --- SFF-8636 power control (QSFP28 LR4, power class 5) --------------------------------------

class Sff8636Power : public ::testing::Test, public cage_fixture {
  protected:
    std::uint16_t tx_power(unsigned lane) {
        return read16(static_cast<std::uint8_t>(50 + 2 * lane));
    }
};

TEST_F(Sff8636Power, DataNotReadyClearsAfterPowerUp) {
    insert("qsfp28_100g_lr4");
    EXPECT_EQ(read1(2) & 0x01, 0x01);
    clock->advance(300ms);
    EXPECT_EQ(read1(2) & 0x01, 0x00);
    EXPECT_EQ(read1(6) & 0x01, 0x01);  // initialization complete, latched
    EXPECT_EQ(read1(6) & 0x01, 0x00);
}

TEST_F(Sff8636Power, HighPowerClassNeedsItsEnableBit) {
    auto& m = insert("qsfp28_100g_lr4");
    EXPECT_TRUE(m.in_low_power());  // class 5 module, byte 93 bit 2 clear
    EXPECT_EQ(tx_power(0), 0);
    write1(93, 0x04);
    EXPECT_FALSE(m.in_low_power());
    EXPECT_GT(tx_power(0), 9000);  // about 1 mW in 0.1 uW
    EXPECT_GT(read16(42), 0);      // bias
}

TEST_F(Sff8636Power, OverrideAndPowerSetRuleOverTheLpModePin) {
    auto& m = insert("qsfp28_100g_lr4");
    write1(93, 0x04);
    cage.pin_set(cage::line::lpmode, true);
    EXPECT_TRUE(m.in_low_power());
    EXPECT_EQ(tx_power(3), 0);
    write1(93, 0x04 | 0x01);  // override, power set clear: high power despite the pin
    EXPECT_FALSE(m.in_low_power());
    EXPECT_GT(tx_power(3), 0);
    write1(93, 0x04 | 0x01 | 0x02);  // override with power set: low power
    EXPECT_TRUE(m.in_low_power());
    EXPECT_EQ(read1(93), 0x07);
    write1(93, 0xff);  // reserved bits 7..4 stay 0
    EXPECT_EQ(read1(93), 0x0f);
}

TEST_F(Sff8636Power, TxDisableTurnsOneLaneOffUntilReEnabled) {
    insert("qsfp28_100g_lr4");
    write1(93, 0x04);
    write1(86, 0x02);
    EXPECT_GT(tx_power(0), 0);
    EXPECT_EQ(tx_power(1), 0);
    EXPECT_EQ(read16(44), 0);  // lane 2 bias
    clock->advance(1s);        // stays off across monitor refreshes
    EXPECT_EQ(tx_power(1), 0);
    EXPECT_EQ(read1(11) & 0x0f, 0);  // a lane that is off raises no low bias alarm
    write1(86, 0x00);
    EXPECT_GT(tx_power(1), 9000);
    EXPECT_GT(read16(44), 0);
}

TEST_F(Sff8636Power, RateSelectPowersOnAsTheProfileSaysAndIsWritable) {
    for (const auto& [stem, power_on] :
         {std::pair{"qsfp28_100g_sr2_pam4", 0xaa}, std::pair{"qsfp28_100g_dwdm4", 0x00}}) {
        SCOPED_TRACE(stem);
        insert(stem);
        EXPECT_EQ(read(87, 2),
                  (std::vector<std::uint8_t>{std::uint8_t(power_on), std::uint8_t(power_on)}));
        write1(87, 0x55);
        write1(88, 0x5a);
        EXPECT_EQ(read(87, 2), (std::vector<std::uint8_t>{0x55, 0x5a}));
        cage.pin_set(cage::line::reset, true);
        cage.pin_set(cage::line::reset, false);
        clock->advance(2s);
        EXPECT_EQ(read1(87), power_on);
        EXPECT_EQ(read1(88), power_on);
        cage.remove();
    }
}

TEST_F(Sff8636Power, TwoLaneModuleMonitorsTwoLanesWithinItsThresholds) {
    auto& m = insert("qsfp28_100g_sr2_pam4");
    write1(93, 0x04);
    clock->advance(2s);
    read(3, 19);  // clear what power-up latched
    for (int i = 0; i < 20; ++i) {
        EXPECT_GT(tx_power(0), 0);
        EXPECT_GT(tx_power(1), 0);
        EXPECT_EQ(read(38, 4), std::vector<std::uint8_t>(4, 0));  // RX power lanes 3, 4
        EXPECT_EQ(read(46, 4), std::vector<std::uint8_t>(4, 0));  // bias lanes 3, 4
        EXPECT_EQ(read(54, 4), std::vector<std::uint8_t>(4, 0));  // TX power lanes 3, 4
        clock->advance(m.profile().monitor_period);
    }
    // VCSEL bias of a few mA against the module's own thresholds: no alarm or warning.
    EXPECT_EQ(read(6, 9), std::vector<std::uint8_t>(9, 0));
}

// --- reset and re-insertion restore the profile image ------------------------------------------

TEST(ModuleReset, ResetPinAndReinsertionRestoreTheImage) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    const auto pristine = f.read(128, 64);
    f.write1(86, 0x0f);
    f.write1(127, 0x02);
    f.write1(130, 0x77);  // user EEPROM page 02h
    f.cage.pin_set(cage::line::reset, true);
    EXPECT_EQ(f.read_errno(0), ENXIO);
    f.clock->advance(10s);
    EXPECT_EQ(f.read_errno(0), ENXIO);  // held in reset
    f.cage.pin_set(cage::line::reset, false);
    EXPECT_EQ(f.read_errno(0), ENXIO);  // not ready yet
    f.clock->advance(2s);
    EXPECT_EQ(f.read1(86), 0x00);
    EXPECT_EQ(f.read1(127), 0x00);
    EXPECT_EQ(f.read(128, 64), pristine);
    f.write1(127, 0x02);
    EXPECT_EQ(f.read1(130), 0x00);

    f.write1(130, 0x66);
    f.cage.remove();
    EXPECT_FALSE(f.cage.module_present());
    EXPECT_EQ(f.read_errno(0), ENXIO);
    f.insert("qsfp28_100g_lr4");
    f.write1(127, 0x02);
    EXPECT_EQ(f.read1(130), 0x00);
}

// --- monitors ---------------------------------------------------------------------------------

TEST(ModuleMonitors, RegistersShowTheSeededValueInTheStandardsUnits) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    f.write1(93, 0x04);
    using s = module_emulator::sensor;
    for (int i = 0; i < 5; ++i) {
        const auto tick = m.monitor_tick();
        EXPECT_EQ(static_cast<std::int16_t>(f.read16(22)),
                  std::lround(m.monitor_value(s::temperature, 0, tick) * 256));
        EXPECT_EQ(f.read16(26), std::lround(m.monitor_value(s::vcc, 0, tick) * 10000));
        EXPECT_EQ(f.read16(34 + 2), std::lround(m.monitor_value(s::rx_power, 1, tick) * 10000));
        EXPECT_EQ(f.read16(42 + 4), std::lround(m.monitor_value(s::bias, 2, tick) * 500));
        EXPECT_EQ(f.read16(50 + 6), std::lround(m.monitor_value(s::tx_power, 3, tick) * 10000));
        f.clock->advance(100ms);
    }
}

TEST(ModuleMonitors, NoiseStaysWithinItsAmplitudeAndMoves) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    const auto& p = m.profile();
    std::set<std::uint16_t> seen;
    for (int i = 0; i < 200; ++i) {
        const double t = static_cast<std::int16_t>(f.read16(22)) / 256.0;
        EXPECT_LE(std::abs(t - p.temperature_c.nominal), p.temperature_c.noise + 0.5 / 256);
        const double v = f.read16(26) / 10000.0;
        EXPECT_LE(std::abs(v - p.vcc_v.nominal), p.vcc_v.noise + 0.5 / 10000);
        const double rx = f.read16(34) / 10000.0;
        EXPECT_LE(std::abs(rx - p.rx_power_mw.nominal), p.rx_power_mw.noise + 0.5 / 10000);
        seen.insert(f.read16(22));
        f.clock->advance(p.monitor_period);
    }
    EXPECT_GT(seen.size(), 20u);  // it does move
}

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

TEST(ModuleMonitors, DeterministicPerSeedAndClock) {
    EXPECT_EQ(temperature_trace(7), temperature_trace(7));
    EXPECT_NE(temperature_trace(7), temperature_trace(8));
}

TEST(ModuleMonitors, CmisLaneMonitorsUseTheBiasMultiplier) {
    cage_fixture f;
    auto& m = f.insert("qsfpdd_400zr");  // page 01h byte 160 multiplier code 2: x4
    f.clock->advance(1500ms);
    f.select(0x11);
    const auto tick = m.monitor_tick();
    EXPECT_EQ(f.read16(170),
              std::lround(m.monitor_value(module_emulator::sensor::bias, 0, tick) * 500 / 4));
    EXPECT_EQ(f.read16(154),
              std::lround(m.monitor_value(module_emulator::sensor::tx_power, 0, tick) * 10000));
}

TEST(ModuleMonitors, PassiveCopperHasNoLaneMonitors) {
    cage_fixture f;
    f.insert("qsfpplus_dac_passive");
    f.write1(93, 0x04);
    f.clock->advance(1s);
    EXPECT_EQ(f.read(34, 24), std::vector<std::uint8_t>(24, 0));  // RX power, bias, TX power
    EXPECT_NEAR(static_cast<std::int16_t>(f.read16(22)) / 256.0, 27.8, 0.3 + 1.0 / 256);
}

// --- fault injection in the module -------------------------------------------------------------

TEST(ModuleFaults, LosFlapsOneStepPerPoll) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    m.flap(lane_flag::rx_los, 2, "0110", flap_step::per_poll);
    // Latched LOS (byte 3 bit 2) as the host polls it; live state as the step left it. A
    // condition present after a read latches again, so the poll after the last '1' still sees it.
    const std::vector<int> latched{0, 1, 1, 1, 0, 1, 1, 1};
    const std::vector<int> live{0, 1, 1, 0, 0, 1, 1, 0};
    for (std::size_t poll = 0; poll < latched.size(); ++poll) {
        EXPECT_EQ((f.read1(3) >> 2) & 1, latched[poll]) << "poll " << poll;
        EXPECT_EQ(m.flag_live(lane_flag::rx_los, 2), live[poll] == 1) << "poll " << poll;
        if (live[poll]) {
            EXPECT_EQ(f.read16(34 + 4), 0);  // no light: RX power 0
        }
    }
    EXPECT_EQ(f.read1(3) & ~0x04, 0);  // other lanes untouched
}

TEST(ModuleFaults, TxFaultFlapsPerPeriodOnACmisLane) {
    cage_fixture f;
    auto& m = f.insert("qsfpdd_400g_fr4");
    f.select(0x11);
    m.flap(lane_flag::tx_fault, 1, "1100", flap_step::per_period, 1s, false);
    EXPECT_EQ(f.read1(135), 0x02);
    f.clock->advance(1500ms);
    EXPECT_TRUE(m.flag_live(lane_flag::tx_fault, 1));
    EXPECT_EQ(f.read1(135), 0x02);
    f.clock->advance(1s);  // step 2: '0'
    EXPECT_FALSE(m.flag_live(lane_flag::tx_fault, 1));
    EXPECT_EQ(f.read1(135), 0x02);  // present since the last read
    EXPECT_EQ(f.read1(135), 0x00);
    f.clock->advance(10s);  // the pattern does not repeat: stays '0'
    EXPECT_EQ(f.read1(135), 0x00);
}

TEST(ModuleFaults, ATransientBetweenPollsStillLatches) {
    cage_fixture f;
    auto& m = f.insert("qsfpdd_400g_fr4");
    f.select(0x11);
    m.flap(lane_flag::rx_lol, 0, "0001000", flap_step::per_period, 100ms, false);
    EXPECT_EQ(f.read1(148), 0x00);
    f.clock->advance(1s);
    EXPECT_EQ(f.read1(148), 0x01);
    EXPECT_EQ(f.read1(148), 0x00);
}

TEST(ModuleFaults, AStuckValueDoesNotMove) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    m.stick({}, 22, {0x7f, 0x00});
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(f.read16(22), 0x7f00);
        f.clock->advance(100ms);
    }
    m.unstick_all();
    EXPECT_LT(f.read16(22), 0x7f00);
}

TEST(ModuleFaults, LatchedFlagsAssertTheInterrupt) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    EXPECT_EQ(f.read1(2) & 0x02, 0x02);  // IntL deasserted
    EXPECT_FALSE(m.interrupt_asserted());
    m.flap(lane_flag::tx_fault, 3, "10", flap_step::per_period, 1s, false);
    EXPECT_EQ(f.read1(2) & 0x02, 0x00);
    EXPECT_TRUE(m.interrupt_asserted());
    f.clock->advance(1s);
    EXPECT_EQ(f.read(3, 19)[1], 0x08);  // byte 4: TX fault lane 4; reading clears all flags
    EXPECT_EQ(f.read1(2) & 0x02, 0x02);
    EXPECT_FALSE(m.interrupt_asserted());
}

TEST(ModuleAlarms, StuckTemperatureRaisesTheHighAlarmAndWarning) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    EXPECT_EQ(f.read1(6) & 0xf0, 0x00);
    m.stick({}, 22, {0x7f, 0x00});              // 127 degC; thresholds 75 / 70 degC
    EXPECT_EQ(f.read1(6) & 0xf0, 0x80 | 0x20);  // high alarm, high warning
    EXPECT_TRUE(m.interrupt_asserted());        // still there: latched again
    m.unstick_all();
    f.read1(6);
    EXPECT_EQ(f.read1(6) & 0xf0, 0x00);
}

TEST(ModuleAlarms, CmisLaneRxPowerLowAlarm) {
    cage_fixture f;
    auto& m = f.insert("qsfpdd_400g_fr4");
    f.select(0x11);
    EXPECT_EQ(f.read(149, 4), (std::vector<std::uint8_t>{0, 0, 0, 0}));
    m.stick({0, 0x11}, 186 + 2 * 2, {0x00, 0x00});  // lane 3 RX power 0
    // RX power high alarm, low alarm, high warning, low warning: lane 3 low alarm and warning.
    EXPECT_EQ(f.read(149, 4), (std::vector<std::uint8_t>{0, 0x04, 0, 0x04}));
}

TEST(ModuleAlarms, SfpFlagsAreLive) {
    cage_fixture f;
    auto& m = f.insert("qsa_sfpplus_10g_sr");
    f.clock->advance(300ms);
    EXPECT_EQ(f.read1(112, 0x51), 0x00);
    m.stick({}, 96, {0x50, 0x00}, 0x51);  // 80 degC; thresholds 78 / 73 degC
    EXPECT_EQ(f.read1(112, 0x51), 0x80);
    EXPECT_EQ(f.read1(116, 0x51), 0x80);
    m.unstick_all();
    EXPECT_EQ(f.read1(112, 0x51), 0x00);
}

TEST(ModuleHooks, BehaviourHooksSurviveAReset) {
    cage_fixture f;
    auto& m = f.insert("qsfpdd_400zr");
    // A stand-in for tuning: a write of the channel (page 12h 136-137) updates the current
    // frequency (168-171) the host reads back.
    const page_id tuning{0, 0x12};
    int writes = 0;
    m.on_write(tuning, 136, 137, [&](page_id, std::uint8_t, std::uint8_t) {
        ++writes;
        auto& mem = m.memory();
        const auto channel = static_cast<std::int16_t>(mem.peek16(tuning, 136));
        const auto mhz = static_cast<std::uint32_t>(193'100'000 + channel * 25'000);
        mem.poke16(tuning, 168, static_cast<std::uint16_t>(mhz >> 16));
        mem.poke16(tuning, 170, static_cast<std::uint16_t>(mhz & 0xffff));
    });
    auto tune = [&](std::int16_t channel) {
        f.select(0x12);
        const std::array<std::uint8_t, 2> ch{static_cast<std::uint8_t>(channel >> 8),
                                             static_cast<std::uint8_t>(channel & 0xff)};
        f.cage.i2c_write(0x50, 136, ch);
        const auto b = f.read(168, 4);
        return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 |
               b[3];
    };
    EXPECT_EQ(tune(-69), 191'375'000u);
    f.cage.pin_set(cage::line::reset, true);
    f.cage.pin_set(cage::line::reset, false);
    f.clock->advance(m.profile().i2c_not_ready);
    EXPECT_EQ(tune(120), 196'100'000u);
    EXPECT_EQ(writes, 4);  // two bytes per tuning write
}

// --- PAM4 DSP page 20h -------------------------------------------------------------------------

TEST(DspPages, BerClearZeroesTheStatisticsAndSelfClears) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_fr1_pam4");
    f.select(0x20);
    const auto pristine = f.read(128, 65);
    const std::vector<std::uint8_t> stats(pristine.begin() + 44, pristine.begin() + 64);
    ASSERT_NE(stats, std::vector<std::uint8_t>(20, 0));
    f.write1(192, 0x00);  // bit 0 clear: nothing happens
    EXPECT_EQ(f.read(128, 65), pristine);
    f.write1(192, 0xff);  // only bit 0 is writable; it triggers the clear
    EXPECT_EQ(f.read1(192), 0x00);
    EXPECT_EQ(f.read(172, 20), std::vector<std::uint8_t>(20, 0));
    EXPECT_EQ(f.read(128, 44), std::vector<std::uint8_t>(pristine.begin(), pristine.begin() + 44))
        << "firmware revision and lane values are not statistics";
    f.clock->advance(5s);
    EXPECT_EQ(f.read(172, 20), std::vector<std::uint8_t>(20, 0));

    // Reset brings the image back, and the clear still works afterwards.
    f.cage.pin_set(cage::line::reset, true);
    f.cage.pin_set(cage::line::reset, false);
    f.clock->advance(m.profile().i2c_not_ready);
    f.select(0x20);
    EXPECT_EQ(f.read(172, 20), stats);
    f.write1(192, 0x01);
    EXPECT_EQ(f.read(172, 21), std::vector<std::uint8_t>(21, 0));
}

TEST(DspPages, OnlyTheClearBitIsHostWritable) {
    cage_fixture f;
    f.insert("qsfp28_100g_sr2_pam4");
    f.select(0x20);
    const auto snr = f.read16(132);
    f.write1(132, 0x00);
    f.write1(193, 0x5a);
    EXPECT_EQ(f.read16(132), snr);
    EXPECT_EQ(f.read1(193), 0x00);
    f.select(0x21);
    EXPECT_EQ(f.read1(127), 0x21);
    const auto snr_high_alarm = f.read16(128);
    f.write1(128, 0x00);
    EXPECT_EQ(f.read16(128), snr_high_alarm);
}

TEST(DspPages, ModulesWithoutThemRefuseThePage) {
    cage_fixture f;
    f.insert("qsfp28_100g_dwdm4");
    f.select(0x20);
    EXPECT_EQ(f.read1(127), 0x00);
}

TEST(ModuleFaults, BadFlapRequestsAreRefused) {
    cage_fixture f;
    auto& m = f.insert("qsfp28_100g_lr4");
    EXPECT_THROW(m.flap(lane_flag::rx_los, 0, "01x", flap_step::per_poll), std::invalid_argument);
    EXPECT_THROW(m.flap(lane_flag::rx_los, 4, "01", flap_step::per_poll), std::invalid_argument);
    EXPECT_THROW(m.flap(lane_flag::rx_los, 0, "01", flap_step::per_period), std::invalid_argument);
}

}  // namespace
}  // namespace qsfpd::emu::test

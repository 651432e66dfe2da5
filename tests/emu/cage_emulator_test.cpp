#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

TEST(CagePresence, EmptyCageHasNoModuleAndNacks) {
    cage_fixture f;
    EXPECT_FALSE(f.cage.module_present());
    EXPECT_EQ(f.read_errno(0), ENXIO);
    EXPECT_EQ(f.bus->counters(f.cage.bus_index()).nacks, 1u);
}

TEST(CagePresence, BusIsNotReadyUntilTheWindowAfterInsertionPasses) {
    cage_fixture f;
    f.cage.insert(module_profile::load_named("qsfp28_100g_lr4"));  // 2000 ms window
    EXPECT_TRUE(f.cage.module_present());
    EXPECT_EQ(f.read_errno(0), ENXIO);
    f.clock->advance(1999ms);
    EXPECT_EQ(f.read_errno(0), ENXIO);
    const std::array<std::uint8_t, 1> one{0};
    EXPECT_THROW(f.cage.i2c_write(0x50, 127, one), std::system_error);
    f.clock->advance(1ms);
    EXPECT_EQ(f.read1(0), 0x11);
}

TEST(CageLines, ResetHeldKeepsTheModuleSilentAndLinesReadBack) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    f.cage.pin_set(cage::line::reset, true);
    f.cage.pin_set(cage::line::tx_led_green, true);
    EXPECT_TRUE(f.cage.pin_get(cage::line::reset));
    EXPECT_TRUE(f.cage.pin_get(cage::line::tx_led_green));
    EXPECT_FALSE(f.cage.pin_get(cage::line::rx_led_yellow));
    EXPECT_EQ(f.read_errno(0), ENXIO);
    EXPECT_THROW(f.cage.pin_set(8, true), std::system_error);
}

TEST(CageLines, SfpSignalsNeedAConverter) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    try {
        f.cage.sfp_signal_get(cage::sfp_signal::los);
        FAIL() << "no error";
    } catch (const std::system_error& e) {
        EXPECT_EQ(e.code().value(), ENOTSUP);
    }
}

TEST(CageFaults, NackTheNextTransfers) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    f.cage.fail_next(3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(f.read_errno(0), ENXIO) << i;
    EXPECT_EQ(f.read_errno(0), 0);
    const auto c = f.bus->counters(f.cage.bus_index());
    EXPECT_EQ(c.nacks, 3u);
    EXPECT_EQ(c.transactions, 4u);
}

TEST(CageFaults, ChosenErrnoForTheNextTransfer) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    f.cage.fail_next(1, EIO);
    EXPECT_EQ(f.read_errno(0, 4), EIO);
    EXPECT_EQ(f.read_errno(0, 4), 0);
    EXPECT_EQ(f.bus->counters(f.cage.bus_index()).errors, 1u);
}

TEST(CageFaults, FailAtAnAddressRange) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    f.cage.fail_at(0x50, 22, 23, EAGAIN);
    EXPECT_EQ(f.read_errno(22, 2), EAGAIN);
    EXPECT_EQ(f.read_errno(20, 2), 0);
    EXPECT_EQ(f.read_errno(20, 8), EAGAIN);  // touches 22
    EXPECT_EQ(f.read_errno(24, 2), 0);
    EXPECT_EQ(f.read_errno(22, 1), EAGAIN);  // until cleared
    f.cage.clear_faults();
    EXPECT_EQ(f.read_errno(22, 2), 0);

    f.cage.fail_at(0x50, 127, 127, ENXIO, 2);  // twice, then gone
    const std::array<std::uint8_t, 1> page{0};
    EXPECT_THROW(f.cage.i2c_write(0x50, 127, page), std::system_error);
    EXPECT_THROW(f.cage.i2c_write(0x50, 127, page), std::system_error);
    EXPECT_NO_THROW(f.cage.i2c_write(0x50, 127, page));
}

// --- paging on the real images ----------------------------------------------------------------

TEST(CagePaging, Sff8636PagesThroughTheCage) {
    cage_fixture f;
    f.insert("qsfp28_100g_lr4");
    f.write1(127, 0x03);
    EXPECT_EQ(f.read16(128), 75 * 256);  // temperature high alarm threshold, 1/256 degC
    f.write1(127, 0x05);                 // not implemented: rejected
    EXPECT_EQ(f.read1(127), 0x03);
    f.write1(127, 0x00);
    EXPECT_EQ(f.read(186, 2), (std::vector<std::uint8_t>{0x66, 0x58}));  // 1310 nm
}

TEST(CagePaging, CmisBanksAndPagesThroughTheCage) {
    cage_fixture f;
    f.insert("qsfpdd_400zr");
    f.select(0x12);
    EXPECT_EQ(f.read1(128), 0x70);  // 75 GHz grid
    f.select(0x20);                 // no VDM page on this module
    EXPECT_EQ(f.read(126, 2), (std::vector<std::uint8_t>{0, 0x12}));
    f.select(0x11, 1);  // no bank 1 on a one-lane module
    EXPECT_EQ(f.read(126, 2), (std::vector<std::uint8_t>{0, 0x12}));
    f.select(0x04);
    EXPECT_EQ(f.read16(158), 0xffbb);  // lowest 75 GHz channel: -69 (191.375 THz)
    EXPECT_EQ(f.read16(160), 120);     // highest: 196.100 THz
}

// --- QSFP-to-SFP converter ---------------------------------------------------------------------

class Converter : public ::testing::Test, public cage_fixture {
  protected:
    void SetUp() override {
        insert("qsa_sfpplus_10g_sr");
        clock->advance(300ms);
    }
};

TEST_F(Converter, SfpAnswersAtA0AndA2) {
    EXPECT_EQ(read1(0, 0x50), 0x03);
    const auto name = read(20, 16, 0x50);
    EXPECT_EQ(std::string(name.begin(), name.end()), "FINISAR CORP.   ");
    // A2h diagnostics: temperature (96) near the profile's 33 degC, Data_Ready_Bar clear.
    const double t = static_cast<std::int16_t>(read16(96, 0x51)) / 256.0;
    EXPECT_NEAR(t, 33.0, 0.5 + 1.0 / 256);
    EXPECT_EQ(read1(110, 0x51) & 0x01, 0x00);
    EXPECT_EQ(read_errno(0, 1, 0x52), ENXIO);
}

TEST_F(Converter, A0IsFlatAndReadOnly) {
    write1(127, 0x01, 0x50);
    EXPECT_EQ(read1(127, 0x50), 0x00);
    write1(20, 'X', 0x50);
    EXPECT_EQ(read1(20, 0x50), 'F');
}

TEST_F(Converter, TxDisableSignalTurnsTheLaserOffAndShowsInStatus) {
    EXPECT_GT(read16(102, 0x51), 0);
    cage.sfp_signal_set(cage::sfp_signal::tx_disable, true);
    EXPECT_TRUE(cage.sfp_signal_get(cage::sfp_signal::tx_disable));
    EXPECT_EQ(read1(110, 0x51) & 0x80, 0x80);
    EXPECT_EQ(read16(102, 0x51), 0);
    EXPECT_EQ(read16(100, 0x51), 0);
    cage.sfp_signal_set(cage::sfp_signal::tx_disable, false);
    write1(110, 0x40, 0x51);  // soft TX disable does the same
    EXPECT_EQ(read16(102, 0x51), 0);
    cage.sfp_signal_set(cage::sfp_signal::rate_select, true);
    EXPECT_EQ(read1(110, 0x51) & 0x10, 0x10);
    EXPECT_THROW(cage.sfp_signal_set(cage::sfp_signal::los, true), std::system_error);
}

TEST_F(Converter, LosAndTxFaultFollowTheirPatterns) {
    auto& m = *cage.module();
    m.flap(lane_flag::rx_los, 0, "10", flap_step::per_period, 1s);
    m.flap(lane_flag::tx_fault, 0, "01", flap_step::per_period, 1s);
    EXPECT_TRUE(cage.sfp_signal_get(cage::sfp_signal::los));
    EXPECT_FALSE(cage.sfp_signal_get(cage::sfp_signal::tx_fault));
    EXPECT_EQ(read1(110, 0x51) & 0x06, 0x02);
    EXPECT_EQ(read16(104, 0x51), 0);  // no light
    clock->advance(1s);
    EXPECT_FALSE(cage.sfp_signal_get(cage::sfp_signal::los));
    EXPECT_TRUE(cage.sfp_signal_get(cage::sfp_signal::tx_fault));
    EXPECT_EQ(read1(110, 0x51) & 0x06, 0x04);
    EXPECT_GT(read16(104, 0x51), 0);
}

// --- bus accounting through the cage -----------------------------------------------------------

TEST(CageBus, EveryTransferIsAccountedWithItsClockTime) {
    auto clock = std::make_shared<virtual_clock>();
    auto bus = std::make_shared<emu_bus>(clock);
    cage_emulator a(clock, bus, "a");
    cage_emulator b(clock, bus, "b");
    a.insert(module_profile::load_named("qsfp28_100g_lr4"));
    b.insert(module_profile::load_named("qsfpdd_400g_fr4"));
    clock->advance(2s);
    const auto t0 = clock->now();
    std::array<std::uint8_t, 55> buf{};
    a.i2c_read(0x50, 128, buf);
    clock->advance(100ms);
    b.i2c_read(0x50, 0, std::span(buf).first(8));
    const std::array<std::uint8_t, 2> sel{0, 0x11};
    b.i2c_write(0x50, 126, sel);

    const auto ca = bus->counters(a.bus_index());
    EXPECT_EQ(ca.transactions, 1u);
    EXPECT_EQ(ca.bytes, 55u);
    EXPECT_EQ(ca.wire_time, std::chrono::nanoseconds(1'312'500));  // (30 + 9*55) bits at 400 kHz
    const auto cb = bus->counters(b.bus_index());
    EXPECT_EQ(cb.reads, 1u);
    EXPECT_EQ(cb.writes, 1u);
    EXPECT_EQ(cb.bytes, 10u);
    // Combined read of 8: 102 bits; write of 2: 38 bits; 2.5 us each.
    EXPECT_EQ(cb.wire_time, std::chrono::nanoseconds((102 + 38) * 2500));
    EXPECT_EQ(bus->total().wire_time, ca.wire_time + cb.wire_time);
    EXPECT_EQ(bus->accesses(a.bus_index()), (std::vector<clock::time_point>{t0}));
    EXPECT_EQ(bus->accesses(b.bus_index()),
              (std::vector<clock::time_point>{t0 + 100ms, t0 + 100ms}));
}

}  // namespace
}  // namespace qsfpd::emu::test

namespace qsfpd::emu::test {
namespace {

// A daemon thread polls while the test thread injects faults and moves time: every transfer
// either succeeds or fails with an injected errno, and the bus counts every one.
TEST(CageThreads, PollingWhileInjectingIsSafe) {
    cage_fixture f;
    auto& m = f.insert("qsfpdd_400g_fr4");
    std::atomic<int> ok{0};
    std::atomic<int> failed{0};
    std::atomic<bool> unexpected{false};
    std::thread poller([&] {
        std::array<std::uint8_t, 16> buf{};
        for (int i = 0; i < 2000; ++i) {
            try {
                f.cage.i2c_read(0x50, 0, buf);
                ++ok;
            } catch (const std::system_error& e) {
                if (e.code().value() != ENXIO && e.code().value() != EIO) unexpected = true;
                ++failed;
            }
        }
    });
    for (int i = 0; i < 200; ++i) {
        f.cage.fail_next(1, i % 2 ? ENXIO : EIO);
        m.flap(lane_flag::rx_los, static_cast<unsigned>(i % 4), "10", flap_step::per_poll);
        m.stick({}, 14, {0x20, static_cast<std::uint8_t>(i)});
        f.clock->advance(10ms);
        m.unstick_all();
        m.stop_flaps();
    }
    poller.join();
    EXPECT_FALSE(unexpected);
    EXPECT_EQ(ok + failed, 2000);
    EXPECT_EQ(f.bus->counters(f.cage.bus_index()).transactions, 2000u);
}

}  // namespace
}  // namespace qsfpd::emu::test

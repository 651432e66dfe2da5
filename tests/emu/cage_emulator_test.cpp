#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

using CagePresence = emu_test;
using CageFaults = emu_test;
using Converter = emu_test;
using CageBus = emu_test;

TEST_F(CagePresence, AnEmptyCageNacksAModuleAnswersAfterItsWindowAndRefusesPagesItLacks) {
    EXPECT_FALSE(cage.module_present());
    EXPECT_EQ(read_errno(0), ENXIO);
    EXPECT_EQ(bus->counters(cage.bus_index()).nacks, 1u);
    cage.insert(module_profile::load_named("qsfp28_100g_lr4"));  // 2000 ms window
    EXPECT_TRUE(cage.module_present());
    EXPECT_EQ(read_errno(0), ENXIO);
    clock->advance(1999ms);
    EXPECT_EQ(read_errno(0), ENXIO);
    EXPECT_EQ(error_of([&] { write(127, {0}); }), ENXIO);
    clock->advance(1ms);
    EXPECT_EQ(read1(0), 0x11);
    // SFP signals need a converter.
    EXPECT_EQ(error_of([&] { (void)cage.sfp_signal_get(cage::sfp_signal::los); }), ENOTSUP);
    cage.remove();
    // SFF-8636 page 05h, DSP page 20h on a module without it, CMIS VDM page 20h, bank 1 on a
    // one-lane module: the select stays where it was.
    using refusal = std::tuple<const char*, std::uint8_t, std::uint8_t>;  // profile, bank, page
    for (const auto& [stem, bank, page] : {refusal{"qsfp28_100g_lr4", 0, 0x05},
                                           {"qsfp28_100g_dwdm4", 0, 0x20},
                                           {"qsfpdd_400zr", 0, 0x20},
                                           {"qsfpdd_400zr", 1, 0x11}}) {
        SCOPED_TRACE(stem);
        insert(stem);
        select(0x03);
        select(page, bank);
        EXPECT_EQ(read(126, 2), (bytes{0, 0x03}));
        cage.remove();
    }
}

TEST_F(CageFaults, NackOrErrnoForTheNextTransfersOrAnAddressRangeAndSafeWhilePolled) {
    insert("qsfp28_100g_lr4");
    cage.fail_next(3);
    for (int expected : {ENXIO, ENXIO, ENXIO, 0})
        EXPECT_EQ(read_errno(0), expected);
    cage.fail_next(1, EIO);
    EXPECT_EQ(read_errno(0, 4), EIO);
    EXPECT_EQ(read_errno(0, 4), 0);
    const auto c = bus->counters(cage.bus_index());
    EXPECT_EQ(std::tuple(c.nacks, c.errors, c.transactions), std::tuple(3u, 1u, 6u));
    // Or at an address range, until cleared: reads at 22, 20, 20 touching 22, 24, 22 again.
    cage.fail_at(0x50, 22, 23, EAGAIN);
    for (const auto& [offset, n, expected] :
         {std::tuple{22, 2, EAGAIN}, {20, 2, 0}, {20, 8, EAGAIN}, {24, 2, 0}, {22, 1, EAGAIN}})
        EXPECT_EQ(read_errno(static_cast<std::uint8_t>(offset), n), expected) << offset;
    cage.clear_faults();
    EXPECT_EQ(read_errno(22, 2), 0);
    cage.fail_at(0x50, 127, 127, ENXIO, 2);  // twice, then gone
    for (int expected : {ENXIO, ENXIO, 0})
        EXPECT_EQ(error_of([&] { write(127, {0}); }), expected);
    // A daemon thread polls while the test thread injects faults and moves time: every transfer
    // either succeeds or fails with an injected errno, and the bus counts every one.
    cage.remove();
    auto& m = insert("qsfpdd_400g_fr4");
    const auto before = bus->counters(cage.bus_index()).transactions;
    std::atomic<int> ok{0};
    std::atomic<int> failed{0};
    std::atomic<bool> unexpected{false};
    std::thread poller([&] {
        std::array<std::uint8_t, 16> buf{};
        for (int i = 0; i < 2000; ++i) {
            const int e = error_of([&] { cage.i2c_read(0x50, 0, buf); });
            if (e != 0 && e != ENXIO && e != EIO) unexpected = true;
            ++(e ? failed : ok);
        }
    });
    for (int i = 0; i < 200; ++i) {
        cage.fail_next(1, i % 2 ? ENXIO : EIO);
        m.flap(lane_flag::rx_los, static_cast<unsigned>(i % 4), "10", flap_step::per_poll);
        m.stick({}, 14, {0x20, static_cast<std::uint8_t>(i)});
        clock->advance(10ms);
        m.unstick_all();
        m.stop_flaps();
    }
    poller.join();
    EXPECT_FALSE(unexpected);
    EXPECT_EQ(ok + failed, 2000);
    EXPECT_EQ(bus->counters(cage.bus_index()).transactions - before, 2000u);
}

// --- paging on the real images ----------------------------------------------------------------

// --- QSFP-to-SFP converter ---------------------------------------------------------------------

TEST_F(Converter, SfpAnswersAtA0AndA2AndItsSignalsFollowControlsAndPatterns) {
    insert("qsa_sfpplus_10g_sr");
    clock->advance(300ms);
    // A0h is flat and read-only.
    EXPECT_EQ(read1(0), 0x03);
    const auto name = read(20, 16);
    EXPECT_EQ(std::string(name.begin(), name.end()), "FINISAR CORP.   ");
    // A2h diagnostics: temperature (96) near the profile's 33 degC, Data_Ready_Bar clear.
    EXPECT_NEAR(static_cast<std::int16_t>(read16(96, 0x51)) / 256.0, 33.0, 0.5 + 1.0 / 256);
    EXPECT_EQ(read1(110, 0x51) & 0x01, 0x00);
    EXPECT_EQ(read_errno(0, 1, 0x52), ENXIO);
    write(127, {0x01});
    EXPECT_EQ(read1(127), 0x00);
    write(20, {'X'});
    EXPECT_EQ(read1(20), 'F');
    // The TX disable signal turns the laser off and shows in the status.
    EXPECT_GT(read16(102, 0x51), 0);
    cage.sfp_signal_set(cage::sfp_signal::tx_disable, true);
    EXPECT_EQ(read1(110, 0x51) & 0x80, 0x80);
    EXPECT_EQ(read16(102, 0x51), 0);
    EXPECT_EQ(read16(100, 0x51), 0);
    cage.sfp_signal_set(cage::sfp_signal::tx_disable, false);
    write(110, {0x40}, 0x51);  // soft TX disable does the same
    EXPECT_EQ(read16(102, 0x51), 0);
    cage.sfp_signal_set(cage::sfp_signal::rate_select, true);
    EXPECT_EQ(read1(110, 0x51) & 0x10, 0x10);
    EXPECT_THROW(cage.sfp_signal_set(cage::sfp_signal::los, true), std::system_error);
    // LOS and TX fault follow their patterns.
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

// --- bus accounting ----------------------------------------------------------------------------

TEST_F(CageBus, EveryTransferIsAccountedWithItsWireTimeAtTheBusSpeedAndItsClockTime) {
    cage_emulator b(clock, bus, "b");
    insert("qsfp28_100g_lr4");
    b.insert(module_profile::load_named("qsfpdd_400g_fr4"));
    clock->advance(2s);
    const auto t0 = clock->now();
    read(128, 55);
    clock->advance(100ms);
    std::array<std::uint8_t, 8> buf{};
    b.i2c_read(0x50, 0, buf);
    b.i2c_write(0x50, 126, std::array<std::uint8_t, 2>{0, 0x11});
    const auto ca = bus->counters(cage.bus_index());
    EXPECT_EQ(std::tuple(ca.transactions, ca.bytes), std::tuple(1u, 55u));
    // A combined read is start, address, offset, repeated start, address, the data and stop, 9
    // bits a byte: (30 + 9 * 55) bits at 400 kHz.
    EXPECT_EQ(ca.wire_time, std::chrono::nanoseconds(1'312'500));
    const auto cb = bus->counters(b.bus_index());
    EXPECT_EQ(std::tuple(cb.reads, cb.writes, cb.bytes), std::tuple(1u, 1u, 10u));
    // Combined read of 8: 102 bits; write of 2: 38 bits; 2.5 us each.
    EXPECT_EQ(cb.wire_time, std::chrono::nanoseconds((102 + 38) * 2500));
    EXPECT_EQ(bus->total().wire_time, ca.wire_time + cb.wire_time);
    EXPECT_EQ(bus->accesses(cage.bus_index()), (std::vector<clock::time_point>{t0}));
    EXPECT_EQ(bus->accesses(b.bus_index()),
              (std::vector<clock::time_point>{t0 + 100ms, t0 + 100ms}));
    // Wire time follows the bus speed, a nack is 11 bits, recent accesses are bounded.
    emu_bus slow(clock, 100'000, 3);
    const auto c = slow.attach("c");
    EXPECT_EQ(slow.account(c, emu_bus::kind::read, 55), std::chrono::nanoseconds(5'250'000));
    EXPECT_EQ(slow.account(c, emu_bus::kind::write, 1, emu_bus::outcome::nack),
              std::chrono::nanoseconds(110'000));
    std::vector<clock::time_point> times{clock->now(), clock->now()};
    for (int i = 0; i < 3; ++i) {
        clock->advance(10ms);
        times.push_back(clock->now());
        slow.account(c, emu_bus::kind::read, 1);
    }
    EXPECT_EQ(slow.accesses(c), (std::vector<clock::time_point>(times.begin() + 2, times.end())));
    EXPECT_EQ(slow.counters(c).transactions, 5u);
}

}  // namespace
}  // namespace qsfpd::emu::test

#include "coherent_module.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

// The 400ZR profile: ModuleReady 1500 ms after the module answers, data path init 99 ms (page
// 01h byte 144 = 44h: < 100 ms), demodulator locks 300 ms after that, tuning 1.2 s; the ZR+ tunes
// in 2 s. Line rate of 400ZR (application 1) 478.75 Gb/s.
constexpr auto up = 1500ms + 99ms;
constexpr auto lock_delay = 300ms;
constexpr auto zr_tuning = 1200ms;
constexpr double zr_rate = 478.75e9;

constexpr std::uint8_t grid_75 = 7, grid_33 = 6, grid_100 = 5, grid_50 = 4;

std::uint64_t be(const bytes& b) {
    std::uint64_t v = 0;
    for (auto x : b)
        v = v << 8 | x;
    return v;
}

double f16(std::uint16_t raw) {
    return (raw & 0x7ff) * std::pow(10.0, (raw >> 11) - 24);
}

struct Coherent : emu_test {
    // The data path is up (both profiles advertise DPInit < 100 ms: 99 ms).
    module_emulator& ready(std::string_view stem = "qsfpdd_400zr") {
        auto& m = insert(stem);
        clock->advance(m.profile().power_up + 99ms);
        return m;
    }
    module_emulator& locked(std::string_view stem = "qsfpdd_400zr") {
        auto& m = ready(stem);
        clock->advance(lock_delay);
        return m;
    }
    coherent_module& coh() { return *cage.module()->coherent(); }

    std::uint64_t at(std::uint8_t page, std::uint8_t offset, std::size_t n) {
        select(page);
        return be(read(offset, n));
    }
    std::uint8_t locks() { return static_cast<std::uint8_t>(at(0xc0, 130, 1)); }
    // Grid and channel in one transaction (128..137), so one tuning starts.
    void tune(std::uint8_t grid, std::int16_t channel) {
        select(0x12);
        bytes b(10, 0);
        b[0] = static_cast<std::uint8_t>(grid << 4);
        b[8] = static_cast<std::uint8_t>(static_cast<std::uint16_t>(channel) >> 8);
        b[9] = static_cast<std::uint8_t>(channel);
        write(128, b);
    }
    std::uint32_t frequency() { return static_cast<std::uint32_t>(at(0x12, 168, 4)); }
    void write16(std::uint8_t page, std::uint8_t offset, std::int16_t v) {
        select(page);
        const auto u = static_cast<std::uint16_t>(v);
        write(offset, {static_cast<std::uint8_t>(u >> 8), static_cast<std::uint8_t>(u)});
    }
    std::int16_t s16(std::uint8_t page, std::uint8_t offset) {
        return static_cast<std::int16_t>(at(page, offset, 2));
    }
};

// --- Tuning --------------------------------------------------------------------------------------

struct tuning_row {
    const char* stem;
    std::uint8_t grid;
    std::int16_t channel;
    std::uint32_t mhz;
    std::chrono::milliseconds takes;
};

TEST_F(Coherent, TuningTakesTheProfileTimeInLowPowerAndMovesToTheChannelOfTheGrid) {
    const tuning_row rows[] = {
        {"qsfpdd_400zr", grid_100, 10, 194'100'000, zr_tuning},
        {"qsfpdd_400zr", grid_100, -18, 191'300'000, zr_tuning},
        {"qsfpdd_400zr", grid_75, -72, 191'300'000, zr_tuning},  // 25 GHz steps
        {"qsfpdd_400zr", grid_75, 3, 193'175'000, zr_tuning},
        {"qsfpdd_400zr", grid_50, 60, 196'100'000, zr_tuning},
        {"qsfpdd_400zr", grid_33, 1, 193'133'333, zr_tuning},  // 100/3 GHz steps
        {"qsfpdd_400zr", grid_33, 90, 196'100'000, zr_tuning},
        {"qsfpdd_400zr", grid_33, -54, 191'300'000, zr_tuning},
        {"qsfpdd_400zr_plus", grid_75, 120, 196'100'000, 2000ms},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.stem) + " grid " + std::to_string(r.grid) + " channel " +
                     std::to_string(r.channel));
        cage.pin_set(cage::line::lpmode, true);  // the host tunes in low power
        insert(r.stem);
        ASSERT_EQ(polls(3, 0x0e, {0ms}), "1");
        tune(r.grid, r.channel);
        select(0x12);
        EXPECT_EQ(read1(222) & 0x02, 0x02);  // tuning in progress
        clock->advance(r.takes - 1ms);
        EXPECT_EQ(read1(222) & 0x02, 0x02);
        EXPECT_EQ(read(230, 2), (bytes{0x00, 0x00}));
        EXPECT_EQ(frequency(), 193'100'000u);
        clock->advance(1ms);
        select(0x12);
        EXPECT_EQ(read1(222) & 0x02, 0x00);
        EXPECT_EQ(frequency(), r.mhz);
        // 230 shows a latched flag in 231, which clears on read, and 230 follows.
        select(0x12);
        EXPECT_EQ(read(230, 2), (bytes{0x01, 0x01}));
        EXPECT_EQ(read(230, 2), (bytes{0x00, 0x00}));
        EXPECT_EQ(polls(3, 0x0e, {0ms}), "1");
        cage.remove();
        cage.pin_set(cage::line::lpmode, false);
    }
}

TEST_F(Coherent, TheHandlersTuningPollSeesCompletionWithinItsThirtyOneReads) {
    insert("qsfpdd_400zr");
    tune(grid_75, 6);
    select(0x12);
    int reads = 0;
    while (reads < 31) {
        clock->advance(100ms);
        ++reads;
        if (read1(231) & 0x01) break;
    }
    EXPECT_EQ(reads, 12);
    EXPECT_EQ(frequency(), 193'250'000u);
}

struct rejected_row {
    std::uint8_t grid;
    std::int16_t channel;
    std::uint8_t flag;  // page 12h byte 231
};

TEST_F(Coherent, AChannelOutsideTheGridOrAGridNotAdvertisedLatchesAndDoesNotMove) {
    const rejected_row rows[] = {
        {grid_75, 123, 0x04}, {grid_75, -75, 0x04}, {grid_100, 31, 0x04}, {grid_100, -19, 0x04},
        {grid_33, 91, 0x04},  {grid_50, -37, 0x04}, {3, 0, 0x08},  // 25 GHz: not advertised
        {2, 0, 0x08},                                              // 12.5 GHz
        {0, 0, 0x08},                                              // 3.125 GHz
        {8, 0, 0x08},  // no such grid code in this revision
    };
    insert("qsfpdd_400zr");
    select(0x04);
    ASSERT_EQ(read1(128), 0xf0);  // 75, 33, 100 and 50 GHz
    for (const auto& r : rows) {
        SCOPED_TRACE("grid " + std::to_string(r.grid) + " channel " + std::to_string(r.channel));
        tune(r.grid, r.channel);
        select(0x12);
        EXPECT_EQ(read1(222) & 0x02, 0x00);
        EXPECT_EQ(read1(230), 0x01);
        EXPECT_EQ(read1(231), r.flag);
        clock->advance(3s);
        EXPECT_EQ(read1(231), 0x00);  // no tuning-complete later
        EXPECT_EQ(frequency(), 193'100'000u);
    }
}

TEST_F(Coherent, AGridWriteAloneRetunesTheChannelOnTheNewGrid) {
    insert("qsfpdd_400zr");
    tune(grid_75, 12);  // 193.4 THz
    clock->advance(zr_tuning);
    ASSERT_EQ(frequency(), 193'400'000u);
    select(0x12);
    write(128, {grid_50 << 4});  // channel 12 of the 50 GHz grid
    EXPECT_EQ(read1(222) & 0x02, 0x02);
    clock->advance(zr_tuning);
    EXPECT_EQ(frequency(), 193'700'000u);
}

// --- Demodulator locks ---------------------------------------------------------------------------

TEST_F(Coherent, LocksComeAfterReadyAndTheDataPathDropWhileTuningAndInLowPower) {
    insert("qsfpdd_400zr");
    EXPECT_EQ(locks(), 0x00);
    clock->advance(up);
    EXPECT_EQ(locks(), 0x00);
    clock->advance(lock_delay - 1ms);
    EXPECT_EQ(locks(), 0x00);
    clock->advance(1ms);
    EXPECT_EQ(locks(), 0x03);  // RX and TX
    EXPECT_EQ(coh().locks(), 0x03);
    tune(grid_75, 3);
    EXPECT_EQ(locks(), 0x00);
    clock->advance(zr_tuning + lock_delay - 1ms);
    EXPECT_EQ(locks(), 0x00);
    clock->advance(1ms);
    EXPECT_EQ(locks(), 0x03);
    write(26, {0x50});  // LowPwrRequestSW: data paths deinit, then low power
    EXPECT_EQ(locks(), 0x00);
    clock->advance(2s);
    EXPECT_EQ(locks(), 0x00);
    write(26, {0x40});
    clock->advance(up);
    EXPECT_EQ(locks(), 0x00);
    clock->advance(lock_delay);
    EXPECT_EQ(locks(), 0x03);
}

// --- FEC and client PM ---------------------------------------------------------------------------

struct fec_row {
    const char* stem;
    double rate;  // line rate of application 1
    double ber;
    double uncorrectable_per_s;
};

TEST_F(Coherent, FecCountersGrowAtTheLineRateWithTheConfiguredBer) {
    const fec_row rows[] = {
        {"qsfpdd_400zr", zr_rate, 2.0e-4, 0.0},
        {"qsfpdd_400zr", zr_rate, 1.0e-3, 0.5},
        {"qsfpdd_400zr_plus", 481.108e9, 5.0e-4, 2.0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.stem);
        locked(r.stem);
        coh().set_pre_fec_ber(r.ber);
        coh().set_uncorrectable_per_s(r.uncorrectable_per_s);
        EXPECT_DOUBLE_EQ(coh().pre_fec_ber(), r.ber);
        EXPECT_DOUBLE_EQ(coh().line_rate(), r.rate);
        clock->advance(10s);
        const auto bits = static_cast<double>(at(0x34, 128, 8));
        EXPECT_NEAR(bits, r.rate * 10, 1.0);
        EXPECT_NEAR(static_cast<double>(at(0x34, 144, 8)), r.rate * 10 * r.ber, 1.0);
        EXPECT_NEAR(static_cast<double>(at(0x34, 176, 4)), r.uncorrectable_per_s * 10, 1.0);
        // A BER change applies from now on.
        coh().set_pre_fec_ber(r.ber * 10);
        clock->advance(1s);
        EXPECT_NEAR(static_cast<double>(at(0x34, 144, 8)), r.rate * r.ber * (10 + 10), 1.0);
        cage.remove();
    }
}

TEST_F(Coherent, NoFecCountingWithoutLockAndThePrbsClearLeavesIt) {
    ready();
    clock->advance(lock_delay);
    EXPECT_EQ(at(0x34, 128, 8), 0u);  // counting starts with the lock
    clock->advance(1s);
    EXPECT_NEAR(static_cast<double>(at(0x34, 128, 8)), zr_rate, 1.0);
    tune(grid_75, 3);
    clock->advance(zr_tuning + lock_delay);
    EXPECT_NEAR(static_cast<double>(at(0x34, 128, 8)), zr_rate, 1.0);  // held while unlocked
    const auto before = at(0x34, 128, 8);
    select(0xc0);
    write(202, {0x04});  // a PRBS counter clear is not a FEC PM clear
    EXPECT_GE(at(0x34, 128, 8), before);
}

TEST_F(Coherent, FreezeHoldsFecClientAndLinkPmAndTheCountersCatchUpWhenReleased) {
    locked();
    clock->advance(1s);
    const auto fec = [&] {
        select(0x34);
        return read(128, 52);
    };
    const auto client = [&] {
        select(0xc2);
        return read(128, 32);
    };
    const auto link = [&] {
        select(0x35);
        return read(128, 112);
    };
    select(0x2f);
    write(144, {0x80});
    const auto fec0 = fec(), client0 = client(), link0 = link();
    EXPECT_NEAR(static_cast<double>(be(bytes(fec0.begin(), fec0.begin() + 8))), zr_rate, 1.0);
    for (int i = 0; i < 5; ++i) {
        clock->advance(400ms);
        EXPECT_EQ(fec(), fec0);
        EXPECT_EQ(client(), client0);
        EXPECT_EQ(link(), link0);
    }
    select(0x2f);
    write(144, {0x00});
    EXPECT_NEAR(static_cast<double>(at(0x34, 128, 8)), zr_rate * 3, 1.0);
    EXPECT_NEAR(static_cast<double>(at(0xc2, 128, 8)), coherent_module::host_lane_rate * 3.3, 1.0);
    EXPECT_NE(link(), link0);  // the averages move on with the monitor periods
}

TEST_F(Coherent, ClientPmReadsAllOnesUntilTheDataPathWasUpThenCountsEachActiveHostLane) {
    insert("qsfpdd_400zr");
    clock->advance(1500ms);
    for (std::uint8_t page : {0xc2, 0xc3}) {
        select(page);
        EXPECT_EQ(read(128, 128), bytes(128, 0xff));
    }
    clock->advance(99ms);
    read1(3);
    clock->advance(2s);
    for (unsigned lane = 0; lane < 8; ++lane) {
        SCOPED_TRACE(lane);
        const auto page = static_cast<std::uint8_t>(0xc2 + lane / 4);
        const auto base = static_cast<std::uint8_t>(128 + 32 * (lane % 4));
        const double bits = coherent_module::host_lane_rate * 2;
        EXPECT_NEAR(static_cast<double>(at(page, base, 8)), bits, 1.0);
        EXPECT_NEAR(static_cast<double>(at(page, static_cast<std::uint8_t>(base + 8), 8)),
                    bits * coh().model().host_ber, 1.0);
        EXPECT_NEAR(static_cast<double>(at(page, static_cast<std::uint8_t>(base + 16), 8)),
                    bits / coherent_module::client_frame_bits, 1.0);
        EXPECT_EQ(at(page, static_cast<std::uint8_t>(base + 24), 8), 0u);
    }
    // Low power stops them; they hold their values and do not go back to all ones.
    write(26, {0x50});
    const auto held = at(0xc2, 128, 8);
    clock->advance(1s);
    EXPECT_EQ(at(0xc2, 128, 8), held);
}

TEST_F(Coherent, AnApplicationOnTwoHostLanesCountsThoseLanesAtItsLineRate) {
    locked();
    // Application 5: 100GAUI-2 / ZR100-OFEC-QPSK on host lanes 1-2.
    select(0x10);
    write(145, {0x50, 0x50, 0, 0, 0, 0, 0, 0});
    write(143, {0xff});
    clock->advance(10ms + 99ms + 99ms);  // check, deinit, init
    select(0x11);
    ASSERT_EQ(read1(206), 0x50);
    ASSERT_EQ(read(128, 4), (bytes{0x44, 0x11, 0x11, 0x11}));
    EXPECT_DOUBLE_EQ(coh().line_rate(), 120.277e9);
    clock->advance(lock_delay);
    select(0x34);
    const auto before = be(read(128, 8));
    const auto lane2 = at(0xc2, 160, 8), lane3 = at(0xc2, 192, 8);
    clock->advance(1s);
    EXPECT_NEAR(static_cast<double>(at(0x34, 128, 8) - before), 120.277e9, 1.0);
    EXPECT_NEAR(static_cast<double>(at(0xc2, 160, 8) - lane2), coherent_module::host_lane_rate,
                1.0);
    EXPECT_EQ(at(0xc2, 192, 8), lane3);  // lane 3 has no data path now
}

// --- Monitors ------------------------------------------------------------------------------------

TEST_F(Coherent, LineMonitorsShowTheSeededValuesOfTheCurrentPeriod) {
    auto& m = locked();
    using k = coherent_module::metric;
    for (int period = 0; period < 3; ++period) {
        clock->advance(100ms);
        const auto tick = m.monitor_tick();
        const auto v = [&](k metric) { return coh().metric_value(metric, tick); };
        EXPECT_EQ(static_cast<std::int32_t>(at(0x35, 128, 4)), std::lround(v(k::cd)));
        EXPECT_EQ(at(0x35, 140, 2), std::lround(v(k::dgd) * 100));
        EXPECT_EQ(at(0x35, 152, 2), std::lround(v(k::pdl) * 10));
        EXPECT_EQ(at(0x35, 158, 2), std::lround(v(k::osnr) * 10));
        EXPECT_EQ(at(0x35, 164, 2), std::lround(v(k::esnr) * 10));
        EXPECT_EQ(s16(0x35, 170), std::lround(v(k::cfo)));
        EXPECT_EQ(at(0x35, 200, 2), std::lround(v(k::sop_roc)));
        EXPECT_EQ(at(0x35, 230, 2), std::lround(v(k::q) * 10));
        EXPECT_EQ(s16(0x35, 236), std::lround(v(k::q_margin) * 10));
        EXPECT_NEAR(v(k::q), coh().nominal(k::q), coh().model().q_db.noise);
        // C0h: the CD of the period in both granularities.
        EXPECT_EQ(s16(0xc0, 132), std::lround(v(k::cd)));
        EXPECT_EQ(static_cast<std::int32_t>(at(0xc0, 134, 4)),
                  std::lround(std::round(v(k::cd) / 20) * 20));
        // RX powers agree with the RX power monitor of page 11h (0.1 uW).
        const double rx_dbm = 10 * std::log10(static_cast<double>(at(0x11, 186, 2)) / 10000);
        EXPECT_NEAR(s16(0x35, 188), rx_dbm * 100, 0.5);
        EXPECT_NEAR(s16(0x35, 194), (rx_dbm - 0.3) * 100, 0.5);
    }
    EXPECT_EQ(static_cast<std::int32_t>(at(0xc0, 138, 4)), -2400);
    EXPECT_EQ(static_cast<std::int32_t>(at(0xc0, 142, 4)), 2400);
    EXPECT_EQ(at(0xc0, 146, 2), 3u);  // laser age
    // Pre-FEC BER: current within 10 % of the configured BER, average exactly it.
    const double ber = coh().pre_fec_ber();
    EXPECT_NEAR(f16(static_cast<std::uint16_t>(at(0xc0, 148, 2))), ber, ber * 0.1);
    EXPECT_DOUBLE_EQ(f16(static_cast<std::uint16_t>(at(0xc0, 150, 2))), ber);
    EXPECT_LT(f16(static_cast<std::uint16_t>(at(0xc0, 152, 2))), ber);
    EXPECT_GT(f16(static_cast<std::uint16_t>(at(0xc0, 154, 2))), ber);
    coh().set_pre_fec_ber(3.0e-3);
    EXPECT_DOUBLE_EQ(f16(static_cast<std::uint16_t>(at(0xc0, 150, 2))), 3.0e-3);
    EXPECT_DOUBLE_EQ(f16(static_cast<std::uint16_t>(at(0xc0, 158, 2))),
                     coh().model().errored_frames.nominal);
}

TEST_F(Coherent, TheHighGranularityCdReadsFullScaleBeyondItsRange) {
    locked("qsfpdd_400zr_plus");  // 8500 ps/nm, high granularity covers 2400
    EXPECT_EQ(s16(0xc0, 132), 32767);
    EXPECT_NEAR(static_cast<double>(static_cast<std::int32_t>(at(0xc0, 134, 4))), 8500, 40);
    EXPECT_EQ(static_cast<std::int32_t>(at(0xc0, 134, 4)) % 20, 0);
    EXPECT_EQ(static_cast<std::int32_t>(at(0xc0, 138, 4)), -50000);
}

// --- PRBS ----------------------------------------------------------------------------------------

TEST_F(Coherent, PrbsCountersGrowWhileTheCheckerRunsAndTheClearBitZeroesThem) {
    locked();
    coh().set_prbs_ber(1e-6);
    select(0xc0);
    write(202, {0x03});  // generator and checker
    write(203, {0x02});  // PRBS15
    clock->advance(2s);
    EXPECT_NEAR(static_cast<double>(at(0xc1, 136, 8)), zr_rate * 2, 1.0);
    EXPECT_NEAR(static_cast<double>(at(0xc1, 128, 8)), zr_rate * 2 * 1e-6, 1.0);
    EXPECT_EQ(at(0xc1, 144, 16), 0u);  // lane 2: a 400ZR has one media lane
    select(0xc0);
    EXPECT_EQ(read1(204), 0x00);  // no lock lost
    write(203, {0x06});           // no such pattern: ignored
    EXPECT_EQ(read1(203), 0x02);
    write(202, {0x07});
    EXPECT_EQ(read1(202), 0x03);  // the clear bit reads back 0
    EXPECT_EQ(at(0xc1, 128, 16), 0u);
    clock->advance(1s);
    EXPECT_NEAR(static_cast<double>(at(0xc1, 136, 8)), zr_rate, 1.0);
    // Checker off: the counters hold.
    select(0xc0);
    write(202, {0x01});
    clock->advance(1s);
    EXPECT_NEAR(static_cast<double>(at(0xc1, 136, 8)), zr_rate, 1.0);
}

TEST_F(Coherent, ALostLockLatchesThePrbsLockLostBitUntilReadAfterTheLockReturns) {
    locked();
    select(0xc0);
    write(202, {0x02});
    tune(grid_75, 3);
    select(0xc0);
    EXPECT_EQ(read1(204), 0x01);
    EXPECT_EQ(read1(204), 0x01);  // still unlocked: sets again
    clock->advance(zr_tuning + lock_delay);
    EXPECT_EQ(read1(204), 0x01);  // latched while it was out
    EXPECT_EQ(read1(204), 0x00);
}

// --- Thresholds, pulse shaping, TX power ---------------------------------------------------------

struct threshold_row {
    std::uint8_t offset;
    std::int16_t value;
    bool accepted;
};

TEST_F(Coherent, CustomThresholdWritesOutsideTheirBoundsAreIgnored) {
    // Bounds (maximum / minimum, 0.01 dBm): 164 500/-1000, 166 -500/-3000, 168 300/-1500,
    // 172 -800/-2800, 176 and 178 -1500/-3000; the warnings 170 and 174 have none.
    const threshold_row rows[] = {
        {164, 500, true},   {164, 501, false},   {164, -1000, true},  {164, -1001, false},
        {166, -500, true},  {166, -499, false},  {166, -3001, false}, {168, 300, true},
        {170, 301, true},   {170, -1500, true},  {172, -2800, true},  {174, -799, true},
        {176, -3000, true}, {176, -3001, false}, {178, -1500, true},  {178, -1499, false},
    };
    insert("qsfpdd_400zr");
    select(0xc0);
    EXPECT_EQ(read1(128), 0x07);  // custom thresholds, pulse shaping, PRBS
    for (const auto& r : rows) {
        SCOPED_TRACE("byte " + std::to_string(r.offset) + " value " + std::to_string(r.value));
        const auto before = s16(0xc0, r.offset);
        write16(0xc0, r.offset, r.value);
        EXPECT_EQ(s16(0xc0, r.offset), r.accepted ? r.value : before);
    }
    // The enables are writable, the bounds and capabilities are not; pulse shaping is bit 0.
    select(0xc0);
    write(180, {0x03});
    EXPECT_EQ(read1(180), 0x03);
    const auto bounds = read(182, 20);
    write(182, bytes(20, 0x11));
    EXPECT_EQ(read(182, 20), bounds);
    write(128, {0x00});
    EXPECT_EQ(read1(128), 0x07);
    write(129, {0xff});
    EXPECT_EQ(read1(129), 0x01);
    write(129, {0x00});
    EXPECT_EQ(read1(129), 0x00);
}

TEST_F(Coherent, WithoutCustomThresholdSupportThresholdsAndBoundsReadZero) {
    auto profile = module_profile::load_named("qsfpdd_400zr");
    profile.memories.at(0x50).pages.at({0, 0xc0})[0] = 0x06;
    const auto window = profile.i2c_not_ready;
    cage.insert(std::move(profile));
    clock->advance(window);
    select(0xc0);
    EXPECT_EQ(read(164, 38), bytes(38, 0));
    write16(0xc0, 164, -100);
    EXPECT_EQ(s16(0xc0, 164), 0);
}

TEST_F(Coherent, TheTxPowerMonitorFollowsTheTargetWithinTheProgrammableRange) {
    auto& m = locked();
    const auto tx_mw = [&] { return static_cast<double>(at(0x11, 154, 2)) / 10000; };
    // -10 dBm = 0.1 mW, with the monitor's 2 % noise.
    EXPECT_NEAR(tx_mw(), 0.1, 0.1 * 0.021);
    write16(0x12, 200, -600);
    EXPECT_EQ(s16(0x12, 200), -600);
    clock->advance(100ms);
    const double sample = m.monitor_value(module_emulator::sensor::tx_power, 0, m.monitor_tick()) /
                          m.profile().tx_power_mw.nominal;
    EXPECT_NEAR(tx_mw(), std::pow(10, -0.6) * sample, 0.0001);
    write16(0x12, 200, -1001);  // below the minimum of page 04h (-10 dBm)
    EXPECT_EQ(s16(0x12, 200), -600);
    write16(0x12, 200, -599);  // above the maximum (-6 dBm)
    EXPECT_EQ(s16(0x12, 200), -600);
    EXPECT_NEAR(tx_mw(), std::pow(10, -0.6), 0.251 * 0.021);
}

// --- Fault injection -----------------------------------------------------------------------------

TEST_F(Coherent, AModuleIgnoringLowPowerRequestsStaysReady) {
    auto& m = locked();
    m.ignore_low_power_requests(true);
    cage.pin_set(cage::line::lpmode, true);
    write(26, {0x50});
    EXPECT_EQ(polls(3, 0x0e, {0ms, 1s, 5s}), "333");
    EXPECT_EQ(locks(), 0x03);
    m.ignore_low_power_requests(false);
    EXPECT_EQ(polls(3, 0x0e, {1s}), "1");
    EXPECT_EQ(locks(), 0x00);
}

TEST_F(Coherent, ATuningThatNeverCompletesUntilTheFaultIsCleared) {
    locked();
    coh().stall_tuning(true);
    tune(grid_75, 9);
    clock->advance(60s);
    select(0x12);
    EXPECT_EQ(read1(222) & 0x02, 0x02);
    EXPECT_EQ(read1(231), 0x00);
    EXPECT_EQ(frequency(), 193'100'000u);
    EXPECT_EQ(locks(), 0x00);
    coh().stall_tuning(false);
    EXPECT_FALSE(coh().tuning());
    select(0x12);
    EXPECT_EQ(read1(231), 0x01);
    EXPECT_EQ(frequency(), 193'325'000u);
}

TEST_F(Coherent, ADataPathThatNeverBecomesReadyKeepsTheLanesInInitAndTheLocksOff) {
    auto& m = insert("qsfpdd_400zr");
    m.hold_data_path_init(true);
    clock->advance(up + 10s);
    select(0x11);
    EXPECT_EQ(read(128, 4), bytes(4, 0x22));  // DPInit
    EXPECT_EQ(polls(3, 0x0e, {0ms}), "3");
    EXPECT_EQ(locks(), 0x00);
    select(0xc2);
    EXPECT_EQ(read(128, 8), bytes(8, 0xff));
    m.hold_data_path_init(false);
    select(0x11);
    EXPECT_EQ(read(128, 4), bytes(4, 0x44));
    clock->advance(lock_delay);
    EXPECT_EQ(locks(), 0x03);
}

TEST_F(Coherent, ALockFlapPatternStepsPerPeriodOverTheLocksItNames) {
    locked();
    coh().flap_locks("1100", 100ms);
    std::string seen;
    for (int i = 0; i < 6; ++i) {
        seen += static_cast<char>('0' + locks());
        clock->advance(100ms);
    }
    EXPECT_EQ(seen, "330033");
    coh().flap_locks("0", 100ms, 0x02);  // TX only
    EXPECT_EQ(locks(), 0x01);
    coh().clear_faults();
    EXPECT_EQ(locks(), 0x03);
}

TEST_F(Coherent, StateStartsAgainOnResetAndFaultsSurviveIt) {
    locked();
    coh().stall_tuning(true);
    clock->advance(1s);
    reset();
    EXPECT_EQ(at(0x34, 128, 8), 0u);
    select(0xc2);
    EXPECT_EQ(read(128, 8), bytes(8, 0xff));
    tune(grid_75, 3);
    clock->advance(5s);
    EXPECT_TRUE(coh().tuning());
}

}  // namespace
}  // namespace qsfpd::emu::test

// The emulator's VDM pages and page C8h, read as a host reads them: samples that follow the
// module state and the freeze request, flags latched by a threshold crossing and cleared by the
// read, and the CMIS 5 fault flags per bank.

#include <cmath>
#include <set>

#include "cage/cmis_f16.hpp"
#include "emu_test_support.hpp"
#include "module_emulator.hpp"
#include "vdm_pages.hpp"

namespace qsfpd::emu::test {
namespace {

constexpr unsigned lpmode_pin = cage::line::lpmode;

struct VdmPages : emu_test {
    // The ZR+ up to ModuleReady.
    module_emulator& zr_plus() {
        auto& m = insert("qsfpdd_400zr_plus");
        clock->advance(m.profile().power_up + 100ms);
        return m;
    }
    // Sample of `slot` of group 1 (page 24h).
    std::uint16_t sample(unsigned slot) {
        select(0x24);
        return read16(static_cast<std::uint8_t>(128 + 2 * slot));
    }
};

struct f16_row {
    std::uint16_t raw;
    double value;
};

TEST(CmisF16, DecodesMantissaTimesTenToTheExponentMinus24) {
    const f16_row rows[] = {
        {0x0000, 0.0},      {0xC001, 1.0},           {0xC000 | 2047, 2047.0}, {0xC800 | 5, 50.0},
        {0x07FF, 2047e-24}, {0x3000 | 123, 123e-18}, {0xF800 | 1, 1e7},
    };
    for (const auto& r : rows)
        EXPECT_DOUBLE_EQ(cage::f16_to_double(r.raw), r.value) << std::hex << r.raw;
}

TEST(CmisF16, EncodesWithTheMostDigitsAndRoundTrips) {
    EXPECT_EQ(cage::double_to_f16(0.0), 0x0000);
    EXPECT_EQ(cage::double_to_f16(-1.0), 0x0000);
    EXPECT_EQ(cage::double_to_f16(1.0), 21 << 11 | 1000);  // 1000 x 10^-3, not 1 x 10^0
    EXPECT_EQ(cage::double_to_f16(1e-5), 16 << 11 | 1000);
    EXPECT_EQ(cage::double_to_f16(1e30), 0xFFFF);  // beyond the range: the largest
    for (const double v : {1.2e-3, 4.56e-9, 2.0e-13, 1.5e-11, 3.0e5}) {
        const double back = cage::f16_to_double(cage::double_to_f16(v));
        EXPECT_NEAR(back / v, 1.0, 1e-3) << v;
    }
}

TEST_F(VdmPages, OnlyAProfileWithTheVdmAdvertisementGetsThePages) {
    EXPECT_NE(zr_plus().vdm(), nullptr);
    EXPECT_EQ(insert("qsfpdd_400zr").vdm(), nullptr);  // CMIS 4.0, no VDM, no C8h
    EXPECT_EQ(insert("qsfpdd_400g_fr4").vdm(), nullptr);
}

TEST_F(VdmPages, SamplesFollowTheNoiseOfTheMonitorPeriodAndIdleInLowPower) {
    auto& m = zr_plus();
    // Group 1 slot 3 is the laser temperature (type 4), slot 14 the TX power (type 143).
    const std::uint64_t seed = m.profile().noise_seed;
    std::set<std::uint16_t> seen;
    for (int i = 0; i < 5; ++i) {
        const std::uint16_t raw = sample(3);
        EXPECT_EQ(raw, vdm_pages::encode(4, *vdm_pages::value(4, m.monitor_tick(), true, seed)));
        EXPECT_NEAR(static_cast<std::int16_t>(raw) / 256.0, 50.0, 0.2 + 1.0 / 256);
        seen.insert(raw);
        clock->advance(100ms);
    }
    EXPECT_GT(seen.size(), 1u);  // it moves

    cage.pin_set(lpmode_pin, true);
    clock->advance(3s);
    ASSERT_NE(m.cmis_module_state(), cmis_state::ready);
    EXPECT_EQ(static_cast<std::int16_t>(sample(3)), 30 * 256);  // laser idles at 30 degC
    EXPECT_EQ(static_cast<std::int16_t>(sample(14)), -4000);    // TX power -40 dBm
    select(0x25);
    EXPECT_EQ(read16(128 + 2 * 15), 0x0000);  // group 2 slot 15: errored frames, host: 0
}

TEST_F(VdmPages, TheFreezeRequestHoldsTheSamplesAndReportsDone) {
    zr_plus();
    select(0x2F);
    write(144, {0x80});
    EXPECT_EQ(read1(145) & 0xC0, 0x80);  // FreezeDone
    const std::uint16_t frozen = sample(3);
    for (int i = 0; i < 5; ++i) {
        clock->advance(100ms);
        EXPECT_EQ(sample(3), frozen);
    }
    select(0x2F);
    write(144, {0x00});
    EXPECT_EQ(read1(145) & 0xC0, 0x40);  // UnfreezeDone
    std::set<std::uint16_t> seen{frozen};
    for (int i = 0; i < 5; ++i) {
        clock->advance(100ms);
        seen.insert(sample(3));
    }
    EXPECT_GT(seen.size(), 1u);
}

TEST_F(VdmPages, ACrossingLatchesItsNibbleAndTheReadClearsIt) {
    auto& m = zr_plus();
    // Laser temperature: group 1 slot 3 (odd: high nibble of flag byte 129), threshold set 3 at
    // page 28h byte 152. A high warning of 40 degC is crossed by the 50 degC laser.
    m.poke({0, 0x28}, 152 + 4, (40 * 256) >> 8);
    m.poke({0, 0x28}, 152 + 5, 0);
    clock->advance(100ms);
    sample(3);
    select(0x2C);
    EXPECT_EQ(read1(129), 0x40);  // bit 2 (high warning) of the high nibble
    EXPECT_EQ(read1(129), 0x00);  // cleared by the read, same monitor period
    clock->advance(100ms);
    EXPECT_EQ(read1(129), 0x40);  // still above: latched again in the next period
    EXPECT_EQ(read1(128), 0x00);  // laser age and TEC current: inside their thresholds

    // TX power (slot 14, even: low nibble of byte 135) below its low alarm in low power is no
    // alarm: the flags only judge a running module.
    cage.pin_set(lpmode_pin, true);
    clock->advance(3s);
    select(0x2C);
    read(128, 32);
    clock->advance(100ms);
    sample(14);
    select(0x2C);
    EXPECT_EQ(read1(135), 0x00);
}

TEST_F(VdmPages, FaultFlagsPerBankAreInjectedAndPostFecBerIsF16) {
    auto& m = zr_plus();
    ASSERT_NE(m.vdm(), nullptr);
    m.vdm()->set_fault(0, coherent_fault::rx_local, true);
    m.vdm()->set_fault(0, coherent_fault::tx_remote, true);
    m.vdm()->set_fault(1, coherent_fault::tx_local, true);
    select(0xC8, 0);
    EXPECT_EQ(read1(128), 0x09);
    select(0xC8, 1);
    EXPECT_EQ(read1(128), 0x02);
    m.vdm()->set_fault(0, coherent_fault::rx_local, false);
    select(0xC8, 0);
    EXPECT_EQ(read1(128), 0x01);
    m.vdm()->clear_faults();
    EXPECT_EQ(read1(128), 0x00);
    EXPECT_THROW(m.vdm()->set_fault(4, coherent_fault::rx_local, true), std::invalid_argument);

    const double ber = cage::f16_to_double(read16(130));
    EXPECT_GE(ber, 1.0e-13);
    EXPECT_LE(ber, 3.0e-13);
    cage.pin_set(lpmode_pin, true);
    clock->advance(3s);
    select(0xC8, 0);
    EXPECT_EQ(read16(130), 0x0000);
}

}  // namespace
}  // namespace qsfpd::emu::test

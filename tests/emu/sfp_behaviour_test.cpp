// SFP behaviour behind a converter: SFF-8690 tuning of the tunable SFP+, the VOA's settling, and
// an SFP without diagnostics answering nothing at A2h.

#include "emu_test_support.hpp"

namespace qsfpd::emu::test {
namespace {

constexpr std::uint8_t a2 = 0x51;

class SfpBehaviour : public ::testing::Test, public cage_fixture {
  protected:
    void page(std::uint8_t p) { write(127, {p}, a2); }
    void channel(unsigned ch) {
        page(0x02);
        write(144, {static_cast<std::uint8_t>(ch >> 8), static_cast<std::uint8_t>(ch)}, a2);
    }
    // TxTune and wavelength-unlocked (168 bits 4, 5), then the latched byte 172 (read clears it).
    std::pair<int, int> status() {
        page(0x02);
        const int current = read1(168, a2) & 0x30;
        return {current, read1(172, a2)};
    }
};

TEST_F(SfpBehaviour, AChannelWriteTunesForItsTimeDarkThenLatchesNewChannel) {
    auto& sfp = insert("qsa_sfpplus_10g_tunable_dwdm");
    clock->advance(300ms);  // power-up
    page(0x02);
    EXPECT_EQ(read16(144, a2), 33);
    EXPECT_EQ(status(), std::pair(0, 0));
    EXPECT_TRUE(sfp.transmitter_on(0));

    channel(40);
    EXPECT_EQ(read16(144, a2), 40);  // the register reads back at once
    EXPECT_EQ(status(), std::pair(0x30, 0));
    EXPECT_FALSE(sfp.transmitter_on(0));
    clock->advance(1499ms);
    EXPECT_EQ(status().first, 0x30);
    clock->advance(1ms);
    EXPECT_EQ(status(), std::pair(0, 0x08));
    EXPECT_EQ(status(), std::pair(0, 0));  // latched: cleared by the read
    EXPECT_TRUE(sfp.transmitter_on(0));
    // Bias and TX power come back with the laser.
    clock->advance(100ms);
    EXPECT_GT(read16(102, a2), 0);
}

TEST_F(SfpBehaviour, AChannelOffTheBandLatchesBadChannelAndNothingMoves) {
    insert("qsa_sfpplus_10g_tunable_dwdm");
    clock->advance(300ms);
    // 191.50 + 92 x 0.05 = 196.10 THz is the last channel; 0 is none.
    for (const unsigned bad : {0u, 94u, 300u}) {
        channel(bad);
        EXPECT_EQ(status(), std::pair(0, 0x10)) << bad;
    }
    channel(93);
    EXPECT_EQ(status(), std::pair(0x30, 0));
}

TEST_F(SfpBehaviour, TheVoaCopiesItsSetpointAfterSettling) {
    insert("qsa_sfpplus_10g_voa");
    page(0x00);
    EXPECT_EQ(read16(252, a2), 1500);  // maximum 15.00 dB
    write(248, {0x02, 0x26}, a2);      // 5.50 dB
    EXPECT_EQ(read16(250, a2), 0);
    EXPECT_EQ(read1(254, a2), 0x01);
    clock->advance(199ms);
    EXPECT_EQ(read1(254, a2), 0x01);
    clock->advance(1ms);
    EXPECT_EQ(read16(250, a2), 550);
    EXPECT_EQ(read1(254, a2), 0x00);
    write(250, {0xff, 0xff}, a2);  // the actual value is the module's
    EXPECT_EQ(read16(250, a2), 550);
}

TEST_F(SfpBehaviour, AnSfpWithoutDiagnosticsDoesNotAnswerA2h) {
    insert("qsa_sfp_fc_brocade_nodom");
    EXPECT_EQ(read1(0), 0x03);
    EXPECT_EQ(error_of([&] { read1(96, a2); }), ENXIO);
}

}  // namespace
}  // namespace qsfpd::emu::test

#include <fmt/format.h>

#include <tuple>

#include "handler_test_support.hpp"
#include "qsfp_optical_1lane_pam4_device_handler.hpp"
#include "qsfp_optical_2lane_device_handler.hpp"

namespace qsfpd::handler_test {
namespace {

using inphi = qsfp_optical_inphi_device_handler;

// DSP page 20h offsets.
constexpr std::uint8_t dsp_page = 0x20;
constexpr std::uint8_t snr_at = 132;
constexpr std::uint8_t tec_at = 156;
constexpr std::uint8_t pre_fec_ber_cur_at = 172;

class Inphi : public handler_fixture {
  protected:
    std::shared_ptr<qsfp_optical_2lane_device_handler> sr2() {
        insert("qsfp28_100g_sr2_pam4");
        return make_variant<qsfp_optical_2lane_device_handler>();
    }
    void poke_word(std::uint8_t offset, std::uint16_t value) {
        poke_upper(dsp_page, offset, static_cast<std::uint8_t>(value >> 8));
        poke_upper(dsp_page, offset + 1, static_cast<std::uint8_t>(value & 0xFF));
    }
};

TEST(InphiConversions, DspRegisterForms) {
    EXPECT_EQ(inphi::unsigned_lsb_mult_256(5990), 23.4);  // 23.398
    EXPECT_EQ(inphi::unsigned_lsb_mult_256(0xFFFF), 256.0);
    EXPECT_EQ(inphi::signed_lsb_mult_256(static_cast<std::int16_t>(0xFF00)), -1.0);
    EXPECT_EQ(inphi::signed_lsb_mult_256(-23), -0.1);  // -0.0898
    EXPECT_EQ(inphi::signed_lsb_mult_256(31), 0.1);
    EXPECT_EQ(inphi::tenths(-15), -1.5);
    EXPECT_EQ(inphi::tenths(-32768), -3276.8);
    EXPECT_DOUBLE_EQ(inphi::ber(0x0000), 0.0);
    EXPECT_DOUBLE_EQ(inphi::ber(0x5801), 1e-13);
    EXPECT_DOUBLE_EQ(inphi::ber(0x80F0), 2.4e-6);
    EXPECT_DOUBLE_EQ(inphi::ber(0xFFFF), 2047e7);  // mantissa 2047, exponent 31 - 24
}

TEST_F(Inphi, TwoLaneDspMonitorsAndThresholds) {
    auto h = sr2();
    // Both lanes' monitors as the profile sets them, then the thresholds.
    EXPECT_EQ(values("data/channel/0/snr data/channel/1/snr data/channel/0/residualDispersion "
                     "data/channel/1/residualDispersion data/debug/channel/0/pam4LevelTransition "
                     "data/debug/channel/1/pam4LevelTransition data/debug/channel/0/laserTempDiff "
                     "data/debug/channel/1/laserTempDiff data/debug/channel/1/tecCurrent"),
              "23.4 21.8 0.4 -0.3 20.1 18.7 0.1 -0.1 0.0");
    EXPECT_EQ(values("data/debug/snrHighAlarmThreshold data/debug/snrLowWarningThreshold "
                     "data/debug/resDispLowAlarmThreshold "
                     "data/debug/pam4LevelTransLowWarningThreshold "
                     "data/debug/tecCurrentLowAlarmThreshold "
                     "data/debug/laserTempDiffLowWarningThreshold"),
              "35.0 18.5 -60.0 15.5 -80.0 -2.0");
    // BER values are mantissa times a power of ten, not rounded decimals.
    EXPECT_DOUBLE_EQ(std::stod(values("data/debug/preFecBerAvHighAlarmThreshold")), 2.4e-4);
    EXPECT_DOUBLE_EQ(std::stod(values("data/debug/preFecBerAvHighWarningThreshold")), 1e-4);
    EXPECT_EQ(values("inventory/fwRevision"), R"("3.2.1187")");

    // Signs the profile does not show, lane 2 at its 2-byte stride: the TEC current is signed,
    // the SNR is not (255 dB, not -1).
    poke_word(tec_at + 2, 0xFFF1);
    poke_word(snr_at + 2, 0xFF00);
    EXPECT_EQ(h->get_channel_tec_curr(1), -1.5);
    EXPECT_EQ(h->get_channel_snr(1), 255.0);
}

TEST_F(Inphi, BerCountersAndClearing) {
    auto h = sr2();
    rapidjson::Document counters;
    counters.Parse(values("data/fec/berCounters").c_str());
    EXPECT_EQ(counters.MemberCount(), 4u);
    for (const auto& [key, ber] :
         {std::pair{"preFecBer", 2.4e-6}, std::pair{"preFecBerAverage", 2.1e-6},
          std::pair{"uncorrBer", 0.0}, std::pair{"uncorrBerAverage", 0.0}})
        EXPECT_DOUBLE_EQ(counters[key].GetDouble(), ber) << key;
    EXPECT_DOUBLE_EQ(std::stod(values("data/debug/preFecBerLatchMax")), 6.3e-6);
    EXPECT_DOUBLE_EQ(std::stod(values("data/debug/preFecBerPriorPeriod")), 1.9e-6);
    poke_word(pre_fec_ber_cur_at, 0x5801);
    EXPECT_DOUBLE_EQ(std::stod(values("data/preFecBer")), 1e-13);

    write("qsfp/config/ber/clearCounters", 1);
    expect_logged("BER statistics", {"BER statistics cleared QSFP " + name});
    for (std::uint8_t at = 172; at < 192; ++at)
        EXPECT_EQ(module().peek({0, dsp_page}, at), 0) << int(at);
    EXPECT_EQ(values("data/fec/berCounters"),
              R"({"preFecBer":0.0,"preFecBerAverage":0.0,"uncorrBer":0.0,"uncorrBerAverage":0.0})");
}

TEST_F(Inphi, RateFromTheRateSelectBytesAtConstructionOrBothRegistersLoggedInHex) {
    for (const auto& [rx, tx, rate] : std::vector<std::tuple<std::uint8_t, std::uint8_t, unsigned>>{
             {0xAA, 0xAA, 100}, {0x00, 0x00, 40}, {0xAA, 0x28, 0}, {0x00, 0xAA, 0}}) {
        SCOPED_TRACE(fmt::format("{:02X}/{:02X}", rx, tx));
        logs.clear();
        insert("qsfp28_100g_sr2_pam4");
        poke_lower(rx_rate_byte, rx);
        poke_lower(tx_rate_byte, tx);
        auto h = make_variant<qsfp_optical_2lane_device_handler>();
        EXPECT_EQ(h->get_rate(), rate);
        if (rate != 0) {
            EXPECT_EQ(values("config/debug/rate"), std::to_string(rate));
        }
        texts rate_lines, expected;
        for (const auto& text : logged("QSFP "))
            if (text.find(" rate could not") != std::string::npos) rate_lines.push_back(text);
        if (rate == 0)
            expected = {
                fmt::format("QSFP rx rate could not be determined. RX rate reg = 0x{:X}", rx),
                fmt::format("QSFP tx rate could not be determined. TX rate reg = 0x{:X}", tx)};
        EXPECT_EQ(rate_lines, expected);
    }
}

TEST_F(Inphi, SetRateWritesEveryLanesRateSelect) {
    auto h = sr2();
    const auto before = writes();
    const auto e = error_of([&] { write("qsfp/config/debug/rate", 25); });
    EXPECT_EQ(e.text(), "Illegal rate [25] Gbit/s selected for " + name);
    EXPECT_EQ(writes(), before);
    EXPECT_EQ(h->get_rate(), 100u);

    write("qsfp/config/debug/rate", 40);  // 20000 Mb/s per lane: code 00b on lanes 1-2
    EXPECT_EQ(rate_select(), (std::pair{0xA0, 0xA0}));
    EXPECT_EQ(h->get_rate(), 40u);
    write("qsfp/config/debug/rate", 100);  // 50000 Mb/s: 10b
    EXPECT_EQ(rate_select(), (std::pair{0xAA, 0xAA}));
    EXPECT_EQ(h->get_rate(), 100u);

    // One lane carries the whole rate: 40G is 40000 Mb/s on it, a high-rate lane.
    h.reset();
    insert("qsfp28_100g_fr1_pam4");
    auto one = make_variant<qsfp_optical_1lane_pam4_device_handler>();
    poke_lower(rx_rate_byte, 0x00);
    poke_lower(tx_rate_byte, 0x00);
    one->set_rate(40);
    EXPECT_EQ(rate_select(), (std::pair{0x02, 0x02}));
    // Its DSP nodes are lane 0's only.
    EXPECT_EQ(values("data/channel/0/snr data/debug/channel/0/tecCurrent"), "22.5 8.5");
    for (const char* path :
         {"qsfp/data/channel/1/snr", "qsfp/data/channel/1/residualDispersion",
          "qsfp/data/debug/channel/1/laserTempDiff",
          "qsfp/data/debug/channel/1/pam4LevelTransition", "qsfp/data/debug/channel/1/tecCurrent"})
        EXPECT_EQ(db.find(path), nullptr) << path;
}

}  // namespace
}  // namespace qsfpd::handler_test

// The QSFP-to-SFP converter and the SFP+ handlers it creates, on emulated SFPs behind a QSA.

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "../handler/handler_test_support.hpp"
#include "../support/module_dump.hpp"
#include "qsfp_passive_converter_device_handler.hpp"
#include "sfp_plus_optical_device_handler.hpp"

namespace qsfpd::handler_test {
namespace {

constexpr std::uint8_t a2 = 0x51;
constexpr std::uint8_t status_control = 110;  // A2h
constexpr std::uint8_t soft_tx_disable_bit = 0x40;

std::string sample_catalogue() {
    std::ifstream in(std::string(QSFPD_TESTDATA_DIR) + "/../etc/transceiver_sfp+.json");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class Converter : public handler_fixture {
  protected:
    void SetUp() override { catalogue(sample_catalogue()); }
    void catalogue(const std::string& text) { root.write("etc/transceiver_sfp+.json", text); }

    std::shared_ptr<qsfp_passive_converter_device_handler> converter(std::string_view profile) {
        insert(profile);
        auto h = std::make_shared<qsfp_passive_converter_device_handler>(
            db, device, "qsfp", regs, "VENDOR", "PN-1", "PART NAME", "a description",
            qsfp_flags_s{}, 3, 4, clock);
        h->start();
        return h;
    }
    // One monitoring cycle 100 ms after the previous one.
    void cycle(qsfp_passive_converter_device_handler& h) {
        clock->run_for(100ms);
        h.run_periodic_tasks();
    }
    std::uint8_t a2_byte(std::uint8_t offset) { return module().peek({}, offset, a2); }
    bool pin(cage::sfp_signal s) { return cage_emu->sfp_signal_get(s); }
    std::size_t errors_logged() const {
        std::size_t n = 0;
        for (const auto& r : logs.records())
            n += r.severity == msg_log::error;
        return n;
    }
    bool has_node(const std::string& path) { return db.find("qsfp/" + path) != nullptr; }
};

TEST_F(Converter, ACatalogueSfpGetsItsHandlerAndTheInventoryIsTheSfps) {
    auto h = converter("qsa_sfpplus_10g_sr");
    ASSERT_TRUE(h->found_in_catalogue());
    expect_logged("creating optical sfp dh", {"creating optical sfp dh"});
    expect_logged("optical sfp created", {"optical sfp created"});
    EXPECT_EQ(values("dataModel inventory/vendor inventory/partNumber inventory/hwRevision "
                     "inventory/serialNumber inventory/sfpPartName inventory/sfpKind"),
              R"("converter" "FINISAR CORP." "FTLX8571D3BCL" "A" "AUJ0RCJ" "SFP+ 10GBASE-SR" )"
              R"("optical")");
    EXPECT_EQ(values("inventory/vendorOui inventory/wavelength inventory/wdmType "
                     "inventory/isCertified data/nominalBitrate data/maxBitrate"),
              R"("00:90:65" 850.0 "SR850NM" true 10300 10300)");
    EXPECT_EQ(values("data/maxRateSupport data/rateId data/borderTf data/dhReady "
                     "alarms/unsupported/severity alarms/sfpMissing/severity"),
              R"(10 0 "OC192-OC192" true 0 0)");
    EXPECT_EQ(values("data/wavelength data/channelId"), R"("850" "n/a")");
    EXPECT_TRUE(device->get_converter_flag());
}

// The monitors of the real modules, as their dumps hold them: the emulator's monitor bytes are
// frozen at the dump's A2h 96..105.
TEST_F(Converter, MonitorsAndThresholdsOfTheRealDumpsInTheQsfpUnits) {
    struct row {
        const char* profile;
        const char* dump;
        const char* monitors;    // temperature voltage bias txPower rxPower
        const char* thresholds;  // temp high alarm, Vcc low warning, bias high alarm, TX low
                                 // alarm, RX low alarm
    };
    const row rows[] = {
        {"qsa_sfpplus_10g_sr", "sff8472_sfpplus_10g_sr_finisar_ftlx8571d3bcl_auj0rcj.hex",
         "20.0 3.32 6.84 -2.2 -2.6", "78.0 3.0 13.2 -6.0 -20.0"},
        {"qsa_sfpplus_10g_lr", "sff8472_sfpplus_10g_lr_oem_yaoy1060.hex",
         "34.5 3.29 35.99 -2.9 -99.0", "90.0 3.13 100.0 -9.0 -18.0"},
        {"qsa_sfpplus_10g_tunable_dwdm", "sff8472_sfpplus_10g_flexoptix_p.b1696.10.da.hex",
         "25.5 3.25 27.87 -2.0 -2.6", "90.0 3.05 90.0 -7.0 -16.0"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.profile);
        const auto dump = test::load_module_dump(r.dump);
        auto h = converter(r.profile);
        module().stick({}, 96, {dump.begin() + 256 + 96, dump.begin() + 256 + 106}, a2);
        cycle(*h);
        EXPECT_EQ(values("data/temperature data/debug/voltage data/txBias data/txPower "
                         "data/rxPower"),
                  r.monitors);
        EXPECT_EQ(values("data/tempHighAlarmThreshold data/debug/voltageLowWarningThreshold "
                         "data/debug/txBiasHighAlarmThreshold data/debug/txPowerLowAlarmThreshold "
                         "data/debug/rxPowerLowAlarmThreshold"),
                  r.thresholds);
        h.reset();
        module().unstick_all();
    }
}

TEST_F(Converter, TxEnableAndAdminStatusReachTheTxDisablePinAndTheSoftBit) {
    auto h = converter("qsa_sfpplus_10g_sr");
    EXPECT_EQ(values("settings/txEnable data/txEnable data/txDisablePin data/disPinAdvert"),
              "true true false true");
    write("qsfp/settings/txEnable", false);
    EXPECT_TRUE(pin(cage::sfp_signal::tx_disable));
    EXPECT_EQ(a2_byte(status_control) & soft_tx_disable_bit, soft_tx_disable_bit);
    EXPECT_EQ(values("data/txEnable data/txDisablePin"), "false true");
    EXPECT_FALSE(module().transmitter_on(0));
    h->set_tx_enable(false);  // forwarded, nothing to change
    expect_logged("TX", {"TX disabled qsfp3", "TX already disabled qsfp3"});

    h->set_port_admin_status("up");
    EXPECT_FALSE(pin(cage::sfp_signal::tx_disable));
    EXPECT_EQ(values("data/adminStatus data/operStatus data/txEnable"), R"("up" "up" true)");
    h->set_port_admin_status("down");
    EXPECT_TRUE(pin(cage::sfp_signal::tx_disable));
    EXPECT_EQ(values("data/adminStatus data/operStatus"), R"("down" "down")");
    EXPECT_EQ(error_of([&] { h->set_port_admin_status("sideways"); }).what(),
              std::string("Illegal parameter admin status: sideways "));

    // The converter's own pin nodes drive the cage's signals directly.
    write("qsfp/config/txDisablePin", false);
    EXPECT_FALSE(pin(cage::sfp_signal::tx_disable));
    write("qsfp/config/rateSelPin", true);
    EXPECT_TRUE(pin(cage::sfp_signal::rate_select));
    EXPECT_EQ(values("data/rateSelPin data/rateSelAdvert"), "true false");
}

TEST_F(Converter, TxFaultAndLosFollowTheSignalsWithTheQsfpSuppression) {
    auto h = converter("qsa_sfpplus_10g_sr");
    cycle(*h);
    EXPECT_EQ(values("alarms/txFault/severity alarms/lossOfSignal/severity"), "0 0");
    module().flap(emu::lane_flag::tx_fault, 0, "1", emu::flap_step::per_poll);
    cycle(*h);
    EXPECT_EQ(values("alarms/txFault/severity data/txFaultPin"), "1 true");
    module().stop_flaps();
    module().flap(emu::lane_flag::tx_fault, 0, "0", emu::flap_step::per_poll);
    module().flap(emu::lane_flag::rx_los, 0, "1", emu::flap_step::per_poll);
    cycle(*h);
    EXPECT_EQ(values("alarms/txFault/severity alarms/lossOfSignal/severity data/losPin"),
              "0 1 true");
    expect_logged("TX_FAULT", {"TX_FAULT detected qsfp3"});
    expect_logged("LOS", {"LOS detected qsfp3"});
    // A flapping LOS: eleven transitions within 100 cycles hold it raised.
    module().stop_flaps();
    module().flap(emu::lane_flag::rx_los, 0, "01", emu::flap_step::per_period, 100ms);
    for (int i = 0; i < 20; ++i)
        cycle(*h);
    EXPECT_EQ(logs.count("LOS event suppression mode entered, LOS detected qsfp3"), 1u);
}

TEST_F(Converter, TheLosWorkaroundUsesRxPowerWithItsHysteresis) {
    // Catalogue: isLosWorkaround with softLOSHyst 10 (1.0 dB) for the OEM LR, whose RX power low
    // alarm threshold is -18.0 dBm.
    auto h = converter("qsa_sfpplus_10g_lr");
    struct step {
        std::uint16_t rx_raw;  // 0.1 uW
        int los;
    };
    const step steps[] = {
        {1000, 0},  // -10.0 dBm
        {100, 1},   // -20.0: below the threshold
        {178, 1},   // -17.5: above it, within the hysteresis
        {224, 0},   // -16.5: more than 1.0 dB above
        {150, 1},   // -18.2
    };
    for (const auto& s : steps) {
        module().unstick_all();
        module().stick({}, 104, {std::uint8_t(s.rx_raw >> 8), std::uint8_t(s.rx_raw)}, a2);
        cycle(*h);
        EXPECT_EQ(severity("lossOfSignal"), s.los) << s.rx_raw;
    }
}

TEST_F(Converter, AModuleWithoutDiagnosticsServesNoMonitorsAndLogsNoErrors) {
    auto h = converter("qsa_sfp_fc_brocade_nodom");
    ASSERT_TRUE(h->found_in_catalogue());
    EXPECT_EQ(values("inventory/vendor inventory/partNumber inventory/serialNumber "
                     "data/hasDiagnostics inventory/sfpPartName"),
              R"x("BROCADE" "57-1000042-02" "F78TVUM" false "SFP 1G (no diagnostics)")x");
    for (const char* monitor :
         {"data/temperature", "data/txPower", "data/rxPower", "data/txBias", "data/debug/voltage",
          "alarms/temperature/severity", "data/tempHighAlarmThreshold", "data/pageDumpA2/page/0"})
        EXPECT_FALSE(has_node(monitor)) << monitor;
    // Ten seconds of cycles and value-group polls.
    for (int i = 0; i < 100; ++i)
        cycle(*h);
    EXPECT_EQ(values("alarms/txFault/severity alarms/lossOfSignal/severity data/txEnable"),
              "0 0 true");
    EXPECT_EQ(errors_logged(), 0u);
    // Asked for A2h controls, it says why it has none, without touching the bus.
    const auto before = transactions();
    EXPECT_THAT(error_of([&] { values("data/rs0"); }).what(),
                ::testing::HasSubstr("No A2h page on the SFP"));
    EXPECT_EQ(transactions(), before);
    // TX disable through the pin it advertises.
    h->set_tx_enable(false);
    EXPECT_TRUE(pin(cage::sfp_signal::tx_disable));
}

TEST_F(Converter, AnUnlistedSfpTakesTheUnsupportedPath) {
    catalogue(R"({"opticalTransceiverList": []})");
    struct row {
        const char* profile;
        std::vector<std::string> lines;
    };
    const row rows[] = {
        {"qsa_sfpplus_10g_sr",
         {"Unsupported SFP device at qsfp3 inserted (vendor: FINISAR CORP., part number: "
          "FTLX8571D3BCL).",
          "Unsupported SFP device qsfp3 is optical.",
          "Unsupported SFP device qsfp3 has 0x51 (A2h) page"}},
        {"qsa_sfp_fc_brocade_nodom",
         {"Unsupported SFP device at qsfp3 inserted (vendor: BROCADE, part number: "
          "57-1000042-02).",
          "Unsupported SFP device qsfp3 is optical."}},
        {"qsa_sfpplus_dac_passive",
         {"Unsupported SFP device at qsfp3 inserted (vendor: QSFPD-EMU, part number: "
          "EMU-SFP-DAC-3M).",
          "Unsupported SFP device qsfp3 is a cable."}},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.profile);
        logs.clear();
        auto h = converter(r.profile);
        EXPECT_FALSE(h->found_in_catalogue());
        expect_logged("Unsupported SFP device", r.lines);
        const bool cable = std::string_view(r.profile) == "qsa_sfpplus_dac_passive";
        EXPECT_EQ(values("alarms/unsupported/severity inventory/sfpKind inventory/wdmType"),
                  cable ? R"(1 "passive" "NONE")" : R"(1 "optical" "NONE")");
        if (cable) {
            EXPECT_EQ(values("data/cableType data/cableLength inventory/wavelength"),
                      R"("passive" 3 0.0)");
        }
        ASSERT_NE(h->sfp_handler(), nullptr);
        h.reset();
    }
    // The tunable one comes up tunable even unlisted (A0h byte 65 bit 6).
    auto h = converter("qsa_sfpplus_10g_tunable_dwdm");
    EXPECT_TRUE(has_node("data/frequency"));
}

TEST_F(Converter, AnSfpPulledFromTheAdapterRaisesItsAlarmOnceAndComesBack) {
    auto h = converter("qsa_sfpplus_10g_sr");
    cycle(*h);
    const auto errors_before = errors_logged();
    // The adapter stays (the cage sees a module), the SFP behind it stops answering.
    cage_emu->fail_at(0x50, 0, 255, ENXIO);
    cage_emu->fail_at(a2, 0, 255, ENXIO);
    for (int i = 0; i < 50; ++i)
        EXPECT_NO_THROW(cycle(*h));
    EXPECT_EQ(values("alarms/sfpMissing/severity"), "1");
    expect_logged("SFP removed from converter", {"SFP removed from converter qsfp3"});
    EXPECT_THAT(error_of([&] { h->sfp_handler()->get_tx_enable(); }).what(),
                ::testing::HasSubstr("SFP not present qsfp3"));
    clock->run_for(5s);  // value-group polls of the monitors
    EXPECT_EQ(errors_logged(), errors_before);

    cage_emu->clear_faults();
    cycle(*h);
    EXPECT_EQ(values("alarms/sfpMissing/severity"), "0");
    expect_logged("SFP back in converter", {"SFP back in converter qsfp3"});
    cycle(*h);
    EXPECT_EQ(values("data/txEnable"), "true");
}

TEST_F(Converter, AnotherSfpPutInTheAdapterIsNotServedByTheOldHandler) {
    auto h = converter("qsa_sfpplus_10g_sr");
    cage_emu->fail_at(0x50, 0, 255, ENXIO);
    cycle(*h);
    cage_emu->clear_faults();
    // Same adapter, another serial number.
    for (std::uint8_t i = 0; i < 7; ++i)
        module().poke({}, static_cast<std::uint8_t>(68 + i), "XXXXXXX"[i]);
    cycle(*h);
    cycle(*h);
    EXPECT_EQ(values("alarms/sfpMissing/severity"), "1");
    EXPECT_EQ(logs.count("Other SFP inserted into converter (vendor: FINISAR CORP., part number: "
                         "FTLX8571D3BCL), restart the interface to serve it qsfp3"),
              1u);
}

TEST_F(Converter, ATunableSfpMovesToTheWrittenChannelAfterItsTuningTime) {
    auto h = converter("qsa_sfpplus_10g_tunable_dwdm");
    EXPECT_EQ(values("data/firstFrequency data/lastFrequency data/grid data/channelCount "
                     "data/channel data/frequency data/tuning"),
              "191500.0 196100.0 50.0 93 33 193100.0 false");
    EXPECT_EQ(values("data/wavelength inventory/wdmType"), R"("1552.52" "DWDM")");
    write("qsfp/config/channel", 34u);
    EXPECT_EQ(values("data/channel data/tuning data/frequency"), "34 true 193100.0");
    EXPECT_FALSE(module().transmitter_on(0));  // dark while tuning
    clock->run_for(1400ms);
    EXPECT_EQ(values("data/tuning data/frequency"), "true 193100.0");
    clock->run_for(200ms);
    EXPECT_EQ(values("data/tuning data/frequency"), "false 193150.0");
    EXPECT_TRUE(module().transmitter_on(0));
    expect_logged("Tuning to channel", {"Tuning to channel 34 (193150.0 GHz) qsfp3"});
    EXPECT_EQ(error_of([&] { write("qsfp/config/channel", 94u); }).what(),
              std::string("Channel 94 out of range 1..93 qsfp3"));
    EXPECT_EQ(values("config/channel"), "34");
}

TEST_F(Converter, TheVoaSettlesOnTheWrittenAttenuation) {
    auto h = converter("qsa_sfpplus_10g_voa");
    EXPECT_EQ(values("inventory/sfpKind data/maxAttenuation data/attenuation config/attenuation"),
              R"("voa" 15.0 0.0 0.0)");
    write("qsfp/config/attenuation", 5.5);
    EXPECT_EQ(values("data/attenuation data/attenuationSettling"), "0.0 true");
    clock->run_for(250ms);
    EXPECT_EQ(values("data/attenuation data/attenuationSettling"), "5.5 false");
    EXPECT_EQ(module().memory(a2).peek16({0, 0x00}, 248), 550);
    EXPECT_THAT(error_of([&] { write("qsfp/config/attenuation", 15.5); }).what(),
                ::testing::HasSubstr("out of range"));
}

TEST_F(Converter, ATestPlugReportsAndSetsItsLoopback) {
    catalogue(R"({"testTransceiverList": [{"vendor": "FINISAR CORP.", "partNumber": "FTLX",
                  "partName": "loopback plug"}]})");
    insert("qsa_sfpplus_10g_sr");
    // Our emulated SR has no test-plug control byte writable; this one has.
    module().memory(a2).set_writable({}, 73, 73, 0xFF);
    auto h = std::make_shared<qsfp_passive_converter_device_handler>(
        db, device, "qsfp", regs, "VENDOR", "PN-1", "PART NAME", "a description", qsfp_flags_s{}, 3,
        4, clock);
    h->start();
    EXPECT_EQ(values("inventory/sfpKind data/loopback"), R"("test" false)");
    write("qsfp/config/loopback", true);
    EXPECT_EQ(a2_byte(73) & 0x20, 0x20);
    EXPECT_EQ(values("data/loopback"), "true");
}

// Maximum rate (Gbit/s) and border transfer function by A0h bytes 12 (nominal rate), 13 (rate
// identifier) and 66 (the second nominal rate, 250 Mbit/s, when byte 12 is FFh).
TEST_F(Converter, MaximumRateAndBorderTransferFunction) {
    auto h = converter("qsa_sfpplus_10g_sr");
    struct row {
        std::uint8_t nominal, rate_id, nominal_2;
        const char* expected;  // data/maxRateSupport data/borderTf
    };
    const row rows[] = {
        {103, 0, 0, R"(10 "OC192-OC192")"},    {99, 0, 0, R"(9 "OC192-OC192")"},
        {119, 0, 0, R"(11 "OC192-OC192")"},    {140, 0, 0, R"(14 "16GFC-16GFC")"},
        {0xFF, 0, 100, R"(25 "25GbE-25GbE")"}, {85, 0, 0, R"(8 "unknown")"},
        {85, 10, 0, R"(8 "8GFC-8GFC")"},       {85, 12, 0, R"(8 "8GFC-8GFC")"},
        {140, 14, 0, R"(14 "8GFC-8GFC")"},     {140, 16, 0, R"(14 "16GFC-16GFC")"},
        {103, 2, 0, R"(10 "unknown")"},
    };
    for (const auto& r : rows) {
        module().poke({}, 12, r.nominal);
        module().poke({}, 13, r.rate_id);
        module().poke({}, 66, r.nominal_2);
        EXPECT_EQ(values("data/maxRateSupport data/borderTf"), r.expected)
            << int(r.nominal) << " " << int(r.rate_id) << " " << int(r.nominal_2);
    }
}

TEST_F(Converter, PageDumpsOfA0hAndA2h) {
    auto h = converter("qsa_sfpplus_10g_tunable_dwdm");
    auto a0 = dump("data/pageDumpA0");
    ASSERT_TRUE(a0.IsObject());
    // Row 0x10: link lengths 16..19, then "QSFPD-EMU" from byte 20.
    EXPECT_EQ(std::string(a0["rows"][1]["hex"].GetString()),
              "00 00 00 00 51 53 46 50 44 2d 45 4d 55 20 20 20");
    EXPECT_EQ(a0["rows"].Size(), 16u);
    auto p2 = dump("data/pageDumpA2/page/2");
    EXPECT_EQ(std::string(p2["page"].GetString()), "A2h Upper Page 02h");
    // Byte 144..145: channel 33.
    EXPECT_EQ(std::string(p2["rows"][9]["hex"].GetString()).substr(0, 5), "00 21");
}

}  // namespace
}  // namespace qsfpd::handler_test

// The coherent handlers against the emulated 400ZR / ZR+ in virtual time: tuning and its waits,
// admin status through a tuning, the application by rate, custom thresholds and output power,
// PRBS, FEC rates, the demodulator-lock latch, and the CMIS 5 fault debounce and VDM nodes.

#include <future>

#include "../handler/handler_test_support.hpp"
#include "../support/line_socket.hpp"
#include "coherent_module.hpp"
#include "coherent_tuning.hpp"
#include "qsfp_dd_acacia_device_handler.hpp"
#include "qsfp_dd_cmis5_device_handler.hpp"
#include "qsfp_transport.hpp"
#include "vdm_pages.hpp"

namespace qsfpd::handler_test {
namespace {

namespace coh = qsfpd::coherent;
constexpr emu::page_id tuning_page{0, 0x12};
constexpr emu::page_id dsp_page{0, 0xC0};

TEST(CoherentTuning, ChannelNumbersOfFrequenciesAndItuChannels) {
    struct row {
        float grid;
        double mhz;
        int channel;
    };
    // 75 and 25 GHz count 25 GHz steps; 33 GHz steps by 0.1 THz.
    for (const auto& r :
         {row{100.0F, 193'200'000, 1}, row{75.0F, 193'175'000, 3}, row{50.0F, 193'000'000, -2},
          row{33.0F, 193'300'000, 2}, row{25.0F, 193'125'000, 1}, row{12.5F, 193'112'500, 1},
          row{3.125F, 193'096'875, -1}}) {
        SCOPED_TRACE(r.grid);
        ASSERT_NE(coh::find_grid(r.grid), nullptr);
        EXPECT_EQ(coh::frequency_channel(r.mhz, *coh::find_grid(r.grid)), r.channel);
    }
    EXPECT_EQ(coh::find_grid(37.5F), nullptr);
    EXPECT_EQ(coh::find_grid(25.0F)->advertisement_mask, coh::find_grid(75.0F)->advertisement_mask);
    EXPECT_EQ(coh::itu_channel_of(193'100'000), 9310);
    EXPECT_EQ(coh::itu_channel_number(9310, 50000), 0);
    EXPECT_EQ(coh::itu_channel_number(9320, 50000), 2);
    EXPECT_EQ(coh::itu_channel_number(9320, 75000), 4);
    EXPECT_EQ(coh::itu_channel_number(9301, 100000), 0);  // truncated toward zero
    EXPECT_EQ(coh::itu_channel_number(9320, 37500), 0);   // no divisor
    EXPECT_EQ(coh::thresholds_of_rate(300).low_warning, -23.0);
    EXPECT_EQ(coh::thresholds_of_rate(150).los, 99.0);
    EXPECT_EQ(coh::f16_value(0x0000), 0.0);
    EXPECT_DOUBLE_EQ(coh::f16_value(0xC001), 1.0);
}

// The shared coherent set on its own, without a maker's thread and with its polling held back, so
// time moves only when a test moves it.
class test_coherent : public qsfp_dd_coherent_device_handler {
  public:
    template <class... A>
    explicit test_coherent(A&&... a)
        : qsfp_dd_coherent_device_handler(std::forward<A>(a)..., "test") {}
    void start() {
        qsfp_dd_device_handler::start();
        add_head_nodes();
        add_line_power_nodes();
        add_pulse_shaping_nodes();
        add_module_threshold_nodes();
        add_total_rx_power_node();
        add_tuning_nodes();
        add_q_nodes();
        add_fec_nodes();
        add_custom_threshold_nodes();
        add_tx_power_nodes();
        add_admin_and_prbs_nodes();
        finish_start("test_dh", false);
    }
};

class CoherentHandler : public handler_fixture {
  protected:
    template <class H = test_coherent>
    std::shared_ptr<H> coherent(std::string_view profile = "qsfpdd_400zr") {
        insert(profile);
        clock->advance(1s);  // data path up, demodulators locked
        auto h = std::make_shared<H>(db, device, "qsfp", regs, "VENDOR", "EMU-QDD-400G-ZR",
                                     "PART NAME", "d", qsfp_flags_s{}, 3, 4, clock);
        h->start();
        return h;
    }
    void while_time_moves(const std::function<void()>& op, std::size_t sleepers = 2) {
        auto done = std::async(std::launch::async, op);
        while (done.wait_for(0ms) != std::future_status::ready)
            if (clock->wait_for_sleepers(sleepers, 100ms)) clock->run_for(100ms);
        done.get();
    }
    template <class T>
    void set(const std::string& path, T value) {
        while_time_moves([&] { write("qsfp/" + path, value); });
    }
    void set_text(const std::string& path, const char* text) {
        while_time_moves([&] {
            db.lookup("qsfp/" + path)
                ->set("qsfp/" + path, dh::json_value(rapidjson::StringRef(text)));
        });
    }
    std::string refused(const std::string& path, const dh::json_value& value) {
        try {
            while_time_moves([&] { db.lookup("qsfp/" + path)->set("qsfp/" + path, value); });
        } catch (const dh_error& e) {
            EXPECT_EQ(e.code(), -22) << e.what();
            return e.what();
        }
        return "accepted";
    }
    bool served(const std::string& path) {
        try {
            return db.lookup("qsfp/" + path) != nullptr;
        } catch (const std::exception&) {
            return false;
        }
    }
    std::int16_t s16(emu::page_id page, std::uint8_t at) {
        return static_cast<std::int16_t>(module().peek(page, at) << 8 |
                                         module().peek(page, at + 1));
    }
    std::int16_t channel() { return s16(tuning_page, 136); }
    bool lpmode() { return device->pin_get(cage::line::lpmode); }
    void cycles(std::chrono::milliseconds span, qsfp_dd_coherent_device_handler& h) {
        for (auto t = 0ms; t < span; t += 100ms) {
            clock->run_for(100ms);
            h.run_periodic_tasks();
        }
    }
};

TEST_F(CoherentHandler, AFrequencyIsTunedThroughLowPowerAndTheModuleFollows) {
    auto h = coherent();
    EXPECT_EQ(values("data/adminStatus data/frequency data/channelId data/gridSpacing"),
              "\"up\" 193100000 \"D9310\" 75.0");
    set("config/frequency", 193'100'000.0);  // already there: nothing happens
    EXPECT_TRUE(logged("Setting frequency").empty());

    set("config/frequency", 193'200'000.0);
    EXPECT_EQ(channel(), 4);  // 0.1 THz in 25 GHz steps on the 75 GHz grid
    EXPECT_EQ(values("data/frequency data/channelId"), "193200000 \"D9320\"");
    EXPECT_FALSE(lpmode());  // admin up: back to high power
    EXPECT_EQ(h->configured_frequency(), 193'200'000.0);
    expect_logged("Set frequency", {"Set frequency: 193200000.000000 at grid spacing: 75"});
    // An admin up writes the line settings back, which retunes the module: that completion stays
    // latched, unread. The next tunings wait for their own.
    h->set_port_admin_status("down");
    while_time_moves([&] { h->set_port_admin_status("up"); });
    set("config/frequency", 193'300'000.0);
    EXPECT_EQ(values("data/frequency data/channelId"), "193300000 \"D9330\"");
    set("config/wavelengthITU", 9340.0);
    EXPECT_EQ(values("data/frequency data/channelId"), "193400000 \"D9340\"");
    EXPECT_EQ(channel(), 12);

    // Off the grid or beyond the module's range: refused before anything moves.
    EXPECT_EQ(refused("config/frequency", dh::json_value(193'110'000.0)),
              "Channel or frequency is not on grid");
    EXPECT_EQ(refused("config/frequency", dh::json_value(197'000'000.0)),
              "Channel or frequency is not on grid");
    EXPECT_EQ(channel(), 12);
}

TEST_F(CoherentHandler, ItuChannelsAndGridChangesWriteTheirChannelNumbers) {
    auto h = coherent();
    set("config/gridSpacing", 50.0F);
    EXPECT_EQ(module().peek(tuning_page, 128) >> 4, 4);  // 50 GHz code
    set("config/wavelengthITU", 9320.0);
    EXPECT_EQ(channel(), 2);
    EXPECT_EQ(values("data/frequency"), "193200000");
    EXPECT_EQ(refused("config/wavelengthITU", dh::json_value(9990.0)),
              "Channel or frequency is not on grid");

    // A configured frequency survives a grid change: the channel is recomputed for the new grid.
    set("config/frequency", 193'300'000.0);
    EXPECT_EQ(channel(), 4);
    set("config/gridSpacing", 100.0F);
    EXPECT_EQ(channel(), 2);
    EXPECT_EQ(values("data/frequency"), "193300000");

    EXPECT_EQ(refused("config/gridSpacing", dh::json_value(37.5F)), "Invalid grid spacing");
    EXPECT_EQ(refused("config/gridSpacing", dh::json_value(12.5F)), "Requested Grid not supported");
}

TEST_F(CoherentHandler, WaitsThatRunOutEndWithTheirTextsAndNeverLeaveAnUpPortDark) {
    auto h = coherent();
    module().ignore_low_power_requests(true);
    const auto before = clock->now();
    EXPECT_EQ(refused("config/frequency", dh::json_value(193'200'000.0)),
              "Setting high power mode timeout.");
    EXPECT_EQ(clock->now() - before, 6100ms);  // the 61st read counts as a timeout
    EXPECT_FALSE(lpmode());
    EXPECT_EQ(refused("config/gridSpacing", dh::json_value(100.0F)),
              "Setting high power mode timeout");
    EXPECT_EQ(refused("config/wavelengthITU", dh::json_value(9320.0)),
              "Setting high power mode timeout");
    EXPECT_EQ(refused("config/application", dh::json_value(rapidjson::StringRef("100G"))),
              "Setting low power mode timeout");
    EXPECT_FALSE(lpmode());
    EXPECT_EQ(channel(), 0);

    module().ignore_low_power_requests(false);
    module().coherent()->stall_tuning(true);
    set("config/frequency", 193'200'000.0);  // logged only: the frequency is still configured
    expect_logged("Tuning frequency", {"Tuning frequency not finished within 3 seconds"});
    EXPECT_EQ(h->configured_frequency(), 193'200'000.0);
    EXPECT_EQ(refused("config/wavelengthITU", dh::json_value(9330.0)), "Tuning timeout");
    EXPECT_FALSE(lpmode());
}

TEST_F(CoherentHandler, AdminDownHoldsLowPowerThroughATuningAndUpRestoresTheLine) {
    auto h = coherent();
    h->set_port_admin_status("down");
    h->set_port_admin_status("down");
    set("config/frequency", 193'400'000.0);
    EXPECT_TRUE(lpmode());
    EXPECT_EQ(values("data/moduleState data/adminStatus"), "\"Low power\" \"down\"");
    while_time_moves([&] { h->set_port_admin_status("up"); });
    EXPECT_FALSE(lpmode());
    EXPECT_EQ(values("data/moduleState data/adminStatus data/frequency"),
              "\"Ready\" \"up\" 193400000");
    expect_logged("Setting adminstatus",
                  {"Setting adminstatus down qsfp3",
                   "Setting adminstatus down but adminstatus is already down, do nothing. qsfp3",
                   "Setting adminstatus up qsfp3"});
    EXPECT_EQ(error_of([&] { h->set_port_admin_status("sideways"); }).what(),
              std::string("Illegal parameter admin status: sideways"));
}

TEST_F(CoherentHandler, AColdStartHoldsAModulePoweringUpOnItsOwnInLowPower) {
    insert("qsfpdd_400zr");
    device->pin_set(cage::line::lpmode, true);
    clock->advance(2s);
    device->pin_set(cage::line::lpmode, false);  // powering up when the handler comes
    auto h = std::make_shared<test_coherent>(db, device, "qsfp", regs, "VENDOR", "PN", "PART", "d",
                                             qsfp_flags_s{}, 3, 4, clock);
    h->start();
    clock->advance(3s);
    EXPECT_TRUE(lpmode());
    EXPECT_EQ(values("data/adminStatus data/moduleState"), "\"down\" \"Low power\"");
}

TEST_F(CoherentHandler, TheApplicationByRateRepublishesTheRxThresholds) {
    auto h = coherent();
    EXPECT_EQ(values("data/application data/rxLosThreshold data/rxSensitivity"),
              "\"400G\" -24.0 -21.0");
    set_text("config/application", "100G");
    EXPECT_EQ(values("data/application data/rxLosThreshold data/rxSensitivity "
                     "data/debug/rxPowerLowAlarmThreshold data/numActiveClients"),
              "\"100G\" -35.0 -32.0 -35.0 1");
    EXPECT_EQ(refused("config/pulseShaping", dh::json_value(false)),
              "Pulse shaping can't be disabled in 100G application");
    EXPECT_NE(refused("config/application", dh::json_value(rapidjson::StringRef("500G"))),
              "accepted");
    // The custom LOS threshold replaces the rate's low alarm while it is enabled.
    const float los_max = h->get_rx_los_total_pwr_max_threshold();
    set("config/rxLosCustomThreshold", los_max);
    set("config/rxLosCustomThresholdEnabled", true);
    EXPECT_EQ(std::stof(values("data/debug/rxPowerLowAlarmThreshold")), los_max);
    set("config/rxLosCustomThresholdEnabled", false);
    EXPECT_EQ(values("data/debug/rxPowerLowAlarmThreshold"), "-35.0");
}

TEST_F(CoherentHandler, CustomThresholdsAreBoundInclusivelyAndKeepTheWarningInside) {
    auto h = coherent();
    const float max = s16(dsp_page, 190) / 100.0F;  // signal power high alarm bounds
    const float min = s16(dsp_page, 192) / 100.0F;
    EXPECT_EQ(h->get_rx_signal_pwr_high_alarm_max_threshold(), max);
    set("config/rxSignalHighAlarmCustomThreshold", max);
    set("config/rxSignalHighAlarmCustomThreshold", min);
    EXPECT_EQ(s16(dsp_page, 168), static_cast<std::int16_t>(std::lround(min * 100)));
    EXPECT_EQ(s16(dsp_page, 170), static_cast<std::int16_t>(std::lround(min * 100)) - 50);
    EXPECT_EQ(std::stof(values("data/rxSignalHighWarnAlarmCustomThreshold")), min - 0.5F);
    EXPECT_EQ(refused("config/rxSignalHighAlarmCustomThreshold", dh::json_value(max + 0.1F)),
              "Chosen threshold is higher than maximum allowed threshold for custom RX signal "
              "power high alarm.");
    EXPECT_EQ(refused("config/rxToTalLowAlarmCustomThreshold", dh::json_value(-99.0F)),
              "Chosen threshold is lower than minimum allowed threshold for custom RX total power "
              "low alarm.");
    EXPECT_EQ(refused("config/rxLosCustomThreshold", dh::json_value(99.0F)),
              "Chosen threshold is higher than maximum allowed threshold for custom RX LoS");
    EXPECT_EQ(s16(dsp_page, 168), static_cast<std::int16_t>(std::lround(min * 100)));

    set("config/txTargetOutputPower", -7.5F);
    EXPECT_EQ(s16(tuning_page, 200), -750);
    EXPECT_EQ(refused("config/txTargetOutputPower", dh::json_value(-5.0F)),
              "Input parameter <tx output power> is not within range : (-10 to -6 [dBm])");
}

TEST_F(CoherentHandler, AModuleWithoutCustomThresholdsRefusesThem) {
    insert("qsfpdd_400zr");
    module().poke(dsp_page, 128, 0x06);
    module().poke({0, 0x04}, 200, 0xFB);  // maximum programmable power (-11 dBm) below the minimum
    module().poke({0, 0x04}, 201, 0xB4);
    auto h = std::make_shared<test_coherent>(db, device, "qsfp", regs, "VENDOR", "PN", "PART", "d",
                                             qsfp_flags_s{}, 3, 4, clock);
    h->start();
    EXPECT_EQ(values("data/debug/rxPwrAlarmCustomSupported data/rxPwrAlarmCustomEnabled "
                     "data/rxSignalPwrHighAlarmMaxCustomThreshold data/txPowerSettable"),
              "false false 0.0 false");
    EXPECT_EQ(refused("config/rxPwrAlarmCustomEnabled", dh::json_value(true)),
              "QSFP-DD doesn't support configurable thresholds for input power.");
    EXPECT_EQ(refused("config/rxSignalHighAlarmCustomThreshold", dh::json_value(1.0F)),
              "Chosen threshold is higher than maximum allowed threshold for custom RX signal "
              "power high alarm.");
    EXPECT_EQ(refused("config/txTargetOutputPower", dh::json_value(-8.0F)),
              "Cannot set output power on this transciever.");
}

TEST_F(CoherentHandler, PrbsRunsForItsDurationAndEndsAtOnceWithTheHandler) {
    auto h = coherent();
    h->prbs_start(true);
    EXPECT_EQ(severity("prbs"), 1);
    EXPECT_EQ(error_of([&] { h->prbs_start(true); }).what(),
              std::string("PRBS has already started."));
    EXPECT_EQ(error_of([&] { h->set_prbs_pattern("PRBS15"); }).what(),
              std::string("PRBS is measuring. Please stop it before changing."));
    h->set_prbs_time(10);
    // Elapsed time grows in 3 s steps after a first 3 s: a 10 s run ends on the poll at 12 s.
    const auto running = [&] {
        return h->get_prbs_info().text.find("\"running\"") != std::string::npos;
    };
    for (int i = 0; i < 20 && running(); ++i)
        if (clock->wait_for_sleepers(1, 1000ms)) clock->run_for(1s);
    const auto info = h->get_prbs_info().text;
    EXPECT_NE(info.find("\"status\":\"not started\""), std::string::npos) << info;
    EXPECT_NE(info.find("\"elapsedTime\":12"), std::string::npos) << info;
    EXPECT_EQ(info.find("\"totalBitsCount\":0"), std::string::npos) << info;
    EXPECT_EQ(severity("prbs"), 0);
    h->set_prbs_pattern("PRBS15");
    EXPECT_EQ(module().peek(dsp_page, 202) & 0x03, 0);

    h->prbs_start(true);
    EXPECT_EQ(module().peek(dsp_page, 203), 2);  // PRBS15
    const auto now = clock->now();
    h.reset();  // the poll thread sleeps 3 s: destruction must not wait for it
    EXPECT_EQ(clock->now(), now);
}

TEST_F(CoherentHandler, FecRatesArePerSecondAndNeverOverAZeroInterval) {
    auto h = coherent();
    module().coherent()->set_pre_fec_ber(1e-3);
    cycles(5s, *h);
    const double rate = std::stod(values("data/fec/correctedBitErrorsPerSec"));
    EXPECT_NEAR(rate, 478.75e9 * 1e-3, 478.75e9 * 1e-3 * 0.02);
    EXPECT_GT(std::stod(values("data/fec/totalBits")), 478.75e9);
    EXPECT_GT(std::stod(values("data/debugPM/lane/1/txBitsPmPerSec")), 0.0);
    h->set_fec_counters_reset(true);
    EXPECT_EQ(values("data/fec/correctedBitErrors data/fec/correctedBitErrorsPerSec"), "0 0");
}

TEST_F(CoherentHandler, ATuningHoldsTheHandlerButNotTheServer) {
    test::running_server server((root.path() / "qsfp3.sock").string());
    insert("qsfpdd_400zr");
    auto h = std::make_shared<test_coherent>(server.api->get_db(), device, "", regs, "VENDOR", "PN",
                                             "PART", "d", qsfp_flags_s{}, 3, 4, clock);
    h->start();
    // The tuning and the handler's idle value group sleep on the clock.
    const std::size_t server_sleepers = 2;
    module().ignore_low_power_requests(true);
    test::line_socket tuner(server.api->tcp_port());
    test::line_socket other(server.api->tcp_port());
    tuner.send(test::request("set", R"({"path":"config/frequency","value":193200000.0})") + "\n");
    ASSERT_TRUE(clock->wait_for_sleepers(server_sleepers));
    EXPECT_EQ(other.request(test::request("get", R"({"path":"inventory/cmisVersion"})", "2")),
              test::result(R"("4.0")", "2"));
    EXPECT_FALSE(tuner.readable_within(0ms));
    while (!tuner.readable_within(0ms))
        if (clock->wait_for_sleepers(server_sleepers, 100ms)) clock->run_for(100ms);
    EXPECT_NE(tuner.read_line().value_or("").find("Setting high power mode timeout."),
              std::string::npos);
}

TEST_F(CoherentHandler, TheAcaciaWatcherLatchesPmOnceOnEachDemodulatorLock) {
    auto h = coherent<qsfp_dd_acacia_device_handler>();
    EXPECT_EQ(values("inventory/device_handler"), "\"qsfp_dd_acacia_dh\"");
    const auto latched = [&] { return (module().peek({0, 0x2F}, 144) & 0x80) != 0; };
    // Locked at start: a rising edge from the watcher's point of view.
    ASSERT_TRUE(clock->wait_for_sleepers(2));
    EXPECT_TRUE(latched());
    clock->run_for(1100ms);
    EXPECT_FALSE(latched());
    clock->run_for(2s);
    EXPECT_FALSE(latched());  // a lock that stays is no new interval
    module().coherent()->flap_locks("01", 500ms, 0x01);
    bool pulsed = false;
    for (int i = 0; i < 20 && !pulsed; ++i) {
        clock->run_for(100ms);
        pulsed = latched();
    }
    EXPECT_TRUE(pulsed);
    EXPECT_NE(std::stod(values("data/qValue")), 0.0);
    EXPECT_EQ(values("data/cfo").empty(), false);
}

// --- CMIS 5 ------------------------------------------------------------------------------------

TEST(Cmis5FaultDebounce, AFaultIsReportedFromItsFourthReadingUntilTheFourthClearOne) {
    struct row {
        const char* readings;  // '1' set, '0' clear
        const char* reported;
    };
    for (const auto& r : {row{"0000", "1110"},                // the three answers after start
                          row{"00001110000", "11100000000"},  // three sets never reported
                          row{"000011110000", "111000011110"}}) {
        unsigned set = 0;
        unsigned clear = 0;
        std::string out;
        for (const char* c = r.readings; *c; ++c)
            out +=
                qsfp_dd_cmis5_device_handler::check_local_remote_faults_flags(*c == '1', set, clear)
                    ? '1'
                    : '0';
        EXPECT_EQ(out, r.reported) << r.readings;
    }
}

TEST_F(CoherentHandler, Cmis5FaultAlarmsFollowTheDebouncedFlags) {
    auto h = coherent<qsfp_dd_cmis5_device_handler>("qsfpdd_400zr_plus");
    EXPECT_EQ(values("inventory/device_handler"), "\"qsfp_dd_cmis5_dh\"");
    auto* vdm = module().vdm();
    ASSERT_NE(vdm, nullptr);
    cycles(300ms, *h);  // past the three answers after start
    cycles(100ms, *h);
    EXPECT_EQ(severity("localRxFault"), 0);
    vdm->set_fault(0, emu::coherent_fault::rx_local, true);
    cycles(300ms, *h);
    vdm->set_fault(0, emu::coherent_fault::rx_local, false);
    cycles(100ms, *h);
    EXPECT_EQ(severity("localRxFault"), 0);
    vdm->set_fault(0, emu::coherent_fault::tx_remote, true);
    cycles(400ms, *h);
    EXPECT_EQ(severity("client/1/remoteTxFault"), 1);
    vdm->set_fault(0, emu::coherent_fault::tx_remote, false);
    cycles(300ms, *h);
    EXPECT_EQ(severity("client/1/remoteTxFault"), 1);
    cycles(100ms, *h);
    EXPECT_EQ(severity("client/1/remoteTxFault"), 0);
}

TEST_F(CoherentHandler, Cmis5ServesVdmAndRefusesApplicationsTheModuleLacks) {
    auto h = coherent<qsfp_dd_cmis5_device_handler>("qsfpdd_400zr_plus");
    EXPECT_FALSE(values("data/preFecBerHost data/preFecBerHost/flag data/postFecBer").empty());
    EXPECT_FALSE(served("data/osnr"));
    const auto before = module().peek({0, 0x10}, 145);
    EXPECT_EQ(refused("config/application", dh::json_value(rapidjson::StringRef("100GscFEC"))),
              "QSFP-DD application not available");
    EXPECT_EQ(module().peek({0, 0x10}, 145), before);
    expect_logged("Called", {});
}

TEST_F(CoherentHandler, Cmis5OnAModuleWithoutVdmServesNoVdmNode) {
    auto h = coherent<qsfp_dd_cmis5_device_handler>("qsfpdd_400zr");
    EXPECT_FALSE(served("data/preFecBerHost"));
    EXPECT_EQ(logged("VDM not supported").size(), 1u);
}

}  // namespace
}  // namespace qsfpd::handler_test

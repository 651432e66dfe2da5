// The CMIS handlers against the emulator in virtual time: the advertisement decode, application
// select with its refusals and read-back, transmitter and RX output controls, and the 4-lane
// handler's alarms.

#include <future>

#include <fmt/format.h>

#include "../handler/handler_test_support.hpp"
#include "../support/line_socket.hpp"
#include "qsfp_dd_device_handler.hpp"
#include "qsfp_dd_optical_4lane_device_handler.hpp"
#include "qsfp_transport.hpp"

namespace qsfpd::handler_test {
namespace {

// Page 10h / 11h bytes the tests look at.
constexpr std::uint8_t staged_config = 145;  // DPConfigLane1..8
constexpr std::uint8_t active_config = 206;  // active control set, lanes 1..8
constexpr std::uint8_t tx_disable = 130;
constexpr std::uint8_t rx_los_latched = 147;

// The base CMIS handler on its own, its value group left idle so that virtual time moves only
// when a test moves it.
class test_dd_handler : public qsfp_dd_device_handler {
  public:
    using qsfp_dd_device_handler::qsfp_dd_device_handler;
    void start() { qsfp_dd_device_handler::start(); }
    using qsfp_dd_device_handler::_set_application_code;
};

class DdHandler : public handler_fixture {
  protected:
    std::shared_ptr<test_dd_handler> dd(std::string_view profile,
                                        std::string part = "EMU-QDD-400G-FR4") {
        insert(profile);
        return base(part);
    }
    // The base handler on the module in the cage, started.
    std::shared_ptr<test_dd_handler> base(std::string part = "EMU-QDD-400G-FR4") {
        auto h = std::make_shared<test_dd_handler>(db, device, "qsfp", regs, "VENDOR", part,
                                                   "PART NAME", "a description", qsfp_flags_s{},
                                                   "optical", 3, 4, clock);
        h->start();
        return h;
    }
    // The 4-lane handler on the module in the cage, started.
    std::shared_ptr<qsfp_dd_optical_4lane_device_handler> four_lane(
        std::string vendor = "VENDOR", std::string part = "EMU-QDD-400G-FR4") {
        auto h = std::make_shared<qsfp_dd_optical_4lane_device_handler>(
            db, device, "qsfp", regs, vendor, part, "PART NAME", "d", qsfp_flags_s{}, 3, 4, clock);
        h->start();
        return h;
    }
    std::array<std::uint8_t, 8> lanes(std::uint8_t page, std::uint8_t first) {
        std::array<std::uint8_t, 8> out{};
        for (unsigned i = 0; i < out.size(); ++i)
            out[i] = module().peek({0, page}, static_cast<std::uint8_t>(first + i));
        return out;
    }
    // Runs `op` on its own thread and moves virtual time until it is done (it sleeps on the
    // clock while it waits for the module).
    void while_time_moves(const std::function<void()>& op) {
        auto done = std::async(std::launch::async, op);
        while (done.wait_for(0ms) != std::future_status::ready)
            if (clock->wait_for_sleepers(sleepers_with_operation, 100ms)) clock->run_for(100ms);
        done.get();
    }
    void select(const std::string& json) {
        while_time_moves([&] {
            db.lookup("qsfp/command/applicationCompatibleSelect")
                ->run("", parse(json), scratch.GetAllocator(), result);
        });
    }
    static dh::json_value parse(const std::string& json) {
        static rapidjson::Document doc;
        doc.Parse(json.c_str());
        return dh::json_value(doc, doc.GetAllocator());
    }
    // Time moves only while both the handler's (idle) value group and the operation sleep.
    static constexpr std::size_t sleepers_with_operation = 2;
    rapidjson::Document scratch;
    dh::json_value result;
};

TEST_F(DdHandler, TheApplicationListAgreesWithTheAdvertisementBytes) {
    auto h = dd("qsfpdd_400g_fr4");
    const auto apps = h->application_map();
    ASSERT_EQ(apps.size(), 3u);
    for (const auto& [number, app] : apps) {
        const auto at = static_cast<std::uint8_t>(86 + 4 * (number - 1));
        EXPECT_EQ(app.host.IdHex, fmt::format("{:X}", lower(at))) << number;
        EXPECT_EQ(app.media.IdHex, fmt::format("{:X}", lower(at + 1))) << number;
        EXPECT_EQ(app.host_lane_count, lower(at + 2) >> 4) << number;
        EXPECT_EQ(app.media_lane_count, lower(at + 2) & 0x0F) << number;
        EXPECT_EQ(app.host_lane_assignment, lower(at + 3)) << number;
    }
    EXPECT_EQ(apps.at(1).host.Interface, "400GAUI-8 C2M (Annex 120E)");
    EXPECT_EQ(apps.at(1).media.Interface, "400G-FR4 MSA spec/400GBASE-FR4 (Clause 151)");
    // C0h is a vendor code: no table knows it and no application file names it here.
    EXPECT_EQ(apps.at(3).media.Interface, "Unknown");
    EXPECT_EQ(values("alarm/readFromApplicationFile"), "true");
    EXPECT_EQ(values("inventory/cmisVersion inventory/cmisMajorVersion data/applicationTotal"),
              "\"4.0\" 4 3");
    EXPECT_EQ(values("data/currentApplication"),
              "{\"IdHex\":\"1D\",\"Interface\":\"400G-FR4 MSA spec/400GBASE-FR4 (Clause "
              "151)\",\"Bitrate\":400,\"LaneCount\":4,\"LaneSignalRate\":53.125,\"Modulation\":"
              "\"PAM4\",\"B/UI\":2.0,\"FEC\":\"RS(544,514)FEC\",\"LaneAssignment\":1,"
              "\"EnhancedMode\":\"\",\"AppSel\":1}");
}

TEST_F(DdHandler, TheApplicationFileNamesAVendorCodeAndItsVersions) {
    root.write("var/persistent/etc/application_list.json", R"({"version": 3, "CMISVer": "4.0",
        "applicationTable": {"Custom": [{"ProductName": "EMU-QDD-400G-FR4", "ProductCodes": [
        {"IdHex": "C0", "Interface": "400G-FR4-EXT", "bitrate": 400, "bitrate_org": 425,
         "LaneCount": 4, "LaneSignallingRate": 53.125, "Modulation": "PAM4", "b/UI": 2,
         "Enhanced_mode": ""}]}]}})");
    auto h = dd("qsfpdd_400g_fr4");
    EXPECT_EQ(h->application_map().at(3).media.Interface, "400G-FR4-EXT");
    EXPECT_EQ(values("alarm/readFromApplicationFile data/applicationFileVersion "
                     "data/applicationFileCMISVersion"),
              "false \"3\" \"4.0\"");
}

// The Cisco cable: descriptors 1-7 empty (host code 00h), 8 the one application, with host lane
// assignment 00h; no application runs until the host selects one; no RX power monitor.
TEST_F(DdHandler, ASparseAdvertisementIsDecodedAndSelectedAsTheModuleGivesIt) {
    insert("qsfpdd_dac_cisco_sparse");
    auto h = four_lane("CISCO", "68-103205-02");
    const auto apps = h->application_map();
    ASSERT_EQ(apps.size(), 8u);
    EXPECT_EQ(apps.begin()->second.host.Interface, "Unknown");  // host code 00h: undefined
    EXPECT_EQ(apps.at(8).host.Interface, "400GAUI-8 C2M (Annex 120E)");
    EXPECT_EQ(values("data/numberOfLanes data/applicationCode"), "8 0");
    for (int i = 0; i < 20; ++i)
        h->run_periodic_tasks();
    EXPECT_EQ(severity("lossOfSignal"), 0);  // no RX power monitor: its 0 is no dark fibre

    const auto staged = lanes(0x10, staged_config);
    EXPECT_EQ(error_of([&] { select(R"({"app_select": 8, "service": "5x80GbE"})"); }).what(),
              std::string("Invalid service 5x80GbE. Service not handled!"));
    EXPECT_EQ(lanes(0x10, staged_config), staged);
    select(R"({"app_select": 8, "service": "400GbE-400GbE"})");
    EXPECT_EQ(lanes(0x11, active_config),
              (std::array<std::uint8_t, 8>{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80}));
}

TEST_F(DdHandler, AFlatMemoryModuleIsServedWithThePageItHas) {
    auto flat = dd("qsfpdd_dac_fithonteng_flat", "CU4EP54-01000-EF");
    EXPECT_EQ(flat->application_map().at(1).media.Interface, "Copper cable");
    EXPECT_EQ(error_of([&] { flat->get_lane_tx_enable(0); }).what(),
              std::string("TX enable is not available on a flat-memory module"));
    EXPECT_ANY_THROW(db.lookup("qsfp/data/pageDump/upperPage/1"));
    EXPECT_NO_THROW(db.lookup("qsfp/data/pageDump/upperPage/0"));
}

struct refusal {
    const char* name;
    const char* document;
    const char* text;
};

class DdRefusals : public DdHandler, public ::testing::WithParamInterface<refusal> {};

TEST_P(DdRefusals, LeaveTheModuleAsItWas) {
    auto h = dd("qsfpdd_400g_fr4");
    const auto staged = lanes(0x10, staged_config);
    const auto active = lanes(0x11, active_config);
    const auto error = error_of([&] { select(GetParam().document); });
    EXPECT_EQ(error.code(), dh::errc::invalid);
    EXPECT_EQ(error.what(), std::string(GetParam().text));
    EXPECT_EQ(lanes(0x10, staged_config), staged);
    EXPECT_EQ(lanes(0x11, active_config), active);
    EXPECT_FALSE(device->pin_get(cage::line::lpmode));
}

INSTANTIATE_TEST_SUITE_P(
    Select, DdRefusals,
    ::testing::Values(refusal{"AppZero", R"({"app_select": 0, "service": "400G"})",
                              "Invalid application code 0. Range [1-3]."},
                      refusal{"AppAboveTotal", R"({"app_select": 4, "service": "400G"})",
                              "Invalid application code 4. Range [1-3]."},
                      refusal{"AppNegative", R"({"app_select": -1, "service": "400G"})",
                              "Invalid application code -1. Range [1-3]."},
                      refusal{"UnknownService", R"({"app_select": 2, "service": "800G"})",
                              "Invalid service 800G. Service not handled!"},
                      refusal{"NoService", R"({"app_select": 2})", "Invalid json structure."},
                      refusal{"AppAsText", R"({"app_select": "2", "service": "400G"})",
                              "Invalid json structure."},
                      refusal{"NotAnObject", R"([2, "400G"])", "Invalid json structure."}),
    [](const ::testing::TestParamInfo<refusal>& info) { return std::string(info.param.name); });

TEST_F(DdHandler, SelectingAnApplicationChangesTheActiveSetAndARepeatIsSkipped) {
    auto h = dd("qsfpdd_400g_fr4");
    const auto started = clock->now();
    select(R"({"app_select": 2, "service": "4x100GbE-4x100GbE"})");
    // 100GAUI-2 on host lanes 1-2, 3-4, 5-6, 7-8: four data paths of application 2, each
    // named by its first lane.
    EXPECT_EQ(lanes(0x11, active_config),
              (std::array<std::uint8_t, 8>{0x20, 0x20, 0x24, 0x24, 0x28, 0x28, 0x2C, 0x2C}));
    EXPECT_EQ(values("data/applicationCode"), "2");
    EXPECT_FALSE(device->pin_get(cage::line::lpmode));
    EXPECT_LT(clock->now() - started, 6100ms);  // the module reached low power early
    EXPECT_TRUE(logged("Application code").empty());

    select(R"({"app_select": 1, "service": "400GbE-400GbE"})");
    EXPECT_EQ(lanes(0x11, active_config),
              (std::array<std::uint8_t, 8>{0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10}));
    const auto staged = lanes(0x10, staged_config);
    select(R"({"app_select": 1, "service": "400G"})");
    expect_logged("Setting application",
                  {"Setting application code to 2 with service 4x100GbE-4x100GbE",
                   "Setting application code to 1 with service 400GbE-400GbE",
                   "Setting application code 1. But app is already configured. Skip operation"});
    EXPECT_EQ(lanes(0x10, staged_config), staged);
}

TEST_F(DdHandler, AModuleThatNeverReachesLowPowerIsReconfiguredAfterSixtyOneTries) {
    auto h = dd("qsfpdd_400g_fr4");
    module().force_fault();
    const auto started = clock->now();
    while_time_moves([&] { h->_set_application_code(2, "1x100GbE-1x100GbE"); });
    EXPECT_GE(clock->now() - started, 6100ms);
    EXPECT_EQ(lanes(0x10, staged_config)[0], 0x20);
}

TEST_F(DdHandler, AModuleThatKeepsItsOldActiveSetIsReported) {
    auto profile = emu::module_profile::load_named("qsfpdd_400g_fr4");
    profile.config_success_keeps_old_active_set = true;
    const auto settle = profile.i2c_not_ready + profile.power_up;
    cage_emu->insert(std::move(profile));
    clock->advance(settle);
    device = std::make_shared<cage::qsfp_device>("qsfp3", cage_emu);
    regs = std::make_shared<cage::qsfp_reg_map>(*device);
    auto h = base();
    select(R"({"app_select": 2, "service": "100G"})");
    expect_logged("Application code", {"Application code 2 not taken by the module, config "
                                       "status ConfigSuccess, active application 1 qsfp3"});
    EXPECT_EQ(values("data/applicationCode"), "1");
}

// An application change holds the handler for up to 6.1 s (here: a module in fault never
// reaches low power); the server answers other clients meanwhile.
TEST_F(DdHandler, AnApplicationChangeDoesNotStallTheServer) {
    test::running_server server((root.path() / "qsfp3.sock").string());
    auto& served = server.api->get_db();
    insert("qsfpdd_400g_fr4");
    auto h =
        std::make_shared<test_dd_handler>(served, device, "", regs, "VENDOR", "EMU-QDD-400G-FR4",
                                          "PART NAME", "d", qsfp_flags_s{}, "optical", 3, 4, clock);
    h->start();
    module().force_fault();
    test::line_socket changer(server.api->tcp_port());
    test::line_socket other(server.api->tcp_port());
    changer.send(test::request("run", R"({"path":"command/applicationCompatibleSelect",)"
                                      R"("argument":{"app_select":2,"service":"100G"}})") +
                 "\n");
    // The change now sleeps in its low-power wait, holding the handler; time stands still.
    ASSERT_TRUE(clock->wait_for_sleepers(sleepers_with_operation));
    EXPECT_EQ(other.request(test::request("get", R"({"path":"inventory/cmisVersion"})", "2")),
              test::result(R"("4.0")", "2"));
    EXPECT_FALSE(changer.readable_within(0ms));
    while (!changer.readable_within(0ms))
        if (clock->wait_for_sleepers(sleepers_with_operation, 100ms)) clock->run_for(100ms);
    EXPECT_EQ(changer.read_line(), test::result("true"));
}

TEST_F(DdHandler, TransmitterAndRxOutputControlsReachTheRegisters) {
    auto h = dd("qsfpdd_400g_fr4");
    EXPECT_TRUE(h->set_lane_tx_enable(1, false));
    EXPECT_EQ(module().peek({0, 0x10}, tx_disable), 0x02);
    EXPECT_EQ(values("data/lane/2/txEnable data/txEnabledCompletely"), "false false");
    EXPECT_EQ(error_of([&] { h->set_lane_tx_enable(4, true); }).what(),
              std::string("TX lane 4 not available qsfp3"));
    h->set_tx_enable(true);
    h->set_tx_enable(true);
    expect_logged("TX", {"TX lane 1 disabled qsfp3", "TX lane 4 not available qsfp3",
                         "TX enbled qsfp3", "TX already enabled qsfp3"});

    h->set_rx_output_pre_cursor_control(7);
    h->set_rx_output_amplitude_control(3);
    EXPECT_EQ(module().peek({0, 0x11}, 223), 0x77);
    EXPECT_EQ(module().peek({0, 0x11}, 231), 0x33);
    EXPECT_EQ(values("data/lane/4/rxOutputPreCursorControlId data/lane/1/"
                     "rxOutputAmplitudeControlId"),
              "7 3");
    EXPECT_EQ(error_of([&] { h->set_rx_output_pre_cursor_control(8); }).what(),
              std::string("Invalid pre-cursor id: 8 range is 0 to 7"));
    EXPECT_EQ(error_of([&] { h->set_rx_output_amplitude_control(4); }).what(),
              std::string("Invalid amplitude id: 4 range is 0 to 3"));
    EXPECT_EQ(module().peek({0, 0x10}, 162), 0x77);
}

TEST_F(DdHandler, TheFourLaneHandlerSuppressesALosFlapOnOneLane) {
    insert("qsfpdd_400g_fr4");
    auto h = four_lane();
    EXPECT_EQ(values("inventory/device_handler data/moduleState"),
              "\"qsfp_dd_optical_4lane_dh\" \"ModuleReady\"");
    // Twelve transitions on lane 3 within a few cycles, then quiet for ten buckets.
    for (int i = 0; i < 12; ++i) {
        if (i % 2 == 0) module().poke({0, 0x11}, rx_los_latched, 0x04);
        h->run_periodic_tasks();
    }
    for (int i = 0; i < 110; ++i)
        h->run_periodic_tasks();
    const texts los = logged("LOS");
    ASSERT_GE(los.size(), 3u);
    EXPECT_EQ(los.front(), "LOS detected qsfp3");
    EXPECT_NE(
        std::find(los.begin(), los.end(), "LOS event suppression mode entered, LOS detected qsfp3"),
        los.end());
    EXPECT_EQ(los.back(), "LOS event suppression mode exited, LOS not detected qsfp3");
    EXPECT_EQ(severity("lossOfSignal"), 0);
}

// A module found in low power is set up (cold start); one found running was set up by an
// earlier run of the daemon and is left as it is (warm start), its port taken as up.
TEST_F(DdHandler, TheFourLaneHandlerStartsColdFromLowPowerAndWarmOnARunningModule) {
    insert("qsfpdd_400g_fr4");
    device->pin_set(cage::line::lpmode, true);  // as the manager leaves an empty cage
    clock->advance(1s);
    auto cold = four_lane();
    EXPECT_FALSE(cold->is_warm_started());
    EXPECT_FALSE(device->pin_get(cage::line::lpmode));
    cold.reset();
    clock->advance(1s);  // ModulePwrUp
    auto warm = four_lane();
    EXPECT_TRUE(warm->is_warm_started());
    expect_logged("QSFP DD 4-Lane",
                  {"QSFP DD 4-Lane optical device handler cold started successfully for qsfp3",
                   "QSFP DD 4-Lane optical device handler warm started successfully for qsfp3"});
    EXPECT_EQ(values("data/adminStatus data/moduleState"), "\"up\" \"ModuleReady\"");
}

TEST_F(DdHandler, AnEmptyAdvertisementGivesAnEmptyList) {
    insert("qsfpdd_400g_fr4");
    module().poke({}, 86, 0xFF);  // the list ends before its first application
    auto h = base();
    EXPECT_EQ(error_of([&] { h->get_application_list(); }).what(),
              std::string("Application list is empty"));
    EXPECT_EQ(error_of([&] { h->get_current_application(); }).what(),
              std::string("Current application code does not match advertised applications"));
}

}  // namespace
}  // namespace qsfpd::handler_test

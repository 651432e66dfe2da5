#include "qsfp_device_mgr.hpp"

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <array>
#include <atomic>

#include "../support/temp_dir.hpp"
#include "cage_emulator.hpp"
#include "emu_bus.hpp"
#include "log_capture.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "virtual_clock.hpp"

namespace qsfpd::test {

// The smallest concrete handler: ready as soon as it started.
class plain_handler : public qsfp_device_handler {
  public:
    using qsfp_device_handler::qsfp_device_handler;
    std::atomic<int> cycles{0};
    void run_periodic_tasks() override { ++cycles; }
    void start() {
        qsfp_device_handler::start();
        activate_value_group();
        set_dh_ready(true);
    }
    bool warm = false;
    bool is_warm_started() const override { return warm; }
    std::vector<std::string> admin_calls;
    void set_port_admin_status(std::string status) override {
        admin_calls.push_back(status);
        qsfp_device_handler::set_port_admin_status(status);
    }
};

// Records when the manager looked at the presence line, in virtual steady time.
class timed_cage : public cage::qsfp_transport {
  public:
    timed_cage(std::shared_ptr<emu::cage_emulator> inner, std::shared_ptr<virtual_clock> clock)
        : inner_(std::move(inner)), clock_(std::move(clock)) {}
    void i2c_read(std::uint8_t a, std::uint8_t o, std::span<std::uint8_t> out) override {
        inner_->i2c_read(a, o, out);
    }
    void i2c_write(std::uint8_t a, std::uint8_t o, std::span<const std::uint8_t> d) override {
        inner_->i2c_write(a, o, d);
    }
    bool pin_get(unsigned l) override { return inner_->pin_get(l); }
    void pin_set(unsigned l, bool v) override { inner_->pin_set(l, v); }
    bool module_present() override {
        std::lock_guard lock(mutex);
        polls.push_back(clock_->now());
        return inner_->module_present();
    }
    bool sfp_signal_get(cage::sfp_signal s) override { return inner_->sfp_signal_get(s); }
    void sfp_signal_set(cage::sfp_signal s, bool v) override { inner_->sfp_signal_set(s, v); }

    std::mutex mutex;
    std::vector<qsfpd::clock::time_point> polls;

  private:
    std::shared_ptr<emu::cage_emulator> inner_;
    std::shared_ptr<virtual_clock> clock_;
};

}  // namespace qsfpd::test

namespace {
using namespace qsfpd;
using namespace std::chrono_literals;

// A manager on cage 3 of 8 of an emulated bus, in virtual time, under a $QSFPD_ROOT of its own.
class Manager : public ::testing::Test {
  protected:
    void SetUp() override {
        write_catalogue(R"({"optical4LaneTransceiverList":[{"vendor":"DELL","partNumber":"3MFXG",)"
                        R"("description":"100G LR4","isFec":true}]})");
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    }
    void write_catalogue(const std::string& text) { root.write("etc/transceiver_qsfp.json", text); }

    // With a factory for the 4-lane class only, making plain handlers, or the daemon's own.
    void make_manager(bool daemons_factories = false) {
        timed = std::make_shared<test::timed_cage>(cage, clock);
        std::map<handler_class, qsfp_device_mgr::handler_factory> factories;
        // The module's vendor, part number, part name, description and flags pass through.
        factories[handler_class::optical_4lane] = [this](qsfp_device_mgr& mgr, dh_db& db,
                                                         const auto&... module) {
            auto h = std::make_shared<test::plain_handler>(db, mgr.device(), "", mgr.new_reg_map(),
                                                           module..., "test", 3, 8, clock);
            h->warm = next_warm;
            h->start();
            created.push_back(h);
            return h;
        };
        manager = std::make_shared<qsfp_device_mgr>(
            "/dev/qsfp3", db, 3, 8, std::make_shared<cage::qsfp_device>("/dev/qsfp3", timed), clock,
            daemons_factories ? qsfp_device_mgr::default_factories() : factories);
        manager->start();
        ASSERT_TRUE(clock->wait_for_sleepers(2));  // poll thread and value group
    }
    // Inserts a module and gives the manager time to identify it.
    void insert(const char* profile) {
        cage->insert(emu::module_profile::load_named(profile));
        clock->run_for(5s);
    }
    void remove() {
        cage->remove();
        clock->run_for(300ms);
    }
    std::string read(const std::string& path) { return db.lookup(path)->get_text(path); }
    // Sets a parameter or runs a command with the value `json`.
    void set(const std::string& path, const char* json) {
        rapidjson::Document value, out;
        value.Parse(json);
        const auto node = db.lookup(path);
        if (node->kind() == "command")
            node->run(path, value, out.GetAllocator(), out);
        else
            node->set(path, value);
    }
    // Lines 0..7 of the cage as a bit mask, as the emulator holds them.
    unsigned lines() {
        unsigned mask = 0;
        for (unsigned l = 0; l < 8; ++l)
            mask |= unsigned(cage->pin_get(l)) << l;
        return mask;
    }

    test::qsfpd_root root{"mgr"};
    bool next_warm = false;
    std::shared_ptr<virtual_clock> clock =
        std::make_shared<virtual_clock>(std::chrono::system_clock::time_point{} + 1000s + 500ms);
    std::shared_ptr<emu::emu_bus> bus = std::make_shared<emu::emu_bus>(clock);
    std::shared_ptr<emu::cage_emulator> cage =
        std::make_shared<emu::cage_emulator>(clock, bus, "qsfp3");
    std::shared_ptr<test::timed_cage> timed;
    dh_db db;
    std::vector<std::weak_ptr<test::plain_handler>> created;
    msg_log::log_capture log;
    std::shared_ptr<qsfp_device_mgr> manager;
};

TEST_F(Manager, InsertIdentifyServeRemove) {
    make_manager();
    EXPECT_EQ(read("alarms/transceiverMissing/severity"), "1");
    insert("qsfp28_100g_lr4");
    ASSERT_EQ(created.size(), 1u);
    auto handler = created[0].lock();
    ASSERT_TRUE(handler);
    EXPECT_EQ(read("inventory/vendor") + read("inventory/description"), R"("DELL""100G LR4")");
    EXPECT_TRUE(handler->get_flags().isFec);
    EXPECT_EQ(read("alarms/transceiverMissing/severity"), "0");
    const auto inserted = log.find("New QSFP /dev/qsfp3 inserted and initialized in ");
    ASSERT_EQ(inserted.size(), 1u);
    EXPECT_NE(inserted[0].text.find(" ms (vendor: DELL, part number: 3MFXG)."), std::string::npos);
    EXPECT_EQ(inserted[0].tag, "/dev/qsfp3/hotplug");
    // Every record of the handler names the cage in its channel.
    const auto ready = log.find("Setting dh ready");
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(ready[0].tag, "/dev/qsfp3/init");
    // A ready handler's monitoring cycle runs in every 100 ms pass.
    const int cycles = handler->cycles;
    EXPECT_GT(cycles, 0);
    clock->run_for(1s);
    EXPECT_EQ(handler->cycles - cycles, 10);

    handler.reset();
    remove();
    EXPECT_TRUE(created[0].expired());
    // A fresh device on the same cage: nothing of the removed module's state survives.
    EXPECT_EQ(manager->device()->name(), "qsfp device");
    EXPECT_EQ(manager->device()->path(), "/dev/qsfp3");
    EXPECT_EQ(db.find("inventory/vendor"), nullptr);
    EXPECT_EQ(log.count("QSFP /dev/qsfp3 removed"), 1u);
    EXPECT_EQ(read("alarms/transceiverMissing/severity"), "1");
}

TEST_F(Manager, UnknownModuleFallsBackToTheRulesAndIsConverterFollowsIt) {
    write_catalogue("{}");
    root.make_marker("zelt30");
    make_manager();
    EXPECT_EQ(read("data/isConverter"), "false");
    insert("qsa_sfpplus_10g_sr");
    EXPECT_EQ(log.count("no handler available for qsfp_passive_converter_device_handler"), 1u);
    EXPECT_EQ(read("alarms/transceiverMissing/severity") + read("data/isConverter"), "0true");
    remove();
    ASSERT_EQ(log.count("QSFP /dev/qsfp3 removed"), 1u);
    EXPECT_EQ(read("data/isConverter"), "false");  // the removed adapter is forgotten
    insert("qsfpdd_400zr");
    EXPECT_EQ(log.count("no handler available for qsfp_dd_acacia_1lane_device_handler /dev/qsfp3"),
              1u);
    remove();
    insert("qsfp28_100g_cwdm4");
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(log.count("Unsupported optical QSFP /dev/qsfp3 inserted (vendor: "), 1u);
    EXPECT_EQ(read("alarms/unsupported/severity"), "1");
    EXPECT_EQ(read("inventory/description"), R"("Unknown")");
    EXPECT_EQ(read("data/isConverter"), "false");
}

TEST_F(Manager, CommunicationFailureAlarmWithItsAsymmetricThresholds) {
    make_manager();
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    cage->fail_at(0x50, 0, 255, EIO);  // every module read fails
    clock->run_for(9500ms);            // three failed passes: 3 s wait, 30 ms, a failed read each
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "0");
    clock->run_for(4s);  // the fourth
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "1");
    EXPECT_EQ(log.count("Communication error."), 1u);
    EXPECT_EQ(manager->communication_failures(), 3);
    clock->run_for(6500ms);
    EXPECT_EQ(log.count("Communication error."), 1u);  // raised once
    EXPECT_TRUE(created.empty());

    // Three good identification reads take the counter from 3 to 0; the module's monitoring
    // cycles then count too, and the fifth good read in a row (the second cycle) clears it.
    cage->clear_faults();
    for (int pass = 0; pass < 60 && created.empty(); ++pass)
        clock->run_for(100ms);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_GE(manager->communication_failures(), -1);  // at most one cycle ran yet
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "1");
    clock->run_for(300ms);
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "0");
    EXPECT_EQ(log.count("Communication OK."), 1u);
}

// A module that stops answering after it was identified raises the alarm from its monitoring
// cycles, keeps its handler and its other alarms, and clears it when it answers again.
TEST_F(Manager, AModuleSilentAfterIdentificationRaisesAndClearsTheCommunicationAlarm) {
    make_manager(true);
    insert("qsfp28_100g_lr4");
    ASSERT_EQ(read("alarms/lossOfSignal/severity"), "0");
    cage->module()->flap(emu::lane_flag::rx_los, 0, "1", emu::flap_step::per_poll);
    clock->run_for(500ms);
    ASSERT_EQ(read("alarms/lossOfSignal/severity"), "1");

    cage->fail_next(1000000, ENXIO);  // every transfer NACKed
    clock->run_for(300ms);
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "0");
    clock->run_for(10s);
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "1");
    EXPECT_EQ(log.count("Communication error."), 1u);
    EXPECT_EQ(read("alarms/lossOfSignal/severity"), "1");  // the last known state, not a guess
    EXPECT_NE(db.find("inventory/vendor"), nullptr);       // still the same module
    EXPECT_EQ(log.count("QSFP mgr, /dev/qsfp3 exception ["), 1u);  // one line for the streak

    cage->clear_faults();
    cage->module()->stop_flaps();
    clock->run_for(400ms);  // four good cycles: 3 -> -1
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "1");
    clock->run_for(100ms);  // the fifth
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "0");
    EXPECT_EQ(log.count("Communication OK."), 1u);
    EXPECT_EQ(log.count("QSFP mgr, /dev/qsfp3 monitoring resumed after 103 failed cycles"), 1u);
}

TEST_F(Manager, RestartWhileAbsentIsDroppedAndRestartWithAModuleReinserts) {
    make_manager();
    manager->restart(true);
    EXPECT_EQ(read("data/modulePresentPin"), "false");
    clock->run_for(1s);  // the first poll is at the next whole second + 37 ms
    EXPECT_EQ(log.count("Restart request ignored - No module inserted"), 1u);
    insert("qsfp28_100g_lr4");
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(read("data/modulePresentPin"), "true");
    manager->restart(true);
    clock->run_for(5s);
    ASSERT_EQ(created.size(), 2u);
    EXPECT_TRUE(created[0].expired());
    EXPECT_FALSE(created[1].expired());
    EXPECT_EQ(log.count("Restart request ignored"), 1u);
}

TEST_F(Manager, PollsInTheCagesSlotOfTheSteadyClocksGrid) {
    // The wall clock's second starts 500 ms away from the steady clock's: the slots follow the
    // steady clock, which the cages' processes share and NTP does not step.
    clock = std::make_shared<virtual_clock>(std::chrono::system_clock::time_point{} + 1000s + 500ms,
                                            qsfpd::clock::time_point{} + 7000s + 250ms);
    bus = std::make_shared<emu::emu_bus>(clock);
    cage = std::make_shared<emu::cage_emulator>(clock, bus, "qsfp3");
    make_manager();
    clock->run_for(2s);
    std::lock_guard lock(timed->mutex);
    const auto& polls = timed->polls;
    ASSERT_GE(polls.size(), 5u);
    const auto ms = [](auto t) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    };
    for (auto t : polls)
        EXPECT_EQ(ms(t) % 100, 37);
    EXPECT_EQ(ms(polls[0]) % 1000, 37);
}

TEST_F(Manager, AModulePulledDuringIdentificationEndsTheInsertion) {
    make_manager();
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(1s);
    cage->remove();
    clock->run_for(5s);
    EXPECT_TRUE(created.empty());
    EXPECT_EQ(log.count("QSFP mgr"), 0u);
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "0");
}

TEST_F(Manager, DefaultFactoriesBuildTheOpticalHandlers) {
    write_catalogue(
        R"({"optical4LaneTransceiverList":[{"vendor":"DELL","partNumber":"3MFXG",)"
        R"("description":"100G LR4"}],"optical1or2LaneTransceiverList":[)"
        R"({"vendor":"QSFPD-EMU","partNumber":"EMU-Q28-100G-SR2","description":"SR2"}],)"
        R"("optical1LanePam4TransceiverList":[{"vendor":"QSFPD-EMU",)"
        R"("partNumber":"EMU-Q28-100G-FR1","description":"FR1"}],)"
        R"("opticalDD4LaneTransceiverList":[{"vendor":"QSFPD-EMU",)"
        R"("partNumber":"EMU-QDD-400G-FR4","description":"FR4"}]})");
    make_manager(true);
    for (const auto& [profile, expected] :
         {std::pair{"qsfp28_100g_lr4", R"("optical" 4 true 0)"},
          std::pair{"qsfp28_100g_sr2_pam4", R"("optical-2lane" 2 true 0)"},
          std::pair{"qsfp28_100g_fr1_pam4", R"("optical-1lane-pam4" 1 true 0)"},
          std::pair{"qsfpdd_400g_fr4", R"("optical" 4 true 0)"}}) {
        SCOPED_TRACE(profile);
        insert(profile);
        ASSERT_NE(db.find("dataModel"), nullptr);
        EXPECT_EQ(read("dataModel") + " " + read("data/numberOfLanes") + " " +
                      read("data/dhReady") + " " + read("alarms/lossOfSignal/severity"),
                  expected);
        remove();
        EXPECT_EQ(db.find("dataModel"), nullptr);
    }
    EXPECT_EQ(log.count("no handler available"), 0u);
}

// QSFP-DD modules the catalogue does not know: by CMIS revision and media technology.
TEST_F(Manager, CmisModulesOutsideTheCatalogueAreSelectedByRevisionAndTechnology) {
    write_catalogue("{}");
    make_manager(true);
    insert("qsfpdd_400g_dr4_innolight");  // CMIS 3.0 optics
    EXPECT_EQ(log.count("Unsupported optical QSFP-DD Acacia version: 3."), 1u);
    EXPECT_EQ(read("inventory/device_handler") + " " + read("alarms/unsupported/severity"),
              R"("qsfp_dd_optical_4lane_dh" 1)");
    remove();
    insert("qsfpdd_400g_cr8_amphenol");  // copper: media interface technology 0Ah
    EXPECT_EQ(log.count("Unsupported copper QSFP /dev/qsfp3 inserted"), 1u);
    EXPECT_EQ(read("dataModel") + " " + read("data/numberOfLanes") + " " + read("data/dhReady") +
                  " " + read("settings/txEnable"),
              R"("passive" 4 true true)");
}

// A QSA with an SFP+: the rules pick the converter, which finds the SFP in the SFP catalogue and
// serves it with the manager's cycles and admin status; pulling the QSA takes it all away.
TEST_F(Manager, AConverterServesItsSfpThroughTheDaemonsFactories) {
    root.write("etc/transceiver_sfp+.json",
               R"({"opticalTransceiverList": [{"vendor": "FINISAR CORP.", "partNumber": "FTLX",)"
               R"( "partName": "SFP+ SR", "wdm": "SR850NM"}]})");
    root.make_marker("zelt30");  // data/isConverter is a ZELT-30/40/50 node
    make_manager(true);
    set("config/adminStatus", R"("up")");
    insert("qsa_sfpplus_10g_sr");
    EXPECT_EQ(read("dataModel") + " " + read("inventory/vendor") + " " +
                  read("inventory/sfpPartName") + " " + read("data/dhReady") + " " +
                  read("data/isConverter"),
              R"("converter" "FINISAR CORP." "SFP+ SR" true true)");
    EXPECT_EQ(read("data/adminStatus") + " " + read("data/txDisablePin"), R"("up" false)");
    cage->module()->flap(emu::lane_flag::rx_los, 0, "1", emu::flap_step::per_poll);
    clock->run_for(500ms);
    EXPECT_EQ(read("alarms/lossOfSignal/severity"), "1");
    EXPECT_EQ(read("alarms/communicationFailure/severity"), "0");
    remove();
    EXPECT_EQ(db.find("data/temperature"), nullptr);
    EXPECT_EQ(db.find("data/txFaultPin"), nullptr);
}

// A status given before the module is ready is handed over once it is, and one given later goes
// straight through.
TEST_F(Manager, TheStoredAdminStatusGoesToAColdStartedModuleButNotToAWarmStartedOne) {
    // Warm, the status a client gave before the insertion, what the handler was given.
    using row = std::tuple<bool, const char*, std::vector<std::string>>;
    for (const auto& [warm, given, handed_over] :
         {row{false, nullptr, {"down"}}, row{true, nullptr, {}}, row{true, R"("down")", {"down"}},
          row{false, R"("up")", {"up"}}}) {
        SCOPED_TRACE(::testing::Message()
                     << "warm " << warm << ", given " << (given ? given : "-"));
        manager.reset();
        created.clear();
        next_warm = warm;
        make_manager();
        if (given) set("config/adminStatus", given);
        insert("qsfp28_100g_lr4");
        ASSERT_EQ(created.size(), 1u);
        auto handler = created[0].lock();
        ASSERT_TRUE(handler);
        EXPECT_EQ(handler->admin_calls, handed_over);
        set("config/adminStatus", R"("down")");
        auto expected = handed_over;
        expected.push_back("down");
        EXPECT_EQ(handler->admin_calls, expected);
        clock->run_for(1s);
        EXPECT_EQ(handler->admin_calls, expected);
        handler.reset();
        remove();
    }
}

// --- Front-panel lines ---

// The lines of a board with a front panel: the node that drives each and the one that reads it.
struct panel_line {
    const char* drive;
    const char* data;
    unsigned line;
};
constexpr std::array<panel_line, 6> panel_lines{{
    {"command/ledTxYellow", "data/ledTxYellow", cage::line::tx_led_yellow},
    {"command/ledTxGreen", "data/ledTxGreen", cage::line::tx_led_green},
    {"command/ledRxYellow", "data/ledRxYellow", cage::line::rx_led_yellow},
    {"command/ledRxGreen", "data/ledRxGreen", cage::line::rx_led_green},
    {"config/debug/lpmode", "config/debug/lpmode", cage::line::lpmode},
    {"config/debug/reset", "config/debug/reset", cage::line::reset},
}};

TEST_F(Manager, PanelNodesDriveOneLineEachAndReadThemBack) {
    root.make_marker("zelt30");
    make_manager();
    // The parameters read back only once set.
    set("config/debug/lpmode", "false");
    set("config/debug/reset", "false");
    ASSERT_EQ(lines(), 0u);
    for (const auto& l : panel_lines) {
        SCOPED_TRACE(l.drive);
        set(l.drive, "true");
        EXPECT_EQ(lines(), 1u << l.line);
        for (const auto& other : panel_lines)
            EXPECT_EQ(read(other.data), &other == &l ? "true" : "false") << other.data;
        set(l.drive, "false");
        EXPECT_EQ(lines(), 0u);
        EXPECT_EQ(read(l.data), "false");
    }
    // The values ask the cage on every read: a line changed behind the manager's back shows.
    cage->pin_set(cage::line::rx_led_green, true);
    EXPECT_EQ(read("data/ledRxGreen") + read("data/ledTxYellow"), "truefalse");
    // A module in the cage sees its reset line held by the parameter.
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    set("config/debug/reset", "true");
    EXPECT_TRUE(cage->module()->reset_held());
    set("config/debug/reset", "false");
    EXPECT_FALSE(cage->module()->reset_held());
}

TEST_F(Manager, PanelNodesExistOnlyOnBoardsWithFrontPanelLines) {
    for (const auto& [marker, has_nodes] :
         {std::pair{"", false}, std::pair{"zelt20", false}, std::pair{"zelt30", true},
          std::pair{"zelt40", true}, std::pair{"zelt50", true}}) {
        SCOPED_TRACE(marker);
        manager.reset();
        std::filesystem::remove_all(root.path() / "proc");
        if (*marker) root.make_marker(marker);
        make_manager();
        for (const auto& l : panel_lines)
            for (const char* path : {l.drive, l.data, "data/isConverter"})
                EXPECT_EQ(db.find(path) != nullptr, has_nodes) << path;
        // The manager's own nodes are there on every board.
        for (const char* path :
             {"data/modulePresentPin", "config/adminStatus", "command/interface_restart",
              "alarms/transceiverMissing/severity", "alarms/communicationFailure/severity"})
            EXPECT_NE(db.find(path), nullptr) << path;
        EXPECT_EQ(db.list().size(), has_nodes ? 16u : 5u);
    }
}

}  // namespace

#include "qsfp_device_mgr.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>

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
    std::atomic<bool> fail_cycles{false};
    void run_periodic_tasks() override {
        if (fail_cycles) throw std::runtime_error("bus stuck");
        ++cycles;
    }
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

class Manager : public ::testing::Test {
  protected:
    void SetUp() override {
        root = std::filesystem::temp_directory_path() / ("qsfpd-mgr-" + std::to_string(::getpid()));
        std::filesystem::create_directories(root / "etc");
        ::setenv("QSFPD_ROOT", root.c_str(), 1);
        write_catalogue(R"({"optical4LaneTransceiverList":[{"vendor":"DELL","partNumber":"3MFXG",)"
                        R"("description":"100G LR4","isFec":true}]})");
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    }
    void TearDown() override {
        manager.reset();
        ::unsetenv("QSFPD_ROOT");
        std::filesystem::remove_all(root);
    }
    void write_catalogue(const std::string& text) {
        std::ofstream(root / "etc" / "transceiver_qsfp.json") << text;
    }

    // A manager on cage 3 of 8, with a factory for the 4-lane class only.
    void make_manager(std::uint32_t unit = 3, std::uint32_t units = 8) {
        timed = std::make_shared<test::timed_cage>(cage, clock);
        auto device = std::make_shared<cage::qsfp_device>("/dev/qsfp3", timed);
        std::map<handler_class, qsfp_device_mgr::handler_factory> factories;
        factories[handler_class::optical_4lane] =
            [this](qsfp_device_mgr& mgr, dh_db& db, const std::string& vendor,
                   const std::string& pn, const std::string& part_name,
                   const std::string& description, const qsfp_flags_s& flags) {
                auto h = std::make_shared<test::plain_handler>(
                    db, mgr.device(), "", mgr.new_reg_map(), vendor, pn, part_name, description,
                    flags, "test", 3, 8, clock);
                h->warm = next_warm;
                h->start();
                created.push_back(h);
                return h;
            };
        manager = std::make_shared<qsfp_device_mgr>("/dev/qsfp3", db, unit, units, device, clock,
                                                    factories);
        manager->start();
        ASSERT_TRUE(clock->wait_for_sleepers(2));  // poll thread and value group
    }
    std::optional<int> alarm(const char* path) {
        auto node = db.find(path);
        if (!node) return std::nullopt;
        return std::stoi(node->get_text(path));
    }

    std::filesystem::path root;
    bool next_warm = false;
    std::shared_ptr<virtual_clock> clock =
        std::make_shared<virtual_clock>(std::chrono::system_clock::time_point{} + 1000s + 500ms);
    std::shared_ptr<emu::emu_bus> bus = std::make_shared<emu::emu_bus>(clock);
    std::shared_ptr<emu::cage_emulator> cage =
        std::make_shared<emu::cage_emulator>(clock, bus, "qsfp3");
    std::shared_ptr<test::timed_cage> timed;
    dh_db db;
    std::vector<std::weak_ptr<test::plain_handler>> created;
    std::shared_ptr<qsfp_device_mgr> manager;
    msg_log::log_capture log;
};

TEST_F(Manager, InsertIdentifyServeRemove) {
    make_manager();
    EXPECT_EQ(alarm("alarms/transceiverMissing/severity"), 1);
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(5s);
    ASSERT_EQ(created.size(), 1u);
    auto handler = created[0].lock();
    ASSERT_TRUE(handler);
    EXPECT_EQ(db.find("inventory/vendor")->get_text(""), R"("DELL")");
    EXPECT_EQ(db.find("inventory/description")->get_text(""), R"("100G LR4")");
    EXPECT_TRUE(handler->get_flags().isFec);
    EXPECT_EQ(alarm("alarms/transceiverMissing/severity"), 0);
    const auto inserted = log.find("New QSFP /dev/qsfp3 inserted and initialized in ");
    ASSERT_EQ(inserted.size(), 1u);
    EXPECT_NE(inserted[0].text.find(" ms (vendor: DELL, part number: 3MFXG)."), std::string::npos);
    EXPECT_EQ(inserted[0].tag, "/dev/qsfp3/hotplug");
    // Every record of the handler names the cage in its channel.
    const auto ready = log.find("Setting dh ready");
    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(ready[0].tag, "/dev/qsfp3/init");

    handler.reset();
    cage->remove();
    clock->run_for(300ms);
    EXPECT_TRUE(created[0].expired());
    // A fresh device on the same cage: nothing of the removed module's state survives.
    EXPECT_EQ(manager->device()->name(), "qsfp device");
    EXPECT_EQ(manager->device()->path(), "/dev/qsfp3");
    EXPECT_EQ(db.find("inventory/vendor"), nullptr);
    EXPECT_EQ(log.count("QSFP /dev/qsfp3 removed"), 1u);
    EXPECT_EQ(alarm("alarms/transceiverMissing/severity"), 1);
}

TEST_F(Manager, UnknownModuleFallsBackToTheRules) {
    write_catalogue("{}");
    make_manager();
    cage->insert(emu::module_profile::load_named("qsfpdd_400zr"));
    clock->run_for(5s);
    EXPECT_EQ(log.count("no handler available for qsfp_dd_acacia_1lane_device_handler /dev/qsfp3"),
              1u);
    cage->remove();
    clock->run_for(300ms);
    cage->insert(emu::module_profile::load_named("qsfp28_100g_cwdm4"));
    clock->run_for(5s);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(log.count("Unsupported optical QSFP /dev/qsfp3 inserted (vendor: "), 1u);
    EXPECT_EQ(alarm("alarms/unsupported/severity"), 1);
    EXPECT_EQ(db.find("inventory/description")->get_text(""), R"("Unknown")");
}

TEST_F(Manager, CommunicationFailureAlarmWithItsAsymmetricThresholds) {
    make_manager();
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    cage->fail_at(0x50, 0, 255, EIO);  // every module read fails
    clock->run_for(9500ms);            // three failed passes: 3 s wait, 30 ms, a failed read each
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 0);
    clock->run_for(4s);  // the fourth
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 1);
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
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 1);
    clock->run_for(300ms);
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 0);
    EXPECT_EQ(log.count("Communication OK."), 1u);
}

// A module that stops answering after it was identified raises the alarm from its monitoring
// cycles, keeps its handler and its other alarms, and clears it when it answers again.
TEST_F(Manager, AModuleSilentAfterIdentificationRaisesAndClearsTheCommunicationAlarm) {
    auto device = std::make_shared<cage::qsfp_device>("/dev/qsfp3", cage);
    manager = std::make_shared<qsfp_device_mgr>("/dev/qsfp3", db, 3, 8, device, clock);
    manager->start();
    ASSERT_TRUE(clock->wait_for_sleepers(2));
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(5s);
    ASSERT_EQ(alarm("alarms/lossOfSignal/severity"), 0);
    cage->module()->flap(emu::lane_flag::rx_los, 0, "1", emu::flap_step::per_poll);
    clock->run_for(500ms);
    ASSERT_EQ(alarm("alarms/lossOfSignal/severity"), 1);

    cage->fail_next(1000000, ENXIO);  // every transfer NACKed
    clock->run_for(300ms);
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 0);
    clock->run_for(10s);
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 1);
    EXPECT_EQ(log.count("Communication error."), 1u);
    EXPECT_EQ(alarm("alarms/lossOfSignal/severity"), 1);  // the last known state, not a guess
    EXPECT_NE(db.find("inventory/vendor"), nullptr);      // still the same module
    EXPECT_EQ(log.count("QSFP mgr, /dev/qsfp3 exception ["), 1u);  // one line for the streak

    cage->clear_faults();
    cage->module()->stop_flaps();
    clock->run_for(400ms);  // four good cycles: 3 -> -1
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 1);
    clock->run_for(100ms);  // the fifth
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 0);
    EXPECT_EQ(log.count("Communication OK."), 1u);
}

TEST_F(Manager, RestartWhileAbsentIsDroppedAndRestartWithAModuleReinserts) {
    make_manager();
    auto present_pin = db.find("data/modulePresentPin");
    manager->restart(true);
    EXPECT_EQ(present_pin->get_text(""), "false");
    clock->run_for(1s);  // the first poll is at the next whole second + 37 ms
    EXPECT_EQ(log.count("Restart request ignored - No module inserted"), 1u);
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(5s);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(present_pin->get_text(""), "true");
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
    make_manager(3, 8);
    clock->run_for(2s);
    std::vector<qsfpd::clock::time_point> polls;
    {
        std::lock_guard lock(timed->mutex);
        polls = timed->polls;
    }
    ASSERT_GE(polls.size(), 5u);
    for (auto t : polls)
        EXPECT_EQ(
            std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count() %
                100,
            37);
    EXPECT_EQ(
        std::chrono::duration_cast<std::chrono::milliseconds>(polls[0].time_since_epoch()).count() %
            1000,
        37);
}

TEST_F(Manager, AModulePulledDuringIdentificationEndsTheInsertion) {
    make_manager();
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(1s);
    cage->remove();
    clock->run_for(5s);
    EXPECT_TRUE(created.empty());
    EXPECT_EQ(log.count("QSFP mgr"), 0u);
    EXPECT_EQ(alarm("alarms/communicationFailure/severity"), 0);
}

TEST_F(Manager, RunsTheHandlersMonitoringCycleEveryPassOnceReady) {
    make_manager();
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(5s);
    ASSERT_EQ(created.size(), 1u);
    auto handler = created[0].lock();
    ASSERT_TRUE(handler);
    const int before = handler->cycles;
    EXPECT_GT(before, 0);
    clock->run_for(1s);
    EXPECT_EQ(handler->cycles - before, 10);  // one per 100 ms pass

    // A streak of failed cycles is reported once, and its end once.
    handler->fail_cycles = true;
    clock->run_for(1s);
    EXPECT_EQ(log.count("QSFP mgr, /dev/qsfp3 exception [bus stuck]"), 1u);
    handler->fail_cycles = false;
    clock->run_for(300ms);
    EXPECT_EQ(log.count("QSFP mgr, /dev/qsfp3 monitoring resumed after 10 failed cycles"), 1u);
    EXPECT_GT(handler->cycles, before + 10);
}

TEST_F(Manager, DefaultFactoriesBuildTheOpticalHandlers) {
    write_catalogue(
        R"({"optical4LaneTransceiverList":[{"vendor":"DELL","partNumber":"3MFXG",)"
        R"("description":"100G LR4"}],"optical1or2LaneTransceiverList":[)"
        R"({"vendor":"QSFPD-EMU","partNumber":"EMU-Q28-100G-SR2","description":"SR2"}],)"
        R"("optical1LanePam4TransceiverList":[{"vendor":"QSFPD-EMU",)"
        R"("partNumber":"EMU-Q28-100G-FR1","description":"FR1"}]})");
    auto device = std::make_shared<cage::qsfp_device>("/dev/qsfp3", cage);
    manager = std::make_shared<qsfp_device_mgr>("/dev/qsfp3", db, 3, 8, device, clock);
    manager->start();
    ASSERT_TRUE(clock->wait_for_sleepers(2));
    struct expected {
        const char* profile;
        const char* data_model;
        unsigned lanes;
    };
    for (const auto& e : {expected{"qsfp28_100g_lr4", "optical", 4},
                          expected{"qsfp28_100g_sr2_pam4", "optical-2lane", 2},
                          expected{"qsfp28_100g_fr1_pam4", "optical-1lane-pam4", 1}}) {
        SCOPED_TRACE(e.profile);
        cage->insert(emu::module_profile::load_named(e.profile));
        clock->run_for(5s);
        ASSERT_NE(db.find("dataModel"), nullptr);
        EXPECT_EQ(db.find("dataModel")->get_text(""), std::string("\"") + e.data_model + "\"");
        EXPECT_EQ(db.find("data/numberOfLanes")->get_text(""), std::to_string(e.lanes));
        EXPECT_EQ(db.find("data/dhReady")->get_text(""), "true");
        EXPECT_EQ(alarm("alarms/lossOfSignal/severity"), 0);
        cage->remove();
        clock->run_for(300ms);
        EXPECT_EQ(db.find("dataModel"), nullptr);
    }
    EXPECT_EQ(log.count("no handler available"), 0u);
}

TEST_F(Manager, TheStoredAdminStatusGoesToAColdStartedModuleButNotToAWarmStartedOne) {
    struct row {
        bool warm;
        std::optional<const char*> given;  // by a client, before the insertion
        std::vector<std::string> handed_over;
    };
    for (const auto& r : {row{false, std::nullopt, {"down"}}, row{true, std::nullopt, {}},
                          row{true, "down", {"down"}}, row{false, "up", {"up"}}}) {
        SCOPED_TRACE(::testing::Message()
                     << "warm " << r.warm << ", given " << r.given.value_or("-"));
        manager.reset();
        created.clear();
        next_warm = r.warm;
        make_manager();
        if (r.given)
            db.find("config/adminStatus")
                ->set("config/adminStatus", dh::json_value(rapidjson::StringRef(*r.given)));
        cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
        clock->run_for(5s);
        ASSERT_EQ(created.size(), 1u);
        auto handler = created[0].lock();
        ASSERT_TRUE(handler);
        EXPECT_EQ(handler->admin_calls, r.handed_over);
        cage->remove();
        clock->run_for(300ms);
    }
}

TEST_F(Manager, AdminStatusGivenBeforeReadinessIsHandedOverOnce) {
    make_manager();
    db.find("config/adminStatus")->set("config/adminStatus", dh::json_value("up"));
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(5s);
    ASSERT_EQ(created.size(), 1u);
    auto handler = created[0].lock();
    ASSERT_TRUE(handler);
    EXPECT_EQ(handler->admin_calls, (std::vector<std::string>{"up"}));
    // Once ready, a new status goes straight through.
    db.find("config/adminStatus")->set("config/adminStatus", dh::json_value("down"));
    EXPECT_EQ(handler->admin_calls, (std::vector<std::string>{"up", "down"}));
    clock->run_for(1s);
    EXPECT_EQ(handler->admin_calls.size(), 2u);
}

}  // namespace

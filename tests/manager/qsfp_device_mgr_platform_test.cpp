#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "cage_emulator.hpp"
#include "dh_json.hpp"
#include "emu_bus.hpp"
#include "log_capture.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "qsfp_device_mgr.hpp"
#include "virtual_clock.hpp"

namespace {
using namespace qsfpd;
using namespace std::chrono_literals;

// The LED lines of the front panel: the command that drives each, the value that reads it back.
struct led {
    const char* command;
    const char* data;
    unsigned line;
};
constexpr std::array<led, 4> leds{{
    {"command/ledTxYellow", "data/ledTxYellow", cage::line::tx_led_yellow},
    {"command/ledTxGreen", "data/ledTxGreen", cage::line::tx_led_green},
    {"command/ledRxYellow", "data/ledRxYellow", cage::line::rx_led_yellow},
    {"command/ledRxGreen", "data/ledRxGreen", cage::line::rx_led_green},
}};

// The debug parameters that hold the module's control lines.
struct debug_line {
    const char* path;
    unsigned line;
};
constexpr std::array<debug_line, 2> debug_lines{{
    {"config/debug/lpmode", cage::line::lpmode},
    {"config/debug/reset", cage::line::reset},
}};

// Every node the manager adds only on a board with front-panel lines.
constexpr std::array<const char*, 11> platform_nodes{
    "command/ledTxYellow", "command/ledTxGreen",  "command/ledRxYellow", "command/ledRxGreen",
    "data/ledTxYellow",    "data/ledTxGreen",     "data/ledRxYellow",    "data/ledRxGreen",
    "data/isConverter",    "config/debug/lpmode", "config/debug/reset",
};

rapidjson::Document json(const char* text) {
    rapidjson::Document doc;
    doc.Parse(text);
    return doc;
}

// A manager on cage 3 of 8 of an emulated bus, in virtual time, under a $QSFPD_ROOT of its own
// where the test decides which device-tree markers exist. No handler class is built: the nodes
// under test belong to the manager.
class ManagerPlatform : public ::testing::Test {
  protected:
    void SetUp() override {
        static int counter = 0;
        root =
            std::filesystem::temp_directory_path() /
            ("qsfpd-mgr-platform-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        std::filesystem::create_directories(root / "etc");
        ::setenv("QSFPD_ROOT", root.c_str(), 1);
        std::ofstream(root / "etc" / "transceiver_qsfp.json") << "{}";
        msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    }
    void TearDown() override {
        manager.reset();
        ::unsetenv("QSFPD_ROOT");
        std::filesystem::remove_all(root);
    }

    void make_marker(const std::string& name) {
        std::filesystem::create_directories(root / "proc" / "device-tree");
        std::ofstream(root / "proc" / "device-tree" / name).put('\n');
    }
    void make_manager() {
        auto device = std::make_shared<cage::qsfp_device>("/dev/qsfp3", cage);
        manager = std::make_shared<qsfp_device_mgr>(
            "/dev/qsfp3", db, 3, 8, device, clock,
            std::map<handler_class, qsfp_device_mgr::handler_factory>{});
        manager->start();
        ASSERT_TRUE(clock->wait_for_sleepers(2));  // poll thread and value group
    }

    void run(const char* path, bool on) {
        rapidjson::Document scratch;
        dh::json_value out;
        db.lookup(path)->run(path, json(on ? "true" : "false"), scratch.GetAllocator(), out);
    }
    void set(const char* path, bool on) { db.lookup(path)->set(path, json(on ? "true" : "false")); }
    std::string read(const char* path) { return db.lookup(path)->get_text(path); }
    // Lines 0..7 of the cage as a bit mask, as the emulator holds them.
    unsigned lines() {
        unsigned mask = 0;
        for (unsigned l = 0; l < 8; ++l)
            if (cage->pin_get(l)) mask |= 1u << l;
        return mask;
    }

    std::filesystem::path root;
    std::shared_ptr<virtual_clock> clock =
        std::make_shared<virtual_clock>(std::chrono::system_clock::time_point{} + 1000s + 500ms);
    std::shared_ptr<emu::emu_bus> bus = std::make_shared<emu::emu_bus>(clock);
    std::shared_ptr<emu::cage_emulator> cage =
        std::make_shared<emu::cage_emulator>(clock, bus, "qsfp3");
    dh_db db;
    std::shared_ptr<qsfp_device_mgr> manager;
    msg_log::log_capture log;
};

TEST_F(ManagerPlatform, LedCommandsDriveOneLineEachAndTheValuesReadThemBack) {
    make_marker("zelt30");
    make_manager();
    ASSERT_EQ(lines(), 0u);
    for (const auto& l : leds) {
        SCOPED_TRACE(l.command);
        run(l.command, true);
        EXPECT_EQ(lines(), 1u << l.line);
        for (const auto& other : leds)
            EXPECT_EQ(read(other.data), &other == &l ? "true" : "false") << other.data;
        run(l.command, false);
        EXPECT_EQ(lines(), 0u);
        EXPECT_EQ(read(l.data), "false");
    }
    // The values ask the cage on every read: a line changed behind the manager's back shows.
    cage->pin_set(cage::line::rx_led_green, true);
    EXPECT_EQ(read("data/ledRxGreen"), "true");
    EXPECT_EQ(read("data/ledTxYellow"), "false");
}

TEST_F(ManagerPlatform, DebugParametersHoldLpModeAndReset) {
    make_marker("zelt30");
    make_manager();
    for (const auto& d : debug_lines) {
        SCOPED_TRACE(d.path);
        set(d.path, true);
        EXPECT_EQ(lines(), 1u << d.line);
        EXPECT_EQ(read(d.path), "true");
        set(d.path, false);
        EXPECT_EQ(lines(), 0u);
        EXPECT_EQ(read(d.path), "false");
    }
    // A module in the cage sees its reset line held by the parameter.
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    set("config/debug/reset", true);
    EXPECT_TRUE(cage->module()->reset_held());
    set("config/debug/reset", false);
    EXPECT_FALSE(cage->module()->reset_held());
}

TEST_F(ManagerPlatform, IsConverterFollowsTheIdentifiedModule) {
    make_marker("zelt30");
    make_manager();
    EXPECT_EQ(read("data/isConverter"), "false");
    cage->insert(emu::module_profile::load_named("qsa_sfpplus_10g_sr"));
    clock->run_for(5s);
    ASSERT_EQ(read("alarms/transceiverMissing/severity"), "0");
    EXPECT_EQ(read("data/isConverter"), "true");
    cage->remove();
    clock->run_for(300ms);
    ASSERT_EQ(log.count("QSFP /dev/qsfp3 removed"), 1u);
    EXPECT_EQ(read("data/isConverter"), "false");  // the removed adapter is forgotten
    cage->insert(emu::module_profile::load_named("qsfp28_100g_lr4"));
    clock->run_for(5s);
    ASSERT_EQ(read("alarms/transceiverMissing/severity"), "0");
    EXPECT_EQ(read("data/isConverter"), "false");
}

// Which device-tree markers give the manager its front-panel nodes.
struct board {
    const char* marker;  // nullptr: no marker at all
    bool has_nodes;
};
void PrintTo(const board& b, std::ostream* os) {
    *os << (b.marker ? b.marker : "no marker");
}

class ManagerBoards : public ManagerPlatform, public ::testing::WithParamInterface<board> {};

TEST_P(ManagerBoards, PlatformNodesExistOnlyOnBoardsWithFrontPanelLines) {
    if (GetParam().marker) make_marker(GetParam().marker);
    make_manager();
    for (const char* path : platform_nodes)
        EXPECT_EQ(db.find(path) != nullptr, GetParam().has_nodes) << path;
    // The manager's own nodes are there on every board.
    for (const char* path :
         {"data/modulePresentPin", "config/adminStatus", "command/interface_restart",
          "alarms/transceiverMissing/severity", "alarms/communicationFailure/severity"})
        EXPECT_NE(db.find(path), nullptr) << path;
    EXPECT_EQ(db.list().size(), 5u + (GetParam().has_nodes ? platform_nodes.size() : 0u));
}

INSTANTIATE_TEST_SUITE_P(Markers, ManagerBoards,
                         ::testing::Values(board{nullptr, false}, board{"zelt20", false},
                                           board{"zelt30", true}, board{"zelt40", true},
                                           board{"zelt50", true}),
                         [](const auto& info) {
                             return std::string(info.param.marker ? info.param.marker : "none");
                         });

}  // namespace

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <thread>

#include "../support/temp_dir.hpp"
#include "../tools/child_process.hpp"
#include "device_handler_client.hpp"
#include "emu_service.hpp"
#include "qsfpd_options.hpp"

namespace {
using qsfpd::test::child_process;

// "device server port units unit", or what was printed when the words were refused.
std::string parsed(std::vector<const char*> args) {
    args.insert(args.begin(), "qsfpd");
    std::ostringstream out;
    const auto o = qsfpd::parse_command_line(static_cast<int>(args.size()), args.data(), out);
    if (!o) return out.str();
    return o->device_path + " " + o->server_name + " " + std::to_string(o->port) + " " +
           std::to_string(o->num_units) + " " + std::to_string(o->unit);
}

TEST(QsfpdOptions, DefaultsAndTheUnitAppendedWithoutSeparator) {
    const std::pair<std::vector<const char*>, std::string> rows[] = {
        {{}, "/dev/qsfp /tmp/device_handlers/qsfp 2500 0 99"},
        {{"-u", "0"}, "/dev/qsfp0 /tmp/device_handlers/qsfp/0 2500 0 0"},
        {{"--unit", "3", "-n", "8", "-p", "2503"},
         "/dev/qsfp3 /tmp/device_handlers/qsfp/3 2503 8 3"},
        {{"-u", "99"}, "/dev/qsfp /tmp/device_handlers/qsfp 2500 0 99"},
        {{"-d", "/dev/x", "-u", "2"}, "/dev/x2 /tmp/device_handlers/qsfp/2 2500 0 2"},
        {{"--device_path=/tmp/qsfp-emu/qsfp", "--unit=7"},
         "/tmp/qsfp-emu/qsfp7 /tmp/device_handlers/qsfp/7 2500 0 7"},
    };
    for (const auto& [args, expected] : rows)
        EXPECT_EQ(parsed(args), expected);
}

TEST(QsfpdOptions, HelpAndBadInputPrintTheDescriptionAndTheDaemonExitsOne) {
    const std::string help = parsed({"--help", "-u", "3"});
    EXPECT_EQ(help.rfind("Available options:\n", 0), 0u);
    EXPECT_NE(help.find("\n  -d [ --device_path ] arg (=/dev/qsfp) path to qsfp device file"),
              std::string::npos);
    const std::vector<std::vector<const char*>> bad_inputs{
        {"--bogus"}, {"-u", "three"}, {"-p", "-1"}, {"-u"}, {"extra"}, {"-p", "70000"}};
    for (const auto& bad : bad_inputs)
        EXPECT_EQ(parsed(bad), help);
    child_process daemon({QSFPD_BINARY, "--help", "-u", "3"});
    EXPECT_EQ(daemon.wait_exit(), 1);
    EXPECT_EQ(daemon.output(), help);
}

// A cage that is neither an emulator socket nor one of the board file: a clear line, exit 1.
TEST(QsfpdProcess, ACageThatIsNotThereEndsTheDaemonWithItsReason) {
    const qsfpd::test::temp_dir root_dir("no-cage");
    ::setenv("QSFPD_ROOT", root_dir.path().c_str(), 1);
    const std::string device = (root_dir.path() / "no-such-cage").string();
    child_process daemon({QSFPD_BINARY, "-d", device, "-u", "1", "-p", "0"});
    ::unsetenv("QSFPD_ROOT");
    EXPECT_EQ(daemon.wait_exit(), 1);
    EXPECT_NE(daemon.output().find("qsfpd: cannot serve " + device + "1: "), std::string::npos)
        << daemon.output();
}

TEST(QsfpdProcess, ServesUnderItsServerNameAndExitsZeroOnSigterm) {
    const qsfpd::test::temp_dir root_dir("process");
    const auto& root = root_dir.path();
    // An emulated bus of eight empty cages for the daemon to manage.
    qsfpd::emu::emu_service::options emu_options;
    emu_options.dir = root / "emu";
    emu_options.cages = 8;
    qsfpd::emu::emu_service emulator(emu_options);
    std::jthread emulating([&] { emulator.run(); });
    // Stops the emulator first on every way out, so that its thread can be joined.
    const std::unique_ptr<qsfpd::emu::emu_service, void (*)(qsfpd::emu::emu_service*)> stopping(
        &emulator, [](qsfpd::emu::emu_service* e) { e->stop(); });
    const std::string device = (root / "emu" / "qsfp").string();

    // The daemon alone finds its fixed paths under the private root.
    ::setenv("QSFPD_ROOT", root.c_str(), 1);
    child_process daemon({QSFPD_BINARY, "-d", device, "-u", "3", "-n", "8", "-p", "0"});
    ::unsetenv("QSFPD_ROOT");
    const auto socket = root / "tmp" / "device_handlers" / "qsfp" / "3";
    device_handler_client client(socket.string(), std::chrono::milliseconds(2000));
    bool connected = false;
    for (int i = 0; i < 500 && !connected; ++i) {  // the daemon starts in the background
        connected = client.connect();
        if (!connected) ::usleep(10000);
    }
    ASSERT_TRUE(connected);
    // The manager watches the emulated cage, which is empty; its own tests cover its nodes.
    EXPECT_FALSE(client.get("data/modulePresentPin").GetBool());
    EXPECT_EQ(client.get("alarms/transceiverMissing/severity").GetInt(), 1);
    daemon.send_signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(), 0);
    EXPECT_NE(daemon.output().find("<6> [" + device + "3/init] Device handler initialized for " +
                                   device + "3. Listening on port 0. (main.cpp:"),
              std::string::npos)
        << daemon.output();
}

}  // namespace

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <thread>

#include "../tools/child_process.hpp"
#include "device_handler_client.hpp"
#include "emu_service.hpp"
#include "qsfpd_options.hpp"

namespace {

std::optional<qsfpd::daemon_options> parse(std::vector<const char*> args,
                                           std::string* printed = nullptr) {
    args.insert(args.begin(), "qsfpd");
    std::ostringstream out;
    auto result = qsfpd::parse_command_line(static_cast<int>(args.size()), args.data(), out);
    if (printed) *printed = out.str();
    return result;
}

TEST(QsfpdOptions, DefaultsAndTheUnitAppendedWithoutSeparator) {
    struct row {
        std::vector<const char*> args;
        const char* device;
        const char* server;
        unsigned port;
    };
    const row rows[] = {
        {{}, "/dev/qsfp", "/tmp/device_handlers/qsfp", 2500},
        {{"-u", "0"}, "/dev/qsfp0", "/tmp/device_handlers/qsfp/0", 2500},
        {{"--unit", "3", "-n", "8", "-p", "2503"},
         "/dev/qsfp3",
         "/tmp/device_handlers/qsfp/3",
         2503},
        {{"-u", "99"}, "/dev/qsfp", "/tmp/device_handlers/qsfp", 2500},
        {{"-d", "/dev/x", "-u", "2"}, "/dev/x2", "/tmp/device_handlers/qsfp/2", 2500},
        {{"--device_path=/tmp/qsfp-emu/qsfp", "--unit=7"},
         "/tmp/qsfp-emu/qsfp7",
         "/tmp/device_handlers/qsfp/7",
         2500},
    };
    for (const auto& r : rows) {
        auto o = parse(r.args);
        ASSERT_TRUE(o) << r.device;
        EXPECT_EQ(o->device_path, r.device);
        EXPECT_EQ(o->server_name, r.server);
        EXPECT_EQ(o->port, r.port);
    }
    EXPECT_EQ(parse({})->num_units, 0u);
    EXPECT_EQ(parse({})->unit, 99u);
}

TEST(QsfpdOptions, HelpAndBadInputPrintTheDescription) {
    std::string help;
    EXPECT_FALSE(parse({"--help", "-u", "3"}, &help));
    EXPECT_EQ(help.rfind("Available options:\n", 0), 0u);
    EXPECT_NE(help.find("  --help                                Print help message\n"),
              std::string::npos);
    EXPECT_NE(help.find("-d [ --device_path ] arg (=/dev/qsfp) path to qsfp device file"),
              std::string::npos);
    EXPECT_EQ(help.back(), '\n');
    for (std::vector<const char*> bad : {std::vector<const char*>{"--bogus"},
                                         {"-u", "three"},
                                         {"-p", "-1"},
                                         {"-u"},
                                         {"extra"},
                                         {"-p", "70000"}}) {
        std::string printed;
        EXPECT_FALSE(parse(bad, &printed));
        EXPECT_EQ(printed, help);
    }
}

using qsfpd::test::child_process;

// Runs the real daemon binary with its fixed paths under a private root.
class QsfpdProcess : public ::testing::Test {
  protected:
    QsfpdProcess() { ::setenv("QSFPD_ROOT", root.c_str(), 1); }
    ~QsfpdProcess() override {
        ::unsetenv("QSFPD_ROOT");
        std::filesystem::remove_all(root);
    }

    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("qsfpd-process-" + std::to_string(::getpid()));
};

TEST_F(QsfpdProcess, HelpExitsWithStatusOne) {
    child_process daemon({QSFPD_BINARY, "--help", "-u", "3"});
    EXPECT_EQ(daemon.wait_exit(), 1);
    EXPECT_EQ(daemon.output().rfind("Available options:\n", 0), 0u);
}

TEST_F(QsfpdProcess, ServesUnderItsServerNameAndExitsZeroOnSigterm) {
    // An emulated bus of eight empty cages for the daemon to manage.
    qsfpd::emu::emu_service::options emu_options;
    emu_options.dir = root / "emu";
    emu_options.cages = 8;
    qsfpd::emu::emu_service emulator(emu_options);
    std::thread emulating([&] { emulator.run(); });
    const std::string device = (root / "emu" / "qsfp").string();

    child_process daemon({QSFPD_BINARY, "-d", device, "-u", "3", "-n", "8", "-p", "0"});
    const auto socket = root / "tmp" / "device_handlers" / "qsfp" / "3";
    device_handler_client client(socket.string(), std::chrono::milliseconds(2000));
    bool connected = false;
    for (int i = 0; i < 500 && !connected; ++i) {  // the daemon starts in the background
        connected = client.connect();
        if (!connected) ::usleep(10000);
    }
    ASSERT_TRUE(connected);
    EXPECT_TRUE(client.list().IsArray());
    // The manager's own nodes, for a cage with nothing in it.
    EXPECT_EQ(std::string(client.get("config/adminStatus").GetString()), "down");
    EXPECT_FALSE(client.get("data/modulePresentPin").GetBool());
    EXPECT_EQ(client.get("alarms/transceiverMissing/severity").GetInt(), 1);
    EXPECT_EQ(client.get("alarms/communicationFailure/severity").GetInt(), 0);
    daemon.send_signal(SIGTERM);
    EXPECT_EQ(daemon.wait_exit(), 0);
    EXPECT_NE(daemon.output().find("<6> [" + device + "3/init] Device handler initialized for " +
                                   device + "3. Listening on port 0. (main.cpp:"),
              std::string::npos)
        << daemon.output();
    emulator.stop();
    emulating.join();
}

}  // namespace

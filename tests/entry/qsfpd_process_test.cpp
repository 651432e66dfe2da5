#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "device_handler_client.hpp"
#include "emu_service.hpp"

extern char** environ;

namespace {

// Runs the real daemon binary with its fixed paths under a private root.
class QsfpdProcess : public ::testing::Test {
  protected:
    void SetUp() override {
        root = std::filesystem::temp_directory_path() /
               ("qsfpd-process-" + std::to_string(::getpid()));
        std::filesystem::create_directories(root);
        log_path = root / "stderr.log";
    }
    void TearDown() override {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        std::filesystem::remove_all(root);
    }

    void spawn(std::vector<std::string> args) {
        args.insert(args.begin(), QSFPD_BINARY);
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<std::string> env_strings{"QSFPD_ROOT=" + root.string()};
        for (char** e = environ; *e; ++e)
            if (std::string_view(*e).rfind("QSFPD_ROOT=", 0) != 0) env_strings.emplace_back(*e);
        std::vector<char*> envp;
        for (auto& e : env_strings)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, (root / "stdout.log").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, log_path.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_EQ(posix_spawn(&pid, QSFPD_BINARY, &actions, nullptr, argv.data(), envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
    }
    int wait_exit() {
        int status = 0;
        ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string read_file(const std::filesystem::path& p) {
        std::ifstream in(p);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    std::filesystem::path root;
    std::filesystem::path log_path;
    pid_t pid = -1;
};

TEST_F(QsfpdProcess, HelpExitsWithStatusOne) {
    spawn({"--help", "-u", "3"});
    EXPECT_EQ(wait_exit(), 1);
    EXPECT_EQ(read_file(root / "stdout.log").rfind("Available options:\n", 0), 0u);
}

TEST_F(QsfpdProcess, ServesUnderItsServerNameAndExitsZeroOnSigterm) {
    // An emulated bus of eight empty cages for the daemon to manage.
    qsfpd::emu::emu_service::options emu_options;
    emu_options.dir = root / "emu";
    emu_options.cages = 8;
    qsfpd::emu::emu_service emulator(emu_options);
    std::thread emulating([&] { emulator.run(); });
    const std::string device = (root / "emu" / "qsfp").string();

    spawn({"-d", device, "-u", "3", "-n", "8", "-p", "0"});
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
    ASSERT_EQ(::kill(pid, SIGTERM), 0);
    EXPECT_EQ(wait_exit(), 0);
    const auto log = read_file(log_path);
    EXPECT_NE(log.find("<6> [" + device + "3/init] Device handler initialized for " + device +
                       "3. Listening on port 0. (main.cpp:"),
              std::string::npos)
        << log;
    emulator.stop();
    emulating.join();
}

}  // namespace

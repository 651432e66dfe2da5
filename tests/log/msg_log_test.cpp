#include "msg_log.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "syslog_sink.hpp"

namespace {

TEST(MsgLog, RecordsCarrySeverityTagTextAndTrace) {
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    msg_log::log_capture capture;
    const int line = __LINE__ + 1;
    MSG_LOG(msg_log::info, "/dev/qsfp3/init") << "Device handler initialized for "
                                              << "/dev/qsfp3"
                                              << ".";
    MSG_LOG(msg_log::error, "/dev/qsfp3/hotplug") << "Communication error.";
    auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].severity, 6);
    EXPECT_EQ(records[0].tag, "/dev/qsfp3/init");
    EXPECT_EQ(records[0].text, "Device handler initialized for /dev/qsfp3. (msg_log_test.cpp:" +
                                   std::to_string(line) + ")");
    EXPECT_EQ(records[1].severity, 3);
    EXPECT_EQ(records[1].tag, "/dev/qsfp3/hotplug");
    EXPECT_EQ(capture.count("Communication error."), 1u);
}

TEST(MsgLog, CodeTraceIsTheFileNameAndLine) {
    EXPECT_EQ(msg_log::getCodeTrace("/work/src/qsfp_device_mgr.cpp", 120),
              " (qsfp_device_mgr.cpp:120)");
    EXPECT_EQ(msg_log::getCodeTrace("main.cpp", 7), " (main.cpp:7)");
}

// Each record keeps the tag it was opened with while other threads log on other channels.
TEST(MsgLog, ConcurrentRecordsOnDifferentChannelsKeepTheirOwnTags) {
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    msg_log::log_capture capture;
    constexpr int threads = 4, records_per_thread = 500;
    std::vector<std::thread> writers;
    for (int t = 0; t < threads; ++t)
        writers.emplace_back([t] {
            const std::string tag = "/dev/qsfp" + std::to_string(t) + "/init";
            for (int i = 0; i < records_per_thread; ++i)
                MSG_LOG(msg_log::info, tag) << "from " << tag << " #" << i;
        });
    for (auto& w : writers)
        w.join();
    const auto records = capture.records();
    ASSERT_EQ(records.size(), std::size_t{threads * records_per_thread});
    for (const auto& r : records)
        ASSERT_TRUE(r.text.starts_with("from " + r.tag + " #")) << r.text;
}

TEST(MsgLog, SeveritiesAboveTheLimitAreDroppedBySinks) {
    msg_log::init({.max_severity = msg_log::info, .to_stderr = false, .to_syslog = false});
    msg_log::log_capture capture;  // captures everything the core lets through
    MSG_LOG(msg_log::debug, "t") << "debug detail";
    MSG_LOG(msg_log::warning, "t") << "warned";
    EXPECT_EQ(capture.count("warned"), 1u);
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
}

TEST(MsgLog, SyslogDatagramsGoToTheDevLogSocketUnderTheRoot) {
    const auto root =
        std::filesystem::temp_directory_path() / ("qsfpd-log-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root / "dev");
    const std::string socket_path = (root / "dev" / "log").string();
    int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, socket_path.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    ::setenv("QSFPD_ROOT", root.c_str(), 1);
    msg_log::init(
        {.max_severity = msg_log::info, .to_stderr = false, .to_syslog = true, .ident = "qsfpd"});
    MSG_LOG(msg_log::warning, "/dev/qsfp") << "TX fault";
    ::unsetenv("QSFPD_ROOT");

    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(::poll(&p, 1, 5000), 1);
    char buffer[512] = {};
    const auto n = ::recv(fd, buffer, sizeof buffer - 1, 0);
    ASSERT_GT(n, 0);
    const std::string datagram(buffer, static_cast<std::size_t>(n));
    // Facility daemon (3) * 8 + severity 4.
    EXPECT_EQ(
        datagram.rfind("<28>qsfpd[" + std::to_string(::getpid()) + "]: [/dev/qsfp] TX fault (", 0),
        0u)
        << datagram;
    ::close(fd);
    msg_log::init({.max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false});
    std::filesystem::remove_all(root);
}

}  // namespace

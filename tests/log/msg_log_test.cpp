#include "msg_log.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "../support/temp_dir.hpp"
#include "log_capture.hpp"

namespace {

// Everything to the capture alone.
const msg_log::init_options quiet{
    .max_severity = msg_log::debug, .to_stderr = false, .to_syslog = false};

TEST(MsgLog, RecordsCarrySeverityTagTextAndTheCallSite) {
    msg_log::init(quiet);
    msg_log::log_capture capture;
    const int line = __LINE__ + 1;
    MSG_LOG(msg_log::info, "/dev/qsfp3/init") << "Device handler initialized for " << 3 << ".";
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].severity, 6);
    EXPECT_EQ(records[0].tag, "/dev/qsfp3/init");
    EXPECT_EQ(records[0].text,
              "Device handler initialized for 3. (msg_log_test.cpp:" + std::to_string(line) + ")");
}

// Each record keeps the tag it was opened with while other threads log on other channels.
TEST(MsgLog, ConcurrentRecordsOnDifferentChannelsKeepTheirOwnTags) {
    msg_log::init(quiet);
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

TEST(MsgLog, SyslogGetsDatagramsUpToTheLimitOnTheDevLogSocketUnderTheRoot) {
    const qsfpd::test::temp_dir root("log");
    std::filesystem::create_directories(root.path() / "dev");
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, (root.path() / "dev" / "log").c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    ::setenv("QSFPD_ROOT", root.path().c_str(), 1);
    msg_log::init(
        {.max_severity = msg_log::info, .to_stderr = false, .to_syslog = true, .ident = "qsfpd"});
    ::unsetenv("QSFPD_ROOT");
    MSG_LOG(msg_log::debug, "/dev/qsfp") << "debug detail";
    MSG_LOG(msg_log::warning, "/dev/qsfp") << "TX fault";
    msg_log::init(quiet);

    pollfd p{fd, POLLIN, 0};
    char buffer[512] = {};
    const auto n = ::poll(&p, 1, 5000) == 1 ? ::recv(fd, buffer, sizeof buffer, 0) : 0;
    ::close(fd);
    // Facility daemon (3) * 8 + severity 4; the debug record above the limit is not sent.
    const std::string datagram(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
    EXPECT_EQ(
        datagram.rfind("<28>qsfpd[" + std::to_string(::getpid()) + "]: [/dev/qsfp] TX fault (", 0),
        0u)
        << datagram;
}

}  // namespace

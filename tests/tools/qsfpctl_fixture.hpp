#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ctl_test_owner.hpp"
#include "ctl_test_server.hpp"
#include "dh/api/value_nodes.hpp"
#include "run_qsfpctl.hpp"

namespace qsfpctl::test {

struct ctl_result {
    int status;
    std::string out;
    std::string err;
};

// qsfpctl with exactly these words, its output captured.
inline ctl_result run_ctl(const std::vector<std::string>& args,
                          const watch_controls& controls = {}) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = run_qsfpctl(args, out, err, controls);
    return {status, out.str(), err.str()};
}

// A TCP port on the loopback that nobody listens on: taken from the kernel, then let go.
inline unsigned short unused_tcp_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0) throw std::runtime_error("no socket");
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    ::close(fd);
    if (!bound) throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

// A server publishing one node of each kind qsfpctl meets, plus the means to run qsfpctl
// against it over TCP or the Unix socket.
class QsfpctlTest : public ::testing::Test {
  protected:
    QsfpctlTest()
        : socket_dir_(
              std::filesystem::temp_directory_path() /
              ("qsfpctl-test-" + std::to_string(::getpid()) + "-" + std::to_string(++instances_))),
          socket_path_((socket_dir_ / "qsfp" / "3").string()),
          server_(socket_path_) {
        using namespace dh::api;
        auto& db = server_.db();
        nodes_.push_back(volatile_value<&ctl_test_owner::get_temperature>::create(
            db, "data/temperature", owner_));
        nodes_.push_back(
            volatile_value<&ctl_test_owner::get_tx_bias>::create(db, "data/txBias", owner_));
        admin_ = config_param<&ctl_test_owner::set_admin>::create(
            db, "config/adminStatus", owner_, std::vector<std::string>{"up", "down", "testing"});
        admin_->set_value("down");
        nodes_.push_back(admin_);
        auto level = config_param<&ctl_test_owner::set_level>::create(
            db, "config/level", owner_, min_max_range_t<std::int32_t>{0, 10});
        level->set_value(3);
        nodes_.push_back(level);
        nodes_.push_back(
            const_value<std::string>::create(db, "inventory/vendor", owner_, "Acme Optics"));
        counter_ = status_value<std::int32_t>::create(db, "status/counter", owner_, 0);
        nodes_.push_back(counter_);
        nodes_.push_back(status_value<bool>::create(db, "status/moduleReady", owner_));
        nodes_.push_back(command<&ctl_test_owner::restart>::create(db, "commands/restart", owner_));
        nodes_.push_back(
            command<&ctl_test_owner::clear_counters>::create(db, "commands/clearCounters", owner_));
    }
    ~QsfpctlTest() override {
        server_.shutdown();
        std::error_code ignored;
        std::filesystem::remove_all(socket_dir_, ignored);
    }

    // qsfpctl over TCP to this server.
    ctl_result ctl(std::vector<std::string> args, const watch_controls& controls = {}) {
        args.insert(args.begin(), {"-p", std::to_string(server_.port())});
        return run_ctl(args, controls);
    }

    inline static int instances_ = 0;
    std::filesystem::path socket_dir_;
    std::string socket_path_;
    std::shared_ptr<ctl_test_owner> owner_ = std::make_shared<ctl_test_owner>();
    ctl_test_server server_;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes_;
    std::shared_ptr<dh::api::config_param<&ctl_test_owner::set_admin>> admin_;
    std::shared_ptr<dh::api::status_value<std::int32_t>> counter_;
};

}  // namespace qsfpctl::test

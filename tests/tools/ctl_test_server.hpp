#pragma once

#include <memory>
#include <string>
#include <thread>

#include "device_handler_api.hpp"

namespace qsfpctl::test {

// A real server on a free TCP port (and on a Unix socket when given a path), served on its own
// thread for the lifetime of the object.
class ctl_test_server {
  public:
    explicit ctl_test_server(std::string socket_path = {})
        : api_(std::make_unique<device_handler_api>(std::move(socket_path), 0, false,
                                                    device_handler_api::limits{}, false)),
          port_(api_->tcp_port()),
          thread_([api = api_.get()] { api->start(); }) {}
    ~ctl_test_server() { shutdown(); }
    ctl_test_server(const ctl_test_server&) = delete;
    ctl_test_server& operator=(const ctl_test_server&) = delete;

    unsigned short port() const { return port_; }
    dh_db& db() { return api_->get_db(); }

    // Stops serving and destroys the server, which drops every client connection.
    void shutdown() {
        if (!api_) return;
        api_->stop();
        if (thread_.joinable()) thread_.join();
        api_.reset();
    }

  private:
    std::unique_ptr<device_handler_api> api_;
    unsigned short port_;
    std::thread thread_;
};

}  // namespace qsfpctl::test

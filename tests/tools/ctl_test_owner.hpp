#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace qsfpctl::test {

// A stand-in handler whose members back the nodes the tests publish. Setters run on the
// server's workers while the test thread reads the results, hence the lock.
class ctl_test_owner {
  public:
    double get_temperature() { return 21.5; }
    double get_tx_bias() { throw std::runtime_error("bus gone"); }

    // "testing" passes the node's allowed-values check but the handler turns it down.
    bool set_admin(const std::string& value) {
        std::lock_guard lock(mutex_);
        if (value == "testing") return false;
        admin_ = value;
        return true;
    }
    void set_level(const std::int32_t& value) {
        std::lock_guard lock(mutex_);
        level_ = value;
    }
    std::string restart(const bool& hard) {
        std::lock_guard lock(mutex_);
        last_action_ = hard ? "hard restart" : "soft restart";
        return "restarted " + std::string(hard ? "hard" : "soft");
    }
    void clear_counters() {
        std::lock_guard lock(mutex_);
        last_action_ = "counters cleared";
    }

    std::string admin() const {
        std::lock_guard lock(mutex_);
        return admin_;
    }
    std::int32_t level() const {
        std::lock_guard lock(mutex_);
        return level_;
    }
    std::string last_action() const {
        std::lock_guard lock(mutex_);
        return last_action_;
    }

  private:
    mutable std::mutex mutex_;
    std::string admin_;
    std::int32_t level_ = -1;
    std::string last_action_;
};

}  // namespace qsfpctl::test

#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "dh/api/value_nodes.hpp"
#include "dh_session.hpp"

namespace qsfpd::test {

// Runs `f`, which must throw a dh_error with this code and (unless empty) this text.
template <class F>
void expect_error(F&& f, int code, const std::string& text = {}) {
    try {
        f();
        ADD_FAILURE() << "no error thrown, expected " << code << " " << text;
    } catch (const dh_error& e) {
        EXPECT_EQ(e.code(), code) << e.text();
        EXPECT_TRUE(text.empty() || e.text() == text) << e.text() << " instead of " << text;
    }
}

// A stand-in for a handler: getters and setters of every shape the node kinds bind to.
struct test_owner : std::enable_shared_from_this<test_owner> {
    std::atomic<double> temperature{21.5};
    std::atomic<int> temperature_reads{0};
    std::string admin = "unset";
    int level = 0;
    std::map<unsigned, bool> lane_enabled;
    std::string last_restart;

    double get_temperature() {
        ++temperature_reads;
        return temperature;
    }
    std::uint32_t get_lane_bias(unsigned lane) { return lane * 10; }
    std::string get_runtime_failure() { throw std::runtime_error("bus gone"); }
    int get_system_failure() { throw std::system_error(ENXIO, std::generic_category(), "read"); }
    int get_logic_failure() { throw std::logic_error("bad state"); }
    int get_other_failure() { throw std::bad_alloc(); }
    int get_unknown_failure() { throw 42; }
    int get_dh_failure() { throw dh_error(-5, "Module unplugged "); }

    bool set_admin(const std::string& value) {
        admin = value;
        return value != "refuse";
    }
    void set_level(const std::int32_t& value) { level = value; }
    void set_ratio(double) {}
    void set_lane_enable(unsigned lane, bool value) { lane_enabled[lane] = value; }
    std::string restart(const bool& hard) {
        last_restart = hard ? "hard" : "soft";
        return "restarted " + last_restart;
    }
    void clear_counters() { last_restart = "cleared"; }
};

// A session that keeps every line delivered to it.
class recording_session : public dh_session {
  public:
    void deliver(std::shared_ptr<const std::string> line) override {
        std::lock_guard lock(mutex_);
        lines_.push_back(*line);
        arrived_.notify_all();
    }
    // Waits (bounded) for work done on other threads to deliver `count` lines.
    bool wait_for_lines(std::size_t count) {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, std::chrono::seconds(5),
                                 [&] { return lines_.size() >= count; });
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> lines_;
};

}  // namespace qsfpd::test

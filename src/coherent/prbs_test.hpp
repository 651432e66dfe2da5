#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "clock.hpp"
#include "dh/api/value_nodes.hpp"
#include "qsfp_reg_map.hpp"

// The PRBS test of a coherent module: the module's own generator and checker run the pattern; this
// starts and stops them, polls their counters every 3 s on a thread of its own and publishes the
// result. The commands run under the handler's lock (passed in); the poll thread takes it only
// around its module accesses, and its sleeps end at once when the test stops or the handler goes.
class prbs_test {
  public:
    static constexpr std::chrono::seconds poll_period{3};
    static constexpr std::chrono::seconds retry_period{5};
    static constexpr const char* default_pattern = "PRBS31";

    using module_lock = std::unique_lock<std::recursive_mutex>;

    prbs_test(std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
              std::function<module_lock()> lock_module, std::shared_ptr<qsfpd::clock> clock,
              unsigned lanes);
    ~prbs_test();
    prbs_test(const prbs_test&) = delete;
    prbs_test& operator=(const prbs_test&) = delete;

    void attach(std::shared_ptr<dh::api::status_value<int>> alarm) { alarm_ = std::move(alarm); }

    void start(bool start);
    void reset(bool reset);
    void set_pattern(const std::string& pattern);
    void set_time(unsigned seconds) { set_time_ = seconds; }
    dh::api::json_object info();
    bool running() const { return started_; }

  private:
    void poll(std::stop_token stop);
    // Ends the poll thread; never called with the module lock held (the thread may wait for it).
    void stop_thread();
    void publish_alarm(bool raised);
    void zero_counters();

    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map_;
    std::function<module_lock()> lock_module_;
    std::shared_ptr<qsfpd::clock> clock_;
    unsigned lanes_;
    std::shared_ptr<dh::api::status_value<int>> alarm_;

    std::atomic<bool> started_{false};
    std::atomic<unsigned> set_time_{0};
    std::atomic<unsigned> elapsed_time_{0};
    std::string pattern_ = default_pattern;
    // Filled by the poll thread, read by info(); guarded by counters_mutex_.
    std::mutex counters_mutex_;
    std::array<std::uint64_t, 8> errors_{};
    std::array<std::uint64_t, 8> bits_{};
    std::uint8_t lock_lost_ = 0;
    std::jthread thread_;
};

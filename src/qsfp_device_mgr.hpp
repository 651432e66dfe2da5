#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "clock.hpp"
#include "dh/api/value_nodes.hpp"
#include "dh_db.hpp"
#include "handler_selection.hpp"
#include "qsfp_device.hpp"
#include "qsfp_device_handler.hpp"
#include "qsfp_reg_map.hpp"
#include "transceiver_catalogue.hpp"

// One cage: polls presence on its bus slot, identifies an inserted module, creates, starts and
// destroys its handler, and tracks communication failures. The polling thread is the only
// thread that creates or removes handlers and replaces the cage device.
class qsfp_device_mgr : public std::enable_shared_from_this<qsfp_device_mgr> {
  public:
    // Builds and starts the handler of one class for an identified module.
    using handler_factory = std::function<std::shared_ptr<qsfp_device_handler>(
        qsfp_device_mgr& manager, dh_db& db, const std::string& vendor,
        const std::string& part_number, const std::string& part_name,
        const std::string& description, const qsfp_device_handler::qsfp_flags_s& flags)>;

    struct timing {
        std::chrono::milliseconds poll_period{100};
        std::chrono::milliseconds insertion_wait{3000};  // after releasing reset
        std::chrono::milliseconds identification_gap{30};
        unsigned identification_reads = 3;
    };

    qsfp_device_mgr(std::string device_path, dh_db& db, std::uint32_t unit,
                    std::uint32_t num_units);
    // For tests and the emulator: an existing cage device and an injected clock.
    qsfp_device_mgr(
        std::string device_path, dh_db& db, std::uint32_t unit, std::uint32_t num_units,
        std::shared_ptr<qsfpd::cage::qsfp_device> device, std::shared_ptr<qsfpd::clock> clock,
        std::map<qsfpd::handler_class, handler_factory> factories = default_factories());
    ~qsfp_device_mgr();
    qsfp_device_mgr(const qsfp_device_mgr&) = delete;
    qsfp_device_mgr& operator=(const qsfp_device_mgr&) = delete;

    // Registers the manager's own nodes.
    void start();

    // The handler classes built so far; each handler's issue wires its factory in here.
    static std::map<qsfpd::handler_class, handler_factory> default_factories();

    // Node callbacks.
    bool get_module_present_pin();
    bool set_port_admin_status(const std::string& status);
    bool restart(const bool& unused);
    bool set_led_tx_yellow(const bool& on) {
        return set_line(qsfpd::cage::line::tx_led_yellow, on);
    }
    bool set_led_tx_green(const bool& on) { return set_line(qsfpd::cage::line::tx_led_green, on); }
    bool set_led_rx_yellow(const bool& on) {
        return set_line(qsfpd::cage::line::rx_led_yellow, on);
    }
    bool set_led_rx_green(const bool& on) { return set_line(qsfpd::cage::line::rx_led_green, on); }
    bool get_led_tx_yellow() { return get_line(qsfpd::cage::line::tx_led_yellow); }
    bool get_led_tx_green() { return get_line(qsfpd::cage::line::tx_led_green); }
    bool get_led_rx_yellow() { return get_line(qsfpd::cage::line::rx_led_yellow); }
    bool get_led_rx_green() { return get_line(qsfpd::cage::line::rx_led_green); }
    bool is_converter();
    bool set_lpmode(const bool& on) { return set_line(qsfpd::cage::line::lpmode, on); }
    bool set_reset(const bool& on) { return set_line(qsfpd::cage::line::reset, on); }

    // The catalogue.
    void generate_probe_function();
    static qsfpd::probe_map::const_iterator find_in_map(const qsfpd::probe_map& map,
                                                        const std::string& vendor,
                                                        const std::string& part_number);

    std::shared_ptr<qsfp_device_handler> current_handler();
    std::shared_ptr<qsfpd::cage::qsfp_device> device();
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> new_reg_map();
    int communication_failures() const { return comm_fail_counter_; }
    const std::string& device_path() const { return device_path_; }
    std::uint32_t unit() const { return unit_; }
    std::uint32_t num_units() const { return num_units_; }
    const std::shared_ptr<qsfpd::clock>& clock() const { return clock_; }
    void set_timing(timing t) { timing_ = t; }

  private:
    void poll_func(std::stop_token stop);
    void poll_once(std::stop_token stop);
    void insert_module(std::stop_token stop);
    void create_handler(const std::string& vendor, const std::string& part_number,
                        qsfpd::clock::time_point since);
    void handler_for_class(qsfpd::handler_class cls, const std::string& vendor,
                           const std::string& part_number, const std::string& description,
                           const qsfp_device_handler::qsfp_flags_s& flags);
    // The module is identified (whether or not a handler class exists for it).
    void mark_handled();
    void remove_module();
    // Asserts the cage's LPMode line: the next module starts in low power, as a QSFP-DD's own
    // pull-up on that line would hold it, so that a module found running by a handler is one an
    // earlier run of the daemon set up (a warm start), never a freshly inserted one.
    void park_low_power();
    void hand_over_admin_status();
    // One monitoring cycle of a ready handler, in this cage's bus slot.
    void run_handler_cycle();
    // Counts one identification read or monitoring cycle toward the communication-failure alarm.
    void count_read(bool ok);
    // Counts a failed monitoring cycle; rethrows the exception being handled when it starts a
    // streak, so that the pass reports it once.
    void monitoring_failed();
    bool set_line(unsigned line, bool on);
    bool get_line(unsigned line);

    std::string device_path_;
    std::string hotplug_tag_;
    dh_db& db_;
    std::uint32_t unit_;
    std::uint32_t num_units_;
    std::shared_ptr<qsfpd::clock> clock_;
    timing timing_;
    std::map<qsfpd::handler_class, handler_factory> factories_;

    mutable std::mutex mutex_;  // handler, device, admin status
    std::shared_ptr<qsfpd::cage::qsfp_device> device_;
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map_;
    std::shared_ptr<qsfp_device_handler> handler_;
    bool module_handled_ = false;  // identified: with a handler, or with none available
    bool admin_handed_over_ = false;
    // LPMode asserted for the empty cage (see park_low_power()).
    bool low_power_parked_ = false;
    std::optional<bool> admin_up_;  // the status last given by a client
    std::optional<std::string> presence_;

    std::unique_ptr<dh::api::value_group> group_;
    std::shared_ptr<dh::api::status_value<int>> comm_failure_alarm_;
    std::shared_ptr<dh::api::status_value<int>> missing_alarm_;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes_;
    std::atomic<int> comm_fail_counter_{0};
    std::atomic<bool> restart_requested_{false};
    unsigned failed_cycles_ = 0;  // consecutive failed monitoring cycles (poll thread only)
    qsfpd::probe_map probe_map_;
    std::jthread thread_;
};

#pragma once

#include <chrono>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "optical_alarms.hpp"
#include "qsfp_dd_device_handler.hpp"

// A non-coherent CMIS optical module (400G DR4, FR4): the monitors, alarms and settings of the
// SFF-8636 optical handler, in the same vocabulary, on top of the CMIS application machinery.
class qsfp_dd_optical_4lane_device_handler : public qsfp_dd_device_handler {
  public:
    using threshold = qsfpd::cage::threshold;
    // A monitor snapshot serves the polled values for one cycle plus slack (see the SFF-8636
    // optical handler).
    static constexpr std::chrono::milliseconds snapshot_lifetime{150};
    // ModuleFaultCause: the module shut itself down on temperature.
    static constexpr std::uint8_t fault_cause_temperature = 6;

    qsfp_dd_optical_4lane_device_handler(
        dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
        std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor,
        std::string part_number, std::string part_name, std::string description, qsfp_flags_s flags,
        unsigned unit, unsigned num_units,
        std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());
    ~qsfp_dd_optical_4lane_device_handler() override;

    void start();
    void run_periodic_tasks() override;
    std::string get_port_admin_status() override;
    bool is_warm_started() const override { return warm_started_; }

    bool set_restart(const bool& restart);
    void set_tx_enable_setting(bool enable);
    bool get_tx_enable();
    std::string get_application();
    void set_application(std::string name);
    std::string get_module_state();
    std::string get_fixed_laser_wavelength();

    double get_trx_temperature();
    double get_trx_temperature_margin();
    double get_rx_signal_power();
    double get_total_rx_power();
    double get_total_tx_power();
    double get_channel_rx_power(unsigned lane);
    double get_channel_actual_tx_power(unsigned lane);
    double get_channel_tx_bias(unsigned lane);
    bool get_channel_tx_fault(unsigned lane);
    bool get_channel_los(unsigned lane);
    bool get_channel_lol(unsigned lane);
    double get_threshold_value(unsigned which);

    // The debug group: registers as they are, bypassing the cycle's snapshot.
    int get_any_temperature_register();
    unsigned get_any_power_register(unsigned lane, bool rx);
    unsigned get_any_bias_register(unsigned lane);

  protected:
    void _set_port_admin_status(bool up) override;

  private:
    void warm_or_cold_start();
    const qsfpd::cage::cmis_flags_and_monitors& cycle_snapshot();
    double total_power(bool rx);
    void check_lane(unsigned lane, const char* what) const;
    unsigned active_clients();

    bool warm_started_ = false;
    unsigned bias_multiplier_ = 1;
    // A total RX power below it counts as loss of signal (never, without an RX power monitor).
    double los_threshold_dbm_ = -std::numeric_limits<double>::infinity();
    std::optional<double> last_temperature_;
    optical_alarms alarms_;
    struct {
        qsfpd::cage::cmis_flags_and_monitors values;
        qsfpd::clock::time_point taken{};
        bool valid = false;
    } snapshot_;
};

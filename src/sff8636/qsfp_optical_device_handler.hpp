#pragma once

#include <array>
#include <chrono>
#include <cmath>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "monitor_units.hpp"
#include "msg_log.hpp"
#include "optical_alarms.hpp"
#include "qsfp_device_handler.hpp"

// An SFF-8636 optical QSFP/QSFP28 module: diagnostics, thresholds, per-lane flags, TX enable and
// the three derived alarms (TX fault, loss of signal, loss of lock) with flap suppression. The
// lane-count variants and the PAM4 DSP handler derive from it.
class qsfp_optical_device_handler : public qsfp_device_handler {
  public:
    // Which monitor a threshold belongs to.
    enum class monitor { temperature, voltage, tx_bias, tx_power, rx_power };
    using threshold = qsfpd::cage::threshold;

    // A snapshot of the monitors is reused by the polled values for this long: one monitoring
    // cycle (100 ms) plus slack for the value group running just before the cycle's read.
    static constexpr std::chrono::milliseconds snapshot_lifetime{150};
    // The fallback upper temperature limit when the module type brings none.
    static constexpr double default_temperature_limit = 70.0;

    qsfp_optical_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                std::string root_path,
                                std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                std::string vendor, std::string part_number, std::string part_name,
                                std::string description, qsfp_flags_s flags, std::string data_model,
                                unsigned unit, unsigned num_units, unsigned lane_count,
                                std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());
    ~qsfp_optical_device_handler() override;

    void start();
    void run_periodic_tasks() override;
    void set_port_admin_status(std::string status) override;
    std::string get_port_admin_status() override;

    unsigned lane_count() const { return lane_count_; }
    bool is_warm_started() const override { return warm_started_; }

    // Temperature.
    int get_fake_temperature();
    void set_fake_temperature(int celsius);
    double get_trx_temperature();
    double get_trx_temperature_margin();
    double get_trx_voltage();

    // Transmitters.
    void set_tx_enable(bool enable);
    bool set_tx_enable_command(bool enable);
    bool set_lane_tx_enable(unsigned lane, bool enable);
    bool get_lane_tx_enable(unsigned lane);
    bool get_tx_enable();
    bool get_tx_enabled();
    bool get_tx_disabled();

    // Wavelength and channel (n/a when the module reports none).
    std::string get_channel_id();
    std::string get_nominal_laser_wavelength();

    // Optical power, dBm; bias, mA.
    double get_total_rx_power();
    double get_total_tx_power();
    double get_channel_rx_power(unsigned lane);
    double get_channel_actual_tx_power(unsigned lane);
    double get_channel_tx_bias(unsigned lane);
    double get_rx_sensitivity();

    // Per-lane flags as the last monitoring cycle saw them.
    bool get_channel_tx_fault(unsigned lane);
    bool get_channel_los(unsigned lane);
    bool get_channel_lol(unsigned lane);

    // Thresholds in engineering units.
    double get_threshold(monitor m, threshold t);
    double get_trx_temperature_high_alarm_th() {
        return get_threshold(monitor::temperature, threshold::high_alarm);
    }
    double get_trx_temperature_low_alarm_th() {
        return get_threshold(monitor::temperature, threshold::low_alarm);
    }
    double get_trx_temperature_high_warning_th() {
        return get_threshold(monitor::temperature, threshold::high_warning);
    }
    double get_trx_temperature_low_warning_th() {
        return get_threshold(monitor::temperature, threshold::low_warning);
    }
    double get_trx_rx_power_low_alarm_th() {
        return get_threshold(monitor::rx_power, threshold::low_alarm);
    }
    double get_trx_tx_power_low_alarm_th() {
        return get_threshold(monitor::tx_power, threshold::low_alarm);
    }

    virtual std::string get_fw_revision();
    // Asks the gearbox handler (ZELT-20) whether it was warm started.
    bool bcm_gb_is_warm_started();

    // The register conversions, public for the tools and tests that check them.
    static double temperature_celsius(std::int16_t raw);
    static double voltage_volts(std::uint16_t raw);
    static double bias_milliamps(std::uint16_t raw);
    static double power_dbm(std::uint16_t raw);
    // Sum of lane powers (0.1 uW units) in dBm, -99.0 when a lane is dark or the sum is tiny.
    template <class Lanes>
    static double total_power_dbm(const Lanes& raw_lane_powers);

  protected:
    void _set_port_admin_status(bool up) override;

    void lower_bytes_read(unsigned first, std::span<const std::uint8_t> bytes) override;

    // The monitors of this cycle, or fresh ones if the cycle's snapshot is stale.
    const qsfpd::cage::sff8636_monitors& cycle_monitors();

  private:
    void warm_or_cold_start();
    void process_flags(const qsfpd::cage::sff8636_int_flags& flags, double total_rx_power);
    double lane_power(unsigned lane, bool rx);

    unsigned lane_count_;
    bool warm_started_ = false;
    int fake_temperature_ = 0;
    std::optional<double> last_temperature_;
    double los_threshold_dbm_ = 0;
    double tx_power_low_alarm_dbm_ = 0;

    // Flags a client's register read cleared since the last cycle, merged into the next one.
    decltype(qsfpd::cage::sff8636_int_flags::bytes) pending_flags_{};
    optical_alarms alarms_;

    struct monitor_snapshot {
        qsfpd::cage::sff8636_monitors values;
        qsfpd::clock::time_point taken{};
        bool valid = false;
    } snapshot_;

    std::shared_ptr<dh::api::status_value<std::string>> oper_status_node_;
    std::shared_ptr<dh::api::const_value<unsigned>> nominal_bitrate_node_;
    std::shared_ptr<dh::api::const_value<unsigned>> lanes_node_;
    std::shared_ptr<dh::api::const_value<bool>> warm_started_node_;
};

template <class Lanes>
double qsfp_optical_device_handler::total_power_dbm(const Lanes& raw_lane_powers) {
    return qsfpd::units::total_power_dbm(raw_lane_powers);
}

#include "qsfp_optical_device_handler.hpp"

#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "channel_converter.hpp"
#include "device_handler_client.hpp"
#include "msg_log.hpp"
#include "tx_enable_texts.hpp"

using namespace dh::api;
using qsfpd::cage::sff8636_int_flags;
using qsfpd::cage::sff8636_monitors;

namespace {

// SFF-8636 byte 6, the temperature flags.
constexpr std::uint8_t temp_high_alarm_bit = 0x80;
constexpr std::uint8_t temp_high_warning_bit = 0x20;
constexpr unsigned max_lanes = qsfpd::cage::qsfp_reg_map::max_lanes;

using qsfpd::units::round_to;

}  // namespace

double qsfp_optical_device_handler::temperature_celsius(std::int16_t raw) {
    return qsfpd::units::temperature_celsius(raw);
}

double qsfp_optical_device_handler::voltage_volts(std::uint16_t raw) {
    return qsfpd::units::voltage_volts(raw);
}

double qsfp_optical_device_handler::bias_milliamps(std::uint16_t raw) {
    return qsfpd::units::bias_milliamps(raw);
}

double qsfp_optical_device_handler::power_dbm(std::uint16_t raw) {
    return qsfpd::units::power_dbm(raw);
}

qsfp_optical_device_handler::qsfp_optical_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, std::string data_model,
    unsigned unit, unsigned num_units, unsigned lane_count, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                          std::move(vendor), std::move(part_number), std::move(part_name),
                          std::move(description), flags, std::move(data_model), unit, num_units,
                          std::move(clock)),
      lane_count_(std::min(lane_count, max_lanes)),
      alarms_(lane_count_, 0.0, clock_) {
    const std::shared_ptr<qsfp_optical_device_handler> no_owner;
    oper_status_node_ =
        status_value<std::string>::create(db_, path("data/operStatus"), no_owner, "down");
    auto lock = lock_handler();
    const unsigned bit_rate = module_access([&] { return reg_map_->get_nom_bit_rate(); });
    nominal_bitrate_node_ =
        const_value<unsigned>::create(db_, path("data/nominalBitrate"), no_owner, bit_rate);
    lanes_node_ =
        const_value<unsigned>::create(db_, path("data/numberOfLanes"), no_owner, lane_count_);
    module_access([&] {
        los_threshold_dbm_ = power_dbm(reg_map_->get_rx_power_threshold(threshold::low_alarm));
        tx_power_low_alarm_dbm_ = power_dbm(reg_map_->get_tx_power_threshold(threshold::low_alarm));
    });
    alarms_ = optical_alarms(lane_count_, los_threshold_dbm_, clock_);
    warm_or_cold_start();
}

qsfp_optical_device_handler::~qsfp_optical_device_handler() = default;

void qsfp_optical_device_handler::warm_or_cold_start() {
    const std::shared_ptr<qsfp_optical_device_handler> no_owner;
    module_access([&] {
        // A module already in high power under software control was set up by an earlier run
        // of the daemon: reprogramming it would interrupt traffic.
        if (reg_map_->get_power_override() && !reg_map_->get_power_set()) {
            warm_started_ = true;
            // The port is up as far as the module is concerned: say so until told otherwise.
            _adopt_port_admin_status(true);
            MSG_LOG(msg_log::info, init_tag())
                << "QSFP optical device handler warm started successfully for " << module_name();
            oper_status_node_->update("up");
            return;
        }
        reg_map_->set_tx_disable(false);
        reg_map_->set_power_set(false);
        reg_map_->set_power_override(true);
        reg_map_->set_high_power_class_en(true);
        last_temperature_ = temperature_celsius(reg_map_->get_temperature());
        oper_status_node_->update("up");
        MSG_LOG(msg_log::info, init_tag())
            << "QSFP optical device handler cold started successfully for " << module_name();
    });
    warm_started_node_ =
        const_value<bool>::create(db_, path("data/debug/isWarmStarted"), no_owner, warm_started_);
}

void qsfp_optical_device_handler::start() {
    using self_type = qsfp_optical_device_handler;
    qsfp_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    keep_node(const_value<unsigned>::create(db_, path("param/networkLanes"), self, lane_count_));
    group_node(volatile_value<&self_type::get_fake_temperature>::create(
        db_, path("data/debug/fakeTemperature"), self));
    group_node(config_param<&self_type::set_fake_temperature>::create(
                   db_, path("config/debug/fakeTemperature"), self))
        ->set_value(fake_temperature_);
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_trx_temperature>>::
            create(db_, path("data/temperature"), self, 0.5, 0.1));
    group_node(volatile_value<&self_type::get_trx_temperature_margin>::create(
        db_, path("data/temperatureMargin"), self));
    const bool tx_enabled = get_tx_enable();
    group_node(
        config_param<&self_type::set_tx_enable>::create(db_, path("settings/txEnable"), self))
        ->set_value(tx_enabled);
    group_node(
        command<&self_type::set_tx_enable_command>::create(db_, path("command/txEnable"), self));
    optical_alarms::nodes alarm_nodes;
    alarm_nodes.tx_fault =
        group_node(status_value<int>::create(db_, path("alarms/txFault/severity"), self, 0));
    alarm_nodes.los =
        group_node(status_value<int>::create(db_, path("alarms/lossOfSignal/severity"), self, 0));
    alarm_nodes.lol =
        group_node(status_value<int>::create(db_, path("alarms/lossOfLock/severity"), self, 0));
    alarm_nodes.temperature =
        group_node(status_value<int>::create(db_, path("alarms/temperature/severity"), self, 0));
    {
        auto lock = lock_handler();
        alarms_.attach(std::move(alarm_nodes));
    }
    group_node(
        volatile_value<&self_type::get_channel_id>::create(db_, path("data/channelId"), self));
    group_node(volatile_value<&self_type::get_nominal_laser_wavelength>::create(
        db_, path("data/wavelength"), self));
    group_node(volatile_value<&self_type::get_tx_enabled>::create(
        db_, path("data/txEnabledCompletely"), self));
    group_node(volatile_value<&self_type::get_tx_disabled>::create(
        db_, path("data/txDisabledCompletely"), self));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_total_rx_power>>::
            create(db_, path("data/totalRxPower"), self, 0.29, 0.09));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_total_tx_power>>::
            create(db_, path("data/totalTxPower"), self, 0.29, 0.09));
    for (unsigned lane = 0; lane < lane_count_; ++lane)
        group_node(command<&self_type::set_lane_tx_enable>::create(
            db_, path(fmt::format("command/lane/{}/txEnable", lane)), self, bind_args(lane)));
    for (unsigned lane = 0; lane < lane_count_; ++lane) {
        const std::string channel = fmt::format("data/debug/channel/{}/", lane);
        group_node(volatile_value<&self_type::get_channel_tx_fault>::create(
            db_, path(channel + "txFault"), self, lane));
        group_node(volatile_value<&self_type::get_channel_los>::create(db_, path(channel + "los"),
                                                                       self, lane));
        group_node(volatile_value<&self_type::get_channel_lol>::create(db_, path(channel + "lol"),
                                                                       self, lane));
    }
    group_node(
        volatile_value<&self_type::get_trx_voltage>::create(db_, path("data/debug/voltage"), self));

    struct threshold_node {
        const char* path;
        monitor m;
        threshold t;
    };
    static constexpr std::array<threshold_node, 20> threshold_nodes = {{
        {"data/tempHighAlarmThreshold", monitor::temperature, threshold::high_alarm},
        {"data/debug/tempLowAlarmThreshold", monitor::temperature, threshold::low_alarm},
        {"data/tempHighWarningThreshold", monitor::temperature, threshold::high_warning},
        {"data/debug/tempLowWarningThreshold", monitor::temperature, threshold::low_warning},
        {"data/debug/voltageHighAlarmThreshold", monitor::voltage, threshold::high_alarm},
        {"data/debug/voltageLowAlarmThreshold", monitor::voltage, threshold::low_alarm},
        {"data/debug/voltageHighWarningThreshold", monitor::voltage, threshold::high_warning},
        {"data/debug/voltageLowWarningThreshold", monitor::voltage, threshold::low_warning},
        {"data/debug/txBiasHighAlarmThreshold", monitor::tx_bias, threshold::high_alarm},
        {"data/debug/txBiasLowAlarmThreshold", monitor::tx_bias, threshold::low_alarm},
        {"data/debug/txBiasHighWarningThreshold", monitor::tx_bias, threshold::high_warning},
        {"data/debug/txBiasLowWarningThreshold", monitor::tx_bias, threshold::low_warning},
        {"data/debug/txPowerHighAlarmThreshold", monitor::tx_power, threshold::high_alarm},
        {"data/debug/txPowerLowAlarmThreshold", monitor::tx_power, threshold::low_alarm},
        {"data/debug/txPowerHighWarningThreshold", monitor::tx_power, threshold::high_warning},
        {"data/debug/txPowerLowWarningThreshold", monitor::tx_power, threshold::low_warning},
        {"data/debug/rxPowerHighAlarmThreshold", monitor::rx_power, threshold::high_alarm},
        {"data/debug/rxPowerLowAlarmThreshold", monitor::rx_power, threshold::low_alarm},
        {"data/debug/rxPowerHighWarningThreshold", monitor::rx_power, threshold::high_warning},
        {"data/debug/rxPowerLowWarningThreshold", monitor::rx_power, threshold::low_warning},
    }};
    for (const auto& n : threshold_nodes)
        group_node(
            volatile_value<&self_type::get_threshold>::create(db_, path(n.path), self, n.m, n.t));
    group_node(volatile_value<&self_type::get_rx_sensitivity>::create(
        db_, path("data/rxSensitivity"), self));
    group_node(volatile_value<&self_type::get_port_admin_status>::create(
        db_, path("data/adminStatus"), self));
    keep_node(const_value<std::string>::create(db_, path("inventory/fwRevision"), self,
                                               get_fw_revision()));
    for (unsigned lane = 0; lane < lane_count_; ++lane) {
        const std::string channel = fmt::format("data/channel/{}/", lane);
        group_node(hysteresis_filtered_value<polled_volatile_value_impl<
                       &self_type::get_channel_rx_power>>::create(db_, path(channel + "rxPower"),
                                                                  self, 0.29, 0.09, lane));
        group_node(hysteresis_filtered_value<polled_volatile_value_impl<
                       &self_type::get_channel_actual_tx_power>>::create(db_,
                                                                         path(channel + "txPower"),
                                                                         self, 0.29, 0.09, lane));
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_channel_tx_bias>>::
                create(db_, path(channel + "txBias"), self, 3.0, 1.0, lane));
    }
    for (unsigned lane = 0; lane < lane_count_; ++lane)
        group_node(volatile_value<&self_type::get_lane_tx_enable>::create(
            db_, path(fmt::format("data/lane/{}/txEnable", lane)), self, lane));
}

// --- Monitoring cycle -----------------------------------------------------------------------

const sff8636_monitors& qsfp_optical_device_handler::cycle_monitors() {
    auto lock = lock_handler();
    const auto now = clock_->now();
    if (!snapshot_.valid || now - snapshot_.taken >= snapshot_lifetime) {
        snapshot_.values = reg_map_->get_monitors();
        snapshot_.taken = now;
        snapshot_.valid = true;
    }
    return snapshot_.values;
}

void qsfp_optical_device_handler::run_periodic_tasks() {
    auto lock = lock_handler();
    // One transaction for the whole cycle: the latched flags (read exactly once, the read
    // clears them) and the monitors that the polled values of this cycle reuse. A failure is not
    // logged here: the manager counts it toward the communication alarm and reports the streak.
    auto [flags, monitors] = reg_map_->get_flags_and_monitors();
    for (std::size_t i = 0; i < flags.bytes.size(); ++i)
        flags.bytes[i] |= std::exchange(pending_flags_[i], 0);
    snapshot_ = {monitors, clock_->now(), true};
    std::array<std::uint16_t, max_lanes> rx{};
    for (unsigned lane = 0; lane < lane_count_; ++lane)
        rx[lane] = monitors.rx_power(lane);
    process_flags(flags, total_power_dbm(std::span(rx.data(), lane_count_)));
}

void qsfp_optical_device_handler::lower_bytes_read(unsigned first,
                                                   std::span<const std::uint8_t> bytes) {
    auto lock = lock_handler();
    constexpr unsigned flags_first = sff8636_int_flags::first_byte;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t at = first + i;
        if (at >= flags_first && at < flags_first + pending_flags_.size())
            pending_flags_[at - flags_first] |= bytes[i];
    }
}

void qsfp_optical_device_handler::process_flags(const sff8636_int_flags& flags,
                                                double total_rx_power) {
    optical_alarms::inputs in;
    in.tx_fault = flags.tx_fault();
    in.rx_los = flags.rx_los();
    in.rx_lol = flags.rx_lol();
    in.temp_high_alarm = flags.temperature() & temp_high_alarm_bit;
    in.temp_high_warning = flags.temperature() & temp_high_warning_bit;
    in.total_rx_power_dbm = total_rx_power;
    alarms_.process(in, info_tag(), module_name());
}

// --- Getters --------------------------------------------------------------------------------

int qsfp_optical_device_handler::get_fake_temperature() {
    auto lock = lock_handler();
    return fake_temperature_;
}

void qsfp_optical_device_handler::set_fake_temperature(int celsius) {
    auto lock = lock_handler();
    fake_temperature_ = celsius;
}

double qsfp_optical_device_handler::get_trx_temperature() {
    auto lock = lock_handler();
    const double value =
        fake_temperature_ != 0 ? fake_temperature_ : read_for("get_trx_temperature", [&] {
            return temperature_celsius(cycle_monitors().temperature());
        });
    last_temperature_ = value;
    return value;
}

double qsfp_optical_device_handler::get_trx_temperature_margin() {
    auto lock = lock_handler();
    if (!last_temperature_) get_trx_temperature();
    const std::uint8_t max_case = read_for("get_trx_temperature_margin",
                                           [&] { return reg_map_->get_max_case_temperature(); });
    // SFF-8636: a maximum case temperature of 0 means the standard 70 degC.
    const double limit = max_case != 0 ? max_case : default_temperature_limit;
    return round_to(limit - *last_temperature_, 1);
}

double qsfp_optical_device_handler::get_trx_voltage() {
    auto lock = lock_handler();
    return read_for("get_trx_voltage",
                    [&] { return voltage_volts(reg_map_->get_supply_voltage()); });
}

double qsfp_optical_device_handler::get_threshold(monitor m, threshold t) {
    auto lock = lock_handler();
    return read_for("get_threshold", [&]() -> double {
        switch (m) {
            case monitor::temperature:
                return temperature_celsius(reg_map_->get_temp_threshold(t));
            case monitor::voltage:
                return voltage_volts(reg_map_->get_vcc_threshold(t));
            case monitor::tx_bias:
                return bias_milliamps(reg_map_->get_tx_bias_threshold(t));
            case monitor::tx_power:
                return power_dbm(reg_map_->get_tx_power_threshold(t));
            case monitor::rx_power:
                return power_dbm(reg_map_->get_rx_power_threshold(t));
        }
        throw dh_error(dh::errc::invalid, "no such monitor");
    });
}

double qsfp_optical_device_handler::get_rx_sensitivity() {
    // SFF-8636 has no sensitivity field; the RX power low alarm threshold is the lowest power
    // the module vouches for.
    return get_threshold(monitor::rx_power, threshold::low_alarm);
}

bool qsfp_optical_device_handler::get_channel_tx_fault(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_tx_fault(lane);
}

bool qsfp_optical_device_handler::get_channel_los(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_los(lane);
}

bool qsfp_optical_device_handler::get_channel_lol(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_lol(lane);
}

double qsfp_optical_device_handler::get_channel_rx_power(unsigned lane) {
    auto lock = lock_handler();
    return read_for("get_channel_rx_power",
                    [&] { return power_dbm(cycle_monitors().rx_power(lane)); });
}

double qsfp_optical_device_handler::get_channel_actual_tx_power(unsigned lane) {
    auto lock = lock_handler();
    return read_for("get_channel_actual_tx_power",
                    [&] { return power_dbm(cycle_monitors().tx_power(lane)); });
}

double qsfp_optical_device_handler::get_channel_tx_bias(unsigned lane) {
    auto lock = lock_handler();
    return read_for("get_channel_tx_bias",
                    [&] { return bias_milliamps(cycle_monitors().tx_bias(lane)); });
}

double qsfp_optical_device_handler::lane_power(unsigned lane, bool rx) {
    const auto& m = cycle_monitors();
    return rx ? m.rx_power(lane) : m.tx_power(lane);
}

double qsfp_optical_device_handler::get_total_rx_power() {
    auto lock = lock_handler();
    try {
        std::array<std::uint16_t, max_lanes> raw{};
        for (unsigned lane = 0; lane < lane_count_; ++lane)
            raw[lane] = static_cast<std::uint16_t>(lane_power(lane, true));
        return total_power_dbm(std::span(raw.data(), lane_count_));
    } catch (const std::exception&) {
        return -99.0;  // a power we cannot read is no light
    }
}

double qsfp_optical_device_handler::get_total_tx_power() {
    auto lock = lock_handler();
    try {
        std::array<std::uint16_t, max_lanes> raw{};
        for (unsigned lane = 0; lane < lane_count_; ++lane)
            raw[lane] = static_cast<std::uint16_t>(lane_power(lane, false));
        return total_power_dbm(std::span(raw.data(), lane_count_));
    } catch (const std::exception&) {
        return -99.0;
    }
}

std::string qsfp_optical_device_handler::get_channel_id() {
    auto lock = lock_handler();
    const auto value =
        read_for("get_channel_id", [&] { return reg_map_->get_free_side_wavelength(); });
    if (value == 0) return "n/a";
    return qsfpd::channel_converter::get_qsfp_wavelength_and_channel_id(value).second;
}

std::string qsfp_optical_device_handler::get_nominal_laser_wavelength() {
    auto lock = lock_handler();
    const auto value = read_for("get_nominal_laser_wavelength",
                                [&] { return reg_map_->get_free_side_wavelength(); });
    if (value == 0) return "n/a";
    return qsfpd::channel_converter::get_qsfp_wavelength_and_channel_id(value).first;
}

std::string qsfp_optical_device_handler::get_fw_revision() {
    // SFF-8636 defines no firmware revision field.
    return "n/a";
}

bool qsfp_optical_device_handler::bcm_gb_is_warm_started() {
    auto client = get_gearbox_client();
    if (!client) return false;
    return device_handler_read_object<bool>(client, "data/debug/isWarmStarted").read();
}

// --- Transmitters ---------------------------------------------------------------------------

bool qsfp_optical_device_handler::get_tx_enable() {
    return get_tx_enabled();  // no lane disabled: the same question
}

bool qsfp_optical_device_handler::get_tx_enabled() {
    auto lock = lock_handler();
    return read_for("get_tx_enabled", [&] { return reg_map_->get_tx_laser_enabled(lane_count_); });
}

bool qsfp_optical_device_handler::get_tx_disabled() {
    auto lock = lock_handler();
    return read_for("get_tx_disabled",
                    [&] { return reg_map_->get_tx_laser_disabled(lane_count_); });
}

void qsfp_optical_device_handler::set_tx_enable(bool enable) {
    set_tx_enable_command(enable);
}

bool qsfp_optical_device_handler::set_tx_enable_command(bool enable) {
    auto lock = lock_handler();
    const std::string tag = config_tag();
    // Nothing to do only when every lane already is as asked: a disable with one lane off
    // must still switch the others off.
    if (enable ? get_tx_enabled() : get_tx_disabled()) {
        MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::module(enable, true, module_name());
        return true;
    }
    read_for("set_tx_enable", [&] { reg_map_->set_tx_disable(!enable); });
    MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::module(enable, false, module_name());
    return true;
}

bool qsfp_optical_device_handler::set_lane_tx_enable(unsigned lane, bool enable) {
    auto lock = lock_handler();
    const std::string tag = config_tag();
    if (lane >= lane_count_) {
        const auto text = qsfpd::tx_texts::lane_not_available(lane, module_name());
        MSG_LOG(msg_log::warning, tag) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    const bool disabled =
        read_for("set_lane_tx_enable", [&] { return reg_map_->get_ch_tx_disable(lane); });
    if (disabled != enable) {
        MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::lane(lane, enable, true, module_name());
        return true;
    }
    read_for("set_lane_tx_enable", [&] { reg_map_->set_ch_tx_disable(lane, !enable); });
    MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::lane(lane, enable, false, module_name());
    return true;
}

bool qsfp_optical_device_handler::get_lane_tx_enable(unsigned lane) {
    auto lock = lock_handler();
    return !read_for("get_lane_tx_enable", [&] { return reg_map_->get_ch_tx_disable(lane); });
}

// --- Admin status ---------------------------------------------------------------------------

void qsfp_optical_device_handler::set_port_admin_status(std::string status) {
    qsfp_device_handler::set_port_admin_status(std::move(status));
}

std::string qsfp_optical_device_handler::get_port_admin_status() {
    return qsfp_device_handler::get_port_admin_status();
}

void qsfp_optical_device_handler::_set_port_admin_status(bool up) {
    // Power set 1 puts the module into low power: the transmitters go dark.
    module_access([&] { reg_map_->set_power_set(!up); });
}

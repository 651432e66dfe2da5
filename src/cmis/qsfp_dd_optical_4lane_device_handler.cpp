#include "qsfp_dd_optical_4lane_device_handler.hpp"

#include <array>
#include <span>

#include <fmt/format.h>

#include "monitor_units.hpp"
#include "msg_log.hpp"
#include "qsfp_transport.hpp"

using namespace dh::api;
using qsfpd::cage::cmis_flags_and_monitors;
using qsfpd::cage::cmis_module_state;
namespace units = qsfpd::units;

namespace {

// Module flags byte 9: bit 0 temperature high alarm, bit 2 high warning.
constexpr std::uint8_t temp_high_alarm_bit = 0x01;
constexpr std::uint8_t temp_high_warning_bit = 0x04;
// CMIS has no maximum case temperature field; the commercial range ends here.
constexpr double case_temperature_limit = 70.0;
constexpr unsigned max_lanes = qsfpd::cage::qsfp_reg_map::max_dd_lanes;

// The constant threshold nodes: which monitor, which of its four thresholds.
enum class threshold_of { temperature, rx_power };
struct threshold_node {
    const char* path;
    threshold_of monitor;
    qsfpd::cage::threshold which;
};
constexpr std::array<threshold_node, 3> threshold_nodes = {{
    {"data/tempHighAlarmThreshold", threshold_of::temperature, qsfpd::cage::threshold::high_alarm},
    {"data/tempHighWarningThreshold", threshold_of::temperature,
     qsfpd::cage::threshold::high_warning},
    // CMIS has no sensitivity field: the lowest RX power the module vouches for without a
    // warning stands for it.
    {"data/rxSensitivity", threshold_of::rx_power, qsfpd::cage::threshold::low_warning},
}};

}  // namespace

qsfp_dd_optical_4lane_device_handler::qsfp_dd_optical_4lane_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_dd_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                             std::move(vendor), std::move(part_number), std::move(part_name),
                             std::move(description), flags, "optical", unit, num_units,
                             std::move(clock)),
      alarms_(lane_count(), los_threshold_dbm_, clock_) {
    auto lock = lock_handler();
    if (paging()) {
        module_access([&] {
            bias_multiplier_ = reg_map_->get_dd_tx_bias_multiplier();
            // Without an RX power monitor the power reads 0: it says nothing about the light.
            if (reg_map_->get_dd_rx_power_monitor_supported())
                los_threshold_dbm_ =
                    units::power_dbm(reg_map_->get_dd_rx_power_threshold(threshold::low_alarm));
        });
    }
    alarms_ = optical_alarms(lane_count(), los_threshold_dbm_, clock_);
    warm_or_cold_start();
}

qsfp_dd_optical_4lane_device_handler::~qsfp_dd_optical_4lane_device_handler() = default;

void qsfp_dd_optical_4lane_device_handler::warm_or_cold_start() {
    module_access([&] {
        const auto state = (reg_map_->get_dd_mod_state() >> 1) & 0x07;
        // A module in high power and ready, neither pin nor software asking for low power, was
        // set up by an earlier run of the daemon: reprogramming it would interrupt traffic.
        if (state == static_cast<unsigned>(cmis_module_state::ready) &&
            !device_->pin_get(qsfpd::cage::line::lpmode) &&
            !reg_map_->get_dd_low_pwr_request_sw()) {
            warm_started_ = true;
            _adopt_port_admin_status(true);
            MSG_LOG(msg_log::info, init_tag())
                << "QSFP DD 4-Lane optical device handler warm started successfully for "
                << module_name();
            return;
        }
        device_->pin_set(qsfpd::cage::line::lpmode, false);
        reg_map_->set_dd_low_pwr_request_sw(false);
        if (paging()) reg_map_->set_dd_tx_disable(false);
        MSG_LOG(msg_log::info, init_tag())
            << "QSFP DD 4-Lane optical device handler cold started successfully for "
            << module_name();
    });
}

void qsfp_dd_optical_4lane_device_handler::start() {
    using self_type = qsfp_dd_optical_4lane_device_handler;
    qsfp_dd_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    const unsigned lanes = lane_count();

    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_trx_temperature>>::
            create(db_, path("data/temperature"), self, 0.5, 0.1));
    group_node(volatile_value<&self_type::get_trx_temperature_margin>::create(
        db_, path("data/temperatureMargin"), self));
    const bool tx_enabled = paging() && get_tx_enable();
    group_node(config_param<&self_type::set_tx_enable_setting>::create(
                   db_, path("settings/txEnable"), self))
        ->set_value(tx_enabled);
    group_node(
        volatile_value<&self_type::get_module_state>::create(db_, path("data/moduleState"), self));
    optical_alarms::nodes alarm_nodes;
    alarm_nodes.tx_fault =
        group_node(status_value<int>::create(db_, path("alarms/txFault/severity"), self, 0));
    alarm_nodes.los =
        group_node(status_value<int>::create(db_, path("alarms/lossOfSignal/severity"), self, 0));
    alarm_nodes.lol =
        group_node(status_value<int>::create(db_, path("alarms/lossOfLock/severity"), self, 0));
    alarm_nodes.temperature =
        group_node(status_value<int>::create(db_, path("alarms/temperature/severity"), self, 0));
    alarm_nodes.high_temp_shutdown = group_node(
        status_value<int>::create(db_, path("alarms/highTemperatureShutdown/severity"), self, 0));
    for (unsigned lane = 0; lane < lanes; ++lane)
        alarm_nodes.lane_los.push_back(group_node(status_value<int>::create(
            db_, path(fmt::format("alarms/lane/{}/lossOfSignal/severity", lane + 1)), self, 0)));
    {
        auto lock = lock_handler();
        alarms_.attach(std::move(alarm_nodes));
    }
    group_node(command<&self_type::set_restart>::create(db_, path("command/restart"), self));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_rx_signal_power>>::
            create(db_, path("data/rxSignalPower"), self, 0.29, 0.09));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_total_tx_power>>::
            create(db_, path("data/totalTxPower"), self, 0.29, 0.09));
    for (unsigned lane = 0; lane < lanes; ++lane) {
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
        group_node(volatile_value<&self_type::get_channel_tx_fault>::create(
            db_, path(channel + "txFault"), self, lane));
        group_node(volatile_value<&self_type::get_channel_los>::create(db_, path(channel + "los"),
                                                                       self, lane));
        group_node(volatile_value<&self_type::get_channel_lol>::create(db_, path(channel + "lol"),
                                                                       self, lane));
    }
    group_node(volatile_value<&self_type::get_any_temperature_register>::create(
        db_, path("data/debug/temperatureRegister"), self));
    for (unsigned lane = 0; lane < lanes; ++lane) {
        const std::string channel = fmt::format("data/debug/channel/{}/", lane);
        group_node(volatile_value<&self_type::get_any_power_register>::create(
            db_, path(channel + "rxPowerRegister"), self, lane, true));
        group_node(volatile_value<&self_type::get_any_power_register>::create(
            db_, path(channel + "txPowerRegister"), self, lane, false));
        group_node(volatile_value<&self_type::get_any_bias_register>::create(
            db_, path(channel + "txBiasRegister"), self, lane));
    }
    for (unsigned i = 0; i < threshold_nodes.size(); ++i)
        keep_node(const_value<double>::create(db_, path(threshold_nodes[i].path), self,
                                              get_threshold_value(i)));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_total_rx_power>>::
            create(db_, path("data/rxPower"), self, 0.29, 0.09));
    keep_node(
        const_value<unsigned>::create(db_, path("data/numActiveClients"), self, active_clients()));
    group_node(
        config_param<&self_type::set_application>::create(db_, path("config/application"), self))
        ->set_value(get_application());
    group_node(
        volatile_value<&self_type::get_application>::create(db_, path("data/application"), self));
    group_node(volatile_value<&self_type::get_fixed_laser_wavelength>::create(
        db_, path("data/wavelength"), self));
    group_node(volatile_value<&self_type::get_port_admin_status>::create(
        db_, path("data/adminStatus"), self));
    keep_node(const_value<std::string>::create(db_, path("inventory/device_handler"), self,
                                               "qsfp_dd_optical_4lane_dh"));
    // Polling starts only now that every node it reads exists.
    activate_value_group();
    set_dh_ready(true);
}

// --- Monitoring cycle ---------------------------------------------------------------------------

const cmis_flags_and_monitors& qsfp_dd_optical_4lane_device_handler::cycle_snapshot() {
    auto lock = lock_handler();
    const auto now = clock_->now();
    if (!snapshot_.valid || now - snapshot_.taken >= snapshot_lifetime) {
        // Between cycles: monitors only, the latched flags stay for the cycle to read.
        const auto fresh = reg_map_->get_dd_monitors(lane_count());
        snapshot_ = {fresh, now, true};
    }
    return snapshot_.values;
}

void qsfp_dd_optical_4lane_device_handler::run_periodic_tasks() {
    qsfp_dd_device_handler::run_periodic_tasks();
    auto lock = lock_handler();
    if (!paging()) return;  // a flat-memory module has no lane flags or monitors
    // Two reads for the whole cycle: the latched flags (read exactly once, the read clears
    // them) and the monitors that the polled values of this cycle reuse. A failure is counted
    // by the manager toward the communication alarm.
    const auto fm = reg_map_->get_dd_flags_and_monitors(lane_count());
    snapshot_ = {fm, clock_->now(), true};
    optical_alarms::inputs in;
    in.tx_fault = fm.tx_fault();
    in.rx_los = fm.rx_los();
    in.rx_lol = fm.rx_lol();
    in.temp_high_alarm = fm.temperature_flags() & temp_high_alarm_bit;
    in.temp_high_warning = fm.temperature_flags() & temp_high_warning_bit;
    in.high_temp_shutdown = fm.module_state() == static_cast<unsigned>(cmis_module_state::fault) &&
                            reg_map_->get_dd_module_fault_cause() == fault_cause_temperature;
    in.total_rx_power_dbm = total_power(true);
    alarms_.process(in, info_tag(), module_name());
}

double qsfp_dd_optical_4lane_device_handler::total_power(bool rx) {
    const auto& m = cycle_snapshot();
    std::array<std::uint16_t, max_lanes> raw{};
    for (unsigned lane = 0; lane < lane_count(); ++lane)
        raw[lane] = rx ? m.rx_power(lane) : m.tx_power(lane);
    return units::total_power_dbm(std::span(raw.data(), lane_count()));
}

// --- Getters ------------------------------------------------------------------------------------

void qsfp_dd_optical_4lane_device_handler::check_lane(unsigned lane, const char* what) const {
    if (lane >= lane_count())
        throw dh_error(dh::errc::invalid,
                       std::string("Illegal channel index while getting ") + what);
}

double qsfp_dd_optical_4lane_device_handler::get_trx_temperature() {
    auto lock = lock_handler();
    const double value = read_for("get_trx_temperature", [&] {
        return units::temperature_celsius(paging() ? cycle_snapshot().temperature()
                                                   : reg_map_->get_dd_temperature());
    });
    last_temperature_ = value;
    return value;
}

double qsfp_dd_optical_4lane_device_handler::get_trx_temperature_margin() {
    auto lock = lock_handler();
    if (!last_temperature_) get_trx_temperature();
    return units::round_to(case_temperature_limit - *last_temperature_, 1);
}

double qsfp_dd_optical_4lane_device_handler::get_rx_signal_power() {
    // A non-coherent receiver has no separate signal power: all it receives is signal.
    return get_total_rx_power();
}

double qsfp_dd_optical_4lane_device_handler::get_total_rx_power() {
    auto lock = lock_handler();
    if (!paging()) return -99.0;
    try {
        return total_power(true);
    } catch (const std::exception&) {
        return -99.0;  // a power we cannot read is no light
    }
}

double qsfp_dd_optical_4lane_device_handler::get_total_tx_power() {
    auto lock = lock_handler();
    if (!paging()) return -99.0;
    try {
        return total_power(false);
    } catch (const std::exception&) {
        return -99.0;
    }
}

double qsfp_dd_optical_4lane_device_handler::get_channel_rx_power(unsigned lane) {
    auto lock = lock_handler();
    check_lane(lane, "RX power");
    return read_for("get_channel_rx_power",
                    [&] { return units::power_dbm(cycle_snapshot().rx_power(lane)); });
}

double qsfp_dd_optical_4lane_device_handler::get_channel_actual_tx_power(unsigned lane) {
    auto lock = lock_handler();
    check_lane(lane, "TX power");
    return read_for("get_channel_actual_tx_power",
                    [&] { return units::power_dbm(cycle_snapshot().tx_power(lane)); });
}

double qsfp_dd_optical_4lane_device_handler::get_channel_tx_bias(unsigned lane) {
    auto lock = lock_handler();
    check_lane(lane, "TX bias");
    return read_for("get_channel_tx_bias", [&] {
        return units::bias_milliamps(cycle_snapshot().tx_bias(lane), bias_multiplier_);
    });
}

bool qsfp_dd_optical_4lane_device_handler::get_channel_tx_fault(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_tx_fault(lane);
}

bool qsfp_dd_optical_4lane_device_handler::get_channel_los(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_los(lane);
}

bool qsfp_dd_optical_4lane_device_handler::get_channel_lol(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_lol(lane);
}

double qsfp_dd_optical_4lane_device_handler::get_threshold_value(unsigned which) {
    auto lock = lock_handler();
    if (!paging()) return 0.0;  // no page 02h
    const auto& node = threshold_nodes.at(which);
    return read_for("get_threshold", [&] {
        return node.monitor == threshold_of::temperature
                   ? units::temperature_celsius(reg_map_->get_dd_temp_threshold(node.which))
                   : units::power_dbm(reg_map_->get_dd_rx_power_threshold(node.which));
    });
}

int qsfp_dd_optical_4lane_device_handler::get_any_temperature_register() {
    auto lock = lock_handler();
    return read_for("get_any_temperature_register", [&] { return reg_map_->get_dd_temperature(); });
}

unsigned qsfp_dd_optical_4lane_device_handler::get_any_power_register(unsigned lane, bool rx) {
    auto lock = lock_handler();
    return read_for("get_any_power_register", [&] {
        return rx ? reg_map_->get_dd_ch_rx_pwr(lane) : reg_map_->get_dd_ch_tx_pwr(lane);
    });
}

unsigned qsfp_dd_optical_4lane_device_handler::get_any_bias_register(unsigned lane) {
    auto lock = lock_handler();
    return read_for("get_any_bias_register", [&] { return reg_map_->get_dd_ch_tx_bias(lane); });
}

std::string qsfp_dd_optical_4lane_device_handler::get_module_state() {
    auto lock = lock_handler();
    return read_for("get_module_state", [&] {
        return std::string(
            qsfpd::cage::module_state_name((reg_map_->get_dd_mod_state() >> 1) & 0x07));
    });
}

std::string qsfp_dd_optical_4lane_device_handler::get_fixed_laser_wavelength() {
    auto lock = lock_handler();
    if (!paging()) return "n/a";
    return read_for("get_fixed_laser_wavelength", [&]() -> std::string {
        // A tunable laser has no fixed wavelength: its channel is set, not advertised.
        if (reg_map_->get_dd_support_laser_capabilities()) return "n/a";
        const unsigned raw = reg_map_->get_dd_wavelength();
        if (raw == 0) return "n/a";
        return fmt::format("{:.2f}", raw * 0.05);
    });
}

unsigned qsfp_dd_optical_4lane_device_handler::active_clients() {
    auto lock = lock_handler();
    if (!paging()) return 0;
    return read_for("get_num_active_clients", [&] { return _count_active_clients(); });
}

// --- Settings -----------------------------------------------------------------------------------

bool qsfp_dd_optical_4lane_device_handler::get_tx_enable() {
    return get_tx_enabled();
}

void qsfp_dd_optical_4lane_device_handler::set_tx_enable_setting(bool enable) {
    set_tx_enable(enable);
}

bool qsfp_dd_optical_4lane_device_handler::set_restart(const bool& /*restart*/) {
    auto lock = lock_handler();
    if (!paging()) throw dh_error(dh::errc::invalid, "Restart is not available on this module");
    MSG_LOG(msg_log::info, config_tag()) << "Restarting data path " << module_name();
    // Deinitialising and re-initialising every data path restarts the traffic on the module's
    // current configuration without touching its power state.
    read_for("set_restart", [&] {
        reg_map_->set_dd_dp_deinit(0xFF);
        reg_map_->set_dd_dp_deinit(0x00);
    });
    return true;
}

std::string qsfp_dd_optical_4lane_device_handler::get_application() {
    auto lock = lock_handler();
    if (!paging()) return "n/a";
    const unsigned number = read_for("get_application", [&] { return _get_application_number(); });
    const auto* app = find_application(number);
    return app ? app->media.Interface : "n/a";
}

void qsfp_dd_optical_4lane_device_handler::set_application(std::string name) {
    auto lock = lock_handler();
    const auto map = application_map();
    const applicationList_t* found = nullptr;
    for (const auto& [number, app] : map)
        if (app.media.Interface == name || std::to_string(number) == name) found = &app;
    if (!found || !paging()) {
        MSG_LOG(msg_log::warning, config_tag())
            << "Cannot Setting application mode on " << module_name();
        throw dh_error(dh::errc::invalid, "Unknown application " + name);
    }
    if (get_application() == found->media.Interface) return;
    // The plain service of the application's rate ("400G"): the data paths the module offers.
    const unsigned rate = qsfpd::cage::qsfp_reg_map::get_current_bitrate(found->media.Interface);
    _set_application_code(found->app_sel, fmt::format("{}G", rate != 0 ? rate : 100));
}

std::string qsfp_dd_optical_4lane_device_handler::get_port_admin_status() {
    return qsfp_dd_device_handler::get_port_admin_status();
}

void qsfp_dd_optical_4lane_device_handler::_set_port_admin_status(bool up) {
    // LowPwrRequestSW puts the module into low power: the transmitters go dark.
    module_access([&] { reg_map_->set_dd_low_pwr_request_sw(!up); });
}

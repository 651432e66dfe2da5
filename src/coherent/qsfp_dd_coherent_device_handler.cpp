#include "qsfp_dd_coherent_device_handler.hpp"

#include <algorithm>
#include <cmath>
#include <sstream>

#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "coherent_tuning.hpp"
#include "monitor_units.hpp"
#include "msg_log.hpp"
#include "qsfp_transport.hpp"

using namespace dh::api;
using qsfpd::cage::cmis_module_state;
using qsfpd::cage::qsfp_reg_map;
namespace units = qsfpd::units;
namespace coherent = qsfpd::coherent;

namespace {

constexpr double failed_read = -99.0;
constexpr double case_temperature_limit = 70.0;
// Module flags byte 9: temperature high alarm (bit 0) and high warning (bit 2).
constexpr std::uint8_t temp_high_alarm_bit = 0x01;
constexpr std::uint8_t temp_high_warning_bit = 0x04;
constexpr std::uint8_t fault_cause_temperature = 6;
// RX power flags of media lane 1 (qsfp_reg_map::get_dd_low_high_alarm_flags).
constexpr std::uint8_t rx_high_alarm_flag = 0x01;
constexpr std::uint8_t rx_low_alarm_flag = 0x02;
// A threshold of 99 dBm stands for "no threshold at this rate".
constexpr double no_threshold = 90.0;
constexpr std::uint8_t custom_thresholds_capability = 0x01;

// The module states as the coherent handlers name them.
constexpr std::array<const char*, 8> state_names = {
    "Reserved",   "Low power",   "Power up", "Ready",
    "Power down", "Fault state", "Reserved", "Reserved",
};

// The module thresholds served as constant-per-read nodes, in node order.
enum class monitor { temperature, voltage, bias, tx_power, rx_power };
struct threshold_node {
    const char* path;
    monitor of;
    qsfpd::cage::threshold which;
};
using th = qsfpd::cage::threshold;
constexpr std::array<threshold_node, 17> threshold_nodes = {{
    {"data/tempHighAlarmThreshold", monitor::temperature, th::high_alarm},
    {"data/debug/tempLowAlarmThreshold", monitor::temperature, th::low_alarm},
    {"data/tempHighWarningThreshold", monitor::temperature, th::high_warning},
    {"data/debug/tempLowWarningThreshold", monitor::temperature, th::low_warning},
    {"data/debug/voltageHighAlarmThreshold", monitor::voltage, th::high_alarm},
    {"data/debug/voltageHighWarningThreshold", monitor::voltage, th::high_warning},
    {"data/debug/voltageLowAlarmThreshold", monitor::voltage, th::low_alarm},
    {"data/debug/voltageLowWarningThreshold", monitor::voltage, th::low_warning},
    {"data/debug/txBiasHighAlarmThreshold", monitor::bias, th::high_alarm},
    {"data/debug/txBiasHighWarningThreshold", monitor::bias, th::high_warning},
    {"data/debug/txBiasLowAlarmThreshold", monitor::bias, th::low_alarm},
    {"data/debug/txBiasLowWarningThreshold", monitor::bias, th::low_warning},
    {"data/debug/txPowerHighAlarmThreshold", monitor::tx_power, th::high_alarm},
    {"data/debug/txPowerHighWarningThreshold", monitor::tx_power, th::high_warning},
    {"data/debug/txPowerLowAlarmThreshold", monitor::tx_power, th::low_alarm},
    {"data/debug/txPowerLowWarningThreshold", monitor::tx_power, th::low_warning},
    {"data/debug/rxPowerHighWarningThreshold", monitor::rx_power, th::high_warning},
}};

// Client PM nodes of one host lane: name and counter, "PerSec" and "Accumulated" each.
struct pm_node {
    const char* name;
    qsfp_dd_coherent_device_handler::pm_counter which;
};
constexpr std::array<pm_node, 4> pm_nodes = {{
    {"txBitsPm", qsfp_dd_coherent_device_handler::pm_counter::tx_bits},
    {"txCorrBitsPm", qsfp_dd_coherent_device_handler::pm_counter::tx_corr_bits},
    {"txFramesPm", qsfp_dd_coherent_device_handler::pm_counter::tx_frames},
    {"txUncorrFramesPm", qsfp_dd_coherent_device_handler::pm_counter::tx_uncorr_frames},
}};

// Bounds and output powers: 0.01 dB register units shown to 0.1 dB.
float tenth_db(std::int16_t raw) {
    return static_cast<float>(std::round(raw / 100.0 * 10.0) / 10.0);
}

std::string stream_text(float v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

double seconds_between(qsfpd::clock::time_point from, qsfpd::clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

qsfp_dd_coherent_device_handler::qsfp_dd_coherent_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock, std::string log_source)
    : qsfp_dd_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                             std::move(vendor), std::move(part_number), std::move(part_name),
                             std::move(description), flags, "optical", unit, num_units, clock),
      log_source_(std::move(log_source)),
      alarms_(1, 99.0, clock) {
    auto lock = lock_handler();
    module_access([&] {
        // The module says itself what it lets the host set: the DSP's capability byte for the
        // custom RX power alarm thresholds, and a non-empty programmable range of page 04h for
        // the output power.
        rx_pwr_alarm_custom_supported_ =
            (reg_map_->get_dd_dsp_capabilities() & custom_thresholds_capability) != 0;
        tx_power_settable_ =
            reg_map_->get_dd_support_laser_capabilities() &&
            reg_map_->get_dd_min_tx_prog_out_pwr() < reg_map_->get_dd_max_tx_prog_out_pwr();
    });
}

void qsfp_dd_coherent_device_handler::read_line_shape() {
    auto lock = lock_handler();
    // The lanes of the running application, once the base has decoded the advertisement.
    module_access([&] {
        const auto& app = _get_current_application_info();
        media_lanes_ = static_cast<std::uint8_t>(std::clamp<unsigned>(app.media_lane_count, 1, 8));
        host_lanes_ = std::clamp<unsigned>(app.host_lane_count, 1, 8);
        bias_multiplier_ = reg_map_->get_dd_tx_bias_multiplier();
    });
    alarms_ = optical_alarms(media_lanes_, -std::numeric_limits<double>::infinity(), clock_);
    prbs_ = std::make_unique<prbs_test>(
        reg_map_, [this] { return lock_handler(); }, clock_, media_lanes_);
}

qsfp_dd_coherent_device_handler::~qsfp_dd_coherent_device_handler() = default;

void qsfp_dd_coherent_device_handler::counter_rate::take(std::uint64_t value, double seconds) {
    if (seen) {
        // A counter only grows until the module restarts it: then the new value is the increase.
        const std::uint64_t delta = value >= last ? value - last : value;
        accumulated += delta;
        if (seconds > 0) per_sec = static_cast<std::uint64_t>(static_cast<double>(delta) / seconds);
    }
    last = value;
    seen = true;
}

// --- Node groups --------------------------------------------------------------------------------

void qsfp_dd_coherent_device_handler::add_head_nodes() {
    read_line_shape();
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::get_fake_temperature>::create(
        db_, path("data/debug/fakeTemperature"), self));
    group_node(config_param<&self_type::set_fake_temperature>::create(
        db_, path("config/debug/fakeTemperature"), self));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_trx_temperature>>::
            create(db_, path("data/temperature"), self, 0.5, 0.1));
    group_node(volatile_value<&self_type::get_trx_temperature_margin>::create(
        db_, path("data/temperatureMargin"), self));
    group_node(config_param<&self_type::set_tx_enable_setting>::create(
                   db_, path("settings/txEnable"), self))
        ->set_value(get_tx_enable());
    group_node(
        volatile_value<&self_type::get_module_state>::create(db_, path("data/moduleState"), self));
    const auto severity = [&](const std::string& p) {
        return group_node(status_value<int>::create(db_, path(p), self, 0));
    };
    optical_alarms::nodes alarm_nodes;
    alarm_nodes.tx_fault = severity("alarms/txFault/severity");
    alarm_nodes.los = severity("alarms/lossOfSignal/severity");
    alarm_nodes.lol = severity("alarms/lossOfLock/severity");
    alarm_nodes.temperature = severity("alarms/temperature/severity");
    alarm_nodes.high_temp_shutdown = severity("alarms/highTemperatureShutdown/severity");
    prbs_->attach(severity("alarms/prbs/severity"));
    rx_low_alarm_ = severity("alarms/rxLowPower/severity");
    rx_high_alarm_ = severity("alarms/rxHighPower/severity");
    for (unsigned lane = 0; lane < media_lanes_; ++lane)
        alarm_nodes.lane_los.push_back(
            severity(fmt::format("alarms/lane/{}/lossOfSignal/severity", lane + 1)));
    {
        auto lock = lock_handler();
        alarms_.attach(std::move(alarm_nodes));
    }
    group_node(command<&self_type::set_restart>::create(db_, path("command/restart"), self));
}

void qsfp_dd_coherent_device_handler::add_line_power_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_rx_signal_power>>::
            create(db_, path("data/rxSignalPower"), self, 0.29, 0.09));
    group_node(hysteresis_filtered_value<polled_volatile_value_impl<
                   &self_type::get_channel_actual_tx_power>>::create(db_, path("data/txPower"),
                                                                     self, 0.29, 0.09, 0u));
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_channel_tx_bias>>::
            create(db_, path("data/txBias"), self, 3.0, 1.0, 0u));
    for (unsigned lane = 0; lane < media_lanes_; ++lane) {
        const std::string debug = fmt::format("data/debug{}/", lane);
        group_node(volatile_value<&self_type::get_channel_tx_fault>::create(
            db_, path(debug + "txFault"), self, lane));
        group_node(volatile_value<&self_type::get_channel_los>::create(db_, path(debug + "los"),
                                                                       self, lane));
        group_node(volatile_value<&self_type::get_channel_lol>::create(db_, path(debug + "lol"),
                                                                       self, lane));
    }
}

void qsfp_dd_coherent_device_handler::add_pulse_shaping_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(config_param<&self_type::set_enable_pulse_shaping>::create(
        db_, path("config/pulseShaping"), self));
    group_node(volatile_value<&self_type::get_pulse_shaping>::create(db_, path("data/pulseShaping"),
                                                                     self));
}

void qsfp_dd_coherent_device_handler::add_module_threshold_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(
        volatile_value<&self_type::get_trx_voltage>::create(db_, path("data/debug/voltage"), self));
    for (unsigned i = 0; i < threshold_nodes.size(); ++i)
        group_node(volatile_value<&self_type::get_module_threshold>::create(
            db_, path(threshold_nodes[i].path), self, i));
    const double high_alarm = power_register("get_trx_rx_power_high_alarm_th", [&] {
        return reg_map_->get_dd_rx_power_threshold(threshold::high_alarm);
    });
    rx_high_alarm_threshold_node_ = keep_node(status_value<double>::create(
        db_, path("data/rxPowerHighAlarmThreshold"), self, high_alarm));
    rx_low_alarm_threshold_node_ = keep_node(
        status_value<double>::create(db_, path("data/debug/rxPowerLowAlarmThreshold"), self, 0.0));
    rx_low_warning_threshold_node_ = keep_node(status_value<double>::create(
        db_, path("data/debug/rxPowerLowWarningThreshold"), self, 0.0));
    rx_sensitivity_node_ =
        keep_node(status_value<double>::create(db_, path("data/rxSensitivity"), self, 0.0));
    rx_los_threshold_node_ =
        keep_node(status_value<double>::create(db_, path("data/rxLosThreshold"), self, 0.0));
    publish_rate_thresholds();
}

void qsfp_dd_coherent_device_handler::add_total_rx_power_node() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_total_rx_power>>::
            create(db_, path("data/rxPower"), self, 0.29, 0.09));
}

void qsfp_dd_coherent_device_handler::add_tuning_nodes(std::vector<std::string> applications) {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::get_num_active_clients>::create(
        db_, path("data/numActiveClients"), self));
    group_node(
        volatile_value<&self_type::get_grid_spacing>::create(db_, path("data/gridSpacing"), self));
    group_node(
        config_param<&self_type::set_grid_spacing>::create(db_, path("config/gridSpacing"), self));
    group_node(
        volatile_value<&self_type::get_current_freq>::create(db_, path("data/frequency"), self));
    group_node(
        volatile_value<&self_type::get_max_freq>::create(db_, path("data/maxFrequency"), self));
    group_node(
        volatile_value<&self_type::get_min_freq>::create(db_, path("data/minFrequency"), self));
    group_node(
        volatile_value<&self_type::get_channel_id>::create(db_, path("data/channelId"), self));
    group_node(
        config_param<&self_type::set_frequency>::create(db_, path("config/frequency"), self));
    group_node(config_param<&self_type::set_so_channel_number>::create(
        db_, path("config/wavelengthITU"), self));
    group_node(config_param<&self_type::set_application>::create(db_, path("config/application"),
                                                                 self, std::move(applications)))
        ->set_value(get_application());
    group_node(
        volatile_value<&self_type::get_application>::create(db_, path("data/application"), self));
}

void qsfp_dd_coherent_device_handler::add_q_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::get_q_value>::create(db_, path("data/qValue"), self));
    group_node(volatile_value<&self_type::get_q_margin>::create(db_, path("data/qMargin"), self));
    group_node(
        volatile_value<&self_type::get_active_cd_lo_search>::create(db_, path("data/cdLow"), self));
    group_node(volatile_value<&self_type::get_active_cd_hi_search>::create(db_, path("data/cdHigh"),
                                                                           self));
}

void qsfp_dd_coherent_device_handler::add_fec_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::get_fec_total_bits>::create(
        db_, path("data/fec/totalBits"), self));
    group_node(command<&self_type::set_fec_counters_reset>::create(
        db_, path("command/clearFecStats"), self));
    group_node(volatile_value<&self_type::get_fec_corrected_bits>::create(
        db_, path("data/fec/correctedBitErrors"), self));
    group_node(volatile_value<&self_type::get_fec_uncorrected_blocks>::create(
        db_, path("data/fec/uncorrectedBlockErrors"), self));
    group_node(volatile_value<&self_type::get_corrected_bit_errors_per_sec>::create(
        db_, path("data/fec/correctedBitErrorsPerSec"), self));
    group_node(volatile_value<&self_type::get_uncorrected_block_errors_per_sec>::create(
        db_, path("data/fec/uncorrectedBlockErrorsPerSec"), self));
    for (unsigned lane = 0; lane < host_lanes_; ++lane) {
        const std::string base = fmt::format("data/debugPM/lane/{}/", lane + 1);
        for (const auto& pm : pm_nodes) {
            group_node(volatile_value<&self_type::get_client_pm_per_sec>::create(
                db_, path(base + pm.name + "PerSec"), self, lane, pm.which));
            group_node(volatile_value<&self_type::get_client_pm_accumulated>::create(
                db_, path(base + pm.name + "Accumulated"), self, lane, pm.which));
        }
    }
    group_node(volatile_value<&self_type::get_application_details>::create(
        db_, path("data/appDetails"), self));
}

void qsfp_dd_coherent_device_handler::add_custom_threshold_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    const auto value = [&]<auto Getter>(const char* p) {
        group_node(volatile_value<Getter>::create(db_, path(p), self));
    };
    value.operator()<&self_type::get_rx_los_total_pwr_max_threshold>(
        "data/rxTotalPwrLosMaxCustomThreshold");
    value.operator()<&self_type::get_rx_los_total_pwr_min_threshold>(
        "data/rxTotalPwrLosMinCustomThreshold");
    value.operator()<&self_type::get_rx_total_pwr_low_alarm_max_threshold>(
        "data/rxTotalPwrLowAlarmMaxCustomThreshold");
    value.operator()<&self_type::get_rx_total_pwr_low_alarm_min_threshold>(
        "data/rxTotalPwrLowAlarmMinCustomThreshold");
    value.operator()<&self_type::get_rx_total_pwr_high_alarm_max_threshold>(
        "data/rxTotalPwrHighAlarmMaxCustomThreshold");
    value.operator()<&self_type::get_rx_total_pwr_high_alarm_min_threshold>(
        "data/rxTotalPwrHighAlarmMinCustomThreshold");
    value.operator()<&self_type::get_rx_signal_pwr_low_alarm_max_threshold>(
        "data/rxSignalPwrLowAlarmMaxCustomThreshold");
    value.operator()<&self_type::get_rx_signal_pwr_low_alarm_min_threshold>(
        "data/rxSignalPwrLowAlarmMinCustomThreshold");
    value.operator()<&self_type::get_rx_signal_pwr_high_alarm_max_threshold>(
        "data/rxSignalPwrHighAlarmMaxCustomThreshold");
    value.operator()<&self_type::get_rx_signal_pwr_high_alarm_min_threshold>(
        "data/rxSignalPwrHighAlarmMinCustomThreshold");
    value.operator()<&self_type::get_rx_los_total_pwr_original_threshold>(
        "data/rxLosOriginalThreshold");
    const auto pair = [&]<auto Setter, auto Getter>(const char* config, const char* data) {
        group_node(config_param<Setter>::create(db_, path(config), self));
        group_node(volatile_value<Getter>::create(db_, path(data), self));
    };
    pair.operator()<&self_type::set_rx_los_custom_threshold_enabled,
                    &self_type::get_rx_los_custom_threshold_enabled>(
        "config/rxLosCustomThresholdEnabled", "data/rxLosCustomThresholdEnabled");
    pair.
    operator()<&self_type::set_rx_los_custom_threshold, &self_type::get_rx_los_custom_threshold>(
        "config/rxLosCustomThreshold", "data/rxLosCustomThreshold");
    pair.operator()<&self_type::set_rx_los_custom_threshold_enabled_total_pwr,
                    &self_type::get_rx_los_custom_threshold_enabled_total_pwr>(
        "config/debug/rxLosCustomThresholdEnabledTotalPwr",
        "data/debug/rxLosCustomThresholdEnabledTotalPwr");
    pair.operator()<&self_type::set_rx_los_custom_threshold_total_pwr,
                    &self_type::get_rx_los_custom_thresholdTotalPwr>(
        "config/debug/rxLosCustomThresholdTotalPwr", "data/debug/rxLosCustomThresholdTotalPwr");
    pair.operator()<&self_type::set_rx_los_custom_threshold_signal_pwr,
                    &self_type::get_rx_los_custom_threshold_signal>(
        "config/debug/rxLosCustomThresholdSignalPwr", "data/debug/rxLosCustomThresholdSignal");
    pair.operator()<&self_type::set_rx_los_custom_threshold_enabled_dh,
                    &self_type::get_rx_los_custom_threshold_enabled_dh>(
        "config/debug/rxLosCustomThresholdEnabledDH", "data/debug/rxLosCustomThresholdEnabledDH");
    pair.operator()<&self_type::set_rx_los_custom_threshold_dh,
                    &self_type::get_rx_los_custom_threshold_dh>(
        "config/debug/rxLosCustomThresholdDH", "data/debug/rxLosCustomThresholdDH");
    value.operator()<&self_type::get_rx_pwr_alarm_custom_threshold_supported>(
        "data/debug/rxPwrAlarmCustomSupported");
    pair.operator()<&self_type::set_rx_pwr_alarm_custom_threshold_enabled,
                    &self_type::get_rx_pwr_alarm_custom_threshold_enabled>(
        "config/rxPwrAlarmCustomEnabled", "data/rxPwrAlarmCustomEnabled");
    pair.operator()<&self_type::set_rx_total_pwr_high_alarm_custom_threshold,
                    &self_type::get_rx_total_pwr_high_alarm_custom_threshold>(
        "config/rxToTalHighAlarmCustomThreshold", "data/rxToTalHighAlarmCustomThreshold");
    pair.operator()<&self_type::set_rx_total_pwr_low_alarm_custom_threshold,
                    &self_type::get_rx_total_pwr_low_alarm_custom_threshold>(
        "config/rxToTalLowAlarmCustomThreshold", "data/rxToTalLowAlarmCustomThreshold");
    pair.operator()<&self_type::set_rx_signal_pwr_high_alarm_custom_threshold,
                    &self_type::get_rx_signal_pwr_high_alarm_custom_threshold>(
        "config/rxSignalHighAlarmCustomThreshold", "data/rxSignalHighAlarmCustomThreshold");
    pair.operator()<&self_type::set_rx_signal_pwr_low_alarm_custom_threshold,
                    &self_type::get_rx_signal_pwr_low_alarm_custom_threshold>(
        "config/rxSignalLowAlarmCustomThreshold", "data/rxSignalLowAlarmCustomThreshold");
    // Pushed by the alarm setters when they move a warning; read from the module at start.
    signal_high_warning_node_ = keep_node(
        status_value<float>::create(db_, path("data/rxSignalHighWarnAlarmCustomThreshold"), self,
                                    get_rx_signal_pwr_high_warn_alarm_custom_threshold()));
    signal_low_warning_node_ = keep_node(
        status_value<float>::create(db_, path("data/rxSignalLowWarnAlarmCustomThreshold"), self,
                                    get_rx_signal_pwr_low_warn_alarm_custom_threshold()));
}

void qsfp_dd_coherent_device_handler::add_tx_power_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::tx_power_settable>::create(
        db_, path("data/txPowerSettable"), self));
    group_node(volatile_value<&self_type::get_tx_max_power>::create(
        db_, path("data/maxOutputPower"), self));
    group_node(volatile_value<&self_type::get_tx_min_power>::create(
        db_, path("data/minOutputPower"), self));
    group_node(config_param<&self_type::set_tx_target_output_power>::create(
        db_, path("config/txTargetOutputPower"), self));
    group_node(volatile_value<&self_type::get_tx_target_output_power>::create(
        db_, path("data/txTargetOutputPower"), self));
}

void qsfp_dd_coherent_device_handler::add_admin_and_prbs_nodes() {
    using self_type = qsfp_dd_coherent_device_handler;
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::get_port_admin_status>::create(
        db_, path("data/adminStatus"), self));
    group_node(command<&self_type::prbs_start>::create(db_, path("command/prbs/start"), self));
    group_node(command<&self_type::prbs_reset>::create(db_, path("command/prbs/reset"), self));
    group_node(
        config_param<&self_type::set_prbs_time>::create(db_, path("config/prbs/time"), self));
    group_node(
        config_param<&self_type::set_prbs_pattern>::create(
            db_, path("config/prbs/pattern"), self, {}, std::string(prbs_test::default_pattern)))
        ->set_value(prbs_test::default_pattern);
    group_node(
        volatile_value<&self_type::get_prbs_info>::create(db_, path("data/prbs/info"), self));
}

void qsfp_dd_coherent_device_handler::add_laser_page_dump() {
    {
        auto lock = lock_handler();
        add_page_advertisement(0x04, 0, "Laser Capabilities Advertising", "1 of 1");
    }
    group_node(volatile_value<&qsfp_device_handler::get_page_dump>::create(
        db_, path("data/pageDump/upperPage/4"), shared_from_this(), 4u,
        std::string("Laser Capabilities Advertising")));
}

void qsfp_dd_coherent_device_handler::finish_start(const std::string& inventory_name,
                                                   bool start_polling) {
    const auto self = shared_from_this();
    keep_node(const_value<std::string>::create(db_, path("inventory/device_handler"), self,
                                               inventory_name));
    oper_status_node_ =
        keep_node(status_value<std::string>::create(db_, path("data/operStatus"), self, "down"));
    {
        auto lock = lock_handler();
        module_access([&] {
            // A module already running (the daemon restarted) keeps running untouched.
            warm_started_ = (reg_map_->get_dd_mod_state() >> 1 & 0x07) ==
                            static_cast<unsigned>(cmis_module_state::ready);
        });
        admin_up_ = warm_started_;
        _adopt_port_admin_status(admin_up_);
        // Down means held in low power: a module that powered up on its own before anyone
        // asserted the line is held there until the port is set up.
        if (!warm_started_) module_access([&] { assert_low_power_pin(true); });
        MSG_LOG(msg_log::info, init_tag())
            << (warm_started_ ? "QSFP optical device handler warm started successfully for "
                              : "QSFP optical device handler cold started successfully for ")
            << module_name();
        oper_status_node_->update(warm_started_ ? "up" : "down");
    }
    keep_node(
        const_value<bool>::create(db_, path("data/debug/isWarmStarted"), self, warm_started_));
    if (start_polling) activate_value_group();
    set_dh_ready(true);
}

void qsfp_dd_coherent_device_handler::advertise_single_lane_pages(bool vdm) {
    auto lock = lock_handler();
    clear_page_advertisement();
    add_page_advertisement(0x00, 0, "Administrative Information", "1 of 1");
    add_page_advertisement(0x01, 0, "Advertising", "1 of 1");
    add_page_advertisement(0x02, 0, "Thresholds Information", "1 of 1");
    add_page_advertisement(0x04, 0, "Laser Capabilities Advertising", "1 of 1");
    add_page_advertisement(0x10, 0, "Lane and Data Path Control", "1 of 1");
    add_page_advertisement(0x11, 0, "Lane and Data Path Status", "1 of 1");
    add_page_advertisement(0x12, 0, "Tuneable Laser Control and Status", "1 of 1");
    if (vdm) add_page_advertisement(0x2F, 0, "VDM Advertisement and Control", "1 of 1");
}

// --- Low-power handling -------------------------------------------------------------------------

void qsfp_dd_coherent_device_handler::assert_low_power_pin(bool on) {
    if (on && !reg_map_->get_dd_low_pwr_allow_request_hw())
        reg_map_->set_dd_low_pwr_allow_request_hw(true);  // else the module ignores the line
    device_->pin_set(qsfpd::cage::line::lpmode, on);
}

void qsfp_dd_coherent_device_handler::release_pin_if_admin_up() {
    if (admin_up_) device_->pin_set(qsfpd::cage::line::lpmode, false);
}

bool qsfp_dd_coherent_device_handler::in_low_power() {
    return (reg_map_->get_dd_mod_state() >> 1 & 0x07) ==
           static_cast<unsigned>(cmis_module_state::low_pwr);
}

bool qsfp_dd_coherent_device_handler::wait_low_power_reads(unsigned reads) {
    // The read that reaches the limit counts as a timeout, even when it shows low power.
    for (unsigned read = 1;; ++read) {
        clock_->sleep_for(poll_step);
        const bool low = in_low_power();
        if (read >= reads) return false;
        if (low) return true;
    }
}

// --- Tuning -------------------------------------------------------------------------------------

void qsfp_dd_coherent_device_handler::set_frequency(double mhz) {
    auto lock = lock_handler();
    read_for("set_frequency", [&] {
        const float grid = reg_map_->get_dd_grid_spacing();
        const auto* entry = coherent::find_grid(grid);
        // A frequency off the module's range or off the grid would be written as some other
        // channel: refused before anything moves.
        if (entry != nullptr && std::abs(mhz - reg_map_->get_dd_current_freq()) > 0.5) {
            const double step_mhz = entry->step_thz * 1e6;
            const double steps = (mhz - 193'100'000.0) / step_mhz;
            const bool on_grid = std::abs(steps - std::round(steps)) * step_mhz < 1.0;
            if (!on_grid || mhz < reg_map_->get_dd_min_freq(grid) ||
                mhz > reg_map_->get_dd_max_freq(grid))
                throw dh_error(dh::errc::invalid, "Channel or frequency is not on grid");
        }
        _set_frequency(mhz);
    });
}

void qsfp_dd_coherent_device_handler::_set_frequency(double mhz, bool force) {
    if (!force && mhz == static_cast<double>(reg_map_->get_dd_current_freq())) return;
    MSG_LOG(msg_log::info, config_tag())
        << "Setting frequency to " << fmt::format("{}", mhz) << " on " << module_name();
    assert_low_power_pin(true);
    if (!wait_low_power_reads(low_power_reads)) {
        release_pin_if_admin_up();
        throw dh_error(dh::errc::invalid, "Setting high power mode timeout.");
    }
    const float grid = reg_map_->get_dd_grid_spacing();
    const auto* entry = coherent::find_grid(grid);
    if (entry == nullptr) {
        MSG_LOG(msg_log::error, config_tag()) << "Illegal grid spacing: " << grid;
        throw dh_error(dh::errc::invalid, "Failed to set frequency.");
    }
    discard_stale_tuning_flags();
    reg_map_->set_dd_media_tx_1_chan_nbr(coherent::frequency_channel(mhz, *entry));
    MSG_LOG(msg_log::info, config_tag())
        << "Set frequency: " << fmt::format("{:f}", mhz) << " at grid spacing: " << grid;
    unsigned reads = 0;
    bool complete = false;
    while (!complete && reads < tuning_reads) {
        clock_->sleep_for(poll_step);
        ++reads;
        complete = (reg_map_->get_dd_tuning_flags() & 0x01) != 0 && reads < tuning_reads;
    }
    release_pin_if_admin_up();
    if (!complete)
        MSG_LOG(msg_log::warning, config_tag()) << "Tuning frequency not finished within 3 seconds";
    configured_frequency_ = mhz;
}

void qsfp_dd_coherent_device_handler::discard_stale_tuning_flags() {
    // The flags stay latched until read: the completion of an earlier tuning (the previous
    // setting, the line restore of an admin up) would end the next wait at its first read, with
    // the laser still moving. Reading byte 231 clears it and the summary of byte 230.
    static_cast<void>(reg_map_->get_dd_tuning_flags());
}

void qsfp_dd_coherent_device_handler::set_so_channel_number(double channel) {
    auto lock = lock_handler();
    read_for("set_so_channel_number", [&] {
        const long c = static_cast<long>(channel);
        if (c == coherent::itu_channel_of(reg_map_->get_dd_current_freq())) return;
        const float grid = reg_map_->get_dd_grid_spacing();
        if (c < coherent::itu_channel_of(reg_map_->get_dd_min_freq(grid)) ||
            c > coherent::itu_channel_of(reg_map_->get_dd_max_freq(grid)))
            throw dh_error(dh::errc::invalid, "Channel or frequency is not on grid");
        MSG_LOG(msg_log::info, config_tag())
            << "Setting wavelength to " << c << " on " << module_name();
        assert_low_power_pin(true);
        bool low = false;
        for (unsigned tries = 0; tries < itu_low_power_tries && !low; ++tries) {
            clock_->sleep_for(poll_step);
            low = in_low_power();
        }
        if (!low) {
            device_->pin_set(qsfpd::cage::line::lpmode, false);
            throw dh_error(dh::errc::invalid, "Setting high power mode timeout");
        }
        const auto grid_mhz = static_cast<int>(reg_map_->get_dd_grid_spacing() * 1000);
        discard_stale_tuning_flags();
        reg_map_->set_dd_media_tx_1_chan_nbr(coherent::itu_channel_number(c, grid_mhz));
        bool complete = false;
        unsigned reads = 0;
        while (!complete && reads < tuning_reads) {
            clock_->sleep_for(poll_step);
            ++reads;
            complete = (reg_map_->get_dd_tuning_flag_summary() & 0x01) != 0 && reads < tuning_reads;
        }
        device_->pin_set(qsfpd::cage::line::lpmode, false);
        if (!complete) throw dh_error(dh::errc::invalid, "Tuning timeout");
    });
}

void qsfp_dd_coherent_device_handler::set_grid_spacing(float ghz) {
    auto lock = lock_handler();
    read_for("set_grid_spacing", [&] {
        if (ghz == reg_map_->get_dd_grid_spacing()) return;
        const auto* entry = coherent::find_grid(ghz);
        if (entry == nullptr) throw dh_error(dh::errc::invalid, "Invalid grid spacing");
        if (!(reg_map_->get_dd_laser_grids_adver() & entry->advertisement_mask))
            throw dh_error(dh::errc::invalid, "Requested Grid not supported");
        MSG_LOG(msg_log::info, config_tag())
            << "Setting grid spacing to " << ghz << " on " << module_name();
        assert_low_power_pin(true);
        if (!wait_low_power_reads(low_power_reads)) {
            release_pin_if_admin_up();
            throw dh_error(dh::errc::invalid, "Setting high power mode timeout");
        }
        reg_map_->set_dd_grid_spacing(ghz);
        if (configured_frequency_) {
            MSG_LOG(msg_log::info, config_tag())
                << "Re-calculation of frequency: " << fmt::format("{:f}", *configured_frequency_)
                << " gridSpacing: " << ghz;
            _set_frequency(*configured_frequency_, true);
        }
        release_pin_if_admin_up();
    });
}

float qsfp_dd_coherent_device_handler::get_grid_spacing() {
    auto lock = lock_handler();
    return read_for("get_grid_spacing", [&] { return reg_map_->get_dd_grid_spacing(); });
}

unsigned qsfp_dd_coherent_device_handler::get_current_freq() {
    auto lock = lock_handler();
    return read_for("get_current_freq", [&] { return reg_map_->get_dd_current_freq(); });
}

unsigned qsfp_dd_coherent_device_handler::get_max_freq() {
    auto lock = lock_handler();
    return read_for("get_max_freq",
                    [&] { return reg_map_->get_dd_max_freq(reg_map_->get_dd_grid_spacing()); });
}

unsigned qsfp_dd_coherent_device_handler::get_min_freq() {
    auto lock = lock_handler();
    return read_for("get_min_freq",
                    [&] { return reg_map_->get_dd_min_freq(reg_map_->get_dd_grid_spacing()); });
}

std::string qsfp_dd_coherent_device_handler::get_channel_id() {
    auto lock = lock_handler();
    const unsigned f = read_for("get_channel_id", [&] { return reg_map_->get_dd_current_freq(); });
    if (f < 10000) return "n/a";
    std::string id = fmt::format("{}", f / 10000);
    id[0] = 'D';
    return id;
}

std::optional<double> qsfp_dd_coherent_device_handler::configured_frequency() const {
    auto lock = lock_handler();
    return configured_frequency_;
}

// --- Application --------------------------------------------------------------------------------

unsigned qsfp_dd_coherent_device_handler::current_bitrate() {
    return _get_current_bitrate();
}

double qsfp_dd_coherent_device_handler::rx_low_alarm_threshold(unsigned gbps) const {
    return rx_los_custom_threshold_enabled_ ? rx_los_custom_threshold_
                                            : coherent::thresholds_of_rate(gbps).los;
}

void qsfp_dd_coherent_device_handler::publish_rate_thresholds(std::optional<unsigned> gbps) {
    auto lock = lock_handler();
    const unsigned rate =
        gbps ? *gbps : read_for("get_current_bitrate", [&] { return current_bitrate(); });
    const auto t = coherent::thresholds_of_rate(rate);
    rate_ = rate;
    if (rx_low_alarm_threshold_node_)
        rx_low_alarm_threshold_node_->update(rx_low_alarm_threshold(rate));
    if (rx_low_warning_threshold_node_) rx_low_warning_threshold_node_->update(t.low_warning);
    if (rx_sensitivity_node_) rx_sensitivity_node_->update(t.low_warning);
    if (rx_los_threshold_node_) rx_los_threshold_node_->update(t.los);
}

void qsfp_dd_coherent_device_handler::set_application_code(const rapidjson::Document& document) {
    MSG_LOG(msg_log::info, config_tag()) << "Called " << log_source_ << " set_application_code";
    qsfp_dd_device_handler::set_application_code(document);
    publish_rate_thresholds();
}

void qsfp_dd_coherent_device_handler::set_application(std::string name) {
    const unsigned rate = static_cast<unsigned>(std::atoi(name.c_str()));
    select_application(name,
                       [&](const applicationList_t& app) { return app.media.Bitrate == rate; });
}

void qsfp_dd_coherent_device_handler::select_application(
    const std::string& name, const std::function<bool(const applicationList_t&)>& wanted) {
    auto lock = lock_handler();
    const auto map = application_map();
    const applicationList_t* chosen = nullptr;
    for (const auto& [number, app] : map)
        if (!chosen && wanted(app)) chosen = &app;
    if (chosen == nullptr)
        throw dh_error(dh::errc::invalid, "Application " + name + " is not offered by " +
                                              read_for("get_free_side_vendor_pn", [&] {
                                                  return reg_map_->get_free_side_vendor_pn();
                                              }));
    if (read_for("get_application_number", [&] { return _get_application_number(); }) ==
        chosen->app_sel)
        return;
    MSG_LOG(msg_log::info, config_tag())
        << "Setting application mode to " << name << " on " << module_name();
    read_for("set_application", [&] {
        assert_low_power_pin(true);
        if (!wait_low_power_reads(low_power_reads)) {
            release_pin_if_admin_up();
            throw dh_error(dh::errc::invalid, "Setting low power mode timeout");
        }
        try {
            reg_map_->set_dd_app(static_cast<std::uint8_t>(chosen->app_sel), name);
        } catch (...) {
            release_pin_if_admin_up();
            throw;
        }
        release_pin_if_admin_up();
        // Running, the module must show the new application; held in low power it runs it
        // once the port comes up.
        if (admin_up_) check_application_taken(chosen->app_sel);
    });
    publish_rate_thresholds(chosen->media.Bitrate);
}

std::string qsfp_dd_coherent_device_handler::get_application() {
    auto lock = lock_handler();
    const unsigned rate = read_for("get_application", [&] { return current_bitrate(); });
    switch (rate) {
        case 100:
        case 200:
        case 300:
        case 400:
            return fmt::format("{}G", rate);
        default:
            return "n/a";
    }
}

dh::api::json_object qsfp_dd_coherent_device_handler::get_application_details() {
    auto lock = lock_handler();
    return read_for("get_application_details", [&] {
        const auto& app = _get_current_application_info();
        const bool shaping = reg_map_->get_dd_pulse_shaping();
        rapidjson::StringBuffer out;
        rapidjson::Writer<rapidjson::StringBuffer> w(out);
        w.StartObject();
        w.Key("description");
        w.String(app.media.Interface.c_str());
        w.Key("mediaFormat");
        w.String(app.media.FEC.c_str());
        w.Key("modulation");
        w.String(app.media.Modulation.c_str());
        w.Key("bitrate");
        w.Uint(app.media.Bitrate);
        w.Key("pulseShaping");
        w.String(shaping ? "enabled" : "disabled");
        w.Key("enhancedMode");
        w.String(app.media.EnhancedMode.c_str());
        w.EndObject();
        return dh::api::json_object{out.GetString()};
    });
}

unsigned qsfp_dd_coherent_device_handler::get_num_active_clients() {
    auto lock = lock_handler();
    return read_for("get_num_active_clients", [&] { return _count_active_clients(); });
}

// --- Pulse shaping, transmitter, restart --------------------------------------------------------

void qsfp_dd_coherent_device_handler::set_enable_pulse_shaping(bool enable) {
    auto lock = lock_handler();
    read_for("set_enable_pulse_shaping", [&] {
        if (current_bitrate() == 100 && !enable)
            throw dh_error(dh::errc::invalid,
                           "Pulse shaping can't be disabled in 100G application");
        if (reg_map_->get_dd_pulse_shaping() == enable) {
            MSG_LOG(msg_log::info, config_tag()) << "No action: pulseshaping is already set to "
                                                 << enable << " on " << module_name();
            return;
        }
        MSG_LOG(msg_log::info, config_tag())
            << "Setting pulseshaping to " << enable << " on " << module_name();
        reg_map_->set_dd_pulse_shaping(enable);
        constexpr unsigned polls = data_path_ready_seconds * 1000 / poll_step.count();
        bool ready = reg_map_->is_dp_all_lanes_ready_for_apply();
        for (unsigned i = 0; i < polls && !ready; ++i) {
            clock_->sleep_for(poll_step);
            ready = reg_map_->is_dp_all_lanes_ready_for_apply();
        }
        if (!ready) {
            MSG_LOG(msg_log::error, config_tag())
                << "Data path state is not ready after " << data_path_ready_seconds
                << " seconds on " << module_name();
            throw dh_error(dh::errc::invalid, "Timeout, please try again!");
        }
        reg_map_->set_dd_apply_dp_init(0xFF);
    });
}

std::string qsfp_dd_coherent_device_handler::get_pulse_shaping() {
    auto lock = lock_handler();
    return read_for("get_pulse_shaping",
                    [&] { return reg_map_->get_dd_pulse_shaping() ? "enabled" : "disabled"; });
}

void qsfp_dd_coherent_device_handler::set_tx_enable_setting(bool enable) {
    set_tx_enable(enable);
}

bool qsfp_dd_coherent_device_handler::get_tx_enable() {
    return get_tx_enabled();
}

bool qsfp_dd_coherent_device_handler::set_restart(const bool& /*restart*/) {
    auto lock = lock_handler();
    MSG_LOG(msg_log::info, config_tag()) << "Restarting data path " << module_name();
    // Deinit and re-init of every data path: the traffic restarts on the same settings.
    read_for("set_restart", [&] {
        reg_map_->set_dd_dp_deinit(0xFF);
        reg_map_->set_dd_dp_deinit(0x00);
    });
    return true;
}

std::string qsfp_dd_coherent_device_handler::get_module_state() {
    auto lock = lock_handler();
    return read_for("get_module_state", [&] {
        return std::string(state_names[reg_map_->get_dd_mod_state() >> 1 & 0x07]);
    });
}

std::string qsfp_dd_coherent_device_handler::get_nominal_laser_wavelength() {
    auto lock = lock_handler();
    // A tunable laser's wavelength is its frequency's: c / f, in nm to 0.01.
    const unsigned f =
        read_for("get_nominal_laser_wavelength", [&] { return reg_map_->get_dd_current_freq(); });
    if (f == 0) return "n/a";
    return fmt::format("{:.2f}", 299'792'458.0 / (f * 1e6) * 1e9);
}

// --- Admin status -------------------------------------------------------------------------------

void qsfp_dd_coherent_device_handler::set_port_admin_status(std::string status) {
    auto lock = lock_handler();
    const std::string tag = config_tag();
    if (status == "down") {
        if (!admin_up_) {
            MSG_LOG(msg_log::info, tag)
                << "Setting adminstatus down but adminstatus is already down, do nothing. "
                << module_name();
            return;
        }
        MSG_LOG(msg_log::info, tag) << "Setting adminstatus down " << module_name();
        admin_up_ = false;
        _adopt_port_admin_status(false);
        module_access([&] { assert_low_power_pin(true); });
        if (oper_status_node_) oper_status_node_->update("down");
        return;
    }
    if (status != "up") {
        const std::string text = "Illegal parameter admin status: " + status;
        MSG_LOG(msg_log::warning, tag) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    const std::string state = get_module_state();
    if (admin_up_ && (state == "Power up" || state == "Ready")) {
        MSG_LOG(msg_log::info, tag)
            << "Setting adminstatus up but adminstatus is already up, do nothing. "
            << module_name();
        return;
    }
    read_for("set_port_admin_status", [&] {
        // What the module holds in low power is what it must run: saved, the pin released, and
        // written back once the module is up (some modules reset their line settings on the way).
        const float grid = reg_map_->get_dd_grid_spacing();
        const std::int16_t channel = reg_map_->get_dd_media_tx_1_chan_nbr();
        const bool shaping = reg_map_->get_dd_pulse_shaping();
        const auto config = reg_map_->get_active_application_configuration();
        device_->pin_set(qsfpd::cage::line::lpmode, false);
        reg_map_->set_dd_low_pwr_request_sw(false);
        for (unsigned read = 0; read < low_power_reads && in_low_power(); ++read)
            clock_->sleep_for(poll_step);
        clock_->sleep_for(std::chrono::seconds(1));
        if (coherent::find_grid(grid) != nullptr) reg_map_->set_dd_grid_spacing(grid);
        clock_->sleep_for(poll_step);
        reg_map_->set_dd_media_tx_1_chan_nbr(channel);
        clock_->sleep_for(poll_step);
        reg_map_->set_dd_pulse_shaping(shaping);
        clock_->sleep_for(poll_step);
        if (std::any_of(config.begin(), config.end(), [](std::uint8_t b) { return b >> 4; }))
            reg_map_->set_application_lanes(config);
        clock_->sleep_for(std::chrono::seconds(3));
    });
    admin_up_ = true;
    _adopt_port_admin_status(true);
    if (oper_status_node_) oper_status_node_->update("up");
    MSG_LOG(msg_log::info, tag) << "Setting adminstatus up " << module_name();
}

std::string qsfp_dd_coherent_device_handler::get_port_admin_status() {
    auto lock = lock_handler();
    return admin_up_ ? "up" : "down";
}

// --- Monitors -----------------------------------------------------------------------------------

double qsfp_dd_coherent_device_handler::power_register(const char* getter,
                                                       const std::function<std::uint16_t()>& read) {
    try {
        return units::power_dbm(read());
    } catch (const std::system_error& e) {
        bool present = false;
        try {
            present = device_->module_present();
        } catch (const std::exception&) {
        }
        if (present)
            MSG_LOG(msg_log::error, info_tag())
                << "Exception " << module_name() << " " << getter << ": " << e.what();
        else
            MSG_LOG(msg_log::error, info_tag()) << "Module unplugged " << module_name();
        return failed_read;
    }
}

int qsfp_dd_coherent_device_handler::get_fake_temperature() {
    auto lock = lock_handler();
    return fake_temperature_.value_or(0);
}

void qsfp_dd_coherent_device_handler::set_fake_temperature(int celsius) {
    auto lock = lock_handler();
    // 0 hands the temperature back to the module.
    if (celsius == 0)
        fake_temperature_.reset();
    else
        fake_temperature_ = celsius;
}

double qsfp_dd_coherent_device_handler::get_trx_temperature() {
    auto lock = lock_handler();
    if (fake_temperature_) return *fake_temperature_;
    const double value = read_for("get_trx_temperature", [&] {
        return units::temperature_celsius(cycle_snapshot().temperature());
    });
    last_temperature_ = value;
    return value;
}

double qsfp_dd_coherent_device_handler::get_trx_temperature_margin() {
    auto lock = lock_handler();
    const double t = fake_temperature_
                         ? *fake_temperature_
                         : (last_temperature_ ? *last_temperature_ : get_trx_temperature());
    return units::round_to(case_temperature_limit - t, 1);
}

double qsfp_dd_coherent_device_handler::get_trx_voltage() {
    auto lock = lock_handler();
    return read_for("get_trx_voltage",
                    [&] { return units::voltage_volts(reg_map_->get_dd_supply_voltage()); });
}

double qsfp_dd_coherent_device_handler::get_module_threshold(unsigned which) {
    auto lock = lock_handler();
    const auto& node = threshold_nodes.at(which);
    return read_for("get_threshold", [&]() -> double {
        switch (node.of) {
            case monitor::temperature:
                return units::temperature_celsius(reg_map_->get_dd_temp_threshold(node.which));
            case monitor::voltage:
                return units::voltage_volts(reg_map_->get_dd_vcc_threshold(node.which));
            case monitor::bias:
                return units::bias_milliamps(reg_map_->get_dd_tx_bias_threshold(node.which),
                                             reg_map_->get_dd_tx_bias_multiplier());
            case monitor::tx_power:
                return units::power_dbm(reg_map_->get_dd_tx_power_threshold(node.which));
            case monitor::rx_power:
                return units::power_dbm(reg_map_->get_dd_rx_power_threshold(node.which));
        }
        return failed_read;
    });
}

double qsfp_dd_coherent_device_handler::get_rx_signal_power() {
    auto lock = lock_handler();
    try {
        return units::round_to(reg_map_->get_dd_rx_signal_power() / 100.0, 1);
    } catch (const std::system_error&) {
        return failed_read;
    }
}

double qsfp_dd_coherent_device_handler::get_total_rx_power() {
    auto lock = lock_handler();
    return power_register("get_total_rx_power", [&] { return cycle_snapshot().rx_power(0); });
}

const qsfpd::cage::cmis_flags_and_monitors& qsfp_dd_coherent_device_handler::cycle_snapshot() {
    // The polled values of a cycle come from the cycle's own read; between cycles (or without
    // them) the monitors are read alone, leaving the latched flags to the cycle.
    const auto now = clock_->now();
    if (!snapshot_.valid || now - snapshot_.taken >= snapshot_lifetime)
        snapshot_ = {reg_map_->get_dd_monitors(media_lanes_), now, true};
    return snapshot_.values;
}

void qsfp_dd_coherent_device_handler::check_media_lane(unsigned lane, const char* what) const {
    if (lane >= media_lanes_)
        throw dh_error(dh::errc::invalid,
                       std::string("Illegal channel index while getting ") + what);
}

double qsfp_dd_coherent_device_handler::get_channel_actual_tx_power(unsigned lane) {
    auto lock = lock_handler();
    check_media_lane(lane, "TX power");
    return power_register("get_channel_actual_tx_power",
                          [&] { return cycle_snapshot().tx_power(lane); });
}

double qsfp_dd_coherent_device_handler::get_channel_tx_bias(unsigned lane) {
    auto lock = lock_handler();
    check_media_lane(lane, "TX bias");
    try {
        return units::bias_milliamps(cycle_snapshot().tx_bias(lane), bias_multiplier_);
    } catch (const std::system_error&) {
        return failed_read;
    }
}

bool qsfp_dd_coherent_device_handler::get_channel_tx_fault(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_tx_fault(lane);
}

bool qsfp_dd_coherent_device_handler::get_channel_los(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_los(lane);
}

bool qsfp_dd_coherent_device_handler::get_channel_lol(unsigned lane) {
    auto lock = lock_handler();
    return alarms_.lane_lol(lane);
}

double qsfp_dd_coherent_device_handler::get_q_value() {
    auto lock = lock_handler();
    return read_for("get_q_value", [&] { return reg_map_->get_dd_current_q() / 10.0; });
}

double qsfp_dd_coherent_device_handler::get_q_margin() {
    auto lock = lock_handler();
    return read_for("get_q_margin", [&] { return reg_map_->get_dd_q_margin() / 10.0; });
}

int qsfp_dd_coherent_device_handler::get_active_cd_lo_search() {
    auto lock = lock_handler();
    return read_for("get_active_cd_lo_search",
                    [&] { return reg_map_->get_dd_active_cd_lo_search(); });
}

int qsfp_dd_coherent_device_handler::get_active_cd_hi_search() {
    auto lock = lock_handler();
    return read_for("get_active_cd_hi_search",
                    [&] { return reg_map_->get_dd_active_cd_hi_search(); });
}

int qsfp_dd_coherent_device_handler::get_cd() {
    auto lock = lock_handler();
    return read_for("get_cd", [&]() -> int {
        // The fine register saturates beyond its range; the coarse one then tells.
        const int high = reg_map_->get_dd_cd_high_granularity();
        return high > 32766 ? reg_map_->get_dd_cd_low_granularity() : high;
    });
}

int qsfp_dd_coherent_device_handler::get_diff_group_delay() {
    auto lock = lock_handler();
    return read_for("get_diff_group_delay",
                    [&] { return static_cast<int>(reg_map_->get_dd_diff_group_delay() / 100); });
}

// --- Periodic work ------------------------------------------------------------------------------

void qsfp_dd_coherent_device_handler::run_periodic_tasks() {
    auto lock = lock_handler();
    const auto fm = reg_map_->get_dd_flags_and_monitors(media_lanes_);
    snapshot_ = {fm, clock_->now(), true};
    optical_alarms::inputs in;
    in.tx_fault = fm.tx_fault();
    in.rx_los = fm.rx_los();
    in.rx_lol = fm.rx_lol();
    in.temp_high_alarm = fm.temperature_flags() & temp_high_alarm_bit;
    in.temp_high_warning = fm.temperature_flags() & temp_high_warning_bit;
    in.high_temp_shutdown = fm.module_state() == static_cast<unsigned>(cmis_module_state::fault) &&
                            reg_map_->get_dd_module_fault_cause() == fault_cause_temperature;
    const double rx_dbm = units::power_dbm(fm.rx_power(0));
    in.total_rx_power_dbm = rx_dbm;
    alarms_.process(in, info_tag(), module_name());

    // RX power: the module's latched flags, and the handler's own low alarm threshold of the
    // line rate (or the operator's), so that the published threshold and the alarm agree.
    const auto flags = qsfp_reg_map::get_dd_low_high_alarm_flags(fm);
    const double low_threshold = rx_low_alarm_threshold(rate_);
    const bool low = (flags & rx_low_alarm_flag) ||
                     (low_threshold < no_threshold && admin_up_ && rx_dbm < low_threshold);
    const bool high = (flags & rx_high_alarm_flag) != 0;
    if (low != rx_low_state_ && rx_low_alarm_) rx_low_alarm_->update(low ? 1 : 0);
    if (high != rx_high_state_ && rx_high_alarm_) rx_high_alarm_->update(high ? 1 : 0);
    rx_low_state_ = low;
    rx_high_state_ = high;

    // Counters once a second per group, the groups a pass apart; a rate needs at least a second
    // between its two readings.
    const auto now = clock_->now();
    const unsigned group = cycle_++ % 3;
    auto& g = groups_[group];
    if (g.read_once && now - g.read_at < std::chrono::seconds(1)) return;
    if (group == 0)
        read_fec_counters(now);
    else if (group == 1 || host_lanes_ > 4)
        read_client_pm(group - 1, now);
}

void qsfp_dd_coherent_device_handler::read_fec_counters(qsfpd::clock::time_point now) {
    auto& g = groups_[0];
    const auto counters = reg_map_->get_dd_fec_counters();
    const double seconds = g.read_once ? seconds_between(g.read_at, now) : 0.0;
    fec_corrected_.take(counters.corrected_bits, seconds);
    fec_uncorrected_.take(counters.uncorrected_blocks, seconds);
    fec_total_bits_ = counters.total_bits;
    g.read_at = now;
    g.read_once = true;
}

void qsfp_dd_coherent_device_handler::read_client_pm(unsigned page, qsfpd::clock::time_point now) {
    auto& g = groups_[1 + page];
    const unsigned first = page * 4;
    const unsigned count = std::min(4u, host_lanes_ - std::min(host_lanes_, first));
    const double seconds = g.read_once ? seconds_between(g.read_at, now) : 0.0;
    g.read_at = now;
    g.read_once = true;
    if (count == 0) return;
    std::vector<qsfp_reg_map::client_pm> pm;
    try {
        pm = reg_map_->get_dd_client_pm(first, count);
    } catch (const std::system_error& e) {
        for (unsigned lane = first; lane < first + count; ++lane)
            MSG_LOG(msg_log::warning, info_tag())
                << "Failed to get TX pm bits on client: " << lane + 1 << " because: " << e.what();
        return;
    }
    for (unsigned i = 0; i < count; ++i) {
        const unsigned lane = first + i;
        const std::array<std::uint64_t, 4> values{pm[i].tx_bits, pm[i].tx_corr_bits,
                                                  pm[i].tx_frames, pm[i].tx_uncorr_frames};
        if (values[0] == qsfp_reg_map::pm_uninitialised ||
            values[1] == qsfp_reg_map::pm_uninitialised) {
            auto& first_counter = client_pm_[lane][0];
            if (first_counter.seen || !first_counter.accumulated) {
                if (values[0] == qsfp_reg_map::pm_uninitialised)
                    MSG_LOG(msg_log::debug, info_tag())
                        << "TX bits pm are uninitialized on client " << lane + 1;
                if (values[1] == qsfp_reg_map::pm_uninitialised)
                    MSG_LOG(msg_log::debug, info_tag())
                        << "TX corr bits pm are uninitialized on client " << lane + 1;
            }
            for (auto& r : client_pm_[lane])
                r.seen = false;
            continue;
        }
        for (unsigned k = 0; k < values.size(); ++k)
            client_pm_[lane][k].take(values[k], seconds);
    }
}

std::uint64_t qsfp_dd_coherent_device_handler::get_fec_total_bits() {
    auto lock = lock_handler();
    return fec_total_bits_;
}

std::uint64_t qsfp_dd_coherent_device_handler::get_fec_corrected_bits() {
    auto lock = lock_handler();
    return fec_corrected_.accumulated;
}

std::uint64_t qsfp_dd_coherent_device_handler::get_fec_uncorrected_blocks() {
    auto lock = lock_handler();
    return fec_uncorrected_.accumulated;
}

std::uint64_t qsfp_dd_coherent_device_handler::get_corrected_bit_errors_per_sec() {
    auto lock = lock_handler();
    return fec_corrected_.per_sec;
}

std::uint64_t qsfp_dd_coherent_device_handler::get_uncorrected_block_errors_per_sec() {
    auto lock = lock_handler();
    return fec_uncorrected_.per_sec;
}

bool qsfp_dd_coherent_device_handler::set_fec_counters_reset(const bool& /*reset*/) {
    auto lock = lock_handler();
    for (auto* r : {&fec_corrected_, &fec_uncorrected_}) {
        r->accumulated = 0;
        r->per_sec = 0;
    }
    for (auto& lane : client_pm_)
        for (auto& r : lane) {
            r.accumulated = 0;
            r.per_sec = 0;
        }
    return true;
}

std::uint64_t qsfp_dd_coherent_device_handler::get_client_pm_per_sec(unsigned lane,
                                                                     pm_counter which) {
    auto lock = lock_handler();
    return client_pm_.at(lane)[static_cast<unsigned>(which)].per_sec;
}

std::uint64_t qsfp_dd_coherent_device_handler::get_client_pm_accumulated(unsigned lane,
                                                                         pm_counter which) {
    auto lock = lock_handler();
    return client_pm_.at(lane)[static_cast<unsigned>(which)].accumulated;
}

// --- Custom RX thresholds and output power -------------------------------------------------------

float qsfp_dd_coherent_device_handler::bound(custom_threshold t, bool maximum) {
    auto lock = lock_handler();
    // Without the capability the module has no bounds to give: nothing may be set.
    if (!rx_pwr_alarm_custom_supported_) return 0.0F;
    return read_for("get_custom_threshold_bound",
                    [&] { return tenth_db(reg_map_->get_dd_custom_threshold_bound(t, maximum)); });
}

float qsfp_dd_coherent_device_handler::get_rx_los_total_pwr_max_threshold() {
    return bound(custom_threshold::los_total, true);
}
float qsfp_dd_coherent_device_handler::get_rx_los_total_pwr_min_threshold() {
    return bound(custom_threshold::los_total, false);
}
float qsfp_dd_coherent_device_handler::get_rx_total_pwr_low_alarm_max_threshold() {
    return bound(custom_threshold::total_low_alarm, true);
}
float qsfp_dd_coherent_device_handler::get_rx_total_pwr_low_alarm_min_threshold() {
    return bound(custom_threshold::total_low_alarm, false);
}
float qsfp_dd_coherent_device_handler::get_rx_total_pwr_high_alarm_max_threshold() {
    return bound(custom_threshold::total_high_alarm, true);
}
float qsfp_dd_coherent_device_handler::get_rx_total_pwr_high_alarm_min_threshold() {
    return bound(custom_threshold::total_high_alarm, false);
}
float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_low_alarm_max_threshold() {
    return bound(custom_threshold::signal_low_alarm, true);
}
float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_low_alarm_min_threshold() {
    return bound(custom_threshold::signal_low_alarm, false);
}
float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_high_alarm_max_threshold() {
    return bound(custom_threshold::signal_high_alarm, true);
}
float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_high_alarm_min_threshold() {
    return bound(custom_threshold::signal_high_alarm, false);
}

double qsfp_dd_coherent_device_handler::get_rx_los_total_pwr_original_threshold() {
    auto lock = lock_handler();
    return power_register("get_rx_los_total_pwr_original_threshold",
                          [&] { return reg_map_->get_dd_rx_power_low_alarm_th(); });
}

void qsfp_dd_coherent_device_handler::check_custom_bounds(float value, float maximum, float minimum,
                                                          const std::string& what) {
    if (value > maximum)
        throw dh_error(dh::errc::invalid,
                       "Chosen threshold is higher than maximum allowed threshold for " + what);
    if (value < minimum)
        throw dh_error(dh::errc::invalid,
                       "Chosen threshold is lower than minimum allowed threshold for " + what);
}

void qsfp_dd_coherent_device_handler::write_custom(custom_threshold t, float dbm) {
    read_for("set_custom_threshold", [&] {
        reg_map_->set_dd_custom_threshold(t, static_cast<std::int16_t>(std::lround(dbm * 100.0)));
    });
}

float qsfp_dd_coherent_device_handler::read_custom(custom_threshold t) {
    auto lock = lock_handler();
    return read_for("get_custom_threshold", [&] {
        return static_cast<float>(reg_map_->get_dd_custom_threshold(t) / 100.0);
    });
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold_enabled(bool enabled) {
    auto lock = lock_handler();
    rx_los_custom_threshold_enabled_ = enabled;
    publish_rate_thresholds();
}

bool qsfp_dd_coherent_device_handler::get_rx_los_custom_threshold_enabled() {
    auto lock = lock_handler();
    return rx_los_custom_threshold_enabled_;
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_los_total_pwr_max_threshold(),
                        get_rx_los_total_pwr_min_threshold(), "custom RX LoS");
    rx_los_custom_threshold_ = dbm;
    publish_rate_thresholds();
}

float qsfp_dd_coherent_device_handler::get_rx_los_custom_threshold() {
    auto lock = lock_handler();
    return rx_los_custom_threshold_;
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold_enabled_total_pwr(bool enabled) {
    auto lock = lock_handler();
    read_for("set_rx_los_custom_threshold_enabled_total_pwr",
             [&] { reg_map_->set_dd_cmis5_rx_los_custom_threshold_enabled(enabled); });
}

bool qsfp_dd_coherent_device_handler::get_rx_los_custom_threshold_enabled_total_pwr() {
    auto lock = lock_handler();
    return read_for("get_rx_los_custom_threshold_enabled_total_pwr",
                    [&] { return reg_map_->get_dd_cmis5_rx_los_custom_threshold_enabled(); });
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold_total_pwr(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_los_total_pwr_max_threshold(),
                        get_rx_los_total_pwr_min_threshold(), "custom RX LoS");
    write_custom(custom_threshold::los_total, dbm);
}

float qsfp_dd_coherent_device_handler::get_rx_los_custom_thresholdTotalPwr() {
    return read_custom(custom_threshold::los_total);
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold_signal_pwr(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_los_total_pwr_max_threshold(),
                        get_rx_los_total_pwr_min_threshold(), "custom RX LoS");
    write_custom(custom_threshold::los_signal, dbm);
}

float qsfp_dd_coherent_device_handler::get_rx_los_custom_threshold_signal() {
    return read_custom(custom_threshold::los_signal);
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold_enabled_dh(bool enabled) {
    auto lock = lock_handler();
    rx_los_custom_threshold_enabled_dh_ = enabled;
}

bool qsfp_dd_coherent_device_handler::get_rx_los_custom_threshold_enabled_dh() {
    auto lock = lock_handler();
    return rx_los_custom_threshold_enabled_dh_;
}

void qsfp_dd_coherent_device_handler::set_rx_los_custom_threshold_dh(float dbm) {
    auto lock = lock_handler();
    rx_los_custom_threshold_dh_ = dbm;
}

float qsfp_dd_coherent_device_handler::get_rx_los_custom_threshold_dh() {
    auto lock = lock_handler();
    return rx_los_custom_threshold_dh_;
}

bool qsfp_dd_coherent_device_handler::get_rx_pwr_alarm_custom_threshold_supported() {
    auto lock = lock_handler();
    return rx_pwr_alarm_custom_supported_;
}

void qsfp_dd_coherent_device_handler::set_rx_pwr_alarm_custom_threshold_enabled(bool enabled) {
    auto lock = lock_handler();
    if (!rx_pwr_alarm_custom_supported_)
        throw dh_error(dh::errc::invalid,
                       "QSFP-DD doesn't support configurable thresholds for input power.");
    read_for("set_rx_pwr_alarm_custom_threshold_enabled",
             [&] { reg_map_->set_dd_rx_pwr_alarm_custom_threshold_enabled(enabled); });
}

bool qsfp_dd_coherent_device_handler::get_rx_pwr_alarm_custom_threshold_enabled() {
    auto lock = lock_handler();
    if (!rx_pwr_alarm_custom_supported_) return false;
    return read_for("get_rx_pwr_alarm_custom_threshold_enabled",
                    [&] { return reg_map_->get_dd_rx_pwr_alarm_custom_threshold_enabled(); });
}

void qsfp_dd_coherent_device_handler::set_rx_total_pwr_high_alarm_custom_threshold(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_total_pwr_high_alarm_max_threshold(),
                        get_rx_total_pwr_high_alarm_min_threshold(),
                        "custom RX total power high alarm.");
    write_custom(custom_threshold::total_high_alarm, dbm);
}

float qsfp_dd_coherent_device_handler::get_rx_total_pwr_high_alarm_custom_threshold() {
    return read_custom(custom_threshold::total_high_alarm);
}

void qsfp_dd_coherent_device_handler::set_rx_total_pwr_low_alarm_custom_threshold(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_total_pwr_low_alarm_max_threshold(),
                        get_rx_total_pwr_low_alarm_min_threshold(),
                        "custom RX total power low alarm.");
    write_custom(custom_threshold::total_low_alarm, dbm);
}

float qsfp_dd_coherent_device_handler::get_rx_total_pwr_low_alarm_custom_threshold() {
    return read_custom(custom_threshold::total_low_alarm);
}

void qsfp_dd_coherent_device_handler::keep_warning_inside(custom_threshold alarm,
                                                          custom_threshold warning, bool high) {
    const float alarm_value = read_custom(alarm);
    float warning_value = read_custom(warning);
    const bool inside = high ? warning_value < alarm_value : warning_value > alarm_value;
    if (!inside) {
        warning_value =
            static_cast<float>(alarm_value + (high ? -warning_inset_db : warning_inset_db));
        write_custom(warning, warning_value);
        warning_value = read_custom(warning);
    }
    auto& node = high ? signal_high_warning_node_ : signal_low_warning_node_;
    if (node) node->update(warning_value);
}

void qsfp_dd_coherent_device_handler::set_rx_signal_pwr_high_alarm_custom_threshold(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_signal_pwr_high_alarm_max_threshold(),
                        get_rx_signal_pwr_high_alarm_min_threshold(),
                        "custom RX signal power high alarm.");
    write_custom(custom_threshold::signal_high_alarm, dbm);
    keep_warning_inside(custom_threshold::signal_high_alarm, custom_threshold::signal_high_warning,
                        true);
}

float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_high_alarm_custom_threshold() {
    return read_custom(custom_threshold::signal_high_alarm);
}

void qsfp_dd_coherent_device_handler::set_rx_signal_pwr_low_alarm_custom_threshold(float dbm) {
    auto lock = lock_handler();
    check_custom_bounds(dbm, get_rx_signal_pwr_low_alarm_max_threshold(),
                        get_rx_signal_pwr_low_alarm_min_threshold(),
                        "custom RX signal power low alarm.");
    write_custom(custom_threshold::signal_low_alarm, dbm);
    keep_warning_inside(custom_threshold::signal_low_alarm, custom_threshold::signal_low_warning,
                        false);
}

float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_low_alarm_custom_threshold() {
    return read_custom(custom_threshold::signal_low_alarm);
}

float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_high_warn_alarm_custom_threshold() {
    return read_custom(custom_threshold::signal_high_warning);
}

float qsfp_dd_coherent_device_handler::get_rx_signal_pwr_low_warn_alarm_custom_threshold() {
    return read_custom(custom_threshold::signal_low_warning);
}

bool qsfp_dd_coherent_device_handler::tx_power_settable() {
    auto lock = lock_handler();
    return tx_power_settable_;
}

float qsfp_dd_coherent_device_handler::get_tx_max_power() {
    auto lock = lock_handler();
    return read_for("get_tx_max_power",
                    [&] { return tenth_db(reg_map_->get_dd_max_tx_prog_out_pwr()); });
}

float qsfp_dd_coherent_device_handler::get_tx_min_power() {
    auto lock = lock_handler();
    return read_for("get_tx_min_power",
                    [&] { return tenth_db(reg_map_->get_dd_min_tx_prog_out_pwr()); });
}

void qsfp_dd_coherent_device_handler::set_tx_target_output_power(float dbm) {
    auto lock = lock_handler();
    if (!tx_power_settable_)
        throw dh_error(dh::errc::invalid, "Cannot set output power on this transciever.");
    const float min = get_tx_min_power();
    const float max = get_tx_max_power();
    if (dbm < min || dbm > max)
        throw dh_error(dh::errc::invalid,
                       "Input parameter <tx output power> is not within range : (" +
                           stream_text(min) + " to " + stream_text(max) + " [dBm])");
    read_for("set_tx_target_output_power", [&] {
        reg_map_->set_dd_tx_tgt_output_pwr(static_cast<std::int16_t>(std::lround(dbm * 100.0)));
    });
}

float qsfp_dd_coherent_device_handler::get_tx_target_output_power() {
    auto lock = lock_handler();
    return read_for("get_tx_target_output_power",
                    [&] { return tenth_db(reg_map_->get_dd_tx_tgt_output_pwr()); });
}

// --- PRBS ---------------------------------------------------------------------------------------

bool qsfp_dd_coherent_device_handler::prbs_start(const bool& start) {
    read_for("prbs_start", [&] { prbs_->start(start); });
    return true;
}

bool qsfp_dd_coherent_device_handler::prbs_reset(const bool& reset) {
    read_for("prbs_reset", [&] { prbs_->reset(reset); });
    return true;
}

void qsfp_dd_coherent_device_handler::set_prbs_time(unsigned seconds) {
    auto lock = lock_handler();
    prbs_->set_time(seconds);
}

void qsfp_dd_coherent_device_handler::set_prbs_pattern(std::string pattern) {
    prbs_->set_pattern(pattern);
}

dh::api::json_object qsfp_dd_coherent_device_handler::get_prbs_info() {
    return prbs_->info();
}

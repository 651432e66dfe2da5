#include "sfp_plus_optical_device_handler.hpp"

#include <cmath>
#include <limits>

#include <fmt/format.h>

#include "channel_converter.hpp"
#include "monitor_units.hpp"

using namespace dh::api;
namespace units = qsfpd::units;

namespace {

// Offsets in the cycle block (A2h 96..117).
constexpr unsigned block_first = 96;
constexpr unsigned status_byte = 110;
constexpr unsigned alarm_flags_byte = 112;
constexpr unsigned warning_flags_byte = 116;
constexpr std::uint8_t status_tx_fault = 0x04;
constexpr std::uint8_t status_rx_los = 0x02;
constexpr std::uint8_t temp_high_flag = 0x80;

// Speed of light in nm * GHz.
constexpr double c_nm_ghz = 299792458.0;
// The threshold that switches optical_alarms' own RX power comparison off.
constexpr double no_power_threshold = -std::numeric_limits<double>::infinity();

unsigned word(std::uint8_t msb, std::uint8_t lsb) {
    return static_cast<unsigned>(msb) << 8 | lsb;
}

}  // namespace

sfp_plus_optical_device_handler::sfp_plus_optical_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<sfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, sfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock, std::string kind)
    : sfp_plus_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                              std::move(vendor), std::move(part_number), std::move(part_name),
                              std::move(description), flags, std::move(kind), unit, num_units,
                              std::move(clock)),
      alarms_(1, no_power_threshold, clock_) {
    auto lock = lock_module();
    tx_fault_pin_ = reg_map_->get_tx_fault_implemented();
    los_pin_ = device_->sfp_los_implemented();
    // SFF-8690 lives on A2h page 02h: a module without A2h cannot be tuned whatever it says.
    tunable_ = flags_.isTunable && diagnostics_ && reg_map_->is_tunable();
    if (tunable_)
        locked_channel_ =
            word(reg_map_->get_channel_number_msb(), reg_map_->get_channel_number_lsb());
    if (diagnostics_)
        los_threshold_dbm_ =
            units::power_dbm(static_cast<std::uint16_t>(reg_map_->get_rx_power_low_alarm_th()));
    // With the workaround the handler decides LOS from the power itself (with hysteresis).
    const bool power_los = diagnostics_ && !flags_.isLosWorkaround;
    alarms_ = optical_alarms(1, power_los ? los_threshold_dbm_ : no_power_threshold, clock_);
}

sfp_plus_optical_device_handler::~sfp_plus_optical_device_handler() = default;

void sfp_plus_optical_device_handler::start() {
    using self_type = sfp_plus_optical_device_handler;
    sfp_plus_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    optical_alarms::nodes alarm_nodes;
    alarm_nodes.tx_fault =
        group_node(status_value<int>::create(db_, path("alarms/txFault/severity"), self, 0));
    alarm_nodes.los =
        group_node(status_value<int>::create(db_, path("alarms/lossOfSignal/severity"), self, 0));
    if (diagnostics_)
        alarm_nodes.temperature = group_node(
            status_value<int>::create(db_, path("alarms/temperature/severity"), self, 0));
    {
        auto lock = lock_module();
        alarms_.attach(std::move(alarm_nodes));
    }
    group_node(volatile_value<&self_type::get_los>::create(db_, path("data/debug/los"), self));
    group_node(
        volatile_value<&self_type::get_tx_fault>::create(db_, path("data/debug/txFault"), self));
    group_node(
        volatile_value<&self_type::get_channel_id>::create(db_, path("data/channelId"), self));
    group_node(volatile_value<&self_type::get_nominal_laser_wavelength>::create(
        db_, path("data/wavelength"), self));

    // Only what the module can report: no diagnostics, no monitor nodes to fail every poll.
    if (diagnostics_) {
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_trx_temperature>>::
                create(db_, path("data/temperature"), self, 0.5, 0.1));
        group_node(volatile_value<&self_type::get_trx_voltage>::create(
            db_, path("data/debug/voltage"), self));
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_tx_bias>>::create(
                db_, path("data/txBias"), self, 3.0, 1.0));
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_tx_power>>::create(
                db_, path("data/txPower"), self, 0.29, 0.09));
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_rx_power>>::create(
                db_, path("data/rxPower"), self, 0.29, 0.09));

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
            group_node(volatile_value<&self_type::get_threshold>::create(db_, path(n.path), self,
                                                                         n.m, n.t));
    }

    if (tunable_) {
        group_node(volatile_value<&self_type::get_first_frequency>::create(
            db_, path("data/firstFrequency"), self));
        group_node(volatile_value<&self_type::get_last_frequency>::create(
            db_, path("data/lastFrequency"), self));
        group_node(
            volatile_value<&self_type::get_grid_spacing>::create(db_, path("data/grid"), self));
        group_node(volatile_value<&self_type::get_channel_count>::create(
            db_, path("data/channelCount"), self));
        group_node(
            volatile_value<&self_type::get_channel>::create(db_, path("data/channel"), self));
        group_node(config_param<&self_type::set_channel>::create(db_, path("config/channel"), self))
            ->set_value(get_channel());
        group_node(
            volatile_value<&self_type::get_frequency>::create(db_, path("data/frequency"), self));
        group_node(volatile_value<&self_type::get_tuning>::create(db_, path("data/tuning"), self));
    }
    activate_nodes();
}

// --- Monitoring cycle ---------------------------------------------------------------------------

const std::array<std::uint8_t, sfp_field::cycle_block_length>&
sfp_plus_optical_device_handler::cycle_block() {
    auto lock = lock_module();
    const auto now = clock_->now();
    if (!snapshot_.valid || now - snapshot_.taken >= snapshot_lifetime) {
        snapshot_.bytes = reg_map_->get_cycle_block();
        snapshot_.taken = now;
        snapshot_.valid = true;
    }
    return snapshot_.bytes;
}

std::uint16_t sfp_plus_optical_device_handler::block_word(unsigned a2h_offset) {
    const auto& bytes = cycle_block();
    const unsigned at = a2h_offset - block_first;
    return static_cast<std::uint16_t>(word(bytes[at], bytes[at + 1]));
}

bool sfp_plus_optical_device_handler::soft_los(double rx_dbm) {
    // Raised below the threshold, cleared only softLOSHyst tenths of a dB above it: a signal
    // hovering at the threshold does not toggle the alarm every cycle.
    if (!soft_los_state_)
        soft_los_state_ = rx_dbm < los_threshold_dbm_;
    else if (rx_dbm >= los_threshold_dbm_ + flags_.softLOSHyst / 10.0)
        soft_los_state_ = false;
    return soft_los_state_;
}

void sfp_plus_optical_device_handler::run_periodic_tasks() {
    auto lock = lock_module();
    if (absent()) return;
    // A failure is not logged here: the converter reports the SFP's absence once.
    optical_alarms::inputs in;
    std::uint8_t status = 0;
    double rx_dbm = 0.0;
    if (diagnostics_) {
        snapshot_ = {reg_map_->get_cycle_block(), clock_->now(), true};
        const auto& b = snapshot_.bytes;
        status = b[status_byte - block_first];
        in.temp_high_alarm = b[alarm_flags_byte - block_first] & temp_high_flag;
        in.temp_high_warning = b[warning_flags_byte - block_first] & temp_high_flag;
        rx_dbm = units::power_dbm(
            static_cast<std::uint16_t>(word(b[104 - block_first], b[105 - block_first])));
    }
    // The signals where the module drives them, else its soft status bits.
    const bool tx_fault = tx_fault_pin_ ? device_->sfp_tx_fault() : (status & status_tx_fault) != 0;
    bool los = los_pin_ ? device_->sfp_los() : (status & status_rx_los) != 0;
    if (flags_.isLosWorkaround && diagnostics_) los = soft_los(rx_dbm);
    tx_fault_ = tx_fault;
    los_ = los;
    in.tx_fault = tx_fault ? 1 : 0;
    in.rx_los = los ? 1 : 0;
    in.total_rx_power_dbm = rx_dbm;
    alarms_.process(in, info_tag(), module_name_);
}

// --- Monitors and thresholds --------------------------------------------------------------------

double sfp_plus_optical_device_handler::get_trx_temperature() {
    return read_for("get_trx_temperature", [&] {
        return units::temperature_celsius(static_cast<std::int16_t>(block_word(96)));
    });
}

double sfp_plus_optical_device_handler::get_trx_voltage() {
    return read_for("get_trx_voltage", [&] { return units::voltage_volts(block_word(98)); });
}

double sfp_plus_optical_device_handler::get_tx_bias() {
    return read_for("get_tx_bias", [&] { return units::bias_milliamps(block_word(100)); });
}

double sfp_plus_optical_device_handler::get_tx_power() {
    return read_for("get_tx_power", [&] { return units::power_dbm(block_word(102)); });
}

double sfp_plus_optical_device_handler::get_rx_power() {
    return read_for("get_rx_power", [&] { return units::power_dbm(block_word(104)); });
}

double sfp_plus_optical_device_handler::get_threshold(monitor m, threshold t) {
    return read_for("get_threshold", [&]() -> double {
        // Table 9-5: four words per monitor, high alarm first, from A2h 0.
        const unsigned first = static_cast<unsigned>(m) * 8 + static_cast<unsigned>(t) * 2;
        const std::uint32_t raw = reg_map_->read_unsigned_register(sfp_field::a2h + first);
        switch (m) {
            case monitor::temperature:
                return units::temperature_celsius(static_cast<std::int16_t>(raw));
            case monitor::voltage:
                return units::voltage_volts(static_cast<std::uint16_t>(raw));
            case monitor::tx_bias:
                return units::bias_milliamps(static_cast<std::uint16_t>(raw));
            case monitor::tx_power:
            case monitor::rx_power:
                return units::power_dbm(static_cast<std::uint16_t>(raw));
        }
        return 0.0;
    });
}

// --- Wavelength and tuning ----------------------------------------------------------------------

std::string sfp_plus_optical_device_handler::get_channel_id() {
    const double nm = tunable_ ? c_nm_ghz / get_frequency() : get_wavelength_nm();
    if (nm <= 0.0) return "n/a";
    // The table is keyed by the SFF-8636 wavelength unit, 0.05 nm.
    return qsfpd::channel_converter::get_qsfp_wavelength_and_channel_id(
               static_cast<unsigned>(std::lround(nm * 20.0)))
        .second;
}

std::string sfp_plus_optical_device_handler::get_nominal_laser_wavelength() {
    const double nm = tunable_ ? c_nm_ghz / get_frequency() : get_wavelength_nm();
    if (nm <= 0.0) return "n/a";
    const auto [text, channel] = qsfpd::channel_converter::get_qsfp_wavelength_and_channel_id(
        static_cast<unsigned>(std::lround(nm * 20.0)));
    return text != "n/a" ? text : fmt::format("{:.2f}", nm);
}

double sfp_plus_optical_device_handler::_get_first_frequency() {
    return word(reg_map_->get_first_freq_thz_msb(), reg_map_->get_first_freq_thz_lsb()) * 1000.0 +
           word(reg_map_->get_first_freq_ghz10_msb(), reg_map_->get_first_freq_ghz10_lsb()) / 10.0;
}

double sfp_plus_optical_device_handler::_get_grid_spacing() {
    return word(reg_map_->get_grid_space_ghz10_msb(), reg_map_->get_grid_space_ghz10_lsb()) / 10.0;
}

double sfp_plus_optical_device_handler::_frequency_of(unsigned channel) {
    // SFF-8690: channel 1 is the first frequency.
    return _get_first_frequency() + (static_cast<double>(channel) - 1.0) * _get_grid_spacing();
}

double sfp_plus_optical_device_handler::get_first_frequency() {
    return read_for("get_first_frequency", [&] { return _get_first_frequency(); });
}

double sfp_plus_optical_device_handler::get_last_frequency() {
    return read_for("get_last_frequency", [&] {
        return word(reg_map_->get_last_freq_thz_msb(), reg_map_->get_last_freq_thz_lsb()) * 1000.0 +
               word(reg_map_->get_last_freq_ghz10_msb(), reg_map_->get_last_freq_ghz10_lsb()) /
                   10.0;
    });
}

double sfp_plus_optical_device_handler::get_grid_spacing() {
    return read_for("get_grid_spacing", [&] { return _get_grid_spacing(); });
}

unsigned sfp_plus_optical_device_handler::get_channel_count() {
    const double grid = get_grid_spacing();
    if (grid <= 0.0) return 1;
    return static_cast<unsigned>(
               std::lround((get_last_frequency() - get_first_frequency()) / grid)) +
           1;
}

unsigned sfp_plus_optical_device_handler::get_channel() {
    return read_for("get_channel", [&] {
        return word(reg_map_->get_channel_number_msb(), reg_map_->get_channel_number_lsb());
    });
}

void sfp_plus_optical_device_handler::set_channel(unsigned channel) {
    auto lock = lock_module();
    const unsigned count = get_channel_count();
    if (channel < 1 || channel > count) {
        const std::string text =
            fmt::format("Channel {} out of range 1..{} {}", channel, count, module_name_);
        MSG_LOG(msg_log::error, config_tag()) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    read_for("set_channel", [&] {
        // The module starts tuning on the write of the low byte.
        reg_map_->set_channel_number_msb(static_cast<std::uint8_t>(channel >> 8));
        reg_map_->set_channel_number_lsb(static_cast<std::uint8_t>(channel & 0xFF));
    });
    MSG_LOG(msg_log::info, config_tag()) << fmt::format(
        "Tuning to channel {} ({:.1f} GHz) {}", channel,
        read_for("set_channel", [&] { return _frequency_of(channel); }), module_name_);
}

bool sfp_plus_optical_device_handler::get_tuning() {
    return read_for("get_tuning", [&] { return reg_map_->get_tune_status_tuning(); });
}

double sfp_plus_optical_device_handler::get_frequency() {
    return read_for("get_frequency", [&] {
        // The laser is on the new channel only once TxTune clears; until then it is where it
        // was locked last.
        if (!reg_map_->get_tune_status_tuning())
            locked_channel_ =
                word(reg_map_->get_channel_number_msb(), reg_map_->get_channel_number_lsb());
        return _frequency_of(locked_channel_);
    });
}

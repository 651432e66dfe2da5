#include "qsfp_dd_acacia_device_handler.hpp"

#include <cmath>

#include "coherent_tuning.hpp"
#include "msg_log.hpp"

using namespace dh::api;
using qsfpd::cage::qsfp_reg_map;

qsfp_dd_acacia_device_handler::qsfp_dd_acacia_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_dd_coherent_device_handler(db, std::move(device), std::move(root_path),
                                      std::move(reg_map), std::move(vendor), std::move(part_number),
                                      std::move(part_name), std::move(description), flags, unit,
                                      num_units, std::move(clock), "acacia") {}

qsfp_dd_acacia_device_handler::~qsfp_dd_acacia_device_handler() {
    // The watcher takes the handler lock: it must end before anything it reads goes.
    if (demod_thread_.joinable()) {
        demod_thread_.request_stop();
        demod_thread_.join();
    }
}

void qsfp_dd_acacia_device_handler::start() {
    using self_type = qsfp_dd_acacia_device_handler;
    qsfp_dd_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    const auto value = [&]<auto Getter>(const char* p) {
        group_node(volatile_value<Getter>::create(db_, path(p), self));
    };

    add_head_nodes();
    add_line_power_nodes();
    add_pulse_shaping_nodes();
    add_module_threshold_nodes();
    add_total_rx_power_node();
    add_tuning_nodes();
    add_q_nodes();
    value.operator()<&self_type::get_osnr>("data/osnr");
    value.operator()<&self_type::get_esnr>("data/esnr");
    value.operator()<&self_type::get_cd_high_gran>("data/cdHighGran");
    value.operator()<&self_type::get_cd_low_gran>("data/cdLowGran");
    value.operator()<&self_type::get_cd>("data/chromaticDispersion");
    value.operator()<&self_type::get_pre_fec_ber_av>("data/preFecBerAverage");
    value.operator()<&self_type::get_pre_fec_ber_min>("data/debug/preFecBerMin");
    value.operator()<&self_type::get_pre_fec_ber_max>("data/debug/preFecBerMax");
    value.operator()<&self_type::get_pre_fec_ber_curr>("data/preFecBer");
    value.operator()<&self_type::get_frame_err_cnt_av>("data/frameErrCntAverage");
    value.operator()<&self_type::get_frame_err_cnt_min>("data/debug/frameErrCntMin");
    value.operator()<&self_type::get_frame_err_cnt_max>("data/debug/frameErrCntMax");
    value.operator()<&self_type::get_frame_err_cnt_curr>("data/frameErrCnt");
    value.operator()<&self_type::get_nominal_laser_wavelength>("data/wavelength");
    value.operator()<&self_type::get_laser_age>("data/laserAge");
    value.operator()<&self_type::get_diff_group_delay>("data/diffGroupDelay");
    value.operator()<&self_type::get_cfo>("data/cfo");
    value.operator()<&self_type::get_pdl>("data/pdl");
    value.operator()<&self_type::get_soproc>("data/soproc");
    add_fec_nodes();
    add_custom_threshold_nodes();
    value.operator()<&self_type::get_rx_total_power_new>("data/rxPowerNew");
    add_tx_power_nodes();
    add_admin_and_prbs_nodes();
    add_laser_page_dump();
    finish_start("qsfp_dd_acacia_dh");
    demod_thread_ =
        std::jthread([this](std::stop_token stop) { rx_demod_thread_function(std::move(stop)); });
}

// --- Demodulator-lock watcher -------------------------------------------------------------------

void qsfp_dd_acacia_device_handler::rx_demod_thread_function(std::stop_token stop) {
    while (!stop.stop_requested()) {
        bool rx = prev_rx_demod_lock_;
        bool tx = prev_tx_demod_lock_;
        {
            auto lock = lock_handler();
            // One read serves both locks. A module that stops answering (pulled, resetting) is
            // logged once per streak, not ten times a second.
            try {
                const std::uint8_t locks = reg_map_->get_dd_demod_locks();
                rx = (locks & 0x01) != 0;
                tx = (locks & 0x02) != 0;
                read_failing_ = false;
            } catch (const std::exception&) {
                if (!read_failing_) {
                    MSG_LOG(msg_log::error, info_tag()) << "Failed to read get_dd_rx_demod_lock";
                    MSG_LOG(msg_log::error, info_tag()) << "Failed to read get_dd_tx_demod_lock";
                }
                read_failing_ = true;
            }
        }
        // A demodulator that just locked starts a clean PM interval.
        if ((rx && !prev_rx_demod_lock_) || (tx && !prev_tx_demod_lock_)) {
            set_latch_request(true);
            if (!clock_->sleep_for(latch_pulse, stop)) {
                set_latch_request(false);
                return;
            }
            set_latch_request(false);
        }
        prev_rx_demod_lock_ = rx;
        prev_tx_demod_lock_ = tx;
        if (!clock_->sleep_for(demod_poll, stop)) return;
    }
}

void qsfp_dd_acacia_device_handler::set_latch_request(bool latch) {
    auto lock = lock_handler();
    try {
        reg_map_->set_dd_latch_request(latch);
    } catch (const std::exception& e) {
        MSG_LOG(msg_log::error, info_tag())
            << "Failed to set the PM latch " << module_name() << ": " << e.what();
    }
}

// --- DSP statistics -----------------------------------------------------------------------------

double qsfp_dd_acacia_device_handler::ber_register(const char* getter,
                                                   std::uint16_t (qsfp_reg_map::*read)()) {
    auto lock = lock_handler();
    try {
        return qsfpd::coherent::f16_value(((*reg_map_).*read)());
    } catch (const std::system_error& e) {
        MSG_LOG(msg_log::error, info_tag())
            << "Exception " << module_name() << " " << getter << ": " << e.what();
        return -99.0;
    }
}

int qsfp_dd_acacia_device_handler::get_cd_high_gran() {
    auto lock = lock_handler();
    return read_for("get_cd_high_gran",
                    [&] { return int{reg_map_->get_dd_cd_high_granularity()}; });
}

int qsfp_dd_acacia_device_handler::get_cd_low_gran() {
    auto lock = lock_handler();
    return read_for("get_cd_low_gran", [&] { return int{reg_map_->get_dd_cd_low_granularity()}; });
}

double qsfp_dd_acacia_device_handler::get_osnr() {
    auto lock = lock_handler();
    return read_for("get_osnr", [&] { return reg_map_->get_dd_osnr() / 10.0; });
}

int qsfp_dd_acacia_device_handler::get_esnr() {
    auto lock = lock_handler();
    return read_for("get_esnr", [&] { return reg_map_->get_dd_esnr() / 10; });
}

double qsfp_dd_acacia_device_handler::get_pre_fec_ber_av() {
    return ber_register("get_pre_fec_ber_av", &qsfp_reg_map::get_dd_pre_fec_ber_av);
}
double qsfp_dd_acacia_device_handler::get_pre_fec_ber_min() {
    return ber_register("get_pre_fec_ber_min", &qsfp_reg_map::get_dd_pre_fec_ber_min);
}
double qsfp_dd_acacia_device_handler::get_pre_fec_ber_max() {
    return ber_register("get_pre_fec_ber_max", &qsfp_reg_map::get_dd_pre_fec_ber_max);
}
double qsfp_dd_acacia_device_handler::get_pre_fec_ber_curr() {
    return ber_register("get_pre_fec_ber_curr", &qsfp_reg_map::get_dd_pre_fec_ber_curr);
}
double qsfp_dd_acacia_device_handler::get_frame_err_cnt_av() {
    return ber_register("get_frame_err_cnt_av", &qsfp_reg_map::get_dd_frame_err_cnt_av);
}
double qsfp_dd_acacia_device_handler::get_frame_err_cnt_min() {
    return ber_register("get_frame_err_cnt_min", &qsfp_reg_map::get_dd_frame_err_cnt_min);
}
double qsfp_dd_acacia_device_handler::get_frame_err_cnt_max() {
    return ber_register("get_frame_err_cnt_max", &qsfp_reg_map::get_dd_frame_err_cnt_max);
}
double qsfp_dd_acacia_device_handler::get_frame_err_cnt_curr() {
    return ber_register("get_frame_err_cnt_curr", &qsfp_reg_map::get_dd_frame_err_cnt_curr);
}

int qsfp_dd_acacia_device_handler::get_laser_age() {
    auto lock = lock_handler();
    return read_for("get_laser_age", [&] { return int{reg_map_->get_dd_laser_age()}; });
}

int qsfp_dd_acacia_device_handler::get_cfo() {
    auto lock = lock_handler();
    return read_for("get_cfo", [&] { return int{reg_map_->get_dd_cfo()}; });
}

double qsfp_dd_acacia_device_handler::get_pdl() {
    auto lock = lock_handler();
    return read_for("get_pdl", [&] { return reg_map_->get_dd_pdl() / 10.0; });
}

int qsfp_dd_acacia_device_handler::get_soproc() {
    auto lock = lock_handler();
    return read_for("get_soproc", [&] { return int{reg_map_->get_dd_soproc()}; });
}

float qsfp_dd_acacia_device_handler::get_rx_total_power_new() {
    auto lock = lock_handler();
    return read_for("get_rx_total_power_new", [&] {
        return static_cast<float>(reg_map_->get_dd_cmis5_rx_total_power_new() / 100.0);
    });
}

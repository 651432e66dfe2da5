#include "qsfp_optical_inphi_device_handler.hpp"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <array>

#include <fmt/format.h>

#include "msg_log.hpp"

using namespace dh::api;
using qsfpd::cage::qsfp_reg_map;

namespace {

// SFF-8636 rate select bytes 87/88 as the DSP modules report their mode: 10b in every lane field
// for 100G, 00b for 40G.
constexpr std::uint8_t rate_100g_code = 0xAA;
constexpr std::uint8_t rate_40g_code = 0x00;
constexpr unsigned mbps_per_gbps = 1000;

}  // namespace

qsfp_optical_inphi_device_handler::qsfp_optical_inphi_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, std::string data_model,
    unsigned unit, unsigned num_units, unsigned lane_count, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_optical_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                                  std::move(vendor), std::move(part_number), std::move(part_name),
                                  std::move(description), flags, std::move(data_model), unit,
                                  num_units, lane_count, std::move(clock)) {
    detect_rate();
}

void qsfp_optical_inphi_device_handler::detect_rate() {
    auto lock = lock_handler();
    const auto [rx, tx] = module_access([&] {
        return std::pair{reg_map_->get_rx_rate_select(), reg_map_->get_tx_rate_select()};
    });
    if (rx == rate_100g_code && tx == rate_100g_code) {
        rate_ = 100;
    } else if (rx == rate_40g_code && tx == rate_40g_code) {
        rate_ = 40;
    } else {
        MSG_LOG(msg_log::warning, init_tag())
            << "QSFP rx rate could not be determined. RX rate reg = 0x" << fmt::format("{:X}", rx);
        MSG_LOG(msg_log::warning, init_tag())
            << "QSFP tx rate could not be determined. TX rate reg = 0x" << fmt::format("{:X}", tx);
    }
}

void qsfp_optical_inphi_device_handler::start() {
    using self_type = qsfp_optical_inphi_device_handler;
    qsfp_optical_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    auto rate = group_node(
        config_param<&self_type::set_rate>::create(db_, path("config/debug/rate"), self));
    if (rate_ != 0) rate->set_value(rate_);

    struct threshold_group {
        const char* name;
        dsp_monitor m;
    };
    static constexpr std::array<threshold_group, 6> groups = {{
        {"snr", dsp_monitor::snr},
        {"resDisp", dsp_monitor::res_disp},
        {"pam4LevelTrans", dsp_monitor::pam4_level_trans},
        {"preFecBerAv", dsp_monitor::pre_fec_ber_av},
        {"tecCurrent", dsp_monitor::tec_current},
        {"laserTempDiff", dsp_monitor::laser_temp_diff},
    }};
    static constexpr std::array<std::pair<const char*, threshold>, 4> kinds = {{
        {"HighAlarmThreshold", threshold::high_alarm},
        {"LowAlarmThreshold", threshold::low_alarm},
        {"HighWarningThreshold", threshold::high_warning},
        {"LowWarningThreshold", threshold::low_warning},
    }};
    for (const auto& g : groups)
        for (const auto& [suffix, t] : kinds)
            group_node(volatile_value<&self_type::get_dsp_threshold>::create(
                db_, path(std::string("data/debug/") + g.name + suffix), self, g.m, t));

    group_node(volatile_value<&self_type::get_pre_fec_ber_av>::create(
        db_, path("data/preFecBerAverage"), self));
    group_node(volatile_value<&self_type::get_uncorr_ber_av>::create(
        db_, path("data/uncorrBerAverage"), self));
    group_node(volatile_value<&self_type::get_pre_fec_ber_pri>::create(
        db_, path("data/debug/preFecBerPriorPeriod"), self));
    group_node(volatile_value<&self_type::get_pre_fec_ber_latch_min>::create(
        db_, path("data/debug/preFecBerLatchMin"), self));
    group_node(volatile_value<&self_type::get_pre_fec_ber_latch_max>::create(
        db_, path("data/debug/preFecBerLatchMax"), self));
    group_node(
        volatile_value<&self_type::get_pre_fec_ber_cur>::create(db_, path("data/preFecBer"), self));
    group_node(volatile_value<&self_type::get_uncorr_ber_pri>::create(
        db_, path("data/debug/uncorrBerPriorPeriod"), self));
    group_node(volatile_value<&self_type::get_uncorr_ber_min>::create(
        db_, path("data/debug/uncorrBerMin"), self));
    group_node(volatile_value<&self_type::get_uncorr_ber_max>::create(
        db_, path("data/debug/uncorrBerMax"), self));
    group_node(
        volatile_value<&self_type::get_uncorr_ber_cur>::create(db_, path("data/uncorrBer"), self));
    group_node(volatile_value<&self_type::get_all_ber_cur>::create(
        db_, path("data/fec/berCounters"), self));
    group_node(config_param<&self_type::clear_ber_stats>::create(
                   db_, path("config/ber/clearCounters"), self))
        ->set_value(0);
    // "inventory/fwRevision" is published by the optical start() through get_fw_revision(),
    // which reads the DSP's revision here.

    for (unsigned lane = 0; lane < lane_count(); ++lane) {
        const std::string channel = fmt::format("data/channel/{}/", lane);
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_channel_snr>>::
                create(db_, path(channel + "snr"), self, 0.09, 0.05, lane));
        group_node(
            hysteresis_filtered_value<polled_volatile_value_impl<
                &self_type::get_channel_res_disp>>::create(db_,
                                                           path(channel + "residualDispersion"),
                                                           self, 0.09, 0.05, lane));
    }
    for (unsigned lane = 0; lane < lane_count(); ++lane) {
        const std::string channel = fmt::format("data/debug/channel/{}/", lane);
        group_node(volatile_value<&self_type::get_channel_laser_temp_diff>::create(
            db_, path(channel + "laserTempDiff"), self, lane));
        group_node(volatile_value<&self_type::get_channel_pam4_level_trans>::create(
            db_, path(channel + "pam4LevelTransition"), self, lane));
        group_node(volatile_value<&self_type::get_channel_tec_curr>::create(
            db_, path(channel + "tecCurrent"), self, lane));
    }
}

unsigned qsfp_optical_inphi_device_handler::get_rate() {
    auto lock = lock_handler();
    return rate_;
}

void qsfp_optical_inphi_device_handler::set_rate(unsigned rate) {
    auto lock = lock_handler();
    if (rate != 40 && rate != 100) {
        const std::string text =
            fmt::format("Illegal rate [{}] Gbit/s selected for {}", rate, module_name());
        MSG_LOG(msg_log::warning, config_tag()) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    const unsigned lane_mbps = rate * mbps_per_gbps / lane_count();
    read_for("set_rate", [&] {
        for (unsigned lane = 0; lane < lane_count(); ++lane) {
            reg_map_->set_ch_rx_rate_sel(lane, lane_mbps);
            reg_map_->set_ch_tx_rate_sel(lane, lane_mbps);
        }
    });
    rate_ = rate;
}

double qsfp_optical_inphi_device_handler::get_dsp_threshold(dsp_monitor m, threshold t) {
    return convert("get_dsp_threshold", [&]() -> double {
        switch (m) {
            case dsp_monitor::snr:
                return unsigned_lsb_mult_256(reg_map_->get_snr_threshold(t));
            case dsp_monitor::res_disp:
                return tenths(reg_map_->get_res_disp_threshold(t));
            case dsp_monitor::pam4_level_trans:
                return unsigned_lsb_mult_256(reg_map_->get_pam4_level_trans_threshold(t));
            case dsp_monitor::pre_fec_ber_av:
                return ber(reg_map_->get_pre_fec_ber_av_threshold(t));
            case dsp_monitor::tec_current:
                return tenths(reg_map_->get_tec_current_threshold(t));
            case dsp_monitor::laser_temp_diff:
                return signed_lsb_mult_256(reg_map_->get_laser_temp_diff_threshold(t));
        }
        throw dh_error(dh::errc::invalid, "no such DSP monitor");
    });
}

double qsfp_optical_inphi_device_handler::get_pre_fec_ber_av() {
    return get_any_ber_register<&qsfp_reg_map::get_pre_fec_ber_av>("get_pre_fec_ber_av");
}
double qsfp_optical_inphi_device_handler::get_uncorr_ber_av() {
    return get_any_ber_register<&qsfp_reg_map::get_uncorr_ber_av>("get_uncorr_ber_av");
}
double qsfp_optical_inphi_device_handler::get_pre_fec_ber_pri() {
    return get_any_ber_register<&qsfp_reg_map::get_pre_fec_ber_pri>("get_pre_fec_ber_pri");
}
double qsfp_optical_inphi_device_handler::get_pre_fec_ber_latch_min() {
    return get_any_ber_register<&qsfp_reg_map::get_pre_fec_ber_latch_min>(
        "get_pre_fec_ber_latch_min");
}
double qsfp_optical_inphi_device_handler::get_pre_fec_ber_latch_max() {
    return get_any_ber_register<&qsfp_reg_map::get_pre_fec_ber_latch_max>(
        "get_pre_fec_ber_latch_max");
}
double qsfp_optical_inphi_device_handler::get_pre_fec_ber_cur() {
    return get_any_ber_register<&qsfp_reg_map::get_pre_fec_ber_cur>("get_pre_fec_ber_cur");
}
double qsfp_optical_inphi_device_handler::get_uncorr_ber_pri() {
    return get_any_ber_register<&qsfp_reg_map::get_uncorr_ber_pri>("get_uncorr_ber_pri");
}
double qsfp_optical_inphi_device_handler::get_uncorr_ber_min() {
    return get_any_ber_register<&qsfp_reg_map::get_uncorr_ber_min>("get_uncorr_ber_min");
}
double qsfp_optical_inphi_device_handler::get_uncorr_ber_max() {
    return get_any_ber_register<&qsfp_reg_map::get_uncorr_ber_max>("get_uncorr_ber_max");
}
double qsfp_optical_inphi_device_handler::get_uncorr_ber_cur() {
    return get_any_ber_register<&qsfp_reg_map::get_uncorr_ber_cur>("get_uncorr_ber_cur");
}

json_object qsfp_optical_inphi_device_handler::get_all_ber_cur() {
    auto lock = lock_handler();
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("preFecBer");
    writer.Double(get_pre_fec_ber_cur());
    writer.Key("preFecBerAverage");
    writer.Double(get_pre_fec_ber_av());
    writer.Key("uncorrBer");
    writer.Double(get_uncorr_ber_cur());
    writer.Key("uncorrBerAverage");
    writer.Double(get_uncorr_ber_av());
    writer.EndObject();
    return json_object{std::string(buffer.GetString(), buffer.GetSize())};
}

void qsfp_optical_inphi_device_handler::clear_ber_stats(int /*unused*/) {
    auto lock = lock_handler();
    read_for("clear_ber_stats", [&] { reg_map_->clear_ber_stats(); });
    MSG_LOG(msg_log::info, init_tag()) << "BER statistics cleared QSFP " << module_name();
}

double qsfp_optical_inphi_device_handler::get_channel_snr(unsigned lane) {
    return get_any_unsigned_lsb_mult_256_register<&qsfp_reg_map::get_ch_snr>(lane,
                                                                             "get_channel_snr");
}
double qsfp_optical_inphi_device_handler::get_channel_res_disp(unsigned lane) {
    return get_any_res_disp_register<&qsfp_reg_map::get_ch_res_disp>(lane, "get_channel_res_disp");
}
double qsfp_optical_inphi_device_handler::get_channel_laser_temp_diff(unsigned lane) {
    return get_any_signed_lsb_mult_256_register<&qsfp_reg_map::get_ch_laser_temp_diff>(
        lane, "get_channel_laser_temp_diff");
}
double qsfp_optical_inphi_device_handler::get_channel_pam4_level_trans(unsigned lane) {
    return get_any_unsigned_lsb_mult_256_register<&qsfp_reg_map::get_ch_pam4_level_trans>(
        lane, "get_channel_pam4_level_trans");
}
double qsfp_optical_inphi_device_handler::get_channel_tec_curr(unsigned lane) {
    return get_any_tec_current_register<&qsfp_reg_map::get_ch_tec_curr>(lane,
                                                                        "get_channel_tec_curr");
}

std::string qsfp_optical_inphi_device_handler::get_fw_revision() {
    auto lock = lock_handler();
    return read_for("get_inphi_fw_revision", [&] { return reg_map_->get_inphi_fw_revision(); });
}

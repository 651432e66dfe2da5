#pragma once

#include <cmath>
#include <string>

#include "qsfp_optical_device_handler.hpp"

// An SFF-8636 optical module with a PAM4 DSP: the DSP's per-lane signal quality, its thresholds,
// the FEC bit-error-ratio statistics, the DSP firmware revision and a selectable module rate of
// 40 or 100 Gbit/s. Built with 1 or 2 lanes.
class qsfp_optical_inphi_device_handler : public qsfp_optical_device_handler {
  public:
    // The DSP monitors that have thresholds.
    enum class dsp_monitor {
        snr,
        res_disp,
        pam4_level_trans,
        pre_fec_ber_av,
        tec_current,
        laser_temp_diff
    };

    qsfp_optical_inphi_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                      std::string root_path,
                                      std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                      std::string vendor, std::string part_number,
                                      std::string part_name, std::string description,
                                      qsfp_flags_s flags, std::string data_model, unsigned unit,
                                      unsigned num_units, unsigned lane_count,
                                      std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start();

    // Module rate in Gbit/s: 0 until known, then 40 or 100.
    unsigned get_rate();
    void set_rate(unsigned rate);

    double get_dsp_threshold(dsp_monitor m, threshold t);
    double get_snr_high_alarm_th() {
        return get_dsp_threshold(dsp_monitor::snr, threshold::high_alarm);
    }
    double get_pre_fec_ber_av_high_alarm_th() {
        return get_dsp_threshold(dsp_monitor::pre_fec_ber_av, threshold::high_alarm);
    }

    double get_pre_fec_ber_av();
    double get_uncorr_ber_av();
    double get_pre_fec_ber_pri();
    double get_pre_fec_ber_latch_min();
    double get_pre_fec_ber_latch_max();
    double get_pre_fec_ber_cur();
    double get_uncorr_ber_pri();
    double get_uncorr_ber_min();
    double get_uncorr_ber_max();
    double get_uncorr_ber_cur();
    dh::api::json_object get_all_ber_cur();
    void clear_ber_stats(int unused);

    double get_channel_snr(unsigned lane);
    double get_channel_res_disp(unsigned lane);
    double get_channel_laser_temp_diff(unsigned lane);
    double get_channel_pam4_level_trans(unsigned lane);
    double get_channel_tec_curr(unsigned lane);

    std::string get_fw_revision() override;

    // The register forms.
    static double unsigned_lsb_mult_256(std::uint16_t raw) {
        return std::round(raw / 256.0 * 10.0) / 10.0;
    }
    static double signed_lsb_mult_256(std::int16_t raw) {
        return std::round(raw / 256.0 * 10.0) / 10.0;
    }
    static double tenths(std::int16_t raw) { return raw / 10.0; }
    // 11-bit mantissa, 5-bit exponent biased by 24.
    static double ber(std::uint16_t raw) {
        return (raw & 0x7FF) * std::pow(10.0, static_cast<int>(raw >> 11) - 24);
    }

  protected:
    // The conversion routines over a register map accessor, whole-module (no argument) or per
    // lane; a failed read is logged with the calling getter's name.
    template <auto Accessor>
    double get_any_unsigned_lsb_mult_256_register(const char* getter) {
        return convert(getter, [&] { return unsigned_lsb_mult_256((*reg_map_.*Accessor)()); });
    }
    template <auto Accessor>
    double get_any_unsigned_lsb_mult_256_register(unsigned lane, const char* getter) {
        return convert(getter, [&] { return unsigned_lsb_mult_256((*reg_map_.*Accessor)(lane)); });
    }
    template <auto Accessor>
    double get_any_signed_lsb_mult_256_register(unsigned lane, const char* getter) {
        return convert(getter, [&] { return signed_lsb_mult_256((*reg_map_.*Accessor)(lane)); });
    }
    template <auto Accessor>
    double get_any_res_disp_register(const char* getter) {
        return convert(getter, [&] { return tenths((*reg_map_.*Accessor)()); });
    }
    template <auto Accessor>
    double get_any_res_disp_register(unsigned lane, const char* getter) {
        return convert(getter, [&] { return tenths((*reg_map_.*Accessor)(lane)); });
    }
    template <auto Accessor>
    double get_any_tec_current_register(const char* getter) {
        return convert(getter, [&] { return tenths((*reg_map_.*Accessor)()); });
    }
    template <auto Accessor>
    double get_any_tec_current_register(unsigned lane, const char* getter) {
        return convert(getter, [&] { return tenths((*reg_map_.*Accessor)(lane)); });
    }
    template <auto Accessor>
    double get_any_ber_register(const char* getter) {
        return convert(getter, [&] { return ber((*reg_map_.*Accessor)()); });
    }

  private:
    template <class F>
    double convert(const char* getter, F&& read) {
        auto lock = lock_handler();
        return read_for(getter, std::forward<F>(read));
    }
    void detect_rate();

    unsigned rate_ = 0;
};

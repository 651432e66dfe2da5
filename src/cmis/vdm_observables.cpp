#include "vdm_observables.hpp"

#include <array>

namespace qsfpd::cmis {

namespace {

using T = VDM_observable_types;
using enum VDM_format;

// Formats and scales follow the CMIS VDM observable table (148 and 149 OIF C-CMIS): percentages of
// full scale are 100/32767 (signed) and 100/65535 (unsigned), temperatures and the 5-8 dB values
// 1/256, powers 0.01 dBm, frequency error 10 MHz, SOPMD 0.01 ps^2 (high granularity) and 1 ps^2
// (low), MER 0.1 dB; BER and frame counts are F16 without scale. The client names (misspellings
// included) are the ones management systems already use.
constexpr double pct_s16 = 100.0 / 32767.0;
constexpr double pct_u16 = 100.0 / 65535.0;
constexpr double per_256 = 1.0 / 256.0;

constexpr std::array<vdm_observable, 29> table{{
    {"debug/TEC-Current", T::tec_current, signed16, pct_s16},
    {"debug/laserFrequencyError", T::laser_frequency_error, signed16, 10.0},
    {"debug/laserTemperature", T::laser_temperature, signed16, per_256},
    {"debug/eSNR_Media_Input", T::esnr_media_input, unsigned16, per_256},
    {"debug/PAM4LevelTransitionParameterMediaInput", T::pam4_ltp_media_input, unsigned16, per_256},
    {"debug/PAM4LevelTransitionParameterHostInput", T::pam4_ltp_host_input, unsigned16, per_256},
    {"debug/preFecBerMinHost", T::pre_fec_ber_min_host, float16, 1.0},
    {"debug/preFecBerMaxHost", T::pre_fec_ber_max_host, float16, 1.0},
    {"preFecBerAverageHost", T::pre_fec_ber_avg_host, float16, 1.0},
    {"preFecBerHost", T::pre_fec_ber_cur_host, float16, 1.0},
    {"debug/frameErrCntMinHost", T::errored_frames_min_host, float16, 1.0},
    {"debug/frameErrCntMaxHost", T::errored_frames_max_host, float16, 1.0},
    {"frameErrCntAverageHost", T::errored_frames_avg_host, float16, 1.0},
    {"frameErrCntHost", T::errored_frames_cur_host, float16, 1.0},
    {"debug/frameErrCntAccumulated", T::errored_frames_total_media, float16, 1.0},
    {"debug/frameErrCntAccumulatedHost", T::errored_frames_total_host, float16, 1.0},
    {"debug/Modulator_Bias_X_I", T::modulator_bias_xi, unsigned16, pct_u16},
    {"debug/Modulator_Bias_X_Q-Current", T::modulator_bias_xq, unsigned16, pct_u16},
    {"debug/Modulator_Bias_Y_I", T::modulator_bias_yi, unsigned16, pct_u16},
    {"debug/Modulator_Bias_Y_Q", T::modulator_bias_yq, unsigned16, pct_u16},
    {"debug/Modulator_Bias_X_Phase", T::modulator_bias_x_phase, unsigned16, pct_u16},
    {"debug/Modulator_Bias_Y_Phase", T::modulator_bias_y_phase, unsigned16, pct_u16},
    {"debug/SOPMD_high_granularis", T::sopmd_high_granularity, unsigned16, 0.01},
    {"debug/EVM_modem", T::evm_modem, unsigned16, pct_u16},
    {"debug/Tx_Power", T::tx_power, signed16, 0.01},
    {"debug/rxSignalPower", T::rx_signal_power, signed16, 0.01},
    {"debug/mer", T::mer, unsigned16, 0.1},
    {"debug/clock_recovery_loop", T::clock_recovery_loop, signed16, pct_s16},
    {"debug/SOPMD_low_granularity", T::sopmd_low_granularity, unsigned16, 1.0},
}};

}  // namespace

std::span<const vdm_observable> cmis5_vdm_observables() {
    return table;
}

}  // namespace qsfpd::cmis

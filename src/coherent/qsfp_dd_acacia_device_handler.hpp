#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "qsfp_dd_coherent_device_handler.hpp"

// A tunable coherent module with the Acacia DSP (400ZR / ZR+): the coherent set, plus the DSP's
// own line statistics (CD granularities, OSNR, eSNR, CFO, PDL, SOP, laser age, pre-FEC BER and
// frame error statistics, the new RX power) and the demodulator-lock watcher that latches the PM
// interval whenever a demodulator locks.
class qsfp_dd_acacia_device_handler : public qsfp_dd_coherent_device_handler {
  public:
    static constexpr std::chrono::milliseconds demod_poll{100};
    static constexpr std::chrono::milliseconds latch_pulse{1000};

    qsfp_dd_acacia_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                  std::string root_path,
                                  std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                  std::string vendor, std::string part_number,
                                  std::string part_name, std::string description,
                                  qsfp_flags_s flags, unsigned unit, unsigned num_units,
                                  std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());
    ~qsfp_dd_acacia_device_handler() override;

    void start();

    int get_cd_high_gran();
    int get_cd_low_gran();
    double get_osnr();
    int get_esnr();
    double get_pre_fec_ber_av();
    double get_pre_fec_ber_min();
    double get_pre_fec_ber_max();
    double get_pre_fec_ber_curr();
    double get_frame_err_cnt_av();
    double get_frame_err_cnt_min();
    double get_frame_err_cnt_max();
    double get_frame_err_cnt_curr();
    int get_laser_age();
    int get_cfo();
    double get_pdl();
    int get_soproc();
    float get_rx_total_power_new();
    void set_latch_request(bool latch);

  protected:
    // The F16 registers: on a failed read the failing getter's line and -99.
    double ber_register(const char* getter, std::uint16_t (qsfpd::cage::qsfp_reg_map::*read)());

  private:
    void rx_demod_thread_function(std::stop_token stop);

    bool prev_rx_demod_lock_ = false;
    bool prev_tx_demod_lock_ = false;
    bool read_failing_ = false;
    std::jthread demod_thread_;
};

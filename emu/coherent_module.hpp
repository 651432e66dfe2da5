#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "clock.hpp"
#include "module_memory.hpp"
#include "module_profile.hpp"

namespace qsfpd::emu {

class module_emulator;

// The DSP and tunable laser of a coherent module (400ZR / ZR+ class) on top of the CMIS module
// of module_emulator: laser tuning (page 12h), demodulator locks, FEC and client PM counters
// with the freeze request, the line monitors (pages 35h, C0h), PRBS (C0h, C1h), custom RX
// thresholds and the programmable TX power. Register layout: docs/coherent-registers.md.
// module_emulator owns it and brings it up to the clock on every service(); it sees the module
// only through its registers (module state, data path states, active control set).
class coherent_module {
  public:
    coherent_module(module_emulator& module, std::recursive_mutex& mutex,
                    std::shared_ptr<clock> clk, coherent_model model);
    coherent_module(const coherent_module&) = delete;
    coherent_module& operator=(const coherent_module&) = delete;

    // Whether a profile has the pages this behaviour needs (12h tuning and the C0h DSP page).
    static bool applies_to(const module_profile& profile);

    // Called by module_emulator with its lock held.
    void restart(clock::time_point now);
    void advance(clock::time_point now);

    const coherent_model& model() const { return model_; }

    // Line monitors, as engineering values at a monitor tick (nominal + seeded noise); exposed
    // so tests can compare against the registers.
    enum class metric : unsigned {
        q,
        q_margin,
        osnr,
        esnr,
        cd,
        dgd,
        pdl,
        cfo,
        sop_roc,
        errored_frames,
        pre_fec_ber,
    };
    double metric_value(metric m, std::uint64_t tick) const;
    double nominal(metric m) const;

    // Line rate of the active application in bit/s (0 without one), host lane rate in bit/s.
    double line_rate();
    static constexpr double host_lane_rate = 53.125e9;
    // Client PM frames are RS(544,514) codewords.
    static constexpr double client_frame_bits = 5440.0;
    // The laser frequency (MHz) of a channel on a grid code of page 12h byte 128 (bits 7-4).
    static std::uint32_t frequency_mhz(unsigned grid_code, std::int16_t channel);

    // Error rates, changeable at run time (the profile gives the start values).
    void set_pre_fec_ber(double ber);
    void set_prbs_ber(double ber);
    void set_host_ber(double ber);
    void set_uncorrectable_per_s(double rate);
    double pre_fec_ber() const;
    double prbs_ber() const;

    // Fault injection.
    // A tuning that never completes while set (clearing it lets a running tuning finish).
    void stall_tuning(bool on);
    // A '0'/'1' pattern over the demodulator locks, one step per period, cycling: a '0' step
    // shows the locks of `locks` (bit 0 RX, bit 1 TX) off whatever the line does.
    void flap_locks(std::string pattern, clock::duration period, std::uint8_t locks = 0x03);
    void stop_lock_flaps();
    // Undoes all of the above fault injection (error rates stay).
    void clear_faults();

    bool tuning();
    // Both locks as the module shows them (bit 0 RX, bit 1 TX).
    std::uint8_t locks();

  private:
    module_memory& mem();
    std::uint8_t module_state();
    bool data_path_active(unsigned host_lane);
    std::optional<std::pair<std::uint8_t, std::uint8_t>> active_app();  // media code, host lanes
    bool conditions();

    void on_tuning_write(std::uint8_t offset);
    void finish_tuning(clock::time_point at);
    void latch_tuning(std::uint8_t bits);
    void show_tuning_summary();
    void on_tx_target_write();
    void on_threshold_write(std::uint8_t offset);
    void on_prbs_control(std::uint8_t value);
    void on_prbs_pattern();
    void zero_counters();
    void latch_lock_lost();

    void integrate(clock::time_point now);
    void show(clock::time_point now);
    void show_monitors(std::uint64_t tick, bool frozen);
    std::uint8_t shown_locks(clock::time_point now) const;
    const monitor_model& model_for(metric k) const;

    module_emulator& module_;
    std::recursive_mutex& mutex_;
    std::shared_ptr<clock> clock_;
    coherent_model model_;
    std::uint64_t seed_ = 1;

    clock::time_point epoch_{};
    clock::time_point last_{};

    // Tuning.
    bool tuning_ = false;
    clock::time_point tune_started_{};
    clock::time_point tune_until_{};
    std::uint32_t tune_target_ = 0;
    std::optional<clock::time_point> tuned_at_;
    bool stall_tuning_ = false;

    // Demodulator lock: the time the conditions (ready, data path up, no tuning) began.
    std::optional<clock::time_point> conditions_since_;
    std::string flap_pattern_;
    clock::duration flap_period_{};
    clock::time_point flap_start_{};
    std::uint8_t flap_locks_ = 0;

    // Counters (exact values as doubles, shown truncated).
    double fec_bits_ = 0, fec_corrected_ = 0, fec_uncorrectable_ = 0;
    struct client_lane {
        bool started = false;  // the data path was up once: the counters run
        double bits = 0, corrected = 0;
    };
    std::array<client_lane, 8> client_{};
    std::array<double, 8> prbs_bits_{}, prbs_errors_{};
    bool prbs_checker_ = false;
    std::uint8_t prbs_pattern_ = 0;
    std::int16_t tx_target_ = 0;                 // last accepted target output power, 0.01 dBm
    std::array<std::uint8_t, 18> thresholds_{};  // C0h 164..181 as last accepted

    double pre_fec_ber_;
    double prbs_ber_;
    double host_ber_;
    double uncorrectable_per_s_;
};

}  // namespace qsfpd::emu

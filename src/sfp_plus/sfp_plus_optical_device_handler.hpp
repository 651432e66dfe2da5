#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "optical_alarms.hpp"
#include "sfp_plus_device_handler.hpp"

// An optical SFP/SFP+ (SFF-8472): digital diagnostics in the units of the QSFP handlers, the
// A2h thresholds, TX fault / loss of signal / temperature alarms with the QSFP flap suppression
// and, for a tunable module (SFF-8690), channel, frequency and grid. A module without
// diagnostics publishes only what A0h and the converter's signals give.
class sfp_plus_optical_device_handler : public sfp_plus_device_handler {
  public:
    enum class monitor { temperature, voltage, tx_bias, tx_power, rx_power };
    enum class threshold { high_alarm, low_alarm, high_warning, low_warning };

    static constexpr std::chrono::milliseconds snapshot_lifetime{150};

    sfp_plus_optical_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                    std::string root_path, std::shared_ptr<sfp_reg_map> reg_map,
                                    std::string vendor, std::string part_number,
                                    std::string part_name, std::string description,
                                    sfp_flags_s flags, unsigned unit, unsigned num_units,
                                    std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system(),
                                    std::string kind = "optical");
    ~sfp_plus_optical_device_handler() override;

    void start() override;
    void run_periodic_tasks() override;

    double get_trx_temperature();
    double get_trx_voltage();
    double get_tx_bias();
    double get_tx_power();
    double get_rx_power();
    double get_threshold(monitor m, threshold t);
    // The last cycle's view of the module's signals.
    bool get_los() { return los_; }
    bool get_tx_fault() { return tx_fault_; }

    std::string get_channel_id();
    std::string get_nominal_laser_wavelength();

    // Tunable SFP+ (SFF-8690): frequencies in GHz, channels from 1.
    bool is_tunable() const { return tunable_; }
    double get_first_frequency();
    double get_last_frequency();
    double get_grid_spacing();
    unsigned get_channel_count();
    unsigned get_channel();
    void set_channel(unsigned channel);
    double get_frequency();
    bool get_tuning();

    // The LOS threshold: the module's RX power low alarm threshold, dBm.
    double los_threshold() const { return los_threshold_dbm_; }

  protected:
    // Monitors, status and flags of the current cycle (A2h 96..117), fresh when stale.
    const std::array<std::uint8_t, sfp_field::cycle_block_length>& cycle_block();
    std::uint16_t block_word(unsigned a2h_offset);

  private:
    double _get_first_frequency();
    double _get_grid_spacing();
    double _frequency_of(unsigned channel);
    bool soft_los(double rx_dbm);

    bool tunable_ = false;
    unsigned locked_channel_ = 1;
    bool tx_fault_pin_ = false;
    bool los_pin_ = false;
    double los_threshold_dbm_ = -99.0;
    // Written by the cycle, read by client threads.
    std::atomic<bool> los_{false};
    std::atomic<bool> tx_fault_{false};
    bool soft_los_state_ = false;
    optical_alarms alarms_;

    struct block_snapshot {
        std::array<std::uint8_t, sfp_field::cycle_block_length> bytes{};
        qsfpd::clock::time_point taken{};
        bool valid = false;
    } snapshot_;
};

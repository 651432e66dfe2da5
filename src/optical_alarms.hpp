#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "clock.hpp"
#include "dh/api/value_nodes.hpp"
#include "event_suppression.hpp"

// The alarms an optical module's monitoring cycle derives from its latched flags, whatever memory
// map they come from: TX fault (with a hold on the "not detected" line), loss of signal and loss
// of lock with flap suppression, the temperature severity and, where the module reports it, the
// high-temperature shutdown. SFF-8636 and CMIS handlers feed it the same inputs, so the messages
// and the suppression bounds are the same for both.
class optical_alarms {
  public:
    static constexpr unsigned max_lanes = 8;

    // One cycle's flags, lane n in bit n.
    struct inputs {
        std::uint8_t tx_fault = 0;
        std::uint8_t rx_los = 0;
        std::uint8_t rx_lol = 0;
        bool temp_high_alarm = false;
        bool temp_high_warning = false;
        bool high_temp_shutdown = false;
        double total_rx_power_dbm = -99.0;
    };

    // The severity nodes the alarms publish to; the optional ones may be null / empty.
    struct nodes {
        std::shared_ptr<dh::api::status_value<int>> tx_fault;
        std::shared_ptr<dh::api::status_value<int>> los;
        std::shared_ptr<dh::api::status_value<int>> lol;
        std::shared_ptr<dh::api::status_value<int>> temperature;
        std::shared_ptr<dh::api::status_value<int>> high_temp_shutdown;
        std::vector<std::shared_ptr<dh::api::status_value<int>>> lane_los;
    };

    // A total RX power below `los_threshold_dbm` counts as loss of signal too.
    optical_alarms(unsigned lane_count, double los_threshold_dbm,
                   std::shared_ptr<qsfpd::clock> clock);

    void attach(nodes n) { nodes_ = std::move(n); }
    // Logs each change under `tag`, each message followed by `module_name`.
    void process(const inputs& in, const std::string& tag, const std::string& module_name);

    // One lane's flag as the last cycle saw it; a lane the module does not have is refused
    // ("Illegal channel index while getting LOS").
    bool lane_tx_fault(unsigned lane) const { return lane_flag(lane_tx_fault_, lane, "TX fault"); }
    bool lane_los(unsigned lane) const { return lane_flag(lane_los_, lane, "LOS"); }
    bool lane_lol(unsigned lane) const { return lane_flag(lane_lol_, lane, "LOL"); }
    unsigned lane_count() const { return lane_count_; }

  private:
    bool lane_flag(const std::array<bool, max_lanes>& flags, unsigned lane, const char* what) const;

    unsigned lane_count_;
    std::uint8_t lane_mask_;
    double los_threshold_dbm_;
    std::shared_ptr<qsfpd::clock> clock_;
    nodes nodes_;

    std::array<bool, max_lanes> lane_tx_fault_{};
    std::array<bool, max_lanes> lane_los_{};
    std::array<bool, max_lanes> lane_lol_{};
    bool tx_fault_state_ = false;
    qsfpd::clock::time_point tx_fault_set_{};
    event_suppression los_{"LOS"};
    event_suppression lol_{"LOL"};
    unsigned cycle_ = 0;
    bool temp_alarm_state_ = false;
    bool temp_warning_state_ = false;
    bool shutdown_state_ = false;
};

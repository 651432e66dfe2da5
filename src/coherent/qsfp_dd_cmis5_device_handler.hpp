#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "qsfp_dd_coherent_device_handler.hpp"

// A coherent module that follows CMIS 5 and its coherent extensions without the Acacia DSP's
// registers: the coherent set minus the DSP statistics, plus the post-FEC BER, the debounced
// remote and local fault alarms per bank, two more applications, and the line and host
// statistics from VDM.
class qsfp_dd_cmis5_device_handler : public qsfp_dd_coherent_device_handler {
  public:
    // Consecutive readings a fault flag must show before it is reported, and clear before the
    // report ends.
    static constexpr unsigned fault_readings = 4;
    // The debounce counters of one bank: set and clear counts per flag, in the order TX remote,
    // TX local, RX remote, RX local (the bit order of the fault flag register).
    struct fault_debounce {
        std::array<unsigned, 4> set_count{};
        std::array<unsigned, 4> clear_count{};
    };

    qsfp_dd_cmis5_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                 std::string root_path,
                                 std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                 std::string vendor, std::string part_number, std::string part_name,
                                 std::string description, qsfp_flags_s flags, unsigned unit,
                                 unsigned num_units,
                                 std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start();
    void run_periodic_tasks() override;
    void set_application(std::string name) override;

    double get_post_fec_ber_curr();
    bool get_tx_enable_state();
    int get_cd_average();
    // One reading of one fault flag through its counters: whether the fault is reported.
    static bool check_local_remote_faults_flags(bool flag, unsigned& set_count,
                                                unsigned& clear_count);

  private:
    unsigned banks() const;

    std::vector<fault_debounce> debounce_;
    std::shared_ptr<dh::api::status_value<int>> remote_rx_fault_;
    std::shared_ptr<dh::api::status_value<int>> local_rx_fault_;
    // Per client lane: remote and local TX fault.
    std::vector<std::array<std::shared_ptr<dh::api::status_value<int>>, 2>> tx_faults_;
};

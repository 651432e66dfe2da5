#pragma once

#include "qsfp_optical_inphi_device_handler.hpp"

// A PAM4 DSP module that runs either at 100G on two lanes or at 40G on one, as its rate select
// registers say at insertion.
class qsfp_optical_1or2lane_device_handler : public qsfp_optical_inphi_device_handler {
  public:
    qsfp_optical_1or2lane_device_handler(
        dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
        std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor,
        std::string part_number, std::string part_name, std::string description, qsfp_flags_s flags,
        unsigned unit, unsigned num_units,
        std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start();
    void run_periodic_tasks() override;

    // Both directions at 100G.
    static bool runs_at_100g(qsfpd::cage::qsfp_reg_map& regs);
};

#pragma once

#include "qsfp_optical_inphi_device_handler.hpp"

// A single-lane PAM4 module with a DSP.
class qsfp_optical_1lane_pam4_device_handler : public qsfp_optical_inphi_device_handler {
  public:
    qsfp_optical_1lane_pam4_device_handler(
        dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
        std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor,
        std::string part_number, std::string part_name, std::string description, qsfp_flags_s flags,
        unsigned unit, unsigned num_units,
        std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start();
    void run_periodic_tasks() override;
};

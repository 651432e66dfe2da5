#pragma once

#include "qsfp_dd_device_handler.hpp"

// The minimal handler of an 8-lane CMIS optical module: what every CMIS module publishes, no
// monitoring of its own.
class qsfp_dd_optical_8lane_device_handler : public qsfp_dd_device_handler {
  public:
    qsfp_dd_optical_8lane_device_handler(
        dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
        std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor,
        std::string part_number, std::string part_name, std::string description, qsfp_flags_s flags,
        unsigned unit, unsigned num_units,
        std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    void start();
    void run_periodic_tasks() override {}
};

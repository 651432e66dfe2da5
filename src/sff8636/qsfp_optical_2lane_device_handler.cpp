#include "qsfp_optical_2lane_device_handler.hpp"

#include "msg_log.hpp"

qsfp_optical_2lane_device_handler::qsfp_optical_2lane_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_optical_inphi_device_handler(
          db, std::move(device), std::move(root_path), std::move(reg_map), std::move(vendor),
          std::move(part_number), std::move(part_name), std::move(description), flags,
          "optical-2lane", unit, num_units, 2, std::move(clock)) {
    MSG_LOG(msg_log::info, init_tag()) << "QSFP optical 2 lane device handler started";
}

void qsfp_optical_2lane_device_handler::start() {
    qsfp_optical_inphi_device_handler::start();
    // Polling starts only now that every node it reads exists.
    activate_value_group();
    set_dh_ready(true);
}

void qsfp_optical_2lane_device_handler::run_periodic_tasks() {
    qsfp_optical_inphi_device_handler::run_periodic_tasks();
}

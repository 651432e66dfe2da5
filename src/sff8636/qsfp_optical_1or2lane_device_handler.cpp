#include "qsfp_optical_1or2lane_device_handler.hpp"

#include "msg_log.hpp"

bool qsfp_optical_1or2lane_device_handler::runs_at_100g(qsfpd::cage::qsfp_reg_map& regs) {
    return regs.get_rx_is_100g() && regs.get_tx_is_100g();
}

qsfp_optical_1or2lane_device_handler::qsfp_optical_1or2lane_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_optical_inphi_device_handler(
          db, device, std::move(root_path), reg_map, std::move(vendor), std::move(part_number),
          std::move(part_name), std::move(description), flags,
          runs_at_100g(*reg_map) ? "optical-2lane" : "optical-1lane", unit, num_units,
          runs_at_100g(*reg_map) ? 2 : 1, std::move(clock)) {
    auto lock = lock_handler();
    const bool at_100g = module_access([&] { return runs_at_100g(*reg_map_); });
    MSG_LOG(msg_log::info, init_tag()) << "QSFP optical 1 or 2 lane device handler started in "
                                       << (at_100g ? "2 lane mode (100G)" : "1 lane mode (40G)");
}

void qsfp_optical_1or2lane_device_handler::start() {
    qsfp_optical_inphi_device_handler::start();
    // Polling starts only now that every node it reads exists.
    activate_value_group();
    set_dh_ready(true);
}

void qsfp_optical_1or2lane_device_handler::run_periodic_tasks() {
    qsfp_optical_inphi_device_handler::run_periodic_tasks();
}

#include "qsfp_optical_4lane_device_handler.hpp"

qsfp_optical_4lane_device_handler::qsfp_optical_4lane_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_optical_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                                  std::move(vendor), std::move(part_number), std::move(part_name),
                                  std::move(description), flags, "optical", unit, num_units, 4,
                                  std::move(clock)) {
    select_rate();
}

void qsfp_optical_4lane_device_handler::select_rate() {
    // A warm-started module runs traffic at the rate it was given; a module with application
    // select chooses its rate through the application, not through rate select.
    if (is_warm_started()) return;
    auto lock = lock_handler();
    module_access([&] {
        if (reg_map_->get_free_side_appl_sel_impl()) return;
        if (!reg_map_->get_free_side_rate_sel_impl()) return;
        for (unsigned lane = 0; lane < lane_count(); ++lane) {
            reg_map_->set_ch_rx_rate_sel(lane, lane_rate_mbps);
            reg_map_->set_ch_tx_rate_sel(lane, lane_rate_mbps);
        }
    });
}

void qsfp_optical_4lane_device_handler::start() {
    qsfp_optical_device_handler::start();
    // Polling starts only now that every node it reads exists.
    activate_value_group();
    set_dh_ready(true);
}

void qsfp_optical_4lane_device_handler::run_periodic_tasks() {
    qsfp_optical_device_handler::run_periodic_tasks();
}

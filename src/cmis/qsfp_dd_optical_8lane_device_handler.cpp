#include "qsfp_dd_optical_8lane_device_handler.hpp"

qsfp_dd_optical_8lane_device_handler::qsfp_dd_optical_8lane_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_dd_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                             std::move(vendor), std::move(part_number), std::move(part_name),
                             std::move(description), flags, "optical", unit, num_units,
                             std::move(clock)) {}

void qsfp_dd_optical_8lane_device_handler::start() {
    qsfp_dd_device_handler::start();
    activate_value_group();
    set_dh_ready(true);
}

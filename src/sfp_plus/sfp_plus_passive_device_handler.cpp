#include "sfp_plus_passive_device_handler.hpp"

using namespace dh::api;

sfp_plus_passive_device_handler::sfp_plus_passive_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<sfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, sfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : sfp_plus_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                              std::move(vendor), std::move(part_number), std::move(part_name),
                              std::move(description), flags, "passive", unit, num_units,
                              std::move(clock)) {}

void sfp_plus_passive_device_handler::start() {
    sfp_plus_device_handler::start();
    const auto self = shared_from_this();
    keep_node(
        const_value<std::string>::create(db_, path("data/cableType"), self, get_cable_type()));
    keep_node(
        const_value<unsigned>::create(db_, path("data/cableLength"), self, get_cable_length()));
    activate_nodes();
}

std::string sfp_plus_passive_device_handler::get_cable_type() {
    return read_for("get_cable_type", [&]() -> std::string {
        if (reg_map_->get_transceiver_comp__cable_technology_passive()) return "passive";
        if (reg_map_->get_transceiver_comp__cable_technology_active()) return "active";
        return "n/a";
    });
}

unsigned sfp_plus_passive_device_handler::get_cable_length() {
    return read_for("get_cable_length",
                    [&]() -> unsigned { return reg_map_->get_length_copper_m(); });
}

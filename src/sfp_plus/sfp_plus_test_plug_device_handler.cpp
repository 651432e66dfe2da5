#include "sfp_plus_test_plug_device_handler.hpp"

using namespace dh::api;

sfp_plus_test_plug_device_handler::sfp_plus_test_plug_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<sfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, sfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : sfp_plus_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                              std::move(vendor), std::move(part_number), std::move(part_name),
                              std::move(description), flags, "test", unit, num_units,
                              std::move(clock)) {}

void sfp_plus_test_plug_device_handler::start() {
    using self_type = sfp_plus_test_plug_device_handler;
    sfp_plus_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    group_node(volatile_value<&self_type::get_loopback>::create(db_, path("data/loopback"), self));
    group_node(config_param<&self_type::set_loopback>::create(db_, path("config/loopback"), self))
        ->set_value(get_loopback());
    activate_nodes();
}

bool sfp_plus_test_plug_device_handler::get_loopback() {
    return read_for("get_loopback", [&] { return reg_map_->get_loopback(); });
}

void sfp_plus_test_plug_device_handler::set_loopback(bool on) {
    auto lock = lock_module();
    read_for("set_loopback", [&] { reg_map_->set_loopback(on); });
    MSG_LOG(msg_log::info, config_tag())
        << (on ? "Loopback enabled " : "Loopback disabled ") << module_name_;
}

#include "sfp_plus_voa_device_handler.hpp"

#include <cmath>

#include <fmt/format.h>

#include "monitor_units.hpp"

using namespace dh::api;

namespace {

double hundredths_to_db(std::uint32_t raw) {
    return qsfpd::units::round_to(raw / 100.0, 2);
}

}  // namespace

sfp_plus_voa_device_handler::sfp_plus_voa_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<sfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, sfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : sfp_plus_optical_device_handler(db, std::move(device), std::move(root_path),
                                      std::move(reg_map), std::move(vendor), std::move(part_number),
                                      std::move(part_name), std::move(description), flags, unit,
                                      num_units, std::move(clock), "voa") {}

void sfp_plus_voa_device_handler::start() {
    using self_type = sfp_plus_voa_device_handler;
    sfp_plus_optical_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());
    keep_node(
        const_value<double>::create(db_, path("data/maxAttenuation"), self, get_max_attenuation()));
    group_node(
        volatile_value<&self_type::get_attenuation>::create(db_, path("data/attenuation"), self));
    group_node(volatile_value<&self_type::get_attenuation_settling>::create(
        db_, path("data/attenuationSettling"), self));
    group_node(
        config_param<&self_type::set_attenuation>::create(db_, path("config/attenuation"), self))
        ->set_value(get_attenuation_setpoint());
    activate_nodes();
}

void sfp_plus_voa_device_handler::set_attenuation(double db) {
    auto lock = lock_module();
    const double max = get_max_attenuation();
    if (!(db >= 0.0 && db <= max)) {
        const std::string text =
            fmt::format("Attenuation {} dB out of range 0..{} {}", db, max, module_name_);
        MSG_LOG(msg_log::error, config_tag()) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    const auto raw = static_cast<std::uint16_t>(std::lround(db * 100.0));
    read_for("set_attenuation", [&] { reg_map_->set_voa_attenuation(raw); });
    MSG_LOG(msg_log::info, config_tag())
        << fmt::format("Attenuation set to {:.2f} dB {}", raw / 100.0, module_name_);
}

double sfp_plus_voa_device_handler::get_attenuation_setpoint() {
    return read_for("get_attenuation_setpoint",
                    [&] { return hundredths_to_db(reg_map_->get_voa_attenuation_set()); });
}

double sfp_plus_voa_device_handler::get_attenuation() {
    return read_for("get_attenuation",
                    [&] { return hundredths_to_db(reg_map_->get_voa_attenuation_actual()); });
}

double sfp_plus_voa_device_handler::get_max_attenuation() {
    return read_for("get_max_attenuation",
                    [&] { return hundredths_to_db(reg_map_->get_voa_attenuation_max()); });
}

bool sfp_plus_voa_device_handler::get_attenuation_settling() {
    return read_for("get_attenuation_settling",
                    [&] { return reg_map_->read_flag(sfp_field::voa_settling); });
}

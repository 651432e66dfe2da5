#include "sfp_plus_device_handler.hpp"

#include <cmath>

#include "tx_enable_texts.hpp"

using namespace dh::api;

sfp_plus_device_handler::sfp_plus_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<sfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, sfp_flags_s flags, std::string kind,
    unsigned unit, unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : db_(db),
      device_(std::move(device)),
      root_(std::move(root_path)),
      module_name_(device_->path()),
      reg_map_(std::move(reg_map)),
      vendor_(std::move(vendor)),
      part_number_(std::move(part_number)),
      part_name_(std::move(part_name)),
      description_(std::move(description)),
      flags_(flags),
      kind_(std::move(kind)),
      clock_(clock ? std::move(clock) : qsfpd::clock::system()),
      group_(std::make_unique<value_group>(std::chrono::milliseconds(1000), unit, num_units, clock_,
                                           false)) {
    // What the module can do decides which nodes exist: read once, a failure here fails the
    // construction (the converter then serves no SFP handler).
    auto lock = lock_module();
    diagnostics_ = reg_map_->get_diag_mon_implemented();
    tx_disable_pin_ = reg_map_->get_tx_disable_implemented();
    soft_tx_disable_ = diagnostics_ && reg_map_->get_soft_tx_disable_implemented();
}

sfp_plus_device_handler::~sfp_plus_device_handler() = default;

std::string sfp_plus_device_handler::path(std::string_view relative) const {
    if (root_.empty()) return std::string(relative);
    return root_ + "/" + std::string(relative);
}

void sfp_plus_device_handler::log_failure(const std::string& text) {
    if (std::exchange(failing_, true)) return;
    MSG_LOG(msg_log::error, module_name_) << text;
}

void sfp_plus_device_handler::start() {
    using self_type = sfp_plus_device_handler;
    const auto self = shared_from_this();
    keep_node(const_value<std::string>::create(db_, path("inventory/sfpKind"), self, kind_));
    keep_node(
        const_value<std::string>::create(db_, path("inventory/sfpPartName"), self, part_name_));
    keep_node(
        const_value<std::string>::create(db_, path("inventory/vendorOui"), self, get_vendor_oui()));
    keep_node(
        const_value<double>::create(db_, path("inventory/wavelength"), self, get_wavelength_nm()));
    keep_node(const_value<unsigned>::create(db_, path("data/nominalBitrate"), self,
                                            get_nominal_bitrate()));
    keep_node(const_value<unsigned>::create(db_, path("data/maxBitrate"), self, get_max_bitrate()));
    keep_node(
        const_value<std::string>::create(db_, path("inventory/wdmType"), self, get_wdm_type()));
    keep_node(
        const_value<bool>::create(db_, path("inventory/isCertified"), self, flags_.isCertified));
    keep_node(const_value<bool>::create(db_, path("data/hasDiagnostics"), self, diagnostics_));
    oper_status_node_ =
        group_node(status_value<std::string>::create(db_, path("data/operStatus"), self, "down"));
    group_node(volatile_value<&self_type::get_port_admin_status>::create(
        db_, path("data/adminStatus"), self));
    group_node(
        config_param<&self_type::set_tx_enable>::create(db_, path("settings/txEnable"), self))
        ->set_value(get_tx_enable());
    group_node(
        command<&self_type::set_tx_enable_command>::create(db_, path("command/txEnable"), self));
    group_node(volatile_value<&self_type::get_tx_enable>::create(db_, path("data/txEnable"), self));
}

// --- Inventory ----------------------------------------------------------------------------------

std::string sfp_plus_device_handler::get_vendor_oui() {
    return read_for("get_vendor_oui", [&] { return reg_map_->get_vendor_oui(); });
}

double sfp_plus_device_handler::get_wavelength_nm() {
    return read_for("get_wavelength_nm", [&] {
        // A copper module uses bytes 60..61 for its cable compliance, not a wavelength.
        if (reg_map_->get_transceiver_comp__cable_technology_is_cable()) return 0.0;
        return reg_map_->get_wavelength(true);
    });
}

unsigned sfp_plus_device_handler::get_nominal_bitrate() {
    return read_for("get_nominal_bitrate", [&]() -> unsigned {
        // SFF-8472 byte 12 in 100 Mbit/s; FFh defers to byte 66 in 250 Mbit/s.
        const unsigned nominal = reg_map_->get_nom_bit_rate();
        if (nominal == 0xFF) return reg_map_->get_nom_bit_rate_2() * 250u;
        return nominal * 100u;
    });
}

unsigned sfp_plus_device_handler::get_max_bitrate() {
    return read_for("get_max_bitrate", [&]() -> unsigned {
        // Below FFh, byte 66 is the upper margin in percent of the nominal rate.
        const unsigned nominal = reg_map_->get_nom_bit_rate();
        if (nominal == 0xFF) return reg_map_->get_nom_bit_rate_2() * 250u;
        return nominal * 100u * (100u + reg_map_->get_signaling_rate_max()) / 100u;
    });
}

std::string sfp_plus_device_handler::get_wdm_type() const {
    return std::string(flags_.wdm_type < wdm_type_names.size() ? wdm_type_names[flags_.wdm_type]
                                                               : wdm_type_names[0]);
}

// --- Admin status and transmitter ---------------------------------------------------------------

void sfp_plus_device_handler::set_port_admin_status(std::string status) {
    auto lock = lock_module();
    const std::string tag = config_tag();
    if (status != "up" && status != "down") {
        const std::string text = "Illegal parameter admin status: " + status + " ";
        MSG_LOG(msg_log::error, tag) << text;
        throw dh_error(dh::errc::invalid, text);
    }
    const bool up = status == "up";
    if (admin_up_ == up) {
        MSG_LOG(msg_log::info, tag)
            << "Setting adminstatus " << status << " but adminstatus is already " << status
            << ", do nothing. " << module_name_;
        return;
    }
    MSG_LOG(msg_log::info, tag) << "Setting adminstatus " << status << " " << module_name_;
    admin_up_ = up;
    _set_port_admin_status(up);
    if (oper_status_node_) oper_status_node_->update(up ? "up" : "down");
}

std::string sfp_plus_device_handler::get_port_admin_status() {
    auto lock = lock_module();
    return admin_up_ == true ? "up" : "down";
}

void sfp_plus_device_handler::_set_port_admin_status(bool up) {
    read_for("set_port_admin_status", [&] { _set_tx_disable(!up); });
}

void sfp_plus_device_handler::_set_tx_disable(bool disable) {
    if (tx_disable_pin_) device_->sfp_set_tx_disable(disable);
    if (soft_tx_disable_) reg_map_->set_soft_tx_disable_select(disable);
}

bool sfp_plus_device_handler::_get_tx_enable() {
    if (tx_disable_pin_ && device_->sfp_tx_disable()) return false;
    if (soft_tx_disable_ && reg_map_->get_soft_tx_disable_select()) return false;
    return true;
}

bool sfp_plus_device_handler::get_tx_enable() {
    return read_for("get_tx_enable", [&] { return _get_tx_enable(); });
}

void sfp_plus_device_handler::set_tx_enable(bool enable) {
    auto lock = lock_module();
    if (!tx_disable_pin_ && !soft_tx_disable_)
        throw dh_error(dh::errc::invalid,
                       "TX disable is not implemented by the SFP " + module_name_);
    const bool already = read_for("set_tx_enable", [&] { return _get_tx_enable() == enable; });
    MSG_LOG(msg_log::info, init_tag()) << qsfpd::tx_texts::module(enable, already, module_name_);
    if (already) return;
    read_for("set_tx_enable", [&] { _set_tx_disable(!enable); });
}

bool sfp_plus_device_handler::set_tx_enable_command(bool enable) {
    set_tx_enable(enable);
    return true;
}

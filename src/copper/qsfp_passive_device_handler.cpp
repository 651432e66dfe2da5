#include "qsfp_passive_device_handler.hpp"

#include <iostream>

#include <fmt/format.h>

#include "device_handler_client.hpp"
#include "monitor_units.hpp"
#include "msg_log.hpp"
#include "tx_enable_texts.hpp"

using namespace dh::api;

qsfp_passive_device_handler::qsfp_passive_device_handler(
    dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor, std::string part_number,
    std::string part_name, std::string description, qsfp_flags_s flags, unsigned unit,
    unsigned num_units, std::shared_ptr<qsfpd::clock> clock)
    : qsfp_device_handler(db, std::move(device), std::move(root_path), std::move(reg_map),
                          std::move(vendor), std::move(part_number), std::move(part_name),
                          std::move(description), flags, "passive", unit, num_units,
                          std::move(clock)) {
    const std::shared_ptr<qsfp_passive_device_handler> no_owner;
    lanes_node_ =
        const_value<unsigned>::create(db_, path("data/numberOfLanes"), no_owner, lane_count);
}

qsfp_passive_device_handler::~qsfp_passive_device_handler() = default;

void qsfp_passive_device_handler::start() {
    using self_type = qsfp_passive_device_handler;
    qsfp_device_handler::start();
    const auto self = std::static_pointer_cast<self_type>(shared_from_this());

    los_alarm_ =
        group_node(status_value<int>::create(db_, path("alarms/lossOfSignal/severity"), self, 0));
    lol_alarm_ =
        group_node(status_value<int>::create(db_, path("alarms/lossOfLock/severity"), self, 0));
    oper_status_node_ =
        group_node(status_value<std::string>::create(db_, path("data/operStatus"), self, "down"));
    keep_node(const_value<std::string>::create(db_, path("inventory/fwRevision"), self,
                                               get_fw_revision()));
    group_node(volatile_value<&self_type::get_port_admin_status>::create(
        db_, path("data/adminStatus"), self));
    // The register debugging nodes come with the base handler's start().
    group_node(
        config_param<&self_type::set_tx_enable>::create(db_, path("settings/txEnable"), self))
        ->set_value(get_tx_enable());
    group_node(
        hysteresis_filtered_value<polled_volatile_value_impl<&self_type::get_trx_temperature>>::
            create(db_, path("data/temperature"), self, 0.5, 0.1));
    activate_value_group();
    set_dh_ready(true);
}

// --- Gearbox lanes ------------------------------------------------------------------------------

unsigned qsfp_passive_device_handler::count_lanes(const char* signature, const char* flag) {
    auto lock = lock_handler();
    const auto client = get_gearbox_client();
    unsigned count = 0;
    if (!client) return count;
    try {
        for (unsigned lane = 0; lane < lane_count; ++lane)
            count += device_handler_read_object<bool>(
                         client, fmt::format("data/debug/client/lane/{}/{}", lane, flag))
                             .read()
                         ? 1
                         : 0;
    } catch (const dh_error& e) {
        // Reported where the gearbox's own operators look, not in this daemon's log.
        std::cout << signature << " got exception:" << e.what() << ", counter:" << count
                  << std::endl;
        return 0;
    }
    return count;
}

unsigned qsfp_passive_device_handler::get_active_locks() {
    return count_lanes("unsigned int qsfp_passive_device_handler::get_active_locks()", "hasLock");
}

unsigned qsfp_passive_device_handler::get_active_links() {
    return count_lanes("unsigned int qsfp_passive_device_handler::get_active_links()", "hasLink");
}

void qsfp_passive_device_handler::run_periodic_tasks() {
    const auto admin = admin_state();
    const bool use_gearbox = get_gearbox_client() != nullptr;
    // Unset admin state: alarms held clear, yet the port reads "up" (the cable carries whatever
    // the gearbox sends it). The asymmetry with "data/adminStatus" reading "down" is deliberate.
    if (admin == true && use_gearbox) {
        los_alarm_->update(get_active_links() != lane_count ? 1 : 0);
        lol_alarm_->update(get_active_locks() != lane_count ? 1 : 0);
    } else {
        los_alarm_->update(0);
        lol_alarm_->update(0);
    }
    oper_status_node_->update(admin == false ? "down" : "up");
}

// --- Module -------------------------------------------------------------------------------------

std::string qsfp_passive_device_handler::get_port_admin_status() {
    return admin_state() == true ? "up" : "down";
}

void qsfp_passive_device_handler::_set_port_admin_status(bool up) {
    // Low power (Power_set / LowPwrRequestSW) silences the cable's active parts, if any.
    module_access([&] {
        if (reg_map_->is_cmis())
            reg_map_->set_dd_low_pwr_request_sw(!up);
        else
            reg_map_->set_power_set(!up);
    });
}

bool qsfp_passive_device_handler::_get_tx_enable() {
    if (reg_map_->is_cmis()) return reg_map_->get_dd_tx_disable() == 0;
    return reg_map_->get_tx_disable() == 0;
}

bool qsfp_passive_device_handler::has_tx_disable() {
    // A flat-memory CMIS cable has no page 10h: nothing to disable.
    return module_access([&] { return !reg_map_->is_cmis() || reg_map_->get_dd_support_paging(); });
}

bool qsfp_passive_device_handler::get_tx_enable() {
    auto lock = lock_handler();
    if (!has_tx_disable()) return true;
    return read_for("get_tx_enable", [&] { return _get_tx_enable(); });
}

void qsfp_passive_device_handler::set_tx_enable(bool enable) {
    auto lock = lock_handler();
    if (!has_tx_disable())
        throw dh_error(dh::errc::invalid, "TX enable is not available on a flat-memory module");
    const std::string tag = init_tag();
    const bool already = read_for("set_tx_enable", [&] { return _get_tx_enable() == enable; });
    MSG_LOG(msg_log::info, tag) << qsfpd::tx_texts::module(enable, already, module_name());
    if (already) return;
    read_for("set_tx_enable", [&] {
        if (reg_map_->is_cmis())
            reg_map_->set_dd_tx_disable(!enable);
        else
            reg_map_->set_tx_disable(!enable);
    });
}

double qsfp_passive_device_handler::get_trx_temperature() {
    auto lock = lock_handler();
    return read_for("get_trx_temperature", [&] {
        return qsfpd::units::temperature_celsius(
            reg_map_->is_cmis() ? reg_map_->get_dd_temperature() : reg_map_->get_temperature());
    });
}

std::string qsfp_passive_device_handler::get_fw_revision() {
    auto lock = lock_handler();
    if (!module_access([&] { return reg_map_->is_cmis(); })) return "n/a";  // SFF-8636 has none
    return read_for("get_fw_revision", [&] {
        return fmt::format("{}.{}", reg_map_->get_dd_fw_major_rev(),
                           reg_map_->get_dd_fw_minor_rev());
    });
}

#include "qsfp_device_mgr.hpp"

#include <fmt/format.h>

#include "grid_schedule.hpp"
#include "msg_log.hpp"
#include "qsfp_dd_acacia_1lane_device_handler.hpp"
#include "qsfp_dd_cmis5_1lane_hpower_device_handler.hpp"
#include "qsfp_dd_optical_4lane_device_handler.hpp"
#include "qsfp_optical_1lane_device_handler.hpp"
#include "qsfp_optical_1lane_pam4_device_handler.hpp"
#include "qsfp_optical_1or2lane_device_handler.hpp"
#include "qsfp_optical_4lane_device_handler.hpp"
#include "qsfp_passive_converter_device_handler.hpp"
#include "qsfp_passive_device_handler.hpp"
#include "system_path.hpp"

using qsfpd::handler_class;
namespace line = qsfpd::cage::line;

namespace {

// One OEM line is sold under another name: the handler shows that name, the description keeps
// the original part number.
void rewrite_oem_names(const std::string& part_number, std::string& part_name,
                       std::string& description) {
    static const std::string prefix = "VK-T4MR8-";
    if (part_number.rfind(prefix, 0) != 0) return;
    part_name = "MX7-Q28-D" + part_number.substr(9, 2);
    description += " (" + part_number + ")";
}

}  // namespace

qsfp_device_mgr::qsfp_device_mgr(std::string device_path, dh_db& db, std::uint32_t unit,
                                 std::uint32_t num_units)
    : qsfp_device_mgr(device_path, db, unit, num_units,
                      std::make_shared<qsfpd::cage::qsfp_device>(device_path),
                      qsfpd::clock::system()) {}

qsfp_device_mgr::qsfp_device_mgr(std::string device_path, dh_db& db, std::uint32_t unit,
                                 std::uint32_t num_units,
                                 std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                 std::shared_ptr<qsfpd::clock> clock,
                                 std::map<handler_class, handler_factory> factories)
    : device_path_(std::move(device_path)),
      hotplug_tag_(device_path_ + "/hotplug"),
      db_(db),
      unit_(unit),
      num_units_(num_units),
      clock_(std::move(clock)),
      factories_(std::move(factories)),
      device_(std::move(device)) {
    reg_map_ = std::make_shared<qsfpd::cage::qsfp_reg_map>(*device_);
    group_ = std::make_unique<dh::api::value_group>(std::chrono::milliseconds(1000), unit_,
                                                    num_units_, clock_);
    comm_failure_alarm_ = dh::api::status_value<int>::create(
        db_, "alarms/communicationFailure/severity", std::shared_ptr<qsfp_device_mgr>{}, 0);
    generate_probe_function();
    thread_ = std::jthread([this](std::stop_token stop) { poll_func(stop); });
}

qsfp_device_mgr::~qsfp_device_mgr() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
}

namespace {

// Every handler class is built the same way: a register map of its own on the cage device, the
// texts the manager read and matched, and start() before the manager publishes it. Node paths
// have no prefix: the daemon serves one cage.
template <class Handler>
qsfp_device_mgr::handler_factory factory_of() {
    return [](qsfp_device_mgr& manager, dh_db& db, const std::string& vendor,
              const std::string& part_number, const std::string& part_name,
              const std::string& description, const qsfp_flags_s& flags) {
        auto handler = std::make_shared<Handler>(
            db, manager.device(), "", manager.new_reg_map(), vendor, part_number, part_name,
            description, flags, manager.unit(), manager.num_units(), manager.clock());
        handler->start();
        return std::shared_ptr<qsfp_device_handler>(std::move(handler));
    };
}

}  // namespace

std::map<handler_class, qsfp_device_mgr::handler_factory> qsfp_device_mgr::default_factories() {
    return {
        {handler_class::optical_4lane, factory_of<qsfp_optical_4lane_device_handler>()},
        {handler_class::optical_1or2lane, factory_of<qsfp_optical_1or2lane_device_handler>()},
        {handler_class::optical_1lane, factory_of<qsfp_optical_1lane_device_handler>()},
        {handler_class::optical_1lane_pam4, factory_of<qsfp_optical_1lane_pam4_device_handler>()},
        {handler_class::dd_optical_4lane, factory_of<qsfp_dd_optical_4lane_device_handler>()},
        {handler_class::dd_acacia_1lane, factory_of<qsfp_dd_acacia_1lane_device_handler>()},
        {handler_class::dd_cmis5_1lane_hpower,
         factory_of<qsfp_dd_cmis5_1lane_hpower_device_handler>()},
        {handler_class::passive, factory_of<qsfp_passive_device_handler>()},
        {handler_class::passive_converter, factory_of<qsfp_passive_converter_device_handler>()},
    };
}

void qsfp_device_mgr::start() {
    using namespace dh::api;
    auto self = shared_from_this();
    auto add = [&](std::shared_ptr<dh_db_leaf_node> node) {
        group_->add_value(node, 0);
        nodes_.push_back(std::move(node));
    };
    add(volatile_value<&qsfp_device_mgr::get_module_present_pin>::create(
        db_, "data/modulePresentPin", self));
    auto admin = config_param<&qsfp_device_mgr::set_port_admin_status>::create(
        db_, "config/adminStatus", self, std::vector<std::string>{"up", "down"});
    admin->set_value("down");
    add(admin);
    add(command<&qsfp_device_mgr::restart>::create(db_, "command/interface_restart", self));
    // Missing until a module has been identified; the polling thread keeps it from then on.
    missing_alarm_ = status_value<int>::create(db_, "alarms/transceiverMissing/severity", self, 1);
    add(missing_alarm_);
    add(comm_failure_alarm_);
    if (qsfpd::cage::qsfp_device::is_qsfp_zelt30() || qsfpd::cage::qsfp_device::is_qsfp_zelt40() ||
        qsfpd::cage::qsfp_device::is_qsfp_zelt50()) {
        add(command<&qsfp_device_mgr::set_led_tx_yellow>::create(db_, "command/ledTxYellow", self));
        add(command<&qsfp_device_mgr::set_led_tx_green>::create(db_, "command/ledTxGreen", self));
        add(command<&qsfp_device_mgr::set_led_rx_yellow>::create(db_, "command/ledRxYellow", self));
        add(command<&qsfp_device_mgr::set_led_rx_green>::create(db_, "command/ledRxGreen", self));
        add(volatile_value<&qsfp_device_mgr::get_led_tx_yellow>::create(db_, "data/ledTxYellow",
                                                                        self));
        add(volatile_value<&qsfp_device_mgr::get_led_tx_green>::create(db_, "data/ledTxGreen",
                                                                       self));
        add(volatile_value<&qsfp_device_mgr::get_led_rx_yellow>::create(db_, "data/ledRxYellow",
                                                                        self));
        add(volatile_value<&qsfp_device_mgr::get_led_rx_green>::create(db_, "data/ledRxGreen",
                                                                       self));
        add(volatile_value<&qsfp_device_mgr::is_converter>::create(db_, "data/isConverter", self));
        add(config_param<&qsfp_device_mgr::set_lpmode>::create(db_, "config/debug/lpmode", self));
        add(config_param<&qsfp_device_mgr::set_reset>::create(db_, "config/debug/reset", self));
    }
}

std::shared_ptr<qsfp_device_handler> qsfp_device_mgr::current_handler() {
    std::lock_guard lock(mutex_);
    return handler_;
}

std::shared_ptr<qsfpd::cage::qsfp_device> qsfp_device_mgr::device() {
    std::lock_guard lock(mutex_);
    return device_;
}

std::shared_ptr<qsfpd::cage::qsfp_reg_map> qsfp_device_mgr::new_reg_map() {
    return std::make_shared<qsfpd::cage::qsfp_reg_map>(*device());
}

bool qsfp_device_mgr::get_module_present_pin() {
    if (restart_requested_) return false;
    return device()->module_present();
}

bool qsfp_device_mgr::set_line(unsigned pin, bool on) {
    device()->pin_set(pin, on);
    return true;
}

bool qsfp_device_mgr::get_line(unsigned pin) {
    return device()->pin_get(pin);
}

bool qsfp_device_mgr::is_converter() {
    return device()->get_converter_flag();
}

bool qsfp_device_mgr::set_port_admin_status(const std::string& status) {
    std::shared_ptr<qsfp_device_handler> handler;
    bool converter = false;
    {
        std::lock_guard lock(mutex_);
        admin_up_ = status == "up";
        handler = handler_;
        converter = device_->get_converter_flag();
        if (!presence_ || !handler) return true;  // handed over by the polling thread later
    }
    if (handler->get_dh_ready() || converter) {
        handler->set_port_admin_status(status);
        std::lock_guard lock(mutex_);
        admin_handed_over_ = true;
    }
    return true;
}

bool qsfp_device_mgr::restart(const bool&) {
    restart_requested_ = true;
    MSG_LOG(msg_log::info, device_path_) << "Restart requested";
    return true;
}

void qsfp_device_mgr::generate_probe_function() {
    probe_map_ = qsfpd::load_probe_map(
        qsfpd::system_path("/etc/transceiver_qsfp.json"),
        [this](qsfpd::catalogue_list list) -> qsfpd::probe_factory {
            const handler_class cls = qsfpd::handler_for_list(list);
            return [this, cls](const std::string& vendor, const std::string& part_number,
                               const std::string& description, const qsfp_flags_s& flags) {
                handler_for_class(cls, vendor, part_number, description, flags);
            };
        },
        device_path_);
}

qsfpd::probe_map::const_iterator qsfp_device_mgr::find_in_map(const qsfpd::probe_map& map,
                                                              const std::string& vendor,
                                                              const std::string& part_number) {
    return qsfpd::find_in_map(map, vendor, part_number);
}

void qsfp_device_mgr::poll_func(std::stop_token stop) {
    std::optional<qsfpd::grid_schedule> schedule;
    if (num_units_ != 0) schedule.emplace(*clock_, timing_.poll_period, unit_, num_units_);
    auto next = schedule ? schedule->next() : clock_->now();
    while (clock_->sleep_until(next, stop)) {
        try {
            poll_once(stop);
        } catch (const std::exception& e) {
            MSG_LOG(msg_log::error, hotplug_tag_)
                << "QSFP mgr, " << device_path_ << " exception [" << e.what() << "]";
        } catch (...) {
            MSG_LOG(msg_log::error, hotplug_tag_)
                << "QSFP mgr, " << device_path_ << " unknown exception. ";
        }
        if (schedule) {
            next = schedule->advance(clock_->now());
        } else {
            // Keep the 100 ms grid from the first pass, skipping instants a long pass missed.
            const auto now = clock_->now();
            do
                next += timing_.poll_period;
            while (next <= now);
        }
    }
}

void qsfp_device_mgr::poll_once(std::stop_token stop) {
    bool handled;
    {
        std::lock_guard lock(mutex_);
        handled = module_handled_;
    }
    bool present = false;
    try {
        present = device()->module_present();
    } catch (const std::exception&) {
        if (!handled) throw;
        // A cage gone from under an identified module is a module that stopped answering.
        monitoring_failed();
        return;
    }
    if (restart_requested_ && !handled) {
        MSG_LOG(msg_log::info, device_path_) << "Restart request ignored - No module inserted";
        restart_requested_ = false;
    }
    if (!handled && !restart_requested_ && present) {
        low_power_parked_ = false;
        insert_module(stop);
        return;
    }
    if (!handled && !present && !low_power_parked_) park_low_power();
    if (handled) {
        if (!present || restart_requested_) {
            remove_module();
            MSG_LOG(msg_log::info, hotplug_tag_) << "QSFP " << device_path_ << " removed";
            if (missing_alarm_) missing_alarm_->update(1);
            restart_requested_ = false;
            return;
        }
        hand_over_admin_status();
        run_handler_cycle();
    }
}

void qsfp_device_mgr::run_handler_cycle() {
    const auto handler = current_handler();
    if (!handler || !handler->get_dh_ready()) return;
    try {
        handler->run_periodic_tasks();
    } catch (const std::exception&) {
        monitoring_failed();
        return;
    }
    count_read(true);
    if (failed_cycles_ != 0)
        MSG_LOG(msg_log::info, hotplug_tag_)
            << "QSFP mgr, " << device_path_ << " monitoring resumed after " << failed_cycles_
            << " failed cycles";
    failed_cycles_ = 0;
}

void qsfp_device_mgr::monitoring_failed() {
    // A module that goes silent after identification raises the communication alarm like one
    // that never answered: each cycle counts as one read, with the same thresholds.
    count_read(false);
    // The first failure of a streak is reported as any failed pass is; the rest of the streak
    // (ten a second while a module hangs) would only bury it.
    if (failed_cycles_++ == 0) throw;
}

void qsfp_device_mgr::insert_module(std::stop_token stop) {
    const auto since = clock_->now();
    auto dev = device();
    dev->pin_set(line::reset, false);
    if (!clock_->sleep_for(timing_.insertion_wait, stop)) return;
    if (!dev->i2c_is_ready())
        MSG_LOG(msg_log::info, hotplug_tag_)
            << "New QSFP " << device_path_ << ", i2c not ready after 3 sec. Will retry.";

    std::string vendor, part_number;
    for (unsigned attempt = 0; attempt < timing_.identification_reads; ++attempt) {
        if (stop.stop_requested() || !dev->module_present()) return;
        if (!clock_->sleep_for(timing_.identification_gap, stop)) return;
        std::string v, p;
        try {
            reg_map_->forget_identity();
            v = reg_map_->get_vendor_name();
            p = reg_map_->get_part_number();
        } catch (const std::exception&) {
            count_read(false);
            return;
        }
        count_read(true);
        if (attempt == 0) {
            vendor = v;
            part_number = p;
        } else if (v != vendor || p != part_number) {
            // A module still settling: identify by what it says now, from the start.
            vendor = v;
            part_number = p;
            attempt = 0;
        }
    }
    create_handler(qsfpd::trim_and_upper_case(vendor), qsfpd::trim_and_upper_case(part_number),
                   since);
}

void qsfp_device_mgr::create_handler(const std::string& vendor, const std::string& part_number,
                                     qsfpd::clock::time_point since) {
    try {
        auto entry = find_in_map(probe_map_, vendor, part_number);
        entry->second(vendor, part_number, entry->first.description, entry->first.flags);
        if (!current_handler()) return mark_handled();  // no handler class for it yet: logged
        const auto elapsed =
            std::chrono::duration_cast<std::chrono::milliseconds>(clock_->now() - since);
        MSG_LOG(msg_log::info, hotplug_tag_)
            << "New QSFP " << device_path_ << " inserted and initialized in " << elapsed.count()
            << " ms (vendor: " << vendor << ", part number: " << part_number << ").";
    } catch (const std::out_of_range&) {
        reg_map_->forget_identity();
        qsfpd::reg_map_identification_reader reader(*reg_map_);
        const auto selection = qsfpd::select_by_identification(reader);
        const std::string tail =
            device_path_ + " inserted (vendor: " + vendor + ", part number: " + part_number + ").";
        if (selection.unsupported_cmis_revision)
            MSG_LOG(msg_log::warning, hotplug_tag_)
                << "Unsupported optical QSFP-DD Acacia version: " << selection.cmis_major << ".";
        if (selection.warning == qsfpd::selection_warning::unsupported_optical)
            MSG_LOG(msg_log::warning, hotplug_tag_) << "Unsupported optical QSFP " << tail;
        if (selection.warning == qsfpd::selection_warning::unsupported_copper)
            MSG_LOG(msg_log::warning, hotplug_tag_) << "Unsupported copper QSFP " << tail;
        if (selection.converter) device()->set_converter_flag(true);
        handler_for_class(selection.handler, vendor, part_number, "Unknown", qsfp_flags_s{});
        if (auto handler = current_handler(); handler && !selection.converter)
            handler->set_unsupported();
    }
    mark_handled();
}

void qsfp_device_mgr::mark_handled() {
    std::lock_guard lock(mutex_);
    module_handled_ = true;
    admin_handed_over_ = false;
    presence_ = "present";
    if (missing_alarm_) missing_alarm_->update(0);
}

void qsfp_device_mgr::handler_for_class(handler_class cls, const std::string& vendor,
                                        const std::string& part_number,
                                        const std::string& description, const qsfp_flags_s& flags) {
    auto factory = factories_.find(cls);
    if (factory == factories_.end()) {
        MSG_LOG(msg_log::error, hotplug_tag_)
            << "no handler available for " << qsfpd::class_name(cls) << " " << device_path_;
        return;
    }
    std::string part_name = part_number;
    std::string full_description = description;
    rewrite_oem_names(part_number, part_name, full_description);
    auto handler =
        factory->second(*this, db_, vendor, part_number, part_name, full_description, flags);
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void qsfp_device_mgr::hand_over_admin_status() {
    std::shared_ptr<qsfp_device_handler> handler;
    std::optional<bool> admin_up;
    {
        std::lock_guard lock(mutex_);
        if (!handler_ || admin_handed_over_) return;
        handler = handler_;
        admin_up = admin_up_;
    }
    if (!handler->get_dh_ready()) return;
    // A cold-started module gets the stored status, the parameter's initial "down" included. A
    // warm-started one carries traffic an earlier run set up: the initial value is no order to
    // cut it before management replays its configuration; only a status a client gave is.
    if (!admin_up && handler->is_warm_started()) return;
    handler->set_port_admin_status(admin_up.value_or(false) ? "up" : "down");
    std::lock_guard lock(mutex_);
    admin_handed_over_ = true;
}

void qsfp_device_mgr::remove_module() {
    std::shared_ptr<qsfp_device_handler> old_handler;
    {
        std::lock_guard lock(mutex_);
        old_handler = std::move(handler_);
        module_handled_ = false;
        admin_handed_over_ = false;
        presence_.reset();
        // A fresh device on the same transport: nothing cached of the removed module survives.
        device_ = std::shared_ptr<qsfpd::cage::qsfp_device>(
            qsfpd::cage::qsfp_device::take_over(*device_));
        reg_map_ = std::make_shared<qsfpd::cage::qsfp_reg_map>(*device_);
    }
    old_handler.reset();  // its nodes leave the database with it
    park_low_power();
}

void qsfp_device_mgr::park_low_power() {
    try {
        device()->pin_set(qsfpd::cage::line::lpmode, true);
        low_power_parked_ = true;
    } catch (const std::exception& e) {
        // A cage whose line cannot be driven now is tried again on the next empty pass.
        MSG_LOG(msg_log::warning, device_path_) << "LPMode not asserted: " << e.what();
    }
}

void qsfp_device_mgr::count_read(bool ok) {
    const int before = comm_fail_counter_;
    if (!ok) {
        if (before >= 3) {
            if (comm_failure_alarm_->last_value().value_or(0) == 0) {
                MSG_LOG(msg_log::error, hotplug_tag_) << "Communication error.";
                comm_failure_alarm_->update(1);
            }
            comm_fail_counter_ = 3;
        } else {
            comm_fail_counter_ = before + 1;
        }
        return;
    }
    if (before < 0) {
        if (comm_failure_alarm_->last_value().value_or(0) != 0) {
            MSG_LOG(msg_log::error, hotplug_tag_) << "Communication OK.";
            comm_failure_alarm_->update(0);
        }
        comm_fail_counter_ = 0;
    } else {
        comm_fail_counter_ = before - 1;
    }
}

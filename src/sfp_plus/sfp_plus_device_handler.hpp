#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "clock.hpp"
#include "dh/api/value_nodes.hpp"
#include "dh_db.hpp"
#include "dh_error.hpp"
#include "msg_log.hpp"
#include "qsfp_device.hpp"
#include "sfp_flags.hpp"
#include "sfp_reg_map.hpp"
#include "value_group.hpp"

// What every SFP+ handler has: the catalogue flags, the SFF-8472 inventory the QSFP handlers do
// not publish (OUI, wavelength, rates, WDM type), admin status and transmitter enable through
// the TX_DISABLE signal and the soft TX disable bit. It publishes under the root path of the
// handler that owns the cage (the QSFP-to-SFP converter), which already publishes vendor, part
// number, revision and serial number; so none of those paths are registered here.
class sfp_plus_device_handler : public std::enable_shared_from_this<sfp_plus_device_handler> {
  public:
    using sfp_flags_s = ::sfp_flags_s;
    using handler_lock = std::unique_lock<std::recursive_mutex>;

    sfp_plus_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                            std::string root_path, std::shared_ptr<sfp_reg_map> reg_map,
                            std::string vendor, std::string part_number, std::string part_name,
                            std::string description, sfp_flags_s flags, std::string kind,
                            unsigned unit, unsigned num_units,
                            std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());
    sfp_plus_device_handler(const sfp_plus_device_handler&) = delete;
    sfp_plus_device_handler& operator=(const sfp_plus_device_handler&) = delete;
    virtual ~sfp_plus_device_handler();

    // Registers the nodes; derived handlers add theirs after calling it and activate_nodes().
    virtual void start();
    // One monitoring cycle (the converter calls it every 100 ms).
    virtual void run_periodic_tasks() {}

    void set_port_admin_status(std::string status);
    std::string get_port_admin_status();

    // Transmitter: the TX_DISABLE signal where the module has it, and the soft TX disable bit
    // where it has diagnostics with soft control; enabled when neither disables it.
    void set_tx_enable(bool enable);
    bool set_tx_enable_command(bool enable);
    bool get_tx_enable();

    std::string get_vendor_oui();
    // Nominal wavelength in nm (A0h 60..62), 0 for a copper module.
    double get_wavelength_nm();
    // Nominal and maximum signaling rate in Mbit/s.
    unsigned get_nominal_bitrate();
    unsigned get_max_bitrate();
    std::string get_wdm_type() const;
    std::string get_part_name() const { return part_name_; }

    const sfp_flags_s& get_flags() const { return flags_; }
    const std::string& kind() const { return kind_; }
    // A0h byte 92 bit 6, read at construction: without it the module has no A2h monitors.
    bool has_diagnostics() const { return diagnostics_; }
    const std::string& module_name() const { return module_name_; }

    // The mutex of every register access to the SFP; the converter takes it for its own A2h
    // reads so that a page select never interleaves with ours.
    handler_lock lock_module() const { return handler_lock(mutex_); }
    // While the SFP is out of its converter the getters fail without logging (the converter
    // reports the removal once).
    void set_absent(bool absent) { absent_ = absent; }
    bool absent() const { return absent_; }

  protected:
    // Brings the port up or down after the admin status changed: the transmitter follows it.
    virtual void _set_port_admin_status(bool up);
    void _set_tx_disable(bool disable);
    bool _get_tx_enable();

    // Runs a register read for a getter. A failure reaches the client as a framework error; it
    // is logged once per streak of failures, so a module that stopped answering does not fill
    // the log once a second per polled value.
    template <class F>
    decltype(auto) read_for(const char* getter, F&& read);

    std::string path(std::string_view relative) const;
    template <class Node>
    std::shared_ptr<Node> keep_node(std::shared_ptr<Node> node) {
        nodes_.push_back(node);
        return node;
    }
    template <class Node>
    std::shared_ptr<Node> group_node(std::shared_ptr<Node> node) {
        group_->add_value(node, static_cast<int>(group_->size()));
        return keep_node(std::move(node));
    }
    void activate_nodes() { group_->activate(); }
    std::string init_tag() const { return module_name_ + "/init"; }
    std::string config_tag() const { return module_name_ + "/config"; }
    std::string info_tag() const { return module_name_ + "/info"; }

    dh_db& db_;
    std::shared_ptr<qsfpd::cage::qsfp_device> device_;
    std::string root_;
    std::string module_name_;
    std::shared_ptr<sfp_reg_map> reg_map_;
    std::string vendor_;
    std::string part_number_;
    std::string part_name_;
    std::string description_;
    sfp_flags_s flags_;
    std::string kind_;
    std::shared_ptr<qsfpd::clock> clock_;
    bool diagnostics_ = false;
    bool tx_disable_pin_ = false;   // A0h 65 bit 4
    bool soft_tx_disable_ = false;  // A0h 93 bit 6, with diagnostics
    std::shared_ptr<dh::api::status_value<std::string>> oper_status_node_;

  private:
    void log_failure(const std::string& text);

    mutable std::recursive_mutex mutex_;
    std::atomic<bool> absent_{false};
    bool failing_ = false;  // guarded by mutex_
    std::optional<bool> admin_up_;
    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes_;
    // Last member: its thread stops before the nodes it visits go away.
    std::unique_ptr<dh::api::value_group> group_;
};

template <class F>
decltype(auto) sfp_plus_device_handler::read_for(const char* getter, F&& read) {
    auto lock = lock_module();
    if (absent_) throw dh_error(dh::errc::io_error, "SFP not present " + module_name_);
    try {
        if constexpr (std::is_void_v<decltype(std::forward<F>(read)())>) {
            std::forward<F>(read)();
            failing_ = false;
        } else {
            auto value = std::forward<F>(read)();
            failing_ = false;
            return value;
        }
    } catch (const dh_error&) {
        throw;
    } catch (const std::exception& e) {
        bool present = false;
        try {
            present = device_->module_present();
        } catch (const std::exception&) {
            // A cage we cannot ask is as good as empty here.
        }
        const std::string text =
            present ? std::string("Exception [") + e.what() + "] " + getter + " " + module_name_
                    : "Module unplugged " + module_name_;
        log_failure(text);
        throw dh_error(dh::errc::io_error, text);
    }
}

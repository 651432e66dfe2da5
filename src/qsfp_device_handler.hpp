#pragma once

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "clock.hpp"
#include "dh/api/value_nodes.hpp"
#include "dh_db.hpp"
#include "msg_log.hpp"
#include "qsfp_device.hpp"
#include "qsfp_flags.hpp"
#include "qsfp_reg_map.hpp"

class device_handler_client;

// SFF-8024 Table 4-1, identifier values 00h..1Eh, indexed by the value.
inline constexpr std::array<std::string_view, 31> sff8024_identifier_names = {
    "Unknown or unspecified",
    "GBIC",
    "Module/connector soldered to motherboard (using SFF-8472)",
    "SFP/SFP+/SFP28",
    "300 pin XBI",
    "XENPAK",
    "XFP",
    "XFF",
    "XFP-E",
    "XPAK",
    "X2",
    "DWDM-SFP/SFP+ (not using SFF-8472)",
    "QSFP (INF-8438)",
    "QSFP+ or later (SFF-8436, SFF-8635, SFF-8665, SFF-8685 et al)",
    "CXP or later",
    "Shielded Mini Multilane HD 4X",
    "Shielded Mini Multilane HD 8X",
    "QSFP28 or later (SFF-8665 et al)",
    "CXP2 (aka CXP28) or later",
    "CDFP (Style 1/Style2)",
    "Shielded Mini Multilane HD 4X Fanout Cable",
    "Shielded Mini Multilane HD 8X Fanout Cable",
    "CDFP (Style 3)",
    "microQSFP",
    "QSFP-DD Double Density 8X Pluggable Transceiver (INF-8628)",
    "OSFP 8X Pluggable Transceiver",
    "SFP-DD Double Density 2X Pluggable Transceiver",
    "DSFP Dual Small Form Factor Pluggable Transceiver",
    "x4 MiniLink/OcuLink",
    "x8 MiniLink",
    "QSFP+ or later with Common Management Interface Specification (CMIS)",
};
inline constexpr std::string_view unknown_module_type_name = "Unknown module type";

// The SFF-8024 name of an identifier byte.
std::string_view identifier_name(unsigned identifier);

// What every module handler has, whatever the module: identity and inventory, readiness, the
// unsupported alarm, admin status, register debugging, page dumps and, on ZELT-20, the link to the
// gearbox handler. Concrete handlers derive from it, run their own start() after the base one and
// define run_periodic_tasks().
class qsfp_device_handler : public std::enable_shared_from_this<qsfp_device_handler> {
  public:
    using qsfp_flags_s = ::qsfp_flags_s;

    // One upper page a handler knows how to name in its dumps.
    struct page_advertisement {
        unsigned page;
        unsigned bank;
        std::string description;
        std::string banks = {};  // how many banks of the page there are ("1 of 1"), if known
    };

    // Blocks on ZELT-20 until the gearbox handler reports "up" (deliberately no time-out: the
    // cage's lanes are useless until the gearbox runs).
    qsfp_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                        std::string root_path, std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                        std::string vendor, std::string part_number, std::string part_name,
                        std::string description, qsfp_flags_s flags, std::string data_model,
                        unsigned unit, unsigned num_units,
                        std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());

    qsfp_device_handler(const qsfp_device_handler&) = delete;
    qsfp_device_handler& operator=(const qsfp_device_handler&) = delete;

    virtual std::string get_page_advertisement();
    virtual std::string get_page_dump(unsigned int page, std::string name);
    virtual ~qsfp_device_handler();
    virtual void run_periodic_tasks() = 0;
    virtual void set_port_admin_status(std::string status);
    virtual std::string get_port_admin_status();

    // Registers the nodes every handler has; the concrete start() calls it first.
    void start();

    bool get_dh_ready();
    void set_dh_ready(bool ready);
    void set_unsupported();

    std::string get_type_of_module_in_slot();
    bool dh_needs_restart() const { return false; }
    // Whether start() found the module configured and carrying traffic (an earlier run set it
    // up); such a module is taken down only by a status a client gives.
    virtual bool is_warm_started() const { return false; }
    std::string get_capability() const;
    std::string get_part_name() const { return part_name_; }

    const qsfp_flags_s& get_flags() const { return flags_; }
    void set_flags(qsfp_flags_s flags) {
        auto lock = lock_handler();
        flags_ = flags;
    }

    // Register debugging: address (flat, page * 128 + byte), mask and write data are a selection;
    // only writing the data or reading rd_data touches the module.
    void set_reg_address(unsigned address);
    void set_reg_mask(unsigned mask);
    void set_reg_wr_data(unsigned data);
    unsigned get_reg_address();
    unsigned get_reg_mask();
    unsigned get_reg_wr_data();
    unsigned get_reg_rd_data();

    // The bank and upper page the banked page dump reads.
    void set_eeprom_bank(unsigned bank);
    void set_eeprom_page(unsigned page);
    // {"bank": B, "page": P}, either member optional.
    void set_eeprom_bank_and_page(const std::string& json_document);

    // Page dumps: JSON text (layout in docs/page-dump.md).
    std::string get_lower_page_dump();
    std::string get_banked_page_dump();
    std::string get_eeprom_page_list();

    const std::string& root_path() const { return root_; }
    // What the handler's messages and log channels name the module by: the cage's device path,
    // so that every record in a syslog shared by the cages' daemons can be traced to its cage.
    const std::string& module_name() const { return module_name_; }
    // The gearbox handler's client on ZELT-20, else empty.
    std::shared_ptr<device_handler_client> get_gearbox_client() const { return gearbox_client_; }

  protected:
    std::string init_tag() const { return module_name_ + "/init"; }
    std::string config_tag() const { return module_name_ + "/config"; }
    std::string info_tag() const { return module_name_ + "/info"; }

    using handler_lock = std::unique_lock<std::recursive_mutex>;
    handler_lock lock_handler() const { return handler_lock(handler_mutex_); }

    // Brings the port up or down once the base has accepted a changed admin status; runs with
    // the handler mutex held. The base has nothing to switch.
    virtual void _set_port_admin_status(bool /*up*/) {}

    // The admin status a client (or a warm start) gave: none yet, up or down.
    std::optional<bool> admin_state() const {
        auto lock = lock_handler();
        return admin_applied_ ? std::optional<bool>(admin_up_) : std::nullopt;
    }

    // Records the admin status the module is found in, without switching anything (warm start).
    void _adopt_port_admin_status(bool up) {
        admin_up_ = up;
        admin_applied_ = true;
    }

    // Lower-page bytes a client read through the debugging nodes. Latched flags clear on read:
    // a handler that watches them takes over what the client's read consumed.
    virtual void lower_bytes_read(unsigned /*first*/, std::span<const std::uint8_t> /*bytes*/) {}

    // Replaces the advertised pages (subclasses whose module has other pages).
    void clear_page_advertisement();
    void add_page_advertisement(unsigned page, unsigned bank, std::string description,
                                std::string banks = {});
    // The module's vendor revision and serial number for the inventory, read once at start (the
    // converter takes them from the SFP it holds). Runs with the handler mutex held.
    virtual std::pair<std::string, std::string> _read_revision_and_serial();

    // Banks of banked pages the module has (SFF-8636 modules have none beyond bank 0).
    virtual unsigned _banks_supported();
    // Refuses a page-dump bank the module does not have.
    void _check_bank(unsigned bank);
    // Whether the module says it has the upper page; the base knows SFF-8636 Options (byte 195)
    // and the flat-memory bit.
    virtual bool _page_implemented(unsigned page, unsigned bank);

    std::array<std::uint8_t, qsfpd::cage::page_size> _read_page(unsigned bank, unsigned page,
                                                                bool lower);
    std::string _get_page_dump(unsigned bank, unsigned page, const std::string& name,
                               const std::string& description);

    // Runs a register transaction; a failure is logged before it reaches the client.
    template <class F>
    decltype(auto) module_access(F&& f);
    // Runs a register read for a getter; failures are logged with the getter's name and reach
    // the client as a framework error ("Module unplugged ..." when the cage is empty).
    template <class F>
    decltype(auto) read_for(const char* getter, F&& read);

    void set_capability(int capability) { capability_ = capability; }

    // The value group that start() creates: subclasses add their nodes after the base start()
    // and activate it once every node exists.
    void add_to_value_group(const std::shared_ptr<dh_db_leaf_node>& node);
    void activate_value_group();
    // Keeps a node alive for the handler's life.
    template <class Node>
    std::shared_ptr<Node> keep_node(std::shared_ptr<Node> node) {
        start_nodes_.push_back(node);
        return node;
    }
    // Keeps the node and adds it to the value group.
    template <class Node>
    std::shared_ptr<Node> group_node(std::shared_ptr<Node> node) {
        add_to_value_group(node);
        return keep_node(std::move(node));
    }
    std::string path(std::string_view relative) const;

    dh_db& db_;
    std::shared_ptr<qsfpd::cage::qsfp_device> device_;
    std::string root_;
    std::string module_name_;
    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map_;
    std::string vendor_;
    std::string part_number_;
    std::string part_name_;
    std::string description_;
    qsfp_flags_s flags_;
    std::string data_model_;
    unsigned unit_;
    unsigned num_units_;
    std::shared_ptr<qsfpd::clock> clock_;
    // The default FEC setting that start() publishes; subclasses may change it before start().
    bool fec_default_;

  private:
    void link_platform();
    std::optional<page_advertisement> find_advertisement(unsigned page, unsigned bank) const;
    void log_module_failure(const std::exception& e, bool unplugged) const;

    mutable std::recursive_mutex handler_mutex_;
    int capability_ = 0;

    bool admin_up_ = false;
    bool admin_applied_ = false;

    unsigned reg_address_ = 0;
    unsigned reg_mask_ = 0;
    unsigned reg_wr_data_ = 0;
    unsigned eeprom_bank_ = 0;
    unsigned eeprom_page_ = 0;
    std::vector<page_advertisement> advertised_;

    std::shared_ptr<device_handler_client> gearbox_client_;

    // Constructor nodes.
    std::shared_ptr<dh::api::const_value<std::string>> data_model_node_;
    std::shared_ptr<dh::api::const_value<std::string>> vendor_node_;
    std::shared_ptr<dh::api::const_value<std::string>> part_number_node_;
    std::shared_ptr<dh::api::const_value<std::string>> part_name_node_;
    std::shared_ptr<dh::api::const_value<std::string>> description_node_;
    std::shared_ptr<dh::api::const_value<unsigned>> identifier_node_;
    std::shared_ptr<dh::api::const_value<bool>> is_qsfp_dd_node_;
    std::shared_ptr<dh::api::status_value<bool>> dh_ready_node_;
    std::shared_ptr<dh::api::status_value<int>> unsupported_node_;
    std::shared_ptr<dh::api::status_value<bool>> config_status_node_;
    std::shared_ptr<dh::api::config_param<&qsfp_device_handler::set_dh_ready>>
        dh_ready_config_node_;
    std::shared_ptr<dh::api::config_param<&qsfp_device_handler::set_eeprom_bank>> eeprom_bank_node_;
    std::shared_ptr<dh::api::config_param<&qsfp_device_handler::set_eeprom_page>> eeprom_page_node_;

    // start() nodes; one list keeps them alive, they leave the database with the handler.
    std::vector<std::shared_ptr<dh_db_leaf_node>> start_nodes_;
    // Last member: its thread stops before the nodes it visits go away.
    std::unique_ptr<dh::api::value_group> value_group_;
};

template <class F>
decltype(auto) qsfp_device_handler::module_access(F&& f) {
    try {
        return std::forward<F>(f)();
    } catch (const std::system_error& e) {
        const int code = e.code().value();
        log_module_failure(e, code == ENXIO || code == ENODEV || code == EREMOTEIO);
        throw;
    } catch (const dh_error&) {
        throw;
    } catch (const std::exception& e) {
        log_module_failure(e, false);
        throw;
    }
}

template <class F>
decltype(auto) qsfp_device_handler::read_for(const char* getter, F&& read) {
    try {
        return std::forward<F>(read)();
    } catch (const dh_error&) {
        throw;
    } catch (const std::exception& e) {
        bool present = false;
        try {
            present = device_->module_present();
        } catch (const std::exception&) {
            // A cage we cannot ask is as good as empty here.
        }
        if (!present) {
            MSG_LOG(msg_log::error, module_name()) << "Module unplugged " << module_name();
            throw dh_error(dh::errc::io_error, "Module unplugged " + module_name());
        }
        const std::string text =
            std::string("Exception [") + e.what() + "] " + getter + " " + module_name();
        MSG_LOG(msg_log::error, module_name()) << text;
        throw dh_error(dh::errc::io_error, text);
    }
}

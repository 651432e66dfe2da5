#pragma once

#include <memory>
#include <string>

#include "qsfp_device_handler.hpp"
#include "sfp_plus_device_handler.hpp"
#include "sfp_reg_map.hpp"
#include "sfp_transceiver_catalogue.hpp"

// A QSFP-to-SFP adapter (QSA) in the cage with an SFP/SFP+ in it. The adapter is passive: the
// cage's two-wire bus reaches the SFP's A0h/A2h and the cage routes the SFP's signals. The
// handler looks the SFP up in the SFP catalogue, creates the SFP+ handler that fits it and serves
// the signals, rate select and raw pages itself; the SFP's monitors, alarms and controls come
// from the SFP+ handler, under the same root. Inventory vendor, part number, revision and serial
// number are the SFP's: the adapter has no memory of its own.
class qsfp_passive_converter_device_handler : public qsfp_device_handler {
  public:
    static constexpr const char* default_catalogue = "/etc/transceiver_sfp+.json";

    qsfp_passive_converter_device_handler(
        dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device, std::string root_path,
        std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor,
        std::string part_number, std::string part_name, std::string description, qsfp_flags_s flags,
        unsigned unit, unsigned num_units,
        std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system());
    ~qsfp_passive_converter_device_handler() override;

    void start();
    void run_periodic_tasks() override;
    void set_port_admin_status(std::string status) override;
    std::string get_port_admin_status() override;
    void set_tx_enable(bool enable);

    // The catalogue.
    void generate_probe_function();
    static qsfpd::sfp_probe_map::const_iterator find_in_map(const qsfpd::sfp_probe_map& map,
                                                            const std::string& vendor,
                                                            const std::string& part_number);

    // The SFP+ handler serving the SFP (none when the SFP did not answer at insertion).
    std::shared_ptr<sfp_plus_device_handler> sfp_handler() const { return inner_; }
    bool found_in_catalogue() const { return found_; }

    // The SFP's signals as the cage routes them.
    bool get_tx_fault_pin();
    bool get_tx_dis_pin();
    void set_tx_dis_pin(bool disable);
    bool get_los_pin();
    bool get_rate_sel_pin();
    void set_rate_sel_pin(bool high);
    bool soft_dis_pin_advert();
    bool soft_tx_fault_advert();
    bool soft_rate_sel_advert();
    bool soft_los_pin_advert();

    // Soft rate select and its override (A2h).
    bool get_soft_rs0();
    void set_soft_rs0(bool on);
    bool get_soft_rs1();
    void set_soft_rs1(bool on);
    bool ignore_rs1_rs2_get();
    void ignore_rs1_rs2_set(bool ignore);

    unsigned get_max_rate_support();
    unsigned get_rate_id();
    std::string get_high_rate_border_tf();

    // JSON page dumps (docs/converter.md): A0h, and A2h with its upper page `page` selected.
    std::string get_a0_dump();
    std::string get_a2_page_dump(unsigned page);

  protected:
    std::pair<std::string, std::string> _read_revision_and_serial() override;

  private:
    void create_sfp_handler();
    template <class Handler>
    qsfpd::sfp_probe_factory factory_for();
    void build(const std::shared_ptr<sfp_plus_device_handler>& handler);
    // Runs an SFP register access under the SFP+ handler's lock (a page select must not
    // interleave with its reads); failures reach the client as framework errors.
    template <class F>
    decltype(auto) sfp_access(const char* getter, F&& f);
    void require_a2h(const char* getter);
    void sfp_gone();
    void sfp_back();

    std::string hotplug_tag() const { return module_name() + "/hotplug"; }

    std::shared_ptr<sfp_reg_map> sfp_regs_;
    std::string sfp_vendor_;
    std::string sfp_part_number_;
    std::string sfp_serial_;
    bool diagnostics_ = false;
    qsfpd::sfp_probe_map probe_map_;
    std::shared_ptr<sfp_plus_device_handler> inner_;
    bool found_ = false;
    bool sfp_present_ = false;
    bool replaced_logged_ = false;
    std::shared_ptr<dh::api::status_value<int>> sfp_missing_alarm_;
};

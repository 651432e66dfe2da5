#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

#include <rapidjson/document.h>

#include "app_code_tables.hpp"
#include "application_list_file.hpp"
#include "qsfp_device_handler.hpp"
#include "vdm_map.hpp"
#include "vdm_observables.hpp"

// What every CMIS module (QSFP-DD, QSFP with CMIS) has: the advertised applications and their
// selection, module and lane transmitter enable, the RX output equalisation controls, auto
// squelch, the CMIS version and firmware revision, and the CMIS page names of the page dump. The
// optical and coherent CMIS handlers derive from it and reuse its application machinery.
class qsfp_dd_device_handler : public qsfp_device_handler {
  public:
    using app_code_info_t = qsfpd::cmis::app_code_info_t;

    // One advertised application: host and media interface, as decoded, with the lane counts
    // and lane assignment options the module advertises for it.
    struct applicationList_t {
        unsigned app_sel = 0;
        app_code_info_t host;
        app_code_info_t media;
        std::uint8_t host_lane_count = 0;
        std::uint8_t media_lane_count = 0;
        std::uint8_t host_lane_assignment = 0;
        std::uint8_t media_lane_assignment = 0;
        bool enhanced_mode = false;
    };

    // The tries of the ModuleLowPwr wait of an application change, 100 ms apart.
    static constexpr unsigned low_power_wait_tries = 61;
    static constexpr std::chrono::milliseconds low_power_wait_step{100};

    qsfp_dd_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                           std::string root_path,
                           std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map, std::string vendor,
                           std::string part_number, std::string part_name, std::string description,
                           qsfp_flags_s flags, std::string data_model, unsigned unit,
                           unsigned num_units,
                           std::shared_ptr<qsfpd::clock> clock = qsfpd::clock::system(),
                           bool return_to_high_power = true);
    ~qsfp_dd_device_handler() override;

    std::string get_page_advertisement() override;
    void run_periodic_tasks() override {}
    // The handler of "command/applicationCompatibleSelect": {"app_select": N, "service": S}.
    virtual void set_application_code(const rapidjson::Document& document);

    void start();

    unsigned lane_count() const { return lane_count_; }

    // Inventory.
    unsigned get_cmis_major_version();
    std::string get_cmis();
    std::string get_fw_revision();

    // Applications.
    bool update_application_lists(bool from_file);
    void read_application_and_update_app_codes();
    dh::api::json_object get_application_list();
    dh::api::json_object get_current_application();
    unsigned get_application_number();
    unsigned get_total_application_code();
    bool application_compatible_select(dh::api::json_object document);

    // Transmitters.
    bool set_tx_enable(const bool& enable);
    bool set_lane_tx_enable(const unsigned& lane, const bool& enable);
    bool get_lane_tx_enable(unsigned lane);
    bool get_tx_enabled();
    bool get_tx_disabled();

    // RX output equalisation and squelch.
    bool get_rx_output_pre_cursor_supported();
    bool get_rx_output_post_cursor_supported();
    bool get_rx_output_amplitude_supported();
    unsigned get_rx_output_pre_cursor_control_id(unsigned lane);
    unsigned get_rx_output_post_cursor_control_id(unsigned lane);
    unsigned get_rx_output_amplitude_control_id(unsigned lane);
    void set_rx_output_pre_cursor_control(unsigned id);
    void set_rx_output_post_cursor_control(unsigned id);
    void set_rx_output_amplitude_control(unsigned id);
    bool get_auto_squelch_enabled();
    bool disable_auto_squelch(bool disable);

    // The decoded applications, for subclasses and tests.
    std::map<unsigned, applicationList_t> application_map();

    // VDM (versatile diagnostics). VDM_init reads the module's observable list (once: later calls
    // keep it) and says whether the module has VDM; the getters decode a sample or threshold of
    // an observable times `scale`, refused with "Type not implemented" for a type the module
    // does not list. Samples and flags are read a page at a time and kept for one refresh
    // period (VDM_refresh starts a new one).
    using VDM_observable_types = qsfpd::cmis::VDM_observable_types;
    using VDM_sample_type = qsfpd::cmis::VDM_sample_type;
    bool VDM_init();
    void VDM_refresh();
    double get_VDM_sample_float(VDM_observable_types type, VDM_sample_type sample_type,
                                double scale);
    double get_VDM_sample_int(VDM_observable_types type, VDM_sample_type sample_type, double scale);
    double get_VDM_sample_unsigned(VDM_observable_types type, VDM_sample_type sample_type,
                                   double scale);
    unsigned get_VDM_flags(VDM_observable_types type);
    unsigned get_VDM_mask(VDM_observable_types type);
    void set_VDM_mask(VDM_observable_types type, unsigned value);
    // Publishes "data/" + name and its flag and threshold siblings for every row whose type the
    // module lists; returns how many rows were published (none without VDM).
    std::size_t register_VDM_nodes(
        std::span<const qsfpd::cmis::vdm_observable> rows = qsfpd::cmis::cmis5_vdm_observables());

  protected:
    unsigned _get_cmis_major_version();
    std::string _get_cmis();
    bool _get_tx_enabled();
    bool _get_tx_disabled();
    bool _get_lane_tx_enable(unsigned lane);
    bool _get_auto_squelch_disable_supported();
    bool _get_auto_squelch_enabled();
    void _disable_auto_squelch(bool disable);
    bool _get_rx_output_pre_cursor_supported();
    bool _get_rx_output_post_cursor_supported();
    bool _get_rx_output_amplitude_supported();
    unsigned _get_application_number();
    unsigned _get_current_bitrate();
    const applicationList_t& _get_current_application_info();

    bool _update_application_lists(bool from_file);
    // Stages and applies application `code` for `service`, with the module held in low power
    // meanwhile; then checks that the module took it.
    void _set_application_code(unsigned code, const std::string& service);
    // A data-path re-init with the staged control set, the module held in low power meanwhile.
    void _apply_config();
    // Waits for the module to run the new configuration and logs when it does not.
    void check_application_taken(unsigned code);
    // Clients of the running application: one per data path (its first lane carries it).
    unsigned _count_active_clients();

    bool _page_implemented(unsigned page, unsigned bank) override;

    bool _VDM_init();
    double _get_VDM_sample_float(VDM_observable_types type, VDM_sample_type sample_type,
                                 double scale);
    double _get_VDM_sample_int(VDM_observable_types type, VDM_sample_type sample_type,
                               double scale);
    double _get_VDM_sample_unsigned(VDM_observable_types type, VDM_sample_type sample_type,
                                    double scale);
    unsigned _get_VDM_flags(VDM_observable_types type);
    unsigned _get_VDM_mask(VDM_observable_types type);
    unsigned _banks_supported() override;

    // The decoded application `number`, or null; the caller holds the handler lock.
    const applicationList_t* find_application(unsigned number) const {
        const auto it = app_map_.find(number);
        return it == app_map_.end() ? nullptr : &it->second;
    }

    // Whether the module has upper pages (flat-memory modules have only page 00h).
    bool paging() const { return paging_; }
    // The application JSON of one decoded application (current application layout).
    static std::string application_json(const applicationList_t& app);

  private:
    void publish_file_nodes(const qsfpd::cmis::application_file_contents& contents);
    // Holds the low-power line and waits up to 61 x 100 ms for ModuleLowPwr.
    void enter_low_power_for_reconfiguration();
    void leave_low_power_after_reconfiguration();
    const app_code_info_t* find_media_code(std::uint8_t encoding, unsigned id);
    void check_rx_output(bool supported, const char* what, const char* name, unsigned id,
                         unsigned min, unsigned max);
    void require_paging(const char* what) const;
    double VDM_sample(VDM_observable_types type, VDM_sample_type sample_type, double scale,
                      qsfpd::cmis::VDM_format format);
    const qsfpd::cmis::VDM_position& VDM_position_of(VDM_observable_types type) const;

    std::map<std::string, unsigned, std::less<>> service_map_;
    std::unordered_map<unsigned, applicationList_t> app_map_;
    qsfpd::cmis::custom_app_map custom_map_;
    unsigned rx_pre_cursor_min_ = 0;
    unsigned rx_pre_cursor_max_ = 7;
    unsigned rx_post_cursor_min_ = 0;
    unsigned rx_post_cursor_max_ = 7;
    unsigned rx_amplitude_min_ = 0;
    unsigned rx_amplitude_max_ = 3;
    std::map<unsigned, std::string> page_names_;
    bool return_to_high_power_;
    bool paging_ = false;
    unsigned lane_count_ = 1;
    // Empty until VDM_init has run; then whether the module has VDM.
    std::optional<bool> vdm_supported_;
    qsfpd::cmis::vdm_map vdm_;

    std::shared_ptr<dh::api::const_value<unsigned>> lanes_node_;
    std::shared_ptr<dh::api::const_value<bool>> pre_cursor_supported_node_;
    std::shared_ptr<dh::api::const_value<bool>> post_cursor_supported_node_;
    std::shared_ptr<dh::api::const_value<bool>> amplitude_supported_node_;
    std::shared_ptr<dh::api::const_value<std::string>> cmis_version_node_;
    std::shared_ptr<dh::api::const_value<unsigned>> cmis_major_node_;
    std::shared_ptr<dh::api::status_value<bool>> file_alarm_node_;
    std::shared_ptr<dh::api::status_value<std::string>> file_version_node_;
    std::shared_ptr<dh::api::status_value<std::string>> file_cmis_version_node_;
};

#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "optical_alarms.hpp"
#include "prbs_test.hpp"
#include "qsfp_dd_device_handler.hpp"

// What every tunable coherent CMIS module (400ZR, OpenZR+) is served with, whoever made its DSP:
// frequency, ITU channel and grid tuning through low power, the application by line rate, admin
// status with the save and restore of the line settings, pulse shaping, the monitors and alarms,
// FEC and client PM with per-second rates, custom RX thresholds, the target output power and the
// PRBS test. The maker-specific handlers add their own nodes and threads; a handler's start()
// registers the node groups below in the order of its node table.
class qsfp_dd_coherent_device_handler : public qsfp_dd_device_handler {
  public:
    using threshold = qsfpd::cage::threshold;
    using custom_threshold = qsfpd::cage::qsfp_reg_map::custom_threshold;

    // The waits of a tuning step: ModuleLowPwr within 61 reads (the 61st read counts as a timeout)
    // and the tuning-complete flag within 31 reads, 100 ms apart.
    static constexpr unsigned low_power_reads = 61;
    static constexpr unsigned itu_low_power_tries = 60;
    static constexpr unsigned tuning_reads = 31;
    static constexpr std::chrono::milliseconds poll_step{100};
    // Pulse shaping: the data path must settle before its re-init (seconds, polled each 100 ms).
    static constexpr unsigned data_path_ready_seconds = 5;
    // The warning of a moved custom alarm threshold stays this far inside it (dB).
    static constexpr double warning_inset_db = 0.5;
    // A cycle's monitor read serves the polled values for one cycle plus slack.
    static constexpr std::chrono::milliseconds snapshot_lifetime{150};

    qsfp_dd_coherent_device_handler(dh_db& db, std::shared_ptr<qsfpd::cage::qsfp_device> device,
                                    std::string root_path,
                                    std::shared_ptr<qsfpd::cage::qsfp_reg_map> reg_map,
                                    std::string vendor, std::string part_number,
                                    std::string part_name, std::string description,
                                    qsfp_flags_s flags, unsigned unit, unsigned num_units,
                                    std::shared_ptr<qsfpd::clock> clock, std::string log_source);
    ~qsfp_dd_coherent_device_handler() override;

    void run_periodic_tasks() override;
    void set_application_code(const rapidjson::Document& document) override;
    void set_port_admin_status(std::string status) override;
    std::string get_port_admin_status() override;
    bool is_warm_started() const override { return warm_started_; }

    // Tuning.
    void set_frequency(double mhz);
    void set_so_channel_number(double channel);
    void set_grid_spacing(float ghz);
    float get_grid_spacing();
    unsigned get_current_freq();
    unsigned get_max_freq();
    unsigned get_min_freq();
    std::string get_channel_id();
    std::optional<double> configured_frequency() const;

    // Application, pulse shaping, transmitter, restart.
    virtual void set_application(std::string name);
    std::string get_application();
    dh::api::json_object get_application_details();
    unsigned get_num_active_clients();
    void set_enable_pulse_shaping(bool enable);
    std::string get_pulse_shaping();
    void set_tx_enable_setting(bool enable);
    bool get_tx_enable();
    bool set_restart(const bool& restart);
    std::string get_module_state();
    std::string get_nominal_laser_wavelength();

    // Monitors.
    int get_fake_temperature();
    void set_fake_temperature(int celsius);
    double get_trx_temperature();
    double get_trx_temperature_margin();
    double get_trx_voltage();
    double get_rx_signal_power();
    double get_total_rx_power();
    double get_channel_actual_tx_power(unsigned lane);
    double get_channel_tx_bias(unsigned lane);
    bool get_channel_tx_fault(unsigned lane);
    bool get_channel_los(unsigned lane);
    bool get_channel_lol(unsigned lane);
    double get_module_threshold(unsigned which);
    double get_q_value();
    double get_q_margin();
    int get_active_cd_lo_search();
    int get_active_cd_hi_search();
    int get_cd();
    int get_diff_group_delay();

    // FEC and client PM.
    std::uint64_t get_fec_total_bits();
    std::uint64_t get_fec_corrected_bits();
    std::uint64_t get_fec_uncorrected_blocks();
    std::uint64_t get_corrected_bit_errors_per_sec();
    std::uint64_t get_uncorrected_block_errors_per_sec();
    bool set_fec_counters_reset(const bool& reset);
    enum class pm_counter : unsigned { tx_bits, tx_corr_bits, tx_frames, tx_uncorr_frames };
    std::uint64_t get_client_pm_per_sec(unsigned lane, pm_counter which);
    std::uint64_t get_client_pm_accumulated(unsigned lane, pm_counter which);

    // Custom RX thresholds and the target output power.
    float get_rx_los_total_pwr_max_threshold();
    float get_rx_los_total_pwr_min_threshold();
    float get_rx_total_pwr_low_alarm_max_threshold();
    float get_rx_total_pwr_low_alarm_min_threshold();
    float get_rx_total_pwr_high_alarm_max_threshold();
    float get_rx_total_pwr_high_alarm_min_threshold();
    float get_rx_signal_pwr_low_alarm_max_threshold();
    float get_rx_signal_pwr_low_alarm_min_threshold();
    float get_rx_signal_pwr_high_alarm_max_threshold();
    float get_rx_signal_pwr_high_alarm_min_threshold();
    double get_rx_los_total_pwr_original_threshold();
    void set_rx_los_custom_threshold_enabled(bool enabled);
    bool get_rx_los_custom_threshold_enabled();
    void set_rx_los_custom_threshold(float dbm);
    float get_rx_los_custom_threshold();
    void set_rx_los_custom_threshold_enabled_total_pwr(bool enabled);
    bool get_rx_los_custom_threshold_enabled_total_pwr();
    void set_rx_los_custom_threshold_total_pwr(float dbm);
    float get_rx_los_custom_thresholdTotalPwr();
    void set_rx_los_custom_threshold_signal_pwr(float dbm);
    float get_rx_los_custom_threshold_signal();
    void set_rx_los_custom_threshold_enabled_dh(bool enabled);
    bool get_rx_los_custom_threshold_enabled_dh();
    void set_rx_los_custom_threshold_dh(float dbm);
    float get_rx_los_custom_threshold_dh();
    bool get_rx_pwr_alarm_custom_threshold_supported();
    void set_rx_pwr_alarm_custom_threshold_enabled(bool enabled);
    bool get_rx_pwr_alarm_custom_threshold_enabled();
    void set_rx_total_pwr_high_alarm_custom_threshold(float dbm);
    float get_rx_total_pwr_high_alarm_custom_threshold();
    void set_rx_total_pwr_low_alarm_custom_threshold(float dbm);
    float get_rx_total_pwr_low_alarm_custom_threshold();
    void set_rx_signal_pwr_high_alarm_custom_threshold(float dbm);
    float get_rx_signal_pwr_high_alarm_custom_threshold();
    void set_rx_signal_pwr_low_alarm_custom_threshold(float dbm);
    float get_rx_signal_pwr_low_alarm_custom_threshold();
    float get_rx_signal_pwr_high_warn_alarm_custom_threshold();
    float get_rx_signal_pwr_low_warn_alarm_custom_threshold();
    bool tx_power_settable();
    float get_tx_max_power();
    float get_tx_min_power();
    void set_tx_target_output_power(float dbm);
    float get_tx_target_output_power();

    // PRBS.
    bool prbs_start(const bool& start);
    bool prbs_reset(const bool& reset);
    void set_prbs_time(unsigned seconds);
    void set_prbs_pattern(std::string pattern);
    dh::api::json_object get_prbs_info();

  protected:
    // The node groups, in the order the handlers' node tables list them.
    void add_head_nodes();        // fake temperature .. alarms .. restart
    void add_line_power_nodes();  // rxSignalPower, txPower, txBias, per-lane debug flags
    void add_pulse_shaping_nodes();
    void add_module_threshold_nodes();  // voltage, module thresholds, pushed RX thresholds
    void add_total_rx_power_node();
    // numActiveClients .. application, with the application names the handler accepts.
    void add_tuning_nodes(std::vector<std::string> applications = {"400G", "300G", "200G", "100G"});
    void add_q_nodes();    // qValue, qMargin, cdLow, cdHigh
    void add_fec_nodes();  // FEC counters and client PM
    void add_custom_threshold_nodes();
    void add_tx_power_nodes();
    void add_admin_and_prbs_nodes();
    // The page dump of the laser capabilities (page 04h), the last node of the tables.
    void add_laser_page_dump();
    // The inventory name, warm or cold start, the published start state, then polling (unless a
    // test holds it back) and dhReady.
    void finish_start(const std::string& inventory_name, bool start_polling = true);

    // Selects the first advertised application whose media side passes `wanted` (the module's
    // own list decides which code carries a rate), through low power.
    void select_application(const std::string& name,
                            const std::function<bool(const applicationList_t&)>& wanted);
    // The RX thresholds of the current line rate, published again (application change, custom
    // LOS threshold).
    void publish_rate_thresholds(std::optional<unsigned> gbps = std::nullopt);
    double rx_low_alarm_threshold(unsigned gbps) const;
    // A register read of the given format; on failure the line of the failing getter and -99.
    double power_register(const char* getter, const std::function<std::uint16_t()>& read);

    // The page dump of a one-media-lane module: its lane pages have one bank (and VDM pages when
    // it has them).
    void advertise_single_lane_pages(bool vdm);

    std::uint8_t media_lanes() const { return media_lanes_; }
    const std::string& log_source() const { return log_source_; }

  private:
    // `force`: write the channel even when the frequency register already shows `mhz` (after a
    // grid change, the old channel number means another frequency on the new grid).
    void _set_frequency(double mhz, bool force = false);
    // Reads (and so clears) the latched tuning flags before a channel write.
    void discard_stale_tuning_flags();
    // Media and host lane counts of the running application, and what depends on them.
    void read_line_shape();
    void assert_low_power_pin(bool on);
    void release_pin_if_admin_up();
    // Reads the module state each 100 ms after asserting the pin; true once it shows
    // ModuleLowPwr before the read limit.
    bool wait_low_power_reads(unsigned reads);
    bool in_low_power();
    unsigned current_bitrate();
    void check_custom_bounds(float value, float maximum, float minimum, const std::string& what);
    void write_custom(custom_threshold t, float dbm);
    float read_custom(custom_threshold t);
    float bound(custom_threshold t, bool maximum);
    void keep_warning_inside(custom_threshold alarm, custom_threshold warning, bool high);
    void read_fec_counters(qsfpd::clock::time_point now);
    void read_client_pm(unsigned page, qsfpd::clock::time_point now);
    void check_media_lane(unsigned lane, const char* what) const;

    std::string log_source_;
    std::uint8_t media_lanes_ = 1;
    unsigned host_lanes_ = 8;
    bool admin_up_ = false;
    bool warm_started_ = false;
    std::optional<double> configured_frequency_;
    std::optional<int> fake_temperature_;
    std::optional<double> last_temperature_;
    bool rx_pwr_alarm_custom_supported_ = false;
    bool tx_power_settable_ = false;
    bool rx_los_custom_threshold_enabled_ = false;
    float rx_los_custom_threshold_ = 0.0F;
    bool rx_los_custom_threshold_enabled_dh_ = false;
    float rx_los_custom_threshold_dh_ = 0.0F;
    unsigned rate_ = 0;  // line rate of the published RX thresholds, Gb/s
    unsigned bias_multiplier_ = 1;
    struct {
        qsfpd::cage::cmis_flags_and_monitors values;
        qsfpd::clock::time_point taken{};
        bool valid = false;
    } snapshot_;
    const qsfpd::cage::cmis_flags_and_monitors& cycle_snapshot();
    optical_alarms alarms_;
    bool rx_low_state_ = false;
    bool rx_high_state_ = false;

    // Counter groups read once a second each (FEC; client PM of host lanes 1-4 and 5-8), a pass
    // apart, so no pass carries all three blocks.
    struct counter_rate {
        std::uint64_t last = 0;
        std::uint64_t accumulated = 0;
        std::uint64_t per_sec = 0;
        bool seen = false;
        // A new reading `seconds` after the previous one (0: no rate from this pair).
        void take(std::uint64_t value, double seconds);
    };
    struct counter_group {
        qsfpd::clock::time_point read_at{};
        bool read_once = false;
    };
    std::array<counter_group, 3> groups_{};
    unsigned cycle_ = 0;
    counter_rate fec_corrected_;
    counter_rate fec_uncorrected_;
    std::uint64_t fec_total_bits_ = 0;
    std::array<std::array<counter_rate, 4>, 8> client_pm_{};

    std::shared_ptr<dh::api::status_value<int>> rx_low_alarm_;
    std::shared_ptr<dh::api::status_value<int>> rx_high_alarm_;
    std::shared_ptr<dh::api::status_value<double>> rx_high_alarm_threshold_node_;
    std::shared_ptr<dh::api::status_value<double>> rx_low_alarm_threshold_node_;
    std::shared_ptr<dh::api::status_value<double>> rx_low_warning_threshold_node_;
    std::shared_ptr<dh::api::status_value<double>> rx_sensitivity_node_;
    std::shared_ptr<dh::api::status_value<double>> rx_los_threshold_node_;
    std::shared_ptr<dh::api::status_value<float>> signal_high_warning_node_;
    std::shared_ptr<dh::api::status_value<float>> signal_low_warning_node_;
    std::shared_ptr<dh::api::status_value<std::string>> oper_status_node_;
    std::unique_ptr<prbs_test> prbs_;
};

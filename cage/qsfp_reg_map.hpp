#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cmis_states.hpp"
#include "qsfp_device.hpp"
#include "register_fields.hpp"

namespace qsfpd::cage {

// SFF-8636 latched interrupt flags, lower page bytes 3..21 as read in one transaction (the read
// clears them). Lane n is bit n of each nibble.
struct sff8636_int_flags {
    static constexpr std::uint8_t first_byte = 3;
    std::array<std::uint8_t, 19> bytes{};

    std::uint8_t at(std::uint8_t byte) const { return bytes[byte - first_byte]; }
    std::uint8_t rx_los() const { return at(3) & 0x0F; }
    std::uint8_t tx_los() const { return at(3) >> 4; }
    std::uint8_t tx_fault() const { return at(4) & 0x0F; }
    std::uint8_t rx_lol() const { return at(5) & 0x0F; }
    std::uint8_t tx_lol() const { return at(5) >> 4; }
    // Byte 6: bit 7 high alarm, 6 low alarm, 5 high warning, 4 low warning.
    std::uint8_t temperature() const { return at(6); }
    std::uint8_t vcc() const { return at(7); }
};

// SFF-8636 free side and channel monitors, lower page bytes 22..57, raw register units.
struct sff8636_monitors {
    static constexpr std::uint8_t first_byte = 22;
    std::array<std::uint8_t, 36> bytes{};

    std::uint16_t u16_at(std::uint8_t byte) const {
        return static_cast<std::uint16_t>(bytes[byte - first_byte] << 8 |
                                          bytes[byte - first_byte + 1]);
    }
    std::int16_t temperature() const { return static_cast<std::int16_t>(u16_at(22)); }
    std::uint16_t supply_voltage() const { return u16_at(26); }
    std::uint16_t rx_power(unsigned lane) const { return u16_at(lane_byte(34, lane)); }
    std::uint16_t tx_bias(unsigned lane) const { return u16_at(lane_byte(42, lane)); }
    std::uint16_t tx_power(unsigned lane) const { return u16_at(lane_byte(50, lane)); }

  private:
    static std::uint8_t lane_byte(std::uint8_t first, unsigned lane) {
        return static_cast<std::uint8_t>(first + 2 * (lane & 3));
    }
};

// CMIS: one application descriptor (lower page 86.. for applications 1-8, page 01h 223.. for
// 9-15) with its media lane assignment options (page 01h 176..).
struct cmis_app_advertisement {
    std::uint8_t host_interface_id = 0xFF;  // FFh ends the list
    std::uint8_t media_interface_id = 0;
    std::uint8_t host_lane_count = 0;
    std::uint8_t media_lane_count = 0;
    std::uint8_t host_lane_assignment_options = 0;
    std::uint8_t media_lane_assignment_options = 0;
};

std::string_view config_status_name(std::uint8_t code);
std::string_view module_state_name(std::uint8_t state);

// What one CMIS monitoring cycle reads, in two transactions: lower page bytes 3..15 (state,
// latched module flags, temperature) and page 11h from the latched lane flags (135) through the
// RX power of the last lane in use. The flag reads clear the flags.
struct cmis_flags_and_monitors {
    static constexpr std::uint8_t lower_first = 3;
    static constexpr std::uint8_t lane_first = 135;
    std::array<std::uint8_t, 13> lower{};
    std::array<std::uint8_t, 67> lane{};  // 135..201, filled up to the lanes read

    std::uint8_t lower_at(std::uint8_t byte) const { return lower[byte - lower_first]; }
    std::uint8_t lane_at(std::uint8_t byte) const { return lane[byte - lane_first]; }
    std::uint8_t module_state() const { return (lower_at(3) >> 1) & 0x07; }
    // Byte 9: bit 0 high alarm, 1 low alarm, 2 high warning, 3 low warning.
    std::uint8_t temperature_flags() const { return lower_at(9) & 0x0F; }
    std::int16_t temperature() const {
        return static_cast<std::int16_t>(lower_at(14) << 8 | lower_at(15));
    }
    std::uint8_t tx_fault() const { return lane_at(135); }
    std::uint8_t tx_los() const { return lane_at(136); }
    std::uint8_t rx_los() const { return lane_at(147); }
    std::uint8_t rx_lol() const { return lane_at(148); }
    std::uint16_t tx_power(unsigned lane) const { return u16(154, lane); }
    std::uint16_t tx_bias(unsigned lane) const { return u16(170, lane); }
    std::uint16_t rx_power(unsigned lane) const { return u16(186, lane); }

  private:
    std::uint16_t u16(std::uint8_t first, unsigned index) const {
        const unsigned at = first + 2 * (index & 7) - lane_first;
        return static_cast<std::uint16_t>(lane[at] << 8 | lane[at + 1]);
    }
};

// The order of the four thresholds of a monitor in SFF-8636 page 03h (and the DSP page 21h).
enum class threshold : unsigned { high_alarm, low_alarm, high_warning, low_warning };

// The named register fields of the module in a cage, over a qsfp_device. Fields come from the
// tables in register_fields.hpp; the map picks the SFF-8636 or the CMIS location by the module's
// identifier (read once, then cached until forget_identity() or a failed read). Every accessor
// throws std::system_error on an I2C failure, and ENOTSUP for a field the module's family does not
// have.
class qsfp_reg_map {
  public:
    explicit qsfp_reg_map(qsfp_device& device) : device_(device) {}

    qsfp_device& device() { return device_; }

    // The family the identifier selects; forget_identity() makes the next access read it again
    // (after a module swap or reset).
    memory_map family();
    bool is_cmis() { return family() == memory_map::cmis; }
    void forget_identity() {
        family_.reset();
        cmis_flat_.reset();
    }

    // Identification.
    std::uint8_t get_identifier() { return read_u8(fields::sff("identifier")); }
    std::string get_vendor_name() { return read_text(pick(fields::both("vendor_name"))); }
    std::string get_part_number() { return read_text(pick(fields::both("vendor_pn"))); }
    std::string get_revision() { return read_text(pick(fields::both("vendor_rev"))); }
    std::string get_serial_number() { return read_text(pick(fields::both("vendor_sn"))); }
    std::string get_date_code() { return read_text(pick(fields::both("date_code"))); }
    std::uint8_t get_status_revision_compliance() {
        return read_u8(pick(fields::both("revision_compliance")));
    }
    std::uint8_t get_cmis_revision_major() {
        return read_bits(cmis_only(fields::cm("revision_major")));
    }
    std::uint8_t get_cmis_revision_minor() {
        return read_bits(cmis_only(fields::cm("revision_minor")));
    }
    std::uint8_t get_dev_tech() { return read_u8(sff_only(fields::sff("dev_tech"))); }
    std::uint8_t get_transmitter_technology() {
        return read_bits(sff_only(fields::sff("transmitter_technology")));
    }
    std::uint8_t get_link_codes() { return read_u8(sff_only(fields::sff("link_codes"))); }
    bool get_page_20_21_impl_195() {
        return read_flag(sff_only(fields::sff("page_20_21_impl_195")));
    }
    bool get_page_01_provided() { return read_flag(sff_only(fields::sff("page_01_provided"))); }
    bool get_page_02_provided() { return read_flag(sff_only(fields::sff("page_02_provided"))); }
    // SFF-8636 defines no pages-20h-21h bit in byte 221 (bits 4, 3, 1, 0 are the initialization
    // complete flag, extended rate select, TC readiness and software reset; bit 2 once advertised
    // the application select table and is reserved now). We read bit 2, the only bit left that a
    // legacy module could use for it; trust get_page_20_21_impl_195() first.
    bool get_page_20_21_impl_221() {
        return read_flag(sff_only(fields::sff("page_20_21_impl_221")));
    }
    std::uint8_t get_media_type() { return read_u8(cmis_only(fields::cm("media_type"))); }
    std::uint8_t get_media_interface_technology() {
        return read_u8(cmis_only(fields::cm("media_interface_technology")));
    }
    std::uint8_t get_module_state() { return read_bits(cmis_only(fields::cm("module_state"))); }

    // A coherent (400ZR / OpenZR+ / 100G-ZR class) CMIS module: its media interface technology is
    // a tunable laser, or one of its advertised SMF applications is a coherent media interface.
    bool is_coherent_transceiver();

    // SFF-8636 nominal bit rate in Mb/s: byte 140 in 100 Mb/s units, or byte 222 in 250 MBd units
    // when byte 140 is FFh (rates above 25.4 Gb/s). CMIS has no such field (ENOTSUP).
    std::uint32_t get_nominal_bit_rate_mbps();

    // SFF-8636 byte 93 power control.
    bool get_power_override() { return read_flag(sff_only(fields::sff("power_override"))); }
    void set_power_override(bool on) { write_flag(sff_only(fields::sff("power_override")), on); }
    bool get_power_set() { return read_flag(sff_only(fields::sff("power_set"))); }
    void set_power_set(bool low_power) {
        write_flag(sff_only(fields::sff("power_set")), low_power);
    }
    bool get_high_power_class_en() {
        return read_flag(sff_only(fields::sff("high_power_class_en")));
    }
    void set_high_power_class_en(bool on) {
        write_flag(sff_only(fields::sff("high_power_class_en")), on);
    }

    // SFF-8636 nominal bit rate, Mb/s.
    std::uint32_t get_nom_bit_rate() { return get_nominal_bit_rate_mbps(); }

    // SFF-8636 flags and monitors. One transaction each; get_int_flags() and
    // get_flags_and_monitors() clear the latched flags they return.
    sff8636_int_flags get_int_flags();
    sff8636_monitors get_monitors();
    std::pair<sff8636_int_flags, sff8636_monitors> get_flags_and_monitors();
    std::int16_t get_temperature() { return read_s16(sff_only(fields::sff("temperature"))); }
    std::uint16_t get_supply_voltage() { return read_u16(sff_only(fields::sff("supply_voltage"))); }
    std::uint16_t get_ch_rx_pwr(unsigned lane) {
        return read_u16(lane_of(fields::sff("rx_power"), lane));
    }
    std::uint16_t get_ch_tx_pwr(unsigned lane) {
        return read_u16(lane_of(fields::sff("tx_power"), lane));
    }
    std::uint16_t get_ch_tx_bias(unsigned lane) {
        return read_u16(lane_of(fields::sff("tx_bias"), lane));
    }

    // SFF-8636 page 03h thresholds, raw.
    std::int16_t get_temp_threshold(threshold t) {
        return read_s16(threshold_of(fields::sff("temp_thresholds"), t));
    }
    std::uint16_t get_vcc_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("vcc_thresholds"), t));
    }
    std::uint16_t get_rx_power_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("rx_power_thresholds"), t));
    }
    std::uint16_t get_tx_bias_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("tx_bias_thresholds"), t));
    }
    std::uint16_t get_tx_power_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("tx_power_thresholds"), t));
    }

    // SFF-8636 TX disable (byte 86): the whole-module forms act on all four lane bits.
    std::uint8_t get_tx_disable() { return read_bits(sff_only(fields::sff("tx_disable"))); }
    void set_tx_disable(bool disable) {
        write_bits(sff_only(fields::sff("tx_disable")), disable ? 0x0F : 0x00);
    }
    bool get_ch_tx_disable(unsigned lane);
    void set_ch_tx_disable(unsigned lane, bool disable);
    // Every one of the first `lanes` transmitters enabled / disabled.
    bool get_tx_laser_enabled(unsigned lanes);
    bool get_tx_laser_disabled(unsigned lanes);

    // SFF-8636 rate select (bytes 87 RX, 88 TX), two bits per lane. A lane rate of 25 Gb/s or
    // more selects 10b, the high-rate code of the DSP modules; lower rates select 00b.
    std::uint8_t get_rx_rate_select() { return read_u8(sff_only(fields::sff("rx_rate_select"))); }
    std::uint8_t get_tx_rate_select() { return read_u8(sff_only(fields::sff("tx_rate_select"))); }
    void set_ch_rx_rate_sel(unsigned lane, unsigned mbps);
    void set_ch_tx_rate_sel(unsigned lane, unsigned mbps);
    static std::uint8_t rate_select_code(unsigned mbps);
    // Every lane's rate select at the high-rate code (AAh): the module runs at 100G.
    bool get_rx_is_100g() { return get_rx_rate_select() == all_lanes_high_rate; }
    bool get_tx_is_100g() { return get_tx_rate_select() == all_lanes_high_rate; }

    // SFF-8636 page 00h advertisement.
    std::uint16_t get_free_side_wavelength() {
        return read_u16(sff_only(fields::sff("free_side_wavelength")));
    }
    std::uint8_t get_max_case_temperature() {
        return read_u8(sff_only(fields::sff("max_case_temp")));
    }
    bool get_free_side_rate_sel_impl() { return read_flag(sff_only(fields::sff("rate_sel_impl"))); }
    bool get_free_side_appl_sel_impl() { return read_flag(sff_only(fields::sff("appl_sel_impl"))); }

    // The PAM4 DSP pages 20h (monitors) and 21h (thresholds).
    std::string get_inphi_fw_revision();
    std::uint16_t get_ch_snr(unsigned lane) {
        return read_u16(lane_of(fields::sff("ch_snr"), lane));
    }
    std::int16_t get_ch_res_disp(unsigned lane) {
        return read_s16(lane_of(fields::sff("ch_res_disp"), lane));
    }
    std::uint16_t get_ch_pam4_level_trans(unsigned lane) {
        return read_u16(lane_of(fields::sff("ch_pam4_level_trans"), lane));
    }
    std::int16_t get_ch_tec_curr(unsigned lane) {
        return read_s16(lane_of(fields::sff("ch_tec_curr"), lane));
    }
    std::int16_t get_ch_laser_temp_diff(unsigned lane) {
        return read_s16(lane_of(fields::sff("ch_laser_temp_diff"), lane));
    }
    std::uint16_t get_pre_fec_ber_cur() {
        return read_u16(sff_only(fields::sff("pre_fec_ber_cur")));
    }
    std::uint16_t get_pre_fec_ber_av() { return read_u16(sff_only(fields::sff("pre_fec_ber_av"))); }
    std::uint16_t get_pre_fec_ber_pri() {
        return read_u16(sff_only(fields::sff("pre_fec_ber_pri")));
    }
    std::uint16_t get_pre_fec_ber_latch_min() {
        return read_u16(sff_only(fields::sff("pre_fec_ber_latch_min")));
    }
    std::uint16_t get_pre_fec_ber_latch_max() {
        return read_u16(sff_only(fields::sff("pre_fec_ber_latch_max")));
    }
    std::uint16_t get_uncorr_ber_cur() { return read_u16(sff_only(fields::sff("uncorr_ber_cur"))); }
    std::uint16_t get_uncorr_ber_av() { return read_u16(sff_only(fields::sff("uncorr_ber_av"))); }
    std::uint16_t get_uncorr_ber_pri() { return read_u16(sff_only(fields::sff("uncorr_ber_pri"))); }
    std::uint16_t get_uncorr_ber_min() { return read_u16(sff_only(fields::sff("uncorr_ber_min"))); }
    std::uint16_t get_uncorr_ber_max() { return read_u16(sff_only(fields::sff("uncorr_ber_max"))); }
    void clear_ber_stats() { write_flag(sff_only(fields::sff("ber_clear")), true); }
    std::uint16_t get_snr_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("snr_thresholds"), t));
    }
    std::int16_t get_res_disp_threshold(threshold t) {
        return read_s16(threshold_of(fields::sff("res_disp_thresholds"), t));
    }
    std::uint16_t get_pam4_level_trans_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("pam4_level_trans_thresholds"), t));
    }
    std::uint16_t get_pre_fec_ber_av_threshold(threshold t) {
        return read_u16(threshold_of(fields::sff("pre_fec_ber_av_thresholds"), t));
    }
    std::int16_t get_tec_current_threshold(threshold t) {
        return read_s16(threshold_of(fields::sff("tec_current_thresholds"), t));
    }
    std::int16_t get_laser_temp_diff_threshold(threshold t) {
        return read_s16(threshold_of(fields::sff("laser_temp_diff_thresholds"), t));
    }

    // --- CMIS (QSFP-DD) ---------------------------------------------------------------------
    std::uint8_t get_dd_fw_major_rev() { return read_u8(cmis_only(fields::cm("fw_major"))); }
    std::uint8_t get_dd_fw_minor_rev() { return read_u8(cmis_only(fields::cm("fw_minor"))); }
    // Lower page byte 3 as it is: the state is bits 3-1.
    std::uint8_t get_dd_mod_state() { return read_u8(cmis_only(fields::cm("module_state_byte"))); }
    std::uint8_t get_dd_module_fault_cause() {
        return read_u8(cmis_only(fields::cm("module_fault_cause")));
    }
    bool get_dd_low_pwr_request_sw() {
        return read_flag(cmis_only(fields::cm("low_pwr_request_sw")));
    }
    void set_dd_low_pwr_request_sw(bool low) {
        write_flag(cmis_only(fields::cm("low_pwr_request_sw")), low);
    }
    bool get_dd_low_pwr_allow_request_hw() {
        return read_flag(cmis_only(fields::cm("low_pwr_allow_request_hw")));
    }
    void set_dd_low_pwr_allow_request_hw(bool allow) {
        write_flag(cmis_only(fields::cm("low_pwr_allow_request_hw")), allow);
    }

    // Media type encoding (lower page byte 85): picks the media code table.
    std::uint8_t get_media_type_encoding() { return get_media_type(); }
    // Application n, 1..15; n above 8 on a flat-memory module reads as the end of the list.
    cmis_app_advertisement get_appcode_advertisement(unsigned n);
    // Applications before the first descriptor whose host id is FFh.
    unsigned get_total_application_code_advertisement();

    // Advertised pages and features (page 01h; a flat-memory module has none of them).
    bool get_dd_support_customer_eeprom() { return paged_flag(fields::cm("page_03_supported")); }
    bool get_dd_support_diagnostics() { return paged_flag(fields::cm("diag_pages_supported")); }
    bool get_dd_support_vdm() { return paged_flag(fields::cm("vdm_pages_supported")); }
    bool get_dd_rx_power_monitor_supported() {
        return paged_flag(fields::cm("rx_power_monitor_supported"));
    }
    bool get_dd_support_cdb() {
        return get_dd_support_paging() && read_bits(fields::cm("cdb_instances")) != 0;
    }
    bool get_dd_support_laser_capabilities() {
        return paged_flag(fields::cm("transmitter_tunable"));
    }
    unsigned get_dd_supported_banks_10h_to_1fh() { return get_banks_supported(); }
    bool get_dd_auto_squelch_disable_supported() {
        return paged_flag(fields::cm("auto_squelch_disable_rx_supported"));
    }
    bool get_dd_rx_output_pre_cursor_supported() {
        return paged_flag(fields::cm("rx_output_pre_cursor_supported"));
    }
    bool get_dd_rx_output_post_cursor_supported() {
        return paged_flag(fields::cm("rx_output_post_cursor_supported"));
    }
    bool get_dd_rx_output_amplitude_supported() {
        return paged_flag(fields::cm("rx_output_amplitude_supported"));
    }
    // Nominal wavelength, 0.05 nm units (0: none advertised).
    std::uint16_t get_dd_wavelength() {
        return read_u16(cmis_only(fields::cm("nominal_wavelength")));
    }
    // Worst-case durations (duration codes of page 01h bytes 144 and 167) in milliseconds.
    unsigned get_dd_dp_init_max_ms();
    unsigned get_dd_module_pwr_up_max_ms();
    // The multiplier of the TX bias monitors (1, 2 or 4).
    unsigned get_dd_tx_bias_multiplier();

    // Lane TX disable (page 10h byte 130), lanes 0..7.
    std::uint8_t get_dd_tx_disable() { return read_u8(cmis_only(fields::cm("tx_disable"))); }
    void set_dd_tx_disable(bool disable);
    bool get_dd_lane_tx_disable(unsigned lane);
    void set_dd_lane_tx_disable(unsigned lane, bool disable);
    // Every one of the first `lanes` transmitters enabled / disabled.
    bool get_dd_tx_laser_enabled(unsigned lanes);
    bool get_dd_tx_laser_disabled(unsigned lanes);

    // RX auto squelch (page 10h byte 139): "disabled" on every lane.
    bool get_auto_squelch();
    void set_dd_auto_squelch_disable(bool disable);

    // RX output equalisation: writes stage the value for all lanes and apply it at once
    // (ApplyImmediate); reads give the active value of one lane.
    void set_dd_rx_output_pre_cursor_control(std::uint8_t id);
    void set_dd_rx_output_post_cursor_control(std::uint8_t id);
    void set_dd_rx_output_amplitude_control(std::uint8_t id);
    unsigned get_dd_lane_rx_output_pre_cursor_control(unsigned lane);
    unsigned get_dd_lane_rx_output_post_cursor_control(unsigned lane);
    unsigned get_dd_lane_rx_output_amplitude_control(unsigned lane);

    // Application select. The active control set's first lane as it is (AppSel in bits 7-4).
    std::uint8_t get_dd_active_cntl_set_app();
    // AppSel of each host lane in the active control set (0: lane unused).
    std::array<std::uint8_t, 8> get_dd_active_app_per_lane();
    // Stages application `code` in control set 0 on as many data paths as the service asks for
    // ("Nx..." services: N, others one) and the advertisement allows, unused lanes with AppSel 0,
    // then applies it with data path re-init on every lane. Host lane assignment options of 00h
    // (seen on real cables, and meaningless) are taken as "host lane 1".
    void set_application_code(std::uint8_t code, const std::string& service);
    // The staged control set as it is (8 lanes), and a data-path re-init of every lane with it.
    std::array<std::uint8_t, 8> get_dd_staged_dp_config();
    void set_dd_apply_dp_init(std::uint8_t lanes = 0xFF);
    void set_dd_dp_deinit(std::uint8_t lanes);
    std::uint8_t get_dd_config_status(unsigned lane);
    std::uint8_t get_dd_dp_state(unsigned lane);
    // A current bit rate in Gbit/s from an interface name: the number before its first "G"
    // ("400GBASE-DR4" 400, "ZR400-OFEC-16QAM" 400); 0 when the name has none.
    static unsigned get_current_bitrate(std::string_view interface_name);

    // Flags and monitors of a cycle (see cmis_flags_and_monitors); `lanes` 1..8.
    cmis_flags_and_monitors get_dd_flags_and_monitors(unsigned lanes);
    // The monitors alone (temperature and the lanes' powers and bias), the flags left latched.
    cmis_flags_and_monitors get_dd_monitors(unsigned lanes);
    // The latched flags alone (module and lane), one read each.
    cmis_flags_and_monitors get_dd_int_flags();
    std::uint16_t get_dd_ch_rx_pwr(unsigned lane) {
        return read_u16(dd_lane_of(fields::cm("lane_rx_power"), lane));
    }
    std::uint16_t get_dd_ch_tx_pwr(unsigned lane) {
        return read_u16(dd_lane_of(fields::cm("lane_tx_power"), lane));
    }
    std::uint16_t get_dd_ch_tx_bias(unsigned lane) {
        return read_u16(dd_lane_of(fields::cm("lane_tx_bias"), lane));
    }
    std::int16_t get_dd_temperature() { return read_s16(cmis_only(fields::cm("temperature"))); }
    std::uint16_t get_dd_supply_voltage() {
        return read_u16(cmis_only(fields::cm("supply_voltage")));
    }
    // Page 02h thresholds, raw.
    std::int16_t get_dd_temp_threshold(threshold t) {
        return read_s16(dd_threshold_of(fields::cm("temp_thresholds"), t));
    }
    std::uint16_t get_dd_vcc_threshold(threshold t) {
        return read_u16(dd_threshold_of(fields::cm("vcc_thresholds"), t));
    }
    std::uint16_t get_dd_tx_power_threshold(threshold t) {
        return read_u16(dd_threshold_of(fields::cm("tx_power_thresholds"), t));
    }
    std::uint16_t get_dd_tx_bias_threshold(threshold t) {
        return read_u16(dd_threshold_of(fields::cm("tx_bias_thresholds"), t));
    }
    std::uint16_t get_dd_rx_power_threshold(threshold t) {
        return read_u16(dd_threshold_of(fields::cm("rx_power_thresholds"), t));
    }
    // Tunable laser channel of media lane 1 (page 12h).
    std::int16_t get_dd_media_tx_1_chan_nbr() {
        return read_s16(cmis_only(fields::cm("media_tx_1_chan_nbr")));
    }
    void set_dd_media_tx_1_chan_nbr(std::int16_t channel);

    // --- Coherent modules (docs/coherent-registers.md) -------------------------------------
    // Grid spacing of media lane 1 in GHz (0 for a code we do not know), and its change.
    float get_dd_grid_spacing();
    void set_dd_grid_spacing(float ghz);
    // Supported grids, page 04h byte 128 (bit 7 75 GHz .. bit 0 3.125 GHz).
    std::uint8_t get_dd_laser_grids_adver() {
        return read_u8(cmis_only(fields::cm("laser_grids_supported")));
    }
    // Current laser frequency of media lane 1, MHz.
    std::uint32_t get_dd_current_freq() {
        return read_u32(cmis_only(fields::cm("current_freq_tx1")));
    }
    // Lowest / highest tunable frequency on a grid (GHz), MHz; 0 for a grid we do not know.
    std::uint32_t get_dd_min_freq(float grid_ghz);
    std::uint32_t get_dd_max_freq(float grid_ghz);
    // The frequency of channel `channel` on the grid, MHz (75 GHz channels count 25 GHz steps).
    static std::uint32_t channel_frequency_mhz(float grid_ghz, std::int16_t channel);
    // Tuning status and flags of media lane 1 (the flags clear on read).
    std::uint8_t get_dd_tuning_status() {
        return read_u8(cmis_only(fields::cm("tuning_status_tx1")));
    }
    std::uint8_t get_dd_tuning_flag_summary() {
        return read_u8(cmis_only(fields::cm("tuning_flag_summary")));
    }
    std::uint8_t get_dd_tuning_flags() {
        return read_u8(cmis_only(fields::cm("tuning_flags_tx1")));
    }

    bool get_dd_pulse_shaping() { return read_flag(cmis_only(fields::cm("pulse_shaping"))); }
    void set_dd_pulse_shaping(bool on) { write_flag(cmis_only(fields::cm("pulse_shaping")), on); }
    std::uint8_t get_dd_dsp_capabilities() {
        return read_u8(cmis_only(fields::cm("dsp_capabilities")));
    }
    bool get_dd_rx_demod_lock() { return read_flag(cmis_only(fields::cm("rx_demod_lock"))); }
    bool get_dd_tx_demod_lock() { return read_flag(cmis_only(fields::cm("tx_demod_lock"))); }
    // Both locks in one read (they share a byte): bit 0 RX, bit 1 TX.
    std::uint8_t get_dd_demod_locks() { return read_u8(cmis_only(fields::cm("rx_demod_lock"))); }
    // PM freeze (page 2Fh byte 144 bit 7, read-modify-write).
    void set_dd_latch_request(bool freeze) {
        write_flag(cmis_only(fields::cm("pm_freeze_request")), freeze);
    }

    // The active control set as it is (8 lanes) and its restore: staged, then applied with data
    // path re-init.
    std::array<std::uint8_t, 8> get_active_application_configuration();
    void set_application_lanes(const std::array<std::uint8_t, 8>& config);
    // Media interface code of application n (1..15).
    std::uint8_t get_dd_advertised_media_intf_code(unsigned n) {
        return get_appcode_advertisement(n).media_interface_id;
    }
    // Whether an advertised application has media interface `code`.
    bool get_dd_cmis5_media_code_support(std::uint8_t code);
    // Stages application `code` on the data paths the service asks for and applies it.
    void set_dd_app(std::uint8_t code, const std::string& service) {
        set_application_code(code, service);
    }
    std::string get_free_side_vendor_pn() { return get_part_number(); }
    // No data path in a transition (DPInit, DPDeinit, TxTurnOn/Off): an apply may go ahead.
    bool is_dp_all_lanes_ready_for_apply();

    // Coherent line monitors, raw register units.
    std::uint16_t get_dd_current_q() { return read_u16(cmis_only(fields::cm("link_q_avg"))); }
    std::int16_t get_dd_q_margin() { return read_s16(cmis_only(fields::cm("link_q_margin_avg"))); }
    std::uint16_t get_dd_osnr() { return read_u16(cmis_only(fields::cm("link_osnr_avg"))); }
    std::uint16_t get_dd_esnr() { return read_u16(cmis_only(fields::cm("link_esnr_avg"))); }
    std::int16_t get_dd_cd_high_granularity() {
        return read_s16(cmis_only(fields::cm("cd_high_granularity")));
    }
    std::int32_t get_dd_cd_low_granularity() {
        return read_s32(cmis_only(fields::cm("cd_low_granularity")));
    }
    std::int32_t get_dd_active_cd_lo_search() {
        return read_s32(cmis_only(fields::cm("cd_search_low")));
    }
    std::int32_t get_dd_active_cd_hi_search() {
        return read_s32(cmis_only(fields::cm("cd_search_high")));
    }
    std::int32_t get_dd_cd_average() { return read_s32(cmis_only(fields::cm("link_cd_avg"))); }
    std::int16_t get_dd_cfo() { return read_s16(cmis_only(fields::cm("link_cfo_avg"))); }
    std::uint16_t get_dd_pdl() { return read_u16(cmis_only(fields::cm("link_pdl_avg"))); }
    std::uint16_t get_dd_soproc() { return read_u16(cmis_only(fields::cm("link_soproc_avg"))); }
    std::uint16_t get_dd_laser_age() { return read_u16(cmis_only(fields::cm("laser_age"))); }
    std::uint16_t get_dd_diff_group_delay() {
        return read_u16(cmis_only(fields::cm("link_dgd_avg")));
    }
    std::int16_t get_dd_rx_signal_power() {
        return read_s16(cmis_only(fields::cm("link_rx_signal_power_avg")));
    }
    std::int16_t get_dd_cmis5_rx_total_power_new() {
        return read_s16(cmis_only(fields::cm("link_rx_total_power_avg")));
    }
    // F16 statistics: current, average, minimum, maximum.
    std::uint16_t get_dd_pre_fec_ber_curr() { return stat_of(fields::cm("pre_fec_ber"), 0); }
    std::uint16_t get_dd_pre_fec_ber_av() { return stat_of(fields::cm("pre_fec_ber"), 1); }
    std::uint16_t get_dd_pre_fec_ber_min() { return stat_of(fields::cm("pre_fec_ber"), 2); }
    std::uint16_t get_dd_pre_fec_ber_max() { return stat_of(fields::cm("pre_fec_ber"), 3); }
    std::uint16_t get_dd_frame_err_cnt_curr() { return stat_of(fields::cm("frame_errors"), 0); }
    std::uint16_t get_dd_frame_err_cnt_av() { return stat_of(fields::cm("frame_errors"), 1); }
    std::uint16_t get_dd_frame_err_cnt_min() { return stat_of(fields::cm("frame_errors"), 2); }
    std::uint16_t get_dd_frame_err_cnt_max() { return stat_of(fields::cm("frame_errors"), 3); }
    std::uint16_t get_dd_cmis5_post_fec_ber_curr() {
        return read_u16(cmis_only(fields::cm("cmis5_post_fec_ber")));
    }
    // Fault flags of the host lanes of `bank` (bit 0 TX remote, 1 TX local, 2 RX remote, 3 RX
    // local).
    std::uint8_t get_dd_cmis5_fault_flags(unsigned bank);

    // FEC PM (C-CMIS page 34h), read in one transaction.
    struct fec_counters {
        std::uint64_t total_bits = 0;
        std::uint64_t corrected_bits = 0;
        std::uint32_t uncorrected_blocks = 0;
    };
    fec_counters get_dd_fec_counters();
    std::uint64_t get_dd_fec_total_bits() { return read_u64(cmis_only(fields::cm("fec_rx_bits"))); }
    std::uint64_t get_dd_fec_corrected_bits() {
        return read_u64(cmis_only(fields::cm("fec_rx_corr_bits")));
    }
    std::uint32_t get_dd_fec_uncorrected_blocks() {
        return read_u32(cmis_only(fields::cm("fec_rx_frames_uncorr")));
    }
    // Client PM of host lanes (0-based); a counter the module has not started reads all ones.
    struct client_pm {
        std::uint64_t tx_bits = 0;
        std::uint64_t tx_corr_bits = 0;
        std::uint64_t tx_frames = 0;
        std::uint64_t tx_uncorr_frames = 0;
    };
    static constexpr std::uint64_t pm_uninitialised = ~std::uint64_t{0};
    // Lanes [first, first + count) in one transaction per vendor page.
    std::vector<client_pm> get_dd_client_pm(unsigned first, unsigned count);
    std::uint64_t get_dd_tx_bits_pm(unsigned lane) { return get_dd_client_pm(lane, 1)[0].tx_bits; }
    std::uint64_t get_dd_tx_corr_bits_pm(unsigned lane) {
        return get_dd_client_pm(lane, 1)[0].tx_corr_bits;
    }
    std::uint64_t get_dd_tx_frames_pm(unsigned lane) {
        return get_dd_client_pm(lane, 1)[0].tx_frames;
    }
    std::uint64_t get_dd_tx_uncorr_frames_pm(unsigned lane) {
        return get_dd_client_pm(lane, 1)[0].tx_uncorr_frames;
    }
    // RX power flags of media lane 1 from a flag read: bit 0 high alarm, 1 low alarm, 2 high
    // warning, 3 low warning.
    static std::uint8_t get_dd_low_high_alarm_flags(const cmis_flags_and_monitors& flags);

    // Programmable output power (0.01 dBm).
    std::int16_t get_dd_tx_tgt_output_pwr() {
        return read_s16(cmis_only(fields::cm("target_output_power_tx1")));
    }
    void set_dd_tx_tgt_output_pwr(std::int16_t centi_dbm) {
        write_s16(cmis_only(fields::cm("target_output_power_tx1")), centi_dbm);
    }
    std::int16_t get_dd_min_tx_prog_out_pwr() {
        return read_s16(cmis_only(fields::cm("min_prog_output_power")));
    }
    std::int16_t get_dd_max_tx_prog_out_pwr() {
        return read_s16(cmis_only(fields::cm("max_prog_output_power")));
    }
    std::uint16_t get_dd_rx_power_low_alarm_th() {
        return get_dd_rx_power_threshold(threshold::low_alarm);
    }

    // Custom RX thresholds (0.01 dBm) and their bounds.
    enum class custom_threshold : unsigned {
        total_high_alarm,
        total_low_alarm,
        signal_high_alarm,
        signal_high_warning,
        signal_low_alarm,
        signal_low_warning,
        los_total,
        los_signal,
    };
    std::int16_t get_dd_custom_threshold(custom_threshold t);
    void set_dd_custom_threshold(custom_threshold t, std::int16_t centi_dbm);
    // Bounds of the settable thresholds: maximum and minimum; the two LOS thresholds share one.
    std::int16_t get_dd_custom_threshold_bound(custom_threshold t, bool maximum);
    std::int16_t get_dd_rx_total_pwr_high_alarm_max_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::total_high_alarm, true);
    }
    std::int16_t get_dd_rx_total_pwr_high_alarm_min_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::total_high_alarm, false);
    }
    std::int16_t get_dd_rx_total_pwr_low_alarm_max_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::total_low_alarm, true);
    }
    std::int16_t get_dd_rx_total_pwr_low_alarm_min_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::total_low_alarm, false);
    }
    std::int16_t get_dd_rx_signal_pwr_high_alarm_max_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::signal_high_alarm, true);
    }
    std::int16_t get_dd_rx_signal_pwr_high_alarm_min_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::signal_high_alarm, false);
    }
    std::int16_t get_dd_rx_signal_pwr_low_alarm_max_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::signal_low_alarm, true);
    }
    std::int16_t get_dd_rx_signal_pwr_low_alarm_min_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::signal_low_alarm, false);
    }
    std::int16_t get_dd_cmis5_rx_los_total_pwr_max_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::los_total, true);
    }
    std::int16_t get_dd_cmis5_rx_los_total_pwr_min_threshold() {
        return get_dd_custom_threshold_bound(custom_threshold::los_total, false);
    }
    bool get_dd_cmis5_rx_los_custom_threshold_enabled() {
        return read_flag(cmis_only(fields::cm("custom_rx_los_enabled")));
    }
    void set_dd_cmis5_rx_los_custom_threshold_enabled(bool on) {
        write_flag(cmis_only(fields::cm("custom_rx_los_enabled")), on);
    }
    bool get_dd_rx_pwr_alarm_custom_threshold_enabled() {
        return read_flag(cmis_only(fields::cm("custom_rx_alarms_enabled")));
    }
    void set_dd_rx_pwr_alarm_custom_threshold_enabled(bool on) {
        write_flag(cmis_only(fields::cm("custom_rx_alarms_enabled")), on);
    }

    // PRBS generator and checker of the media lanes (pattern names: prbs_patterns()).
    static const std::vector<std::string>& prbs_patterns();
    void prbs_start_err_count(unsigned lanes, const std::string& pattern);
    // Per-lane error and bit counts of the first `lanes` lanes, and the lock-loss flags (bit n =
    // lane n+1, latched since the last call).
    void prbs_get_err_count(unsigned lanes, std::array<std::uint64_t, 8>& errors,
                            std::array<std::uint64_t, 8>& bits, std::uint8_t& lock_lost);
    void prbs_stop_err_count();
    void prbs_reset_err_count();

    static constexpr unsigned max_dd_lanes = 8;

    // Paging: a flat-memory module has only page 00h.
    bool get_flat_memory() { return read_flag(pick(fields::both("flat_mem"))); }
    bool get_support_paging() { return !get_flat_memory(); }
    // The CMIS (QSFP-DD) location, whatever the identifier says.
    bool get_dd_support_paging() { return !read_flag(fields::cm("flat_mem")); }
    // CMIS banks (1, 2 or 4); a flat-memory module has bank 0 only.
    unsigned get_banks_supported();

    // Raw access at a flat address; write_register changes only the bits in `mask`.
    std::uint8_t read_register(flat_address address) { return device_.read_byte(address); }
    // `length` bytes from a flat address into `buffer`, one transaction while they stay within
    // one page (bank 0).
    void read_bank_register(flat_address address, std::size_t length, std::uint8_t* buffer) {
        device_.i2c_read(address, std::span<std::uint8_t>(buffer, length));
    }
    void write_register(flat_address address, std::uint8_t data, std::uint8_t mask = 0xFF);

    // The field kinds.
    std::uint8_t read_u8(const field_def& f);
    std::int8_t read_s8(const field_def& f);
    bool read_flag(const field_def& f);
    std::uint8_t read_bits(const field_def& f);
    std::uint16_t read_u16(const field_def& f);
    std::int16_t read_s16(const field_def& f);
    std::uint32_t read_u32(const field_def& f);
    std::int32_t read_s32(const field_def& f);
    std::uint64_t read_u64(const field_def& f);
    std::string read_text(const field_def& f);
    std::vector<std::uint8_t> read_raw(const field_def& f);
    void write_flag(const field_def& f, bool value);
    void write_bits(const field_def& f, std::uint8_t value);
    void write_s16(const field_def& f, std::int16_t value);
    void write_u8(const field_def& f, std::uint8_t value);

    // The padding rules of read_text, for any byte string.
    static std::string trim_text(const std::vector<std::uint8_t>& bytes);

    static constexpr unsigned max_lanes = 4;

  private:
    static constexpr std::uint8_t all_lanes_high_rate = 0xAA;

    field_def dd_lane_of(const field_def& f, unsigned lane);
    field_def dd_threshold_of(const field_def& group, threshold t);
    // A page 01h flag; false on a flat-memory module, which has no page 01h.
    bool paged_flag(const field_def& f);
    std::uint8_t read_lane_nibble(const field_def& f, unsigned lane);
    void write_all_lanes_nibble(const field_def& f, std::uint8_t id);
    void write_raw(const field_def& f, std::span<const std::uint8_t> bytes);
    std::uint16_t stat_of(const field_def& group, unsigned index);
    field_def lane_of(const field_def& f, unsigned lane);
    field_def threshold_of(const field_def& group, threshold t);
    void set_rate_bits(const field_def& f, unsigned lane, unsigned mbps);
    const field_def& pick(const fields::field_pair& p) { return is_cmis() ? p.cmis : p.sff8636; }
    const field_def& sff_only(const field_def& f);
    const field_def& cmis_only(const field_def& f);
    void read(const field_def& f, std::span<std::uint8_t> out);

    qsfp_device& device_;
    std::optional<memory_map> family_;
    std::optional<bool> cmis_flat_;
    // Refuses a CMIS upper-page field on a flat-memory module: its page select is ignored, so the
    // access would land on page 00h.
    void check_page(const field_def& f);
    // The flat-memory bit of a CMIS module, read once per identity.
    bool cmis_flat();
};

}  // namespace qsfpd::cage

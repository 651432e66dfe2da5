#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "sfp_device_base.hpp"

// Addresses of the SFF-8472 memory map in the linear space of sfp_device_base.
using sfp_reg_t = unsigned;

namespace sfp_field {

struct byte_field {
    sfp_reg_t address;
};
struct flag_field {
    sfp_reg_t address;
    std::uint8_t mask;
};
struct word_field {  // big-endian 16-bit
    sfp_reg_t address;
};
struct string_field {
    sfp_reg_t address;
    unsigned length;
    const char* junk_message;
};

inline constexpr sfp_reg_t a2h = 256;

// A0h identification (SFF-8472 Table 4-1).
inline constexpr byte_field phys_dev_id{0};
inline constexpr byte_field nom_bit_rate{12};
inline constexpr byte_field rate_identifier{13};
inline constexpr byte_field opts_1{64};
inline constexpr byte_field opts_2{65};
inline constexpr byte_field nom_bit_rate_2{66};
inline constexpr byte_field diag_mon_type{92};
inline constexpr byte_field enh_opts{93};
inline constexpr string_field vendor_name{20, 16, " vendor name string is junk: "};
inline constexpr string_field vendor_pn{40, 16, " vendor part number string is junk: "};
inline constexpr string_field vendor_rev{56, 4, " vendor revision string is junk: "};
inline constexpr string_field vendor_sn{68, 16, " vendor serial number string is junk: "};
inline constexpr sfp_reg_t vendor_oui = 37;  // 3 bytes
inline constexpr sfp_reg_t wavelength = 60;  // nm (60-61) and hundredths (62)

// Compliance codes (SFF-8472 Table 5-3, bytes 3-10).
inline constexpr flag_field tc_10g_base_er{3, 0x80};
inline constexpr flag_field tc_10g_base_lrm{3, 0x40};
inline constexpr flag_field tc_10g_base_lr{3, 0x20};
inline constexpr flag_field tc_10g_base_sr{3, 0x10};
inline constexpr flag_field tc_base_px{6, 0x80};
inline constexpr flag_field tc_base_bx10{6, 0x40};
inline constexpr flag_field tc_100_base_fx{6, 0x20};
inline constexpr flag_field tc_100_base_lx{6, 0x10};
inline constexpr flag_field tc_1000_base_t{6, 0x08};
inline constexpr flag_field tc_1000_base_cx{6, 0x04};
inline constexpr flag_field tc_1000_base_lx{6, 0x02};
inline constexpr flag_field tc_1000_base_sx{6, 0x01};
inline constexpr flag_field tc_cable_technology_is_cable{8, 0x0C};  // active or passive cable
inline constexpr flag_field tc_cable_technology_active{8, 0x08};
inline constexpr flag_field tc_cable_technology_passive{8, 0x04};
inline constexpr flag_field tc_fc_speed_1200m{10, 0x80};
inline constexpr flag_field tc_fc_speed_800m{10, 0x40};
inline constexpr flag_field tc_fc_speed_1600m{10, 0x20};
inline constexpr flag_field tc_fc_speed_400m{10, 0x10};
inline constexpr flag_field tc_fc_speed_3200m{10, 0x08};
inline constexpr flag_field tc_fc_speed_200m{10, 0x04};
inline constexpr flag_field tc_fc_speed_100m{10, 0x01};

inline constexpr flag_field tunable{65, 0x40};
inline constexpr flag_field rate_select_implemented{65, 0x20};  // Table 8-3
inline constexpr flag_field tx_disable_implemented{65, 0x10};
inline constexpr flag_field tx_fault_implemented{65, 0x08};
inline constexpr flag_field los_inverted{65, 0x04};
inline constexpr flag_field los_implemented{65, 0x02};
inline constexpr flag_field diag_mon_implemented{92, 0x40};  // Table 8-5
inline constexpr flag_field diag_mon_int_calib{92, 0x20};
inline constexpr flag_field diag_mon_ext_calib{92, 0x10};
inline constexpr flag_field soft_tx_disable_implemented{93, 0x40};  // Table 8-6
inline constexpr byte_field sff8472_compliance{94};                 // Table 8-8
inline constexpr byte_field connector{2};                           // SFF-8024 Table 4-3
inline constexpr byte_field length_copper_m{18};                    // Table 4-1
inline constexpr byte_field signaling_rate_max{66};  // Table 8-1: upper margin, % of byte 12

// A2h diagnostics (SFF-8472 Table 9-5 thresholds, Table 9-11 live values).
inline constexpr word_field temp_high_alarm_th{a2h + 0};
inline constexpr word_field temp_low_alarm_th{a2h + 2};
inline constexpr word_field temp_high_warn_th{a2h + 4};
inline constexpr word_field temp_low_warn_th{a2h + 6};
inline constexpr word_field vcc_high_alarm_th{a2h + 8};
inline constexpr word_field vcc_low_alarm_th{a2h + 10};
inline constexpr word_field vcc_high_warn_th{a2h + 12};
inline constexpr word_field vcc_low_warn_th{a2h + 14};
inline constexpr word_field tx_bias_high_alarm_th{a2h + 16};
inline constexpr word_field tx_bias_low_alarm_th{a2h + 18};
inline constexpr word_field tx_bias_high_warn_th{a2h + 20};
inline constexpr word_field tx_bias_low_warn_th{a2h + 22};
inline constexpr word_field tx_power_high_alarm_th{a2h + 24};
inline constexpr word_field tx_power_low_alarm_th{a2h + 26};
inline constexpr word_field tx_power_high_warn_th{a2h + 28};
inline constexpr word_field tx_power_low_warn_th{a2h + 30};
inline constexpr word_field rx_power_high_alarm_th{a2h + 32};
inline constexpr word_field rx_power_low_alarm_th{a2h + 34};
inline constexpr word_field rx_power_high_warn_th{a2h + 36};
inline constexpr word_field rx_power_low_warn_th{a2h + 38};
inline constexpr word_field temp{a2h + 96};
inline constexpr word_field vcc{a2h + 98};
inline constexpr word_field tx_bias{a2h + 100};
inline constexpr word_field tx_power{a2h + 102};
inline constexpr word_field rx_power{a2h + 104};

// A2h status bits of byte 110 (Table 9-11) and the alarm / warning flags (Table 9-12).
inline constexpr flag_field status_tx_disable{a2h + 110, 0x80};
inline constexpr flag_field status_tx_fault{a2h + 110, 0x04};
inline constexpr flag_field status_rx_los{a2h + 110, 0x02};
inline constexpr flag_field status_data_not_ready{a2h + 110, 0x01};
inline constexpr flag_field temp_high_alarm_flag{a2h + 112, 0x80};
inline constexpr flag_field temp_low_alarm_flag{a2h + 112, 0x40};
inline constexpr flag_field temp_high_warn_flag{a2h + 116, 0x80};
inline constexpr flag_field temp_low_warn_flag{a2h + 116, 0x40};
// The block one monitoring cycle reads: monitors 96..105, status 110, flags 112..117.
inline constexpr sfp_reg_t cycle_block = a2h + 96;
inline constexpr unsigned cycle_block_length = 22;

// A2h control bits (Table 9-11 byte 110, Table 10-1 byte 118).
inline constexpr flag_field soft_tx_disable_select{a2h + 110, 0x40};
inline constexpr flag_field soft_rs0_select{a2h + 110, 0x08};
inline constexpr flag_field soft_rs1_select{a2h + 118, 0x08};
inline constexpr flag_field power_level{a2h + 118, 0x01};
// A2h byte 73 sits in the calibration-constant area, unused by internally calibrated modules;
// the test plugs use it as their control byte.
inline constexpr flag_field test_tx_fault{a2h + 73, 0x01};
inline constexpr flag_field test_rx_los{a2h + 73, 0x02};
inline constexpr flag_field test_mod_abs{a2h + 73, 0x04};
inline constexpr flag_field test_tristate{a2h + 73, 0x08};
inline constexpr flag_field rs1_rs2_ignore{a2h + 73, 0x10};
inline constexpr flag_field test_loopback{a2h + 73, 0x20};

// Our VOA SFP+ (docs/sfp-voa.md): A2h page 00h bytes 248..255, SFF-8472's vendor-specific
// control functions. Attenuation in 0.01 dB.
inline constexpr std::uint8_t voa_page = 0x00;
inline constexpr word_field voa_attenuation_set{a2h + 248};
inline constexpr word_field voa_attenuation_actual{a2h + 250};
inline constexpr word_field voa_attenuation_max{a2h + 252};
inline constexpr flag_field voa_settling{a2h + 254, 0x01};

// Tunable SFP+ (SFF-8690), A2h upper page 02h: selected through A2h byte 127.
inline constexpr sfp_reg_t a2h_page_select = a2h + 127;
inline constexpr std::uint8_t tunable_page = 0x02;
inline constexpr byte_field first_freq_thz_msb{a2h + 132};
inline constexpr byte_field first_freq_thz_lsb{a2h + 133};
inline constexpr byte_field first_freq_ghz10_msb{a2h + 134};
inline constexpr byte_field first_freq_ghz10_lsb{a2h + 135};
inline constexpr byte_field last_freq_thz_msb{a2h + 136};
inline constexpr byte_field last_freq_thz_lsb{a2h + 137};
inline constexpr byte_field last_freq_ghz10_msb{a2h + 138};
inline constexpr byte_field last_freq_ghz10_lsb{a2h + 139};
inline constexpr byte_field grid_space_ghz10_msb{a2h + 140};
inline constexpr byte_field grid_space_ghz10_lsb{a2h + 141};
inline constexpr byte_field channel_number_msb{a2h + 144};
inline constexpr byte_field channel_number_lsb{a2h + 145};
inline constexpr byte_field tunable_features{a2h + 128};  // bit 0: tuning by channel number
inline constexpr word_field frequency_error{a2h + 152};   // signed, 0.1 GHz
// Current status 168 and latched status 172 (SFF-8690 Table 3-3).
inline constexpr flag_field tune_status_tec_fault{a2h + 168, 0x40};
inline constexpr flag_field tune_status_unlocked{a2h + 168, 0x20};
inline constexpr flag_field tune_status_tuning{a2h + 168, 0x10};  // TxTune
inline constexpr byte_field tune_latched{a2h + 172};
inline constexpr std::uint8_t tune_latched_bad_channel = 0x10;
inline constexpr std::uint8_t tune_latched_new_channel = 0x08;

}  // namespace sfp_field

// The SFF-8472 fields of an SFP, one accessor per field, raw values: scaling is the handlers'.
// Stateless apart from the device; a failed read throws the device's error.
class sfp_reg_map {
  public:
    explicit sfp_reg_map(std::shared_ptr<sfp_device_base> device) : device_(std::move(device)) {}

    const std::shared_ptr<sfp_device_base>& device() const { return device_; }

    // Field kinds.
    std::uint8_t read_byte(sfp_field::byte_field f) const;
    void write_byte(sfp_field::byte_field f, std::uint8_t value) const;
    bool read_flag(sfp_field::flag_field f) const;
    void write_flag(sfp_field::flag_field f, bool value) const;
    std::int32_t read_signed_register(sfp_reg_t address) const;
    std::uint32_t read_unsigned_register(sfp_reg_t address) const;
    std::string read_string(sfp_field::string_field f) const;

    // "Junk": empty, or a byte below 32 or above 127 before the first NUL (127 itself passes).
    static bool is_string_junk(const std::uint8_t* buffer, unsigned length);

    std::uint8_t get_phys_dev_id() const { return read_byte(sfp_field::phys_dev_id); }
    std::uint8_t get_nom_bit_rate() const { return read_byte(sfp_field::nom_bit_rate); }
    std::uint8_t get_rate_identifier() const { return read_byte(sfp_field::rate_identifier); }
    std::uint8_t get_opts_1() const { return read_byte(sfp_field::opts_1); }
    std::uint8_t get_opts_2() const { return read_byte(sfp_field::opts_2); }
    std::uint8_t get_nom_bit_rate_2() const { return read_byte(sfp_field::nom_bit_rate_2); }
    std::uint8_t get_diag_mon_type() const { return read_byte(sfp_field::diag_mon_type); }
    std::uint8_t get_enh_opts() const { return read_byte(sfp_field::enh_opts); }

    std::string get_vendor_name() const { return read_string(sfp_field::vendor_name); }
    std::string get_vendor_pn() const { return read_string(sfp_field::vendor_pn); }
    std::string get_vendor_rev() const { return read_string(sfp_field::vendor_rev); }
    std::string get_vendor_sn() const { return read_string(sfp_field::vendor_sn); }
    std::string get_vendor_oui() const;
    // Nominal wavelength in nm; with `with_fraction` the hundredths of byte 62 are added.
    double get_wavelength(bool with_fraction) const;

    bool get_transceiver_comp__10g_base_er() const { return read_flag(sfp_field::tc_10g_base_er); }
    bool get_transceiver_comp__10g_base_lrm() const {
        return read_flag(sfp_field::tc_10g_base_lrm);
    }
    bool get_transceiver_comp__10g_base_lr() const { return read_flag(sfp_field::tc_10g_base_lr); }
    bool get_transceiver_comp__10g_base_sr() const { return read_flag(sfp_field::tc_10g_base_sr); }
    bool get_transceiver_comp__base_px() const { return read_flag(sfp_field::tc_base_px); }
    bool get_transceiver_comp__base_bx10() const { return read_flag(sfp_field::tc_base_bx10); }
    bool get_transceiver_comp__100_base_fx() const { return read_flag(sfp_field::tc_100_base_fx); }
    bool get_transceiver_comp__100_base_lx() const { return read_flag(sfp_field::tc_100_base_lx); }
    bool get_transceiver_comp__1000_base_t() const { return read_flag(sfp_field::tc_1000_base_t); }
    bool get_transceiver_comp__1000_base_cx() const {
        return read_flag(sfp_field::tc_1000_base_cx);
    }
    bool get_transceiver_comp__1000_base_lx() const {
        return read_flag(sfp_field::tc_1000_base_lx);
    }
    bool get_transceiver_comp__1000_base_sx() const {
        return read_flag(sfp_field::tc_1000_base_sx);
    }
    bool get_transceiver_comp__cable_technology_is_cable() const {
        return read_flag(sfp_field::tc_cable_technology_is_cable);
    }
    bool get_transceiver_comp__cable_technology_active() const {
        return read_flag(sfp_field::tc_cable_technology_active);
    }
    bool get_transceiver_comp__cable_technology_passive() const {
        return read_flag(sfp_field::tc_cable_technology_passive);
    }
    bool get_transceiver_comp__fibre_channel_speed_1200m() const {
        return read_flag(sfp_field::tc_fc_speed_1200m);
    }
    bool get_transceiver_comp__fibre_channel_speed_800m() const {
        return read_flag(sfp_field::tc_fc_speed_800m);
    }
    bool get_transceiver_comp__fibre_channel_speed_1600m() const {
        return read_flag(sfp_field::tc_fc_speed_1600m);
    }
    bool get_transceiver_comp__fibre_channel_speed_400m() const {
        return read_flag(sfp_field::tc_fc_speed_400m);
    }
    bool get_transceiver_comp__fibre_channel_speed_3200m() const {
        return read_flag(sfp_field::tc_fc_speed_3200m);
    }
    bool get_transceiver_comp__fibre_channel_speed_200m() const {
        return read_flag(sfp_field::tc_fc_speed_200m);
    }
    bool get_transceiver_comp__fibre_channel_speed_100m() const {
        return read_flag(sfp_field::tc_fc_speed_100m);
    }

    bool is_tunable() const { return read_flag(sfp_field::tunable); }
    bool get_rate_select_implemented() const {
        return read_flag(sfp_field::rate_select_implemented);
    }
    bool get_tx_disable_implemented() const { return read_flag(sfp_field::tx_disable_implemented); }
    bool get_tx_fault_implemented() const { return read_flag(sfp_field::tx_fault_implemented); }
    bool get_los_implemented() const { return read_flag(sfp_field::los_implemented); }
    bool get_diag_mon_implemented() const { return read_flag(sfp_field::diag_mon_implemented); }
    bool get_soft_tx_disable_implemented() const {
        return read_flag(sfp_field::soft_tx_disable_implemented);
    }
    std::uint8_t get_sff8472_compliance() const { return read_byte(sfp_field::sff8472_compliance); }
    std::uint8_t get_connector() const { return read_byte(sfp_field::connector); }
    std::uint8_t get_length_copper_m() const { return read_byte(sfp_field::length_copper_m); }
    std::uint8_t get_signaling_rate_max() const { return read_byte(sfp_field::signaling_rate_max); }
    bool get_diag_mon_type__int_calib() const { return read_flag(sfp_field::diag_mon_int_calib); }
    bool get_diag_mon_type__ext_calib() const { return read_flag(sfp_field::diag_mon_ext_calib); }

    std::int32_t get_temp() const { return read_signed_register(sfp_field::temp.address); }
    std::uint32_t get_vcc() const { return read_unsigned_register(sfp_field::vcc.address); }
    std::uint32_t get_tx_bias() const { return read_unsigned_register(sfp_field::tx_bias.address); }
    std::uint32_t get_tx_power() const {
        return read_unsigned_register(sfp_field::tx_power.address);
    }
    std::uint32_t get_rx_power() const {
        return read_unsigned_register(sfp_field::rx_power.address);
    }
    std::int32_t get_temp_high_alarm_th() const {
        return read_signed_register(sfp_field::temp_high_alarm_th.address);
    }
    std::int32_t get_temp_low_alarm_th() const {
        return read_signed_register(sfp_field::temp_low_alarm_th.address);
    }
    std::int32_t get_temp_high_warn_th() const {
        return read_signed_register(sfp_field::temp_high_warn_th.address);
    }
    std::int32_t get_temp_low_warn_th() const {
        return read_signed_register(sfp_field::temp_low_warn_th.address);
    }
    std::uint32_t get_vcc_high_alarm_th() const {
        return read_unsigned_register(sfp_field::vcc_high_alarm_th.address);
    }
    std::uint32_t get_vcc_low_alarm_th() const {
        return read_unsigned_register(sfp_field::vcc_low_alarm_th.address);
    }
    std::uint32_t get_vcc_high_warn_th() const {
        return read_unsigned_register(sfp_field::vcc_high_warn_th.address);
    }
    std::uint32_t get_vcc_low_warn_th() const {
        return read_unsigned_register(sfp_field::vcc_low_warn_th.address);
    }
    std::uint32_t get_tx_bias_high_alarm_th() const {
        return read_unsigned_register(sfp_field::tx_bias_high_alarm_th.address);
    }
    std::uint32_t get_tx_bias_low_alarm_th() const {
        return read_unsigned_register(sfp_field::tx_bias_low_alarm_th.address);
    }
    std::uint32_t get_tx_bias_high_warn_th() const {
        return read_unsigned_register(sfp_field::tx_bias_high_warn_th.address);
    }
    std::uint32_t get_tx_bias_low_warn_th() const {
        return read_unsigned_register(sfp_field::tx_bias_low_warn_th.address);
    }
    std::uint32_t get_tx_power_high_alarm_th() const {
        return read_unsigned_register(sfp_field::tx_power_high_alarm_th.address);
    }
    std::uint32_t get_tx_power_low_alarm_th() const {
        return read_unsigned_register(sfp_field::tx_power_low_alarm_th.address);
    }
    std::uint32_t get_tx_power_high_warn_th() const {
        return read_unsigned_register(sfp_field::tx_power_high_warn_th.address);
    }
    std::uint32_t get_tx_power_low_warn_th() const {
        return read_unsigned_register(sfp_field::tx_power_low_warn_th.address);
    }
    std::uint32_t get_rx_power_high_alarm_th() const {
        return read_unsigned_register(sfp_field::rx_power_high_alarm_th.address);
    }
    std::uint32_t get_rx_power_low_alarm_th() const {
        return read_unsigned_register(sfp_field::rx_power_low_alarm_th.address);
    }
    std::uint32_t get_rx_power_high_warn_th() const {
        return read_unsigned_register(sfp_field::rx_power_high_warn_th.address);
    }
    std::uint32_t get_rx_power_low_warn_th() const {
        return read_unsigned_register(sfp_field::rx_power_low_warn_th.address);
    }

    // One read of A2h 96..117: the monitors, the status byte and the alarm / warning flags.
    std::array<std::uint8_t, sfp_field::cycle_block_length> get_cycle_block() const;

    bool get_status_tx_disable() const { return read_flag(sfp_field::status_tx_disable); }
    bool get_status_tx_fault() const { return read_flag(sfp_field::status_tx_fault); }
    bool get_status_rx_los() const { return read_flag(sfp_field::status_rx_los); }
    bool get_soft_tx_disable_select() const { return read_flag(sfp_field::soft_tx_disable_select); }
    bool get_rs0_state() const { return read_flag(sfp_field::soft_rs0_select); }
    bool get_rs1_state() const { return read_flag(sfp_field::soft_rs1_select); }
    bool get_loopback() const { return read_flag(sfp_field::test_loopback); }
    void set_loopback(bool v) const { write_flag(sfp_field::test_loopback, v); }

    // VOA (vendor area of A2h page 00h, selected first).
    std::uint32_t get_voa_attenuation_set() const {
        return read_paged_word(sfp_field::voa_page, sfp_field::voa_attenuation_set);
    }
    std::uint32_t get_voa_attenuation_actual() const {
        return read_paged_word(sfp_field::voa_page, sfp_field::voa_attenuation_actual);
    }
    std::uint32_t get_voa_attenuation_max() const {
        return read_paged_word(sfp_field::voa_page, sfp_field::voa_attenuation_max);
    }
    void set_voa_attenuation(std::uint16_t hundredths_db) const;

    bool get_rs1_rs2_ignore() const { return read_flag(sfp_field::rs1_rs2_ignore); }
    void set_rs1_rs2_ignore(bool v) const { write_flag(sfp_field::rs1_rs2_ignore, v); }
    void set_soft_rs0_select(bool v) const { write_flag(sfp_field::soft_rs0_select, v); }
    void set_soft_rs1_select(bool v) const { write_flag(sfp_field::soft_rs1_select, v); }
    void set_soft_tx_disable_select(bool v) const {
        write_flag(sfp_field::soft_tx_disable_select, v);
    }
    void set_power_level(bool v) const { write_flag(sfp_field::power_level, v); }
    void set_tx_fault(bool v) const { write_flag(sfp_field::test_tx_fault, v); }
    void set_mod_abs(bool v) const { write_flag(sfp_field::test_mod_abs, v); }
    void set_rx_los(bool v) const { write_flag(sfp_field::test_rx_los, v); }
    void set_tristate(bool v) const { write_flag(sfp_field::test_tristate, v); }

    // Tunable fields live on A2h page 02h, which these select first.
    std::uint8_t get_first_freq_thz_msb() const {
        return read_tunable(sfp_field::first_freq_thz_msb);
    }
    std::uint8_t get_first_freq_thz_lsb() const {
        return read_tunable(sfp_field::first_freq_thz_lsb);
    }
    std::uint8_t get_first_freq_ghz10_msb() const {
        return read_tunable(sfp_field::first_freq_ghz10_msb);
    }
    std::uint8_t get_first_freq_ghz10_lsb() const {
        return read_tunable(sfp_field::first_freq_ghz10_lsb);
    }
    std::uint8_t get_last_freq_thz_msb() const {
        return read_tunable(sfp_field::last_freq_thz_msb);
    }
    std::uint8_t get_last_freq_thz_lsb() const {
        return read_tunable(sfp_field::last_freq_thz_lsb);
    }
    std::uint8_t get_last_freq_ghz10_msb() const {
        return read_tunable(sfp_field::last_freq_ghz10_msb);
    }
    std::uint8_t get_last_freq_ghz10_lsb() const {
        return read_tunable(sfp_field::last_freq_ghz10_lsb);
    }
    std::uint8_t get_grid_space_ghz10_msb() const {
        return read_tunable(sfp_field::grid_space_ghz10_msb);
    }
    std::uint8_t get_grid_space_ghz10_lsb() const {
        return read_tunable(sfp_field::grid_space_ghz10_lsb);
    }
    std::uint8_t get_channel_number_msb() const {
        return read_tunable(sfp_field::channel_number_msb);
    }
    std::uint8_t get_channel_number_lsb() const {
        return read_tunable(sfp_field::channel_number_lsb);
    }
    void set_channel_number_msb(std::uint8_t v) const {
        write_tunable(sfp_field::channel_number_msb, v);
    }
    void set_channel_number_lsb(std::uint8_t v) const {
        write_tunable(sfp_field::channel_number_lsb, v);
    }
    std::uint8_t get_tunable_features() const { return read_tunable(sfp_field::tunable_features); }
    bool get_tune_status_tuning() const { return read_tunable_flag(sfp_field::tune_status_tuning); }
    bool get_tune_status_unlocked() const {
        return read_tunable_flag(sfp_field::tune_status_unlocked);
    }
    // Clears on read.
    std::uint8_t get_tune_latched() const { return read_tunable(sfp_field::tune_latched); }

  private:
    std::uint32_t read_paged_word(std::uint8_t page, sfp_field::word_field f) const;
    std::uint8_t read_tunable(sfp_field::byte_field f) const;
    bool read_tunable_flag(sfp_field::flag_field f) const {
        return (read_tunable({f.address}) & f.mask) != 0;
    }
    void write_tunable(sfp_field::byte_field f, std::uint8_t value) const;
    void select_tunable_page() const;

    std::shared_ptr<sfp_device_base> device_;
};

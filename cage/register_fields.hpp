#pragma once

// The named register fields of the module memory, as data. One table per memory-map family; a
// field is one line: its name, kind, page, bank, byte, length, mask, and where the standard
// defines it. Accessors in qsfp_reg_map look fields up by name at compile time (a typo does not
// compile) and never spell an offset themselves.
//
// Citations: SFF-8636 table numbers as in rev 2.10a/2.11 where we could check them (the numbering
// shifts between revisions; the byte and bit never did); CMIS 5.x by page and byte, with the
// table number where we checked it (the bytes are the same in CMIS 4.0); SFF-8024 rev 4.x for the
// code tables.
// To add a field: add one line to the right table, then a one-line accessor.

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "qsfp_device.hpp"

namespace qsfpd::cage {

enum class field_kind : std::uint8_t {
    u8,    // the whole byte, unsigned
    s8,    // the whole byte, two's complement
    flag,  // one bit (mask has a single bit set)
    bits,  // (byte & mask) >> shift
    u16,   // two bytes, big-endian, unsigned
    s16,   // two bytes, big-endian, two's complement
    u32,   // four bytes, big-endian, unsigned
    s32,   // four bytes, big-endian, two's complement
    u64,   // eight bytes, big-endian, unsigned (counters)
    text,  // ASCII, padded: trailing spaces, NULs and FFh dropped, leading spaces dropped
    raw,   // `length` bytes as they are
};

struct field_def {
    std::string_view name;
    field_kind kind;
    std::uint8_t page;  // ignored for bytes 0..127 (the lower page is always mapped)
    std::uint8_t bank;
    std::uint8_t byte;  // 0..255, as the standards number them
    std::uint8_t length;
    std::uint8_t mask;
    std::uint8_t shift;
    std::string_view cite;

    constexpr flat_address address() const { return flat(page, byte); }
    constexpr bool is_signed() const {
        return kind == field_kind::s8 || kind == field_kind::s16 || kind == field_kind::s32;
    }
};

namespace fields {

constexpr std::uint8_t lowest_bit(std::uint8_t mask) {
    std::uint8_t shift = 0;
    while (shift < 8 && !(mask & (1u << shift)))
        ++shift;
    return shift;
}

// Builders, so each table line reads as what it is.
constexpr field_def u8(std::string_view name, std::uint8_t page, std::uint8_t byte,
                       std::string_view cite) {
    return {name, field_kind::u8, page, 0, byte, 1, 0xFF, 0, cite};
}
constexpr field_def flag(std::string_view name, std::uint8_t page, std::uint8_t byte, unsigned bit,
                         std::string_view cite) {
    return {name,
            field_kind::flag,
            page,
            0,
            byte,
            1,
            static_cast<std::uint8_t>(1u << bit),
            static_cast<std::uint8_t>(bit),
            cite};
}
constexpr field_def bits(std::string_view name, std::uint8_t page, std::uint8_t byte,
                         std::uint8_t mask, std::string_view cite) {
    return {name, field_kind::bits, page, 0, byte, 1, mask, lowest_bit(mask), cite};
}
constexpr field_def u16(std::string_view name, std::uint8_t page, std::uint8_t byte,
                        std::string_view cite) {
    return {name, field_kind::u16, page, 0, byte, 2, 0xFF, 0, cite};
}
constexpr field_def s16(std::string_view name, std::uint8_t page, std::uint8_t byte,
                        std::string_view cite) {
    return {name, field_kind::s16, page, 0, byte, 2, 0xFF, 0, cite};
}
constexpr field_def u32(std::string_view name, std::uint8_t page, std::uint8_t byte,
                        std::string_view cite) {
    return {name, field_kind::u32, page, 0, byte, 4, 0xFF, 0, cite};
}
constexpr field_def s32(std::string_view name, std::uint8_t page, std::uint8_t byte,
                        std::string_view cite) {
    return {name, field_kind::s32, page, 0, byte, 4, 0xFF, 0, cite};
}
constexpr field_def u64(std::string_view name, std::uint8_t page, std::uint8_t byte,
                        std::string_view cite) {
    return {name, field_kind::u64, page, 0, byte, 8, 0xFF, 0, cite};
}
constexpr field_def text(std::string_view name, std::uint8_t page, std::uint8_t first,
                         std::uint8_t last, std::string_view cite) {
    return {name,  field_kind::text,
            page,  0,
            first, static_cast<std::uint8_t>(last - first + 1),
            0xFF,  0,
            cite};
}
constexpr field_def raw(std::string_view name, std::uint8_t page, std::uint8_t first,
                        std::uint8_t last, std::string_view cite) {
    return {
        name, field_kind::raw, page, 0, first, static_cast<std::uint8_t>(last - first + 1), 0xFF, 0,
        cite};
}

// clang-format off

// SFF-8636: QSFP+ / QSFP28 (identifiers 0Ch, 0Dh, 11h).
inline constexpr std::array sff8636 = {
    u8("identifier", 0x00, 0, "SFF-8636 Table 6-2 byte 0 (SFF-8024 Table 4-1)"),
    u8("revision_compliance", 0x00, 1, "SFF-8636 Table 6-2 byte 1, Revision Compliance"),
    flag("flat_mem", 0x00, 2, 2, "SFF-8636 Table 6-2 byte 2 bit 2, Flat_mem (1 = upper page 00h only)"),
    flag("data_not_ready", 0x00, 2, 0, "SFF-8636 Table 6-2 byte 2 bit 0, Data_Not_Ready"),
    flag("power_override", 0x00, 93, 0, "SFF-8636 Table 6-2 byte 93 bit 0, Power_override (control bytes)"),
    flag("power_set", 0x00, 93, 1, "SFF-8636 Table 6-2 byte 93 bit 1, Power_set (1 = low power)"),
    flag("high_power_class_en", 0x00, 93, 2, "SFF-8636 Table 6-2 byte 93 bit 2, High Power Class Enable (classes 5-7)"),
    u8("nominal_bit_rate", 0x00, 140, "SFF-8636 Table 6-15 byte 140, nominal bit rate, 100 Mb/s units, FFh: see byte 222"),
    u8("dev_tech", 0x00, 147, "SFF-8636 Table 6-15 byte 147, Device technology (codes: Table 6-18)"),
    bits("transmitter_technology", 0x00, 147, 0xF0, "SFF-8636 Table 6-18 byte 147 bits 7-4, transmitter technology"),
    text("vendor_name", 0x00, 148, 163, "SFF-8636 Table 6-15 bytes 148-163, Vendor name"),
    text("vendor_pn", 0x00, 168, 183, "SFF-8636 Table 6-15 bytes 168-183, Vendor PN"),
    text("vendor_rev", 0x00, 184, 185, "SFF-8636 Table 6-15 bytes 184-185, Vendor rev"),
    u8("link_codes", 0x00, 192, "SFF-8636 Table 6-15 byte 192, Link codes (SFF-8024 Table 4-4 extended compliance)"),
    u8("options_195", 0x00, 195, "SFF-8636 Table 6-22 byte 195, Options"),
    flag("page_02_provided", 0x00, 195, 7, "SFF-8636 Table 6-22 byte 195 bit 7, Memory Page 02 provided"),
    flag("page_01_provided", 0x00, 195, 6, "SFF-8636 Table 6-22 byte 195 bit 6, Memory Page 01h provided"),
    flag("page_20_21_impl_195", 0x00, 195, 0, "SFF-8636 Table 6-22 byte 195 bit 0, Pages 20-21h implemented"),
    text("vendor_sn", 0x00, 196, 211, "SFF-8636 Table 6-15 bytes 196-211, Vendor SN"),
    text("date_code", 0x00, 212, 219, "SFF-8636 Table 6-15 bytes 212-219, Date code"),
    u8("enhanced_options", 0x00, 221, "SFF-8636 Table 6-25 byte 221, Enhanced Options"),
    flag("page_20_21_impl_221", 0x00, 221, 2, "SFF-8636 Table 6-25 byte 221 bit 2: see qsfp_reg_map::get_page_20_21_impl_221"),
    u8("extended_bit_rate", 0x00, 222, "SFF-8636 Table 6-15 byte 222, nominal baud rate, 250 MBd units"),

    // Interrupt flags and free side monitors (lower page). The flags latch and clear on read.
    raw("int_flags", 0x00, 3, 21, "SFF-8636 Tables 6-4..6-6 bytes 3-21, latched interrupt flags"),
    raw("monitors", 0x00, 22, 57, "SFF-8636 Tables 6-7, 6-8 bytes 22-57, free side and channel monitors"),
    raw("flags_and_monitors", 0x00, 3, 57, "SFF-8636 bytes 3-57: flags then monitors, one transaction"),
    s16("temperature", 0x00, 22, "SFF-8636 Table 6-7 bytes 22-23, temperature, 1/256 degC"),
    u16("supply_voltage", 0x00, 26, "SFF-8636 Table 6-7 bytes 26-27, supply voltage, 100 uV"),
    u16("rx_power", 0x00, 34, "SFF-8636 Table 6-8 bytes 34-41, RX power lanes 1-4, 0.1 uW"),
    u16("tx_bias", 0x00, 42, "SFF-8636 Table 6-8 bytes 42-49, TX bias lanes 1-4, 2 uA"),
    u16("tx_power", 0x00, 50, "SFF-8636 Table 6-8 bytes 50-57, TX power lanes 1-4, 0.1 uW"),

    // Control bytes (lower page).
    bits("tx_disable", 0x00, 86, 0x0F, "SFF-8636 Table 6-9 byte 86 bits 3-0, Tx4..Tx1_Disable"),
    u8("rx_rate_select", 0x00, 87, "SFF-8636 Table 6-9 byte 87, Rx4..Rx1_Rate_Select, 2 bits per lane"),
    u8("tx_rate_select", 0x00, 88, "SFF-8636 Table 6-9 byte 88, Tx4..Tx1_Rate_Select, 2 bits per lane"),

    // Page 00h advertisement used by the optical handlers.
    u16("free_side_wavelength", 0x00, 186, "SFF-8636 Table 6-15 bytes 186-187, nominal wavelength, 0.05 nm"),
    u8("max_case_temp", 0x00, 190, "SFF-8636 Table 6-15 byte 190, maximum case temperature, degC (0: 70 degC)"),
    flag("rate_sel_impl", 0x00, 195, 5, "SFF-8636 Table 6-22 byte 195 bit 5, RATE_SELECT implemented"),
    flag("appl_sel_impl", 0x00, 221, 2, "SFF-8636 Table 6-25 byte 221 bit 2, Application Select table (legacy)"),

    // Page 03h thresholds: high alarm, low alarm, high warning, low warning, 2 bytes each.
    s16("temp_thresholds", 0x03, 128, "SFF-8636 Table 6-29 bytes 128-135, temperature thresholds"),
    u16("vcc_thresholds", 0x03, 144, "SFF-8636 Table 6-29 bytes 144-151, supply voltage thresholds"),
    u16("rx_power_thresholds", 0x03, 176, "SFF-8636 Table 6-30 bytes 176-183, RX power thresholds"),
    u16("tx_bias_thresholds", 0x03, 184, "SFF-8636 Table 6-30 bytes 184-191, TX bias thresholds"),
    u16("tx_power_thresholds", 0x03, 192, "SFF-8636 Table 6-30 bytes 192-199, TX power thresholds"),

    // The PAM4 DSP modules' monitor page 20h and threshold page 21h. SFF-8636 reserves pages
    // 20h-21h for PAM4 and WDM monitoring; the fixed layout below is that of the DSP modules we
    // drive (lanes at a 2-byte stride, thresholds in the page 03h order).
    raw("dsp_fw_revision", 0x20, 128, 131, "DSP page 20h bytes 128-131, firmware major, minor, build (2 bytes)"),
    u16("ch_snr", 0x20, 132, "DSP page 20h bytes 132-139, SNR per lane, 1/256 dB"),
    s16("ch_res_disp", 0x20, 140, "DSP page 20h bytes 140-147, residual dispersion per lane, 0.1 units"),
    u16("ch_pam4_level_trans", 0x20, 148, "DSP page 20h bytes 148-155, PAM4 level transition per lane, 1/256"),
    s16("ch_tec_curr", 0x20, 156, "DSP page 20h bytes 156-163, TEC current per lane, 0.1 units"),
    s16("ch_laser_temp_diff", 0x20, 164, "DSP page 20h bytes 164-171, laser temperature difference per lane, 1/256 degC"),
    u16("pre_fec_ber_cur", 0x20, 172, "DSP page 20h bytes 172-173, pre-FEC BER current"),
    u16("pre_fec_ber_av", 0x20, 174, "DSP page 20h bytes 174-175, pre-FEC BER average"),
    u16("pre_fec_ber_pri", 0x20, 176, "DSP page 20h bytes 176-177, pre-FEC BER prior period"),
    u16("pre_fec_ber_latch_min", 0x20, 178, "DSP page 20h bytes 178-179, pre-FEC BER latched minimum"),
    u16("pre_fec_ber_latch_max", 0x20, 180, "DSP page 20h bytes 180-181, pre-FEC BER latched maximum"),
    u16("uncorr_ber_cur", 0x20, 182, "DSP page 20h bytes 182-183, uncorrected BER current"),
    u16("uncorr_ber_av", 0x20, 184, "DSP page 20h bytes 184-185, uncorrected BER average"),
    u16("uncorr_ber_pri", 0x20, 186, "DSP page 20h bytes 186-187, uncorrected BER prior period"),
    u16("uncorr_ber_min", 0x20, 188, "DSP page 20h bytes 188-189, uncorrected BER minimum"),
    u16("uncorr_ber_max", 0x20, 190, "DSP page 20h bytes 190-191, uncorrected BER maximum"),
    flag("ber_clear", 0x20, 192, 0, "DSP page 20h byte 192 bit 0, clear BER statistics (self-clearing)"),
    u16("snr_thresholds", 0x21, 128, "DSP page 21h bytes 128-135, SNR thresholds, 1/256 dB"),
    s16("res_disp_thresholds", 0x21, 136, "DSP page 21h bytes 136-143, residual dispersion thresholds"),
    u16("pam4_level_trans_thresholds", 0x21, 144, "DSP page 21h bytes 144-151, PAM4 level transition thresholds"),
    u16("pre_fec_ber_av_thresholds", 0x21, 152, "DSP page 21h bytes 152-159, pre-FEC BER average thresholds"),
    s16("tec_current_thresholds", 0x21, 160, "DSP page 21h bytes 160-167, TEC current thresholds"),
    s16("laser_temp_diff_thresholds", 0x21, 168, "DSP page 21h bytes 168-175, laser temperature difference thresholds"),
};

// CMIS: QSFP-DD, OSFP, QSFP with CMIS (identifiers 18h, 19h, 1Eh), incl. C-CMIS coherent modules.
inline constexpr std::array cmis = {
    u8("identifier", 0x00, 0, "CMIS lower page byte 0, SFF8024Identifier (SFF-8024 Table 4-1)"),
    u8("revision_compliance", 0x00, 1, "CMIS lower page byte 1, CmisRevision (major.minor nibbles)"),
    bits("revision_major", 0x00, 1, 0xF0, "CMIS lower page byte 1 bits 7-4, CMIS major revision"),
    bits("revision_minor", 0x00, 1, 0x0F, "CMIS lower page byte 1 bits 3-0, CMIS minor revision"),
    flag("flat_mem", 0x00, 2, 7, "CMIS lower page byte 2 bit 7, MemoryModel (1 = flat, page 00h only)"),
    bits("module_state", 0x00, 3, 0x0E, "CMIS lower page byte 3 bits 3-1, ModuleState"),
    u8("media_type", 0x00, 85, "CMIS lower page byte 85, MediaType (02h = SMF: media codes of SFF-8024 Table 4-7)"),
    raw("app_descriptors", 0x00, 86, 117, "CMIS lower page bytes 86-117, application descriptors 1-8 (4 bytes each)"),
    text("vendor_name", 0x00, 129, 144, "CMIS Table 8-24 bytes 129-144, VendorName"),
    text("vendor_pn", 0x00, 148, 163, "CMIS Table 8-24 bytes 148-163, VendorPN"),
    text("vendor_rev", 0x00, 164, 165, "CMIS Table 8-24 bytes 164-165, VendorRev"),
    text("vendor_sn", 0x00, 166, 181, "CMIS Table 8-24 bytes 166-181, VendorSN"),
    text("date_code", 0x00, 182, 189, "CMIS Table 8-24 bytes 182-189, DateCode"),
    u8("media_interface_technology", 0x00, 212, "CMIS Table 8-36 byte 212, MediaInterfaceTechnology (10h C-band, 11h L-band tunable)"),
    raw("app_descriptors_9_15", 0x01, 223, 250, "CMIS page 01h bytes 223-250, application descriptors 9-15 (host and media codes)"),
    bits("banks_supported", 0x01, 142, 0x03, "CMIS page 01h byte 142 bits 1-0, BanksSupported (0: 1 bank, 1: 2, 2: 4)"),

    // Lower page: status, flags, monitors, controls (CMIS 5.2 Tables 8-4..8-10).
    u8("module_state_byte", 0x00, 3, "CMIS lower page byte 3, ModuleState in bits 3-1, InterruptDeasserted bit 0"),
    raw("module_flags", 0x00, 8, 11, "CMIS lower page bytes 8-11, module flags, latched (clear on read)"),
    s16("temperature", 0x00, 14, "CMIS lower page bytes 14-15, TempMonValue, 1/256 degC"),
    u16("supply_voltage", 0x00, 16, "CMIS lower page bytes 16-17, VccMonValue, 100 uV"),
    raw("status_flags_monitors", 0x00, 3, 15, "CMIS lower page bytes 3-15: state, flags, temperature; one transaction"),
    flag("low_pwr_allow_request_hw", 0x00, 26, 6, "CMIS lower page byte 26 bit 6, LowPwrAllowRequestHW"),
    flag("low_pwr_request_sw", 0x00, 26, 4, "CMIS lower page byte 26 bit 4, LowPwrRequestSW"),
    u8("fw_major", 0x00, 39, "CMIS lower page byte 39, active firmware major revision"),
    u8("fw_minor", 0x00, 40, "CMIS lower page byte 40, active firmware minor revision"),
    u8("module_fault_cause", 0x00, 41, "CMIS lower page byte 41, ModuleFaultCause (6: temperature)"),

    // Page 01h advertisement (CMIS 5.2 Tables 8-36..8-49).
    u16("nominal_wavelength", 0x01, 138, "CMIS page 01h bytes 138-139, NominalWavelength, 0.05 nm"),
    flag("vdm_pages_supported", 0x01, 142, 6, "CMIS page 01h byte 142 bit 6, VDMPagesSupported (20h-2Fh)"),
    flag("diag_pages_supported", 0x01, 142, 5, "CMIS page 01h byte 142 bit 5, DiagnosticPagesSupported (13h-14h)"),
    flag("page_03_supported", 0x01, 142, 2, "CMIS page 01h byte 142 bit 2, Page03hSupported (user EEPROM)"),
    bits("dp_init_duration", 0x01, 144, 0x0F, "CMIS page 01h byte 144 bits 3-0, MaxDurationDPInit (duration code)"),
    bits("dp_deinit_duration", 0x01, 144, 0xF0, "CMIS page 01h byte 144 bits 7-4, MaxDurationDPDeinit"),
    bits("cdb_instances", 0x01, 163, 0xC0, "CMIS page 01h byte 163 bits 7-6, CdbInstancesSupported (0: no CDB)"),
    flag("transmitter_tunable", 0x01, 155, 6, "CMIS page 01h byte 155 bit 6, TransmitterIsTunable (pages 04h, 12h)"),
    flag("auto_squelch_disable_rx_supported", 0x01, 156, 2, "CMIS page 01h byte 156 bit 2, AutoSquelchDisableRxSupported"),
    flag("rx_power_monitor_supported", 0x01, 160, 2, "CMIS page 01h byte 160 bit 2, RxOpticalPowerMonSupported"),
    bits("tx_bias_multiplier", 0x01, 160, 0x18, "CMIS page 01h byte 160 bits 4-3, TxBiasCurrentScalingFactor (x1, x2, x4)"),
    flag("rx_output_amplitude_supported", 0x01, 162, 2, "CMIS page 01h byte 162 bit 2, RxOutputAmplitudeControlSupported"),
    flag("rx_output_pre_cursor_supported", 0x01, 162, 3, "CMIS page 01h byte 162 bits 4-3 = x1b, Rx output EQ pre-cursor control"),
    flag("rx_output_post_cursor_supported", 0x01, 162, 4, "CMIS page 01h byte 162 bits 4-3 = 1xb, Rx output EQ post-cursor control"),
    bits("module_pwr_up_duration", 0x01, 167, 0x0F, "CMIS page 01h byte 167 bits 3-0, MaxDurationModulePwrUp"),
    u8("media_lane_assignment", 0x01, 176, "CMIS page 01h bytes 176-190, MediaLaneAssignmentOptions of applications 1-15"),

    // Page 02h thresholds, each group high alarm, low alarm, high warning, low warning (Table 8-50).
    s16("temp_thresholds", 0x02, 128, "CMIS page 02h bytes 128-135, temperature thresholds"),
    u16("vcc_thresholds", 0x02, 136, "CMIS page 02h bytes 136-143, supply voltage thresholds"),
    u16("tx_power_thresholds", 0x02, 176, "CMIS page 02h bytes 176-183, TX optical power thresholds, 0.1 uW"),
    u16("tx_bias_thresholds", 0x02, 184, "CMIS page 02h bytes 184-191, TX bias thresholds, 2 uA"),
    u16("rx_power_thresholds", 0x02, 192, "CMIS page 02h bytes 192-199, RX optical power thresholds, 0.1 uW"),

    // Page 10h lane controls and staged control set 0, bank 0 = lanes 1-8 (Tables 8-54..8-64).
    u8("dp_deinit", 0x10, 128, "CMIS page 10h byte 128, DPDeinitLane<n>, bit n-1 (1: deinitialise)"),
    u8("tx_disable", 0x10, 130, "CMIS page 10h byte 130, OutputDisableTx<n>, bit n-1"),
    u8("auto_squelch_disable_rx", 0x10, 139, "CMIS page 10h byte 139, AutoSquelchDisableRx<n>, bit n-1"),
    u8("apply_dp_init", 0x10, 143, "CMIS page 10h byte 143, SCS0::ApplyDPInit lane mask (write only)"),
    u8("apply_immediate", 0x10, 144, "CMIS page 10h byte 144, SCS0::ApplyImmediate lane mask (write only)"),
    raw("staged_dp_config", 0x10, 145, 152, "CMIS page 10h bytes 145-152, SCS0::DPConfigLane1-8: AppSel 7-4, DataPathID 3-1, ExplicitControl 0"),
    raw("staged_rx_pre_cursor", 0x10, 162, 165, "CMIS page 10h bytes 162-165, SCS0 Rx output EQ pre-cursor target, nibble per lane (lane 1 low)"),
    raw("staged_rx_post_cursor", 0x10, 166, 169, "CMIS page 10h bytes 166-169, SCS0 Rx output EQ post-cursor target"),
    raw("staged_rx_amplitude", 0x10, 170, 173, "CMIS page 10h bytes 170-173, SCS0 Rx output amplitude target"),

    // Page 11h lane status, flags and monitors, bank 0 (Tables 8-74..8-89).
    raw("dp_state", 0x11, 128, 131, "CMIS page 11h bytes 128-131, DPStateHostLane<n>, nibble per lane (lane 1 low)"),
    raw("lane_flags", 0x11, 135, 152, "CMIS page 11h bytes 135-152, latched lane flags (clear on read)"),
    u16("lane_tx_power", 0x11, 154, "CMIS page 11h bytes 154-169, OpticalPowerTx<n>, 0.1 uW"),
    u16("lane_tx_bias", 0x11, 170, "CMIS page 11h bytes 170-185, LaserBiasTx<n>, 2 uA x multiplier"),
    u16("lane_rx_power", 0x11, 186, "CMIS page 11h bytes 186-201, OpticalPowerRx<n>, 0.1 uW"),
    raw("config_status", 0x11, 202, 205, "CMIS page 11h bytes 202-205, ConfigStatusLane<n>, nibble per lane (lane 1 low)"),
    raw("active_dp_config", 0x11, 206, 213, "CMIS page 11h bytes 206-213, active control set DPConfigLane1-8 (AppSel 7-4)"),
    raw("active_rx_pre_cursor", 0x11, 223, 226, "CMIS page 11h bytes 223-226, active Rx output EQ pre-cursor, nibble per lane"),
    raw("active_rx_post_cursor", 0x11, 227, 230, "CMIS page 11h bytes 227-230, active Rx output EQ post-cursor"),
    raw("active_rx_amplitude", 0x11, 231, 234, "CMIS page 11h bytes 231-234, active Rx output amplitude"),

    // Page 12h tunable laser control, media lane 1 (Table 8-91).
    s16("media_tx_1_chan_nbr", 0x12, 136, "CMIS page 12h bytes 136-137, ChannelNumberTx1"),

    // Coherent: tunable laser (pages 04h, 12h), PM freeze (2Fh), C-CMIS PM (34h, 35h), and the
    // DSP maker's vendor pages C0h-C3h and C8h, whose layout is ours (docs/coherent-registers.md).
    u8("laser_grids_supported", 0x04, 128, "CMIS page 04h byte 128, supported grid spacings (bit 7 75 GHz .. bit 0 3.125 GHz)"),
    s16("grid_channel_bounds", 0x04, 130, "CMIS page 04h bytes 130-161, lowest/highest channel per grid (s16 pairs, 3.125 GHz first)"),
    s16("min_prog_output_power", 0x04, 198, "CMIS page 04h bytes 198-199, minimum programmable output power, 0.01 dBm"),
    s16("max_prog_output_power", 0x04, 200, "CMIS page 04h bytes 200-201, maximum programmable output power, 0.01 dBm"),
    bits("grid_spacing_tx1", 0x12, 128, 0xF0, "CMIS page 12h byte 128 bits 7-4, GridSpacingTx1 (code)"),
    u32("current_freq_tx1", 0x12, 168, "CMIS page 12h bytes 168-171, CurrentLaserFrequencyTx1, MHz"),
    s16("target_output_power_tx1", 0x12, 200, "CMIS page 12h bytes 200-201, TargetOutputPowerTx1, 0.01 dBm"),
    u8("tuning_status_tx1", 0x12, 222, "CMIS page 12h byte 222, lane 1 tuning status (bit 1 in progress, bit 0 unlocked)"),
    u8("tuning_flag_summary", 0x12, 230, "CMIS page 12h byte 230, latched tuning flag summary, bit n = lane n+1"),
    u8("tuning_flags_tx1", 0x12, 231, "CMIS page 12h byte 231, latched tuning flags lane 1 (bit 0 TuningComplete), clear on read"),
    flag("pm_freeze_request", 0x2F, 144, 7, "CMIS page 2Fh byte 144 bit 7, freeze request of the VDM / PM statistics"),
    u64("fec_rx_bits", 0x34, 128, "C-CMIS page 34h bytes 128-135, rxBitsPm"),
    u64("fec_rx_corr_bits", 0x34, 144, "C-CMIS page 34h bytes 144-151, rxCorrBitsPm"),
    u32("fec_rx_frames_uncorr", 0x34, 176, "C-CMIS page 34h bytes 176-179, rxFramesUncorrErrPm"),
    s32("link_cd_avg", 0x35, 128, "C-CMIS page 35h bytes 128-131, chromatic dispersion average, ps/nm"),
    u16("link_dgd_avg", 0x35, 140, "C-CMIS page 35h bytes 140-141, DGD average, 0.01 ps"),
    u16("link_pdl_avg", 0x35, 152, "C-CMIS page 35h bytes 152-153, PDL average, 0.1 dB"),
    u16("link_osnr_avg", 0x35, 158, "C-CMIS page 35h bytes 158-159, OSNR average, 0.1 dB"),
    u16("link_esnr_avg", 0x35, 164, "C-CMIS page 35h bytes 164-165, eSNR average, 0.1 dB"),
    s16("link_cfo_avg", 0x35, 170, "C-CMIS page 35h bytes 170-171, CFO average, MHz"),
    s16("link_rx_total_power_avg", 0x35, 188, "C-CMIS page 35h bytes 188-189, RX total power average, 0.01 dBm"),
    s16("link_rx_signal_power_avg", 0x35, 194, "C-CMIS page 35h bytes 194-195, RX signal power average, 0.01 dBm"),
    u16("link_soproc_avg", 0x35, 200, "C-CMIS page 35h bytes 200-201, SOP rate of change average, krad/s"),
    u16("link_q_avg", 0x35, 230, "C-CMIS page 35h bytes 230-231, Q-factor average, 0.1 dB"),
    s16("link_q_margin_avg", 0x35, 236, "C-CMIS page 35h bytes 236-237, Q margin average, 0.1 dB"),
    u8("dsp_capabilities", 0xC0, 128, "vendor page C0h byte 128: bit 0 custom RX thresholds, 1 pulse shaping, 2 PRBS"),
    flag("pulse_shaping", 0xC0, 129, 0, "vendor page C0h byte 129 bit 0, pulse shaping enabled"),
    flag("rx_demod_lock", 0xC0, 130, 0, "vendor page C0h byte 130 bit 0, RX demodulator lock"),
    flag("tx_demod_lock", 0xC0, 130, 1, "vendor page C0h byte 130 bit 1, TX demodulator lock"),
    s16("cd_high_granularity", 0xC0, 132, "vendor page C0h bytes 132-133, CD high granularity, ps/nm"),
    s32("cd_low_granularity", 0xC0, 134, "vendor page C0h bytes 134-137, CD low granularity, ps/nm"),
    s32("cd_search_low", 0xC0, 138, "vendor page C0h bytes 138-141, active CD search low, ps/nm"),
    s32("cd_search_high", 0xC0, 142, "vendor page C0h bytes 142-145, active CD search high, ps/nm"),
    u16("laser_age", 0xC0, 146, "vendor page C0h bytes 146-147, laser age, %"),
    u16("pre_fec_ber", 0xC0, 148, "vendor page C0h bytes 148-155, pre-FEC BER current, average, minimum, maximum (F16)"),
    u16("frame_errors", 0xC0, 156, "vendor page C0h bytes 156-163, errored frames current, average, minimum, maximum (F16)"),
    s16("custom_rx_total_high_alarm", 0xC0, 164, "vendor page C0h bytes 164-165, custom RX total power high alarm, 0.01 dBm"),
    s16("custom_rx_total_low_alarm", 0xC0, 166, "vendor page C0h bytes 166-167, custom RX total power low alarm, 0.01 dBm"),
    s16("custom_rx_signal_high_alarm", 0xC0, 168, "vendor page C0h bytes 168-169, custom RX signal power high alarm, 0.01 dBm"),
    s16("custom_rx_signal_high_warning", 0xC0, 170, "vendor page C0h bytes 170-171, custom RX signal power high warning, 0.01 dBm"),
    s16("custom_rx_signal_low_alarm", 0xC0, 172, "vendor page C0h bytes 172-173, custom RX signal power low alarm, 0.01 dBm"),
    s16("custom_rx_signal_low_warning", 0xC0, 174, "vendor page C0h bytes 174-175, custom RX signal power low warning, 0.01 dBm"),
    s16("custom_rx_los_total", 0xC0, 176, "vendor page C0h bytes 176-177, custom RX LOS threshold on total power, 0.01 dBm"),
    s16("custom_rx_los_signal", 0xC0, 178, "vendor page C0h bytes 178-179, custom RX LOS threshold on signal power, 0.01 dBm"),
    flag("custom_rx_alarms_enabled", 0xC0, 180, 0, "vendor page C0h byte 180 bit 0, custom RX power alarm thresholds in use"),
    flag("custom_rx_los_enabled", 0xC0, 180, 1, "vendor page C0h byte 180 bit 1, custom RX LOS threshold (total power) in use"),
    s16("custom_bounds", 0xC0, 182, "vendor page C0h bytes 182-201, custom threshold bounds (max, min pairs)"),
    u8("prbs_control", 0xC0, 202, "vendor page C0h byte 202: bit 0 generator, 1 checker, 2 clear counters"),
    u8("prbs_pattern", 0xC0, 203, "vendor page C0h byte 203, PRBS pattern code"),
    u8("prbs_lock_lost", 0xC0, 204, "vendor page C0h byte 204, PRBS checker lock lost, bit n = lane n+1, clear on read"),
    u64("prbs_counters", 0xC1, 128, "vendor page C1h bytes 128-255, PRBS errors and bits per lane (u64 pairs)"),
    u64("client_pm_lanes_1_4", 0xC2, 128, "vendor page C2h bytes 128-255, client PM of host lanes 1-4 (4 u64 each)"),
    u64("client_pm_lanes_5_8", 0xC3, 128, "vendor page C3h bytes 128-255, client PM of host lanes 5-8"),
    u8("cmis5_fault_flags", 0xC8, 128, "vendor page C8h byte 128 (banked): TX remote, TX local, RX remote, RX local fault"),
    u16("cmis5_post_fec_ber", 0xC8, 130, "vendor page C8h bytes 130-131, post-FEC BER current (F16)"),
};

// clang-format on

template <std::size_t N>
consteval const field_def& find(const std::array<field_def, N>& table, std::string_view name) {
    const auto it = std::find_if(table.begin(), table.end(),
                                 [&](const field_def& f) { return f.name == name; });
    if (it == table.end()) throw "no such register field";  // a compile error in consteval
    return *it;
}

consteval const field_def& sff(std::string_view name) {
    return find(sff8636, name);
}
consteval const field_def& cm(std::string_view name) {
    return find(cmis, name);
}

// The same field `index` steps of `stride` bytes further: lane n of a per-lane field, or the
// n-th threshold of a threshold group.
constexpr field_def nth(const field_def& f, unsigned index, unsigned stride) {
    field_def out = f;
    out.byte = static_cast<std::uint8_t>(f.byte + index * stride);
    return out;
}

// A field both families have, under the same name.
struct field_pair {
    const field_def& sff8636;
    const field_def& cmis;
};
consteval field_pair both(std::string_view name) {
    return {sff(name), cm(name)};
}

}  // namespace fields

}  // namespace qsfpd::cage

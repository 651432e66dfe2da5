#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qsfp_device.hpp"
#include "register_fields.hpp"

namespace qsfpd::cage {

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
    void forget_identity() { family_.reset(); }

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

    // Paging: a flat-memory module has only page 00h.
    bool get_flat_memory() { return read_flag(pick(fields::both("flat_mem"))); }
    bool get_support_paging() { return !get_flat_memory(); }
    // The CMIS (QSFP-DD) location, whatever the identifier says.
    bool get_dd_support_paging() { return !read_flag(fields::cm("flat_mem")); }
    // CMIS banks (1, 2 or 4); a flat-memory module has bank 0 only.
    unsigned get_banks_supported();

    // Raw access at a flat address; write_register changes only the bits in `mask`.
    std::uint8_t read_register(flat_address address) { return device_.read_byte(address); }
    void write_register(flat_address address, std::uint8_t data, std::uint8_t mask = 0xFF);

    // The field kinds.
    std::uint8_t read_u8(const field_def& f);
    std::int8_t read_s8(const field_def& f);
    bool read_flag(const field_def& f);
    std::uint8_t read_bits(const field_def& f);
    std::uint16_t read_u16(const field_def& f);
    std::int16_t read_s16(const field_def& f);
    std::string read_text(const field_def& f);
    std::vector<std::uint8_t> read_raw(const field_def& f);
    void write_flag(const field_def& f, bool value);
    void write_bits(const field_def& f, std::uint8_t value);

    // The padding rules of read_text, for any byte string.
    static std::string trim_text(const std::vector<std::uint8_t>& bytes);

  private:
    const field_def& pick(const fields::field_pair& p) { return is_cmis() ? p.cmis : p.sff8636; }
    const field_def& sff_only(const field_def& f);
    const field_def& cmis_only(const field_def& f);
    void read(const field_def& f, std::span<std::uint8_t> out);

    qsfp_device& device_;
    std::optional<memory_map> family_;
};

}  // namespace qsfpd::cage

#include "sfp_reg_map.hpp"

#include <fmt/format.h>

#include <vector>

#include "msg_log.hpp"

std::uint8_t sfp_reg_map::read_byte(sfp_field::byte_field f) const {
    std::uint8_t value = 0;
    device_->read(f.address, 1, &value);
    return value;
}

void sfp_reg_map::write_byte(sfp_field::byte_field f, std::uint8_t value) const {
    device_->write(f.address, 1, &value);
}

bool sfp_reg_map::read_flag(sfp_field::flag_field f) const {
    return (read_byte({f.address}) & f.mask) != 0;
}

void sfp_reg_map::write_flag(sfp_field::flag_field f, bool value) const {
    std::uint8_t byte = read_byte({f.address});
    byte = value ? static_cast<std::uint8_t>(byte | f.mask)
                 : static_cast<std::uint8_t>(byte & ~f.mask);
    write_byte({f.address}, byte);
}

std::uint32_t sfp_reg_map::read_unsigned_register(sfp_reg_t address) const {
    std::uint8_t bytes[2] = {};
    device_->read(address, 2, bytes);
    return static_cast<std::uint32_t>(bytes[0]) << 8 | bytes[1];
}

std::int32_t sfp_reg_map::read_signed_register(sfp_reg_t address) const {
    const std::uint32_t raw = read_unsigned_register(address);
    // Sign-extend bit 15.
    return (raw & 0x8000u) ? static_cast<std::int32_t>(raw) - 0x10000
                           : static_cast<std::int32_t>(raw);
}

bool sfp_reg_map::is_string_junk(const std::uint8_t* buffer, unsigned length) {
    if (length == 0 || buffer[0] == 0) return true;
    for (unsigned i = 0; i < length && buffer[i] != 0; ++i)
        if (buffer[i] < 32 || buffer[i] > 127) return true;
    return false;
}

std::string sfp_reg_map::read_string(sfp_field::string_field f) const {
    std::vector<std::uint8_t> buffer(f.length + 1, 0);
    device_->read(f.address, f.length, buffer.data());
    if (is_string_junk(buffer.data(), static_cast<unsigned>(buffer.size()))) {
        std::string dump;
        for (std::size_t i = 0; i < buffer.size() && buffer[i] != 0; ++i)
            dump += fmt::format("{:02x} ", buffer[i]);
        MSG_LOG(msg_log::warning, "sfp_device")
            << "SFP " << device_->name() << f.junk_message << dump;
        return "Err";
    }
    return std::string(reinterpret_cast<const char*>(buffer.data()));
}

std::string sfp_reg_map::get_vendor_oui() const {
    std::uint8_t oui[3] = {};
    device_->read(sfp_field::vendor_oui, 3, oui);
    return fmt::format("{:02X}:{:02X}:{:02X}", oui[0], oui[1], oui[2]);
}

double sfp_reg_map::get_wavelength(bool with_fraction) const {
    std::uint8_t bytes[3] = {};
    device_->read(sfp_field::wavelength, 3, bytes);
    const double nm = static_cast<double>(static_cast<unsigned>(bytes[0]) << 8 | bytes[1]);
    return with_fraction ? nm + bytes[2] / 100.0 : nm;
}

void sfp_reg_map::select_tunable_page() const {
    const std::uint8_t page = sfp_field::tunable_page;
    device_->write(sfp_field::a2h_page_select, 1, &page);
}

std::uint8_t sfp_reg_map::read_tunable(sfp_field::byte_field f) const {
    select_tunable_page();
    return read_byte(f);
}

void sfp_reg_map::write_tunable(sfp_field::byte_field f, std::uint8_t value) const {
    select_tunable_page();
    write_byte(f, value);
}

std::array<std::uint8_t, sfp_field::cycle_block_length> sfp_reg_map::get_cycle_block() const {
    std::array<std::uint8_t, sfp_field::cycle_block_length> block{};
    device_->read(sfp_field::cycle_block, sfp_field::cycle_block_length, block.data());
    return block;
}

std::uint32_t sfp_reg_map::read_paged_word(std::uint8_t page, sfp_field::word_field f) const {
    device_->write(sfp_field::a2h_page_select, 1, &page);
    return read_unsigned_register(f.address);
}

void sfp_reg_map::set_voa_attenuation(std::uint16_t hundredths_db) const {
    const std::uint8_t page = sfp_field::voa_page;
    device_->write(sfp_field::a2h_page_select, 1, &page);
    const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(hundredths_db >> 8),
                                   static_cast<std::uint8_t>(hundredths_db & 0xFF)};
    device_->write(sfp_field::voa_attenuation_set.address, 2, bytes);
}

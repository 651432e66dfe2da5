#include "qsfp_reg_map.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "msg_log.hpp"

namespace qsfpd::cage {

namespace {

// SFF-8024 Table 4-7 (single-mode fibre media interface codes) that name coherent interfaces:
// 400ZR amplified / unamplified (OIF), 100GBASE-ZR and 400GBASE-ZR (IEEE), and the OpenZR+
// ZRxxx-OFEC modes with their HA/HB variants.
constexpr std::array<std::uint8_t, 14> coherent_smf_media_codes = {
    0x35,  // ZR400-OFEC-16QAM-HA
    0x36,  // ZR400-OFEC-16QAM-HB
    0x37,  // ZR400-OFEC-8QAM-HA
    0x3E,  // 400ZR, DWDM, amplified
    0x3F,  // 400ZR, single wavelength, unamplified
    0x44,  // 100GBASE-ZR
    0x46,  // ZR400-OFEC-16QAM
    0x47,  // ZR300-OFEC-8QAM
    0x48,  // ZR200-OFEC-QPSK
    0x49,  // ZR100-OFEC-QPSK
    0x4D,  // 400GBASE-ZR
    0x58,  // ZR400-OFEC-8QAM-HB
    0x59,  // ZR300-OFEC-8QAM-HA
    0x5A,  // ZR300-OFEC-8QAM-HB
};

// CMIS MediaType (lower page byte 85): 02h, the descriptors' media codes are SMF codes.
constexpr std::uint8_t media_type_smf = 0x02;
// CMIS MediaInterfaceTechnology (page 00h byte 212): 10h C-band, 11h L-band tunable laser.
constexpr std::uint8_t tech_c_band_tunable = 0x10;
constexpr std::uint8_t tech_l_band_tunable = 0x11;
// CMIS: a descriptor whose HostInterfaceID is FFh ends the application list.
constexpr std::uint8_t app_list_end = 0xFF;
constexpr std::size_t app_descriptor_size = 4;

constexpr std::uint8_t bit_rate_see_extended = 0xFF;
constexpr std::uint32_t bit_rate_unit_mbps = 100;
constexpr std::uint32_t extended_bit_rate_unit_mbps = 250;

// CMIS state duration codes (page 01h bytes 144, 167, ...), upper bound of each in ms; codes
// from 0Dh (">= 50 min") on are held at 50 min.
constexpr std::array<unsigned, 13> duration_code_ms = {
    1, 5, 10, 50, 100, 500, 1000, 5000, 10000, 60000, 300000, 600000, 3000000,
};
unsigned duration_ms(std::uint8_t code) {
    return code < duration_code_ms.size() ? duration_code_ms[code] : duration_code_ms.back();
}

constexpr std::array<std::string_view, 13> config_status_names = {
    "Undefined",
    "ConfigSuccess",
    "ConfigRejected",
    "ConfigRejectedInvalidAppSel",
    "ConfigRejectedInvalidDataPath",
    "ConfigRejectedInvalidSI",
    "ConfigRejectedLanesInUse",
    "ConfigRejectedPartialDataPath",
    "Reserved",
    "Reserved",
    "Reserved",
    "Reserved",
    "ConfigInProgress",
};

constexpr std::array<std::string_view, 8> module_state_names = {
    "Reserved",    "ModuleLowPwr", "ModulePwrUp", "ModuleReady",
    "ModulePwrDn", "ModuleFault",  "Reserved",    "Reserved",
};

// The number of data paths a service asks for: "4x100GbE-4x100GbE" four, any other one.
unsigned data_paths_of(const std::string& service) {
    if (service.size() > 1 && service[1] == 'x' && service[0] >= '1' && service[0] <= '8')
        return static_cast<unsigned>(service[0] - '0');
    return 1;
}

}  // namespace

std::string_view config_status_name(std::uint8_t code) {
    return code < config_status_names.size() ? config_status_names[code] : "Custom";
}

std::string_view module_state_name(std::uint8_t state) {
    return module_state_names[state & 0x07];
}

memory_map qsfp_reg_map::family() {
    if (!family_) family_ = memory_map_of(get_identifier());
    return *family_;
}

const field_def& qsfp_reg_map::sff_only(const field_def& f) {
    if (is_cmis())
        throw std::system_error(ENOTSUP, std::generic_category(),
                                std::string(f.name) + ": SFF-8636 field on a CMIS module");
    return f;
}

const field_def& qsfp_reg_map::cmis_only(const field_def& f) {
    if (!is_cmis())
        throw std::system_error(ENOTSUP, std::generic_category(),
                                std::string(f.name) + ": CMIS field on an SFF-8636 module");
    return f;
}

bool qsfp_reg_map::cmis_flat() {
    if (!cmis_flat_) cmis_flat_ = read_flag(fields::cm("flat_mem"));
    return *cmis_flat_;
}

void qsfp_reg_map::check_page(const field_def& f) {
    if (f.page == 0 || f.byte < page_size || !is_cmis()) return;
    if (cmis_flat())
        throw std::system_error(
            ENOTSUP, std::generic_category(),
            std::string(f.name) + ": a flat-memory module has no page " + std::to_string(f.page));
}

void qsfp_reg_map::read(const field_def& f, std::span<std::uint8_t> out) {
    check_page(f);
    try {
        device_.i2c_read_bank(f.bank, f.address(), out);
    } catch (const std::system_error&) {
        // A module that stopped answering may not be the one that comes back.
        forget_identity();
        throw;
    }
}

std::uint8_t qsfp_reg_map::read_u8(const field_def& f) {
    std::array<std::uint8_t, 1> b{};
    read(f, b);
    return b[0];
}

std::int8_t qsfp_reg_map::read_s8(const field_def& f) {
    return static_cast<std::int8_t>(read_u8(f));
}

bool qsfp_reg_map::read_flag(const field_def& f) {
    return (read_u8(f) & f.mask) != 0;
}

std::uint8_t qsfp_reg_map::read_bits(const field_def& f) {
    return static_cast<std::uint8_t>((read_u8(f) & f.mask) >> f.shift);
}

std::uint16_t qsfp_reg_map::read_u16(const field_def& f) {
    std::array<std::uint8_t, 2> b{};
    read(f, b);
    return static_cast<std::uint16_t>(b[0] << 8 | b[1]);
}

std::int16_t qsfp_reg_map::read_s16(const field_def& f) {
    return static_cast<std::int16_t>(read_u16(f));
}

std::vector<std::uint8_t> qsfp_reg_map::read_raw(const field_def& f) {
    std::vector<std::uint8_t> bytes(f.length);
    read(f, bytes);
    return bytes;
}

std::string qsfp_reg_map::trim_text(const std::vector<std::uint8_t>& bytes) {
    // Modules pad with spaces as the standards ask, but NUL and FFh (erased EEPROM) padding is
    // common too; a NUL ends the string. Other bytes outside printable ASCII become '?', so the
    // value stays valid text wherever it is published.
    std::string text;
    for (const std::uint8_t b : bytes) {
        if (b == 0x00) break;
        text.push_back(b >= 0x20 && b < 0x7F ? static_cast<char>(b) : (b == 0xFF ? ' ' : '?'));
    }
    const auto first = text.find_first_not_of(' ');
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of(' ');
    return text.substr(first, last - first + 1);
}

std::string qsfp_reg_map::read_text(const field_def& f) {
    return trim_text(read_raw(f));
}

void qsfp_reg_map::write_register(flat_address address, std::uint8_t data, std::uint8_t mask) {
    if (mask == 0) return;
    std::uint8_t value = data;
    if (mask != 0xFF)
        value = static_cast<std::uint8_t>((device_.read_byte(address) & ~mask) | (data & mask));
    device_.write_byte(address, value);
}

void qsfp_reg_map::write_flag(const field_def& f, bool value) {
    check_page(f);
    if (f.bank != 0) throw std::system_error(EINVAL, std::generic_category(), "banked field write");
    write_register(f.address(), value ? f.mask : 0, f.mask);
}

void qsfp_reg_map::write_bits(const field_def& f, std::uint8_t value) {
    check_page(f);
    if (f.bank != 0) throw std::system_error(EINVAL, std::generic_category(), "banked field write");
    write_register(f.address(), static_cast<std::uint8_t>(value << f.shift), f.mask);
}

bool qsfp_reg_map::is_coherent_transceiver() {
    if (!is_cmis()) return false;
    const std::uint8_t tech = get_media_interface_technology();
    if (tech == tech_c_band_tunable || tech == tech_l_band_tunable) return true;
    if (get_media_type() != media_type_smf) return false;

    bool list_ended = false;
    auto any_coherent = [&](const std::vector<std::uint8_t>& apps) {
        for (std::size_t at = 0; at + 1 < apps.size(); at += app_descriptor_size) {
            if (apps[at] == app_list_end) {
                list_ended = true;
                return false;
            }
            if (std::ranges::find(coherent_smf_media_codes, apps[at + 1]) !=
                coherent_smf_media_codes.end())
                return true;
        }
        return false;
    };
    if (any_coherent(read_raw(fields::cm("app_descriptors")))) return true;
    // Applications 9-15 live on page 01h, which a flat-memory module does not have.
    if (list_ended || get_flat_memory()) return false;
    return any_coherent(read_raw(fields::cm("app_descriptors_9_15")));
}

std::uint32_t qsfp_reg_map::get_nominal_bit_rate_mbps() {
    const std::uint8_t rate = read_u8(sff_only(fields::sff("nominal_bit_rate")));
    if (rate != bit_rate_see_extended) return rate * bit_rate_unit_mbps;
    return read_u8(fields::sff("extended_bit_rate")) * extended_bit_rate_unit_mbps;
}

field_def qsfp_reg_map::lane_of(const field_def& f, unsigned lane) {
    if (lane >= max_lanes)
        throw std::system_error(EINVAL, std::generic_category(),
                                std::string(f.name) + ": no lane " + std::to_string(lane));
    return fields::nth(sff_only(f), lane, f.length);
}

field_def qsfp_reg_map::threshold_of(const field_def& group, threshold t) {
    return fields::nth(sff_only(group), static_cast<unsigned>(t), group.length);
}

sff8636_int_flags qsfp_reg_map::get_int_flags() {
    sff8636_int_flags flags;
    read(sff_only(fields::sff("int_flags")), flags.bytes);
    return flags;
}

sff8636_monitors qsfp_reg_map::get_monitors() {
    sff8636_monitors monitors;
    read(sff_only(fields::sff("monitors")), monitors.bytes);
    return monitors;
}

std::pair<sff8636_int_flags, sff8636_monitors> qsfp_reg_map::get_flags_and_monitors() {
    constexpr auto& block = fields::sff("flags_and_monitors");
    std::array<std::uint8_t, block.length> bytes{};
    read(sff_only(block), bytes);
    std::pair<sff8636_int_flags, sff8636_monitors> out;
    const auto flags_end = bytes.begin() + out.first.bytes.size();
    std::copy(bytes.begin(), flags_end, out.first.bytes.begin());
    std::copy(flags_end, bytes.end(), out.second.bytes.begin());
    return out;
}

bool qsfp_reg_map::get_ch_tx_disable(unsigned lane) {
    if (lane >= max_lanes)
        throw std::system_error(EINVAL, std::generic_category(), "tx_disable: no such lane");
    return (get_tx_disable() >> lane) & 1u;
}

void qsfp_reg_map::set_ch_tx_disable(unsigned lane, bool disable) {
    constexpr auto& f = fields::sff("tx_disable");
    if (lane >= max_lanes)
        throw std::system_error(EINVAL, std::generic_category(), "tx_disable: no such lane");
    const auto bit = static_cast<std::uint8_t>(1u << lane);
    write_register(sff_only(f).address(), disable ? bit : 0, bit);
}

bool qsfp_reg_map::get_tx_laser_enabled(unsigned lanes) {
    const unsigned mask = (1u << std::min(lanes, max_lanes)) - 1;
    return (get_tx_disable() & mask) == 0;
}

bool qsfp_reg_map::get_tx_laser_disabled(unsigned lanes) {
    const unsigned mask = (1u << std::min(lanes, max_lanes)) - 1;
    return (get_tx_disable() & mask) == mask;
}

std::uint8_t qsfp_reg_map::rate_select_code(unsigned mbps) {
    constexpr unsigned high_rate_mbps = 25000;
    return mbps >= high_rate_mbps ? 0b10 : 0b00;
}

void qsfp_reg_map::set_rate_bits(const field_def& f, unsigned lane, unsigned mbps) {
    if (lane >= max_lanes)
        throw std::system_error(EINVAL, std::generic_category(),
                                std::string(f.name) + ": no such lane");
    const unsigned shift = 2 * lane;
    write_register(sff_only(f).address(),
                   static_cast<std::uint8_t>(rate_select_code(mbps) << shift),
                   static_cast<std::uint8_t>(0b11 << shift));
}

void qsfp_reg_map::set_ch_rx_rate_sel(unsigned lane, unsigned mbps) {
    set_rate_bits(fields::sff("rx_rate_select"), lane, mbps);
}

void qsfp_reg_map::set_ch_tx_rate_sel(unsigned lane, unsigned mbps) {
    set_rate_bits(fields::sff("tx_rate_select"), lane, mbps);
}

std::string qsfp_reg_map::get_inphi_fw_revision() {
    const auto bytes = read_raw(sff_only(fields::sff("dsp_fw_revision")));
    return std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
           std::to_string(bytes[2] << 8 | bytes[3]);
}

unsigned qsfp_reg_map::get_banks_supported() {
    if (read_flag(cmis_only(fields::cm("flat_mem")))) return 1;
    const std::uint8_t code = read_bits(fields::cm("banks_supported"));
    if (code == 3) {
        MSG_LOG(msg_log::warning, device_.path())
            << "reserved BanksSupported code 3, using bank 0 only";
        return 1;
    }
    return 1u << code;
}

// --- CMIS --------------------------------------------------------------------------------------

void qsfp_reg_map::write_raw(const field_def& f, std::span<const std::uint8_t> bytes) {
    check_page(f);
    device_.i2c_write_bank(f.bank, f.address(), bytes);
}

bool qsfp_reg_map::paged_flag(const field_def& f) {
    if (cmis_only(f).page != 0 && cmis_flat()) return false;
    return read_flag(f);
}

field_def qsfp_reg_map::dd_lane_of(const field_def& f, unsigned lane) {
    if (lane >= max_dd_lanes)
        throw std::system_error(EINVAL, std::generic_category(),
                                std::string(f.name) + ": no lane " + std::to_string(lane));
    return fields::nth(cmis_only(f), lane, f.length);
}

field_def qsfp_reg_map::dd_threshold_of(const field_def& group, threshold t) {
    return fields::nth(cmis_only(group), static_cast<unsigned>(t), group.length);
}

cmis_app_advertisement qsfp_reg_map::get_appcode_advertisement(unsigned n) {
    if (n < 1 || n > 15)
        throw std::system_error(EINVAL, std::generic_category(),
                                "no application " + std::to_string(n));
    cmis_app_advertisement out;
    std::array<std::uint8_t, app_descriptor_size> descriptor{};
    if (n <= 8) {
        read(fields::nth(cmis_only(fields::cm("app_descriptors")), n - 1, app_descriptor_size),
             descriptor);
    } else {
        if (!get_dd_support_paging()) return out;  // no page 01h: the list ends at 8
        read(fields::nth(fields::cm("app_descriptors_9_15"), n - 9, app_descriptor_size),
             descriptor);
    }
    out.host_interface_id = descriptor[0];
    out.media_interface_id = descriptor[1];
    out.host_lane_count = descriptor[2] >> 4;
    out.media_lane_count = descriptor[2] & 0x0F;
    out.host_lane_assignment_options = descriptor[3];
    if (out.host_interface_id != app_list_end && get_dd_support_paging())
        out.media_lane_assignment_options =
            read_u8(fields::nth(fields::cm("media_lane_assignment"), n - 1, 1));
    return out;
}

unsigned qsfp_reg_map::get_total_application_code_advertisement() {
    const auto lower = read_raw(cmis_only(fields::cm("app_descriptors")));
    unsigned total = 0;
    for (std::size_t at = 0; at < lower.size(); at += app_descriptor_size, ++total)
        if (lower[at] == app_list_end) return total;
    if (!get_dd_support_paging()) return total;
    const auto upper = read_raw(fields::cm("app_descriptors_9_15"));
    for (std::size_t at = 0; at < upper.size(); at += app_descriptor_size, ++total)
        if (upper[at] == app_list_end) return total;
    return total;
}

unsigned qsfp_reg_map::get_dd_dp_init_max_ms() {
    if (!get_dd_support_paging()) return 0;
    return duration_ms(read_bits(fields::cm("dp_init_duration")));
}

unsigned qsfp_reg_map::get_dd_module_pwr_up_max_ms() {
    if (!get_dd_support_paging()) return 0;
    return duration_ms(read_bits(fields::cm("module_pwr_up_duration")));
}

unsigned qsfp_reg_map::get_dd_tx_bias_multiplier() {
    if (!get_dd_support_paging()) return 1;
    const std::uint8_t code = read_bits(fields::cm("tx_bias_multiplier"));
    return code < 3 ? 1u << code : 1u;
}

void qsfp_reg_map::set_dd_tx_disable(bool disable) {
    const std::array<std::uint8_t, 1> value{static_cast<std::uint8_t>(disable ? 0xFF : 0x00)};
    write_raw(cmis_only(fields::cm("tx_disable")), value);
}

bool qsfp_reg_map::get_dd_lane_tx_disable(unsigned lane) {
    if (lane >= max_dd_lanes)
        throw std::system_error(EINVAL, std::generic_category(), "tx_disable: no such lane");
    return (get_dd_tx_disable() >> lane) & 1u;
}

void qsfp_reg_map::set_dd_lane_tx_disable(unsigned lane, bool disable) {
    if (lane >= max_dd_lanes)
        throw std::system_error(EINVAL, std::generic_category(), "tx_disable: no such lane");
    const auto bit = static_cast<std::uint8_t>(1u << lane);
    constexpr auto& f = fields::cm("tx_disable");
    check_page(cmis_only(f));
    write_register(f.address(), disable ? bit : 0, bit);
}

bool qsfp_reg_map::get_dd_tx_laser_enabled(unsigned lanes) {
    const unsigned mask = (1u << std::min(lanes, max_dd_lanes)) - 1;
    return (get_dd_tx_disable() & mask) == 0;
}

bool qsfp_reg_map::get_dd_tx_laser_disabled(unsigned lanes) {
    const unsigned mask = (1u << std::min(lanes, max_dd_lanes)) - 1;
    return (get_dd_tx_disable() & mask) == mask;
}

bool qsfp_reg_map::get_auto_squelch() {
    return read_u8(cmis_only(fields::cm("auto_squelch_disable_rx"))) == 0xFF;
}

void qsfp_reg_map::set_dd_auto_squelch_disable(bool disable) {
    const std::array<std::uint8_t, 1> value{static_cast<std::uint8_t>(disable ? 0xFF : 0x00)};
    write_raw(cmis_only(fields::cm("auto_squelch_disable_rx")), value);
}

std::uint8_t qsfp_reg_map::read_lane_nibble(const field_def& f, unsigned lane) {
    if (lane >= max_dd_lanes)
        throw std::system_error(EINVAL, std::generic_category(),
                                std::string(f.name) + ": no lane " + std::to_string(lane));
    const std::uint8_t byte = read_u8(fields::nth(cmis_only(f), lane / 2, 1));
    return lane % 2 == 0 ? byte & 0x0F : byte >> 4;
}

void qsfp_reg_map::write_all_lanes_nibble(const field_def& f, std::uint8_t id) {
    std::array<std::uint8_t, 4> bytes{};
    bytes.fill(static_cast<std::uint8_t>((id & 0x0F) << 4 | (id & 0x0F)));
    write_raw(cmis_only(f), bytes);
    // Staged signal-integrity values take effect on ApplyImmediate, without a data path re-init.
    const std::array<std::uint8_t, 1> all{0xFF};
    write_raw(fields::cm("apply_immediate"), all);
}

void qsfp_reg_map::set_dd_rx_output_pre_cursor_control(std::uint8_t id) {
    write_all_lanes_nibble(fields::cm("staged_rx_pre_cursor"), id);
}
void qsfp_reg_map::set_dd_rx_output_post_cursor_control(std::uint8_t id) {
    write_all_lanes_nibble(fields::cm("staged_rx_post_cursor"), id);
}
void qsfp_reg_map::set_dd_rx_output_amplitude_control(std::uint8_t id) {
    write_all_lanes_nibble(fields::cm("staged_rx_amplitude"), id);
}
unsigned qsfp_reg_map::get_dd_lane_rx_output_pre_cursor_control(unsigned lane) {
    return read_lane_nibble(fields::cm("active_rx_pre_cursor"), lane);
}
unsigned qsfp_reg_map::get_dd_lane_rx_output_post_cursor_control(unsigned lane) {
    return read_lane_nibble(fields::cm("active_rx_post_cursor"), lane);
}
unsigned qsfp_reg_map::get_dd_lane_rx_output_amplitude_control(unsigned lane) {
    return read_lane_nibble(fields::cm("active_rx_amplitude"), lane);
}

std::uint8_t qsfp_reg_map::get_dd_active_cntl_set_app() {
    return read_u8(cmis_only(fields::cm("active_dp_config")));
}

std::array<std::uint8_t, 8> qsfp_reg_map::get_dd_active_app_per_lane() {
    const auto bytes = read_raw(cmis_only(fields::cm("active_dp_config")));
    std::array<std::uint8_t, 8> out{};
    for (std::size_t lane = 0; lane < out.size(); ++lane)
        out[lane] = bytes[lane] >> 4;
    return out;
}

std::array<std::uint8_t, 8> qsfp_reg_map::get_dd_staged_dp_config() {
    const auto bytes = read_raw(cmis_only(fields::cm("staged_dp_config")));
    std::array<std::uint8_t, 8> out{};
    std::copy_n(bytes.begin(), out.size(), out.begin());
    return out;
}

void qsfp_reg_map::set_application_code(std::uint8_t code, const std::string& service) {
    const auto app = get_appcode_advertisement(code);
    if (app.host_interface_id == app_list_end || app.host_lane_count == 0 ||
        app.host_lane_count > max_dd_lanes)
        throw std::system_error(EINVAL, std::generic_category(),
                                "application " + std::to_string(code) + " is not advertised");
    // Data paths start on the host lanes the advertisement allows, without overlapping.
    const std::uint8_t starts =
        app.host_lane_assignment_options != 0 ? app.host_lane_assignment_options : 0x01;
    std::array<std::uint8_t, 8> config{};
    unsigned wanted = data_paths_of(service);
    unsigned next_free = 0;
    for (unsigned first = 0; first < max_dd_lanes && wanted > 0; ++first) {
        if (first < next_free || !((starts >> first) & 1u)) continue;
        if (first + app.host_lane_count > max_dd_lanes) break;
        for (unsigned lane = first; lane < first + app.host_lane_count; ++lane)
            config[lane] = static_cast<std::uint8_t>(code << 4 | first << 1);
        next_free = first + app.host_lane_count;
        --wanted;
    }
    if (next_free == 0)
        throw std::system_error(
            EINVAL, std::generic_category(),
            "application " + std::to_string(code) + " allows no host lane to start on");
    write_raw(fields::cm("staged_dp_config"), config);
    set_dd_apply_dp_init(0xFF);
}

void qsfp_reg_map::set_dd_apply_dp_init(std::uint8_t lanes) {
    const std::array<std::uint8_t, 1> value{lanes};
    write_raw(cmis_only(fields::cm("apply_dp_init")), value);
}

void qsfp_reg_map::set_dd_dp_deinit(std::uint8_t lanes) {
    const std::array<std::uint8_t, 1> value{lanes};
    write_raw(cmis_only(fields::cm("dp_deinit")), value);
}

std::uint8_t qsfp_reg_map::get_dd_config_status(unsigned lane) {
    return read_lane_nibble(fields::cm("config_status"), lane);
}

std::uint8_t qsfp_reg_map::get_dd_dp_state(unsigned lane) {
    return read_lane_nibble(fields::cm("dp_state"), lane);
}

unsigned qsfp_reg_map::get_current_bitrate(std::string_view interface_name) {
    // The rate is the number written before "G" ("400GBASE-DR4") or next to "ZR" ("400ZR",
    // "ZR400-OFEC-16QAM").
    auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    const std::string_view name = interface_name;
    for (std::size_t first = 0; first < name.size();) {
        if (!is_digit(name[first])) {
            ++first;
            continue;
        }
        std::size_t end = first;
        unsigned rate = 0;
        while (end < name.size() && is_digit(name[end]))
            rate = rate * 10 + static_cast<unsigned>(name[end++] - '0');
        const std::string_view after = name.substr(end);
        const bool zr_before = first >= 2 && name.substr(first - 2, 2) == "ZR";
        if (after.starts_with("G") || after.starts_with("ZR") || zr_before) return rate;
        first = end;
    }
    return 0;
}

cmis_flags_and_monitors qsfp_reg_map::get_dd_flags_and_monitors(unsigned lanes) {
    cmis_flags_and_monitors out;
    read(cmis_only(fields::cm("status_flags_monitors")), out.lower);
    const unsigned used = std::clamp(lanes, 1u, max_dd_lanes);
    // Through the RX power of the last lane in use: one read covers flags and monitors.
    const std::size_t length = 186u + 2u * used - cmis_flags_and_monitors::lane_first;
    read(fields::cm("lane_flags"), std::span(out.lane).first(length));
    return out;
}

cmis_flags_and_monitors qsfp_reg_map::get_dd_monitors(unsigned lanes) {
    cmis_flags_and_monitors out;
    constexpr auto& temperature = fields::cm("temperature");
    read(cmis_only(temperature),
         std::span(out.lower).subspan(temperature.byte - cmis_flags_and_monitors::lower_first, 2));
    constexpr auto& first = fields::cm("lane_tx_power");
    const unsigned used = std::clamp(lanes, 1u, max_dd_lanes);
    const std::size_t length = 186u + 2u * used - first.byte;
    read(first,
         std::span(out.lane).subspan(first.byte - cmis_flags_and_monitors::lane_first, length));
    return out;
}

cmis_flags_and_monitors qsfp_reg_map::get_dd_int_flags() {
    cmis_flags_and_monitors out;
    read(cmis_only(fields::cm("status_flags_monitors")), out.lower);
    constexpr auto& flags = fields::cm("lane_flags");
    read(flags, std::span(out.lane).first(flags.length));
    return out;
}

void qsfp_reg_map::set_dd_media_tx_1_chan_nbr(std::int16_t channel) {
    const auto raw = static_cast<std::uint16_t>(channel);
    const std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(raw >> 8),
                                            static_cast<std::uint8_t>(raw & 0xFF)};
    write_raw(cmis_only(fields::cm("media_tx_1_chan_nbr")), bytes);
}

}  // namespace qsfpd::cage

// The coherent (tunable, C-CMIS) accessors of qsfp_reg_map. Layout: docs/coherent-registers.md.
#include <algorithm>
#include <cmath>
#include <system_error>

#include "qsfp_reg_map.hpp"

namespace qsfpd::cage {

namespace {

// Grid spacing codes of page 12h byte 128 bits 7-4, with the frequency step of one channel
// number and the index of the grid's channel bounds in page 04h (130 + 4 x index).
struct grid_code {
    float ghz;
    std::uint8_t code;
    double step_ghz;
    unsigned bounds_index;
};
constexpr std::array grid_codes = {
    grid_code{3.125F, 0, 3.125, 0},    grid_code{6.25F, 1, 6.25, 1}, grid_code{12.5F, 2, 12.5, 2},
    grid_code{25.0F, 3, 25.0, 3},      grid_code{50.0F, 4, 50.0, 4}, grid_code{100.0F, 5, 100.0, 5},
    grid_code{33.0F, 6, 100.0 / 3, 6},  // 33 GHz is a third of 100 GHz
    grid_code{75.0F, 7, 25.0, 7},       // 75 GHz channels count 25 GHz steps
};

const grid_code* find_grid(float ghz) {
    const auto it = std::find_if(grid_codes.begin(), grid_codes.end(), [&](const grid_code& g) {
        return std::fabs(g.ghz - ghz) < 0.001F;
    });
    return it == grid_codes.end() ? nullptr : &*it;
}

constexpr double anchor_mhz = 193'100'000.0;  // channel 0 of every grid

constexpr std::array pattern_names = {"PRBS31", "PRBS23", "PRBS15", "PRBS13", "PRBS9", "PRBS7"};

std::uint64_t u64_at(const std::vector<std::uint8_t>& bytes, std::size_t at) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < 8; ++i)
        v = v << 8 | bytes[at + i];
    return v;
}

}  // namespace

std::uint32_t qsfp_reg_map::read_u32(const field_def& f) {
    std::array<std::uint8_t, 4> b{};
    read(f, b);
    return static_cast<std::uint32_t>(b[0]) << 24 | static_cast<std::uint32_t>(b[1]) << 16 |
           static_cast<std::uint32_t>(b[2]) << 8 | b[3];
}

std::int32_t qsfp_reg_map::read_s32(const field_def& f) {
    return static_cast<std::int32_t>(read_u32(f));
}

std::uint64_t qsfp_reg_map::read_u64(const field_def& f) {
    std::vector<std::uint8_t> b(8);
    read(f, b);
    return u64_at(b, 0);
}

void qsfp_reg_map::write_s16(const field_def& f, std::int16_t value) {
    const auto raw = static_cast<std::uint16_t>(value);
    const std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(raw >> 8),
                                            static_cast<std::uint8_t>(raw & 0xFF)};
    write_raw(f, bytes);
}

void qsfp_reg_map::write_u8(const field_def& f, std::uint8_t value) {
    const std::array<std::uint8_t, 1> bytes{value};
    write_raw(f, bytes);
}

std::uint16_t qsfp_reg_map::stat_of(const field_def& group, unsigned index) {
    return read_u16(cmis_only(fields::nth(group, index, 2)));
}

float qsfp_reg_map::get_dd_grid_spacing() {
    const auto code = read_bits(cmis_only(fields::cm("grid_spacing_tx1")));
    const auto it = std::find_if(grid_codes.begin(), grid_codes.end(),
                                 [&](const grid_code& g) { return g.code == code; });
    return it == grid_codes.end() ? 0.0F : it->ghz;
}

void qsfp_reg_map::set_dd_grid_spacing(float ghz) {
    const auto* grid = find_grid(ghz);
    if (grid == nullptr)
        throw std::system_error(EINVAL, std::generic_category(),
                                "no grid spacing code for " + std::to_string(ghz) + " GHz");
    write_bits(cmis_only(fields::cm("grid_spacing_tx1")), grid->code);
}

std::uint32_t qsfp_reg_map::channel_frequency_mhz(float grid_ghz, std::int16_t channel) {
    const auto* grid = find_grid(grid_ghz);
    if (grid == nullptr) return 0;
    return static_cast<std::uint32_t>(std::lround(anchor_mhz + channel * grid->step_ghz * 1000.0));
}

std::uint32_t qsfp_reg_map::get_dd_min_freq(float grid_ghz) {
    const auto* grid = find_grid(grid_ghz);
    if (grid == nullptr) return 0;
    const auto low = read_s16(
        cmis_only(fields::nth(fields::cm("grid_channel_bounds"), grid->bounds_index * 2, 2)));
    return channel_frequency_mhz(grid_ghz, low);
}

std::uint32_t qsfp_reg_map::get_dd_max_freq(float grid_ghz) {
    const auto* grid = find_grid(grid_ghz);
    if (grid == nullptr) return 0;
    const auto high = read_s16(
        cmis_only(fields::nth(fields::cm("grid_channel_bounds"), grid->bounds_index * 2 + 1, 2)));
    return channel_frequency_mhz(grid_ghz, high);
}

std::array<std::uint8_t, 8> qsfp_reg_map::get_active_application_configuration() {
    const auto bytes = read_raw(cmis_only(fields::cm("active_dp_config")));
    std::array<std::uint8_t, 8> out{};
    std::copy_n(bytes.begin(), out.size(), out.begin());
    return out;
}

void qsfp_reg_map::set_application_lanes(const std::array<std::uint8_t, 8>& config) {
    write_raw(cmis_only(fields::cm("staged_dp_config")), config);
    set_dd_apply_dp_init(0xFF);
}

bool qsfp_reg_map::get_dd_cmis5_media_code_support(std::uint8_t code) {
    const unsigned total = get_total_application_code_advertisement();
    for (unsigned n = 1; n <= total; ++n)
        if (get_appcode_advertisement(n).media_interface_id == code) return true;
    return false;
}

bool qsfp_reg_map::is_dp_all_lanes_ready_for_apply() {
    const auto states = read_raw(cmis_only(fields::cm("dp_state")));
    for (const std::uint8_t pair : states)
        for (const std::uint8_t state : {pair & 0x0F, pair >> 4}) {
            const auto s = static_cast<cmis_dp_state>(state);
            if (s != cmis_dp_state::activated && s != cmis_dp_state::deactivated &&
                s != cmis_dp_state::initialized)
                return false;
        }
    return true;
}

std::uint8_t qsfp_reg_map::get_dd_cmis5_fault_flags(unsigned bank) {
    field_def f = cmis_only(fields::cm("cmis5_fault_flags"));
    f.bank = static_cast<std::uint8_t>(bank);
    return read_u8(f);
}

qsfp_reg_map::fec_counters qsfp_reg_map::get_dd_fec_counters() {
    constexpr auto& first = fields::cm("fec_rx_bits");
    constexpr auto& last = fields::cm("fec_rx_frames_uncorr");
    field_def block = first;
    block.kind = field_kind::raw;
    block.length = static_cast<std::uint8_t>(last.byte + last.length - first.byte);
    const auto bytes = read_raw(cmis_only(block));
    const auto at = [&](const field_def& f) {
        return static_cast<std::size_t>(f.byte - first.byte);
    };
    fec_counters out;
    out.total_bits = u64_at(bytes, at(first));
    out.corrected_bits = u64_at(bytes, at(fields::cm("fec_rx_corr_bits")));
    const std::size_t u = at(last);
    out.uncorrected_blocks = static_cast<std::uint32_t>(bytes[u]) << 24 |
                             static_cast<std::uint32_t>(bytes[u + 1]) << 16 |
                             static_cast<std::uint32_t>(bytes[u + 2]) << 8 | bytes[u + 3];
    return out;
}

std::vector<qsfp_reg_map::client_pm> qsfp_reg_map::get_dd_client_pm(unsigned first,
                                                                    unsigned count) {
    if (first + count > max_dd_lanes || count == 0)
        throw std::system_error(EINVAL, std::generic_category(), "client PM lane out of range");
    constexpr unsigned lanes_per_page = 4;
    constexpr unsigned bytes_per_lane = 32;
    std::vector<client_pm> out;
    out.reserve(count);
    unsigned lane = first;
    while (lane < first + count) {
        const unsigned page_first = lane / lanes_per_page * lanes_per_page;
        const unsigned last = std::min(first + count, page_first + lanes_per_page);
        field_def block =
            page_first == 0 ? fields::cm("client_pm_lanes_1_4") : fields::cm("client_pm_lanes_5_8");
        block.kind = field_kind::raw;
        block.byte = static_cast<std::uint8_t>(block.byte + (lane - page_first) * bytes_per_lane);
        block.length = static_cast<std::uint8_t>((last - lane) * bytes_per_lane);
        const auto bytes = read_raw(cmis_only(block));
        for (unsigned i = 0; i < last - lane; ++i) {
            const std::size_t at = i * bytes_per_lane;
            out.push_back({u64_at(bytes, at), u64_at(bytes, at + 8), u64_at(bytes, at + 16),
                           u64_at(bytes, at + 24)});
        }
        lane = last;
    }
    return out;
}

std::uint8_t qsfp_reg_map::get_dd_low_high_alarm_flags(const cmis_flags_and_monitors& flags) {
    std::uint8_t out = 0;
    for (unsigned i = 0; i < 4; ++i)
        if (flags.lane_at(static_cast<std::uint8_t>(149 + i)) & 0x01) out |= 1u << i;
    return out;
}

std::int16_t qsfp_reg_map::get_dd_custom_threshold(custom_threshold t) {
    return read_s16(cmis_only(
        fields::nth(fields::cm("custom_rx_total_high_alarm"), static_cast<unsigned>(t), 2)));
}

void qsfp_reg_map::set_dd_custom_threshold(custom_threshold t, std::int16_t centi_dbm) {
    write_s16(cmis_only(fields::nth(fields::cm("custom_rx_total_high_alarm"),
                                    static_cast<unsigned>(t), 2)),
              centi_dbm);
}

std::int16_t qsfp_reg_map::get_dd_custom_threshold_bound(custom_threshold t, bool maximum) {
    // Bound pairs (maximum, minimum) for the settable thresholds; the warnings have none (they
    // follow their alarm) and the two LOS thresholds share one pair.
    unsigned pair = 0;
    switch (t) {
        case custom_threshold::total_high_alarm:
            pair = 0;
            break;
        case custom_threshold::total_low_alarm:
            pair = 1;
            break;
        case custom_threshold::signal_high_alarm:
        case custom_threshold::signal_high_warning:
            pair = 2;
            break;
        case custom_threshold::signal_low_alarm:
        case custom_threshold::signal_low_warning:
            pair = 3;
            break;
        case custom_threshold::los_total:
        case custom_threshold::los_signal:
            pair = 4;
            break;
    }
    return read_s16(
        cmis_only(fields::nth(fields::cm("custom_bounds"), pair * 2 + (maximum ? 0 : 1), 2)));
}

const std::vector<std::string>& qsfp_reg_map::prbs_patterns() {
    static const std::vector<std::string> names(pattern_names.begin(), pattern_names.end());
    return names;
}

void qsfp_reg_map::prbs_start_err_count(unsigned lanes, const std::string& pattern) {
    const auto it = std::find(pattern_names.begin(), pattern_names.end(), pattern);
    if (it == pattern_names.end())
        throw std::system_error(EINVAL, std::generic_category(),
                                "PRBS pattern " + pattern + " is not supported by the module");
    if (lanes == 0 || lanes > max_dd_lanes)
        throw std::system_error(EINVAL, std::generic_category(), "PRBS lane count out of range");
    write_u8(cmis_only(fields::cm("prbs_pattern")),
             static_cast<std::uint8_t>(it - pattern_names.begin()));
    // Counters from zero, then generator and checker together.
    write_u8(fields::cm("prbs_control"), 0x04);
    write_u8(fields::cm("prbs_control"), 0x03);
    (void)read_u8(fields::cm("prbs_lock_lost"));  // drop a loss latched before the start
}

void qsfp_reg_map::prbs_get_err_count(unsigned lanes, std::array<std::uint64_t, 8>& errors,
                                      std::array<std::uint64_t, 8>& bits, std::uint8_t& lock_lost) {
    const unsigned used = std::clamp(lanes, 1u, max_dd_lanes);
    field_def block = cmis_only(fields::cm("prbs_counters"));
    block.kind = field_kind::raw;
    block.length = static_cast<std::uint8_t>(16 * used);
    const auto bytes = read_raw(block);
    errors.fill(0);
    bits.fill(0);
    for (unsigned lane = 0; lane < used; ++lane) {
        errors[lane] = u64_at(bytes, 16 * lane);
        bits[lane] = u64_at(bytes, 16 * lane + 8);
    }
    lock_lost =
        static_cast<std::uint8_t>(read_u8(fields::cm("prbs_lock_lost")) & ((1u << used) - 1u));
}

void qsfp_reg_map::prbs_stop_err_count() {
    write_u8(cmis_only(fields::cm("prbs_control")), 0x00);
}

void qsfp_reg_map::prbs_reset_err_count() {
    const auto control = read_u8(cmis_only(fields::cm("prbs_control")));
    write_u8(fields::cm("prbs_control"), static_cast<std::uint8_t>(control | 0x04));
}

}  // namespace qsfpd::cage

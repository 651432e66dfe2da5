#include "vdm_map.hpp"

#include <fmt/format.h>

#include "cmis_f16.hpp"
#include "qsfp_reg_map.hpp"

namespace qsfpd::cmis {

double VDM_unsigned_read(std::uint16_t raw) {
    return raw;
}

double VDM_int_read(std::uint16_t raw) {
    return static_cast<std::int16_t>(raw);
}

double VDM_float_read(std::uint16_t raw) {
    return cage::f16_to_double(raw);
}

double VDM_read(VDM_format format, std::uint16_t raw) {
    switch (format) {
        case VDM_format::unsigned16:
            return VDM_unsigned_read(raw);
        case VDM_format::signed16:
            return VDM_int_read(raw);
        case VDM_format::float16:
            return VDM_float_read(raw);
    }
    return 0.0;
}

std::optional<VDM_format> VDM_format_of(std::uint8_t type) {
    // CMIS VDM observable table: the value format of each type ID.
    using enum VDM_format;
    if (type == 1) return unsigned16;                   // laser age
    if (type >= 2 && type <= 4) return signed16;        // TEC current, frequency error, temp
    if (type >= 5 && type <= 8) return unsigned16;      // eSNR, PAM4 LTP (media, host)
    if (type >= 9 && type <= 26) return float16;        // pre-FEC BER, errored frames
    if (type >= 128 && type <= 133) return unsigned16;  // modulator biases
    switch (type) {
        case 134:  // CD high granularity
        case 135:  // CD low granularity
        case 141:  // CFO
        case 143:  // TX power
        case 144:  // RX total power
        case 145:  // RX signal power
        case 148:  // clock recovery loop
        case 150:  // SNR margin
        case 152:  // Q margin
            return signed16;
        case 136:  // DGD
        case 137:  // SOPMD high granularity
        case 138:  // PDL
        case 139:  // OSNR
        case 140:  // eSNR
        case 142:  // EVM
        case 146:  // SOP rate of change
        case 147:  // MER
        case 149:  // SOPMD low granularity
        case 151:  // Q-factor
            return unsigned16;
        default:
            return std::nullopt;
    }
}

std::vector<std::string> vdm_map::add_group(unsigned group,
                                            std::span<const std::uint8_t> descriptors) {
    std::vector<std::string> skipped;
    if (group >= max_groups) return {fmt::format("VDM group {} does not exist", group + 1)};
    groups_ = std::max(groups_, group + 1);
    const unsigned slots = std::min<std::size_t>(descriptors.size() / 2, slots_per_group);
    for (unsigned slot = 0; slot < slots; ++slot) {
        // Byte 2n: threshold-set ID (bits 7-4) and instance lane - 1 (bits 3-0); 2n+1: type.
        const std::uint8_t place = descriptors[2 * slot];
        const std::uint8_t type = descriptors[2 * slot + 1];
        if (type == 0) continue;  // slot not in use
        const unsigned index = group * slots_per_group + slot;
        if (!VDM_format_of(type)) {
            skipped.push_back(
                fmt::format("VDM descriptor {} of group {} skipped: type {} not implemented", slot,
                            group + 1, type));
            continue;
        }
        const VDM_position position{static_cast<std::uint8_t>(index & 0xFF),
                                    static_cast<std::uint8_t>(place >> 4 | place << 4), index};
        if (threshold_address(position) + 8 > descriptor_address(0x08 + group) + cage::page_size) {
            skipped.push_back(fmt::format(
                "VDM descriptor {} of group {} skipped: threshold set {} beyond its page", slot,
                group + 1, position.d1 & 0x0F));
            continue;
        }
        map_.try_emplace(static_cast<VDM_observable_types>(type), position);
    }
    return skipped;
}

void vdm_map::clear() {
    map_.clear();
    groups_ = 0;
    volatile_.clear();
    constant_.clear();
}

const VDM_position* vdm_map::find(VDM_observable_types type) const {
    const auto it = map_.find(type);
    return it == map_.end() ? nullptr : &it->second;
}

const vdm_map::block& vdm_map::fetch(std::map<cage::flat_address, block>& cache,
                                     cage::qsfp_reg_map& regs, cage::flat_address first,
                                     std::size_t length, clock::time_point now, bool expires) {
    auto it = cache.find(first);
    if (it != cache.end() && it->second.bytes.size() >= length &&
        (!expires || now - it->second.read_at < refresh_period))
        return it->second;
    block b{first, std::vector<std::uint8_t>(length), now};
    regs.read_bank_register(first, length, b.bytes.data());
    return cache.insert_or_assign(first, std::move(b)).first->second;
}

std::uint16_t vdm_map::read_raw(cage::qsfp_reg_map& regs, const VDM_position& p,
                                VDM_sample_type which, clock::time_point now) {
    const bool sample = which == VDM_sample_type::sample;
    const cage::flat_address address =
        sample ? sample_address(p.index) : threshold_address(p) + static_cast<unsigned>(which);
    // Whole pages: a group's samples (or thresholds) in one transaction.
    const cage::flat_address page_first = address / cage::page_size * cage::page_size;
    const auto& b =
        fetch(sample ? volatile_ : constant_, regs, page_first, cage::page_size, now, sample);
    const std::size_t at = address - page_first;
    if (at + 1 >= b.bytes.size()) throw std::out_of_range("VDM register beyond its page");
    return static_cast<std::uint16_t>(b.bytes[at] << 8 | b.bytes[at + 1]);
}

std::uint8_t vdm_map::read_flag_byte(cage::qsfp_reg_map& regs, unsigned p, clock::time_point now) {
    // The flags of every group in one read (they clear when read: one read per period).
    const std::size_t length = std::max(1u, groups_) * slots_per_group / 2;
    const auto& b = fetch(volatile_, regs, flags_address, length, now, true);
    const std::size_t at = flag_address(p) - flags_address;
    if (at >= b.bytes.size()) throw std::out_of_range("VDM flag beyond the flag page");
    return b.bytes[at];
}

}  // namespace qsfpd::cmis

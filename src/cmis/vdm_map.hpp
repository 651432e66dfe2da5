#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "clock.hpp"
#include "qsfp_device.hpp"

namespace qsfpd::cage {
class qsfp_reg_map;
}

namespace qsfpd::cmis {

// Observable type IDs of CMIS VDM (CMIS 5.x, table "VDM Observable Types"; 148-152 are the
// coherent additions of OIF C-CMIS). Only the IDs this daemon can decode are listed: a
// descriptor naming any other ID is skipped.
enum class VDM_observable_types : std::uint8_t {
    laser_age = 1,
    tec_current = 2,
    laser_frequency_error = 3,
    laser_temperature = 4,
    esnr_media_input = 5,
    esnr_host_input = 6,
    pam4_ltp_media_input = 7,
    pam4_ltp_host_input = 8,
    pre_fec_ber_min_media = 9,
    pre_fec_ber_min_host = 10,
    pre_fec_ber_max_media = 11,
    pre_fec_ber_max_host = 12,
    pre_fec_ber_avg_media = 13,
    pre_fec_ber_avg_host = 14,
    pre_fec_ber_cur_media = 15,
    pre_fec_ber_cur_host = 16,
    errored_frames_min_media = 17,
    errored_frames_min_host = 18,
    errored_frames_max_media = 19,
    errored_frames_max_host = 20,
    errored_frames_avg_media = 21,
    errored_frames_avg_host = 22,
    errored_frames_cur_media = 23,
    errored_frames_cur_host = 24,
    errored_frames_total_media = 25,
    errored_frames_total_host = 26,
    modulator_bias_xi = 128,
    modulator_bias_xq = 129,
    modulator_bias_yi = 130,
    modulator_bias_yq = 131,
    modulator_bias_x_phase = 132,
    modulator_bias_y_phase = 133,
    cd_high_granularity = 134,
    cd_low_granularity = 135,
    dgd = 136,
    sopmd_high_granularity = 137,
    pdl = 138,
    osnr = 139,
    esnr = 140,
    cfo = 141,
    evm_modem = 142,
    tx_power = 143,
    rx_total_power = 144,
    rx_signal_power = 145,
    sop_rate_of_change = 146,
    mer = 147,
    clock_recovery_loop = 148,
    sopmd_low_granularity = 149,
    snr_margin = 150,
    q_factor = 151,
    q_margin = 152,
};

// Which value of an observable to read: the sample itself, or one threshold of its threshold
// set (the byte offset within the set: high alarm, low alarm, high warning, low warning).
enum class VDM_sample_type : int {
    sample = -1,
    high_alarm = 0,
    low_alarm = 2,
    high_warning = 4,
    low_warning = 6,
};

// The three value formats of the VDM table: every sample and threshold is two bytes, big-endian.
enum class VDM_format { unsigned16, signed16, float16 };

double VDM_unsigned_read(std::uint16_t raw);
double VDM_int_read(std::uint16_t raw);
double VDM_float_read(std::uint16_t raw);  // CMIS F16
double VDM_read(VDM_format format, std::uint16_t raw);

// The format CMIS gives a type ID; nullopt for an ID we do not decode.
std::optional<VDM_format> VDM_format_of(std::uint8_t type);

// Where one observable lives. d0 keeps the descriptor's place (group in bits 7-6, slot in bits
// 5-0); d1 its threshold-set ID (bits 3-0) and instance lane (bits 7-4), as the module's
// descriptor byte gives them with the nibbles swapped; index is the sample index 0-255 over the
// four groups.
struct VDM_position {
    std::uint8_t d0 = 0;
    std::uint8_t d1 = 0;
    unsigned index = 0;
};

// The VDM observables a module lists, with their addresses, and a cache of the pages the
// getters read: one block per group's samples and one for the flags, refreshed once per period
// (or on refresh()), and the threshold pages read once. The caller serialises access (the
// handler mutex).
class vdm_map {
  public:
    static constexpr cage::flat_address advertisement_address = 0x10E;  // page 01h byte 142
    static constexpr std::uint8_t advertisement_bit = 0x40;
    static constexpr cage::flat_address groups_address = 0x1800;  // page 2Fh byte 128
    static constexpr cage::flat_address flags_address = 5760;     // page 2Ch byte 128
    static constexpr unsigned slots_per_group = 64;
    static constexpr unsigned max_groups = 4;
    static constexpr std::chrono::milliseconds refresh_period{1000};

    // Page 20h + group, bytes 128..255.
    static cage::flat_address descriptor_address(unsigned group) {
        return (0x20 + group + 1) * cage::page_size;
    }
    // Page 24h + group, byte 128 + 2 x slot.
    static cage::flat_address sample_address(unsigned index) {
        return ((index >> 6) + 0x25) * cage::page_size + (index & 0x3F) * 2;
    }
    // Page 28h + group, byte 128 + 8 x threshold-set ID.
    static cage::flat_address threshold_address(const VDM_position& p) {
        return ((p.d0 >> 6) + 0x29) * cage::page_size + (p.d1 & 0x0F) * 8;
    }
    // Page 2Ch from byte 128, a nibble per map position.
    static cage::flat_address flag_address(unsigned p) { return (p >> 1) + flags_address; }
    // Deliberately not the even/odd split of the flag page: positions 0 and 1 read the low
    // nibble of the first byte, every other position the high nibble of its byte.
    static std::uint8_t flag_nibble(unsigned p, std::uint8_t byte) {
        return p < 2 ? byte & 0x0F : byte >> 4;
    }
    static std::uint8_t mask_bits(unsigned p) { return p < 2 ? 0xF0 : 0x0F; }

    // Records the observables of one group's descriptor page (128 bytes); returns one log text
    // per descriptor skipped. Empty slots (type 0) are not listed; the first slot of a type wins.
    std::vector<std::string> add_group(unsigned group, std::span<const std::uint8_t> descriptors);
    void clear();

    const VDM_position* find(VDM_observable_types type) const;
    const std::map<VDM_observable_types, VDM_position>& observables() const { return map_; }
    unsigned groups() const { return groups_; }

    // The raw two bytes of a sample or threshold, and the flag byte of a position, through the
    // cache.
    std::uint16_t read_raw(cage::qsfp_reg_map& regs, const VDM_position& p, VDM_sample_type which,
                           clock::time_point now);
    std::uint8_t read_flag_byte(cage::qsfp_reg_map& regs, unsigned p, clock::time_point now);
    // Samples and flags are read again on the next access.
    void refresh() { volatile_.clear(); }

  private:
    struct block {
        cage::flat_address first = 0;
        std::vector<std::uint8_t> bytes;
        clock::time_point read_at{};
    };
    const block& fetch(std::map<cage::flat_address, block>& cache, cage::qsfp_reg_map& regs,
                       cage::flat_address first, std::size_t length, clock::time_point now,
                       bool expires);

    std::map<VDM_observable_types, VDM_position> map_;
    unsigned groups_ = 0;
    std::map<cage::flat_address, block> volatile_;  // sample pages and the flag block
    std::map<cage::flat_address, block> constant_;  // threshold pages
};

}  // namespace qsfpd::cmis

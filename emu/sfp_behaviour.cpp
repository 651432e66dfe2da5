// SFP behaviour behind a QSFP-to-SFP converter beyond the SFF-8472 basics of module_emulator.cpp:
// the wavelength tuning of a tunable SFP+ (SFF-8690, A2h page 02h) and the attenuator of our VOA
// SFP+ (docs/sfp-voa.md, A2h page 00h 248..254).

#include "module_emulator.hpp"

namespace qsfpd::emu {

namespace {

constexpr std::uint8_t a0 = 0x50;
constexpr std::uint8_t a2 = 0x51;
constexpr page_id lower{};
constexpr page_id tunable_page{0, 0x02};
constexpr page_id voa_page{0, 0x00};

// SFF-8472 A0h byte 65 bit 6: tunable transmitter.
constexpr std::uint8_t a0_options_2 = 65;
constexpr std::uint8_t a0_tunable = 0x40;

// SFF-8690 page 02h.
constexpr std::uint8_t first_thz = 132, first_ghz10 = 134, last_thz = 136, last_ghz10 = 138,
                       grid_ghz10 = 140, channel_set = 144, current_status = 168,
                       latched_status = 172;
constexpr std::uint8_t status_unlocked = 0x20, status_tuning = 0x10;
constexpr std::uint8_t latched_bad_channel = 0x10, latched_new_channel = 0x08;

// VOA registers (0.01 dB).
constexpr std::uint8_t voa_set = 248, voa_actual = 250, voa_status = 254;
constexpr std::uint8_t voa_settling = 0x01;

}  // namespace

bool module_emulator::sfp_tunable() const {
    if (profile_.family != module_family::sff8472_converter || !memories_.contains(a2))
        return false;
    return (memories_.at(a0).peek(lower, a0_options_2) & a0_tunable) &&
           memories_.at(a2).has_page(tunable_page);
}

void module_emulator::configure_sfp_memory() {
    if (sfp_tunable())
        memories_.at(a2).set_clear_on_read(tunable_page, latched_status, latched_status);
}

void module_emulator::install_sfp_behaviour() {
    if (sfp_tunable() && profile_.sfp_tuning.count() > 0) {
        // The module starts tuning when the host writes the channel's low byte.
        on_write(
            tunable_page, channel_set + 1, channel_set + 1,
            [this](page_id, std::uint8_t, std::uint8_t) {
                auto& mem = memories_.at(a2);
                const unsigned channel = mem.peek16(tunable_page, channel_set);
                const double first = mem.peek16(tunable_page, first_thz) * 1000.0 +
                                     mem.peek16(tunable_page, first_ghz10) / 10.0;
                const double last = mem.peek16(tunable_page, last_thz) * 1000.0 +
                                    mem.peek16(tunable_page, last_ghz10) / 10.0;
                const double grid = mem.peek16(tunable_page, grid_ghz10) / 10.0;
                const double frequency = first + (static_cast<double>(channel) - 1.0) * grid;
                if (channel == 0 || grid <= 0.0 || frequency > last + grid / 2) {
                    mem.latch(tunable_page, latched_status, latched_bad_channel);
                    return;
                }
                // The laser goes dark and off-grid while it moves.
                mem.latch(tunable_page, current_status, status_tuning | status_unlocked);
                sfp_tune_until_ = clock_->now() + profile_.sfp_tuning;
                sfp_tuning_ = true;
            },
            a2);
    }
    if (profile_.sfp_voa_settle.count() > 0 && memories_.contains(a2)) {
        on_write(
            voa_page, voa_set + 1, voa_set + 1,
            [this](page_id, std::uint8_t, std::uint8_t) {
                memories_.at(a2).latch(voa_page, voa_status, voa_settling);
                sfp_voa_until_ = clock_->now() + profile_.sfp_voa_settle;
                sfp_voa_moving_ = true;
            },
            a2);
    }
}

void module_emulator::advance_sfp_behaviour(clock::time_point now) {
    auto& mem = memories_.at(a2);
    if (sfp_tuning_ && now >= sfp_tune_until_) {
        sfp_tuning_ = false;
        mem.clear_bits(tunable_page, current_status, status_tuning | status_unlocked);
        mem.latch(tunable_page, latched_status, latched_new_channel);
    }
    if (sfp_voa_moving_ && now >= sfp_voa_until_) {
        sfp_voa_moving_ = false;
        mem.poke16(voa_page, voa_actual, mem.peek16(voa_page, voa_set));
        mem.clear_bits(voa_page, voa_status, voa_settling);
    }
}

}  // namespace qsfpd::emu

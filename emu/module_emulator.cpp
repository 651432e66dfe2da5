#include "module_emulator.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>

#include "coherent_module.hpp"
#include "msg_log.hpp"

namespace qsfpd::emu {

namespace {

constexpr page_id lower{};
constexpr std::uint8_t a0 = 0x50;
constexpr std::uint8_t a2 = 0x51;

// CMIS lower page: byte 3 bits 3..1 module state (CMIS 5.2 Table 8-6, encoding Table 8-7),
// bit 0 interrupt deasserted; byte 8 bit 0 latched module state changed; byte 26 module global
// controls (CMIS 5.2 Table 8-11, same bits in CMIS 4.0): bit 6 LowPwrAllowRequestHW, bit 4
// LowPwrRequestSW, bit 3 SoftwareReset (self-clearing trigger).
constexpr std::uint8_t cmis_state_byte = 3;
constexpr std::uint8_t cmis_module_flags = 8;
constexpr std::uint8_t cmis_global_controls = 26;
constexpr std::uint8_t low_pwr_allow_request_hw = 0x40;
constexpr std::uint8_t low_pwr_request_sw = 0x10;
constexpr std::uint8_t software_reset = 0x08;

// CMIS page 10h (lane control, bank 0 for host lanes 1..8): 128 DataPathDeinit (DataPathPwrUp,
// the inverse, before revision 4.0), 130 OutputDisableTx, staged control set 0: 143 ApplyDPInit
// and 144 ApplyImmediate (lane masks, write-only), 145..152 DPConfig per lane (AppSel bits 7..4,
// DataPathID bits 3..1, ExplicitControl bit 0), RX output EQ targets 162 pre-cursor, 166
// post-cursor, 170 amplitude (a nibble per lane, lane 1 in the low nibble).
// Page 11h (lane status): 128..131 data path state and 202..205 ConfigStatus (a nibble per lane),
// flags 134..152 latched, monitors TX power 154, bias 170, RX power 186, active control set
// 206..213 (DPConfig) and 223/227/231 (RX output EQ).
// Page 01h byte 144: DPDeinit (bits 7..4) and DPInit (bits 3..0) maximum duration codes.
constexpr page_id lane_control{0, 0x10};
constexpr page_id lane_status{0, 0x11};
constexpr page_id advertising{0, 0x01};
constexpr std::uint8_t dp_deinit = 128;
constexpr std::uint8_t output_disable_tx = 130;
constexpr std::uint8_t apply_dp_init_at = 143;
constexpr std::uint8_t apply_immediate_at = 144;
constexpr std::uint8_t staged_config = 145;
constexpr std::uint8_t staged_si = 162;
constexpr std::uint8_t dp_state_at = 128;
constexpr std::uint8_t config_status_at = 202;
constexpr std::uint8_t active_config = 206;
constexpr std::uint8_t active_si = 223;
constexpr std::uint8_t dp_durations = 144;
constexpr unsigned host_lanes = 8;

// Upper bounds of the duration codes 0..12 in ms (< 1 ms, < 5 ms, ... < 50 min); a module takes
// just under its bound.
constexpr std::array<std::int64_t, 13> duration_bound_ms{
    1, 5, 10, 50, 100, 500, 1000, 5000, 10000, 60000, 300000, 600000, 3000000};

// SFF-8636 lower page: byte 2 bit 0 Data_Not_Ready, bytes 3..21 latched flags (byte 6 bit 0
// initialization complete), byte 86 TX disable, byte 93 power control: bit 0 Power_override,
// bit 1 Power_set (low power), bit 2 high power class 5..7 enable, bit 3 class 8 enable.
// Page 00h byte 129: bits 7..6 power class 1..4, bits 1..0 class 5..7, bit 5 class 8.
constexpr std::uint8_t sff_status = 2;
constexpr std::uint8_t sff_tx_disable = 86;
constexpr std::uint8_t sff_power_control = 93;

// PAM4 DSP page 20h: 172..191 pre-FEC and uncorrected BER statistics, byte 192 bit 0 clears
// them (a trigger that reads back 0).
constexpr page_id dsp_monitors{0, 0x20};
constexpr std::uint8_t dsp_ber_first = 172;
constexpr std::uint8_t dsp_ber_last = 191;
constexpr std::uint8_t dsp_ber_clear = 192;

// SFF-8472 A2h byte 110 status/control: bit 7 TX_DISABLE state, bit 6 soft TX disable,
// bit 4 rate select state, bit 2 TX_FAULT state, bit 1 RX_LOS state, bit 0 Data_Ready_Bar.
constexpr std::uint8_t sfp_status_control = 110;

struct monitor_map {
    std::uint8_t temperature, vcc, tx_power, bias, rx_power;
};
// SFF-8636 lower page 22 temp, 26 Vcc, 34 RX power, 42 bias, 50 TX power (per lane, 2 bytes).
constexpr monitor_map sff8636_monitors{22, 26, 50, 42, 34};
// CMIS lower 14 temp, 16 Vcc; page 11h lanes as above.
constexpr monitor_map cmis_monitors{14, 16, 154, 170, 186};
// SFF-8472 A2h 96 temp, 98 Vcc, 100 bias, 102 TX power, 104 RX power (internally calibrated).
constexpr monitor_map sff8472_monitors{96, 98, 102, 100, 104};

std::uint64_t splitmix64(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

std::uint16_t to_u16(double raw) {
    return static_cast<std::uint16_t>(std::clamp(std::lround(raw), 0L, 65535L));
}

std::uint16_t to_s16(double raw) {
    return static_cast<std::uint16_t>(
        static_cast<std::int16_t>(std::clamp(std::lround(raw), -32768L, 32767L)));
}

bool covers(std::uint8_t offset, std::size_t length, std::uint8_t address) {
    // Whether a sequential access of `length` bytes from `offset` (wrapping at 256) touches
    // `address`.
    const std::size_t distance = static_cast<std::uint8_t>(address - offset);
    return length > 256 || distance < length;
}

}  // namespace

module_emulator::module_emulator(module_profile profile, std::shared_ptr<clock> clk)
    : profile_(std::move(profile)), clock_(std::move(clk)) {
    restart(clock_->now());
    install_dsp_behaviour();
    if (coherent_module::applies_to(profile_))
        coherent_ = std::make_unique<coherent_module>(*this, mutex_, clock_,
                                                      profile_.coherent.value_or(coherent_model{}));
    vdm_ = vdm_pages::install(*this);
    install_sfp_behaviour();
}

module_emulator::~module_emulator() = default;

void module_emulator::install_dsp_behaviour() {
    if (profile_.family != module_family::sff8636 || !profile_.image().pages.contains(dsp_monitors))
        return;
    // Static statistics: after a clear they stay 0 until reset brings back the profile image.
    on_write(dsp_monitors, dsp_ber_clear, dsp_ber_clear,
             [this](page_id, std::uint8_t, std::uint8_t value) {
                 if (!(value & 0x01)) return;
                 auto& mem = memories_.at(a0);
                 for (unsigned at = dsp_ber_first; at <= dsp_ber_last; ++at)
                     mem.poke(dsp_monitors, static_cast<std::uint8_t>(at), 0);
                 mem.clear_bits(dsp_monitors, dsp_ber_clear, 0x01);
             });
}

module_memory& module_emulator::memory(std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    auto it = memories_.find(device_address);
    if (it == memories_.end()) throw std::system_error(ENXIO, std::generic_category());
    return it->second;
}

void module_emulator::build_memories() {
    memories_.clear();
    for (const auto& [device, image] : profile_.memories) {
        paging mode = paging::paged;
        if (profile_.family == module_family::cmis) mode = paging::banked;
        if (profile_.family == module_family::sff8472_converter && device == a0)
            mode = paging::flat;
        auto [it, inserted] = memories_.try_emplace(device, mode, profile_.page_policy);
        auto& mem = it->second;
        mem.set_lower(image.lower);
        for (const auto& [page, data] : image.pages)
            mem.add_page(page, data);
        for (const auto& w : image.writable)
            mem.set_writable(w.page, w.first, w.last, w.mask);
    }
    auto& mem = memories_.at(a0);
    switch (profile_.family) {
        case module_family::sff8636:
            mem.set_clear_on_read(lower, 3, 21);
            break;
        case module_family::cmis:
            mem.set_clear_on_read(lower, 8, 13);
            for (const auto& page : mem.pages())
                if (page.page == 0x11) mem.set_clear_on_read(page, 134, 152);
            mem.on_write(lower, cmis_global_controls, cmis_global_controls,
                         [this](page_id, std::uint8_t, std::uint8_t value) {
                             if (value & software_reset) pending_reset_ = true;
                         });
            // The trigger bit reads back as 0.
            mem.set_writable(lower, cmis_global_controls, cmis_global_controls,
                             static_cast<std::uint8_t>(~software_reset));
            if (mem.has_page(lane_control) && mem.has_page(lane_status)) {
                // The apply triggers are write-only: the host reads 0.
                mem.set_writable(lane_control, apply_dp_init_at, apply_immediate_at, 0);
                mem.on_write(lane_control, apply_dp_init_at, apply_immediate_at,
                             [this](page_id, std::uint8_t offset, std::uint8_t value) {
                                 if (offset == apply_dp_init_at)
                                     apply_dp_init(value, clock_->now());
                                 else
                                     apply_immediate(value);
                             });
            }
            break;
        case module_family::sff8472_converter:
            configure_sfp_memory();
            break;
    }
}

void module_emulator::install(const hook_entry& h) {
    auto& mem = memory(h.device);
    if (h.on_write) mem.on_write(h.page, h.first, h.last, h.on_write);
    if (h.on_read) mem.on_read(h.page, h.first, h.last, h.on_read);
}

void module_emulator::on_write(page_id page, std::uint8_t first, std::uint8_t last,
                               module_memory::write_hook hook, std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    hooks_.push_back({device_address, page, first, last, std::move(hook), {}});
    install(hooks_.back());
}

void module_emulator::on_read(page_id page, std::uint8_t first, std::uint8_t last,
                              module_memory::read_hook hook, std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    hooks_.push_back({device_address, page, first, last, {}, std::move(hook)});
    install(hooks_.back());
}

void module_emulator::restart(clock::time_point now) {
    build_memories();
    for (const auto& h : hooks_)
        install(h);
    epoch_ = now;
    pending_reset_ = false;
    cmis_initialised_ = false;
    state_ = cmis_state::low_pwr;
    state_since_ = now;
    last_request_ = false;
    request_since_ = now;
    data_ready_ = false;
    dp_ = {};
    cmis_flat_ = profile_.family == module_family::cmis && (profile_.image().lower[2] & 0x80);
    live_ = {};
    for (auto& f : flaps_) {
        f.start = now;
        f.applied = 0;
    }
    auto& mem = memories_.at(a0);
    if (coherent_) coherent_->restart(now);
    if (profile_.family == module_family::sff8636) mem.latch(lower, sff_status, 0x01);
    if (profile_.family == module_family::sff8472_converter && memories_.contains(a2))
        memories_.at(a2).latch(lower, sfp_status_control, 0x01);
}

bool module_emulator::reset_held() const {
    std::lock_guard lock(mutex_);
    return reset_held_;
}

bool module_emulator::answers(std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    if (reset_held_) return false;
    if (clock_->now() < epoch_ + profile_.i2c_not_ready) return false;
    return memories_.contains(device_address);
}

void module_emulator::read(std::uint8_t device_address, std::uint8_t offset,
                           std::span<std::uint8_t> out) {
    std::lock_guard lock(mutex_);
    service();
    auto& mem = memory(device_address);
    for (auto& f : flaps_) {
        if (f.step != flap_step::per_poll) continue;
        const auto s = site(f.flag, f.lane);
        if (!s || s->device != device_address || !covers(offset, out.size(), s->offset)) continue;
        if (s->offset >= 128 && mem.selected() != s->page) continue;
        apply_flap_step(f);
    }
    mem.read(offset, out);
    update_interrupt();
}

void module_emulator::write(std::uint8_t device_address, std::uint8_t offset,
                            std::span<const std::uint8_t> data) {
    std::lock_guard lock(mutex_);
    service();
    memory(device_address).write(offset, data);
    if (pending_reset_) {
        MSG_LOG(msg_log::debug, "emu") << profile_.name << ": software reset";
        restart(clock_->now());
    }
    service();
}

void module_emulator::set_lpmode(bool asserted) {
    std::lock_guard lock(mutex_);
    service();
    lpmode_ = asserted;
    service();
}

void module_emulator::set_reset(bool asserted) {
    std::lock_guard lock(mutex_);
    if (asserted == reset_held_) return;
    service();
    reset_held_ = asserted;
    if (!asserted) restart(clock_->now());
}

void module_emulator::force_fault() {
    std::lock_guard lock(mutex_);
    service();
    if (profile_.family == module_family::cmis) enter(cmis_state::fault, clock_->now());
}

std::optional<cmis_state> module_emulator::cmis_module_state() {
    std::lock_guard lock(mutex_);
    service();
    if (profile_.family != module_family::cmis) return std::nullopt;
    return state_;
}

bool module_emulator::low_power_requested() {
    if (ignore_low_power_) return false;
    const std::uint8_t controls = memories_.at(a0).peek(lower, cmis_global_controls);
    return ((controls & low_pwr_allow_request_hw) && lpmode_) || (controls & low_pwr_request_sw);
}

void module_emulator::enter(cmis_state s, clock::time_point at) {
    auto& mem = memories_.at(a0);
    if (s != state_ || !cmis_initialised_) mem.latch(lower, cmis_module_flags, 0x01);
    state_ = s;
    state_since_ = at;
    const std::uint8_t b3 = mem.peek(lower, cmis_state_byte);
    mem.poke(lower, cmis_state_byte,
             static_cast<std::uint8_t>((b3 & ~0x0e) | (static_cast<std::uint8_t>(s) << 1)));
    if (!has_data_paths()) return;
    // Data paths run only in ModuleReady; leaving it stops them at once, and an accepted
    // configuration still reaches the active set.
    for (unsigned lane = 0; lane < host_lanes; ++lane) {
        auto& l = dp_[lane];
        if (s == cmis_state::ready) {
            if (dp_should_run(lane) && l.state == dp_state::deactivated && !l.checking) {
                l.state = dp_state::init;
                l.until = at + dp_duration(true);
            }
        } else {
            if (l.pending) commit(lane);
            l.state = dp_state::deactivated;
        }
    }
    show_lanes();
}

void module_emulator::advance_cmis(clock::time_point now) {
    const auto ready_at = epoch_ + profile_.i2c_not_ready;
    if (cmis_flat_) {
        // A flat-memory module (passive copper) has no module state machine: byte 3 stays as
        // the module's image shows it.
        if (now >= ready_at) {
            cmis_initialised_ = true;
            state_ = cmis_state::ready;
        }
        return;
    }
    if (!cmis_initialised_) {
        if (now < ready_at) return;
        // MgmtInit ends when the module starts answering; it then sits in ModuleLowPwr.
        enter(cmis_state::low_pwr, ready_at);
        cmis_initialised_ = true;
        last_request_ = low_power_requested();
        request_since_ = ready_at;
    }
    // Timed transitions with the request as last observed, then the request as it is now.
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) {
            const bool request = low_power_requested();
            if (request == last_request_) break;
            last_request_ = request;
            request_since_ = now;
        }
        for (;;) {
            const auto since = std::max(state_since_, request_since_);
            if (state_ == cmis_state::low_pwr && !last_request_) {
                enter(cmis_state::pwr_up, since);
            } else if (state_ == cmis_state::pwr_up && last_request_) {
                enter(cmis_state::pwr_dn, since);
            } else if (state_ == cmis_state::pwr_up && now >= state_since_ + profile_.power_up) {
                enter(cmis_state::ready, state_since_ + profile_.power_up);
            } else if (state_ == cmis_state::ready && last_request_) {
                // ModuleReady is left once every data path has deinitialised.
                const auto quiet = deinit_lanes(since);
                if (now < quiet) break;
                enter(cmis_state::pwr_dn, quiet);
            } else if (state_ == cmis_state::pwr_dn && now >= state_since_ + profile_.power_down) {
                enter(cmis_state::low_pwr, state_since_ + profile_.power_down);
            } else {
                break;
            }
        }
    }
}

void module_emulator::advance_sff8636(clock::time_point now) {
    if (data_ready_ || now < epoch_ + profile_.i2c_not_ready + profile_.power_up) return;
    auto& mem = memories_.at(a0);
    data_ready_ = true;
    mem.clear_bits(lower, sff_status, 0x01);
    mem.latch(lower, 6, 0x01);  // initialization complete (latched)
}

void module_emulator::advance_sfp(clock::time_point now) {
    if (!memories_.contains(a2)) return;
    auto& mem = memories_.at(a2);
    if (!data_ready_ && now >= epoch_ + profile_.i2c_not_ready + profile_.power_up) {
        data_ready_ = true;
        mem.clear_bits(lower, sfp_status_control, 0x01);
    }
    // Live pin states mirrored into the status byte.
    std::uint8_t v = mem.peek(lower, sfp_status_control);
    auto put = [&v](std::uint8_t bit, bool on) {
        v = on ? static_cast<std::uint8_t>(v | bit) : static_cast<std::uint8_t>(v & ~bit);
    };
    put(0x80, sfp_tx_disable_);
    put(0x10, sfp_rate_select_);
    put(0x04, live_[static_cast<std::size_t>(lane_flag::tx_fault)][0]);
    put(0x02, live_[static_cast<std::size_t>(lane_flag::rx_los)][0]);
    mem.poke(lower, sfp_status_control, v);
    advance_sfp_behaviour(now);
}

bool module_emulator::in_low_power() {
    std::lock_guard lock(mutex_);
    service();
    return low_power_now();
}

bool module_emulator::transmitter_on(unsigned lane) {
    std::lock_guard lock(mutex_);
    service();
    return tx_on_now(lane);
}

bool module_emulator::low_power_now() {
    auto& mem = memories_.at(a0);
    switch (profile_.family) {
        case module_family::cmis:
            return state_ != cmis_state::ready;
        case module_family::sff8636: {
            const std::uint8_t control = mem.peek(lower, sff_power_control);
            const bool low = (control & 0x01) ? (control & 0x02) != 0 : lpmode_;
            if (low) return true;
            const std::uint8_t ext_id = mem.peek(page_id{}, 129);
            if (ext_id & 0x20) return !(control & 0x08);  // class 8
            if (ext_id & 0x03) return !(control & 0x04);  // classes 5..7
            return false;
        }
        case module_family::sff8472_converter:
            return false;
    }
    return false;
}

bool module_emulator::tx_on_now(unsigned lane) {
    if (low_power_now() || lane >= profile_.lanes) return false;
    auto& mem = memories_.at(a0);
    switch (profile_.family) {
        case module_family::sff8636:
            return !(mem.peek(lower, sff_tx_disable) & (1u << lane));
        case module_family::cmis: {
            const page_id control{static_cast<std::uint8_t>(lane / 8), 0x10};
            if (!mem.has_page(control)) return true;
            if (mem.peek(control, output_disable_tx) & (1u << (lane % 8))) return false;
            if (!has_data_paths()) return true;
            // Media lane to the first host lane of its share of the 8 host lanes (FR4: media
            // lane 2 is fed by host lanes 3 and 4).
            const unsigned host =
                profile_.lanes <= host_lanes ? lane * host_lanes / profile_.lanes : lane % 8;
            return dp_[host].state == dp_state::activated;
        }
        case module_family::sff8472_converter: {
            if (sfp_tx_disable_ || sfp_tuning_) return false;
            return !memories_.contains(a2) ||
                   !(memories_.at(a2).peek(lower, sfp_status_control) & 0x40);
        }
    }
    return false;
}

std::optional<flag_site> module_emulator::site(lane_flag flag, unsigned lane) const {
    std::lock_guard lock(mutex_);
    switch (profile_.family) {
        case module_family::sff8636: {
            // SFF-8636 lower page latched flags: 3 LOS (RX 0..3, TX 4..7), 4 TX fault (0..3),
            // 5 CDR LOL (RX 0..3, TX 4..7).
            if (lane >= 4) return std::nullopt;
            const auto l = static_cast<std::uint8_t>(lane);
            switch (flag) {
                case lane_flag::rx_los:
                    return flag_site{a0, {}, 3, l, true};
                case lane_flag::tx_los:
                    return flag_site{a0, {}, 3, static_cast<std::uint8_t>(4 + l), true};
                case lane_flag::tx_fault:
                    return flag_site{a0, {}, 4, l, true};
                case lane_flag::rx_lol:
                    return flag_site{a0, {}, 5, l, true};
                case lane_flag::tx_lol:
                    return flag_site{a0, {}, 5, static_cast<std::uint8_t>(4 + l), true};
            }
            return std::nullopt;
        }
        case module_family::cmis: {
            // CMIS page 11h latched lane flags: 135 TX fault, 136 TX LOS, 137 TX CDR LOL,
            // 147 RX LOS, 148 RX CDR LOL; one bit per lane of the bank.
            const page_id page{static_cast<std::uint8_t>(lane / 8), 0x11};
            if (!memories_.at(a0).has_page(page)) return std::nullopt;
            const auto bit = static_cast<std::uint8_t>(lane % 8);
            static constexpr std::array<std::uint8_t, lane_flag_count> at{135, 136, 137, 147, 148};
            return flag_site{a0, page, at[static_cast<std::size_t>(flag)], bit, true};
        }
        case module_family::sff8472_converter:
            if (lane != 0 || !memories_.contains(a2)) return std::nullopt;
            if (flag == lane_flag::tx_fault) return flag_site{a2, {}, sfp_status_control, 2, false};
            if (flag == lane_flag::rx_los) return flag_site{a2, {}, sfp_status_control, 1, false};
            return std::nullopt;
    }
    return std::nullopt;
}

void module_emulator::set_flag(lane_flag flag, unsigned lane, bool on) {
    if (lane >= 16) return;
    live_[static_cast<std::size_t>(flag)][lane] = on;
    const auto s = site(flag, lane);
    if (!s) return;
    auto& mem = memories_.at(s->device);
    const auto bit = static_cast<std::uint8_t>(1u << s->bit);
    if (s->latched) {
        if (on) mem.latch(s->page, s->offset, bit);
    } else if (on) {
        mem.latch(s->page, s->offset, bit);
    } else {
        mem.clear_bits(s->page, s->offset, bit);
    }
}

void module_emulator::flap(lane_flag flag, unsigned lane, std::string pattern, flap_step step,
                           clock::duration period, bool repeat) {
    std::lock_guard lock(mutex_);
    if (pattern.empty() || pattern.find_first_not_of("01") != std::string::npos)
        throw std::invalid_argument("flap pattern must be a non-empty string of 0 and 1");
    if (step == flap_step::per_period && period <= clock::duration::zero())
        throw std::invalid_argument("a per-period flap needs a period");
    if (!site(flag, lane)) throw std::invalid_argument("this module has no such flag on that lane");
    service();
    flaps_.push_back({flag, lane, std::move(pattern), step, period, repeat, clock_->now(), 0});
    if (step == flap_step::per_period) service();  // step 0 applies at once
}

std::optional<clock::time_point> module_emulator::data_path_up_since(unsigned host_lane) const {
    std::lock_guard lock(mutex_);
    if (host_lane >= dp_.size() || dp_[host_lane].state != dp_state::activated) return std::nullopt;
    return dp_[host_lane].until;  // the end of DPInit
}

void module_emulator::ignore_low_power_requests(bool on) {
    std::lock_guard lock(mutex_);
    service();
    ignore_low_power_ = on;
    service();
}

void module_emulator::hold_data_path_init(bool on) {
    std::lock_guard lock(mutex_);
    service();
    hold_dp_init_ = on;
    // Lanes held past their init time go on from now.
    for (auto& l : dp_)
        if (!on && l.state == dp_state::init) l.until = std::min(l.until, clock_->now());
    service();
}

void module_emulator::stop_flaps() {
    std::lock_guard lock(mutex_);
    flaps_.clear();
}

bool module_emulator::flag_live(lane_flag flag, unsigned lane) {
    std::lock_guard lock(mutex_);
    service();
    return lane < 16 && live_[static_cast<std::size_t>(flag)][lane];
}

void module_emulator::apply_flap_step(flap_entry& f) {
    const std::size_t n = f.pattern.size();
    const std::size_t index = f.repeat ? f.applied % n : std::min(f.applied, n - 1);
    set_flag(f.flag, f.lane, f.pattern[index] == '1');
    ++f.applied;
}

void module_emulator::stick(page_id page, std::uint8_t offset, std::vector<std::uint8_t> bytes,
                            std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    memory(device_address);  // throws for an absent address
    stuck_.push_back({device_address, page, offset, std::move(bytes)});
    apply_stuck();
}

std::uint8_t module_emulator::peek(page_id page, std::uint8_t offset, std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    service();
    return memory(device_address).peek(page, offset);
}

void module_emulator::poke(page_id page, std::uint8_t offset, std::uint8_t value,
                           std::uint8_t device_address) {
    std::lock_guard lock(mutex_);
    memory(device_address).poke(page, offset, value);
}

void module_emulator::unstick_all() {
    std::lock_guard lock(mutex_);
    stuck_.clear();
}

void module_emulator::apply_stuck() {
    for (const auto& s : stuck_) {
        auto& mem = memories_.at(s.device);
        for (std::size_t i = 0; i < s.bytes.size(); ++i)
            mem.poke(s.page, static_cast<std::uint8_t>(s.offset + i), s.bytes[i]);
    }
}

bool module_emulator::sfp_signal(cage::sfp_signal signal) {
    std::lock_guard lock(mutex_);
    if (profile_.family != module_family::sff8472_converter)
        throw std::system_error(ENOTSUP, std::generic_category(), "not a converter");
    service();
    switch (signal) {
        case cage::sfp_signal::tx_fault:
            return live_[static_cast<std::size_t>(lane_flag::tx_fault)][0];
        case cage::sfp_signal::los:
            return live_[static_cast<std::size_t>(lane_flag::rx_los)][0];
        case cage::sfp_signal::tx_disable:
            return sfp_tx_disable_;
        case cage::sfp_signal::rate_select:
            return sfp_rate_select_;
    }
    return false;
}

void module_emulator::set_sfp_signal(cage::sfp_signal signal, bool value) {
    std::lock_guard lock(mutex_);
    if (profile_.family != module_family::sff8472_converter)
        throw std::system_error(ENOTSUP, std::generic_category(), "not a converter");
    service();
    switch (signal) {
        case cage::sfp_signal::tx_disable:
            sfp_tx_disable_ = value;
            break;
        case cage::sfp_signal::rate_select:
            sfp_rate_select_ = value;
            break;
        default:
            // TX_FAULT and LOS are outputs of the SFP; the host cannot drive them.
            throw std::system_error(EINVAL, std::generic_category(), "SFP output signal");
    }
    service();
}

std::uint64_t module_emulator::monitor_tick() const {
    const auto elapsed = clock_->now() - epoch_;
    if (elapsed < clock::duration::zero()) return 0;
    return static_cast<std::uint64_t>(elapsed / profile_.monitor_period);
}

double module_emulator::monitor_value(sensor s, unsigned lane, std::uint64_t tick) const {
    const monitor_model* model = nullptr;
    switch (s) {
        case sensor::temperature:
            model = &profile_.temperature_c;
            break;
        case sensor::vcc:
            model = &profile_.vcc_v;
            break;
        case sensor::bias:
            model = &profile_.bias_ma;
            break;
        case sensor::tx_power:
            model = &profile_.tx_power_mw;
            break;
        case sensor::rx_power:
            model = &profile_.rx_power_mw;
            break;
    }
    const std::uint64_t h =
        splitmix64(profile_.noise_seed ^ splitmix64(static_cast<std::uint64_t>(s) << 56 ^
                                                    static_cast<std::uint64_t>(lane) << 48 ^ tick));
    const double u = static_cast<double>(h >> 11) / static_cast<double>(1ULL << 53);  // [0,1)
    return model->nominal + model->noise * (2.0 * u - 1.0);
}

unsigned module_emulator::cmis_bias_multiplier() {
    // CMIS page 01h byte 160 bits 4..3: TX bias current multiplier 1, 2 or 4.
    auto& mem = memories_.at(a0);
    const page_id adv{0, 0x01};
    if (!mem.has_page(adv)) return 1;
    return 1u << ((mem.peek(adv, 160) >> 3) & 0x03);
}

void module_emulator::refresh_monitors(clock::time_point now) {
    if (now < epoch_ + profile_.i2c_not_ready) return;
    const std::uint64_t tick = monitor_tick();
    const bool sfp = profile_.family == module_family::sff8472_converter;
    if (sfp && !memories_.contains(a2)) return;
    auto& mem = memories_.at(sfp ? a2 : a0);
    const monitor_map& map = profile_.family == module_family::sff8636 ? sff8636_monitors
                             : profile_.family == module_family::cmis  ? cmis_monitors
                                                                       : sff8472_monitors;
    if (profile_.temperature_c.nominal != 0.0 || profile_.temperature_c.noise != 0.0)
        mem.poke16(lower, map.temperature,
                   to_s16(monitor_value(sensor::temperature, 0, tick) * 256.0));
    if (profile_.vcc_v.nominal != 0.0)
        mem.poke16(lower, map.vcc, to_u16(monitor_value(sensor::vcc, 0, tick) * 10000.0));
    if (profile_.bias_ma.nominal == 0.0 && profile_.tx_power_mw.nominal == 0.0 &&
        profile_.rx_power_mw.nominal == 0.0)
        return;  // passive copper: no lane monitors
    // Bias LSB 2 uA (times the CMIS multiplier), power LSB 0.1 uW.
    const double bias_per_ma =
        500.0 / (profile_.family == module_family::cmis ? cmis_bias_multiplier() : 1);
    for (unsigned lane = 0; lane < profile_.lanes; ++lane) {
        page_id page{};
        std::uint8_t slot = static_cast<std::uint8_t>(2 * lane);
        if (profile_.family == module_family::cmis) {
            page = {static_cast<std::uint8_t>(lane / 8), 0x11};
            if (!mem.has_page(page)) continue;
            slot = static_cast<std::uint8_t>(2 * (lane % 8));
        }
        const bool tx = tx_on_now(lane);
        const bool los = live_[static_cast<std::size_t>(lane_flag::rx_los)][lane];
        const double bias = tx ? monitor_value(sensor::bias, lane, tick) : 0.0;
        const double txp = tx ? monitor_value(sensor::tx_power, lane, tick) : 0.0;
        const double rxp = los ? 0.0 : monitor_value(sensor::rx_power, lane, tick);
        mem.poke16(page, static_cast<std::uint8_t>(map.bias + slot), to_u16(bias * bias_per_ma));
        mem.poke16(page, static_cast<std::uint8_t>(map.tx_power + slot), to_u16(txp * 10000.0));
        mem.poke16(page, static_cast<std::uint8_t>(map.rx_power + slot), to_u16(rxp * 10000.0));
    }
}

void module_emulator::service() {
    std::lock_guard lock(mutex_);
    if (reset_held_) return;
    const auto now = clock_->now();
    switch (profile_.family) {
        case module_family::cmis:
            advance_cmis(now);
            if (has_data_paths() && cmis_initialised_) {
                advance_lanes(now);
                show_lanes();
            }
            break;
        case module_family::sff8636:
            advance_sff8636(now);
            break;
        case module_family::sff8472_converter:
            break;
    }
    // A latched flag whose condition persists sets again right after the host cleared it.
    for (std::size_t f = 0; f < lane_flag_count; ++f)
        for (unsigned lane = 0; lane < 16; ++lane)
            if (live_[f][lane]) {
                const auto s = site(static_cast<lane_flag>(f), lane);
                if (s && s->latched)
                    memories_.at(s->device).latch(s->page, s->offset,
                                                  static_cast<std::uint8_t>(1u << s->bit));
            }
    for (auto& f : flaps_) {
        if (f.step != flap_step::per_period || now < f.start) continue;
        const auto due = static_cast<std::size_t>((now - f.start) / f.period) + 1;
        // Steps missed between two services still latch their '1's, as a module latches a
        // transient even when nobody looked.
        if (due > f.applied + 2 * f.pattern.size()) f.applied = due - 2 * f.pattern.size();
        while (f.applied < due)
            apply_flap_step(f);
    }
    if (profile_.family == module_family::sff8472_converter) advance_sfp(now);
    refresh_monitors(now);
    refresh_lane_status();
    if (coherent_) coherent_->advance(now);
    apply_stuck();
    evaluate_alarms();
    update_interrupt();
}

bool module_emulator::has_lane_monitors() const {
    return profile_.bias_ma.nominal != 0.0 || profile_.tx_power_mw.nominal != 0.0 ||
           profile_.rx_power_mw.nominal != 0.0;
}

namespace {

// Threshold and flag layout per family. Thresholds come as four u16 (high alarm, low alarm,
// high warning, low warning). SFF-8636: page 03h 128 temperature, 144 Vcc, 176 RX power,
// 184 bias, 192 TX power; flags lower 6 temperature, 7 Vcc (bits 7..4), 9-10 RX power, 11-12
// bias, 13-14 TX power (bits 7..4 first lane of the byte, 3..0 second). CMIS: page 02h 128
// temperature, 136 Vcc, 176 TX power, 184 bias, 192 RX power; flags lower 9 (bits 0..3
// temperature, 4..7 Vcc), page 11h 139.. TX power, 143.. bias, 149.. RX power, one byte per
// condition, one bit per lane. SFF-8472 A2h: thresholds 0 temperature, 8 Vcc, 16 bias, 24 TX
// power, 32 RX power; live flags 112/113 alarms, 116/117 warnings.
using sensor = module_emulator::sensor;

struct family_layout {
    std::uint8_t device;
    page_id thresholds;
    std::array<std::uint8_t, 5> threshold_at;  // by sensor
};

constexpr family_layout sff8636_layout{a0, {0, 0x03}, {128, 144, 184, 192, 176}};
constexpr family_layout cmis_layout{a0, {0, 0x02}, {128, 136, 184, 176, 192}};
constexpr family_layout sff8472_layout{a2, {}, {0, 8, 16, 24, 32}};

// Where condition `which` (0 high alarm, 1 low alarm, 2 high warning, 3 low warning) of a sensor
// on a lane is flagged.
struct flag_spot {
    page_id page;
    std::uint8_t offset;
    std::uint8_t bit;
};

flag_spot sff8636_flag(sensor s, unsigned lane, unsigned which) {
    const auto bit = [&](unsigned top) { return static_cast<std::uint8_t>(top - which); };
    switch (s) {
        case sensor::temperature:
            return {{}, 6, bit(7)};
        case sensor::vcc:
            return {{}, 7, bit(7)};
        default: {
            const std::uint8_t base = s == sensor::rx_power ? 9 : s == sensor::bias ? 11 : 13;
            return {{}, static_cast<std::uint8_t>(base + lane / 2), bit(lane % 2 ? 3 : 7)};
        }
    }
}

flag_spot cmis_flag(sensor s, unsigned lane, unsigned which) {
    const page_id page{static_cast<std::uint8_t>(lane / 8), 0x11};
    const auto bit = static_cast<std::uint8_t>(lane % 8);
    switch (s) {
        case sensor::temperature:
            return {{}, 9, static_cast<std::uint8_t>(which)};
        case sensor::vcc:
            return {{}, 9, static_cast<std::uint8_t>(4 + which)};
        case sensor::tx_power:
            return {page, static_cast<std::uint8_t>(139 + which), bit};
        case sensor::bias:
            return {page, static_cast<std::uint8_t>(143 + which), bit};
        case sensor::rx_power:
            return {page, static_cast<std::uint8_t>(149 + which), bit};
    }
    return {};
}

flag_spot sff8472_flag(sensor s, unsigned, unsigned which) {
    const std::uint8_t warn = which >= 2 ? 4 : 0;
    const bool low = which % 2 == 1;
    switch (s) {
        case sensor::temperature:
            return {
                {}, static_cast<std::uint8_t>(112 + warn), static_cast<std::uint8_t>(low ? 6 : 7)};
        case sensor::vcc:
            return {
                {}, static_cast<std::uint8_t>(112 + warn), static_cast<std::uint8_t>(low ? 4 : 5)};
        case sensor::bias:
            return {
                {}, static_cast<std::uint8_t>(112 + warn), static_cast<std::uint8_t>(low ? 2 : 3)};
        case sensor::tx_power:
            return {
                {}, static_cast<std::uint8_t>(112 + warn), static_cast<std::uint8_t>(low ? 0 : 1)};
        case sensor::rx_power:
            return {
                {}, static_cast<std::uint8_t>(113 + warn), static_cast<std::uint8_t>(low ? 6 : 7)};
    }
    return {};
}

}  // namespace

void module_emulator::evaluate_alarms() {
    // Alarm and warning flags follow the monitor registers as the host sees them (stuck values
    // included) against the module's own thresholds. Latched families latch; SFF-8472 flags are
    // live. Unset thresholds (all four 0) are skipped, as are TX conditions of a lane whose
    // transmitter is off.
    if (clock_->now() < epoch_ + profile_.i2c_not_ready) return;
    const bool sfp = profile_.family == module_family::sff8472_converter;
    const family_layout& layout = profile_.family == module_family::sff8636 ? sff8636_layout
                                  : profile_.family == module_family::cmis  ? cmis_layout
                                                                            : sff8472_layout;
    if (!memories_.contains(layout.device)) return;
    auto& mem = memories_.at(layout.device);
    if (!sfp && !mem.has_page(layout.thresholds)) return;
    const monitor_map& map = profile_.family == module_family::sff8636 ? sff8636_monitors
                             : profile_.family == module_family::cmis  ? cmis_monitors
                                                                       : sff8472_monitors;
    const unsigned lanes = has_lane_monitors() ? profile_.lanes : 0;
    for (unsigned si = 0; si < 5; ++si) {
        const auto s = static_cast<sensor>(si);
        const bool per_lane = s != sensor::temperature && s != sensor::vcc;
        const unsigned count = per_lane ? lanes : 1;
        std::array<std::uint16_t, 4> limit{};
        for (unsigned w = 0; w < 4; ++w)
            limit[w] = mem.peek16(layout.thresholds,
                                  static_cast<std::uint8_t>(layout.threshold_at[si] + 2 * w));
        if (limit == std::array<std::uint16_t, 4>{}) continue;
        for (unsigned lane = 0; lane < count; ++lane) {
            if ((s == sensor::bias || s == sensor::tx_power) && !tx_on_now(lane)) continue;
            page_id page{};
            std::uint8_t at = s == sensor::temperature ? map.temperature
                              : s == sensor::vcc       ? map.vcc
                              : s == sensor::bias      ? map.bias
                              : s == sensor::tx_power  ? map.tx_power
                                                       : map.rx_power;
            if (per_lane) {
                if (profile_.family == module_family::cmis) {
                    page = {static_cast<std::uint8_t>(lane / 8), 0x11};
                    if (!mem.has_page(page)) continue;
                    at = static_cast<std::uint8_t>(at + 2 * (lane % 8));
                } else {
                    at = static_cast<std::uint8_t>(at + 2 * lane);
                }
            }
            const std::uint16_t raw = mem.peek16(page, at);
            const auto above = [&](std::uint16_t t) {
                return s == sensor::temperature
                           ? static_cast<std::int16_t>(raw) > static_cast<std::int16_t>(t)
                           : raw > t;
            };
            const auto below = [&](std::uint16_t t) {
                return s == sensor::temperature
                           ? static_cast<std::int16_t>(raw) < static_cast<std::int16_t>(t)
                           : raw < t;
            };
            const std::array<bool, 4> on{above(limit[0]), below(limit[1]), above(limit[2]),
                                         below(limit[3])};
            for (unsigned w = 0; w < 4; ++w) {
                const flag_spot f =
                    profile_.family == module_family::sff8636 ? sff8636_flag(s, lane, w)
                    : profile_.family == module_family::cmis  ? cmis_flag(s, lane, w)
                                                              : sff8472_flag(s, lane, w);
                const auto bit = static_cast<std::uint8_t>(1u << f.bit);
                if (f.offset >= 128 && !mem.has_page(f.page)) continue;
                if (on[w])
                    mem.latch(f.page, f.offset, bit);
                else if (sfp)
                    mem.clear_bits(f.page, f.offset, bit);
            }
        }
    }
}

bool module_emulator::interrupt_asserted() {
    std::lock_guard lock(mutex_);
    service();
    return memories_.at(a0).any_latched();
}

void module_emulator::update_interrupt() {
    // SFF-8636 byte 2 bit 1 and CMIS byte 3 bit 0 show the IntL line: 0 while asserted.
    auto& mem = memories_.at(a0);
    const bool asserted = mem.any_latched();
    const std::uint8_t offset = profile_.family == module_family::sff8636 ? sff_status
                                : profile_.family == module_family::cmis && !cmis_flat_
                                    ? cmis_state_byte
                                    : 0;
    const std::uint8_t bit = profile_.family == module_family::sff8636 ? 0x02 : 0x01;
    if (offset == 0) return;
    if (asserted)
        mem.clear_bits(lower, offset, bit);
    else
        mem.latch(lower, offset, bit);
}

void module_emulator::refresh_lane_status() {
    // CMIS page 11h byte 132 RX output status and byte 133 TX output status, one live bit per
    // lane: the TX output is valid while the transmitter is on, the RX output while the module
    // is ready and has light.
    if (profile_.family != module_family::cmis) return;
    auto& mem = memories_.at(a0);
    for (unsigned lane = 0; lane < profile_.lanes; ++lane) {
        const page_id page{static_cast<std::uint8_t>(lane / 8), 0x11};
        if (!mem.has_page(page)) continue;
        const auto bit = static_cast<std::uint8_t>(1u << (lane % 8));
        const bool rx = state_ == cmis_state::ready &&
                        !live_[static_cast<std::size_t>(lane_flag::rx_los)][lane];
        if (tx_on_now(lane))
            mem.latch(page, 133, bit);
        else
            mem.clear_bits(page, 133, bit);
        if (rx)
            mem.latch(page, 132, bit);
        else
            mem.clear_bits(page, 132, bit);
    }
}

// --- CMIS data paths and staged control set 0 ---------------------------------------------------

bool module_emulator::has_data_paths() const {
    if (profile_.family != module_family::cmis || cmis_flat_) return false;
    const auto& mem = memories_.at(a0);
    return mem.has_page(lane_control) && mem.has_page(lane_status);
}

clock::duration module_emulator::dp_duration(bool init) const {
    const auto& mem = memories_.at(a0);
    if (!mem.has_page(advertising)) return {};
    const std::uint8_t codes = mem.peek(advertising, dp_durations);
    const unsigned code = init ? codes & 0x0f : codes >> 4;
    if (code >= duration_bound_ms.size()) return {};
    return std::chrono::milliseconds(duration_bound_ms[code] - 1);
}

bool module_emulator::dp_held(unsigned lane) const {
    // Revision 3.x calls the bit DataPathPwrUp: set means run.
    const auto& mem = memories_.at(a0);
    const bool bit = mem.peek(lane_control, dp_deinit) & (1u << lane);
    return (mem.peek(lower, 1) >> 4) < 4 ? !bit : bit;
}

bool module_emulator::dp_should_run(unsigned lane) const {
    // A lane runs with an application in the active set, in ModuleReady, unless held.
    return state_ == cmis_state::ready && !last_request_ && !dp_held(lane) &&
           (memories_.at(a0).peek(lane_status, static_cast<std::uint8_t>(active_config + lane)) >>
            4) != 0;
}

namespace {

struct app_descriptor {
    std::uint8_t host = 0, media = 0, lane_counts = 0, host_assignment = 0;
};

// Application `n` (1..15) if the module advertises it: before the descriptor whose host
// interface code is FFh (end of list), with a defined host interface and host lane count.
// Descriptors 1..8 are in lower 86.., 9..15 in page 01h 223...
std::optional<app_descriptor> advertised_app(const module_memory& mem, unsigned n) {
    if (n == 0 || n > 15) return std::nullopt;
    app_descriptor d;
    for (unsigned k = 1; k <= n; ++k) {
        page_id page{};
        unsigned at = 86 + 4 * (k - 1);
        if (k > 8) {
            if (!mem.has_page(advertising)) return std::nullopt;
            page = advertising;
            at = 223 + 4 * (k - 9);
        }
        d = {mem.peek(page, static_cast<std::uint8_t>(at)),
             mem.peek(page, static_cast<std::uint8_t>(at + 1)),
             mem.peek(page, static_cast<std::uint8_t>(at + 2)),
             mem.peek(page, static_cast<std::uint8_t>(at + 3))};
        if (d.host == 0xff) return std::nullopt;
    }
    if (d.host == 0x00 || (d.lane_counts >> 4) == 0) return std::nullopt;
    return d;
}

std::uint8_t nibble(std::uint8_t v, unsigned lane) {
    return lane % 2 ? static_cast<std::uint8_t>(v >> 4) : static_cast<std::uint8_t>(v & 0x0f);
}

std::uint8_t with_nibble(std::uint8_t v, unsigned lane, std::uint8_t n) {
    return lane % 2 ? static_cast<std::uint8_t>((v & 0x0f) | (n << 4))
                    : static_cast<std::uint8_t>((v & 0xf0) | (n & 0x0f));
}

}  // namespace

void module_emulator::apply_dp_init(std::uint8_t mask, clock::time_point now) {
    auto& mem = memories_.at(a0);
    std::array<std::uint8_t, host_lanes> staged{};
    for (unsigned lane = 0; lane < host_lanes; ++lane)
        staged[lane] = mem.peek(lane_control, static_cast<std::uint8_t>(staged_config + lane));
    const auto appsel = [&](unsigned lane) { return staged[lane] >> 4; };
    const auto first_lane = [&](unsigned lane) { return (staged[lane] >> 1) & 0x07u; };
    for (unsigned lane = 0; lane < host_lanes; ++lane) {
        if (!(mask & (1u << lane))) continue;
        config_status verdict = config_status::success;
        if (appsel(lane) != 0) {
            // The data path: every staged lane naming the same first lane.
            const unsigned first = first_lane(lane);
            unsigned members = 0;
            bool mixed = false;
            for (unsigned other = 0; other < host_lanes; ++other)
                if (appsel(other) != 0 && first_lane(other) == first) {
                    members |= 1u << other;
                    mixed = mixed || appsel(other) != appsel(lane);
                }
            const auto app = advertised_app(mem, appsel(lane));
            if (!app) {
                verdict = config_status::rejected_invalid_app_sel;
            } else if ((members & mask) != members) {
                verdict = config_status::rejected_partial_data_path;
            } else {
                const unsigned count = app->lane_counts >> 4;
                const unsigned wanted = ((1u << count) - 1) << first;
                // No start lane advertised at all (a real cable does that) is read as lane 1.
                const unsigned starts = app->host_assignment ? app->host_assignment : 0x01;
                if (mixed || members != wanted || first + count > host_lanes ||
                    !(starts & (1u << first)))
                    verdict = config_status::rejected_invalid_data_path;
            }
        }
        auto& l = dp_[lane];
        l.checking = true;
        l.checked_at = now + profile_.config_check;
        l.pending = false;
        l.verdict = verdict;
        l.config = staged[lane];
        for (unsigned k = 0; k < 3; ++k)
            l.si[k] = nibble(
                mem.peek(lane_control, static_cast<std::uint8_t>(staged_si + 4 * k + lane / 2)),
                lane);
    }
    show_lanes();
}

void module_emulator::apply_immediate(std::uint8_t mask) {
    auto& mem = memories_.at(a0);
    for (unsigned lane = 0; lane < host_lanes; ++lane) {
        if (!(mask & (1u << lane))) continue;
        for (unsigned k = 0; k < 3; ++k) {
            const auto from = static_cast<std::uint8_t>(staged_si + 4 * k + lane / 2);
            const auto to = static_cast<std::uint8_t>(active_si + 4 * k + lane / 2);
            mem.poke(lane_status, to,
                     with_nibble(mem.peek(lane_status, to), lane,
                                 nibble(mem.peek(lane_control, from), lane)));
        }
        if (!dp_[lane].checking && !dp_[lane].pending) dp_[lane].status = config_status::success;
    }
    show_lanes();
}

void module_emulator::commit(unsigned lane) {
    auto& l = dp_[lane];
    l.pending = false;
    l.status = config_status::success;
    if (profile_.config_success_keeps_old_active_set) return;
    auto& mem = memories_.at(a0);
    mem.poke(lane_status, static_cast<std::uint8_t>(active_config + lane), l.config);
    for (unsigned k = 0; k < 3; ++k) {
        const auto to = static_cast<std::uint8_t>(active_si + 4 * k + lane / 2);
        mem.poke(lane_status, to, with_nibble(mem.peek(lane_status, to), lane, l.si[k]));
    }
}

clock::time_point module_emulator::deinit_lanes(clock::time_point at) {
    auto quiet = at;
    if (!has_data_paths()) return quiet;
    for (auto& l : dp_) {
        if (l.state == dp_state::init || l.state == dp_state::activated) {
            l.state = dp_state::deinit;
            l.until = at + dp_duration(false);
        }
        if (l.state == dp_state::deinit) quiet = std::max(quiet, l.until);
    }
    show_lanes();
    return quiet;
}

void module_emulator::advance_lanes(clock::time_point now) {
    for (unsigned lane = 0; lane < host_lanes; ++lane) {
        auto& l = dp_[lane];
        for (;;) {
            const bool timed = l.state == dp_state::init || l.state == dp_state::deinit;
            // The earlier of the two timed events first.
            if (l.checking && now >= l.checked_at && !(timed && l.until < l.checked_at)) {
                l.checking = false;
                if (l.verdict != config_status::success) {
                    l.status = l.verdict;  // a rejection changes nothing else
                } else if (l.state == dp_state::deactivated) {
                    commit(lane);
                    if (dp_should_run(lane)) {
                        l.state = dp_state::init;
                        l.until = l.checked_at + dp_duration(true);
                    }
                } else {
                    // Re-init with the new configuration: deinit first.
                    l.pending = true;
                    if (l.state != dp_state::deinit) {
                        l.state = dp_state::deinit;
                        l.until = l.checked_at + dp_duration(false);
                    }
                }
            } else if (l.state == dp_state::init && now >= l.until && !hold_dp_init_) {
                l.state = dp_state::activated;
            } else if (l.state == dp_state::deinit && now >= l.until) {
                l.state = dp_state::deactivated;
                if (l.pending) commit(lane);
                if (dp_should_run(lane) && !l.checking) {
                    l.state = dp_state::init;
                    l.until = l.until + dp_duration(true);
                }
            } else if (l.state == dp_state::deactivated && !l.checking && dp_should_run(lane)) {
                l.state = dp_state::init;
                l.until = now + dp_duration(true);
            } else if ((l.state == dp_state::init || l.state == dp_state::activated) &&
                       !dp_should_run(lane)) {
                l.state = dp_state::deinit;
                l.until = now + dp_duration(false);
            } else {
                break;
            }
        }
    }
}

void module_emulator::show_lanes() {
    auto& mem = memories_.at(a0);
    for (unsigned lane = 0; lane < host_lanes; ++lane) {
        const auto& l = dp_[lane];
        const auto state_at = static_cast<std::uint8_t>(dp_state_at + lane / 2);
        const auto status_at = static_cast<std::uint8_t>(config_status_at + lane / 2);
        const auto status = l.checking || l.pending ? config_status::in_progress : l.status;
        mem.poke(
            lane_status, state_at,
            with_nibble(mem.peek(lane_status, state_at), lane, static_cast<std::uint8_t>(l.state)));
        mem.poke(
            lane_status, status_at,
            with_nibble(mem.peek(lane_status, status_at), lane, static_cast<std::uint8_t>(status)));
    }
}

}  // namespace qsfpd::emu

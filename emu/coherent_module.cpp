#include "coherent_module.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "module_emulator.hpp"

namespace qsfpd::emu {

namespace {

using namespace std::chrono_literals;

constexpr page_id lower{};
constexpr page_id advertising{0, 0x01};
constexpr page_id laser_caps{0, 0x04};
constexpr page_id lane_status{0, 0x11};
constexpr page_id laser_control{0, 0x12};
constexpr page_id pm_control{0, 0x2f};
constexpr page_id fec_pm{0, 0x34};
constexpr page_id link_pm{0, 0x35};
constexpr page_id dsp{0, 0xc0};
constexpr page_id prbs_counters{0, 0xc1};
constexpr page_id client_pm_low{0, 0xc2};  // host lanes 1..4; C3h has 5..8

// Page 12h, media lane 1.
constexpr std::uint8_t grid_at = 128;
constexpr std::uint8_t channel_at = 136;
constexpr std::uint8_t frequency_at = 168;
constexpr std::uint8_t tx_target_at = 200;
constexpr std::uint8_t tuning_status_at = 222;
constexpr std::uint8_t tuning_summary_at = 230;
constexpr std::uint8_t tuning_flags_at = 231;
constexpr std::uint8_t tuning_in_progress = 0x02;
constexpr std::uint8_t tuning_complete = 0x01;
constexpr std::uint8_t invalid_channel = 0x04;
constexpr std::uint8_t tuning_not_accepted = 0x08;

// Page 04h: 128 grids, channel bounds per grid code at 130 + 4 code (low) and 132 + 4 code
// (high), 198/200 programmable output power bounds.
constexpr std::uint8_t grids_at = 128;
constexpr std::uint8_t tx_min_at = 198;
constexpr std::uint8_t tx_max_at = 200;

// Page C0h.
constexpr std::uint8_t caps_at = 128;
constexpr std::uint8_t locks_at = 130;
constexpr std::uint8_t thresholds_first = 164;
constexpr std::uint8_t thresholds_last = 181;  // 180 flags, 181 unused
constexpr std::uint8_t bounds_last = 201;
constexpr std::uint8_t prbs_control_at = 202;
constexpr std::uint8_t prbs_pattern_at = 203;
constexpr std::uint8_t prbs_lock_lost_at = 204;
constexpr std::uint8_t prbs_checker = 0x02;
constexpr std::uint8_t prbs_clear = 0x04;
constexpr std::uint8_t prbs_last_pattern = 5;

constexpr std::uint8_t freeze_at = 144;
constexpr std::uint8_t freeze_request = 0x80;

constexpr std::uint8_t module_ready = 3;
constexpr std::uint8_t dp_activated = 4;

std::uint64_t splitmix64(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

double seconds(clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

std::int64_t clamped(double v, double lo, double hi) {
    return static_cast<std::int64_t>(std::llround(std::clamp(v, lo, hi)));
}

void put(module_memory& m, page_id page, std::uint8_t at, std::uint64_t value, unsigned size) {
    for (unsigned i = 0; i < size; ++i)
        m.poke(page, static_cast<std::uint8_t>(at + i),
               static_cast<std::uint8_t>(value >> (8 * (size - 1 - i))));
}

void put_u16(module_memory& m, page_id page, std::uint8_t at, double v) {
    put(m, page, at, static_cast<std::uint64_t>(clamped(v, 0, 65535)), 2);
}

void put_s16(module_memory& m, page_id page, std::uint8_t at, double v) {
    put(m, page, at, static_cast<std::uint16_t>(clamped(v, -32768, 32767)), 2);
}

void put_s32(module_memory& m, page_id page, std::uint8_t at, double v) {
    put(m, page, at, static_cast<std::uint32_t>(clamped(v, -2147483648.0, 2147483647.0)), 4);
}

void put_counter(module_memory& m, page_id page, std::uint8_t at, double v, unsigned size) {
    const double max = size == 8 ? 18446744073709549568.0 : 4294967295.0;
    put(m, page, at, static_cast<std::uint64_t>(std::clamp(std::floor(v), 0.0, max)), size);
}

std::int16_t s16_at(const module_memory& m, page_id page, std::uint8_t at) {
    return static_cast<std::int16_t>(m.peek16(page, at));
}

// The CMIS 16-bit float: mantissa bits 10..0, exponent bits 15..11 biased by 24. The smallest
// exponent whose mantissa fits keeps the most digits.
std::uint16_t to_f16(double v) {
    if (!(v > 0)) return 0;
    for (int exponent = -24; exponent <= 7; ++exponent) {
        const double mantissa = std::round(v / std::pow(10.0, exponent));
        if (mantissa <= 0x7ff)
            return static_cast<std::uint16_t>((exponent + 24) << 11 |
                                              static_cast<unsigned>(mantissa));
    }
    return 0xffff;
}

// Line rates of the coherent media codes (SFF-8024 Table 4-7): 400ZR DP-16QAM at 59.84375 GBd;
// the OpenZR+ modes at 60.1385 GBd (16QAM 8, 8QAM 6, QPSK 4 bits a symbol), ZR100 at half the
// symbol rate.
double media_line_rate(std::uint8_t code) {
    switch (code) {
        case 0x3e:
        case 0x3f:
            return 478.75e9;
        case 0x46:
            return 481.108e9;
        case 0x47:
            return 360.831e9;
        case 0x48:
            return 240.554e9;
        case 0x49:
            return 120.277e9;
        default:
            return 478.75e9;
    }
}

}  // namespace

coherent_module::coherent_module(module_emulator& module, std::recursive_mutex& mutex,
                                 std::shared_ptr<clock> clk, coherent_model model)
    : module_(module),
      mutex_(mutex),
      clock_(std::move(clk)),
      model_(std::move(model)),
      seed_(module.profile().noise_seed),
      pre_fec_ber_(model_.pre_fec_ber),
      prbs_ber_(model_.prbs_ber),
      host_ber_(model_.host_ber),
      uncorrectable_per_s_(model_.uncorrectable_per_s) {
    module_.on_write(laser_control, grid_at, grid_at,
                     [this](page_id, std::uint8_t at, std::uint8_t) { on_tuning_write(at); });
    module_.on_write(laser_control, channel_at, channel_at + 1,
                     [this](page_id, std::uint8_t at, std::uint8_t) { on_tuning_write(at); });
    module_.on_read(laser_control, tuning_summary_at, tuning_summary_at,
                    [this](page_id, std::uint8_t) { show_tuning_summary(); });
    module_.on_write(laser_control, tx_target_at, tx_target_at + 1,
                     [this](page_id, std::uint8_t, std::uint8_t) { on_tx_target_write(); });
    module_.on_write(dsp, thresholds_first, thresholds_last - 2,
                     [this](page_id, std::uint8_t at, std::uint8_t) { on_threshold_write(at); });
    module_.on_write(dsp, prbs_control_at, prbs_control_at,
                     [this](page_id, std::uint8_t, std::uint8_t v) { on_prbs_control(v); });
    module_.on_write(dsp, prbs_pattern_at, prbs_pattern_at,
                     [this](page_id, std::uint8_t, std::uint8_t) { on_prbs_pattern(); });
    restart(clock_->now());
}

bool coherent_module::applies_to(const module_profile& profile) {
    if (profile.family != module_family::cmis || !profile.memories.contains(0x50)) return false;
    const auto& pages = profile.image().pages;
    return pages.contains(laser_control) && pages.contains(dsp);
}

module_memory& coherent_module::mem() {
    return module_.memory();
}

void coherent_module::restart(clock::time_point now) {
    epoch_ = last_ = now;
    tuning_ = false;
    tuned_at_.reset();
    conditions_since_.reset();
    flap_start_ = now;
    fec_bits_ = fec_corrected_ = fec_uncorrectable_ = 0;
    client_ = {};
    prbs_bits_ = {};
    prbs_errors_ = {};
    auto& m = mem();
    m.set_clear_on_read(laser_control, tuning_flags_at, tuning_flags_at);
    m.set_clear_on_read(dsp, prbs_lock_lost_at, prbs_lock_lost_at);
    // Without custom threshold support the thresholds and their bounds read 0 and stay so.
    if (!(m.peek(dsp, caps_at) & 0x01)) {
        for (unsigned at = thresholds_first; at <= bounds_last; ++at)
            m.poke(dsp, static_cast<std::uint8_t>(at), 0);
        m.set_writable(dsp, thresholds_first, thresholds_last, 0);
    }
    for (unsigned i = 0; i < thresholds_.size(); ++i)
        thresholds_[i] = m.peek(dsp, static_cast<std::uint8_t>(thresholds_first + i));
    tx_target_ = s16_at(m, laser_control, tx_target_at);
    prbs_checker_ = m.peek(dsp, prbs_control_at) & prbs_checker;
    prbs_pattern_ = m.peek(dsp, prbs_pattern_at);
    show(now);
}

// --- What the module shows of itself -------------------------------------------------------------

std::uint8_t coherent_module::module_state() {
    return static_cast<std::uint8_t>((mem().peek(lower, 3) >> 1) & 0x07);
}

bool coherent_module::data_path_active(unsigned host_lane) {
    auto& m = mem();
    if (!m.has_page(lane_status)) return false;
    const std::uint8_t states = m.peek(lane_status, static_cast<std::uint8_t>(128 + host_lane / 2));
    const unsigned state = host_lane % 2 ? states >> 4 : states & 0x0f;
    const unsigned appsel = m.peek(lane_status, static_cast<std::uint8_t>(206 + host_lane)) >> 4;
    return module_state() == module_ready && state == dp_activated && appsel != 0;
}

std::optional<std::pair<std::uint8_t, std::uint8_t>> coherent_module::active_app() {
    auto& m = mem();
    if (!m.has_page(lane_status)) return std::nullopt;
    const unsigned appsel = m.peek(lane_status, 206) >> 4;
    if (appsel == 0) return std::nullopt;
    page_id page{};
    unsigned at = 86 + 4 * (appsel - 1);
    if (appsel > 8) {
        if (!m.has_page(advertising)) return std::nullopt;
        page = advertising;
        at = 223 + 4 * (appsel - 9);
    }
    return std::pair{
        m.peek(page, static_cast<std::uint8_t>(at + 1)),
        static_cast<std::uint8_t>(m.peek(page, static_cast<std::uint8_t>(at + 2)) >> 4)};
}

double coherent_module::line_rate() {
    const auto app = active_app();
    return app ? media_line_rate(app->first) : 0.0;
}

bool coherent_module::conditions() {
    return !tuning_ && data_path_active(0);
}

std::uint32_t coherent_module::frequency_mhz(unsigned grid_code, std::int16_t channel) {
    // 193.1 THz + n x grid; the 75 GHz grid counts 25 GHz steps, the 33 GHz grid 100/3 GHz.
    static constexpr std::array<double, 8> step_mhz{3125,  6250,   12500,        25000,
                                                    50000, 100000, 100000.0 / 3, 25000};
    if (grid_code >= step_mhz.size()) throw std::invalid_argument("no such grid");
    return static_cast<std::uint32_t>(std::llround(193'100'000.0 + channel * step_mhz[grid_code]));
}

// --- Hooks (module locked, the module brought up to now before the write) ----------------------

void coherent_module::on_tuning_write(std::uint8_t) {
    auto& m = mem();
    const unsigned code = m.peek(laser_control, grid_at) >> 4;
    const std::uint8_t grids = m.has_page(laser_caps) ? m.peek(laser_caps, grids_at) : 0;
    if (code > 7 || !(grids & (1u << code))) {
        latch_tuning(tuning_not_accepted);
        return;
    }
    const auto channel = s16_at(m, laser_control, channel_at);
    const auto low = s16_at(m, laser_caps, static_cast<std::uint8_t>(130 + 4 * code));
    const auto high = s16_at(m, laser_caps, static_cast<std::uint8_t>(132 + 4 * code));
    if (channel < low || channel > high) {
        latch_tuning(invalid_channel);
        return;
    }
    // A two-byte channel write calls this twice at the same instant with the same result.
    const auto now = clock_->now();
    tuning_ = true;
    tune_until_ = now + model_.tuning;
    tune_target_ = frequency_mhz(code, channel);
    conditions_since_.reset();
    show(now);
}

void coherent_module::finish_tuning(clock::time_point at) {
    tuning_ = false;
    tuned_at_ = at;
    put(mem(), laser_control, frequency_at, tune_target_, 4);
    latch_tuning(tuning_complete);
}

void coherent_module::latch_tuning(std::uint8_t bits) {
    mem().latch(laser_control, tuning_flags_at, bits);
    show_tuning_summary();
}

void coherent_module::show_tuning_summary() {
    auto& m = mem();
    if (m.peek(laser_control, tuning_flags_at))
        m.latch(laser_control, tuning_summary_at, 0x01);
    else
        m.clear_bits(laser_control, tuning_summary_at, 0x01);
}

void coherent_module::on_tx_target_write() {
    auto& m = mem();
    const auto v = s16_at(m, laser_control, tx_target_at);
    if (!m.has_page(laser_caps) || v < s16_at(m, laser_caps, tx_min_at) ||
        v > s16_at(m, laser_caps, tx_max_at))
        m.poke16(laser_control, tx_target_at, static_cast<std::uint16_t>(tx_target_));
    else
        tx_target_ = v;
}

void coherent_module::on_threshold_write(std::uint8_t offset) {
    // Each alarm threshold has its bounds (maximum, minimum); a warning has none: the host keeps
    // it inside its alarm, which may put it just beyond the alarm's bounds.
    struct bounds {
        std::uint8_t max, min;
    };
    const auto reg = static_cast<std::uint8_t>(offset & ~1u);
    bounds b{};
    switch (reg) {
        case 164:
            b = {182, 184};
            break;
        case 166:
            b = {186, 188};
            break;
        case 168:
            b = {190, 192};
            break;
        case 172:
            b = {194, 196};
            break;
        case 170:
        case 174:
            b = {0, 0};
            break;
        default:
            b = {198, 200};
            break;
    }
    auto& m = mem();
    const auto v = s16_at(m, dsp, reg);
    const unsigned index = reg - thresholds_first;
    const bool bounded = b.max != 0;
    if (bounded && (v > s16_at(m, dsp, b.max) || v < s16_at(m, dsp, b.min))) {
        m.poke(dsp, reg, thresholds_[index]);
        m.poke(dsp, static_cast<std::uint8_t>(reg + 1), thresholds_[index + 1]);
    } else {
        thresholds_[index] = m.peek(dsp, reg);
        thresholds_[index + 1] = m.peek(dsp, static_cast<std::uint8_t>(reg + 1));
    }
}

void coherent_module::on_prbs_control(std::uint8_t value) {
    const bool checker = value & prbs_checker;
    // A checker that starts counts from 0.
    if (checker && !prbs_checker_) {
        prbs_bits_ = {};
        prbs_errors_ = {};
    }
    prbs_checker_ = checker;
    if (value & prbs_clear) {
        zero_counters();
        mem().clear_bits(dsp, prbs_control_at, prbs_clear);
    }
    show(clock_->now());
}

void coherent_module::on_prbs_pattern() {
    auto& m = mem();
    const std::uint8_t v = m.peek(dsp, prbs_pattern_at);
    if (v > prbs_last_pattern)
        m.poke(dsp, prbs_pattern_at, prbs_pattern_);
    else
        prbs_pattern_ = v;
}

void coherent_module::zero_counters() {
    prbs_bits_ = {};
    prbs_errors_ = {};
}

// --- Time
// ------------------------------------------------------------------------------------------

void coherent_module::advance(clock::time_point now) {
    if (now < last_) return;
    // The checker lost lock if the RX lock was off at any time since the last look.
    const bool was_unlocked = now > last_ && !(shown_locks(last_) & 0x01);
    if (tuning_ && !stall_tuning_ && now >= tune_until_) finish_tuning(tune_until_);
    integrate(now);
    show(now);
    if (prbs_checker_ && was_unlocked) latch_lock_lost();
    last_ = now;
}

void coherent_module::integrate(clock::time_point now) {
    const bool holds = conditions();
    if (!holds) {
        conditions_since_.reset();
    } else if (!conditions_since_) {
        // They hold since the data path came up or the last tuning ended, whichever is later.
        auto since = module_.data_path_up_since(0).value_or(now);
        if (tuned_at_) since = std::max(since, *tuned_at_);
        conditions_since_ = std::min(since, now);
    }
    if (conditions_since_) {
        const auto from = std::max(last_, *conditions_since_ + model_.lock_delay);
        if (now > from) {
            const double dt = seconds(now - from);
            const double bits = line_rate() * dt;
            fec_bits_ += bits;
            fec_corrected_ += bits * pre_fec_ber_;
            fec_uncorrectable_ += uncorrectable_per_s_ * dt;
            if (prbs_checker_) {
                const unsigned lanes = std::min(module_.profile().lanes, 8u);
                for (unsigned lane = 0; lane < lanes; ++lane) {
                    prbs_bits_[lane] += bits / lanes;
                    prbs_errors_[lane] += bits / lanes * prbs_ber_;
                }
            }
        }
    }
    // Client PM: host lanes whose data path is up, from the first activation on.
    for (unsigned lane = 0; lane < client_.size(); ++lane) {
        auto& c = client_[lane];
        if (!data_path_active(lane)) continue;
        if (!c.started) c.started = true;
        const auto from = std::max(last_, module_.data_path_up_since(lane).value_or(now));
        if (now > from) {
            const double bits = host_lane_rate * seconds(now - from);
            c.bits += bits;
            c.corrected += bits * host_ber_;
        }
    }
}

std::uint8_t coherent_module::shown_locks(clock::time_point now) const {
    std::uint8_t locks =
        conditions_since_ && now >= *conditions_since_ + model_.lock_delay ? 0x03 : 0x00;
    if (!flap_pattern_.empty() && now >= flap_start_) {
        const auto step = static_cast<std::size_t>((now - flap_start_) / flap_period_);
        if (flap_pattern_[step % flap_pattern_.size()] == '0')
            locks = static_cast<std::uint8_t>(locks & ~flap_locks_);
    }
    return locks;
}

void coherent_module::latch_lock_lost() {
    const unsigned lanes = std::min(module_.profile().lanes, 8u);
    mem().latch(dsp, prbs_lock_lost_at, static_cast<std::uint8_t>((1u << lanes) - 1));
}

void coherent_module::show(clock::time_point now) {
    auto& m = mem();
    const std::uint8_t locks = shown_locks(now);
    m.poke(dsp, locks_at, locks);
    if (prbs_checker_ && !(locks & 0x01)) latch_lock_lost();
    if (tuning_)
        m.latch(laser_control, tuning_status_at, tuning_in_progress);
    else
        m.clear_bits(laser_control, tuning_status_at, tuning_in_progress);
    show_tuning_summary();

    const bool frozen = m.has_page(pm_control) && (m.peek(pm_control, freeze_at) & freeze_request);
    if (!frozen) {
        if (m.has_page(fec_pm)) {
            put_counter(m, fec_pm, 128, fec_bits_, 8);
            put_counter(m, fec_pm, 144, fec_corrected_, 8);
            put_counter(m, fec_pm, 176, fec_uncorrectable_, 4);
        }
        for (unsigned lane = 0; lane < client_.size(); ++lane) {
            const page_id page{0, static_cast<std::uint8_t>(client_pm_low.page + lane / 4)};
            if (!m.has_page(page)) continue;
            const auto at = static_cast<std::uint8_t>(128 + 32 * (lane % 4));
            const auto& c = client_[lane];
            if (!c.started) {
                for (unsigned i = 0; i < 32; ++i)
                    m.poke(page, static_cast<std::uint8_t>(at + i), 0xff);
                continue;
            }
            put_counter(m, page, at, c.bits, 8);
            put_counter(m, page, static_cast<std::uint8_t>(at + 8), c.corrected, 8);
            put_counter(m, page, static_cast<std::uint8_t>(at + 16), c.bits / client_frame_bits, 8);
            put_counter(m, page, static_cast<std::uint8_t>(at + 24), 0, 8);
        }
    }
    if (m.has_page(prbs_counters))
        for (unsigned lane = 0; lane < 8; ++lane) {
            put_counter(m, prbs_counters, static_cast<std::uint8_t>(128 + 16 * lane),
                        prbs_errors_[lane], 8);
            put_counter(m, prbs_counters, static_cast<std::uint8_t>(136 + 16 * lane),
                        prbs_bits_[lane], 8);
        }
    show_monitors(module_.monitor_tick(), frozen);
}

void coherent_module::show_monitors(std::uint64_t tick, bool frozen) {
    auto& m = mem();
    const auto v = [&](metric k) { return metric_value(k, tick); };
    const double cd = v(metric::cd);
    put_s16(m, dsp, 132, std::abs(cd) > model_.cd_high_range ? 32767.0 : cd);
    put_s32(m, dsp, 134, std::round(cd / 20.0) * 20.0);
    put_s32(m, dsp, 138, model_.cd_search_low);
    put_s32(m, dsp, 142, model_.cd_search_high);
    put_u16(m, dsp, 146, model_.laser_age);
    const double ber = pre_fec_ber_;
    const std::array<double, 4> bers{v(metric::pre_fec_ber), ber, ber * 0.9, ber * 1.1};
    const auto& ef = model_.errored_frames;
    const std::array<double, 4> frames{v(metric::errored_frames), ef.nominal,
                                       std::max(0.0, ef.nominal - ef.noise), ef.nominal + ef.noise};
    for (unsigned i = 0; i < 4; ++i) {
        put(m, dsp, static_cast<std::uint8_t>(148 + 2 * i), to_f16(bers[i]), 2);
        put(m, dsp, static_cast<std::uint8_t>(156 + 2 * i), to_f16(frames[i]), 2);
    }

    // TX power of media lane 1 follows the programmed target (with the monitor's noise) while
    // the transmitter is on, i.e. while the module shows a TX power at all.
    const auto& txm = module_.profile().tx_power_mw;
    if (m.has_page(lane_status) && m.peek16(lane_status, 154) != 0 && txm.nominal > 0) {
        const double sample =
            module_.monitor_value(module_emulator::sensor::tx_power, 0, tick) / txm.nominal;
        put_u16(m, lane_status, 154, std::pow(10.0, tx_target_ / 1000.0) * sample * 10000.0);
    }

    if (frozen || !m.has_page(link_pm)) return;
    // Average, minimum, maximum of each metric: the sample of this period and nominal -/+ noise.
    const auto triple = [&](std::uint8_t at, metric k, double scale, bool is_signed) {
        const auto& model = model_for(k);
        const std::array<double, 3> values{v(k), model.nominal - model.noise,
                                           model.nominal + model.noise};
        for (unsigned i = 0; i < 3; ++i) {
            const auto to = static_cast<std::uint8_t>(at + 2 * i);
            if (is_signed)
                put_s16(m, link_pm, to, values[i] * scale);
            else
                put_u16(m, link_pm, to, values[i] * scale);
        }
    };
    const auto& cdm = model_.cd;
    put_s32(m, link_pm, 128, cd);
    put_s32(m, link_pm, 132, cdm.nominal - cdm.noise);
    put_s32(m, link_pm, 136, cdm.nominal + cdm.noise);
    triple(140, metric::dgd, 100, false);
    triple(152, metric::pdl, 10, false);
    triple(158, metric::osnr, 10, false);
    triple(164, metric::esnr, 10, false);
    triple(170, metric::cfo, 1, true);
    triple(200, metric::sop_roc, 1, false);
    triple(230, metric::q, 10, false);
    triple(236, metric::q_margin, 10, true);
    // RX powers from the RX power monitor of media lane 1 (0.1 uW), so both views agree.
    const std::uint16_t raw = m.has_page(lane_status) ? m.peek16(lane_status, 186) : 0;
    const double total = raw ? 10.0 * std::log10(raw / 10000.0) : -40.0;
    const double signal = total - model_.signal_below_total_db;
    for (unsigned i = 0; i < 3; ++i) {
        put_s16(m, link_pm, static_cast<std::uint8_t>(188 + 2 * i), total * 100);
        put_s16(m, link_pm, static_cast<std::uint8_t>(194 + 2 * i), signal * 100);
    }
}

const monitor_model& coherent_module::model_for(metric k) const {
    switch (k) {
        case metric::q:
            return model_.q_db;
        case metric::q_margin:
            return model_.q_margin_db;
        case metric::osnr:
            return model_.osnr_db;
        case metric::esnr:
            return model_.esnr_db;
        case metric::cd:
            return model_.cd;
        case metric::dgd:
            return model_.dgd_ps;
        case metric::pdl:
            return model_.pdl_db;
        case metric::cfo:
            return model_.cfo_mhz;
        case metric::sop_roc:
            return model_.sop_roc_krad_s;
        case metric::errored_frames:
        case metric::pre_fec_ber:
            break;
    }
    return model_.errored_frames;
}

double coherent_module::nominal(metric k) const {
    return k == metric::pre_fec_ber ? pre_fec_ber_ : model_for(k).nominal;
}

double coherent_module::metric_value(metric k, std::uint64_t tick) const {
    const std::uint64_t h =
        splitmix64(seed_ ^ splitmix64((0x40ULL + static_cast<std::uint64_t>(k)) << 56 ^ tick));
    const double u = static_cast<double>(h >> 11) / static_cast<double>(1ULL << 53);  // [0,1)
    if (k == metric::pre_fec_ber) return pre_fec_ber_ * (1.0 + 0.1 * (2.0 * u - 1.0));
    const auto& model = model_for(k);
    return model.nominal + model.noise * (2.0 * u - 1.0);
}

// --- Public entries (from any thread) ------------------------------------------------------------

void coherent_module::set_pre_fec_ber(double ber) {
    std::lock_guard lock(mutex_);
    module_.service();
    pre_fec_ber_ = ber;
    module_.service();
}

void coherent_module::set_prbs_ber(double ber) {
    std::lock_guard lock(mutex_);
    module_.service();
    prbs_ber_ = ber;
}

void coherent_module::set_host_ber(double ber) {
    std::lock_guard lock(mutex_);
    module_.service();
    host_ber_ = ber;
}

void coherent_module::set_uncorrectable_per_s(double rate) {
    std::lock_guard lock(mutex_);
    module_.service();
    uncorrectable_per_s_ = rate;
}

double coherent_module::pre_fec_ber() const {
    std::lock_guard lock(mutex_);
    return pre_fec_ber_;
}

double coherent_module::prbs_ber() const {
    std::lock_guard lock(mutex_);
    return prbs_ber_;
}

void coherent_module::stall_tuning(bool on) {
    std::lock_guard lock(mutex_);
    module_.service();
    stall_tuning_ = on;
    if (!on && tuning_ && tune_until_ < clock_->now()) tune_until_ = clock_->now();
    module_.service();
}

void coherent_module::flap_locks(std::string pattern, clock::duration period, std::uint8_t locks) {
    if (pattern.empty() || pattern.find_first_not_of("01") != std::string::npos)
        throw std::invalid_argument("flap pattern must be a non-empty string of 0 and 1");
    if (period <= clock::duration::zero()) throw std::invalid_argument("a flap needs a period");
    std::lock_guard lock(mutex_);
    module_.service();
    flap_pattern_ = std::move(pattern);
    flap_period_ = period;
    flap_locks_ = locks & 0x03;
    flap_start_ = clock_->now();
    module_.service();
}

void coherent_module::stop_lock_flaps() {
    std::lock_guard lock(mutex_);
    flap_pattern_.clear();
    module_.service();
}

void coherent_module::clear_faults() {
    stall_tuning(false);
    stop_lock_flaps();
}

bool coherent_module::tuning() {
    std::lock_guard lock(mutex_);
    module_.service();
    return tuning_;
}

std::uint8_t coherent_module::locks() {
    std::lock_guard lock(mutex_);
    module_.service();
    return shown_locks(clock_->now());
}

}  // namespace qsfpd::emu

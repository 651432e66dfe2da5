#include "vdm_pages.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "cage/cmis_f16.hpp"
#include "module_emulator.hpp"

namespace qsfpd::emu {

namespace {

// CMIS page 01h byte 142 bit 6 VDM supported; page 2Fh: 128 groups supported minus one (bits
// 1-0), 144 bit 7 freeze request, 145 bit 7 FreezeDone, bit 6 UnfreezeDone. Descriptors of group
// g on page 20h + g, samples on 24h + g, thresholds on 28h + g (8 bytes per threshold set: high
// alarm, low alarm, high warning, low warning), latched flags on 2Ch from byte 128 (32 bytes per
// group).
constexpr page_id advertising{0, 0x01};
constexpr std::uint8_t vdm_advertised_at = 142;
constexpr std::uint8_t vdm_bit = 0x40;
constexpr page_id control{0, 0x2F};
constexpr std::uint8_t groups_at = 128;
constexpr std::uint8_t freeze_at = 144;
constexpr std::uint8_t freeze_done_at = 145;
constexpr std::uint8_t freeze_request = 0x80;
constexpr std::uint8_t freeze_done = 0x80;
constexpr std::uint8_t unfreeze_done = 0x40;
constexpr page_id flags_page{0, 0x2C};
constexpr page_id fault_page{0, 0xC8};
constexpr std::uint8_t faults_at = 128;
constexpr std::uint8_t post_fec_ber_at = 130;
constexpr std::uint8_t bank_select = 126;

page_id descriptors(unsigned group) {
    return {0, static_cast<std::uint8_t>(0x20 + group)};
}
page_id samples(unsigned group) {
    return {0, static_cast<std::uint8_t>(0x24 + group)};
}
page_id thresholds(unsigned group) {
    return {0, static_cast<std::uint8_t>(0x28 + group)};
}

enum class format { u16, s16, f16 };

// How one observable type moves: register format and LSB (CMIS VDM observable table), the
// nominal value and noise amplitude in engineering units while the module is ready, the idle
// value otherwise, and for counters an increase per monitor period.
struct model {
    std::uint8_t type;
    format fmt;
    double lsb;
    double nominal;
    double noise;
    double idle;
    double per_tick = 0.0;
};

constexpr double pct_s16 = 100.0 / 32767.0;
constexpr double pct_u16 = 100.0 / 65535.0;
constexpr double per_256 = 1.0 / 256.0;

// A ZR+ module on a clean span: pre-FEC BER around 1.2e-3 on the line, the host side clean.
constexpr std::array<model, 40> models{{
    {1, format::u16, 1.0, 3.0, 0.0, 3.0},           // laser age, %
    {2, format::s16, pct_s16, 12.0, 1.0, 0.0},      // TEC current, %
    {3, format::s16, 10.0, 0.0, 50.0, 0.0},         // laser frequency error, MHz
    {4, format::s16, per_256, 50.0, 0.2, 30.0},     // laser temperature, degC
    {5, format::u16, per_256, 18.0, 0.3, 0.0},      // eSNR media input, dB
    {6, format::u16, per_256, 24.0, 0.3, 0.0},      // eSNR host input, dB
    {7, format::u16, per_256, 20.0, 0.4, 0.0},      // PAM4 LTP media input, dB
    {8, format::u16, per_256, 21.0, 0.4, 0.0},      // PAM4 LTP host input, dB
    {9, format::f16, 1.0, 1.0e-3, 0.0, 0.0},        // pre-FEC BER min, media
    {10, format::f16, 1.0, 5.0e-10, 0.0, 0.0},      // pre-FEC BER min, host
    {11, format::f16, 1.0, 1.4e-3, 0.0, 0.0},       // max, media
    {12, format::f16, 1.0, 1.5e-9, 0.0, 0.0},       // max, host
    {13, format::f16, 1.0, 1.2e-3, 0.0, 0.0},       // average, media
    {14, format::f16, 1.0, 1.0e-9, 0.0, 0.0},       // average, host
    {15, format::f16, 1.0, 1.2e-3, 2.0e-4, 0.0},    // current, media
    {16, format::f16, 1.0, 1.0e-9, 5.0e-10, 0.0},   // current, host
    {17, format::f16, 1.0, 0.0, 0.0, 0.0},          // errored frames min, media
    {18, format::f16, 1.0, 0.0, 0.0, 0.0},          // min, host
    {19, format::f16, 1.0, 4.0e-11, 0.0, 0.0},      // max, media
    {20, format::f16, 1.0, 3.0e-11, 0.0, 0.0},      // max, host
    {21, format::f16, 1.0, 2.0e-11, 0.0, 0.0},      // average, media
    {22, format::f16, 1.0, 1.5e-11, 0.0, 0.0},      // average, host
    {23, format::f16, 1.0, 2.0e-11, 2.0e-11, 0.0},  // current, media
    {24, format::f16, 1.0, 1.5e-11, 1.5e-11, 0.0},  // current, host
    {25, format::f16, 1.0, 0.0, 0.0, 0.0, 0.02},    // errored frames since power-up, media
    {26, format::f16, 1.0, 0.0, 0.0, 0.0, 0.01},    // the same, host
    {128, format::u16, pct_u16, 50.0, 1.0, 0.0},    // modulator bias XI, %
    {129, format::u16, pct_u16, 49.0, 1.0, 0.0},    // XQ
    {130, format::u16, pct_u16, 51.0, 1.0, 0.0},    // YI
    {131, format::u16, pct_u16, 50.5, 1.0, 0.0},    // YQ
    {132, format::u16, pct_u16, 25.0, 0.5, 0.0},    // X phase
    {133, format::u16, pct_u16, 26.0, 0.5, 0.0},    // Y phase
    {137, format::u16, 0.01, 12.0, 2.0, 0.0},       // SOPMD high granularity, ps^2
    {142, format::u16, pct_u16, 8.0, 0.5, 0.0},     // EVM, %
    {143, format::s16, 0.01, 0.0, 0.05, -40.0},     // TX power, dBm
    {144, format::s16, 0.01, -11.5, 0.2, -40.0},    // RX total power, dBm
    {145, format::s16, 0.01, -12.0, 0.2, -40.0},    // RX signal power, dBm
    {147, format::u16, 0.1, 17.5, 0.3, 0.0},        // MER, dB
    {148, format::s16, pct_s16, 5.0, 1.0, 0.0},     // clock recovery loop, %
    {149, format::u16, 1.0, 12.0, 2.0, 0.0},        // SOPMD low granularity, ps^2
}};

const model* find_model(std::uint8_t type) {
    const auto it =
        std::find_if(models.begin(), models.end(), [&](const model& m) { return m.type == type; });
    return it == models.end() ? nullptr : &*it;
}

std::uint64_t splitmix64(std::uint64_t x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// Uniform in [-1, 1), the same for the same seed, type and tick.
double noise(std::uint64_t seed, std::uint64_t type, std::uint64_t tick) {
    const std::uint64_t h = splitmix64(seed ^ splitmix64(type << 48 ^ 0x5644ULL << 32 ^ tick));
    return 2.0 * (static_cast<double>(h >> 11) / static_cast<double>(1ULL << 53)) - 1.0;
}

double decode(format f, std::uint16_t raw) {
    switch (f) {
        case format::u16:
            return raw;
        case format::s16:
            return static_cast<std::int16_t>(raw);
        case format::f16:
            return cage::f16_to_double(raw);
    }
    return 0.0;
}

}  // namespace

vdm_pages::vdm_pages(module_emulator& module) : module_(module) {}

std::unique_ptr<vdm_pages> vdm_pages::install(module_emulator& module) {
    const auto& profile = module.profile();
    if (profile.family != module_family::cmis) return nullptr;
    const auto& pages = profile.image().pages;
    const auto adv = pages.find(advertising);
    const bool vdm = adv != pages.end() && (adv->second[vdm_advertised_at - 128] & vdm_bit) &&
                     pages.contains(descriptors(0)) && pages.contains(samples(0)) &&
                     pages.contains(flags_page) && pages.contains(control);
    const bool faults = pages.contains(fault_page);
    if (!vdm && !faults) return nullptr;
    auto self = std::make_unique<vdm_pages>(module);
    auto* p = self.get();
    if (vdm) {
        for (unsigned group = 0; group < 4; ++group)
            if (pages.contains(samples(group)))
                module.on_read(samples(group), 128, 255,
                               [p](page_id, std::uint8_t) { p->update_samples(); });
        module.on_read(flags_page, 128, 255,
                       [p](page_id page, std::uint8_t offset) { p->read_flag(page, offset); });
        module.on_write(
            control, freeze_at, freeze_at,
            [p](page_id, std::uint8_t, std::uint8_t value) { p->freeze_written(value); });
    }
    if (faults)
        module.on_read(fault_page, faults_at, post_fec_ber_at + 1,
                       [p](page_id page, std::uint8_t offset) { p->read_c8(page, offset); });
    return self;
}

std::optional<double> vdm_pages::value(std::uint8_t type, std::uint64_t tick, bool active,
                                       std::uint64_t seed) {
    const model* m = find_model(type);
    if (m == nullptr) return std::nullopt;
    if (!active) return m->idle;
    return m->nominal + m->noise * noise(seed, type, tick) +
           m->per_tick * static_cast<double>(tick);
}

std::uint16_t vdm_pages::encode(std::uint8_t type, double value) {
    const model* m = find_model(type);
    if (m == nullptr) throw std::invalid_argument("VDM type not modelled");
    const double raw = value / m->lsb;
    switch (m->fmt) {
        case format::u16:
            return static_cast<std::uint16_t>(std::clamp(std::lround(raw), 0L, 65535L));
        case format::s16:
            return static_cast<std::uint16_t>(
                static_cast<std::int16_t>(std::clamp(std::lround(raw), -32768L, 32767L)));
        case format::f16:
            return cage::double_to_f16(raw);
    }
    return 0;
}

double vdm_pages::post_fec_ber(std::uint64_t tick, bool active, std::uint64_t seed) {
    // An FEC that corrects everything but the odd burst.
    return active ? 2.0e-13 + 1.0e-13 * noise(seed, 0xC8, tick) : 0.0;
}

bool vdm_pages::ready() {
    return module_.cmis_module_state() == cmis_state::ready;
}

void vdm_pages::update_samples() {
    auto& mem = module_.memory();
    if (mem.peek(control, freeze_at) & freeze_request) return;  // frozen: samples hold
    const std::uint64_t tick = module_.monitor_tick();
    const bool active = ready();
    std::lock_guard lock(mutex_);
    if (last_tick_ == tick && last_ready_ == active) return;
    if (last_tick_ && tick < *last_tick_) latched_ = {};  // the module restarted
    last_tick_ = tick;
    last_ready_ = active;
    const unsigned groups = (mem.peek(control, groups_at) & 0x03u) + 1;
    const std::uint64_t seed = module_.profile().noise_seed;
    for (unsigned group = 0; group < groups; ++group) {
        if (!mem.has_page(descriptors(group)) || !mem.has_page(samples(group))) continue;
        for (unsigned slot = 0; slot < 64; ++slot) {
            const auto at = static_cast<std::uint8_t>(128 + 2 * slot);
            const std::uint8_t place = mem.peek(descriptors(group), at);
            const std::uint8_t type =
                mem.peek(descriptors(group), static_cast<std::uint8_t>(at + 1));
            const model* m = find_model(type);
            if (m == nullptr) {
                mem.poke16(samples(group), at, 0);
                continue;
            }
            const std::uint16_t raw = encode(type, *value(type, tick, active, seed));
            mem.poke16(samples(group), at, raw);
            if (!active || !mem.has_page(thresholds(group))) continue;
            // Flags only while the module runs: idle values are no alarm.
            const auto set = static_cast<std::uint8_t>(128 + 8 * (place >> 4));
            std::array<double, 4> limit{};
            bool any = false;
            for (unsigned w = 0; w < 4; ++w) {
                const std::uint16_t t =
                    mem.peek16(thresholds(group), static_cast<std::uint8_t>(set + 2 * w));
                any = any || t != 0;
                limit[w] = decode(m->fmt, t);
            }
            if (!any) continue;
            const double v = decode(m->fmt, raw);
            const unsigned bits = (v > limit[0] ? 0x1u : 0u) | (v < limit[1] ? 0x2u : 0u) |
                                  (v > limit[2] ? 0x4u : 0u) | (v < limit[3] ? 0x8u : 0u);
            latched_[32 * group + slot / 2] |=
                static_cast<std::uint8_t>(slot % 2 ? bits << 4 : bits);
        }
    }
}

void vdm_pages::read_flag(page_id page, std::uint8_t offset) {
    update_samples();
    std::lock_guard lock(mutex_);
    auto& byte = latched_[offset - 128u];
    module_.memory().poke(page, offset, byte);
    byte = 0;  // clear on read
}

void vdm_pages::freeze_written(std::uint8_t value) {
    auto& mem = module_.memory();
    const std::uint8_t done = mem.peek(control, freeze_done_at) & ~(freeze_done | unfreeze_done);
    mem.poke(
        control, freeze_done_at,
        static_cast<std::uint8_t>(done | ((value & freeze_request) ? freeze_done : unfreeze_done)));
}

void vdm_pages::read_c8(page_id page, std::uint8_t offset) {
    auto& mem = module_.memory();
    if (offset == faults_at) {
        const unsigned bank = mem.peek({}, bank_select) & 0x03u;
        std::lock_guard lock(mutex_);
        mem.poke(page, faults_at, faults_[bank]);
    } else if (offset == post_fec_ber_at) {
        // Both bytes at once, so that one read sees one value.
        mem.poke16(page, post_fec_ber_at,
                   cage::double_to_f16(post_fec_ber(module_.monitor_tick(), ready(),
                                                    module_.profile().noise_seed)));
    }
}

void vdm_pages::set_fault(unsigned bank, coherent_fault fault, bool on) {
    if (bank >= faults_.size()) throw std::invalid_argument("bank must be 0..3");
    const auto bit = static_cast<std::uint8_t>(1u << static_cast<unsigned>(fault));
    std::lock_guard lock(mutex_);
    faults_[bank] = static_cast<std::uint8_t>(on ? faults_[bank] | bit : faults_[bank] & ~bit);
}

void vdm_pages::clear_faults() {
    std::lock_guard lock(mutex_);
    faults_ = {};
}

std::uint8_t vdm_pages::faults(unsigned bank) const {
    std::lock_guard lock(mutex_);
    return bank < faults_.size() ? faults_[bank] : 0;
}

}  // namespace qsfpd::emu

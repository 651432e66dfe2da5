#include "module_profile.hpp"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "json_parse.hpp"

namespace qsfpd::emu {

namespace {

struct checksum_rule {
    std::uint8_t device;
    bool lower;  // in lower memory rather than page 00h
    std::uint8_t first, last, at;
    const char* name;
};

// Checksums each family carries. SFF-8636 page 00h CC_BASE (191) and CC_EXT (223); CMIS page 00h
// byte 222 over 128..221 (CMIS 4.0/5.x, upper page 00h); SFF-8472 A0h CC_BASE (63) and CC_EXT (95).
constexpr checksum_rule sff8636_sums[] = {
    {0x50, false, 128, 190, 191, "CC_BASE"},
    {0x50, false, 192, 222, 223, "CC_EXT"},
};
constexpr checksum_rule cmis_sums[] = {{0x50, false, 128, 221, 222, "page 00h checksum"}};
constexpr checksum_rule sff8472_sums[] = {
    {0x50, true, 0, 62, 63, "CC_BASE"},
    {0x50, true, 64, 94, 95, "CC_EXT"},
};

[[noreturn]] void fail(std::string_view origin, std::string_view field, std::string_view what) {
    throw profile_error(fmt::format("profile {}: field '{}': {}", origin, field, what));
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

module_memory::page_image parse_block(std::string_view hex, std::string_view origin,
                                      std::string_view field) {
    std::string digits;
    for (char c : hex)
        if (c != ' ') digits.push_back(c);
    if (digits.size() != 256)
        fail(origin, field,
             fmt::format("expected 256 hex digits (128 bytes), found {}", digits.size()));
    module_memory::page_image out{};
    for (std::size_t i = 0; i < out.size(); ++i) {
        const int hi = hex_digit(digits[2 * i]);
        const int lo = hex_digit(digits[2 * i + 1]);
        if (hi < 0 || lo < 0) fail(origin, field, fmt::format("not a hex digit at byte {}", i));
        out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
    }
    return out;
}

unsigned parse_number(std::string_view text, int base, std::string_view origin,
                      std::string_view field, unsigned max) {
    unsigned value = 0;
    if (text.empty()) fail(origin, field, "empty number");
    for (char c : text) {
        const int d = hex_digit(c);
        if (d < 0 || d >= base) fail(origin, field, fmt::format("bad number '{}'", text));
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(d);
        if (value > max) fail(origin, field, fmt::format("number '{}' out of range", text));
    }
    return value;
}

// "lower", "00", "b1:11", optionally prefixed "a0:" / "a2:" for the SFP of a converter.
struct block_key {
    std::uint8_t device = 0x50;
    bool lower = false;
    page_id page;
};

block_key parse_key(std::string_view key, std::string_view origin, std::string_view field) {
    block_key out;
    if (key.starts_with("a0:")) {
        key.remove_prefix(3);
    } else if (key.starts_with("a2:")) {
        out.device = 0x51;
        key.remove_prefix(3);
    }
    if (key == "lower") {
        out.lower = true;
        return out;
    }
    if (key.starts_with("b")) {
        const auto colon = key.find(':');
        if (colon == std::string_view::npos) fail(origin, field, "bank key must read bB:PP");
        out.page.bank = static_cast<std::uint8_t>(
            parse_number(key.substr(1, colon - 1), 10, origin, field, 255));
        key.remove_prefix(colon + 1);
    }
    out.page.page = static_cast<std::uint8_t>(parse_number(key, 16, origin, field, 255));
    return out;
}

const rapidjson::Value& member(const rapidjson::Value& obj, const char* name,
                               std::string_view origin) {
    auto it = obj.FindMember(name);
    if (it == obj.MemberEnd()) fail(origin, name, "missing");
    return it->value;
}

double number_or(const rapidjson::Value& obj, const char* name, double fallback,
                 std::string_view origin) {
    auto it = obj.FindMember(name);
    if (it == obj.MemberEnd()) return fallback;
    if (!it->value.IsNumber()) fail(origin, name, "must be a number");
    return it->value.GetDouble();
}

std::chrono::milliseconds ms_or(const rapidjson::Value& obj, const char* name,
                                std::chrono::milliseconds fallback, std::string_view origin) {
    // Bounded so that the value converts, and the clock's nanoseconds after it cannot overflow.
    constexpr double max_ms = 24.0 * 3600 * 1000;
    const double v = number_or(obj, name, static_cast<double>(fallback.count()), origin);
    if (v < 0) fail(origin, name, "must not be negative");
    if (!(v <= max_ms)) fail(origin, name, "must be at most 86400000 (a day)");
    return std::chrono::milliseconds(static_cast<long long>(v));
}

monitor_model monitor_or(const rapidjson::Value& obj, const char* name, monitor_model fallback,
                         std::string_view origin) {
    auto it = obj.FindMember(name);
    if (it == obj.MemberEnd()) return fallback;
    if (!it->value.IsObject()) fail(origin, name, "must be an object {nominal, noise}");
    monitor_model out;
    out.nominal = number_or(it->value, "nominal", fallback.nominal, origin);
    out.noise = number_or(it->value, "noise", fallback.noise, origin);
    if (out.noise < 0) fail(origin, name, "noise must not be negative");
    return out;
}

void check_sums(const module_profile& p, std::span<const checksum_rule> rules,
                std::string_view origin) {
    for (const auto& r : rules) {
        const auto& img = p.image(r.device);
        const page_id page{};
        if (!r.lower && !img.pages.contains(page)) fail(origin, "pages.00", "missing");
        const std::uint8_t want = checksum(img, page, r.first, r.last);
        const std::uint8_t have = r.lower ? img.lower[r.at] : img.pages.at(page)[r.at - 128];
        if (want != have)
            fail(origin, fmt::format("{}byte {} ({})", r.device == 0x51 ? "a2:" : "", r.at, r.name),
                 fmt::format("checksum is {:02x}h, the sum of bytes {}..{} is {:02x}h", have,
                             r.first, r.last, want));
    }
}

}  // namespace

std::string_view to_string(module_family family) {
    switch (family) {
        case module_family::sff8636:
            return "sff8636";
        case module_family::cmis:
            return "cmis";
        case module_family::sff8472_converter:
            return "sff8472-converter";
    }
    return "?";
}

std::uint8_t checksum(const memory_image& image, page_id page, std::uint8_t first,
                      std::uint8_t last) {
    unsigned sum = 0;
    for (unsigned i = first; i <= last; ++i)
        sum += i < 128 ? image.lower[i] : image.pages.at(page)[i - 128];
    return static_cast<std::uint8_t>(sum & 0xff);
}

const memory_image& module_profile::image(std::uint8_t device_address) const {
    auto it = memories.find(device_address);
    if (it == memories.end())
        throw std::out_of_range(
            fmt::format("profile {}: no memory at {:02x}h", name, device_address));
    return it->second;
}

module_profile module_profile::parse(std::string_view json, std::string_view origin) {
    rapidjson::Document doc;
    if (const auto parsed = qsfpd::parse_json(json.data(), json.size(), doc); !parsed)
        fail(origin, "(document)", "JSON error: " + parsed.message());
    if (!doc.IsObject()) fail(origin, "(document)", "must be a JSON object");

    module_profile p;
    p.file = std::string(origin);
    const auto& name = member(doc, "name", origin);
    if (!name.IsString()) fail(origin, "name", "must be a string");
    p.name = name.GetString();
    if (auto it = doc.FindMember("description"); it != doc.MemberEnd() && it->value.IsString())
        p.description = it->value.GetString();

    const auto& family = member(doc, "family", origin);
    const std::string_view fam = family.IsString() ? family.GetString() : "";
    if (fam == "sff8636")
        p.family = module_family::sff8636;
    else if (fam == "cmis")
        p.family = module_family::cmis;
    else if (fam == "sff8472-converter")
        p.family = module_family::sff8472_converter;
    else
        fail(origin, "family", "must be one of sff8636, cmis, sff8472-converter");

    const auto& lanes = member(doc, "lanes", origin);
    if (!lanes.IsUint() || lanes.GetUint() < 1 || lanes.GetUint() > 16)
        fail(origin, "lanes", "must be an integer 1..16");
    p.lanes = lanes.GetUint();
    if (p.family == module_family::sff8636 && p.lanes > 4) fail(origin, "lanes", "SFF-8636 has 4");
    if (p.family == module_family::sff8472_converter && p.lanes != 1)
        fail(origin, "lanes", "an SFP has 1 lane");

    const auto& pages = member(doc, "pages", origin);
    if (!pages.IsObject()) fail(origin, "pages", "must be an object of hex blocks");
    for (auto it = pages.MemberBegin(); it != pages.MemberEnd(); ++it) {
        const std::string field = std::string("pages.") + it->name.GetString();
        if (!it->value.IsString()) fail(origin, field, "must be a hex string");
        const auto key = parse_key(it->name.GetString(), origin, field);
        if (key.device == 0x51 && p.family != module_family::sff8472_converter)
            fail(origin, field, "A2h blocks belong to a converter profile");
        if (p.family == module_family::cmis && key.page.bank != 0 &&
            (key.page.page < 0x10 || key.page.page > 0x1f))
            fail(origin, field, "only pages 10h..1Fh are banked");
        auto& img = p.memories[key.device];
        const auto block = parse_block(it->value.GetString(), origin, field);
        if (key.lower)
            img.lower = block;
        else
            img.pages[key.page] = block;
    }
    const std::uint8_t main_device = 0x50;
    if (!p.memories.contains(main_device) || !p.memories[main_device].pages.contains(page_id{}))
        fail(origin, p.family == module_family::sff8472_converter ? "pages.a0:00" : "pages.00",
             "missing");

    if (auto it = doc.FindMember("writable"); it != doc.MemberEnd()) {
        if (!it->value.IsArray()) fail(origin, "writable", "must be an array");
        for (const auto& w : it->value.GetArray()) {
            if (!w.IsObject()) fail(origin, "writable", "entries must be objects");
            const auto& page = member(w, "page", origin);
            if (!page.IsString()) fail(origin, "writable.page", "must be a string");
            const auto key = parse_key(page.GetString(), origin, "writable.page");
            const auto& from = member(w, "from", origin);
            const auto& to = member(w, "to", origin);
            if (!from.IsUint() || !to.IsUint() || from.GetUint() > to.GetUint() ||
                to.GetUint() > 255 || (from.GetUint() < 128) != (to.GetUint() < 128) ||
                (from.GetUint() < 128) != key.lower)
                fail(origin, fmt::format("writable[{}]", page.GetString()),
                     "from/to must be a range within the block (0..127 lower, 128..255 a page)");
            writable_range r;
            r.page = key.page;
            r.first = static_cast<std::uint8_t>(from.GetUint());
            r.last = static_cast<std::uint8_t>(to.GetUint());
            if (auto m = w.FindMember("mask"); m != w.MemberEnd()) {
                if (!m->value.IsUint() || m->value.GetUint() > 255)
                    fail(origin, "writable.mask", "must be 0..255");
                r.mask = static_cast<std::uint8_t>(m->value.GetUint());
            }
            auto img = p.memories.find(key.device);
            if (img == p.memories.end() || (!key.lower && !img->second.pages.contains(key.page)))
                fail(origin, fmt::format("writable[{}]", page.GetString()), "no such block");
            img->second.writable.push_back(r);
        }
    }

    if (auto it = doc.FindMember("behaviour"); it != doc.MemberEnd()) {
        const auto& b = it->value;
        if (!b.IsObject()) fail(origin, "behaviour", "must be an object");
        p.i2c_not_ready = ms_or(b, "i2c_not_ready_ms", p.i2c_not_ready, origin);
        p.power_up = ms_or(b, "power_up_ms", p.power_up, origin);
        p.power_down = ms_or(b, "power_down_ms", p.power_down, origin);
        p.monitor_period = ms_or(b, "monitor_period_ms", p.monitor_period, origin);
        if (p.monitor_period.count() == 0) fail(origin, "monitor_period_ms", "must be > 0");
        p.config_check = ms_or(b, "config_check_ms", p.config_check, origin);
        if (auto q = b.FindMember("config_success_keeps_old_active_set"); q != b.MemberEnd()) {
            if (!q->value.IsBool())
                fail(origin, "behaviour.config_success_keeps_old_active_set",
                     "must be true or false");
            p.config_success_keeps_old_active_set = q->value.GetBool();
        }
        if (auto u = b.FindMember("unsupported_page"); u != b.MemberEnd()) {
            const std::string_view v = u->value.IsString() ? u->value.GetString() : "";
            if (v == "reject")
                p.page_policy = unsupported_page::reject;
            else if (v == "read_ff")
                p.page_policy = unsupported_page::read_ff;
            else
                fail(origin, "behaviour.unsupported_page", "must be reject or read_ff");
        }
        p.sfp_tuning = ms_or(b, "sfp_tuning_ms", p.sfp_tuning, origin);
        p.sfp_voa_settle = ms_or(b, "sfp_voa_settle_ms", p.sfp_voa_settle, origin);
    }
    if (auto it = doc.FindMember("monitors"); it != doc.MemberEnd()) {
        const auto& m = it->value;
        if (!m.IsObject()) fail(origin, "monitors", "must be an object");
        p.temperature_c = monitor_or(m, "temperature_c", p.temperature_c, origin);
        p.vcc_v = monitor_or(m, "vcc_v", p.vcc_v, origin);
        p.bias_ma = monitor_or(m, "bias_ma", p.bias_ma, origin);
        p.tx_power_mw = monitor_or(m, "tx_power_mw", p.tx_power_mw, origin);
        p.rx_power_mw = monitor_or(m, "rx_power_mw", p.rx_power_mw, origin);
        if (auto s = m.FindMember("seed"); s != m.MemberEnd()) {
            if (!s->value.IsUint64()) fail(origin, "monitors.seed", "must be an unsigned integer");
            p.noise_seed = s->value.GetUint64();
        }
    }

    if (auto it = doc.FindMember("coherent"); it != doc.MemberEnd()) {
        const auto& c = it->value;
        if (!c.IsObject()) fail(origin, "coherent", "must be an object");
        coherent_model m;
        m.tuning = ms_or(c, "tuning_ms", m.tuning, origin);
        m.lock_delay = ms_or(c, "lock_delay_ms", m.lock_delay, origin);
        const auto rate = [&](const char* name, double fallback) {
            const double v = number_or(c, name, fallback, origin);
            if (v < 0) fail(origin, std::string("coherent.") + name, "must not be negative");
            return v;
        };
        m.pre_fec_ber = rate("pre_fec_ber", m.pre_fec_ber);
        m.uncorrectable_per_s = rate("uncorrectable_per_s", m.uncorrectable_per_s);
        m.prbs_ber = rate("prbs_ber", m.prbs_ber);
        m.host_ber = rate("host_ber", m.host_ber);
        m.cd_high_range = rate("cd_high_range_ps_nm", m.cd_high_range);
        m.cd_search_low = number_or(c, "cd_search_low_ps_nm", m.cd_search_low, origin);
        m.cd_search_high = number_or(c, "cd_search_high_ps_nm", m.cd_search_high, origin);
        m.laser_age = rate("laser_age_pct", m.laser_age);
        m.q_db = monitor_or(c, "q_db", m.q_db, origin);
        m.q_margin_db = monitor_or(c, "q_margin_db", m.q_margin_db, origin);
        m.osnr_db = monitor_or(c, "osnr_db", m.osnr_db, origin);
        m.esnr_db = monitor_or(c, "esnr_db", m.esnr_db, origin);
        m.cd = monitor_or(c, "cd_ps_nm", m.cd, origin);
        m.dgd_ps = monitor_or(c, "dgd_ps", m.dgd_ps, origin);
        m.pdl_db = monitor_or(c, "pdl_db", m.pdl_db, origin);
        m.cfo_mhz = monitor_or(c, "cfo_mhz", m.cfo_mhz, origin);
        m.sop_roc_krad_s = monitor_or(c, "sop_roc_krad_s", m.sop_roc_krad_s, origin);
        m.errored_frames = monitor_or(c, "errored_frames", m.errored_frames, origin);
        m.signal_below_total_db = rate("signal_below_total_db", m.signal_below_total_db);
        p.coherent = m;
    }

    // Identifier (byte 0) per family: SFF-8024 identifier codes.
    const std::uint8_t id = p.image().lower[0];
    switch (p.family) {
        case module_family::sff8636:
            if (id != 0x0c && id != 0x0d && id != 0x11)
                fail(origin, "pages.lower byte 0", "SFF-8636 identifier must be 0Ch, 0Dh or 11h");
            check_sums(p, sff8636_sums, origin);
            break;
        case module_family::cmis:
            if (id != 0x18 && id != 0x19 && id != 0x1e)
                fail(origin, "pages.lower byte 0", "CMIS identifier must be 18h, 19h or 1Eh");
            if (p.image().pages.at({})[0] != id)
                fail(origin, "pages.00 byte 128", "must repeat the identifier of byte 0");
            check_sums(p, cmis_sums, origin);
            break;
        case module_family::sff8472_converter:
            if (id != 0x03) fail(origin, "pages.a0:lower byte 0", "SFP identifier must be 03h");
            check_sums(p, sff8472_sums, origin);
            if (p.image().lower[92] & 0x40) {  // diagnostics implemented: A2h must be there
                if (!p.memories.contains(0x51)) fail(origin, "pages.a2:lower", "missing");
                const checksum_rule dmi{0x51, true, 0, 94, 95, "CC_DMI"};
                check_sums(p, std::span(&dmi, 1), origin);
            }
            break;
    }
    return p;
}

module_profile module_profile::load(const std::filesystem::path& file) {
    std::ifstream in(file);
    if (!in) throw profile_error(fmt::format("profile {}: cannot open", file.string()));
    std::stringstream text;
    text << in.rdbuf();
    return parse(text.str(), file.string());
}

std::filesystem::path module_profile::directory() {
    return QSFP_EMU_PROFILE_DIR;
}

module_profile module_profile::load_named(std::string_view stem) {
    return load(directory() / (std::string(stem) + ".json"));
}

std::vector<std::filesystem::path> module_profile::all_files() {
    std::vector<std::filesystem::path> out;
    for (const auto& e : std::filesystem::directory_iterator(directory()))
        if (e.path().extension() == ".json") out.push_back(e.path());
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace qsfpd::emu

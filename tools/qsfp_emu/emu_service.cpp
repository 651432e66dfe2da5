#include "emu_service.hpp"

#include <fmt/format.h>

#include <cerrno>

#include "coherent_module.hpp"
#include "dh_error.hpp"
#include "dh_json.hpp"
#include "hex_bytes.hpp"
#include "module_profile.hpp"
#include "msg_log.hpp"
#include "remote_cage_server.hpp"
#include "rpc_processor.hpp"

namespace qsfpd::emu {
namespace {

[[noreturn]] void invalid(const std::string& text) {
    throw dh_error(dh::rpc::invalid_params, "Invalid params: " + text);
}

const rapidjson::Value* find(const rapidjson::Value* params, const char* name) {
    if (params == nullptr || !params->IsObject()) return nullptr;
    auto it = params->FindMember(name);
    return it == params->MemberEnd() ? nullptr : &it->value;
}

unsigned uint_param(const rapidjson::Value* params, const char* name, unsigned max,
                    std::optional<unsigned> fallback = std::nullopt) {
    const auto* v = find(params, name);
    if (v == nullptr) {
        if (fallback) return *fallback;
        invalid(std::string("'") + name + "' is required");
    }
    if (!v->IsUint() || v->GetUint() > max)
        invalid(std::string("'") + name + "' must be an integer 0.." + std::to_string(max));
    return v->GetUint();
}

std::string string_param(const rapidjson::Value* params, const char* name,
                         std::optional<std::string> fallback = std::nullopt) {
    const auto* v = find(params, name);
    if (v == nullptr) {
        if (fallback) return *fallback;
        invalid(std::string("'") + name + "' is required");
    }
    if (!v->IsString()) invalid(std::string("'") + name + "' must be a string");
    return v->GetString();
}

// Flat module address as the daemon uses it: lower page bytes 0..127 as themselves, upper page
// p byte b (128..255) at p * 128 + b.
page_id page_of(unsigned flat, unsigned bank, std::uint8_t& offset) {
    if (flat < 128) {
        offset = static_cast<std::uint8_t>(flat);
        return page_id{0, 0};
    }
    offset = static_cast<std::uint8_t>(128 + flat % 128);
    return page_id{static_cast<std::uint8_t>(bank), static_cast<std::uint8_t>(flat / 128 - 1)};
}

bool bool_param(const rapidjson::Value* params, const char* name, bool fallback) {
    const auto* v = find(params, name);
    if (v == nullptr) return fallback;
    if (!v->IsBool()) invalid(std::string("'") + name + "' must be true or false");
    return v->GetBool();
}

// A rate given as a JSON number or as text ("2e-4", as `qsfp-emu ctl ber 0 2e-4` sends it).
std::optional<double> rate_param(const rapidjson::Value* params, const char* name) {
    const auto* v = find(params, name);
    if (v == nullptr) return std::nullopt;
    double out = -1;
    if (v->IsNumber()) {
        out = v->GetDouble();
    } else if (v->IsString()) {
        try {
            std::size_t used = 0;
            out = std::stod(v->GetString(), &used);
            if (used != v->GetStringLength()) out = -1;
        } catch (const std::exception&) {
            out = -1;
        }
    }
    if (!(out >= 0)) invalid(std::string("'") + name + "' must be a number >= 0");
    return out;
}

coherent_module& coherent_of(module_emulator& module) {
    auto* c = module.coherent();
    if (c == nullptr) throw dh_error(dh::errc::invalid, "Not a coherent module");
    return *c;
}

lane_flag flag_named(const std::string& name) {
    static const std::pair<const char*, lane_flag> names[] = {
        {"tx_fault", lane_flag::tx_fault}, {"tx_los", lane_flag::tx_los},
        {"tx_lol", lane_flag::tx_lol},     {"rx_los", lane_flag::rx_los},
        {"rx_lol", lane_flag::rx_lol},
    };
    for (const auto& [text, flag] : names)
        if (name == text) return flag;
    invalid("'flag' must be tx_fault, tx_los, tx_lol, rx_los or rx_lol");
}

coherent_fault coherent_fault_named(const std::string& name) {
    static const std::pair<const char*, coherent_fault> names[] = {
        {"tx_remote", coherent_fault::tx_remote},
        {"tx_local", coherent_fault::tx_local},
        {"rx_remote", coherent_fault::rx_remote},
        {"rx_local", coherent_fault::rx_local},
    };
    for (const auto& [text, fault] : names)
        if (name == text) return fault;
    invalid("'flag' must be tx_remote, tx_local, rx_remote or rx_local");
}

}  // namespace

emu_service::emu_service(options opts, std::shared_ptr<clock> clk)
    : options_(std::move(opts)),
      clock_(std::move(clk)),
      bus_(std::make_shared<emu_bus>(clock_, options_.bus_speed_hz)) {
    std::filesystem::create_directories(options_.dir);
    device_handler_api::limits limits;
    limits.worker_threads = 1;
    for (unsigned i = 0; i < options_.cages; ++i) {
        auto cage = std::make_shared<cage_emulator>(clock_, bus_, fmt::format("qsfp{}", i));
        auto server =
            std::make_unique<device_handler_api>(cage_socket(i).string(), 0, true, limits, false);
        remote::serve_cage(*server, cage);
        cages_.push_back(std::move(cage));
        cage_servers_.push_back(std::move(server));
    }
    control_server_ = std::make_unique<device_handler_api>(control_socket().string(), 0, true,
                                                           limits, options_.handle_signals);
    add_control_methods();
}

emu_service::~emu_service() {
    stop();
    for (auto& t : threads_)
        if (t.joinable()) t.join();
}

cage_emulator& emu_service::cage(unsigned index) {
    return *cages_.at(index);
}

std::filesystem::path emu_service::cage_socket(unsigned index) const {
    return options_.dir / fmt::format("qsfp{}", index);
}

std::filesystem::path emu_service::control_socket() const {
    return options_.dir / "control";
}

void emu_service::insert(unsigned index, const std::string& profile) {
    if (index >= cages_.size()) throw std::out_of_range(fmt::format("no cage {}", index));
    const bool is_path = profile.find('/') != std::string::npos || profile.ends_with(".json");
    cages_[index]->insert(is_path ? module_profile::load(profile)
                                  : module_profile::load_named(profile));
}

void emu_service::run() {
    for (auto& server : cage_servers_)
        threads_.emplace_back([&s = *server] { s.start(); });
    control_server_->start();
    // The control server ends on stop() or a signal; the cages follow.
    for (auto& server : cage_servers_)
        server->stop();
    for (auto& t : threads_)
        if (t.joinable()) t.join();
    threads_.clear();
}

void emu_service::stop() {
    for (auto& server : cage_servers_)
        server->stop();
    if (control_server_) control_server_->stop();
}

unsigned emu_service::cage_param(const rapidjson::Value* params) const {
    const unsigned index = uint_param(params, "cage", 1023);
    if (index >= cages_.size()) invalid(fmt::format("'cage' must be below {}", cages_.size()));
    return index;
}

std::string emu_service::control(const std::string& method, const rapidjson::Value* params) {
    if (method == "insert") {
        const unsigned index = cage_param(params);
        const std::string profile = string_param(params, "profile");
        try {
            insert(index, profile);
        } catch (const std::exception& e) {
            throw dh_error(dh::errc::invalid,
                           fmt::format("Cannot insert {}: {}", profile, e.what()));
        }
        MSG_LOG(msg_log::info, "qsfp-emu") << "Inserted " << profile << " into cage " << index;
        return "true";
    }
    if (method == "remove") {
        const unsigned index = cage_param(params);
        cages_[index]->remove();
        MSG_LOG(msg_log::info, "qsfp-emu") << "Removed the module of cage " << index;
        return "true";
    }
    if (method == "pins") {
        auto& c = *cages_[cage_param(params)];
        std::string out = "{";
        out += fmt::format(R"("present":{})", c.module_present());
        static const std::pair<const char*, unsigned> lines[] = {
            {"lpmode", cage::line::lpmode},
            {"reset", cage::line::reset},
            {"led_tx_yellow", cage::line::tx_led_yellow},
            {"led_tx_green", cage::line::tx_led_green},
            {"led_rx_yellow", cage::line::rx_led_yellow},
            {"led_rx_green", cage::line::rx_led_green},
        };
        for (const auto& [name, line] : lines)
            out += fmt::format(R"(,"{}":{})", name, c.pin_get(line));
        // A converter's SFP signals (TX fault and LOS as the SFP drives them, TX disable and
        // rate select as the host does).
        if (auto* m = c.module(); m && m->profile().family == module_family::sff8472_converter) {
            static const std::pair<const char*, cage::sfp_signal> signals[] = {
                {"sfp_tx_fault", cage::sfp_signal::tx_fault},
                {"sfp_los", cage::sfp_signal::los},
                {"sfp_tx_disable", cage::sfp_signal::tx_disable},
                {"sfp_rate_select", cage::sfp_signal::rate_select},
            };
            for (const auto& [name, signal] : signals)
                out += fmt::format(R"(,"{}":{})", name, m->sfp_signal(signal));
        }
        return out + "}";
    }
    if (method == "counters") return bus_->snapshot_json();
    if (method == "peek" || method == "poke") {
        auto& c = *cages_[cage_param(params)];
        auto* module = c.module();
        if (module == nullptr) throw dh_error(-ENXIO, "No module in the cage");
        const unsigned address = uint_param(params, "address", 0x7fff);
        const unsigned bank = uint_param(params, "bank", 255, 0u);
        const auto device =
            static_cast<std::uint8_t>(uint_param(params, "device", 0x7f, cage::module_address));
        if (method == "peek") {
            const unsigned length = uint_param(params, "length", 4096, 1u);
            std::vector<std::uint8_t> bytes;
            for (unsigned i = 0; i < length; ++i) {
                std::uint8_t offset = 0;
                const auto page = page_of(address + i, bank, offset);
                bytes.push_back(module->peek(page, offset, device));
            }
            // Built by appending: GCC 12 sees a false overlap in "\"" + ... (-Wrestrict).
            std::string quoted(1, '"');
            quoted += to_hex(bytes);
            quoted += '"';
            return quoted;
        }
        std::vector<std::uint8_t> bytes;
        try {
            bytes = from_hex(string_param(params, "bytes"));
        } catch (const std::invalid_argument& e) {
            invalid(std::string("'bytes': ") + e.what());
        }
        for (unsigned i = 0; i < bytes.size(); ++i) {
            std::uint8_t offset = 0;
            const auto page = page_of(address + i, bank, offset);
            module->poke(page, offset, bytes[i], device);
        }
        return "true";
    }
    if (method == "fault") {
        auto& c = *cages_[cage_param(params)];
        const std::string kind = string_param(params, "kind");
        const int error = static_cast<int>(uint_param(params, "errno", 4095, ENXIO));
        if (kind == "nack" || kind == "errno") {
            c.fail_next(uint_param(params, "count", 1'000'000, 1u), kind == "nack" ? ENXIO : error);
        } else if (kind == "at") {
            c.fail_at(
                static_cast<std::uint8_t>(uint_param(params, "device", 0x7f, cage::module_address)),
                static_cast<std::uint8_t>(uint_param(params, "first", 255)),
                static_cast<std::uint8_t>(uint_param(params, "last", 255)), error,
                uint_param(params, "count", 1'000'000, 0u));
        } else if (kind == "clear") {
            c.clear_faults();
            if (auto* m = c.module()) {
                m->stop_flaps();
                m->unstick_all();
                m->ignore_low_power_requests(false);
                m->hold_data_path_init(false);
                if (auto* coherent = m->coherent()) coherent->clear_faults();
                if (auto* pages = m->vdm()) pages->clear_faults();
            }
        } else {
            auto* module = c.module();
            if (module == nullptr) throw dh_error(-ENXIO, "No module in the cage");
            if (kind == "flap") {
                const auto step = string_param(params, "step", std::string("poll"));
                if (step != "poll" && step != "period") invalid("'step' must be poll or period");
                const auto* repeat = find(params, "repeat");
                module->flap(
                    flag_named(string_param(params, "flag")), uint_param(params, "lane", 7, 0u),
                    string_param(params, "pattern"),
                    step == "poll" ? flap_step::per_poll : flap_step::per_period,
                    std::chrono::milliseconds(uint_param(params, "period_ms", 3'600'000, 100u)),
                    repeat == nullptr || !repeat->IsBool() || repeat->GetBool());
            } else if (kind == "stick") {
                std::uint8_t offset = 0;
                const auto page = page_of(uint_param(params, "address", 0x7fff),
                                          uint_param(params, "bank", 255, 0u), offset);
                std::vector<std::uint8_t> bytes;
                try {
                    bytes = from_hex(string_param(params, "bytes"));
                } catch (const std::invalid_argument& e) {
                    invalid(std::string("'bytes': ") + e.what());
                }
                module->stick(page, offset, bytes);
            } else if (kind == "module_fault") {
                module->force_fault();
            } else if (kind == "no_low_power") {
                module->ignore_low_power_requests(bool_param(params, "on", true));
            } else if (kind == "stall_dp_init") {
                module->hold_data_path_init(bool_param(params, "on", true));
            } else if (kind == "stall_tuning") {
                coherent_of(*module).stall_tuning(bool_param(params, "on", true));
            } else if (kind == "lock_flap") {
                const auto locks = string_param(params, "locks", std::string("both"));
                if (locks != "rx" && locks != "tx" && locks != "both")
                    invalid("'locks' must be rx, tx or both");
                coherent_of(*module).flap_locks(
                    string_param(params, "pattern"),
                    std::chrono::milliseconds(uint_param(params, "period_ms", 3'600'000, 100u)),
                    locks == "rx"   ? 0x01
                    : locks == "tx" ? 0x02
                                    : 0x03);
            } else if (kind == "coherent") {
                // CMIS 5 coherent fault flags of page C8h, one bank of 8 host lanes.
                auto* pages = module->vdm();
                if (pages == nullptr) throw dh_error(-ENOTSUP, "The module has no page C8h");
                const auto* on = find(params, "on");
                if (on != nullptr && !on->IsBool()) invalid("'on' must be true or false");
                pages->set_fault(uint_param(params, "bank", 3, 0u),
                                 coherent_fault_named(string_param(params, "flag")),
                                 on == nullptr || on->GetBool());
            } else {
                invalid(
                    "'kind' must be nack, errno, at, flap, stick, module_fault, no_low_power, "
                    "stall_dp_init, stall_tuning, lock_flap, coherent or clear");
            }
        }
        return "true";
    }
    if (method == "ber") {
        auto& c = *cages_[cage_param(params)];
        auto* module = c.module();
        if (module == nullptr) throw dh_error(-ENXIO, "No module in the cage");
        auto& coherent = coherent_of(*module);
        if (const auto v = rate_param(params, "pre_fec")) coherent.set_pre_fec_ber(*v);
        if (const auto v = rate_param(params, "prbs")) coherent.set_prbs_ber(*v);
        if (const auto v = rate_param(params, "host")) coherent.set_host_ber(*v);
        if (const auto v = rate_param(params, "uncorrectable_per_s"))
            coherent.set_uncorrectable_per_s(*v);
        return fmt::format(R"({{"pre_fec":{},"prbs":{}}})", coherent.pre_fec_ber(),
                           coherent.prbs_ber());
    }
    throw dh_error(dh::rpc::method_not_found, "Method not found: " + method);
}

void emu_service::add_control_methods() {
    for (const char* method :
         {"insert", "remove", "fault", "peek", "poke", "pins", "counters", "ber"}) {
        control_server_->add_method(
            method, [this, name = std::string(method)](const rapidjson::Value* params) {
                try {
                    return control(name, params);
                } catch (const dh_error&) {
                    throw;
                } catch (const std::exception& e) {
                    throw dh_error(dh::errc::invalid, e.what());
                }
            });
    }
}

}  // namespace qsfpd::emu

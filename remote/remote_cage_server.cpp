#include "remote_cage_server.hpp"

#include <system_error>

#include "dh_error.hpp"
#include "hex_bytes.hpp"
#include "remote_cage_protocol.hpp"
#include "rpc_processor.hpp"

namespace qsfpd::remote {
namespace {

[[noreturn]] void invalid(const std::string& text) {
    throw dh_error(dh::rpc::invalid_params, "Invalid params: " + text);
}

const rapidjson::Value& member(const rapidjson::Value* params, const char* name) {
    if (params == nullptr || !params->IsObject()) invalid("an object is required");
    auto it = params->FindMember(name);
    if (it == params->MemberEnd()) invalid(std::string("'") + name + "' is required");
    return it->value;
}

unsigned number(const rapidjson::Value* params, const char* name, unsigned max) {
    const auto& v = member(params, name);
    if (!v.IsUint() || v.GetUint() > max)
        invalid(std::string("'") + name + "' must be 0.." + std::to_string(max));
    return v.GetUint();
}

bool flag(const rapidjson::Value* params, const char* name) {
    const auto& v = member(params, name);
    if (!v.IsBool()) invalid(std::string("'") + name + "' must be a boolean");
    return v.GetBool();
}

cage::sfp_signal signal_of(const rapidjson::Value* params) {
    const auto& v = member(params, "signal");
    if (v.IsString()) {
        const std::string_view s = v.GetString();
        if (s == "tx_fault") return cage::sfp_signal::tx_fault;
        if (s == "tx_disable") return cage::sfp_signal::tx_disable;
        if (s == "los") return cage::sfp_signal::los;
        if (s == "rate_select") return cage::sfp_signal::rate_select;
    }
    invalid("'signal' must be tx_fault, tx_disable, los or rate_select");
}

// A failed transfer goes back as its negative errno, which the client turns into system_error.
template <class F>
std::string transfer(F&& f) {
    try {
        return f();
    } catch (const std::system_error& e) {
        throw dh_error(-e.code().value(), e.what());
    }
}

}  // namespace

void serve_cage(device_handler_api& server, std::shared_ptr<cage::qsfp_transport> cage) {
    server.add_method(i2c_read, [cage](const rapidjson::Value* p) {
        const auto address = static_cast<std::uint8_t>(number(p, "address", 0x7f));
        const auto offset = static_cast<std::uint8_t>(number(p, "offset", 255));
        const unsigned length = number(p, "length", 256);
        return transfer([&] {
            std::vector<std::uint8_t> bytes(length);
            cage->i2c_read(address, offset, bytes);
            // Appended rather than `"\"" + to_hex(...)`: GCC 12 at -O2 sees a false overlap in
            // the prepend (-Wrestrict).
            std::string quoted(1, '"');
            quoted += to_hex(bytes);
            quoted += '"';
            return quoted;
        });
    });
    server.add_method(i2c_write, [cage](const rapidjson::Value* p) {
        const auto address = static_cast<std::uint8_t>(number(p, "address", 0x7f));
        const auto offset = static_cast<std::uint8_t>(number(p, "offset", 255));
        const auto& data = member(p, "data");
        if (!data.IsString()) invalid("'data' must be a hex string");
        std::vector<std::uint8_t> bytes;
        try {
            bytes = from_hex(data.GetString());
        } catch (const std::invalid_argument& e) {
            invalid(std::string("'data': ") + e.what());
        }
        return transfer([&] {
            cage->i2c_write(address, offset, bytes);
            return std::string("true");
        });
    });
    server.add_method(pin_get, [cage](const rapidjson::Value* p) {
        const unsigned line = number(p, "line", 63);
        return transfer([&] { return std::string(cage->pin_get(line) ? "true" : "false"); });
    });
    server.add_method(pin_set, [cage](const rapidjson::Value* p) {
        const unsigned line = number(p, "line", 63);
        const bool value = flag(p, "value");
        return transfer([&] {
            cage->pin_set(line, value);
            return std::string("true");
        });
    });
    server.add_method(present, [cage](const rapidjson::Value*) {
        return transfer([&] { return std::string(cage->module_present() ? "true" : "false"); });
    });
    server.add_method(sfp_get, [cage](const rapidjson::Value* p) {
        const auto signal = signal_of(p);
        return transfer(
            [&] { return std::string(cage->sfp_signal_get(signal) ? "true" : "false"); });
    });
    server.add_method(sfp_set, [cage](const rapidjson::Value* p) {
        const auto signal = signal_of(p);
        const bool value = flag(p, "value");
        return transfer([&] {
            cage->sfp_signal_set(signal, value);
            return std::string("true");
        });
    });
}

}  // namespace qsfpd::remote

#include "remote_cage_transport.hpp"

#include <system_error>

#include "hex_bytes.hpp"
#include "remote_cage_protocol.hpp"

namespace qsfpd::remote {
namespace {

class params_builder {
  public:
    params_builder() : doc_(rapidjson::kObjectType) {}
    params_builder& add(const char* key, unsigned v) {
        doc_.AddMember(rapidjson::StringRef(key), v, doc_.GetAllocator());
        return *this;
    }
    params_builder& add(const char* key, bool v) {
        doc_.AddMember(rapidjson::StringRef(key), v, doc_.GetAllocator());
        return *this;
    }
    params_builder& add(const char* key, const std::string& v) {
        doc_.AddMember(rapidjson::StringRef(key), rapidjson::Value(v.c_str(), doc_.GetAllocator()),
                       doc_.GetAllocator());
        return *this;
    }
    const rapidjson::Document& doc() const { return doc_; }

  private:
    rapidjson::Document doc_;
};

std::string signal_name(cage::sfp_signal s) {
    switch (s) {
        case cage::sfp_signal::tx_fault:
            return "tx_fault";
        case cage::sfp_signal::tx_disable:
            return "tx_disable";
        case cage::sfp_signal::los:
            return "los";
        case cage::sfp_signal::rate_select:
            return "rate_select";
    }
    return "?";
}

bool as_bool(const rapidjson::Document& d) {
    if (!d.IsBool())
        throw std::system_error(EPROTO, std::generic_category(), "cage answered a non-boolean");
    return d.GetBool();
}

}  // namespace

remote_cage_transport::remote_cage_transport(std::string socket_path)
    : client_(std::move(socket_path)) {}

rapidjson::Document remote_cage_transport::call(const char* method,
                                                const rapidjson::Value& params) {
    try {
        return client_.call(method, params);
    } catch (const dh_error& e) {
        // Negative errno values come from the cage; anything else is a protocol failure.
        const int code = -e.code();
        if (code > 0 && code < 4096)
            throw std::system_error(code, std::generic_category(),
                                    client_.target() + ": " + e.text());
        throw std::system_error(EPROTO, std::generic_category(),
                                client_.target() + ": " + e.text());
    }
}

void remote_cage_transport::i2c_read(std::uint8_t device_address, std::uint8_t offset,
                                     std::span<std::uint8_t> out) {
    params_builder p;
    p.add("address", unsigned{device_address})
        .add("offset", unsigned{offset})
        .add("length", static_cast<unsigned>(out.size()));
    auto result = call(remote::i2c_read, p.doc());
    if (!result.IsString())
        throw std::system_error(EPROTO, std::generic_category(), "cage answered no bytes");
    const auto bytes = from_hex(result.GetString());
    if (bytes.size() != out.size())
        throw std::system_error(EPROTO, std::generic_category(), "short read from cage");
    std::copy(bytes.begin(), bytes.end(), out.begin());
}

void remote_cage_transport::i2c_write(std::uint8_t device_address, std::uint8_t offset,
                                      std::span<const std::uint8_t> data) {
    params_builder p;
    p.add("address", unsigned{device_address})
        .add("offset", unsigned{offset})
        .add("data", to_hex(data));
    call(remote::i2c_write, p.doc());
}

bool remote_cage_transport::pin_get(unsigned line) {
    params_builder p;
    p.add("line", line);
    return as_bool(call(remote::pin_get, p.doc()));
}

void remote_cage_transport::pin_set(unsigned line, bool value) {
    params_builder p;
    p.add("line", line).add("value", value);
    call(remote::pin_set, p.doc());
}

bool remote_cage_transport::module_present() {
    params_builder p;
    return as_bool(call(remote::present, p.doc()));
}

bool remote_cage_transport::sfp_signal_get(cage::sfp_signal signal) {
    params_builder p;
    p.add("signal", signal_name(signal));
    return as_bool(call(remote::sfp_get, p.doc()));
}

void remote_cage_transport::sfp_signal_set(cage::sfp_signal signal, bool value) {
    params_builder p;
    p.add("signal", signal_name(signal)).add("value", value);
    call(remote::sfp_set, p.doc());
}

}  // namespace qsfpd::remote

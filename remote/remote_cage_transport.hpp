#pragma once

#include <memory>
#include <string>

#include "device_handler_client.hpp"
#include "qsfp_transport.hpp"

namespace qsfpd::remote {

// A cage in another process (qsfp-emu), reached over its Unix socket. Failures come back as
// std::system_error with the errno the cage reported; an unreachable cage is ECONNREFUSED.
class remote_cage_transport final : public cage::qsfp_transport {
  public:
    explicit remote_cage_transport(std::string socket_path);

    void i2c_read(std::uint8_t device_address, std::uint8_t offset,
                  std::span<std::uint8_t> out) override;
    void i2c_write(std::uint8_t device_address, std::uint8_t offset,
                   std::span<const std::uint8_t> data) override;
    bool pin_get(unsigned line) override;
    void pin_set(unsigned line, bool value) override;
    bool module_present() override;
    bool sfp_signal_get(cage::sfp_signal signal) override;
    void sfp_signal_set(cage::sfp_signal signal, bool value) override;

  private:
    rapidjson::Document call(const char* method, const rapidjson::Value& params);

    device_handler_client client_;
};

}  // namespace qsfpd::remote

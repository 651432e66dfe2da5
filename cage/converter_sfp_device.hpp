#pragma once

#include <memory>
#include <span>
#include <string>

#include "qsfp_device.hpp"
#include "sfp_device_base.hpp"

namespace qsfpd::cage {

// The SFP in a QSFP-to-SFP converter, as the SFF-8472 register map (sfp_reg_map) reaches it: the
// linear A0h/A2h space of qsfp_device::sfp_read/sfp_write. Needs the device's converter flag set.
class converter_sfp_device final : public sfp_device_base {
  public:
    explicit converter_sfp_device(std::shared_ptr<qsfp_device> device)
        : device_(std::move(device)) {}

    void read(unsigned address, unsigned length, std::uint8_t* buffer) override {
        device_->sfp_read(checked(address), std::span<std::uint8_t>(buffer, length));
    }
    void write(unsigned address, unsigned length, const std::uint8_t* buffer) override {
        device_->sfp_write(checked(address), std::span<const std::uint8_t>(buffer, length));
    }
    std::string name() const override { return device_->name(); }

  private:
    static std::uint16_t checked(unsigned address) {
        // qsfp_device refuses anything past the 512-byte space; keep large values large.
        return static_cast<std::uint16_t>(address > 0xFFFF ? 0xFFFF : address);
    }

    std::shared_ptr<qsfp_device> device_;
};

}  // namespace qsfpd::cage

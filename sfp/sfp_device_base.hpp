#pragma once

#include <cstdint>
#include <string>

// An SFP reached through a QSFP-to-SFP converter (or any other way): one linear register
// space where A0h byte n is address n and A2h byte n is address 256 + n. Failures throw.
class sfp_device_base {
  public:
    virtual ~sfp_device_base() = default;
    virtual void read(unsigned address, unsigned length, std::uint8_t* buffer) = 0;
    virtual void write(unsigned address, unsigned length, const std::uint8_t* buffer) = 0;
    // For messages.
    virtual std::string name() const = 0;
};

#pragma once

#include <cstdint>
#include <span>

namespace qsfpd::cage {

// The cage's GPIO lines (qsfp_device::pin_get / pin_set).
namespace line {
inline constexpr unsigned lpmode = 0;
inline constexpr unsigned reset = 1;
inline constexpr unsigned tx_led_yellow = 4;
inline constexpr unsigned tx_led_green = 5;
inline constexpr unsigned rx_led_yellow = 6;
inline constexpr unsigned rx_led_green = 7;
}  // namespace line

// The SFP's own signals when the cage holds a QSFP-to-SFP converter.
enum class sfp_signal { tx_fault, tx_disable, los, rate_select };

// Two-wire addresses on the module bus: a QSFP module (and an SFP's A0h) answers at 0x50,
// an SFP's diagnostics page A2h at 0x51.
inline constexpr std::uint8_t module_address = 0x50;
inline constexpr std::uint8_t sfp_diagnostics_address = 0x51;

// The one seam between the daemon and a cage: I2C transfers and lines, nothing more. Paging,
// banks and field decoding live above it in qsfp_device and the register maps. Every failure
// throws std::system_error carrying the errno (ENXIO for a module that does not answer).
class qsfp_transport {
  public:
    virtual ~qsfp_transport() = default;

    // One combined transfer: write the offset, then read out.size() bytes.
    virtual void i2c_read(std::uint8_t device_address, std::uint8_t offset,
                          std::span<std::uint8_t> out) = 0;
    // One write transfer: the offset followed by the data.
    virtual void i2c_write(std::uint8_t device_address, std::uint8_t offset,
                           std::span<const std::uint8_t> data) = 0;

    virtual bool pin_get(unsigned line) = 0;
    virtual void pin_set(unsigned line, bool value) = 0;
    // The ModPrsL line, as "a module is present".
    virtual bool module_present() = 0;

    // Converter cages only; others throw std::system_error(ENOTSUP).
    virtual bool sfp_signal_get(sfp_signal signal) = 0;
    virtual void sfp_signal_set(sfp_signal signal, bool value) = 0;
};

}  // namespace qsfpd::cage

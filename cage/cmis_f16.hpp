#pragma once

#include <cmath>
#include <cstdint>

namespace qsfpd::cage {

// The CMIS 16-bit float of BER and frame-error ratios (CMIS 5.x, VDM observables of type F16):
// an 11-bit mantissa (bits 10-0) times 10 to the power of the 5-bit exponent (bits 15-11)
// minus 24. Decoded by the handlers, encoded by the emulator's pages.
inline double f16_to_double(std::uint16_t raw) {
    return static_cast<double>(raw & 0x7FF) * std::pow(10.0, static_cast<int>(raw >> 11) - 24);
}

// The closest F16 to a non-negative value, with the smallest exponent whose mantissa fits 11 bits
// (the most digits kept); 0 and negatives give 0, values beyond the range the largest F16.
inline std::uint16_t double_to_f16(double value) {
    if (!(value > 0.0)) return 0;
    for (int exponent = 0; exponent < 32; ++exponent) {
        const double mantissa = std::round(value / std::pow(10.0, exponent - 24));
        if (mantissa <= 2047.0)
            return static_cast<std::uint16_t>(exponent << 11 | static_cast<int>(mantissa));
    }
    return 0xFFFF;
}

}  // namespace qsfpd::cage

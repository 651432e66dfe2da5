#pragma once

// The tuning arithmetic the coherent handlers share: their grid table, the channel numbers they
// write for a frequency or an ITU channel, and the RX thresholds of each line rate.

#include <array>
#include <cmath>
#include <cstdint>
#include <optional>

#include "cmis_f16.hpp"

namespace qsfpd::coherent {

// One grid the handlers know: its spacing, the bit of page 04h byte 128 that advertises it, and
// the channel step the frequency tuning divides by.
struct grid_entry {
    float spacing_ghz;
    std::uint8_t advertisement_mask;
    double step_thz;
};

// Two entries are kept as the operators' tooling has always known them: 25 GHz tests the 75 GHz
// advertisement bit, and 33 GHz steps by 0.1 THz.
inline constexpr std::array<grid_entry, 8> grid_table = {{
    {100.0F, 0x20, 0.1},
    {75.0F, 0x80, 0.025},
    {50.0F, 0x10, 0.05},
    {33.0F, 0x40, 0.1},
    {25.0F, 0x80, 0.025},
    {12.5F, 0x04, 0.0125},
    {6.25F, 0x02, 0.00625},
    {3.125F, 0x01, 0.003125},
}};

inline const grid_entry* find_grid(float spacing_ghz) {
    for (const auto& g : grid_table)
        if (g.spacing_ghz == spacing_ghz) return &g;
    return nullptr;
}

// The channel number written for a frequency (MHz) on a grid: its distance from 193.1 THz in
// the grid's steps, truncated to 16 bits as the register holds it.
inline std::int16_t frequency_channel(double frequency_mhz, const grid_entry& grid) {
    return static_cast<std::int16_t>(
        static_cast<long>(std::lround((frequency_mhz / 1000000.0 - 193.1) / grid.step_thz)));
}

// The ITU channel value of a frequency: 10 GHz units above 100 THz, so 193.1 THz is 9310.
inline long itu_channel_of(std::uint32_t frequency_mhz) {
    return static_cast<long>(frequency_mhz / 10000) - 10000;
}

// The channel number written for an ITU channel value on a grid (GHz x 1000 as an integer);
// 0 for a grid without a divisor.
inline std::int16_t itu_channel_number(long itu_channel, int grid_mhz) {
    double divisor = 0.0;
    switch (grid_mhz) {
        case 3125:
            divisor = 0.3125;
            break;
        case 6250:
            divisor = 0.625;
            break;
        case 12500:
            divisor = 1.25;
            break;
        case 25000:
            divisor = 2.5;
            break;
        case 33000:
            divisor = 3.0;
            break;
        case 50000:
            divisor = 5.0;
            break;
        case 75000:
            divisor = 2.5;
            break;
        case 100000:
            divisor = 10.0;
            break;
        default:
            return 0;
    }
    return static_cast<std::int16_t>(static_cast<long>(std::trunc((itu_channel - 9310) / divisor)));
}

// The RX thresholds of a line rate (dBm); rates without a row get 99.0 everywhere.
struct rate_thresholds {
    double los;
    double low_warning;
    double low_alarm;
};

inline rate_thresholds thresholds_of_rate(unsigned gbps) {
    switch (gbps) {
        case 100:
            return {-35.0, -32.0, -35.0};
        case 200:
            return {-32.0, -29.0, -32.0};
        case 300:
            return {-26.0, -23.0, -26.0};
        case 400:
            return {-24.0, -21.0, -24.0};
        default:
            return {99.0, 99.0, 99.0};
    }
}

// CMIS F16, as the VDM decoder reads it.
inline double f16_value(std::uint16_t raw) {
    return cage::f16_to_double(raw);
}

}  // namespace qsfpd::coherent

#pragma once

// The register units of module monitors and thresholds, the same in SFF-8636 and CMIS:
// temperature 1/256 degC, supply voltage 100 uV, bias 2 uA, optical power 0.1 uW.

#include <cmath>
#include <cstdint>

namespace qsfpd::units {

// Rounds to `decimals` places. Dividing by the power of ten gives the double nearest to the
// decimal (3.3, not 3.3000000000000003), and -0.0 is published as 0.0.
inline double round_to(double value, int decimals) {
    const double scale = std::pow(10.0, decimals);
    const double rounded = std::round(value * scale) / scale;
    return rounded == 0.0 ? 0.0 : rounded;
}

inline double temperature_celsius(std::int16_t raw) {
    return round_to(raw / 256.0, 1);
}

inline double voltage_volts(std::uint16_t raw) {
    return round_to(raw / 10000.0, 2);
}

// CMIS modules may scale their bias monitors by 2 or 4 (page 01h byte 160).
inline double bias_milliamps(std::uint16_t raw, unsigned multiplier = 1) {
    return round_to(raw * static_cast<double>(multiplier) / 500.0, 2);
}

// A dark lane (0) reads -99 dBm rather than minus infinity.
inline double power_dbm(std::uint16_t raw) {
    if (raw == 0) return -99.0;
    return round_to(10.0 * std::log10(raw / 10000.0), 1);
}

// Sum of lane powers (0.1 uW units) in dBm, -99.0 when a lane is dark or the sum is tiny.
template <class Lanes>
double total_power_dbm(const Lanes& raw_lane_powers) {
    constexpr double no_light = -99.0;
    constexpr double floor_dbm = -40.0;
    double sum_mw = 0;
    for (const auto raw : raw_lane_powers) {
        if (raw == 0) return no_light;
        sum_mw += raw / 10000.0;
    }
    const double dbm = std::round(10.0 * std::log10(sum_mw) * 10.0) / 10.0 + 0.0;  // no -0.0
    return dbm <= floor_dbm ? no_light : dbm;
}

}  // namespace qsfpd::units

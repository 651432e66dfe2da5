#pragma once

// The log texts of transmitter enable, the same for every module family. "enbled" is the
// spelling operators' log filters know.

#include <string>

#include <fmt/format.h>

namespace qsfpd::tx_texts {

// Every transmitter at once: "TX enbled <module>", "TX already disabled <module>", ...
inline std::string module(bool enable, bool already, const std::string& name) {
    if (already) return (enable ? "TX already enabled " : "TX already disabled ") + name;
    return (enable ? "TX enbled " : "TX disabled ") + name;
}

// One lane (the index, from 0).
inline std::string lane(unsigned index, bool enable, bool already, const std::string& name) {
    const char* state = enable ? (already ? "already enabled" : "enbled")
                               : (already ? "already disabled" : "disabled");
    return fmt::format("TX lane {} {} {}", index, state, name);
}

inline std::string lane_not_available(unsigned index, const std::string& name) {
    return fmt::format("TX lane {} not available {}", index, name);
}

}  // namespace qsfpd::tx_texts

#pragma once

#include <array>
#include <optional>
#include <string_view>

// The SFP catalogue's per-module flags, handed to every SFP+ handler.
struct sfp_flags_s {
    // "wdm" of the catalogue entry, by its index in wdm_type_names.
    unsigned wdm_type = 0;
    bool isTunable = false;
    bool isCertified = false;
    // Derive loss of signal from the RX power with hysteresis instead of trusting the module's
    // LOS signal (modules whose LOS chatters near the sensitivity limit).
    bool isLosWorkaround = false;
    // Hysteresis of that soft LOS in 0.1 dB: set below the threshold, cleared this much above.
    int softLOSHyst = 10;
    bool isFlextune = false;
    bool isUOTDR = false;

    bool operator==(const sfp_flags_s&) const = default;
};

inline constexpr std::array<std::string_view, 5> wdm_type_names = {"NONE", "DWDM", "CWDM",
                                                                   "SR850NM", "LR1310NM"};
inline constexpr unsigned wdm_type_dwdm = 1;

// The index of a "wdm" text; none for a text that is not one of the five.
constexpr std::optional<unsigned> wdm_type_of(std::string_view name) {
    for (unsigned i = 0; i < wdm_type_names.size(); ++i)
        if (wdm_type_names[i] == name) return i;
    return std::nullopt;
}

#pragma once

// The catalogue's per-module feature flags, handed to every handler.
struct qsfp_flags_s {
    bool isAutoNeg = false;
    bool isFec = false;
    bool isTxTuning = false;
    bool isCertified = false;

    bool operator==(const qsfp_flags_s&) const = default;
};

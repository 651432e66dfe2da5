#pragma once

// CMIS state encodings shared by the register map, the handlers and the module emulator.

#include <cstdint>

namespace qsfpd::cage {

// Module state, lower page byte 3 bits 3-1 (CMIS 5.2 Table 8-7).
enum class cmis_module_state : std::uint8_t {
    low_pwr = 1,
    pwr_up = 2,
    ready = 3,
    pwr_dn = 4,
    fault = 5,
};

// Data path state of a host lane, page 11h bytes 128-131, one nibble per lane (lane 1 low).
enum class cmis_dp_state : std::uint8_t {
    deactivated = 1,
    init = 2,
    deinit = 3,
    activated = 4,
    tx_turn_on = 5,
    tx_turn_off = 6,
    initialized = 7,
};

// ConfigStatus of a host lane, page 11h bytes 202-205, one nibble per lane.
enum class cmis_config_status : std::uint8_t {
    undefined = 0,
    success = 1,
    rejected = 2,
    rejected_invalid_app_sel = 3,
    rejected_invalid_data_path = 4,
    rejected_invalid_si = 5,
    rejected_lane_in_use = 6,
    rejected_partial_data_path = 7,
    in_progress = 12,
};

}  // namespace qsfpd::cage

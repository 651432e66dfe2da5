#pragma once

#include <span>
#include <string_view>

#include "vdm_map.hpp"

namespace qsfpd::cmis {

// One VDM observable a handler publishes: the node "data/" + node (and its "/flag",
// "/highAlarm", "/lowAlarm", "/highWarning", "/lowWarning" siblings), the CMIS type ID, the value
// format and the scale from the register unit to the published unit.
struct vdm_observable {
    std::string_view node;
    VDM_observable_types type;
    VDM_format format;
    double scale;
};

// The observables of the CMIS 5 coherent handler, in publishing order.
std::span<const vdm_observable> cmis5_vdm_observables();

}  // namespace qsfpd::cmis

#pragma once

#include <memory>

#include "device_handler_api.hpp"
#include "qsfp_transport.hpp"

namespace qsfpd::remote {

// Serves one cage's transport on a framework server, so a daemon in another process drives
// the cage through remote_cage_transport as if it were local hardware.
void serve_cage(device_handler_api& server, std::shared_ptr<cage::qsfp_transport> cage);

}  // namespace qsfpd::remote

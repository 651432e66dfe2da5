#pragma once

#include <string>
#include <string_view>

namespace qsfpd {

// Fixed absolute paths of the system ("/etc/...", "/tmp/device_handlers/...",
// "/proc/device-tree/...") are looked up under $QSFPD_ROOT when it is set, so tests and demos never
// touch the real system. Paths given by an operator on the command line are used as given and do
// not pass through here.
std::string system_path(std::string_view absolute_path);

}  // namespace qsfpd

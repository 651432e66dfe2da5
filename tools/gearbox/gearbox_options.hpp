#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "gearbox_state.hpp"

namespace qsfpd::gearbox {

// The socket qsfpd's handlers reach the gearbox handler on (looked up under $QSFPD_ROOT).
inline constexpr auto default_server_name = "/tmp/device_handlers/bcm_gb";
// One above qsfpd's 2500, so that both run side by side with their defaults.
inline constexpr std::uint32_t default_port = 2501;

struct gearbox_options {
    std::string server_name;  // the Unix socket path, as given or from system_path()
    std::uint32_t port = default_port;
    gearbox_values initial;
    bool help = false;
};

struct usage_error {
    std::string text;
};

// Parses the command line (without the program name).
std::variant<gearbox_options, usage_error> parse_gearbox_options(
    const std::vector<std::string>& args);
std::string gearbox_usage();

}  // namespace qsfpd::gearbox

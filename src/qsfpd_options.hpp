#pragma once

#include <boost/program_options/options_description.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qsfpd {

// The unit value that stands for "no unit": the single-cage ZELT-20.
inline constexpr std::uint32_t unit_omitted = 99;

struct daemon_options {
    std::string device_path;  // with the unit appended when one is given
    std::string server_name;
    std::uint32_t unit = unit_omitted;
    std::uint32_t num_units = 0;
    std::uint32_t port = 2500;
};

boost::program_options::options_description make_options_description();

// Parses the command line. On a parse error or "help", prints the description (and "\n") to
// `out` and returns nothing: the process then exits with status 1.
std::optional<daemon_options> parse_command_line(int argc, const char* const argv[],
                                                 std::ostream& out);

}  // namespace qsfpd

#include "qsfpd_options.hpp"

#include <boost/program_options.hpp>
#include <cstdio>
#include <ostream>

namespace po = boost::program_options;

namespace qsfpd {

namespace {
// A TCP port beyond 65535 would otherwise be cut silently to 16 bits.
void check_port(std::uint32_t port) {
    if (port > 65535)
        throw po::validation_error(po::validation_error::invalid_option_value, "port");
}
}  // namespace

po::options_description make_options_description() {
    po::options_description description("Available options",
                                        po::options_description::m_default_line_length,
                                        po::options_description::m_default_line_length / 2);
    // clang-format off
    description.add_options()
        ("help", "Print help message")
        ("device_path,d", po::value<std::string>()->default_value("/dev/qsfp"),
            "path to qsfp device file (default value: /dev/qsfp)")
        ("unit,u", po::value<std::uint32_t>()->default_value(unit_omitted),
            "qsfp unit number, leave out for ZELT-20")
        ("num_units,n", po::value<std::uint32_t>()->default_value(0),
            "total number of qsfp:s on bus for calculation of time slots for bus access")
        ("port,p", po::value<std::uint32_t>()->default_value(2500)->notifier(check_port),
            "listening socket port number (default value: 2500)");
    // clang-format on
    return description;
}

std::optional<daemon_options> parse_command_line(int argc, const char* const argv[],
                                                 std::ostream& out) {
    const auto description = make_options_description();
    po::variables_map vm;
    try {
        const auto parsed = po::parse_command_line(argc, argv, description);
        // A stray word would otherwise be dropped without a trace.
        if (!po::collect_unrecognized(parsed.options, po::include_positional).empty())
            throw po::error("unexpected argument");
        po::store(parsed, vm);
        po::notify(vm);
    } catch (...) {
        out << description << "\n";
        return std::nullopt;
    }
    if (vm.count("help")) {
        out << description << "\n";
        return std::nullopt;
    }

    daemon_options options;
    options.unit = vm["unit"].as<std::uint32_t>();
    options.num_units = vm["num_units"].as<std::uint32_t>();
    options.port = vm["port"].as<std::uint32_t>();
    options.device_path = vm["device_path"].as<std::string>();
    if (options.unit == unit_omitted) {
        options.server_name = "/tmp/device_handlers/qsfp";
    } else {
        options.device_path += std::to_string(options.unit);
        char unit_text[16];
        std::snprintf(unit_text, sizeof unit_text, "%u", options.unit);
        options.server_name = std::string("/tmp/device_handlers/qsfp/") + unit_text;
    }
    return options;
}

}  // namespace qsfpd

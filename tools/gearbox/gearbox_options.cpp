#include "gearbox_options.hpp"

#include <boost/program_options.hpp>
#include <sstream>

#include "system_path.hpp"

namespace po = boost::program_options;

namespace qsfpd::gearbox {

namespace {

po::options_description make_description() {
    po::options_description description("Options", po::options_description::m_default_line_length,
                                        po::options_description::m_default_line_length / 2);
    // clang-format off
    description.add_options()
        ("help,h", "print this help")
        ("socket,s", po::value<std::string>(),
            "Unix socket to serve on (default /tmp/device_handlers/bcm_gb under $QSFPD_ROOT)")
        ("port,p", po::value<std::uint32_t>()->default_value(default_port),
            "listening TCP port (0: any free port, logged at start)")
        ("oper-status", po::value<std::string>()->default_value("up"),
            "data/operStatus at start: up or down")
        ("lock", po::value<std::string>()->default_value("1111"),
            "hasLock of lanes 0..3 at start, lane 0 first (e.g. 1101)")
        ("link", po::value<std::string>()->default_value("1111"),
            "hasLink of lanes 0..3 at start, lane 0 first")
        ("warm-started", "data/debug/isWarmStarted is true at start");
    // clang-format on
    return description;
}

lane_bits lane_option(const po::variables_map& vm, const char* name) {
    const auto& text = vm[name].as<std::string>();
    if (auto bits = parse_lane_bits(text)) return *bits;
    throw std::invalid_argument("--" + std::string(name) + " '" + text +
                                "': expected four digits 0 or 1, lane 0 first (e.g. 1101)");
}

}  // namespace

std::variant<gearbox_options, usage_error> parse_gearbox_options(
    const std::vector<std::string>& args) {
    gearbox_options options;
    try {
        // The parsed options point into the description: it must outlive them.
        const auto description = make_description();
        po::variables_map vm;
        const auto parsed = po::command_line_parser(args).options(description).run();
        // A stray word would otherwise be dropped without a trace.
        if (!po::collect_unrecognized(parsed.options, po::include_positional).empty())
            throw std::invalid_argument("unexpected argument");
        po::store(parsed, vm);
        po::notify(vm);
        if (vm.count("help")) {
            options.help = true;
            return options;
        }
        options.port = vm["port"].as<std::uint32_t>();
        if (options.port > 65535)
            throw std::invalid_argument("--port " + std::to_string(options.port) + ": above 65535");
        // A path given by the operator is used as given; only the fixed one moves under the root.
        options.server_name = vm.count("socket") ? vm["socket"].as<std::string>()
                                                 : qsfpd::system_path(default_server_name);
        if (options.server_name.empty()) throw std::invalid_argument("--socket: empty path");
        const auto& status = vm["oper-status"].as<std::string>();
        if (status != "up" && status != "down")
            throw std::invalid_argument("--oper-status '" + status + "': expected up or down");
        options.initial.up = status == "up";
        options.initial.has_lock = lane_option(vm, "lock");
        options.initial.has_link = lane_option(vm, "link");
        options.initial.warm_started = vm.count("warm-started") > 0;
    } catch (const std::exception& e) {
        return usage_error{e.what()};
    }
    return options;
}

std::string gearbox_usage() {
    std::ostringstream out;
    out << "Usage: qsfp-gearbox [options]\n\n"
           "Serves the nodes qsfpd reads from a ZELT-20 board's gearbox handler:\n"
           "data/operStatus, data/debug/isWarmStarted, data/debug/client/lane/N/hasLock and\n"
           "hasLink (N 0..3). Writing config/operStatus, config/warmStarted or\n"
           "config/lane/N/hasLock|hasLink changes them while it runs, e.g.\n"
           "  qsfpctl -s $QSFPD_ROOT/tmp/device_handlers/bcm_gb set config/lane/3/hasLink false\n\n"
        << make_description() << "\nExit status: 0 after SIGTERM or SIGINT, 2 bad usage.\n";
    return out.str();
}

}  // namespace qsfpd::gearbox

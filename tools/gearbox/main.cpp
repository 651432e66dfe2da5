#include <csignal>
#include <iostream>
#include <variant>

#include "device_handler_api.hpp"
#include "gearbox_options.hpp"
#include "gearbox_state.hpp"
#include "msg_log.hpp"

int main(int argc, char* argv[]) {
    using namespace qsfpd::gearbox;
    const auto parsed = parse_gearbox_options(std::vector<std::string>(argv + 1, argv + argc));
    if (const auto* error = std::get_if<usage_error>(&parsed)) {
        std::cerr << "qsfp-gearbox: " << error->text << "\n"
                  << "Try 'qsfp-gearbox --help'.\n";
        return 2;
    }
    const auto& options = std::get<gearbox_options>(parsed);
    if (options.help) {
        std::cout << gearbox_usage();
        return 0;
    }

    std::signal(SIGPIPE, SIG_IGN);
    msg_log::init({.ident = "qsfp-gearbox"});
    device_handler_api server(options.server_name, options.port, false);
    const auto state = gearbox_state::create(server.get_db(), options.initial);
    MSG_LOG(msg_log::info, "qsfp-gearbox")
        << "Serving bcm_gb on " << options.server_name << " and TCP port " << server.tcp_port()
        << ": " << state->describe();
    server.start();
    MSG_LOG(msg_log::info, "qsfp-gearbox") << "Stopped: " << state->describe();
    return 0;
}

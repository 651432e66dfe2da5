#include <csignal>
#include <iostream>
#include <memory>

#include "device_handler_api.hpp"
#include "msg_log.hpp"
#include "qsfp_device.hpp"
#include "qsfp_device_mgr.hpp"
#include "qsfpd_options.hpp"
#include "remote_cage_transport.hpp"
#include "system_path.hpp"

int main(int argc, char* argv[]) {
    auto options = qsfpd::parse_command_line(argc, argv, std::cout);
    if (!options) return 1;

    std::signal(SIGPIPE, SIG_IGN);
    msg_log::init();
    // A device path naming a socket is a cage of the module emulator.
    qsfpd::cage::qsfp_device::set_transport_factory([](const std::string& path) {
        return std::make_shared<qsfpd::remote::remote_cage_transport>(path);
    });

    std::shared_ptr<device_handler_api> server;
    std::shared_ptr<qsfp_device_mgr> manager;
    try {
        server = std::make_shared<device_handler_api>(qsfpd::system_path(options->server_name),
                                                      options->port, false);
        // The manager polls the cage from here on, before the server takes its first client.
        manager = std::make_shared<qsfp_device_mgr>(options->device_path, server->get_db(),
                                                    options->unit, options->num_units);
        manager->start();
    } catch (const std::exception& e) {
        // A cage that is not there (no such device, no board file, an emulator not started
        // yet) or a server name in use: say so and leave, rather than abort.
        MSG_LOG(msg_log::error, options->device_path + "/init")
            << "Cannot serve " << options->device_path << ": " << e.what();
        std::cerr << "qsfpd: cannot serve " << options->device_path << ": " << e.what() << "\n";
        return 1;
    }

    MSG_LOG(msg_log::info, options->device_path + "/init")
        << "Device handler initialized for " << options->device_path << ". Listening on port "
        << options->port << ".";

    server->start();
    manager.reset();
    server.reset();
    return 0;
}

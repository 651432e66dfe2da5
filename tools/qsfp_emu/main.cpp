#include <boost/program_options.hpp>
#include <csignal>
#include <iostream>

#include "emu_ctl.hpp"
#include "emu_service.hpp"
#include "msg_log.hpp"

namespace po = boost::program_options;

namespace {

int serve(int argc, char* argv[]) {
    po::options_description description("qsfp-emu options");
    // clang-format off
    description.add_options()
        ("help,h", "print this help")
        ("dir", po::value<std::string>()->default_value("/tmp/qsfp-emu"),
            "directory of the cage sockets <dir>/qsfp0.. and the control socket <dir>/control")
        ("cages", po::value<unsigned>()->default_value(8), "number of cages on the bus")
        ("insert", po::value<std::vector<std::string>>()->composing(),
            "CAGE=PROFILE: insert a profile (file or bundled name, e.g. 3=lr4) at start")
        ("bus-speed", po::value<unsigned>()->default_value(400000), "simulated I2C bus speed in Hz");
    // clang-format on
    po::variables_map vm;
    try {
        po::store(po::parse_command_line(argc, argv, description), vm);
        po::notify(vm);
    } catch (const std::exception& e) {
        std::cerr << "qsfp-emu: " << e.what() << "\n" << description << "\n";
        return 2;
    }
    if (vm.count("help")) {
        std::cout << "usage: qsfp-emu [options]\n       qsfp-emu ctl [--dir DIR] METHOD ARGS...\n\n"
                  << description << "\n"
                  << qsfpd::emu::ctl_usage();
        return 0;
    }
    qsfpd::emu::emu_service::options options;
    options.dir = vm["dir"].as<std::string>();
    options.cages = vm["cages"].as<unsigned>();
    options.bus_speed_hz = vm["bus-speed"].as<unsigned>();
    options.handle_signals = true;
    if (options.cages == 0 || options.cages > 64 || options.bus_speed_hz == 0) {
        std::cerr << "qsfp-emu: --cages must be 1..64 and --bus-speed above 0\n";
        return 2;
    }
    msg_log::init();
    qsfpd::emu::emu_service service(options);
    if (vm.count("insert")) {
        for (const auto& item : vm["insert"].as<std::vector<std::string>>()) {
            const auto eq = item.find('=');
            try {
                if (eq == std::string::npos) throw std::invalid_argument("expected CAGE=PROFILE");
                service.insert(static_cast<unsigned>(std::stoul(item.substr(0, eq))),
                               item.substr(eq + 1));
            } catch (const std::exception& e) {
                std::cerr << "qsfp-emu: --insert " << item << ": " << e.what() << "\n";
                return 2;
            }
        }
    }
    MSG_LOG(msg_log::info, "qsfp-emu")
        << "Serving " << options.cages << " cages at " << options.dir.string()
        << "/qsfp0.. (control: " << service.control_socket().string() << ")";
    service.run();
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::signal(SIGPIPE, SIG_IGN);
    if (argc >= 2 && std::string_view(argv[1]) == "ctl") {
        std::vector<std::string> args(argv + 2, argv + argc);
        return qsfpd::emu::run_ctl(args, std::cout, std::cerr);
    }
    return serve(argc, argv);
}

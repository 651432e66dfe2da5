#include "run_qsfpctl.hpp"

#include <memory>
#include <variant>

#include "ctl_commands.hpp"
#include "ctl_options.hpp"
#include "ctl_status.hpp"
#include "device_handler_client.hpp"

namespace qsfpctl {

int run_qsfpctl(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                const watch_controls& controls) {
    auto parsed = parse_ctl_options(args);
    if (const auto* problem = std::get_if<usage_error>(&parsed)) {
        err << "qsfpctl: " << problem->message << "\n\n" << usage_text();
        return status::usage;
    }
    const auto& options = std::get<ctl_options>(parsed);
    if (options.help) {
        out << usage_text();
        return status::ok;
    }

    try {
        auto client = options.socket_path.empty() ? std::make_unique<device_handler_client>(
                                                        options.host, options.port, options.timeout)
                                                  : std::make_unique<device_handler_client>(
                                                        options.socket_path, options.timeout);
        // Connecting first tells "no daemon" apart from a daemon that refuses the request.
        if (!client->connect()) {
            err << "qsfpctl: cannot connect to " << client->target() << " (is qsfpd running?)\n";
            return status::unreachable;
        }
        return ctl_commands(*client, options, out, err, controls).execute();
    } catch (const std::exception& e) {
        err << "qsfpctl: " << e.what() << '\n';
        return status::failed;
    }
}

}  // namespace qsfpctl

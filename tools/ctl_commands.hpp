#pragma once

#include <ostream>
#include <string>
#include <string_view>

#include "ctl_options.hpp"
#include "device_handler_client.hpp"
#include "watch_controls.hpp"

namespace qsfpctl {

// The commands of qsfpctl over one connected client. Each returns the process exit status and
// has already written its output and any error by then.
class ctl_commands {
  public:
    ctl_commands(device_handler_client& client, const ctl_options& options, std::ostream& out,
                 std::ostream& err, const watch_controls& controls);

    int execute();

  private:
    int get();
    int set();
    int run();
    int info();
    int ls();
    int tree();
    int watch();

    // Prints the daemon's error for `subject` (a path) and returns the status for it.
    int report(std::string_view subject, const dh_error& error);
    std::chrono::system_clock::time_point now() const;
    void print_watch_line(const std::string& path, const std::string& value_text);

    device_handler_client& client_;
    const ctl_options& options_;
    std::ostream& out_;
    std::ostream& err_;
    const watch_controls& controls_;
};

}  // namespace qsfpctl

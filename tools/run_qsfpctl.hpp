#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "watch_controls.hpp"

namespace qsfpctl {

// The whole of qsfpctl: `args` are the words after the program name. Output goes to `out`,
// errors and usage problems to `err`; the result is the exit status (see ctl_status.hpp).
int run_qsfpctl(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                const watch_controls& controls = {});

}  // namespace qsfpctl

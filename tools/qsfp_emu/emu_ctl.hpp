#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace qsfpd::emu {

// `qsfp-emu ctl [--dir DIR] METHOD ARGS...`: one control request, its result on `out`.
// Arguments are positional per method, or one JSON object with the params.
int run_ctl(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
std::string ctl_usage();

}  // namespace qsfpd::emu

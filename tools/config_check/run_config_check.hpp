#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "diagnostics.hpp"
#include "file_kinds.hpp"
#include "json_outline.hpp"

namespace config_check {

// The problems of one text read as `kind`: a syntax error alone (the daemon reads nothing from
// such a file), else what the kind's checker finds.
diagnostics check_outline(const json_outline& outline, const file_kind& kind);

// qsfp-config-check with its arguments (program name excluded): diagnostics to `out`, usage and
// unreadable files to `err`. Returns the exit status: 0 all good, 1 a file has a problem, 2 a
// usage error or a file that could not be read or classified.
int run_config_check(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace config_check

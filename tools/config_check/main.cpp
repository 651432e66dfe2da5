// qsfp-config-check: checks qsfpd's configuration files before the daemon reads them. The work
// is done in run_config_check, where the tests reach it.
#include <iostream>
#include <string>
#include <vector>

#include "run_config_check.hpp"

int main(int argc, char* argv[]) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    return config_check::run_config_check(args, std::cout, std::cerr);
}
